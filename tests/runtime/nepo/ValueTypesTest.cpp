// The network value types: parsing and printing, refusals that quote the text, order and hashing.
#include <absl/hash/hash_testing.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "Nepo/EthAddr.h"
#include "Nepo/EthAddrWithMask.h"
#include "Nepo/IntfId.h"
#include "Nepo/IpAddr.h"
#include "Nepo/IpPrefix.h"
#include "Nepo/MplsLabel.h"
#include "Zol/Text.h"
#include "Zol/Types.h"

using Nepo::EthAddr;
using Nepo::EthAddrWithMask;
using Nepo::IntfId;
using Nepo::IntfKind;
using Nepo::IpAddr;
using Nepo::IpPrefix;
using Nepo::MplsLabel;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::ThrowsMessage;

static_assert(Zol::StringLike<EthAddr> && Zol::StringLike<EthAddrWithMask>);
static_assert(Zol::StringLike<IpAddr> && Zol::StringLike<IpPrefix>);
static_assert(Zol::StringLike<MplsLabel> && Zol::StringLike<IntfId>);
static_assert(sizeof(IntfId) == 8);

namespace {

// Each text is refused with an E that quotes it.
template <class T, class E = Zol::ParseError>
void expectRefused(std::vector<std::string> const& texts) {
  for (std::string const& text : texts) {
    EXPECT_THAT([&] { T::fromString(text); }, ThrowsMessage<E>(HasSubstr("'" + text + "'")));
  }
}

std::vector<std::string> words(std::string_view text) {
  std::vector<std::string> out;
  for (size_t pos = 0; pos < text.size();) {
    size_t end = std::min(text.find(' ', pos), text.size());
    out.emplace_back(text.substr(pos, end - pos));
    pos = end + 1;
  }
  return out;
}

// The texts' values are in strictly increasing order and hash consistently with equality.
template <class T>
void expectOrderedAndHashed(std::vector<std::string> const& texts) {
  std::vector<T> values;
  for (auto const& text : texts) values.push_back(T::fromString(text));
  EXPECT_TRUE(std::is_sorted(values.begin(), values.end()));
  EXPECT_TRUE(std::adjacent_find(values.begin(), values.end()) == values.end());
  EXPECT_TRUE(absl::VerifyTypeImplementsAbslHashCorrectly(values));
}

}  // namespace

TEST(EthAddr, ParsesPrintsClassifiesAndOrders) {
  EthAddr a = EthAddr::fromString("02:00:00:0A:bC:01");
  EXPECT_EQ(a, EthAddr::fromString("0200.000A.bc01"));
  EXPECT_EQ(a, EthAddr(0x02, 0x00, 0x00, 0x0a, 0xbc, 0x01));
  EXPECT_EQ(a.stringValue(), "02:00:00:0a:bc:01");
  EXPECT_EQ(a.value(), 0x0200000abc01u);
  EXPECT_EQ(EthAddr::fromValue(a.value()), a);
  EXPECT_EQ(EthAddr().stringValue(), "00:00:00:00:00:00");
  EXPECT_THROW(EthAddr::fromValue(uint64_t{1} << 48), Zol::RangeException);
  expectRefused<EthAddr>({"", "02:00:00:00:00", "02:00:00:00:00:01:02", "02:00:00:00:00:1",
                          "0:02:00:00:00:001", "02-00-00-00-00-01", "0g:00:00:00:00:01",
                          "0200.0000.001", "0200:0000:0001", "0200.0000.0001 "});

  EXPECT_TRUE(EthAddr::broadcast().isMulticast());
  EXPECT_TRUE(EthAddr::fromString("01:00:5e:00:00:01").isMulticast());
  EXPECT_FALSE(EthAddr::fromString("01:00:5e:00:00:01").isBroadcast());
  EXPECT_TRUE(EthAddr::fromString("02:00:00:00:00:01").isUnicast());
  expectOrderedAndHashed<EthAddr>(words(
      "00:00:00:00:00:00 00:00:00:00:00:ff 00:00:00:00:01:00 01:00:00:00:00:00 ff:ff:ff:ff:ff:ff"));
}

