// Port-channel churn: the port-channel SM serving member moves, against the bare map updates
// that any implementation must make.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "Vemo/LagSm.h"

namespace {

constexpr uint32_t kLags = 1000;
constexpr uint32_t kMembers = 8;
constexpr uint32_t kMoves = 100'000;

Nepo::IntfId ethernet(uint32_t n) { return Nepo::IntfId(Nepo::IntfKind::Ethernet, {n}); }
Nepo::IntfId portChannel(uint32_t n) { return Nepo::IntfId(Nepo::IntfKind::PortChannel, {n}); }

struct Move {
  Nepo::IntfId port, from, to;
};

// The same random moves for both sides: a member of one port-channel leaves it for another.
std::vector<Move> const& moves() {
  static std::vector<Move> const m = [] {
    std::mt19937 rng(7);
    std::vector<uint32_t> lagOf(kLags * kMembers);
    for (uint32_t p = 0; p < lagOf.size(); ++p) lagOf[p] = p / kMembers + 1;
    std::vector<Move> v;
    v.reserve(kMoves);
    std::uniform_int_distribution<uint32_t> port(0, kLags * kMembers - 1), lag(1, kLags);
    while (v.size() < kMoves) {
      uint32_t const p = port(rng), to = lag(rng);
      if (to == lagOf[p]) continue;
      v.push_back({ethernet(p + 1), portChannel(lagOf[p]), portChannel(to)});
      lagOf[p] = to;
    }
    return v;
  }();
  return m;
}

// A chip that takes every call and manages every port: the cost measured is the library's.
class NullLagHelper : public VemoHelper::VemoHelperLagSm {
 public:
  NullLagHelper() : VemoHelperLagSm("bench") {}
  void hwInit() override {}
  void lacpEnabledIs(bool) override {}
  void maybeCreateLag(Nepo::IntfId const&) override {}
  void maybeDestroyLag(Nepo::IntfId const&) override {}
  void updateLag(Nepo::IntfId const&, Vemo::VemoLagPortList const& members) override {
    benchmark::DoNotOptimize(members.portSize());
  }
  bool intfManagedCheckOverride() const override { return true; }
  bool isIntfManaged(Nepo::IntfId const&) const override { return true; }
};

void lagChurn(benchmark::State& state) {
  Zol::ActivityLoop loop(Zol::ActivityLoop::TimeMode::simulated);
  auto commonData = Vemo::vemoCommonSmDataFactory("bench");
  auto dir = Zol::make<Interface::EthLagIntfStatusDir>("lag");
  auto names = Zol::make<Lag::Input::IntfDeviceNameDir>("names");
  auto sm = Vemo::lagSmFactory(commonData, dir, names, Zol::make<NullLagHelper>());
  sm->initializedIs(true);
  for (uint32_t l = 1; l <= kLags; ++l) {
    auto status = dir->intfStatusIs(portChannel(l));
    for (uint32_t m = 0; m < kMembers; ++m)
      status->memberIs(ethernet((l - 1) * kMembers + m + 1), true);
  }
  loop.runUntilIdle();
  for (auto _ : state) {
    for (Move const& m : moves()) {
      dir->intfStatus(m.from)->memberDel(m.port);
      dir->intfStatus(m.to)->memberIs(m.port, true);
      loop.runUntilIdle();
    }
  }
  if (commonData->portToLagSize() != kLags * kMembers) state.SkipWithError("ports lost");
  state.SetItemsProcessed(state.iterations() * kMoves);
}

// The floor: each move's updates of the two maps in bare Abseil containers.
void lagChurnFloor(benchmark::State& state) {
  absl::flat_hash_map<Nepo::IntfId, Nepo::IntfId> portToLag;
  absl::flat_hash_map<Nepo::IntfId, absl::flat_hash_map<Nepo::IntfId, Vemo::VemoLagPort>> lagToPort;
  for (uint32_t p = 0; p < kLags * kMembers; ++p) {
    portToLag[ethernet(p + 1)] = portChannel(p / kMembers + 1);
    lagToPort[portChannel(p / kMembers + 1)][ethernet(p + 1)] = Vemo::VemoLagPort(true, true);
  }
  for (auto _ : state) {
    for (Move const& m : moves()) {
      lagToPort[m.from].erase(m.port);
      lagToPort[m.to].insert_or_assign(m.port, Vemo::VemoLagPort(true, true));
      portToLag.insert_or_assign(m.port, m.to);
    }
    benchmark::DoNotOptimize(portToLag.size());
  }
  state.SetItemsProcessed(state.iterations() * kMoves);
}

}  // namespace

// One pass each: the moves continue from where the port-channels stand, so a pass is not
// repeatable from the same state.
BENCHMARK(lagChurn)->Name("lag.churn")->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(lagChurnFloor)->Name("lag.churn/floor")->Iterations(1)->Unit(benchmark::kMillisecond);
