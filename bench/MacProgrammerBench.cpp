// The MAC programmer: a million address commands over 250,000 keys through the queue to a chip
// that takes each write at once, against the bare queue and map work of the same commands; and
// the longest pass of the programmer's loop while it drains them.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <vector>

#include "Vemo/VemoMacProgrammer.h"

namespace {

using Cmd = Vemo::IndirectAccessMacCmd;
using CmdPtr = Zol::Ptr<Cmd>;

constexpr uint32_t kCommands = 1'000'000;
constexpr uint32_t kKeys = 250'000;

std::vector<Vemo::MacEntryKey> const& keys() {
  static std::vector<Vemo::MacEntryKey> const k = [] {
    std::vector<Vemo::MacEntryKey> v;
    v.reserve(kKeys);
    for (uint32_t i = 0; i < kKeys; ++i) {
      char mac[18];
      std::snprintf(mac, sizeof mac, "02:00:00:%02x:%02x:%02x", i >> 16 & 0xff, i >> 8 & 0xff,
                    i & 0xff);
      v.emplace_back(
          Bridging::MacVlanPair(Nepo::EthAddr::fromString(mac), Bridging::VlanId(10 + i % 16)),
          Vemo::MacHwType::macHwKeyBridge);
    }
    return v;
  }();
  return k;
}

// Every key four times, adds and removes in turn, in a shuffled order.
std::vector<CmdPtr> commands() {
  std::vector<CmdPtr> v;
  v.reserve(kCommands);
  Nepo::IntfId const port(Nepo::IntfKind::Ethernet, {1});
  for (uint32_t i = 0; i < kCommands; ++i) {
    auto const& key = keys()[(i * 7919u) % kKeys];
    v.push_back(Zol::make<Cmd>(i % 2 ? Vemo::IndirectAccessMacCmdType::removeHost
                                     : Vemo::IndirectAccessMacCmdType::addHost,
                               key, port, Bridging::EntryType::configuredStaticMac, true));
  }
  return v;
}

class InstantChip : public Vemo::VemoMacProgrammer {
 public:
  using VemoMacProgrammer::VemoMacProgrammer;
  uint64_t written = 0;

 protected:
  Vemo::MacProgramStatus writeToHw(Cmd&) override {
    ++written;
    return Vemo::MacProgramStatus::macProgramSuccess;
  }
};

void commandsThroughProgrammer(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<CmdPtr> cmds = commands();
    Zol::ActivityLoop loop(Zol::ActivityLoop::TimeMode::simulated);
    Tolm::TimerWheel wheel(loop);
    InstantChip chip(wheel);
    state.ResumeTiming();
    for (CmdPtr const& c : cmds) chip.handleAddrOp(c);
    loop.runUntilIdle();
    state.PauseTiming();
    if (chip.pendingSize() != 0 || chip.written == 0) state.SkipWithError("commands left");
    cmds.clear();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kCommands);
}

void commandsThroughDeque(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<CmdPtr> cmds = commands();
    state.ResumeTiming();
    std::deque<CmdPtr> queue;
    absl::flat_hash_map<Vemo::MacEntryKey, CmdPtr> byKey;
    for (CmdPtr const& c : cmds) {
      byKey.insert_or_assign(c->key(), c);
      queue.push_back(c);
    }
    while (!queue.empty()) {
      CmdPtr const c = std::move(queue.front());
      queue.pop_front();
      auto const it = byKey.find(c->key());
      if (it != byKey.end() && it->second == c) byKey.erase(it);
    }
    benchmark::DoNotOptimize(byKey.size());
    state.PauseTiming();
    cmds.clear();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kCommands);
}

// Real time: the passes cut themselves at their 10 ms budget.
void longestPass(benchmark::State& state) {
  double longest = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<CmdPtr> cmds = commands();
    Zol::ActivityLoop loop(Zol::ActivityLoop::TimeMode::real);
    Tolm::TimerWheel wheel(loop);
    InstantChip chip(wheel);
    for (CmdPtr const& c : cmds) chip.handleAddrOp(c);
    state.ResumeTiming();
    while (chip.pendingSize() > 0) {
      auto const start = std::chrono::steady_clock::now();
      loop.runOnePass();
      longest = std::max(longest, std::chrono::duration<double, std::milli>(
                                      std::chrono::steady_clock::now() - start)
                                      .count());
    }
    state.PauseTiming();
    cmds.clear();
    state.ResumeTiming();
  }
  state.counters["pass_max_ms"] = longest;
}

}  // namespace

BENCHMARK(commandsThroughProgrammer)
    ->Name("macprog.commands_1m")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
BENCHMARK(commandsThroughDeque)
    ->Name("macprog.commands_1m/floor")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
BENCHMARK(longestPass)->Name("macprog.pass_max")->Unit(benchmark::kMillisecond)->Iterations(1);
