// The ACL value types and the arithmetic of rule creation: instance keys in text, port
// specifications as ranges, ranges as ternary entries, established sessions and ECN selectors.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "Vemo/AclTypes.h"

using namespace Vemo;
using Acl::PortOper;
using Acl::PortSpec;
using testing::ElementsAre;

namespace Vemo {
inline void PrintTo(AclL4Mask const& m, std::ostream* os) {
  *os << m.start << ".." << m.end << "/0x" << std::hex << m.mask;
}
}  // namespace Vemo

namespace {

using Ranges = std::vector<std::pair<int, int>>;

Ranges rangesOf(PortSpec const& ports) {
  Ranges out;
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
  EXPECT_EQ(AclKey::fromText("acl1-ip-in(std=false,vlanId=4096,aclGroup=default)").vlanId(),
            AclVlanIdOrNone::sharing());

  for (char const* bad :
       {"", "acl1-ip-in", "acl1-ipv4-in(std=false,vlanId=0,aclGroup=default)",
        "acl1-ip-up(std=false,vlanId=0,aclGroup=default)",
        "acl1-ip-in(std=no,vlanId=0,aclGroup=default)",
        "acl1-ip-in(std=false,vlanId=,aclGroup=default)",
        "acl1-ip-in(std=false,vlanId=0,aclGroup=)", "-ip-in(std=false,vlanId=0,aclGroup=g)",
        "acl 1-ip-in(std=false,vlanId=0,aclGroup=default)"}) {
    EXPECT_THAT([&] { AclKey::fromText(bad); },
                testing::ThrowsMessage<Zol::ParseError>(testing::StrEq("Invalid AclKey")))
        << bad;
  }
  for (char const* vlan : {"4097", "99999999999999999999"}) {
    std::string const text = std::string("a-ip-in(std=false,vlanId=") + vlan + ",aclGroup=g)";
    EXPECT_THAT([&] { AclKey::fromText(text); },
                testing::ThrowsMessage<Zol::RangeException>(
                    "AclVlanIdOrNone::value > AclVlanIdOrNone::vlanSharingId not allowed"));
  }
}

TEST(AclPortSpec, ExpandsEveryOperatorAndRefusesWhatMatchesNothing) {
  EXPECT_TRUE(rangesOf(PortSpec()).empty());
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portEq, {443, 80, 81, 82, 80})),
            (Ranges{{80, 82}, {443, 443}}));
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portNeq, {22, 0, 65535, 23})),
            (Ranges{{1, 21}, {24, 65534}}));
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portLt, {1024})), (Ranges{{0, 1023}}));
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portGt, {1023})), (Ranges{{1024, 65535}}));
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portRange, {5, 5})), (Ranges{{5, 5}}));
  // Ten excluded values leave eleven ranges, the most a field holds.
  PortSpec ten(PortOper::portNeq, {10, 20, 30, 40, 50, 60, 70, 80, 90, 100});
  EXPECT_EQ(rangesOf(ten).size(), 11u);
  EXPECT_THROW(PortSpec(PortOper::portEq, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}),
               Zol::RangeException);

  Ranges const none{{-1, -1}};
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portLt, {0})), none);
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portGt, {65535})), none);
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portRange, {9, 8})), none);
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portEq, {})), none);
  EXPECT_EQ(rangesOf(PortSpec(PortOper::portNeq, {0, 65535})).size(), 1u);
}

TEST(AclL4Masks, CoverExactlyTheRangeWithAlignedEntries) {
  EXPECT_THAT(masks(0, 65535), ElementsAre(AclL4Mask{0, 65535, 0}));
  EXPECT_THAT(masks(7, 9, false), ElementsAre(AclL4Mask{0, 0, 0}));
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

// What the entries match is the property tests' (AclTcamPropertyTest); these are the choices
// they cannot see and the inputs they never generate.
TEST(AclIpRuleData, EstablishedMarkerL4RulesAndEcnWithoutSupport) {
  AclIpRuleCreateData d;
  auto flags = [&] {
    std::vector<Zol::U32> out(d.tcpFlags.begin(), d.tcpFlags.begin() + d.tcpFlagsCount);
    out.push_back(d.tcpFlagsMask);
    return out;
  };
  // Hardware that matches established sessions itself takes one entry with the marker value.
  Acl::IpFilter f;
  f.protocolIs(Acl::IpFilter::protocolTcp);
  f.establishedIs(true);
  ASSERT_TRUE(createIpAclRuleData(f, d, true, true));
  EXPECT_EQ(flags(), (std::vector<Zol::U32>{255, 0}));
  // Established only means something for TCP.
  f.protocolIs(Acl::IpFilter::protocolUdp);
  ASSERT_TRUE(createIpAclRuleData(f, d, true, false));
  EXPECT_EQ(flags(), (std::vector<Zol::U32>{0, 0}));

  // Flags asked to be clear are an L4 match as much as flags asked to be set.
  Acl::IpFilter notSyn;
  notSyn.protocolIs(Acl::IpFilter::protocolTcp);
  notSyn.tcpFlagsMaskIs(Acl::TcpFlag(Acl::TcpFlag::syn));
  ASSERT_TRUE(createIpAclRuleData(notSyn, d, true, false));
  EXPECT_TRUE(d.l4Rule);
  ASSERT_TRUE(createIpAclRuleData(Acl::IpFilter(), d, true, false));
  EXPECT_FALSE(d.l4Rule);
  // A field the rule does not match matches anything, as value/mask entries too.
  for (AclRuleRanges const* r : {&d.srcPort, &d.dstPort, &d.ipLen}) {
    EXPECT_THAT(r->masks(0), ElementsAre(AclL4Mask{0, 0, 0}));
  }
  // A length no packet has: the rule matches nothing.
  f.ipLenIs(PortSpec(PortOper::portLt, {0}));
  EXPECT_FALSE(createIpAclRuleData(f, d, true, false));

  AclEcnInfo const ecn = createAclEcnInfo(Acl::EcnMatch::ecnCe, false);
  ASSERT_EQ(ecn.ecnRulesSize(), 1u);
  EXPECT_EQ(ecn.ecnRulesAll().begin()->first, 0);
  EXPECT_EQ(ecn.ecnRulesAll().begin()->second, 0);
}
