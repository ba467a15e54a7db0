// ACL rule creation: 10,000 configured rules with random port ranges turned into helper calls,
// against the same helper calls made with their arguments worked out beforehand. The ratio is the
// library's own cost per subrule: port specifications, ranges, flags and ECN pairs, traces.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "Sim/AclHelper.h"
#include "Vemo/AclRules.h"
#include "Vemo/AclSm.h"

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
    ++others;
    return Err::aclCreateErrorNone;
  }

  // What the install phases add: each a counted no-op.
  void hwInit() override {}
  bool intfSupportsAcl(Nepo::IntfId const&) const override { return true; }
  Zol::String intfLinecardName(Nepo::IntfId const&) const override { return "unit0"; }
  Err prepareToCommit(Vemo::AclData&) override { return counted(); }
  Err commitAcl(Vemo::AclData&) override { return counted(); }
  Err addIntfToAcl(Nepo::IntfId const& intf, Vemo::AclData const&) override {
    if (record) ports.push_back(intf);
    return counted();
  }
  void removeIntfFromAcl(Nepo::IntfId const&, Vemo::AclData const&, bool) override { counted(); }
  void blockIntf(Nepo::IntfId const&, bool, Zol::U32) override { counted(); }
  void removeAcl(Vemo::AclData&) override { counted(); }
  void destroyAcl(Vemo::AclData&) override { counted(); }
  void deleteAcl(Zol::U32) override { counted(); }

  Err counted() {
    ++others;
    return Err::aclCreateErrorNone;
  }
  size_t calls() const { return subrules + others; }

  bool record = false;
  size_t subrules = 0;
  size_t others = 0;
  std::vector<SubruleArgs> args;
  std::vector<Nepo::IntfId> ports;
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
  Zol::ActivityLoop loop{Zol::ActivityLoop::TimeMode::simulated};
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
  Zol::ActivityLoop loop{Zol::ActivityLoop::TimeMode::simulated};
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

// Everything an ACL SM reads, with one 10,000-rule IPv4 list applied inbound to 48 ports.
struct InstallWorld {
  static constexpr uint32_t kPorts = 48;

  InstallWorld() {
    config->configIs(Acl::AclType::ip)->aclIs("bench");
    auto const a = config->config(Acl::AclType::ip)->acl("bench");
    for (auto const& [seq, rule] : acl()->ipRuleBySequenceAll()) a->ipRuleBySequenceIs(seq, rule);
    a->currCfgIs(1);
    auto const ports = cli->configIs(Acl::AclType::ip)->intfIs(Acl::AclDirection::in);
    for (uint32_t p = 1; p <= kPorts; ++p) {
      ports->intfIs(Nepo::IntfId(Nepo::IntfKind::Ethernet, {p}), "bench");
    }
  }
  Zol::Ptr<Vemo::AclSm> start(Zol::Ptr<VemoHelper::AclHelper> const& helper) {
    auto sm =
        Vemo::aclSmFactory({.commonData = cd,
                            .mainConfig = config,
                            .aclParamConfig = Zol::make<Acl::ParamConfig>("param"),
                            .intfConfigDir = Zol::make<Acl::IntfConfigDir>("dir"),
                            .intfConfigCli = cli,
                            .hwConfigDir = Zol::make<Acl::HwConfigDir>("hw"),
                            .status = Zol::make<Acl::StatusDp>("st"),
                            .aclCauseStatus = Zol::make<Errdisable::CauseStatus>("acl", "acl"),
                            .lagInputConfig = Zol::make<Lag::Input::Config>("lag"),
                            .aclHelper = helper,
                            .clock = &loop,
                            .brConfig = Zol::make<Bridging::Config>("br"),
                            .subIntfStatusDir = Zol::make<Interface::SubIntfStatusDir>("ss"),
                            .subIntfConfigDir = Zol::make<Interface::SubIntfConfigDir>("sc")});
    sm->initializedIs(true);
    loop.runUntilIdle();
    return sm;
  }

