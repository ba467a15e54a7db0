// The MAC SM's pending writes: one per pair, drained in first-queued order, and the places of
// pairs taken out early reclaimed without losing or reordering the rest.
#include <gtest/gtest.h>

#include <vector>

#include "Vemo/MacUpdateList.h"

namespace Vemo {
namespace {

Bridging::MacVlanPair pair(uint32_t n) {
  return Bridging::MacVlanPair(
      Nepo::EthAddr(0x02, 0, n >> 24 & 0xff, n >> 16 & 0xff, n >> 8 & 0xff, n & 0xff),
      Bridging::VlanId(10));
}

ModifyMacEntry write(uint32_t moves) {
  ModifyMacEntry u;
  u.movesIs(moves);
  return u;
}

// Drains the list, giving each pair with the move count of its write.
std::vector<std::pair<Bridging::MacVlanPair, uint32_t>> drain(MacUpdateList& list) {
  std::vector<std::pair<Bridging::MacVlanPair, uint32_t>> out;
  while (auto const q = list.front()) {
    out.emplace_back(q->key, q->update.moves());
    list.popFront();
  }
  return out;
}

TEST(MacUpdateList, ReplacedWriteKeepsItsPlaceAndErasedPairRequeuesAtTheBack) {
  MacUpdateList list;
  EXPECT_TRUE(list.put(pair(1), write(1), 5.0));
  EXPECT_TRUE(list.put(pair(2), write(2), 6.0));
  EXPECT_TRUE(list.put(pair(3), write(3), 7.0));
  EXPECT_FALSE(list.put(pair(1), write(10), 8.0));
  ASSERT_NE(list.find(pair(1)), nullptr);
  EXPECT_EQ(list.find(pair(1))->since, 5.0);  // first queued, not last replaced
  list.erase(pair(2));
  EXPECT_FALSE(list.contains(pair(2)));
  EXPECT_TRUE(list.put(pair(2), write(20), 9.0));
  EXPECT_EQ(list.size(), 3u);
  using P = std::pair<Bridging::MacVlanPair, uint32_t>;
  EXPECT_EQ(drain(list), (std::vector<P>{{pair(1), 10}, {pair(3), 3}, {pair(2), 20}}));
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(list.find(pair(1)), nullptr);
}

TEST(MacUpdateList, ChurnWhileNothingDrainsIsReclaimedAndKeepsOrder) {
  // A busy chip stops the drain while the same pairs are taken out and queued again and again.
  MacUpdateList list;
  for (uint32_t n = 0; n < 100; ++n) list.put(pair(n), write(n), 0);
  for (uint32_t round = 1; round <= 200; ++round) {
    for (uint32_t n = 50; n < 100; ++n) {
      list.erase(pair(n));
      list.put(pair(n), write(round * 1000 + n), 0);
    }
  }
  // Every place left behind would hold 10,000 writes; compaction keeps them few.
  size_t held = 0;
  while (list.ahead(held)) ++held;
  EXPECT_LT(held, 100u + 2 * 4096);
  EXPECT_EQ(list.size(), 100u);
  // After compaction the index still finds each pair's own write.
  ASSERT_NE(list.find(pair(70)), nullptr);
  EXPECT_EQ(list.find(pair(70))->update.moves(), 200070u);
  list.put(pair(70), write(7), 0);
  auto const out = drain(list);
  ASSERT_EQ(out.size(), 100u);
  for (uint32_t n = 0; n < 50; ++n) EXPECT_EQ(out[n], std::pair(pair(n), n));
  for (uint32_t n = 50; n < 100; ++n) {
    EXPECT_EQ(out[n], std::pair(pair(n), n == 70 ? 7u : 200000u + n));
  }
}

}  // namespace
}  // namespace Vemo
