// Rule creation as the helper sees it: which subrules are asked for, in which order and with
// which fields, how range-checker shortages turn into value/mask subrules, and which fragment
// permits and final rules follow.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "Vemo/AclRules.h"

using namespace Vemo;
using Acl::PortOper;
using Acl::PortSpec;
using Err = Vemo::AclCreateError;

namespace {

struct Subrule {
  Zol::U32 rule, sub;
  Zol::U16 srcValue, srcMask, dstValue, dstMask, srcLow, srcHigh, dstLow, dstHigh;
  Zol::U16 lenValue, lenMask, lenLow, lenHigh;
  Zol::U8 flags;
  bool l4Rule;
  Zol::U8 ecnValue, ecnMask;
};

// Records every call; answer decides what each subrule call returns.
class RecordingHelper : public VemoHelper::AclHelper {
 public:
  explicit RecordingHelper(Zol::Name const& name) : VemoHelper::AclHelper(name) {}

  Err createIpAclSubrule(Acl::AclType, Acl::IpRuleConfig const&, Acl::UniqueId, AclData&,
                         Zol::U32 aclRule, Zol::U32 subRuleNum, Zol::U16 srcL4Port,
                         Zol::U16 srcL4PortMask, Zol::U16 dstL4Port, Zol::U16 dstL4PortMask,
                         Zol::U16 srcPortLow, Zol::U16 srcPortHigh, Zol::U16 dstPortLow,
                         Zol::U16 dstPortHigh, Zol::U16 ipLen, Zol::U16 ipLenMask,
                         Zol::U16 ipLenLow, Zol::U16 ipLenHigh, Zol::U8 tcpFlags, bool l4Rule,
                         Zol::U8 ecnData, Zol::U8 ecnMask) override {
    Subrule const s{aclRule,    subRuleNum,  srcL4Port,  srcL4PortMask, dstL4Port, dstL4PortMask,
                    srcPortLow, srcPortHigh, dstPortLow, dstPortHigh,   ipLen,     ipLenMask,
                    ipLenLow,   ipLenHigh,   tcpFlags,   l4Rule,        ecnData,   ecnMask};
    Err const e = answer ? answer(s) : Err::aclCreateErrorNone;
    if (e == Err::aclCreateErrorNone) subrules.push_back(s);
    ++calls;
    return e;
  }
  Err createIpFragRule(AclData&, Acl::IpRuleConfig const&, Acl::UniqueId, Zol::U32 aclRule,
                       Zol::U32 subRuleNum) override {
    log.push_back("frag " + std::to_string(aclRule) + "." + std::to_string(subRuleNum));
    return Err::aclCreateErrorNone;
  }
  Err createMacAclRule(Acl::MacRuleConfig const& rule, Acl::UniqueId, AclData&,
                       Zol::U32 aclRule) override {
    log.push_back("mac " + std::to_string(aclRule) + " " +
                  std::to_string(rule.filter().etherType()));
    return macAnswer;
  }
  Err createFinalAclRule(Acl::AclType type, AclData&, Zol::U32 aclRule) override {
    log.push_back("final " + std::string(Zol::enumName(type)) + " " + std::to_string(aclRule));
    return Err::aclCreateErrorNone;
  }

  std::function<Err(Subrule const&)> answer;
  Err macAnswer = Err::aclCreateErrorNone;
  std::vector<Subrule> subrules;
  std::vector<std::string> log;
  int calls = 0;
};

struct Fixture {
  Zol::ActivityLoop loop{Zol::ActivityLoop::TimeMode::simulated};
  Zol::Ptr<RecordingHelper> helper = Zol::make<RecordingHelper>("acl");
  Zol::Ptr<AclData> data;
  Zol::Ptr<Acl::AclConfig> config = Zol::make<Acl::AclConfig>("web", "web");

  explicit Fixture(Acl::AclType type = Acl::AclType::ip) {
    data = Zol::make<AclData>(
        "data", AclKey("web", type, Acl::AclDirection::in, false, AclVlanIdOrNone(), "default"));
    helper->aclEcnSupportedIs(true);
  }
  Err createRule(Acl::IpRuleConfig const& rule, Zol::U32 aclRule = 0) {
    return createIpAclRule(*helper, *data, rule, aclRule);
  }
};

Acl::IpRuleConfig tcpRule(Acl::AclAction action, PortSpec dst, PortSpec src = PortSpec()) {
  Acl::IpFilter f;
  f.protocolIs(Acl::IpFilter::protocolTcp);
  f.dstPortIs(dst);
  f.srcPortIs(src);
  Acl::IpRuleConfig r;
  r.actionIs(action);
  r.filterIs(f);
  return r;
}

}  // namespace

