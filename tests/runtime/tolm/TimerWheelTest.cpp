#include "Tolm/TimerWheel.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Tolm::TimerWheel;
using Zol::ActivityLoop;
using Zol::Seconds;
using Timer = TimerWheel::Timer;
using Fired = std::vector<std::pair<std::string, Seconds>>;

// Records the name and the loop's time of each firing.
TimerWheel::Handler rec(Fired& log, std::string name) {
  return [&log, name] { log.emplace_back(name, ActivityLoop::current().now()); };
}

// Deadline order, re-arming and disarming are the random test's; this is the loop's side.
TEST(TimerWheel, LastDisarmReleasesTheLoopsClockAndTimersMayOutliveTheWheel) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated);
  // Disarming the last timer releases the loop's clock; timers may outlive the wheel.
  auto other = std::make_unique<TimerWheel>(loop, 0.25);
  Timer x(*other), y(*other);
  x.timeMinIs(11);
  y.timeMinIs(5000);
  x.timeMinIs(TimerWheel::never);
  EXPECT_EQ(loop.armedTimers(), 1u);
  y.timeMinIs(TimerWheel::never);
  EXPECT_EQ(loop.armedTimers(), 0u);
  x.timeMinIs(10);
  y.timeMinIs(70);
  other.reset();
  EXPECT_FALSE(x.armed() || y.armed());
}

TEST(TimerWheel, HandlersArmDisarmCreateAndDestroy) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated, 5);
  TimerWheel wheel(loop);
  // Armed for now (or earlier) from a handler: the next pass, never a spin.
  int selfCount = 0, otherCount = 0;
  Timer other(wheel, [&] { ++otherCount; });
  Timer self(wheel);
  self.handlerIs([&] {
    if (++selfCount > 5) return;  // bounded, so a spin shows as a count
    self.timeMinIs(loop.now());
    other.timeMinIs(loop.now() - 1);
  });
  self.timeMinIs(5);
  EXPECT_TRUE(loop.runOnePass());
  EXPECT_EQ(selfCount, 1);
  EXPECT_EQ(otherCount, 0);
  EXPECT_TRUE(loop.runOnePass());
  EXPECT_EQ(selfCount, 2);
  EXPECT_EQ(otherCount, 1);
  self.timeMinIs(TimerWheel::never);

  Fired log;
  auto victim = std::make_unique<Timer>(wheel, rec(log, "victim"));
  auto suicidal = std::make_unique<Timer>(wheel);
  std::unique_ptr<Timer> child;
  suicidal->handlerIs([&] {
    log.emplace_back("suicidal", loop.now());
    victim.reset();  // due at the same time: must not fire
    child = std::make_unique<Timer>(wheel, rec(log, "child"));
    child->timeMinIs(loop.now() + 100);
    suicidal.reset();
  });
  Timer survivor(wheel, rec(log, "survivor"));
  suicidal->timeMinIs(6);
  victim->timeMinIs(6);
  survivor.timeMinIs(6);
  loop.advanceTo(200);
  EXPECT_EQ(log, (Fired{{"suicidal", 6}, {"survivor", 6}, {"child", 106}}));
  EXPECT_EQ(wheel.armedTimers(), 0u);
}

TEST(TimerWheel, FarDeadlinesAndOtherClocks) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated, 1000);
  TimerWheel wheel(loop, 0.01);
  Fired log;
  // From inside one slot to far beyond one revolution of every level but the last.
  std::vector<Seconds> const offsets = {0.001, 0.64,  0.65, 40.95, 40.96, 41,   2621.44,
                                        3600,  86400, 1e6,  3e7,   4.4e9, 1e12, 1e15};
  std::vector<std::unique_ptr<Timer>> timers;
  Fired expected;
  for (size_t i = offsets.size(); i-- > 0;) {
    timers.push_back(std::make_unique<Timer>(wheel, rec(log, std::to_string(i))));
    timers.back()->timeMinIs(1000 + offsets[i]);
    expected.insert(expected.begin(), {std::to_string(i), 1000 + offsets[i]});
  }
  Timer huge(wheel, rec(log, "huge"));
  huge.timeMinIs(1e300);
  loop.advanceTo(1000 + 5e6);
  loop.advanceTo(1e301);
  expected.emplace_back("huge", 1e300);
  EXPECT_EQ(log, expected);

  // Late timers (armed in the past) keep deadline order with the loop's plain clocks and with a
  // second wheel.
  log.clear();
  TimerWheel coarse(loop, 1.0);
  Timer w1(wheel, rec(log, "w1")), w4(wheel, rec(log, "w4")), x3(coarse, rec(log, "x3"));
  Zol::Clock c2(loop, rec(log, "c2"));
  x3.timeMinIs(3);
  w4.timeMinIs(4);
  w1.timeMinIs(1);
  c2.timeMinIs(2);
  loop.runUntilIdle();
  EXPECT_EQ(log, (Fired{{"w1", 1e301}, {"c2", 1e301}, {"x3", 1e301}, {"w4", 1e301}}));
}

