#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "Zol/Activity.h"
#include "Zol/Entity.h"
#include "ZolGen/ZolTest.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using Zol::ActivityLoop;
using ZolTest::Board;
using Log = std::vector<std::string>;

namespace {

// Logs every deferred notification as "<tag>attr:key"; `then` adds behaviour per test and may
// destroy the reactor.
class Recorder : public Board::NotifieeConst {
 public:
  Recorder(Zol::Ptr<Board const> const& n, Log& log, std::string tag = "")
      : log_(log), tag_(std::move(tag)) {
    notifierIs(n);
  }
  std::function<void(std::string const&)> then;

  void onVerify(Zol::String const& k) override { note("verify:" + k); }
  void onCompleted(Zol::String const& k) override { note("completed:" + k); }
  void onMismatch(Zol::U32 k) override { note("mismatch:" + std::to_string(k)); }
  void onNextMismatch() override { note("nextMismatch"); }
  void onCurrentRequest() override { note("currentRequest"); }

 private:
  void note(std::string const& what) {
    log_.push_back(tag_ + what);
    if (auto f = then) f(what);
  }
  Log& log_;
  std::string tag_;
};

class NotificationTest : public testing::Test {
 protected:
  // Runs the loop dry and returns what the recorders logged meanwhile.
  Log delivered() {
    loop.runUntilIdle();
    return std::exchange(log, {});
  }
  ActivityLoop loop{ActivityLoop::TimeMode::simulated};
  Zol::Ptr<Board> e = Zol::make<Board>("v");
  Log log;
};

// Handles two attributes of Wide: every other one reaches the generated default handler.
class WideLog : public ZolTest::Wide::NotifieeConst {
 public:
  explicit WideLog(Zol::Ptr<ZolTest::Wide const> const& n) { notifierIs(n); }
  void onResult() override { ++results; }
  void onSession(Zol::U32 k) override { sessions.push_back(k); }
  int results = 0;
  std::vector<Zol::U32> sessions;
};

}  // namespace

TEST_F(NotificationTest, SameValueWritesNotifyNobody) {
  Recorder r(e, log);
  e->currentRequestIs("");
  e->verifyDel("absent");
  EXPECT_FALSE(loop.hasPendingNotifications());

  ZolTest::Note const m("r1", "sm", "text");
  for (int i = 0; i < 2; ++i) {
    e->nextMismatchIs(4);
    e->currentRequestIs("r1");
    e->verifyIs("a", 1);
    e->mismatchIs(2, m);
    loop.runUntilIdle();
  }
  EXPECT_THAT(delivered(), ElementsAre("nextMismatch", "currentRequest", "verify:a", "mismatch:2"));
  e->verifyIs("a", 0);  // the default value, but a change all the same
  EXPECT_THAT(delivered(), ElementsAre("verify:a"));

  // Floating point compares bitwise, in attributes and inside value types.
  double const nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_TRUE(Zol::sameValue(nan, nan));
  EXPECT_FALSE(Zol::sameValue(0.0, -0.0));
  auto h = Zol::make<ZolTest::Wide>("helper");
  WideLog w(h);
  for (int i = 0; i < 2; ++i) {
    h->resultIs(ZolTest::Result("lost", nan));
    loop.runUntilIdle();
  }
  EXPECT_EQ(w.results, 1);
}

TEST_F(NotificationTest, CoalescesAtThePositionOfTheFirstChange) {
  auto e2 = Zol::make<Board>("two");
  Recorder r1(e, log, "1.");
  Recorder r2(e2, log, "2.");
  e->verifyIs("a", 1);
  e->nextMismatchIs(1);
  e2->verifyIs("a", 1);
  e->verifyIs("b", 1);
  e->completedIs("a", 1);
  e->verifyIs("a", 2);
  e->nextMismatchIs(2);
  e->verifyDel("b");
  e->verifyIs("b", 3);
  e->currentRequestIs("x");
  e2->verifyIs("a", 2);
  e->verifyIs("a", 3);
  EXPECT_THAT(delivered(), ElementsAre("1.verify:a", "1.nextMismatch", "2.verify:a", "1.verify:b",
                                       "1.completed:a", "1.currentRequest"));

  // Once delivered, the same key queues afresh, behind what was written since.
  e->verifyIs("b", 4);
  e->verifyIs("a", 4);
  e->verifyIs("b", 5);
  EXPECT_THAT(delivered(), ElementsAre("1.verify:b", "1.verify:a"));
}

