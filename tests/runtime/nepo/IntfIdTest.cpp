#include "Nepo/IntfId.h"

#include <absl/hash/hash_testing.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "Zol/Text.h"
#include "Zol/Types.h"

using Nepo::IntfId;
using Nepo::IntfKind;
using testing::HasSubstr;
using testing::ThrowsMessage;

static_assert(Zol::StringLike<IntfId>);
static_assert(sizeof(IntfId) == 8);

namespace {

std::vector<std::string> words(std::string_view text) {
  std::vector<std::string> out;
  for (size_t pos = 0; pos < text.size();) {
    size_t end = std::min(text.find(' ', pos), text.size());
    out.emplace_back(text.substr(pos, end - pos));
    pos = end + 1;
  }
  return out;
}

}  // namespace

TEST(IntfId, ParsesEveryKind) {
  struct Case {
    char const* text;
    IntfKind kind;
    std::vector<uint32_t> numbers;
    uint32_t subIntfId = 0;
  };
  std::vector<Case> cases = {
      {"", IntfKind::Empty, {}},
      {"Ethernet3/1/4", IntfKind::Ethernet, {3, 1, 4}},
      {"Ethernet0/0", IntfKind::Ethernet, {0, 0}},
      {"Ethernet1048575/1022/1022.1048575",
       IntfKind::EthernetSubIntf,
       {1048575, 1022, 1022},
       1048575},
      {"PeerEthernet7/1", IntfKind::PeerEthernet, {7, 1}},
      {"Port-Channel1", IntfKind::PortChannel, {1}},
      {"Port-Channel12.4000", IntfKind::PortChannelSubIntf, {12}, 4000},
      {"PeerPort-Channel9", IntfKind::PeerPortChannel, {9}},
      {"Vlan4094", IntfKind::Vlan, {4094}},
      {"Vxlan1", IntfKind::Vxlan, {1}},
      {"Tunnel5", IntfKind::Tunnel, {5}},
      {"Pseudowire3", IntfKind::Pseudowire, {3}},
      {"Loopback0", IntfKind::Loopback, {0}},
      {"Management1/1", IntfKind::Management, {1, 1}},
      {"Cpu", IntfKind::Cpu, {}},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.text);
    IntfId id = IntfId::fromString(c.text);
    EXPECT_EQ(id.kind(), c.kind);
    EXPECT_EQ(id.stringValue(), c.text);
    ASSERT_EQ(id.numberCount(), c.numbers.size());
    for (unsigned i = 0; i < c.numbers.size(); ++i) EXPECT_EQ(id.number(i), c.numbers[i]);
    EXPECT_EQ(id.subIntfId(), c.subIntfId);
  }
  EXPECT_FALSE(IntfId::fromString("Ethernet1.1").isEthernet());
}

TEST(IntfId, RejectsBadNamesNamingThem) {
  std::vector<std::string> bad = words(
      "Ethernt1 Ethernet ethernet1 Ethernet01 Ethernet1/ Ethernet1//2 Ethernet1/2/3/4 Ethernet1. "
      "Ethernet1.0 Ethernet1.2.3 Ethernet1.2/3 Ethernet-1 Ethernet1048576 Ethernet1/1023 "
      "Ethernet1.1048576 Ethernet99999999999 Vlan0 Vlan4095 Vlan10.5 Port-Channel0 "
      "PeerEthernet1.10 Loopback1/1 Management1/1/1 Cpu1 Cpu.1 1 /1");
  bad.insert(bad.end(), {" Ethernet1", "Ethernet1 "});
  for (auto const& text : bad) {
    EXPECT_THAT([&] { IntfId::fromString(text); },
                ThrowsMessage<Zol::ParseError>(HasSubstr("'" + text + "'")));
  }
}

TEST(IntfId, BuildsFromNumbersAndSubInterfaces) {
  EXPECT_EQ(IntfId(IntfKind::Ethernet, {3, 1, 4}), IntfId::fromString("Ethernet3/1/4"));
  EXPECT_THROW(IntfId(IntfKind::Vlan, {0}), Zol::RangeException);
  EXPECT_THROW(IntfId(IntfKind::Ethernet, {}), Zol::RangeException);
  EXPECT_THROW(IntfId(IntfKind::Ethernet, {1, 2, 3, 4}), Zol::RangeException);
  EXPECT_THROW(IntfId(IntfKind::EthernetSubIntf, {1}), Zol::RangeException);
  EXPECT_THROW(IntfId(IntfKind::Cpu, {1}), Zol::RangeException);

  IntfId parent = IntfId::fromString("Port-Channel1");
  IntfId sub = parent.subIntf(100);
  EXPECT_EQ(sub.stringValue(), "Port-Channel1.100");
  EXPECT_EQ(sub.parent(), parent);
  EXPECT_EQ(IntfId::fromString("Ethernet1/2.7").parent(), IntfId::fromString("Ethernet1/2"));
  EXPECT_EQ(parent.parent(), IntfId());
  EXPECT_EQ(parent.subIntfId(), 0u);
  EXPECT_THROW(parent.subIntf(0), Zol::RangeException);
  EXPECT_THROW(sub.subIntf(1), Zol::RangeException);
  EXPECT_THROW(IntfId::fromString("PeerEthernet1").subIntf(1), Zol::RangeException);
}

TEST(IntfId, OrdersNaturally) {
  std::vector<IntfId> ids = {IntfId()};
  for (auto const& n : words(
           "Ethernet1 Ethernet1.5 Ethernet1.40 Ethernet1/1 Ethernet1/1/1 Ethernet1/2 Ethernet2 "
           "Ethernet10 Port-Channel2 Port-Channel2.1 Port-Channel10 Vlan9 Vlan10 Vxlan1 Tunnel0 "
           "Pseudowire1 Loopback0 Management1 Management1/1 Cpu PeerEthernet1 PeerPort-Channel1")) {
    ids.push_back(IntfId::fromString(n));
  }
  EXPECT_TRUE(std::is_sorted(ids.begin(), ids.end()));
  EXPECT_TRUE(std::adjacent_find(ids.begin(), ids.end()) == ids.end());
  EXPECT_TRUE(absl::VerifyTypeImplementsAbslHashCorrectly(ids));
}

// Random names must round-trip and compare as their numbers do.
TEST(IntfId, RandomNamesRoundTripAndCompareByNumbers) {
  std::mt19937 rng(7);
  auto pick = [&](uint32_t hi) { return std::uniform_int_distribution<uint32_t>(0, hi)(rng); };
  IntfId prev;
  std::pair<std::vector<uint32_t>, uint32_t> prevKey;
  for (int i = 0; i < 5000; ++i) {
    // Small numbers make equal prefixes common; large ones reach the limits of the fields.
    bool small = i % 2;
    std::pair<std::vector<uint32_t>, uint32_t> key{{pick(small ? 3 : IntfId::maxFirstNumber)}, 0};
    std::string name = "Ethernet" + std::to_string(key.first[0]);
    for (uint32_t n = pick(2); n > 0; --n) {
      key.first.push_back(pick(small ? 2 : IntfId::maxOtherNumber));
      name += "/" + std::to_string(key.first.back());
    }
    if (pick(1)) {
      key.second = 1 + pick(small ? 2 : IntfId::maxSubIntfId - 1);
      name += "." + std::to_string(key.second);
    }
    IntfId id = IntfId::fromString(name);
    ASSERT_EQ(id.stringValue(), name);
    ASSERT_EQ(id == prev, key == prevKey) << id << " " << prev;
    ASSERT_EQ(id < prev, key < prevKey) << id << " " << prev;
    prev = id;
    prevKey = key;
  }
}
