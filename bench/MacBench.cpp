// The MAC address table: learns taken from the chip driver's table to the FDB status, EVPN
// remote MACs programmed behind their VTEPs, the longest time slice while a large backlog drains,
// the library's memory per MAC, a VLAN's flush, and the walk of the MLAG peer's hosts when the
// peering comes up. Each against the bare hash-map work any implementation must do, or a time
// budget.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
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
// driver reports what the chip dropped. It counts its writes and, when asked, notes when the
// first and the last local write of a loop pass were made.
class BenchMacHelper : public VemoHelper::VemoHelperMacAddrSm {
 public:
  explicit BenchMacHelper(Zol::Ptr<VemoTypes::MacTable> const& driver)
      : VemoHelperMacAddrSm("bench"), driver_(driver) {}
  Vemo::MacProgramStatus addHost(MacVlanPair const&, Nepo::IntfId const&, Zol::U16, bool,
                                 Bridging::EntryType) override {
    ++adds;
    if (stampWrites) {
      lastWrite = Clock::now();
      if (passWrites++ == 0) firstWrite = lastWrite;
    }
    return Vemo::MacProgramStatus::macProgramSuccess;
  }
  Vemo::MacProgramStatus addRemoteHost(MacVlanPair const&, Nepo::IntfId const&, Zol::U32, Zol::U16,
                                       bool, Bridging::EntryType, bool) override {
    ++remoteAdds;
    return Vemo::MacProgramStatus::macProgramSuccess;
  }
  Zol::U32 getMaxRemoteMacs() override { return 1u << 20; }
  bool skipVemoVxlanRmacHandling() override { return false; }
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

  uint64_t adds = 0;
  uint64_t remoteAdds = 0;
  bool stampWrites = false;
  uint64_t passWrites = 0;
  Clock::time_point firstWrite, lastWrite;

 private:
  Zol::Ptr<VemoTypes::MacTable> driver_;
};