TEST_F(NotificationTest, NewKeysCoalesceWithWhatFollowsThemEvenMidDelivery) {
  // New keys are queued without a lookup; the first change of another kind must still find them.
  Recorder r(e, log);
  r.then = [&](std::string const& what) {
    if (what != "verify:a") return;
    e->verifyIs("c", 2);  // c's first record is still pending: nothing new
    e->verifyIs("a", 2);  // a's was taken for this call: queued again
    e->verifyIs("d", 1);  // new
  };
  e->verifyIs("a", 1);
  e->verifyIs("b", 1);
  e->verifyIs("c", 1);
  EXPECT_THAT(delivered(), ElementsAre("verify:a", "verify:b", "verify:c", "verify:a", "verify:d"));

  // Deleted and created again in one pass: one notification.
  e->verifyIs("x", 1);
  e->verifyDel("x");
  e->verifyIs("x", 2);
  e->verifyIs("y", 1);
  EXPECT_THAT(delivered(), ElementsAre("verify:x", "verify:y"));

  // After a burst larger than the records kept between bursts, the next burst still coalesces.
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 1000; ++i) e->verifyIs("k" + std::to_string(i), round);
    for (int i = 0; i < 1000; i += 2) e->verifyIs("k" + std::to_string(i), 10 + round);
    Log const got = delivered();
    ASSERT_EQ(got.size(), 1000u);
    EXPECT_EQ(got.front(), "verify:k0");
    EXPECT_EQ(got.back(), "verify:k999");
  }
}

TEST_F(NotificationTest, HandlerWritesGoToALaterPassAndDueTimersRunBetween) {
  Recorder r(e, log);
  std::vector<Zol::U32> seen;
  bool inHandler = false;
  r.then = [&](std::string const& what) {
    if (what != "nextMismatch") return;
    EXPECT_FALSE(inHandler) << "delivered recursively";
    inHandler = true;
    seen.push_back(e->nextMismatch());
    if (e->nextMismatch() < 3) {
      e->nextMismatchIs(e->nextMismatch() + 1);
      e->verifyIs("pass" + std::to_string(e->nextMismatch()), 1);
    }
    inHandler = false;
  };
  Zol::Clock timer(loop, [&] { log.push_back("timer"); });
  timer.timeMinIs(0);
  e->nextMismatchIs(1);
  EXPECT_TRUE(loop.runOnePass());
  EXPECT_THAT(seen, ElementsAre(1u));
  EXPECT_TRUE(loop.runOnePass());
  EXPECT_THAT(seen, ElementsAre(1u, 2u));
  EXPECT_TRUE(loop.runOnePass());
  EXPECT_FALSE(loop.runOnePass());
  EXPECT_THAT(seen, ElementsAre(1u, 2u, 3u));
  EXPECT_THAT(delivered(), ElementsAre("nextMismatch", "timer", "nextMismatch", "verify:pass2",
                                       "nextMismatch", "verify:pass3"));

  // A writer that only stops once a timer has run: time moves a little on every read.
  bool fired = false;
  timer.handlerIs([&] { fired = true; });
  timer.timeMinIs(loop.now() + 1);
  r.then = [&](std::string const&) {
    if (!fired && e->nextMismatch() < 1000) e->nextMismatchIs(e->nextMismatch() + 1);
  };
  loop.autoAdvanceIs(0.125);
  e->nextMismatchIs(0);
  loop.runUntilIdle();
  EXPECT_TRUE(fired);
  EXPECT_LT(e->nextMismatch(), 20u);
}

