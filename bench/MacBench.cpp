// The MAC address table: learns taken from the chip driver's table to the FDB status, the
// longest time slice while a large backlog drains, the library's memory per MAC, and a VLAN's
// flush. Each against the bare hash-map work any implementation must do.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <vector>

#include "Vemo/MacAddrSm.h"

// Live heap bytes, for the memory figure: every allocation of the process is counted. The
// replacements pair malloc with free themselves, which the compiler cannot see through.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
namespace {
std::atomic<int64_t> liveBytes{0};
}  // namespace

void* operator new(size_t n) {
  void* p = std::malloc(n == 0 ? 1 : n);
  if (!p) throw std::bad_alloc();
  liveBytes.fetch_add(static_cast<int64_t>(malloc_usable_size(p)), std::memory_order_relaxed);
  return p;
}
void operator delete(void* p) noexcept {
  if (!p) return;
  liveBytes.fetch_sub(static_cast<int64_t>(malloc_usable_size(p)), std::memory_order_relaxed);
  std::free(p);
}
void operator delete(void* p, size_t) noexcept { operator delete(p); }

namespace {

using Bridging::MacVlanPair;
using Clock = std::chrono::steady_clock;

Nepo::IntfId ethernet(uint32_t n) { return Nepo::IntfId(Nepo::IntfKind::Ethernet, {n}); }

// n distinct hosts over 16 VLANs (or one), on 48 ports.
std::vector<MacVlanPair> hosts(uint32_t n, bool oneVlan = false) {
  std::vector<MacVlanPair> v;
  v.reserve(n);
  for (uint32_t i = 0; i < n; ++i) {
    char mac[18];
    std::snprintf(mac, sizeof mac, "02:00:%02x:%02x:%02x:%02x", i >> 24 & 0xff, i >> 16 & 0xff,
                  i >> 8 & 0xff, i & 0xff);
    v.emplace_back(Nepo::EthAddr::fromString(mac), Bridging::VlanId(oneVlan ? 10 : 10 + i % 16));
  }
  return v;
}

// A chip driver that takes every write; a flush removes the VLAN's entries from its table, as a
// driver reports what the chip dropped.
class BenchMacHelper : public VemoHelper::VemoHelperMacAddrSm {
 public:
  explicit BenchMacHelper(Zol::Ptr<VemoTypes::MacTable> const& driver)
      : VemoHelperMacAddrSm("bench"), driver_(driver) {}
  Vemo::MacProgramStatus addHost(MacVlanPair const&, Nepo::IntfId const&, Zol::U16, bool,
                                 Bridging::EntryType) override {
    return Vemo::MacProgramStatus::macProgramSuccess;
  }
  Vemo::MacProgramStatus removeHost(MacVlanPair const&, Bridging::EntryType) override {
    return Vemo::MacProgramStatus::macProgramSuccess;
  }
  void flushVlan(Zol::U16 vlan) override {
    std::vector<MacVlanPair> gone;
    for (auto const& [key, entry] : driver_->entryAll()) {
      if (key.vlanId().value() == vlan) gone.push_back(key);
    }
    for (auto const& key : gone) driver_->entryDel(key);
  }
  void hwInit() override {}
  void handleLinkStateAtInit() override {}
  void configureAgingTime(int) override {}
  void enableLearning(Nepo::IntfId const&, bool) override {}
  void enableLearningOnVlan(Bridging::VlanId, bool) override {}

 private:
  Zol::Ptr<VemoTypes::MacTable> driver_;
};

// The SM over empty inputs, 48 switched ports up.
struct Bed {
  explicit Bed(Zol::ActivityLoop& loop) : cd(Vemo::vemoCommonSmDataFactory("bench", loop)) {
    for (uint32_t p = 1; p <= 48; ++p) {
      config->switchIntfConfigIs(ethernet(p));
      intfStatus->intfStatusIs(ethernet(p))->linkStatusIs(Interface::LinkStatus::linkUp);
    }
    sm = Vemo::macAddrSmFactory(
        cd, Zol::make<Vemo::VemoCommonMulticastData>("mcast"), macTable, driver, status,
        flushRequests, Zol::make<Bridging::HostTableFlushReplyDir>("replies"), config,
        Zol::make<Interface::AllEthPhyIntfConfigDir>("ethCfg"), intfStatus,
        Zol::make<Vemo::VlanHelper>("vlan"), Zol::make<Mlag::HostTable>("mlagHosts"),
        Zol::make<Mlag::Status>("mlag"), Zol::make<BenchMacHelper>(driver),
        Zol::make<FastServerFailover::Status>("fsf"), Zol::make<Vxlan::VxlanConfigDir>("vxlan"),
        Zol::make<Vemo::VXLAN::RemoteMacInfoDir>("rmi"),
        Zol::make<Bridging::RemoteMacTable>("remote"), Zol::make<Dot1x::HostTable>("dot1x"),
        Zol::make<Dot1x::Status>("dot1xStatus"), Zol::make<VemoHelper::VemoHelperDot1x>("d"),
        Zol::make<L2Rib::HostInput>("in"), Zol::make<L2Rib::HostOutput>("out"),
        Vemo::swTunnelGroupIdManagerFactory(cd), Zol::make<Vemo::ObjTupleToHwId>("hwIds"));
    sm->initializedIs(true);
  }
  void learn(std::vector<MacVlanPair> const& keys) {
    uint32_t i = 0;
    for (auto const& key : keys) {
      driver->entryIs(key, VemoTypes::MacAddressTableEntry(key, ethernet(1 + i++ % 48),
                                                           Bridging::EntryType::learnedDynamicMac));
    }
  }
  size_t fdbSize() const {
    size_t n = 0;
    for (auto const& [fid, s] : status->fdbStatusAll()) n += s->learnedHostSize();
    return n;
  }