TEST(EthAddrWithMask, ParsesMatchesAndKeepsTheAddress) {
  EXPECT_EQ(EthAddrWithMask().stringValue(), "00:00:00:00:00:00/ff:ff:ff:ff:ff:ff");
  auto m = EthAddrWithMask::fromString("02:00:00:12:34:56/ffff.ff00.0000");
  EXPECT_EQ(m.stringValue(), "02:00:00:12:34:56/ff:ff:ff:00:00:00");
  EXPECT_EQ(EthAddrWithMask::fromString(m.stringValue()), m);
  EXPECT_TRUE(m.matches(EthAddr::fromString("02:00:00:00:00:00")));
  EXPECT_TRUE(m.matches(EthAddr::fromString("02:00:00:ff:ff:ff")));
  EXPECT_FALSE(m.matches(EthAddr::fromString("00:1c:74:00:00:00")));
  EXPECT_TRUE(EthAddrWithMask(EthAddr(), EthAddr()).matches(EthAddr::broadcast()));
  EXPECT_FALSE(EthAddrWithMask().matches(EthAddr::broadcast()));
  EXPECT_NE(m, EthAddrWithMask(EthAddr::fromString("02:00:00:00:00:00"), m.mask()));
  expectRefused<EthAddrWithMask>({"", "02:00:00:00:00:01", "02:00:00:00:00:01/",
                                  "/ff:ff:ff:ff:ff:ff",
                                  "02:00:00:00:00:01/ff:ff:ff:ff:ff:ff/00:00:00:00:00:00"});
  EXPECT_TRUE(absl::VerifyTypeImplementsAbslHashCorrectly(
      {EthAddrWithMask(), m, EthAddrWithMask(m.addr(), EthAddr::broadcast())}));
}

TEST(IpAddr, ParsesPrintsConvertsAndOrders) {
  IpAddr v4 = IpAddr::fromString("10.1.2.3");
  EXPECT_TRUE(v4.isV4());
  EXPECT_EQ(v4.v4HostOrder(), 0x0a010203u);
  EXPECT_EQ(IpAddr::fromV4HostOrder(0x0a010203u), v4);
  EXPECT_THAT(v4.bytes(), ElementsAre(10, 1, 2, 3));
  EXPECT_EQ(v4.stringValue(), "10.1.2.3");
  EXPECT_EQ(IpAddr(), IpAddr::fromString("0.0.0.0"));

  IpAddr v6 = IpAddr::fromString("2001:DB8:0:0::1");
  EXPECT_TRUE(v6.isV6());
  EXPECT_EQ(v6.stringValue(), "2001:db8::1");
  EXPECT_EQ(IpAddr::fromBytes(v6.bytes()), v6);
  EXPECT_EQ(IpAddr::fromString("::ffff:1.2.3.4").stringValue(), "::ffff:1.2.3.4");
  EXPECT_THROW(IpAddr::fromBytes(std::vector<uint8_t>(5)), Zol::RangeException);
  expectRefused<IpAddr>({"", "1.2.3", "256.1.1.1", "1.2.3.4.5", "1.2.3.4/8", " 1.2.3.4", "::g",
                         "fe80::1%eth0", "1:2:3:4:5:6:7:8:9", "0000:0000:0000:0000:0000:0000:1"});

  EXPECT_TRUE(IpAddr::fromString("239.1.1.1").isMulticast());
  EXPECT_FALSE(IpAddr::fromString("240.1.1.1").isMulticast());
  EXPECT_TRUE(IpAddr::fromString("::1").isLoopback());
  EXPECT_FALSE(IpAddr::fromString("::100").isLoopback());
  // Every IPv4 address first, then by bytes.
  expectOrderedAndHashed<IpAddr>(
      words("0.0.0.0 9.255.255.255 10.0.0.0 10.0.0.1 255.255.255.255 :: ::1 1:: ff02::1"));
}