TEST_F(NotificationTest, ReactorsAndEntitiesMayGoOrComeDuringDelivery) {
  // Deleted with notifications pending: nothing of them arrives, even later in the same pass.
  auto first = std::make_unique<Recorder>(e, log, "first.");
  auto second = std::make_unique<Recorder>(e, log, "second.");
  first->then = [&](std::string const&) { second.reset(); };
  e->verifyIs("a", 1);
  e->verifyIs("b", 1);
  EXPECT_THAT(delivered(), ElementsAre("first.verify:a", "first.verify:b"));

  // A handler destroys its own reactor; the reactors after it still hear of the change.
  auto after = std::make_unique<Recorder>(e, log, "after.");
  first->then = [&](std::string const&) { first.reset(); };
  e->verifyIs("a", 2);
  e->verifyIs("b", 2);
  EXPECT_THAT(delivered(), ElementsAre("first.verify:a", "after.verify:a", "after.verify:b"));

  // A reactor made during delivery hears of later changes only.
  std::unique_ptr<Recorder> late;
  after->then = [&](std::string const&) {
    if (!late) late = std::make_unique<Recorder>(e, log, "late.");
  };
  e->verifyIs("a", 3);
  loop.runUntilIdle();
  e->verifyIs("a", 4);
  EXPECT_THAT(delivered(), ElementsAre("after.verify:a", "after.verify:a", "late.verify:a"));

  // Re-pointed with notifications pending: the old notifier's are not received. Switched off,
  // a reactor hears nothing.
  auto other = Zol::make<Board>("other");
  after->then = nullptr;
  late.reset();
  e->verifyIs("a", 5);
  after->notifierIs(other);
  EXPECT_THAT(delivered(), IsEmpty());
  after->hasNotificationActiveIs(false);
  other->verifyIs("z", 1);
  EXPECT_THAT(delivered(), IsEmpty());
  after->hasNotificationActiveIs(true);

  // The last reference to an entity goes in a handler, with its notifications queued.
  after->then = [&](std::string const&) {
    first.reset();
    e = nullptr;
  };
  first = std::make_unique<Recorder>(e, log, "first.");
  other->verifyIs("z", 2);
  e->verifyIs("a", 6);
  e->nextMismatchIs(1);
  other->verifyIs("y", 1);
  EXPECT_THAT(delivered(), ElementsAre("after.verify:z", "after.verify:y"));
  EXPECT_EQ(e, nullptr);
}

namespace {

class TrackedPorts : public ZolTest::Ports {
 public:
  TrackedPorts(Zol::Name const& name, bool& destroyed)
      : ZolTest::Ports(name), destroyed_(destroyed) {}
  ~TrackedPorts() override { destroyed_ = true; }

 private:
  bool& destroyed_;
};

class ImmediatePorts : public ZolTest::Ports::NotifieeConst {
 public:
  explicit ImmediatePorts(Zol::Ptr<ZolTest::Ports const> const& n) { notifierIs(n); }
  void onPortszolImmediate(Zol::String const& k) override {
    ZolTest::Ports const& p = *notifier();
    seen.push_back(k + (p.portsHas(k) ? (p.ports(k) ? "=up" : "=down") : "=gone"));
    if (auto f = then) f();
  }
  void onPorts(Zol::String const& k) override { deferred.push_back(k); }
  std::vector<std::string> seen;
  std::vector<std::string> deferred;
  std::function<void()> then;
};

}  // namespace

TEST_F(NotificationTest, ImmediateHandlersRunInsideTheWriteAfterTheStore) {
  auto p = Zol::make<ZolTest::Ports>("ports");
  ImmediatePorts r(p);
  p->portsIs("Ethernet1", true);
  EXPECT_THAT(r.seen, ElementsAre("Ethernet1=up"));
  p->portsIs("Ethernet1", false);
  p->portsIs("Ethernet1", false);
  p->portsDel("Ethernet1");
  p->portsNotify("Ethernet2");
  EXPECT_THAT(r.seen,
              ElementsAre("Ethernet1=up", "Ethernet1=down", "Ethernet1=gone", "Ethernet2=gone"));
  EXPECT_THAT(r.deferred, IsEmpty());
  loop.runUntilIdle();
  EXPECT_THAT(r.deferred, ElementsAre("Ethernet1", "Ethernet2"));

  // The entity outlives the write even when the handler drops its last reference.
  bool destroyed = false;
  ZolTest::Ports* raw = new TrackedPorts("tracked", destroyed);
  ImmediatePorts last{Zol::Ptr<ZolTest::Ports const>(raw)};
  last.then = [&] {
    last.notifierIs(nullptr);
    EXPECT_FALSE(destroyed);
    EXPECT_EQ(raw->name(), "tracked");
  };
  raw->portsIs("Ethernet3", true);
  EXPECT_TRUE(destroyed);
  loop.runUntilIdle();
  EXPECT_THAT(last.deferred, IsEmpty());
}