  Zol::ActivityLoop loop{Zol::ActivityLoop::TimeMode::simulated};
  Zol::Ptr<Vemo::VemoCommonSmData> cd = Vemo::vemoCommonSmDataFactory("common");
  Zol::Ptr<Acl::Config> config = Zol::make<Acl::Config>("config");
  Zol::Ptr<Acl::IntfConfig> cli = Zol::make<Acl::IntfConfig>("cli");
};

// From configuration to committed: the SM starts on the configuration, creates the instance's
// rules, commits it and applies it to every port.
void aclInstall(benchmark::State& state) {
  InstallWorld w;
  size_t calls = 0;
  for (auto _ : state) {
    auto helper = Zol::make<NullAclHelper>();
    auto sm = w.start(helper);
    calls = helper->calls();
    state.PauseTiming();
    sm = {};
    w.loop.runUntilIdle();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * calls);
  state.counters["helper_calls"] = static_cast<double>(calls);
}

// The floor: the helper calls of one install, arguments at hand.
void aclInstallFloor(benchmark::State& state) {
  InstallWorld w;
  auto helper = Zol::make<NullAclHelper>();
  helper->record = true;
  auto sm = w.start(helper);
  helper->record = false;
  std::vector<SubruleArgs> const args = std::move(helper->args);
  std::vector<Nepo::IntfId> const ports = std::move(helper->ports);
  size_t const others = helper->others - ports.size();
  auto data = instance();
  VemoHelper::AclHelper& h = *helper;
  for (auto _ : state) {
    for (SubruleArgs const& s : args) {
      benchmark::DoNotOptimize(h.createIpAclSubrule(
          Acl::AclType::ip, *s.rule, s.rule->uniqueId(), *data, s.aclRule, s.subRuleNum, s.v[0],
          s.v[1], s.v[2], s.v[3], s.v[4], s.v[5], s.v[6], s.v[7], s.v[8], s.v[9], s.v[10], s.v[11],
          s.flags, s.l4Rule, s.ecnData, s.ecnMask));
    }
    for (size_t i = 0; i < others; ++i) benchmark::DoNotOptimize(h.commitAcl(*data));
    for (Nepo::IntfId const& p : ports) benchmark::DoNotOptimize(h.addIntfToAcl(p, *data));
  }
  state.SetItemsProcessed(state.iterations() * (args.size() + others + ports.size()));
}

// The simulated chip's helper, its subrules recorded for the floor.
class RecordingSimHelper : public sim::AclHelper {
 public:
  RecordingSimHelper(sim::Chip& chip, Zol::ActivityLoop& loop)
      : sim::AclHelper("bench", chip, loop) {
    aclEcnSupportedIs(true);
  }
  Err createIpAclSubrule(Acl::AclType type, Acl::IpRuleConfig const& rule, Acl::UniqueId id,
                         Vemo::AclData& data, Zol::U32 aclRule, Zol::U32 subRuleNum, Zol::U16 a,
                         Zol::U16 b, Zol::U16 c, Zol::U16 d, Zol::U16 e, Zol::U16 f, Zol::U16 g,
                         Zol::U16 h, Zol::U16 i, Zol::U16 j, Zol::U16 k, Zol::U16 l,
                         Zol::U8 tcpFlags, bool l4Rule, Zol::U8 ecnData, Zol::U8 ecnMask) override {
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
    return sim::AclHelper::createIpAclSubrule(type, rule, id, data, aclRule, subRuleNum, a, b, c, d,
                                              e, f, g, h, i, j, k, l, tcpFlags, l4Rule, ecnData,
                                              ecnMask);
  }
  bool record = false;
  std::vector<SubruleArgs> args;
};

// A chip whose TCAM holds the whole list; 48 ports on two units.
sim::Chip::Config const kBenchChip{2, 24};

std::unique_ptr<sim::Chip> benchChip() {
  auto chip = std::make_unique<sim::Chip>(kBenchChip);
  chip->capacityIs(sim::Table::acl, 1'000'000);
  return chip;
}