// The SM over empty inputs, 48 switched ports up; unless told to wait, started at once.
struct Bed {
  explicit Bed(Zol::ActivityLoop& loop, bool startNow = true)
      : cd(Vemo::vemoCommonSmDataFactory("bench", loop)) {
    for (uint32_t p = 1; p <= 48; ++p) {
      config->switchIntfConfigIs(ethernet(p));
      intfStatus->intfStatusIs(ethernet(p))->linkStatusIs(Interface::LinkStatus::linkUp);
    }
    if (startNow) start();
  }
  void start() {
    sm = Vemo::macAddrSmFactory(
        cd, Zol::make<Vemo::VemoCommonMulticastData>("mcast"), macTable, driver, status,
        flushRequests, Zol::make<Bridging::HostTableFlushReplyDir>("replies"), config,
        Zol::make<Interface::AllEthPhyIntfConfigDir>("ethCfg"), intfStatus,
        Zol::make<Vemo::VlanHelper>("vlan"), mlagHosts, mlag, helper,
        Zol::make<FastServerFailover::Status>("fsf"), Zol::make<Vxlan::VxlanConfigDir>("vxlan"),
        remoteMacInfo, evpnMacs, Zol::make<Dot1x::HostTable>("dot1x"),
        Zol::make<Dot1x::Status>("dot1xStatus"), Zol::make<VemoHelper::VemoHelperDot1x>("d"),
        Zol::make<L2Rib::HostInput>("in"), Zol::make<L2Rib::HostOutput>("out"), groups,
        Zol::make<Vemo::ObjTupleToHwId>("hwIds"), {}, {}, {}, vtepStatus,
        Zol::make<Vemo::VXLAN::VtepGroupStatusDir>("vtepGroups"));
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
  Zol::Ptr<Mlag::HostTable> mlagHosts = Zol::make<Mlag::HostTable>("mlagHosts");
  Zol::Ptr<Mlag::Status> mlag = Zol::make<Mlag::Status>("mlag");
  Zol::Ptr<Vemo::VXLAN::RemoteMacInfoDir> remoteMacInfo =
      Zol::make<Vemo::VXLAN::RemoteMacInfoDir>("rmi");
  Zol::Ptr<Bridging::RemoteMacTable> evpnMacs = Zol::make<Bridging::RemoteMacTable>("remote");
  Zol::Ptr<Vemo::SwTunnelGroupIdManager> groups = Vemo::swTunnelGroupIdManagerFactory(cd);
  Zol::Ptr<Vemo::VXLAN::VtepStatusDir> vtepStatus =
      Zol::make<Vemo::VXLAN::VtepStatusDir>("vtepStatus");
  Zol::Ptr<BenchMacHelper> helper = Zol::make<BenchMacHelper>(driver);
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

// Freed outside the timed region, as the measured runs free their tables.
void macLearnFloor(benchmark::State& state) {
  auto const& keys = hosts(kLearns);
  for (auto _ : state) {
    auto map = std::make_unique<absl::flat_hash_map<MacVlanPair, Bridging::HostEntry>>();
    for (auto const& key : keys) map->try_emplace(key);
    benchmark::DoNotOptimize(map->size());
    state.PauseTiming();
    map.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kLearns);
}

Nepo::IntfId vxlan1() { return Nepo::IntfId(Nepo::IntfKind::Vxlan, {1}); }

// EVPN's remote MACs over 64 VTEPs, each its own single-member tunnel group whose next hop the
// platform already programmed on Vxlan1, which carries the 16 VLANs. Against the same floor as the
// learns: the remote host status, its references and its index are this path's own work.
void macRemoteLearn(benchmark::State& state) {
  constexpr uint32_t kVteps = 64;
  auto const& keys = hosts(kLearns);
  std::vector<Nepo::IpAddr> vteps;
  for (uint32_t v = 1; v <= kVteps; ++v) {
    vteps.push_back(Nepo::IpAddr::fromString("10.0.0." + std::to_string(v)));
  }
  for (auto _ : state) {
    state.PauseTiming();
    {
      Zol::ActivityLoop loop(Zol::ActivityLoop::TimeMode::simulated);
      auto bed = std::make_unique<Bed>(loop, /*startNow=*/false);
      for (uint16_t vlan = 10; vlan < 26; ++vlan) {
        bed->remoteMacInfo->vniInfo()->validVlanVniMapIs(
            Bridging::VlanId(vlan), Vemo::VXLAN::VniEntry(Vxlan::VniExtOrNone(10000u + vlan),
                                                          Bridging::VlanId(vlan), vxlan1()));
      }
      auto const vtepStatus = bed->vtepStatus->vtepStatusIs(vxlan1());
      for (uint32_t v = 0; v < kVteps; ++v) {
        Vemo::SwTunnelGroupId const g = bed->groups->getSwTunnelGroupIdForTunnelIp(vteps[v]);
        vtepStatus->hwVtepInfoIs(
            g, Vemo::VXLAN::HwVtepInfo(g, Vemo::VemoTunnelId(v + 1), Vemo::VemoNextHopId(v + 100)));
      }
      bed->start();
      loop.runUntilIdle();
      state.ResumeTiming();
      uint32_t i = 0;
      for (auto const& key : keys) {
        bed->evpnMacs->remoteMacIs(
            key, Bridging::RemoteMacEntry(vteps[i++ % kVteps],
                                          Bridging::EntryType::evpnDynamicRemoteMac, 0, 0));
      }
      loop.runUntilIdle();
      state.PauseTiming();
      if (bed->helper->remoteAdds != kLearns || bed->fdbSize() != kLearns ||
          bed->remoteMacInfo->hostStatusTable()->statusEntrySize() != kLearns ||
          bed->sm->waitingForNextHop() != 0) {
        state.SkipWithError("remote MACs not all programmed");
        break;
      }
      bed.reset();
    }
    state.ResumeTiming();
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

// The MLAG peering comes up over a million peer hosts on Port-Channel1 (up on both switches): the
// SM walks the whole host table in runs of kMlagWalkBudget, queueing every host, and drains the
// queue in runs of kSliceBudget. Timed one real-time loop pass at a time. Both timers may fire in
// one pass: the drain's part of such a pass is taken from the helper's first and last write in it
// and the walk's is the rest (delivery and loop overhead included, so an upper bound); a pass the
// walk has no part in is the drain's whole.
void macMlagSync(benchmark::State& state) {
  constexpr uint32_t kPeerHosts = 1'000'000;
  Nepo::IntfId const mlagIntf(Nepo::IntfKind::PortChannel, {1});
  auto const& keys = hosts(kPeerHosts);
  auto ms = [](Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); };
  double walkMax = 0, drainMax = 0, walkDone = 0, firstWrite = 0, total = 0;
  for (auto _ : state) {
    state.PauseTiming();
    Zol::ActivityLoop loop(Zol::ActivityLoop::TimeMode::real);
    auto bed = std::make_unique<Bed>(loop, /*startNow=*/false);
    bed->cd->lagToPortIs(mlagIntf, Vemo::VemoLagPortList());
    bed->mlag->intfStatusIs(
        mlagIntf, Mlag::IntfStatus(Mlag::IntfState::intfStateUp, Mlag::IntfState::intfStateUp));
    for (auto const& key : keys) {
      bed->mlagHosts->hostEntryIs(
          key, Mlag::HostEntry(mlagIntf, Bridging::EntryType::learnedDynamicMac, 0, 1.0,
                               Nepo::IpAddr()));
    }
    bed->start();
    loop.runUntilIdle();
    BenchMacHelper& helper = *bed->helper;
    helper.stampWrites = true;
    state.ResumeTiming();
    auto const begin = Clock::now();
    bed->mlag->peerLinkIntfIs(ethernet(48));
    bed->mlag->stateIs(Mlag::State::statePrimary);
    for (;;) {
      bool const walking = bed->sm->mlagHostTableBookmark().has_value();
      helper.passWrites = 0;
      auto const start = Clock::now();
      bool const ran = loop.runOnePass();
      auto const end = Clock::now();
      if (!ran) {
        // Idle, unless a timer (the flush of the peer link's learns) is about to fire.
        if (loop.nextDeadline() - loop.now() > 1.0) break;
        continue;
      }
      double const drain = helper.passWrites ? ms(helper.lastWrite - helper.firstWrite) : 0;
      if (helper.passWrites && helper.adds == helper.passWrites) {
        firstWrite = ms(helper.firstWrite - begin);
      }
      if (walking || bed->sm->mlagHostTableBookmark()) {
        walkMax = std::max(walkMax, ms(end - start) - drain);
        drainMax = std::max(drainMax, drain);
        if (!bed->sm->mlagHostTableBookmark()) walkDone = ms(end - begin);
      } else {
        drainMax = std::max(drainMax, ms(end - start));
      }
    }
    total = ms(Clock::now() - begin);
    state.PauseTiming();
    size_t peerEntries = 0;
    for (auto const& [fid, s] : bed->status->fdbStatusAll()) {
      for (auto const& [mac, host] : s->learnedHostAll()) {
        peerEntries +=
            host.entryType() == Bridging::EntryType::peerDynamicMac && host.intf() == mlagIntf;
      }
    }
    if (peerEntries != kPeerHosts || helper.adds != kPeerHosts || bed->sm->updateListSize() != 0) {
      state.SkipWithError("peer hosts not all programmed");
      break;
    }
    bed.reset();
    state.ResumeTiming();
  }
  state.counters["walk_max_ms"] = walkMax;
  state.counters["drain_max_ms"] = drainMax;
  state.counters["first_write_ms"] = firstWrite;
  state.counters["walk_done_ms"] = walkDone;
  state.counters["total_ms"] = total;
}

}  // namespace

BENCHMARK(macLearn)->Name("mac.learn_256k")->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(macLearnFloor)->Name("mac.learn_256k/floor")->Unit(benchmark::kMillisecond);
BENCHMARK(macRemoteLearn)
    ->Name("mac.remote_learn_256k")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
BENCHMARK(macLearnFloor)->Name("mac.remote_learn_256k/floor")->Unit(benchmark::kMillisecond);
BENCHMARK(macSliceMax)->Name("mac.slice_max")->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(macFlushVlan)->Name("mac.flush_vlan_256k")->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(macFlushVlanFloor)->Name("mac.flush_vlan_256k/floor")->Unit(benchmark::kMillisecond);
BENCHMARK(macMlagSync)->Name("mac.mlag_sync_1m")->Unit(benchmark::kMillisecond)->Iterations(1);
