// The ACL value types and the arithmetic of rule creation: instance keys in text, port
// specifications as ranges, ranges as ternary entries, established sessions and ECN selectors.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "Vemo/AclTypes.h"

using namespace Vemo;
using Acl::MatchRange;
using Acl::PortOper;
using Acl::PortSpec;
using testing::ElementsAre;

namespace Vemo {
inline void PrintTo(AclL4Mask const& m, std::ostream* os) {
  *os << m.start << ".." << m.end << "/0x" << std::hex << m.mask;
}
}  // namespace Vemo

namespace {

std::vector<std::pair<int, int>> rangesOf(PortSpec const& ports) {
  std::vector<std::pair<int, int>> out;
  auto const list = ports.ranges();
  if (!list) return {{-1, -1}};
  for (size_t i = 0; i < list->count(); ++i)
    out.emplace_back(list->range(i).low(), list->range(i).high());
  return out;
}

AclL4MaskVector masks(Zol::U16 low, Zol::U16 high, bool enabled = true) {
  AclL4MaskVector v;
  createL4PortMasks(low, high, enabled, v);
  return v;
}

}  // namespace

TEST(AclKey, TextRoundTripsAndParseRefusesOtherForms) {
  AclKey k("web-in", Acl::AclType::ipv6, Acl::AclDirection::out, true, AclVlanIdOrNone(10), "g1");
  EXPECT_EQ(k.text(), "web-in-ipv6-out(std=true,vlanId=10,aclGroup=g1)");
  EXPECT_EQ(AclKey::fromText(k.text()), k);
  // The name is greedy and may hold the words the pattern looks for.
  AclKey const tricky = AclKey::fromText("a-ip-in-mac-out(std=false,vlanId=0,aclGroup=x)y)");
  EXPECT_EQ(tricky.name(), "a-ip-in");
  EXPECT_EQ(tricky.type(), Acl::AclType::mac);
  EXPECT_EQ(tricky.aclGroup(), "x)y");
  EXPECT_EQ(AclKey().aclGroup(), AclKey::aclGroupDefault);
  EXPECT_EQ(AclKey::fromText("acl1-ip-in(std=false,vlanId=4096,aclGroup=default)").vlanId(),
            AclVlanIdOrNone::sharing());

  for (char const* bad :
       {"", "acl1-ip-in", "acl1-ipv4-in(std=false,vlanId=0,aclGroup=default)",
        "acl1-ip-up(std=false,vlanId=0,aclGroup=default)",
        "acl1-ip-in(std=no,vlanId=0,aclGroup=default)",
        "acl1-ip-in(std=false,vlanId=,aclGroup=default)",
        "acl1-ip-in(std=false,vlanId=0,aclGroup=)", "-ip-in(std=false,vlanId=0,aclGroup=g)",
        "acl 1-ip-in(std=false,vlanId=0,aclGroup=default)"}) {
    EXPECT_THROW(
        {
          try {
            AclKey::fromText(bad);
          } catch (Zol::ParseError const& e) {
            EXPECT_STREQ(e.what(), "Invalid AclKey");
            throw;
          }
        },
        Zol::ParseError)
        << bad;
  }
  for (char const* vlan : {"4097", "99999999999999999999"}) {
    std::string const text = std::string("a-ip-in(std=false,vlanId=") + vlan + ",aclGroup=g)";
    EXPECT_THAT([&] { AclKey::fromText(text); },
                testing::ThrowsMessage<Zol::RangeException>(
                    "AclVlanIdOrNone::value > AclVlanIdOrNone::vlanSharingId not allowed"));
  }
  EXPECT_FALSE(AclVlanIdOrNone::none().isRacl());
  EXPECT_TRUE(AclVlanIdOrNone(1).isRacl());
}

TEST(AclPortSpec, ExpandsEveryOperatorAndRefusesWhatMatchesNothing) {
  EXPECT_TRUE(rangesOf(PortSpec()).empty());
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portEq, {443, 80, 81, 82, 80})),
            (std::vector<std::pair<int, int>>{{80, 82}, {443, 443}}));
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portNeq, {22, 0, 65535, 23})),
            (std::vector<std::pair<int, int>>{{1, 21}, {24, 65534}}));
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portLt, {1024})),
            (std::vector<std::pair<int, int>>{{0, 1023}}));
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portGt, {1023})),
            (std::vector<std::pair<int, int>>{{1024, 65535}}));
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portRange, {5, 5})),
            (std::vector<std::pair<int, int>>{{5, 5}}));
  // Ten excluded values leave eleven ranges, the most a field holds.
  PortSpec ten(PortOper::portNeq, {10, 20, 30, 40, 50, 60, 70, 80, 90, 100});
  EXPECT_EQ(rangesOf(ten).size(), 11u);
  EXPECT_THROW(PortSpec(PortOper::portEq, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}),
               Zol::RangeException);

  std::vector<std::pair<int, int>> const none{{-1, -1}};
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portLt, {0})), none);
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portGt, {65535})), none);
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portRange, {9, 8})), none);
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portEq, {})), none);
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portNeq, {0, 65535})).size(), 1u);
}

