#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Vemo/VemoCommon.h"

namespace {

using Vemo::AsyncOperationResult;
using Vemo::AsyncOperationState;
using Zol::ActivityLoop;

// Counts what reaches it: a reactor made while it is built, one made later by a handler, an
// immediate notification and a timer.
class GatedSm : public Vemo::VemoBaseSm {
 public:
  explicit GatedSm(Zol::Ptr<Vemo::VemoCommonSmData> const& cd)
      : VemoBaseSm(cd), clock(cd->loop(), [this] { ++fired; }) {
    common.notifierIs(cd);
  }
  void handleInitialized() override { ++passes; }

  struct Verify : Vemo::VerifyData::NotifieeConst {
    explicit Verify(GatedSm* sm) : sm(sm) {}
    void onVerify(Zol::String const&) override { ++sm->verifies; }
    GatedSm* sm;
  };
  struct Common : Vemo::VemoCommonSmData::NotifieeConst {
    explicit Common(GatedSm* sm) : sm(sm) {}
    void onOperationalMode() override {
      ++sm->modes;
      if (sm->verify) return;
      sm->verify = std::make_unique<Verify>(sm);
      sm->verify->notifierIs(notifier()->verifyData());
    }
    void onIntfzolImmediate(Nepo::IntfId const&) override { ++sm->immediates; }
    GatedSm* sm;
  };

  int passes = 0, modes = 0, verifies = 0, immediates = 0, fired = 0;
  Common common{this};
  std::unique_ptr<Verify> verify;
  Zol::Clock clock;
};

TEST(VemoBaseSm, FirstPassRunsOncePerChangeAndASwitchedOffSmGetsNothingUntilItResyncs) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated);
  auto const cd = Vemo::vemoCommonSmDataFactory("x");
  auto const sm = Zol::make<GatedSm>(cd);
  EXPECT_EQ(sm->passes, 0);
  sm->initializedIs(true);
  sm->initializedIs(true);
  EXPECT_EQ(sm->passes, 1);
  cd->operationalModeIs(Vemo::HwOperationalMode::modeTapAgg);
  loop.runUntilIdle();
  ASSERT_TRUE(sm->verify);
  int mode = 0;
  auto const change = [&] {
    cd->operationalModeIs(++mode % 2 ? Vemo::HwOperationalMode::modeNormal
                                     : Vemo::HwOperationalMode::modeTapAgg);
    cd->verifyData()->requestVerify("r");
    cd->intfIs(Nepo::IntfId::fromString("Ethernet" + std::to_string(mode)), true);
    sm->clock.timeMinIs(loop.now() + 1);
    loop.advanceBy(5);
  };
  auto const counts = [&] {
    return std::vector<int>{sm->passes, sm->modes, sm->verifies, sm->immediates, sm->fired};
  };
  change();
  EXPECT_EQ(counts(), std::vector<int>({1, 2, 1, 1, 1}));

  using Switch = std::function<void(bool)>;
  for (Switch const& turn : {Switch([&](bool on) { sm->hasNotificationActiveIs(on); }),
                             Switch([&](bool on) { sm->zolDoZombieReactors(!on); })}) {
    turn(false);
    EXPECT_FALSE(sm->hasNotificationActive());
    std::vector<int> const before = counts();
    change();
    sm->initializedIs(false);
    sm->initializedIs(true);
    EXPECT_EQ(counts(), before);
    // Back on: one resync pass (by default the first pass again); the timer that came due fires
    // in the next pass.
    turn(true);
    EXPECT_EQ(sm->passes, before[0] + 1);
    EXPECT_EQ(sm->fired, before[4]);
    loop.runUntilIdle();
    EXPECT_EQ(sm->fired, before[4] + 1);
    change();
    EXPECT_EQ(sm->modes, before[1] + 1);
    EXPECT_EQ(sm->verifies, before[2] + 1);
  }
  // A timer armed again while held waits for its new deadline only.
  sm->hasNotificationActiveIs(false);
  sm->clock.timeMinIs(loop.now() + 1);
  loop.advanceBy(2);
  sm->clock.timeMinIs(loop.now() + 10);
  sm->hasNotificationActiveIs(true);
  int const fired = sm->fired;
  loop.advanceBy(5);
  EXPECT_EQ(sm->fired, fired);
  loop.advanceBy(5);
  EXPECT_EQ(sm->fired, fired + 1);
  int const passes = sm->passes;
  sm->initializedIs(false);
  EXPECT_EQ(sm->passes, passes + 1);
}

