// ACL rule creation: 10,000 configured rules with random port ranges turned into helper calls,
// against the same helper calls made with their arguments worked out beforehand. The ratio is the
// library's own cost per subrule: port specifications, ranges, flags and ECN pairs, traces.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "Vemo/AclRules.h"

namespace {

constexpr uint32_t kRules = 10'000;

using Err = Vemo::AclCreateError;

struct SubruleArgs {
  Acl::IpRuleConfig const* rule;
  Zol::U32 aclRule, subRuleNum;
  Zol::U16 v[12];
  Zol::U8 flags;
  bool l4Rule;
  Zol::U8 ecnData, ecnMask;
};

// A platform that takes every subrule; with record set it keeps their arguments for the floor.
class NullAclHelper : public VemoHelper::AclHelper {
 public:
  NullAclHelper() : VemoHelper::AclHelper("bench") { aclEcnSupportedIs(true); }
  Err createIpAclSubrule(Acl::AclType, Acl::IpRuleConfig const& rule, Acl::UniqueId, Vemo::AclData&,
                         Zol::U32 aclRule, Zol::U32 subRuleNum, Zol::U16 a, Zol::U16 b, Zol::U16 c,
                         Zol::U16 d, Zol::U16 e, Zol::U16 f, Zol::U16 g, Zol::U16 h, Zol::U16 i,
                         Zol::U16 j, Zol::U16 k, Zol::U16 l, Zol::U8 tcpFlags, bool l4Rule,
                         Zol::U8 ecnData, Zol::U8 ecnMask) override {
    ++subrules;
    benchmark::DoNotOptimize(a ^ b ^ c ^ d ^ e ^ f ^ g ^ h ^ i ^ j ^ k ^ l ^ tcpFlags ^ ecnData);
    if (record) {
      args.push_back({&rule,
                      aclRule,
                      subRuleNum,
                      {a, b, c, d, e, f, g, h, i, j, k, l},
                      tcpFlags,
                      l4Rule,
                      ecnData,
                      ecnMask});
    }
    return Err::aclCreateErrorNone;
  }
  Err createIpFragRule(Vemo::AclData&, Acl::IpRuleConfig const&, Acl::UniqueId, Zol::U32,
                       Zol::U32) override {
    return Err::aclCreateErrorNone;
  }
  Err createFinalAclRule(Acl::AclType, Vemo::AclData&, Zol::U32) override {
    return Err::aclCreateErrorNone;
  }

  bool record = false;
  size_t subrules = 0;
  std::vector<SubruleArgs> args;
};

Zol::Ptr<Acl::AclConfig> const& acl() {
  static Zol::Ptr<Acl::AclConfig> const config = [] {
    auto c = Zol::make<Acl::AclConfig>("bench", "bench");
    std::mt19937 rng(11);
    for (uint32_t r = 0; r < kRules; ++r) {
      Acl::IpFilter f;
      f.protocolIs(r % 2 ? Acl::IpFilter::protocolTcp : Acl::IpFilter::protocolUdp);
      auto const low = static_cast<Zol::U16>(rng() % 60000);
      f.dstPortIs(Acl::PortSpec(Acl::PortOper::portRange,
                                {low, static_cast<Zol::U16>(low + rng() % 5000)}));
      if (r % 4 == 0) f.srcPortIs(Acl::PortSpec(Acl::PortOper::portEq, {53, 123}));
      if (r % 8 == 0) f.ecnIs(Acl::EcnMatch::ecnEct);
      Acl::IpRuleConfig rule;
      rule.actionIs(r % 3 ? Acl::AclAction::permit : Acl::AclAction::deny);
      rule.uniqueIdIs(Acl::UniqueId(r));
      rule.filterIs(f);
      c->ipRuleBySequenceIs(10 * (r + 1), rule);
    }
    return c;
  }();
  return config;
}

Zol::Ptr<Vemo::AclData> instance() {
  auto data = Zol::make<Vemo::AclData>(
      "bench", Vemo::AclKey("bench", Acl::AclType::ip, Acl::AclDirection::in, false,
                            Vemo::AclVlanIdOrNone(), "default"));
  data->aclNumberIs(1);
  return data;
}

void aclCreateRules(benchmark::State& state) {
  auto helper = Zol::make<NullAclHelper>();
  size_t subrules = 0;
  for (auto _ : state) {
    auto data = instance();
    helper->subrules = 0;
    if (Vemo::createAclRules(*helper, *data, *acl()) != Err::aclCreateErrorNone) {
      state.SkipWithError("refused");
    }
    subrules = helper->subrules;
  }
  state.SetItemsProcessed(state.iterations() * subrules);
  state.counters["subrules"] = static_cast<double>(subrules);
}

// The floor: the same subrule calls, arguments already at hand.
void aclCreateRulesFloor(benchmark::State& state) {
  auto helper = Zol::make<NullAclHelper>();
  auto data = instance();
  helper->record = true;
  Vemo::createAclRules(*helper, *data, *acl());
  helper->record = false;
  std::vector<SubruleArgs> const args = std::move(helper->args);
  VemoHelper::AclHelper& h = *helper;
  for (auto _ : state) {
    for (SubruleArgs const& s : args) {
      benchmark::DoNotOptimize(h.createIpAclSubrule(
          Acl::AclType::ip, *s.rule, s.rule->uniqueId(), *data, s.aclRule, s.subRuleNum, s.v[0],
          s.v[1], s.v[2], s.v[3], s.v[4], s.v[5], s.v[6], s.v[7], s.v[8], s.v[9], s.v[10], s.v[11],
          s.flags, s.l4Rule, s.ecnData, s.ecnMask));
    }
  }
  state.SetItemsProcessed(state.iterations() * args.size());
}

}  // namespace

BENCHMARK(aclCreateRules)->Name("acl.create_rules_10k")->Unit(benchmark::kMillisecond);
BENCHMARK(aclCreateRulesFloor)->Name("acl.create_rules_10k/floor")->Unit(benchmark::kMillisecond);
