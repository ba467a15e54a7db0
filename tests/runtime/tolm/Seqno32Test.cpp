#include "Tolm/Seqno32.h"

#include <absl/container/btree_map.h>
#include <absl/container/flat_hash_set.h>
#include <gtest/gtest.h>

#include <unordered_set>

#include "Zol/Text.h"

namespace {

using Tolm::Seqno32;

TEST(Seqno32, SerialArithmetic) {
  Seqno32 const last(0xffffffffu), zero(0);
  EXPECT_TRUE(last < zero && zero > last && last <= zero && zero >= last);
  EXPECT_FALSE(zero < last || last > zero || last >= zero || zero < zero);
  EXPECT_EQ(zero - last, 1);
  EXPECT_EQ(Seqno32(5) - Seqno32(0xfffffffbu), 10);
  // Just under half the space apart still orders; exactly half apart is less both ways.
  EXPECT_FALSE(Seqno32(10 + 0x7fffffffu) < Seqno32(10));
  EXPECT_TRUE(Seqno32(10) < Seqno32(10 + 0x80000000u) && Seqno32(10 + 0x80000000u) < Seqno32(10));

  Seqno32 s(0xfffffffeu);
  EXPECT_EQ(s++, Seqno32(0xfffffffeu));
  EXPECT_EQ(++s, zero);
  EXPECT_EQ(s + 3, Seqno32(3));
  EXPECT_EQ(s += 0xffffffffu, last);
}

TEST(Seqno32, KeysHashesAndText) {
  // Ordered containers use the raw order, which ranks numbers serial order cannot.
  absl::btree_map<Seqno32, int> map;
  for (uint32_t i = 16; i-- > 0;) map[Seqno32(i * 0x10000000u)] = int(i);
  int expected = 0;
  for (auto const& [k, v] : map) EXPECT_EQ(v, expected++);
  EXPECT_EQ(expected, 16);

  absl::flat_hash_set<Seqno32> hashed = {Seqno32(1), Seqno32(0x80000001u), Seqno32(1)};
  std::unordered_set<Seqno32> stdHashed(hashed.begin(), hashed.end());
  EXPECT_EQ(hashed.size(), 2u);
  EXPECT_TRUE(stdHashed.count(Seqno32(0x80000001u)) && !stdHashed.count(Seqno32(2)));

  std::array<Seqno32, 2> const pair = {Seqno32(1), Seqno32(0xffffffffu)};
  EXPECT_EQ(Zol::stringValue(pair), "[1, 4294967295]");
  EXPECT_EQ((Zol::valueFromString<std::array<Seqno32, 2>>(" [1,4294967295]")), pair);
  EXPECT_THROW(Zol::valueFromString<Seqno32>("4294967296"), Zol::RangeException);
  EXPECT_THROW(Zol::valueFromString<Seqno32>("-1"), Zol::ParseError);
  EXPECT_THROW(Zol::valueFromString<Seqno32>("'3'"), Zol::ParseError);
}

}  // namespace