TEST(AclL4Masks, CoverExactlyTheRangeWithAlignedEntries) {
  EXPECT_THAT(masks(0, 65535), ElementsAre(AclL4Mask{0, 65535, 0}));
  EXPECT_THAT(masks(7, 9, false), ElementsAre(AclL4Mask{0, 0, 0}));
  EXPECT_THAT(masks(80, 80), ElementsAre(AclL4Mask{80, 80, 0xFFFF}));
  EXPECT_THAT(masks(65535, 65535), ElementsAre(AclL4Mask{65535, 65535, 0xFFFF}));
  EXPECT_THAT(masks(1024, 65535),
              ElementsAre(AclL4Mask{1024, 2047, 0xFC00}, AclL4Mask{2048, 4095, 0xF800},
                          AclL4Mask{4096, 8191, 0xF000}, AclL4Mask{8192, 16383, 0xE000},
                          AclL4Mask{16384, 32767, 0xC000}, AclL4Mask{32768, 65535, 0x8000}));
  EXPECT_EQ(masks(1, 65534).size(), 30u);
  EXPECT_DEATH(masks(10, 9), "!maskVect.empty\\(\\)");

  // Random ranges: the entries are aligned, disjoint, in order and cover exactly low..high.
  std::mt19937 rng(7);
  for (int i = 0; i < 2000; ++i) {
    Zol::U16 a = static_cast<Zol::U16>(rng()), b = static_cast<Zol::U16>(rng());
    if (i % 3 == 0) b = static_cast<Zol::U16>(a + rng() % 40);
    if (a > b) std::swap(a, b);
    Zol::U32 next = a;
    for (AclL4Mask const& m : masks(a, b)) {
      ASSERT_EQ(m.start, next);
      ASSERT_EQ(m.start & ~m.mask & 0xFFFF, 0);
      ASSERT_EQ(Zol::U32{m.end}, Zol::U32{m.start} | (~Zol::U32{m.mask} & 0xFFFF));
      next = Zol::U32{m.end} + 1;
    }
    ASSERT_EQ(next, Zol::U32{b} + 1) << a << ".." << b;
  }
}

TEST(AclIpRuleData, EstablishedSessionsAddAckAndRstWithTheirAsymmetry) {
  auto flagsFor = [](Zol::U16 own, bool nativeSupport, Zol::U16 mask = 0) {
    Acl::IpFilter f;
    f.protocolIs(Acl::IpFilter::protocolTcp);
    f.establishedIs(true);
    f.tcpFlagsIs(Acl::TcpFlag(own));
    f.tcpFlagsMaskIs(Acl::TcpFlag(mask));
    AclIpRuleCreateData d;
    EXPECT_TRUE(createIpAclRuleData(f, d, true, nativeSupport));
    std::vector<Zol::U32> out(d.tcpFlags.begin(), d.tcpFlags.begin() + d.tcpFlagsCount);
    out.push_back(d.tcpFlagsMask);
    return out;
  };
  constexpr Zol::U16 ack = Acl::TcpFlag::ack, rst = Acl::TcpFlag::rst, syn = Acl::TcpFlag::syn;
  // Either flag establishes: two entries.
  EXPECT_EQ(flagsFor(0, false), (std::vector<Zol::U32>{ack, rst, 0}));
  EXPECT_EQ(flagsFor(syn, false), (std::vector<Zol::U32>{syn | ack, syn | rst, 0}));
  // RST asked for already: ACK joins it in the one entry.
  EXPECT_EQ(flagsFor(rst, false), (std::vector<Zol::U32>{rst | ack, 0}));
  // ACK asked for already: RST joins the same entry, both required.
  EXPECT_EQ(flagsFor(ack, false), (std::vector<Zol::U32>{ack | rst, 0}));
  EXPECT_EQ(flagsFor(ack | rst, false), (std::vector<Zol::U32>{ack | rst, 0}));
  // Hardware that matches established sessions itself gets the marker value.
  EXPECT_EQ(flagsFor(0, true), (std::vector<Zol::U32>{255, 0}));
  EXPECT_EQ(flagsFor(syn, true), (std::vector<Zol::U32>{syn | ack, syn | rst, 0}));
  // A mask alone is flags of the rule's own, which the marker would lose.
  EXPECT_EQ(flagsFor(0, true, syn), (std::vector<Zol::U32>{ack, rst, syn}));
  // NS stays in the entries.
  constexpr Zol::U16 ns = Acl::TcpFlag::ns;
  EXPECT_EQ(flagsFor(ns, true, ns | syn), (std::vector<Zol::U32>{ns | ack, ns | rst, ns | syn}));

  // Established only means something for TCP.
  Acl::IpFilter udp;
  udp.protocolIs(Acl::IpFilter::protocolUdp);
  udp.establishedIs(true);
  AclIpRuleCreateData d;
  ASSERT_TRUE(createIpAclRuleData(udp, d, true, false));
  EXPECT_EQ(d.tcpFlagsCount, 1);
  EXPECT_EQ(d.tcpFlags[0], 0u);
}

