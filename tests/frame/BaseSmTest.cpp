#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Vemo/VemoCommon.h"

namespace {

using Vemo::AsyncOperationResult;
using Vemo::AsyncOperationState;
using Zol::ActivityLoop;

class PassCountingSm : public Vemo::VemoBaseSm {
 public:
  using VemoBaseSm::VemoBaseSm;
  void handleInitialized() override { ++passes; }
  int passes = 0;
};

TEST(VemoBaseSm, InitializedRunsTheFirstPassOncePerChange) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated);
  auto const sm = Zol::make<PassCountingSm>(Vemo::vemoCommonSmDataFactory("x"));
  EXPECT_EQ(sm->passes, 0);
  sm->initializedIs(true);
  sm->initializedIs(true);
  EXPECT_EQ(sm->passes, 1);
  sm->initializedIs(false);
  EXPECT_EQ(sm->passes, 2);
}

TEST(VemoAsyncBaseHelperDeathTest, PrioritiesCountDownAndFirstResultIsStampedNow) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated, 12.5);
  auto const helper = Zol::make<Vemo::VemoAsyncBaseHelper>("h");
  EXPECT_EQ(helper->nextPriority(), 4294967294u);
  EXPECT_EQ(helper->nextPriority(), 4294967293u);
  EXPECT_EQ(helper->asyncOperationResult(), AsyncOperationResult("", 12.5));
  EXPECT_EQ(helper->asyncOperationResult().stringValue(),
            "Value('Vemo::AsyncOperationResult', ** {'error': '', 'timestamp': 12.5})");
  helper->priorityIs(1);
  EXPECT_EQ(helper->nextPriority(), 0u);
  EXPECT_DEATH(helper->nextPriority(), "priority\\(\\) > 0");
}

// Records how each pending operation ended.
class ProgrammingSm : public Vemo::VemoAsyncBaseSm {
 public:
  using VemoAsyncBaseSm::VemoAsyncBaseSm;
  void handlePendingOperationTimeout() override {
    timeouts.push_back(Zol::now());
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