namespace {

// Handles one attribute: every other one reaches the generated default handler.
class VerifyOnly : public Board::NotifieeConst {
 public:
  explicit VerifyOnly(Zol::Ptr<Board const> const& n) { notifierIs(n); }
  void onVerify(Zol::String const&) override { ++calls; }
  int calls = 0;
};

}  // namespace

TEST_F(NotificationTest, ReactorsStopBeingChargedForAttributesTheyDoNotHandle) {
  uint64_t const all = (uint64_t{1} << Board::kAttrCount) - 1;
  uint64_t const completed = uint64_t{1} << Board::kCompleted;
  VerifyOnly r(e);
  EXPECT_EQ(e->zolDeferredMask(), all);
  e->completedIs("a", 1);
  EXPECT_EQ(e->zolImmediateMask(), all & ~completed);  // learned inside the write
  EXPECT_EQ(e->zolDeferredMask(), all);
  loop.runUntilIdle();
  EXPECT_EQ(e->zolDeferredMask(), all & ~completed);
  e->completedIs("a", 2);
  EXPECT_FALSE(loop.hasPendingNotifications());
  e->verifyIs("a", 1);
  loop.runUntilIdle();
  EXPECT_EQ(r.calls, 1);

  // Another reactor that handles the attribute brings the bit back while it is registered.
  {
    Recorder other(e, log);
    EXPECT_EQ(e->zolDeferredMask(), all);
    e->completedIs("a", 3);
    EXPECT_THAT(delivered(), ElementsAre("completed:a"));
  }
  EXPECT_EQ(e->zolDeferredMask(), all & ~completed);

  // Attributes numbered past 32 are delivered and learned alike.
  static_assert(ZolTest::Wide::kSession > 32);
  auto wide = Zol::make<ZolTest::Wide>("wide");
  WideLog w(wide);
  wide->sessionIs(7, 1);
  wide->flagIs(true);
  wide->sessionIs(3, 2);
  loop.runUntilIdle();
  EXPECT_THAT(w.sessions, ElementsAre(7u, 3u));
  uint64_t const session = uint64_t{1} << ZolTest::Wide::kSession;
  uint64_t const flag = uint64_t{1} << ZolTest::Wide::kFlag;
  EXPECT_EQ(wide->zolDeferredMask() & (session | flag), session);
}

TEST_F(NotificationTest, DelAllNotifiesOncePerKeyAndNotifyNeedsNoChange) {
  Recorder r(e, log);
  for (Zol::U32 k : {5u, 1u, 3u}) e->mismatchIs(k, ZolTest::Note("r", "sm", "t"));
  for (char const* k : {"x", "y", "z"}) e->verifyIs(k, 1);
  delivered();

  e->mismatchDelAll();
  e->verifyDelAll();
  e->completedDelAll();
  EXPECT_EQ(e->mismatchSize() + e->verifySize(), 0u);
  Log const got = delivered();
  ASSERT_EQ(got.size(), 6u);
  EXPECT_THAT(Log(got.begin(), got.begin() + 3),
              ElementsAre("mismatch:1", "mismatch:3", "mismatch:5"));
  EXPECT_THAT(Log(got.begin() + 3, got.end()),
              UnorderedElementsAre("verify:x", "verify:y", "verify:z"));

  e->verifyNotify("absent");
  e->nextMismatchNotify();
  e->currentRequestIs("r");
  e->currentRequestNotify();  // coalesces with the write
  EXPECT_THAT(delivered(), ElementsAre("verify:absent", "nextMismatch", "currentRequest"));
  EXPECT_FALSE(e->verifyHas("absent"));
}

TEST(Notification, PendingNotificationsDroppedWithTheirLoopDoNotBlockLaterOnes) {
  auto e = Zol::make<Board>("v");
  Log log;
  Recorder r(e, log);
  {
    ActivityLoop first(ActivityLoop::TimeMode::simulated);
    e->verifyIs("a", 1);
    e->nextMismatchIs(1);
  }
  ActivityLoop second(ActivityLoop::TimeMode::simulated);
  e->verifyIs("a", 2);
  e->nextMismatchIs(2);
  second.runUntilIdle();
  EXPECT_THAT(log, ElementsAre("verify:a", "nextMismatch"));
}