TEST(AclRules, EverySubruleCombinationInOrderThenOneSharedFragmentPermit) {
  Fixture fx;
  Acl::IpRuleConfig rule = tcpRule(Acl::AclAction::permit, PortSpec(PortOper::portEq, {443, 80}));
  Acl::IpFilter f = rule.filter();
  f.establishedIs(true);
  f.ecnIs(Acl::EcnMatch::ecnEct);
  rule.filterIs(f);
  ASSERT_EQ(fx.createRule(rule, 4), Err::aclCreateErrorNone);

  // ECN pairs outermost, then TCP-flags entries, then the destination ranges.
  ASSERT_EQ(fx.helper->subrules.size(), 8u);
  std::vector<std::tuple<int, int, int, int>> got;  // ecn value, flags, dst low, dst high
  for (size_t i = 0; i < fx.helper->subrules.size(); ++i) {
    Subrule const& s = fx.helper->subrules[i];
    EXPECT_EQ(s.rule, 4u);
    EXPECT_EQ(s.sub, i);
    EXPECT_TRUE(s.l4Rule);
    EXPECT_EQ(s.dstMask, 0);
    EXPECT_EQ(s.ecnMask, 3);
    EXPECT_EQ(std::tie(s.srcLow, s.srcHigh, s.srcMask), std::make_tuple(0, 0, 0));
    got.emplace_back(s.ecnValue, s.flags, s.dstLow, s.dstHigh);
  }
  std::vector<std::tuple<int, int, int, int>> want;
  for (int ecn : {1, 2}) {
    for (int flags : {Acl::TcpFlag::ack, Acl::TcpFlag::rst}) {
      for (int port : {80, 443}) want.emplace_back(ecn, flags, port, port);
    }
  }
  EXPECT_EQ(got, want);
  EXPECT_EQ(fx.helper->log, std::vector<std::string>{"frag 4.8"});

  // The same source, destination and ECN later on: the first fragment permit serves it.
  ASSERT_EQ(fx.createRule(rule, 5), Err::aclCreateErrorNone);
  EXPECT_EQ(fx.helper->log.size(), 1u);
  EXPECT_EQ(fx.data->fragMap(AclFragInfo(f.source(), f.destination(), f.ecn())), 4u);
  // A fragment rule gets none, L4 fields or not. (Denies and rules without L4 fields are the
  // property test's: a permit there would let fragments through.)
  f.fragmentsIs(true);
  f.destinationIs(Nepo::IpPrefix::fromString("10.0.0.0/8"));
  rule.filterIs(f);
  ASSERT_EQ(fx.createRule(rule, 6), Err::aclCreateErrorNone);
  EXPECT_EQ(fx.helper->log.size(), 1u);
}

TEST(AclRules, RangeCheckerShortageFallsBackToValueMaskForTheFieldsThatRanOut) {
  Fixture fx;
  // No checker for destination ranges: the destination becomes its six ternary entries, the
  // source keeps its range.
  fx.helper->answer = [](Subrule const& s) {
    bool const dstRange = s.dstMask == 0 && s.dstLow != s.dstHigh;
    return dstRange ? Err::aclCreateErrorDstPortRangeChecker : Err::aclCreateErrorNone;
  };
  Acl::IpRuleConfig const rule = tcpRule(Acl::AclAction::deny, PortSpec(PortOper::portGt, {1023}),
                                         PortSpec(PortOper::portRange, {100, 200}));
  ASSERT_EQ(fx.createRule(rule), Err::aclCreateErrorNone);
  ASSERT_EQ(fx.helper->subrules.size(), 6u);
  Zol::U32 next = 1024;
  for (Subrule const& s : fx.helper->subrules) {
    EXPECT_EQ(std::tie(s.srcLow, s.srcHigh, s.srcMask), std::make_tuple(100, 200, 0));
    EXPECT_EQ(s.dstValue, next);
    EXPECT_EQ(s.dstLow, next);
    EXPECT_NE(s.dstMask, 0);
    next = Zol::U32{s.dstHigh} + 1;
  }
  EXPECT_EQ(next, 65536u);

  // The source runs out too once the destination is masked: both become entries, 6 x 4.
  Fixture both;
  both.helper->answer = [](Subrule const& s) {
    if (s.dstMask == 0 && s.dstLow != s.dstHigh) return Err::aclCreateErrorDstPortRangeChecker;
    if (s.srcMask == 0 && s.srcLow != s.srcHigh) return Err::aclCreateErrorSrcPortRangeChecker;
    return Err::aclCreateErrorNone;
  };
  ASSERT_EQ(both.createRule(rule), Err::aclCreateErrorNone);
  // 100..200 is 100-103, 104-111, 112-127, 128-191, 192-199, 200.
  EXPECT_EQ(both.helper->subrules.size(), 36u);
  for (size_t i = 0; i < both.helper->subrules.size(); ++i)
    EXPECT_EQ(both.helper->subrules[i].sub, i);

  // Each of the seven answers names its fields; other answers end the rule.
  for (auto [e, fields] : std::vector<std::pair<Err, unsigned>>{
           {Err::aclCreateErrorRangeChecker, aclRangeFieldSrcPort | aclRangeFieldDstPort},
           {Err::aclCreateErrorIpLenRangeChecker, aclRangeFieldIpLen},
           {Err::aclCreateErrorIpLenSrcAndDstRangeChecker, 7u},
           {Err::aclCreateErrorIpLenAndSrcPortRangeChecker,
            aclRangeFieldIpLen | aclRangeFieldSrcPort},
           {Err::aclCreateErrorIpLenAndDstPortRangeChecker,
            aclRangeFieldIpLen | aclRangeFieldDstPort},
           {Err::aclCreateErrorSrcPortRangeChecker, aclRangeFieldSrcPort},
           {Err::aclCreateErrorDstPortRangeChecker, aclRangeFieldDstPort},
           {Err::aclCreateErrorTcamExhaustion, 0u},
           {Err::aclCreateErrorTooManyAcls, 0u}}) {
    EXPECT_EQ(aclRangeFieldsOf(e), fields) << Zol::enumName(e);
  }
  Fixture full;
  full.helper->answer = [&](Subrule const& s) {
    return s.sub == 1 ? Err::aclCreateErrorTcamExhaustion : Err::aclCreateErrorNone;
  };
  EXPECT_EQ(full.createRule(tcpRule(Acl::AclAction::permit, PortSpec(PortOper::portEq, {1, 3, 5}))),
            Err::aclCreateErrorTcamExhaustion);
  EXPECT_EQ(full.helper->calls, 2);
  EXPECT_TRUE(full.helper->log.empty());
}