// The same install on the simulated chip: every subrule becomes TCAM entries on both units.
void aclInstallSim(benchmark::State& state) {
  InstallWorld w;
  size_t entries = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto chip = benchChip();
    auto helper = Zol::make<RecordingSimHelper>(*chip, w.loop);
    state.ResumeTiming();
    auto sm = w.start(helper);
    state.PauseTiming();
    entries = chip->acls().tcam(0, Acl::AclDirection::in).size();
    sm = {};
    w.loop.runUntilIdle();
    helper = {};
    chip.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * entries);
  state.counters["tcam_entries_per_unit"] = static_cast<double>(entries);
}

// The floor: the recorded subrule calls, then the final rule, commit and ports, straight on the
// simulated helper.
void aclInstallSimFloor(benchmark::State& state) {
  InstallWorld w;
  std::vector<SubruleArgs> args;
  {
    auto chip = benchChip();
    auto helper = Zol::make<RecordingSimHelper>(*chip, w.loop);
    helper->record = true;
    auto sm = w.start(helper);
    args = std::move(helper->args);
    sm = {};
    w.loop.runUntilIdle();
  }
  auto data = instance();
  for (auto _ : state) {
    state.PauseTiming();
    auto chip = benchChip();
    auto helper = Zol::make<RecordingSimHelper>(*chip, w.loop);
    VemoHelper::AclHelper& h = *helper;
    state.ResumeTiming();
    for (SubruleArgs const& s : args) {
      benchmark::DoNotOptimize(h.createIpAclSubrule(
          Acl::AclType::ip, *s.rule, s.rule->uniqueId(), *data, s.aclRule, s.subRuleNum, s.v[0],
          s.v[1], s.v[2], s.v[3], s.v[4], s.v[5], s.v[6], s.v[7], s.v[8], s.v[9], s.v[10], s.v[11],
          s.flags, s.l4Rule, s.ecnData, s.ecnMask));
    }
    benchmark::DoNotOptimize(h.createFinalAclRule(Acl::AclType::ip, *data, kRules));
    benchmark::DoNotOptimize(h.prepareToCommit(*data));
    benchmark::DoNotOptimize(h.commitAcl(*data));
    for (uint32_t p = 1; p <= InstallWorld::kPorts; ++p) {
      benchmark::DoNotOptimize(h.addIntfToAcl(Nepo::IntfId(Nepo::IntfKind::Ethernet, {p}), *data));
    }
    state.PauseTiming();
    helper = {};
    chip.reset();
    state.ResumeTiming();
  }
}

// One rule of the installed list changes: the time and the helper calls it takes.
void aclChangeOneRule(benchmark::State& state) {
  InstallWorld w;
  auto helper = Zol::make<NullAclHelper>();
  auto sm = w.start(helper);
  auto const a = w.config->config(Acl::AclType::ip)->acl("bench");
  Acl::IpRuleConfig rule = a->ipRuleBySequence(5000);
  size_t calls = 0;
  for (auto _ : state) {
    rule.actionIs(rule.action() == Acl::AclAction::permit ? Acl::AclAction::deny
                                                          : Acl::AclAction::permit);
    a->ipRuleBySequenceIs(5000, rule);
    a->currCfgIs(a->currCfg() + 1);
    size_t const before = helper->calls();
    w.loop.runUntilIdle();
    calls = helper->calls() - before;
  }
  state.counters["helper_calls"] = static_cast<double>(calls);
}

}  // namespace

BENCHMARK(aclInstall)->Name("acl.install_10k")->Unit(benchmark::kMillisecond);
BENCHMARK(aclInstallFloor)->Name("acl.install_10k/floor")->Unit(benchmark::kMillisecond);
BENCHMARK(aclInstallSim)->Name("acl.install_10k_sim")->Unit(benchmark::kMillisecond);
BENCHMARK(aclInstallSimFloor)->Name("acl.install_10k_sim/floor")->Unit(benchmark::kMillisecond);
BENCHMARK(aclChangeOneRule)->Name("acl.change_one_rule")->Unit(benchmark::kMillisecond);
BENCHMARK(aclCreateRules)->Name("acl.create_rules_10k")->Unit(benchmark::kMillisecond);
BENCHMARK(aclCreateRulesFloor)->Name("acl.create_rules_10k/floor")->Unit(benchmark::kMillisecond);