TEST(IpPrefix, MasksParsesAndContains) {
  EXPECT_EQ(IpPrefix().stringValue(), "0.0.0.0/0");
  EXPECT_EQ(IpPrefix::fromString("10.1.2.3/8").stringValue(), "10.0.0.0/8");
  EXPECT_EQ(IpPrefix::fromString("10.255.0.0/9").stringValue(), "10.128.0.0/9");
  EXPECT_EQ(IpPrefix::fromString("2001:db8:ffff::1/33").stringValue(), "2001:db8:8000::/33");

  IpPrefix p = IpPrefix::fromString("10.128.0.0/9");
  EXPECT_TRUE(p.contains(IpAddr::fromString("10.200.1.1")));
  EXPECT_FALSE(p.contains(IpAddr::fromString("10.127.255.255")));
  EXPECT_FALSE(p.contains(IpAddr::fromString("::")));
  EXPECT_TRUE(IpPrefix().contains(IpAddr::fromString("255.1.1.1")));
  EXPECT_FALSE(IpPrefix().contains(IpAddr::fromString("::1")));
  EXPECT_TRUE(p.contains(IpPrefix::fromString("10.130.0.0/16")));
  EXPECT_FALSE(p.contains(IpPrefix::fromString("10.0.0.0/8")));

  expectRefused<IpPrefix>({"", "10.0.0.0", "10.0.0.0/", "10.0.0.0/x", "10.0.0.0/-1", "10.0.0.0/8 ",
                           "x/8", "10.0.0/8", "10.0.0.0/8/8"});
  expectRefused<IpPrefix, Zol::RangeException>({"10.0.0.0/33", "::/129", "10.0.0.0/99999999999"});
  EXPECT_THROW(IpPrefix(IpAddr(), 33), Zol::RangeException);
  expectOrderedAndHashed<IpPrefix>(words("0.0.0.0/0 10.0.0.0/8 10.0.0.0/16 10.1.0.0/16 ::/0"));
}

TEST(MplsLabel, ParsesTwentyBitValues) {
  EXPECT_EQ(MplsLabel::fromString("1048575"), MplsLabel(MplsLabel::max));
  EXPECT_EQ(MplsLabel(16).stringValue(), "16");
  EXPECT_TRUE(MplsLabel(15).isReserved());
  EXPECT_FALSE(MplsLabel(16).isReserved());
  EXPECT_THAT([] { MplsLabel(1048576); }, ThrowsMessage<Zol::RangeException>(HasSubstr("1048576")));
  expectRefused<MplsLabel, Zol::RangeException>({"1048576", "4294967296"});
  expectRefused<MplsLabel>({"", "-1", "+1", "12a", "0x10", " 1"});
  expectOrderedAndHashed<MplsLabel>({"0", "3", "9", "10", "1000"});
}

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

  std::vector<std::string> bad = words(
      "Ethernt1 Ethernet ethernet1 Ethernet01 Ethernet1/ Ethernet1//2 Ethernet1/2/3/4 Ethernet1. "
      "Ethernet1.0 Ethernet1.2.3 Ethernet1.2/3 Ethernet-1 Ethernet1048576 Ethernet1/1023 "
      "Ethernet1.1048576 Ethernet99999999999 Vlan0 Vlan4095 Vlan10.5 Port-Channel0 "
      "PeerEthernet1.10 Loopback1/1 Management1/1/1 Cpu1 Cpu.1 1 /1");
  bad.insert(bad.end(), {" Ethernet1", "Ethernet1 "});
  expectRefused<IntfId>(bad);
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
  std::vector<std::string> names = words(
      "Ethernet1 Ethernet1.5 Ethernet1.40 Ethernet1/1 Ethernet1/1/1 Ethernet1/2 Ethernet2 "
      "Ethernet10 Port-Channel2 Port-Channel2.1 Port-Channel10 Vlan9 Vlan10 Vxlan1 Tunnel0 "
      "Pseudowire1 Loopback0 Management1 Management1/1 Cpu PeerEthernet1 PeerPort-Channel1");
  names.insert(names.begin(), "");
  expectOrderedAndHashed<IntfId>(names);
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
