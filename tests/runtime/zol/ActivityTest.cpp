#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Zol/Activity.h"
#include "ZolGen/ZolTest.h"

using testing::ElementsAre;
using testing::IsEmpty;
using Zol::ActivityLoop;
using Zol::Clock;
using At = std::pair<std::string, Zol::Seconds>;
using Fired = std::vector<At>;

namespace {

// A clock that logs its name and the time it fired at.
std::unique_ptr<Clock> clockLogging(ActivityLoop& loop, Fired& fired, std::string name) {
  return std::make_unique<Clock>(loop,
                                 [&loop, &fired, name] { fired.emplace_back(name, loop.now()); });
}

}  // namespace

TEST(Clock, FiresInDeadlineThenArmingOrderNeverEarly) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated, 100);
  Fired fired;
  auto a = clockLogging(loop, fired, "a");
  auto b = clockLogging(loop, fired, "b");
  auto c = clockLogging(loop, fired, "c");
  a->timeMinIs(105);
  b->timeMinIs(103);
  c->timeMinIs(105);
  loop.advanceTo(102.999);
  EXPECT_THAT(fired, IsEmpty());
  loop.advanceTo(105);
  EXPECT_THAT(fired, ElementsAre(At{"b", 103}, At{"a", 105}, At{"c", 105}));
  EXPECT_FALSE(a->armed());
  fired.clear();

  // Re-arming replaces the deadline and goes behind the timers already armed for the new one.
  a->timeMinIs(110);
  b->timeMinIs(120);
  c->timeMinIs(120);
  a->timeMinIs(120);
  EXPECT_EQ(loop.armedTimers(), 3u);
  loop.advanceTo(119);
  EXPECT_THAT(fired, IsEmpty());

  // Destroying a clock disarms it, also from the handler of one due at the same time.
  b->handlerIs([&] {
    fired.emplace_back("b", loop.now());
    c.reset();
  });
  loop.advanceTo(130);
  EXPECT_THAT(fired, ElementsAre(At{"b", 120}, At{"a", 120}));
  a->timeMinIs(140);
  a.reset();
  EXPECT_EQ(loop.armedTimers(), 0u);

  // Armed in this order, disarming 6 moves the last timer (2) into a place it must rise from.
  fired.clear();
  std::vector<std::unique_ptr<Clock>> clocks;
  for (int t : {6, 5, 7, 4, 1, 3, 2}) {
    clocks.push_back(clockLogging(loop, fired, std::to_string(t)));
    clocks.back()->timeMinIs(loop.now() + t);
  }
  clocks[0]->timeMinIs(Clock::never);
  loop.advanceBy(10);
  std::vector<std::string> order;
  for (auto const& [name, at] : fired) order.push_back(name);
  EXPECT_THAT(order, ElementsAre("1", "2", "3", "4", "5", "7"));
}

TEST(Clock, ReArmedForNowFromItsOwnHandlerFiresInTheNextPass) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated, 5);
  int count = 0;
  Clock self(loop);
  self.handlerIs([&] {
    EXPECT_FALSE(self.armed());
    if (++count < 3) self.timeMinIs(loop.now());
  });
  self.timeMinIs(5);
  for (int pass = 1; pass <= 3; ++pass) {
    EXPECT_TRUE(loop.runOnePass());
    EXPECT_EQ(count, pass);
  }
  EXPECT_FALSE(loop.runOnePass());
  EXPECT_EQ(loop.now(), 5);
}

namespace {

class NextMismatchTimes : public ZolTest::Board::NotifieeConst {
 public:
  explicit NextMismatchTimes(Zol::Ptr<ZolTest::Board const> const& n) { notifierIs(n); }
  void onNextMismatch() override {
    times.push_back(Zol::ActivityLoop::current().now());
    if (auto f = then) f();
  }
  std::vector<Zol::Seconds> times;
  std::function<void()> then;
};

}  // namespace

TEST(ActivityLoop, AdvanceToFiresEveryDeadlineOnTheWayAtItsTime) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated);
  Fired fired;
  auto e = Zol::make<ZolTest::Board>("v");
  NextMismatchTimes r(e);
  auto at1 = clockLogging(loop, fired, "at1");
  auto at4 = clockLogging(loop, fired, "at4");
  auto at12 = clockLogging(loop, fired, "at12");
  auto chained = clockLogging(loop, fired, "chained");
  auto writer = clockLogging(loop, fired, "writer");
  auto reply = clockLogging(loop, fired, "reply");
  at1->handlerIs([&] {
    fired.emplace_back("at1", loop.now());
    chained->timeMinIs(loop.now() + 0.5);
  });
  writer->handlerIs([&] {
    fired.emplace_back("writer", loop.now());
    e->nextMismatchIs(e->nextMismatch() + 1);
  });
  at1->timeMinIs(1);
  at4->timeMinIs(4);
  at12->timeMinIs(12);
  writer->timeMinIs(2.5);

  // Work pending before time moves runs at the time it was written.
  r.then = [&] {
    if (e->nextMismatch() == 1) reply->timeMinIs(loop.now() + 0.25);
  };
  e->nextMismatchIs(1);

  loop.advanceTo(10);
  EXPECT_EQ(loop.now(), 10);
  EXPECT_THAT(r.times, ElementsAre(0, 2.5));
  EXPECT_THAT(fired, ElementsAre(At{"reply", 0.25}, At{"at1", 1}, At{"chained", 1.5},
                                 At{"writer", 2.5}, At{"at4", 4}));
  loop.advanceTo(3);  // never backwards
  EXPECT_EQ(loop.now(), 10);

  // run() jumps from deadline to deadline and returns when nothing is left to wait for.
  fired.clear();
  at4->timeMinIs(20);
  loop.run();
  EXPECT_THAT(fired, ElementsAre(At{"at12", 12}, At{"at4", 20}));
  EXPECT_EQ(loop.now(), 20);
}
