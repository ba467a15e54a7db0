// The object framework's write and notification costs, each against the bare operation under it.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "Nepo/IntfId.h"
#include "Vemo/VemoCommon.h"

namespace {

constexpr int kKeys = 1'000'000;

std::vector<Nepo::IntfId> const& keys() {
  static std::vector<Nepo::IntfId> const k = [] {
    std::vector<Nepo::IntfId> v;
    v.reserve(kKeys);
    for (uint32_t i = 1; i <= kKeys; ++i)
      v.emplace_back(Nepo::IntfKind::Ethernet, std::initializer_list<uint32_t>{i});
    return v;
  }();
  return k;
}

// The floor: the same inserts into a bare absl::flat_hash_map.
void collectionWriteFloor(benchmark::State& state) {
  auto const& ks = keys();
  for (auto _ : state) {
    auto m = std::make_unique<absl::flat_hash_map<Nepo::IntfId, bool>>();
    for (auto const& k : ks) m->insert_or_assign(k, true);
    benchmark::DoNotOptimize(m->size());
    state.PauseTiming();
    m.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kKeys);
}

void collectionWriteNoReactor(benchmark::State& state) {
  Zol::ActivityLoop loop(Zol::ActivityLoop::TimeMode::simulated);
  auto const& ks = keys();
  for (auto _ : state) {
    Zol::Ptr<Vemo::VemoCommonSmData> data = Vemo::vemoCommonSmDataFactory("bench");
    for (auto const& k : ks) data->intfIs(k, true);
    benchmark::DoNotOptimize(data->intfSize());
    state.PauseTiming();
    data = nullptr;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kKeys);
}

struct IntfCounter : Vemo::VemoCommonSmData::NotifieeConst {
  size_t seen = 0;
  void onIntf(Nepo::IntfId const&) override { ++seen; }
};

void collectionWriteDeferredReactor(benchmark::State& state) {
  Zol::ActivityLoop loop(Zol::ActivityLoop::TimeMode::simulated);
  auto const& ks = keys();
  for (auto _ : state) {
    Zol::Ptr<Vemo::VemoCommonSmData> data = Vemo::vemoCommonSmDataFactory("bench");
    IntfCounter counter;
    counter.notifierIs(data);
    for (auto const& k : ks) data->intfIs(k, true);
    loop.runUntilIdle();
    if (counter.seen != static_cast<size_t>(kKeys)) state.SkipWithError("notifications lost");
    state.PauseTiming();
    counter.notifierIs(nullptr);
    data = nullptr;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kKeys);
}

// The floor of an immediate notification: a store and a plain virtual call.
struct Handler {
  virtual ~Handler() = default;
  virtual void changed() = 0;
};
struct CountingHandler : Handler {
  size_t seen = 0;
  void changed() override { ++seen; }
};
struct PlainOwner {
  uint16_t value = 0;
  Handler* handler = nullptr;
  [[gnu::noinline]] void valueIs(uint16_t v) {
    if (v == value) return;
    value = v;
    handler->changed();
  }
};

void immediateNotificationFloor(benchmark::State& state) {
  CountingHandler h;
  PlainOwner o;
  o.handler = &h;
  uint16_t v = 0;
  for (auto _ : state) o.valueIs(++v);
  benchmark::DoNotOptimize(h.seen);
}

struct MinIntfsImmediate : Vemo::VemoCommonSmData::NotifieeConst {
  size_t seen = 0;
  void onMinIntfszolImmediate() override { ++seen; }
};

void immediateNotification(benchmark::State& state) {
  Zol::ActivityLoop loop(Zol::ActivityLoop::TimeMode::simulated);
  Zol::Ptr<Vemo::VemoCommonSmData> data = Vemo::vemoCommonSmDataFactory("bench");
  MinIntfsImmediate r;
  r.notifierIs(data);
  data->minIntfsIs(1);  // learns which attributes the reactor handles
  loop.runUntilIdle();
  uint16_t v = 1;
  for (auto _ : state) data->minIntfsIs(++v);
  benchmark::DoNotOptimize(r.seen);
  r.notifierIs(nullptr);
}

}  // namespace

BENCHMARK(collectionWriteFloor)
    ->Name("zol.collection_write_no_reactor/floor")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5);
BENCHMARK(collectionWriteNoReactor)
    ->Name("zol.collection_write_no_reactor")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5);
BENCHMARK(collectionWriteFloor)
    ->Name("zol.collection_write_deferred_reactor/floor")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5);
BENCHMARK(collectionWriteDeferredReactor)
    ->Name("zol.collection_write_deferred_reactor")
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5);
BENCHMARK(immediateNotificationFloor)->Name("zol.immediate_notification/floor");
BENCHMARK(immediateNotification)->Name("zol.immediate_notification");