  Zol::Ptr<Vemo::VemoCommonSmData> cd;
  Zol::Ptr<Bridging::Config> config = Zol::make<Bridging::Config>("config");
  Zol::Ptr<Interface::AllEthPhyIntfStatusDir> intfStatus =
      Zol::make<Interface::AllEthPhyIntfStatusDir>("ethStatus");
  Zol::Ptr<VemoTypes::MacTable> macTable = Zol::make<VemoTypes::MacTable>("macTable");
  Zol::Ptr<VemoTypes::MacTable> driver = Zol::make<VemoTypes::MacTable>("driver");
  Zol::Ptr<Bridging::Status> status = Zol::make<Bridging::Status>("status");
  Zol::Ptr<Bridging::AllHostTableFlushRequestDir> flushRequests =
      Zol::make<Bridging::AllHostTableFlushRequestDir>("flush");
  Zol::Ptr<Vemo::MacAddrSm> sm;
};

constexpr uint32_t kLearns = 256'000;

void macLearn(benchmark::State& state) {
  auto const& keys = hosts(kLearns);
  for (auto _ : state) {
    state.PauseTiming();
    {
      Zol::ActivityLoop loop(Zol::ActivityLoop::TimeMode::simulated);
      auto bed = std::make_unique<Bed>(loop);
      loop.runUntilIdle();
      state.ResumeTiming();
      bed->learn(keys);
      loop.runUntilIdle();
      state.PauseTiming();
      if (bed->fdbSize() != kLearns) state.SkipWithError("learns lost");
      bed.reset();
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kLearns);
}

void macLearnFloor(benchmark::State& state) {
  auto const& keys = hosts(kLearns);
  for (auto _ : state) {
    absl::flat_hash_map<MacVlanPair, Bridging::HostEntry> map;
    for (auto const& key : keys) map.try_emplace(key);
    benchmark::DoNotOptimize(map.size());
  }
  state.SetItemsProcessed(state.iterations() * kLearns);
}

// One real-time loop pass at a time while a million learns drain; the longest pass after the one
// that delivers the burst is a time slice of the SM's.
void macSliceMax(benchmark::State& state) {
  constexpr uint32_t kBacklog = 1'000'000;
  auto const& keys = hosts(kBacklog);
  double longest = 0, longestPass = 0;
  int64_t bytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    Zol::ActivityLoop loop(Zol::ActivityLoop::TimeMode::real);
    auto bed = std::make_unique<Bed>(loop);
    loop.runUntilIdle();
    bed->learn(keys);
    int64_t const before = liveBytes.load();
    state.ResumeTiming();
    bool first = true;
    for (;;) {
      auto const start = Clock::now();
      if (!loop.runOnePass()) break;
      double const ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
      longestPass = std::max(longestPass, ms);
      if (!first) longest = std::max(longest, ms);
      first = false;
    }
    state.PauseTiming();
    bytes = liveBytes.load() - before;
    if (bed->fdbSize() != kBacklog) state.SkipWithError("learns lost");
    bed.reset();
    state.ResumeTiming();
  }
  state.counters["slice_max_ms"] = longest;
  state.counters["pass_max_ms"] = longestPass;
  state.counters["bytes_per_mac"] = static_cast<double>(bytes) / kBacklog;
}

void macFlushVlan(benchmark::State& state) {
  auto const& keys = hosts(kLearns, /*oneVlan=*/true);
  for (auto _ : state) {
    state.PauseTiming();
    Zol::ActivityLoop loop(Zol::ActivityLoop::TimeMode::simulated);
    auto bed = std::make_unique<Bed>(loop);
    bed->learn(keys);
    loop.runUntilIdle();
    state.ResumeTiming();
    bed->flushRequests->requestDirIs("bench")->requestIs(
        1, Bridging::HostTableFlushRequest(Bridging::VlanIdOrNone(10), Nepo::IntfId()));
    loop.advanceBy(Vemo::MacAddrSm::kFlushDelay);
    loop.runUntilIdle();
    state.PauseTiming();
    if (bed->fdbSize() != 0) state.SkipWithError("hosts left after the flush");
    bed.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kLearns);
}

void macFlushVlanFloor(benchmark::State& state) {
  auto const& keys = hosts(kLearns, true);
  for (auto _ : state) {
    state.PauseTiming();
    absl::flat_hash_map<MacVlanPair, Bridging::HostEntry> map;
    for (auto const& key : keys) map.try_emplace(key);
    state.ResumeTiming();
    for (auto const& key : keys) map.erase(key);
    benchmark::DoNotOptimize(map.size());
  }
  state.SetItemsProcessed(state.iterations() * kLearns);
}

}  // namespace

BENCHMARK(macLearn)->Name("mac.learn_256k")->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(macLearnFloor)->Name("mac.learn_256k/floor")->Unit(benchmark::kMillisecond);
BENCHMARK(macSliceMax)->Name("mac.slice_max")->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(macFlushVlan)->Name("mac.flush_vlan_256k")->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(macFlushVlanFloor)->Name("mac.flush_vlan_256k/floor")->Unit(benchmark::kMillisecond);