TEST(AclRules, AListBecomesItsRulesInSequenceOrderThenTheFinalRule) {
  Fixture fx;
  fx.config->ipRuleBySequenceIs(30,
                                tcpRule(Acl::AclAction::deny, PortSpec(PortOper::portEq, {30})));
  fx.config->ipRuleBySequenceIs(10,
                                tcpRule(Acl::AclAction::deny, PortSpec(PortOper::portEq, {10})));
  // Matches nothing: keeps its place, asks for nothing.
  fx.config->ipRuleBySequenceIs(20, tcpRule(Acl::AclAction::deny, PortSpec(PortOper::portLt, {0})));
  fx.config->macRuleBySequenceIs(5, Acl::MacRuleConfig());
  ASSERT_EQ(createAclRules(*fx.helper, *fx.data, *fx.config), Err::aclCreateErrorNone);
  ASSERT_EQ(fx.helper->subrules.size(), 2u);
  EXPECT_EQ(std::tie(fx.helper->subrules[0].rule, fx.helper->subrules[0].dstLow),
            std::make_tuple(0u, 10));
  EXPECT_EQ(std::tie(fx.helper->subrules[1].rule, fx.helper->subrules[1].dstLow),
            std::make_tuple(2u, 30));
  EXPECT_EQ(fx.helper->log, std::vector<std::string>{"final ip 3"});
  EXPECT_EQ(fx.data->numRules(), 3u);

  Fixture mac(Acl::AclType::mac);
  Acl::MacRuleConfig m;
  Acl::MacFilter mf;
  mf.etherTypeIs(0x88cc);
  m.filterIs(mf);
  mac.config->macRuleBySequenceIs(10, m);
  mac.config->macRuleBySequenceIs(20, Acl::MacRuleConfig());
  mac.config->ipRuleBySequenceIs(10, tcpRule(Acl::AclAction::deny, PortSpec()));
  ASSERT_EQ(createAclRules(*mac.helper, *mac.data, *mac.config), Err::aclCreateErrorNone);
  EXPECT_EQ(mac.helper->log, (std::vector<std::string>{"mac 0 35020", "mac 1 0", "final mac 2"}));
  EXPECT_EQ(mac.helper->calls, 0);

  // A rule the platform ignores is skipped; any other refusal ends the list without a final rule.
  Fixture ignored(Acl::AclType::mac);
  ignored.config->macRuleBySequenceIs(10, m);
  ignored.helper->macAnswer = Err::aclCreateErrorIgnoredRule;
  ASSERT_EQ(createAclRules(*ignored.helper, *ignored.data, *ignored.config),
            Err::aclCreateErrorNone);
  EXPECT_EQ(ignored.helper->log.back(), "final mac 1");
  Fixture refused(Acl::AclType::mac);
  refused.config->macRuleBySequenceIs(10, m);
  refused.config->macRuleBySequenceIs(20, m);
  refused.helper->macAnswer = Err::aclCreateErrorUnsupportedAction;
  EXPECT_EQ(createAclRules(*refused.helper, *refused.data, *refused.config),
            Err::aclCreateErrorUnsupportedAction);
  EXPECT_EQ(refused.helper->log, std::vector<std::string>{"mac 0 35020"});
}