TEST(VemoAsyncBaseHelperDeathTest, PrioritiesCountDownAndFirstResultIsStampedNow) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated, 12.5);
  auto const helper = Zol::make<Vemo::VemoAsyncBaseHelper>("h");
  EXPECT_EQ(helper->nextPriority(), 4294967294u);
  EXPECT_EQ(helper->nextPriority(), 4294967293u);
  EXPECT_EQ(helper->asyncOperationResult(), AsyncOperationResult("", 12.5));
  helper->priorityIs(1);
  EXPECT_EQ(helper->nextPriority(), 0u);
  EXPECT_DEATH(helper->nextPriority(), "priority\\(\\) > 0");
}

// Records how each pending operation ended.
class ProgrammingSm : public Vemo::VemoAsyncBaseSm {
 public:
  using VemoAsyncBaseSm::VemoAsyncBaseSm;
  void handlePendingOperationTimeout() override {
    timeouts.push_back(commonData()->loop().now());
    VemoAsyncBaseSm::handlePendingOperationTimeout();
  }
  void handleAsyncOperationResult() override { results.push_back(error()); }
  std::vector<Zol::Seconds> timeouts;
  std::vector<std::string> results;
};

TEST(VemoAsyncBaseSm, PendingOperationEndsByResultOrByTimeout) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated);
  auto const helper = Zol::make<Vemo::VemoAsyncBaseHelper>("h");
  auto const sm = Zol::make<ProgrammingSm>(Vemo::vemoCommonSmDataFactory("x"), helper);
  sm->asyncOperationStarted();
  EXPECT_EQ(sm->asyncState(), AsyncOperationState::asyncOperationPending);
  loop.advanceTo(59.5);
  EXPECT_TRUE(sm->timeouts.empty());
  loop.advanceTo(100);
  EXPECT_EQ(sm->timeouts, (std::vector<Zol::Seconds>{60}));
  EXPECT_EQ(sm->asyncState(), AsyncOperationState::asyncOperationTimedOut);
  EXPECT_EQ(sm->error(), "timed out");

  // A result before the deadline cancels the timeout; a new operation clears the old error.
  sm->asyncOperationStarted();
  EXPECT_EQ(sm->error(), "");
  loop.advanceTo(110);
  helper->asyncOperationResultIs(AsyncOperationResult("", 110));
  loop.runUntilIdle();
  EXPECT_EQ(sm->results, (std::vector<std::string>{""}));
  EXPECT_EQ(sm->asyncState(), AsyncOperationState::asyncOperationDone);
  sm->pendingOperationTimeoutIs(5);
  sm->asyncOperationStarted();
  helper->asyncOperationResultIs(AsyncOperationResult("table full", 111));
  loop.advanceTo(500);
  EXPECT_EQ(sm->results, (std::vector<std::string>{"", "table full"}));
  EXPECT_EQ(sm->asyncState(), AsyncOperationState::asyncOperationFailed);
  EXPECT_EQ(sm->timeouts.size(), 1u);

  // A dying SM's reactor no longer acts.
  sm->zolDoZombieReactors(true);
  helper->asyncOperationResultIs(AsyncOperationResult("", 500));
  loop.runUntilIdle();
  EXPECT_EQ(sm->results.size(), 2u);
}

class ResultIgnoringSm : public Vemo::VemoAsyncBaseSm {
 public:
  using VemoAsyncBaseSm::VemoAsyncBaseSm;
};

TEST(VemoFrameDeathTest, AssertionsPrintTheirMessageAndAbort) {
  EXPECT_DEATH(Vemo::vemoAssert("lag table out of step"), "lag table out of step");

  ActivityLoop loop(ActivityLoop::TimeMode::simulated);
  auto const helper = Zol::make<Vemo::VemoAsyncBaseHelper>("h");
  auto const sm = Zol::make<ResultIgnoringSm>(Vemo::vemoCommonSmDataFactory("x"), helper);
  sm->asyncOperationStarted();
  helper->asyncOperationResultIs(AsyncOperationResult("", 1));
  // Every asynchronous SM must handle its results.
  EXPECT_DEATH(loop.runUntilIdle(), "Assertion `0' failed");
}

}  // namespace