TEST(AclIpRuleData, L4RuleRangesAndEcn) {
  Acl::IpFilter f;
  AclIpRuleCreateData d;
  ASSERT_TRUE(createIpAclRuleData(f, d, true, false));
  EXPECT_FALSE(d.l4Rule);
  for (AclRuleRanges const* r : {&d.srcPort, &d.dstPort, &d.ipLen}) {
    EXPECT_FALSE(r->enabled);
    EXPECT_EQ(r->count, 1);
    EXPECT_THAT(r->masks(0), ElementsAre(AclL4Mask{0, 0, 0}));
  }

  f.dstPortIs(PortSpec(PortOper::portNeq, {22}));
  ASSERT_TRUE(createIpAclRuleData(f, d, true, false));
  EXPECT_TRUE(d.l4Rule);
  EXPECT_FALSE(d.srcPort.enabled);
  EXPECT_EQ(d.dstPort.count, 2);
  EXPECT_EQ(d.dstPort.range[1], MatchRange(23, 65535));

  // Flags asked to be clear are an L4 match as much as flags asked to be set.
  Acl::IpFilter notSyn;
  notSyn.protocolIs(Acl::IpFilter::protocolTcp);
  notSyn.tcpFlagsMaskIs(Acl::TcpFlag(Acl::TcpFlag::syn));
  ASSERT_TRUE(createIpAclRuleData(notSyn, d, true, false));
  EXPECT_TRUE(d.l4Rule);

  Acl::IpFilter icmp;
  icmp.icmpTypeIs(8);
  ASSERT_TRUE(createIpAclRuleData(icmp, d, true, false));
  EXPECT_TRUE(d.l4Rule);
  Acl::IpFilter src;
  src.srcPortIs(PortSpec(PortOper::portEq, {53}));
  ASSERT_TRUE(createIpAclRuleData(src, d, true, false));
  EXPECT_TRUE(d.l4Rule);
  src.ipLenIs(PortSpec(PortOper::portLt, {0}));
  EXPECT_FALSE(createIpAclRuleData(src, d, true, false));

  using E = Acl::EcnMatch;
  auto ecn = [](E sel, bool supported) {
    std::vector<std::pair<int, int>> out;
    AclEcnInfo const info = createAclEcnInfo(sel, supported);
    for (auto const& [v, m] : info.ecnRulesAll()) out.emplace_back(v, m);
    return out;
  };
  using P = std::vector<std::pair<int, int>>;
  EXPECT_EQ(ecn(E::ecnAny, true), (P{{0, 0}}));
  EXPECT_EQ(ecn(E::ecnEctOrCe, true), (P{{1, 3}, {2, 2}}));
  EXPECT_EQ(ecn(E::ecnNotEct, true), (P{{0, 3}}));
  EXPECT_EQ(ecn(E::ecnCe, true), (P{{3, 3}}));
  EXPECT_EQ(ecn(E::ecnEct, true), (P{{1, 3}, {2, 3}}));
  EXPECT_EQ(ecn(E::ecnCe, false), (P{{0, 0}}));
  EXPECT_TRUE(createAclEcnInfo(E::ecnEct, true).aclEcnRuleSplit());
  // Each selector's pairs match exactly the codepoints it names.
  for (auto [sel, want] : std::vector<std::pair<E, unsigned>>{{E::ecnAny, 0b1111},
                                                              {E::ecnEctOrCe, 0b1110},
                                                              {E::ecnNotEct, 0b0001},
                                                              {E::ecnCe, 0b1000},
                                                              {E::ecnEct, 0b0110}}) {
    unsigned got = 0;
    AclEcnInfo const info = createAclEcnInfo(sel, true);
    for (unsigned cp = 0; cp < 4; ++cp) {
      for (auto const& [v, m] : info.ecnRulesAll()) {
        if ((cp & m) == (v & m)) got |= 1u << cp;
      }
    }
    EXPECT_EQ(got, want) << Zol::enumName(sel);
  }
}