// Random arm, re-arm, disarm, destroy and advance, with handlers that re-arm themselves, against
// a reference that fires by (deadline, arming order).
TEST(TimerWheel, MatchesReferenceUnderRandomOperations) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated, 100);
  TimerWheel wheel(loop, 0.01);
  std::mt19937_64 rng(20240611);
  constexpr int count = 2000;
  uint64_t seq = 0;
  std::set<std::tuple<Seconds, uint64_t, int>> reference;
  std::vector<std::pair<Seconds, uint64_t>> armedRef(count, {TimerWheel::never, 0});
  std::vector<int> fireCount(count, 0);
  std::vector<std::unique_ptr<Timer>> timers(count);
  std::vector<std::pair<int, Seconds>> fired, expected;

  auto refSet = [&](int id, Seconds deadline) {
    reference.erase({armedRef[id].first, armedRef[id].second, id});
    armedRef[id] = {deadline, seq++};
    if (deadline != TimerWheel::never) reference.insert({deadline, armedRef[id].second, id});
  };
  // Some firings re-arm for now or a little later, the same way in the wheel and the reference.
  auto rearmDelay = [](int id, int n) { return (id * 7 + n * 3) % 10 < 3 ? 0.005 * (id % 3) : -1; };
  auto make = [&](int id) {
    timers[id] = std::make_unique<Timer>(wheel, [&, id] {
      fired.emplace_back(id, loop.now());
      Seconds const delay = rearmDelay(id, fireCount[id]++);
      if (delay >= 0) timers[id]->timeMinIs(loop.now() + delay);
    });
    refSet(id, TimerWheel::never);
  };
  auto delay = [&]() -> Seconds {
    int const kind = int(rng() % 10);
    if (kind < 5) return 0.005 * double(rng() % 40);  // frequent ties
    if (kind < 8) return 0.001 * double(rng() % 20000);
    return double(rng() % (kind < 9 ? 5000 : 2000000));
  };
  for (int id = 0; id < count; ++id) make(id);
  std::vector<int> counts;
  size_t total = 0;
  for (int step = 0; step < 40000; ++step) {
    int const op = int(rng() % 100), id = int(rng() % count);
    if (op < 60) {
      Seconds const deadline = op < 55 ? loop.now() + delay() : TimerWheel::never;
      timers[id]->timeMinIs(deadline);
      refSet(id, deadline);
    } else if (op < 65) {
      make(id);
    } else {
      Seconds const target =
          loop.now() + (rng() % 50 ? 0.002 * double(rng() % 100) : double(rng() % 100000));
      counts = fireCount;
      expected.clear();
      while (!reference.empty() && std::get<0>(*reference.begin()) <= target) {
        auto const [deadline, s, fid] = *reference.begin();
        expected.emplace_back(fid, deadline);
        Seconds const d = rearmDelay(fid, counts[fid]++);
        refSet(fid, d >= 0 ? deadline + d : TimerWheel::never);
      }
      fired.clear();
      loop.advanceTo(target);
      ASSERT_EQ(fired, expected) << "step " << step;
      total += fired.size();
      ASSERT_EQ(wheel.armedTimers(), reference.size()) << "step " << step;
    }
  }
  EXPECT_GT(total, 10000u);
}

}  // namespace
