#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "Vemo/VemoCommon.h"

namespace {

using Nepo::IntfId;
using Vemo::FreeMirrorSessionMetadata;
using Vemo::VerifyMismatch;
using Zol::ActivityLoop;

// Trace levels are global: switched off again whatever the test asserts.
struct TraceOn {
  explicit TraceOn(std::string_view setting) { Zol::Trace::settingIs(setting); }
  ~TraceOn() { Zol::Trace::settingIs(""); }
  Zol::Trace::Capture capture;
};

TEST(VemoCommonSmData, FactoryBuildsInitializedDataWithVerification) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated);
  TraceOn trace("VemoCommon/9");
  auto const cd = Vemo::vemoCommonSmDataFactory("x");
  EXPECT_EQ(trace.capture.count("void Vemo::VemoCommonSmData::handleInitialized()"), 1u);
  EXPECT_TRUE(cd->initialized() && cd->verifySm());
  ASSERT_TRUE(cd->verifyData());
  EXPECT_TRUE(cd->verifyData()->verifyHas("vr"));
}

// Counts every change to the free mirror-session queue.
struct MirrorQueueWatcher : Vemo::VemoCommonSmData::NotifieeConst {
  int changes = 0;
  void onFreeMirrorSession(Zol::U32) override { ++changes; }
  void onFreeMirrorSessionMetadata() override { ++changes; }
};

TEST(VemoCommonSmData, FreeMirrorSessionQueueIsFifoAndEmptyDequeueChangesNothing) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated);
  auto const cd = Vemo::vemoCommonSmDataFactory("x");
  MirrorQueueWatcher watcher;
  watcher.notifierIs(cd);
  // Sequence numbers just below the wrap, so that the queue crosses it.
  cd->freeMirrorSessionMetadataIs(FreeMirrorSessionMetadata(0xfffffffe, 0xfffffffe));
  std::vector<int> out;
  for (Zol::U8 id : {7, 3}) cd->freeMirrorSessionEnq(id);
  out.push_back(cd->freeMirrorSessionDeq());
  for (Zol::U8 id : {9, 0}) cd->freeMirrorSessionEnq(id);
  while (cd->freeMirrorSessionSize()) out.push_back(cd->freeMirrorSessionDeq());
  EXPECT_EQ(out, (std::vector<int>{7, 3, 9, 0}));
  loop.runUntilIdle();
  EXPECT_GT(watcher.changes, 0);
  watcher.changes = 0;
  EXPECT_EQ(cd->freeMirrorSessionDeq(), 0);
  loop.runUntilIdle();
  EXPECT_EQ(watcher.changes, 0);
  EXPECT_EQ(cd->freeMirrorSessionMetadata(), FreeMirrorSessionMetadata(2, 2));
}

// Plays a feature SM in a verification pass: reports its texts for every request it checks.
struct LagSmVerifier : Vemo::VerifyData::NotifieeConst {
  explicit LagSmVerifier(Zol::Ptr<Vemo::VerifyData> const& data) : data(data) { notifierIs(data); }
  void onVerify(Zol::String const&) override {
    for (auto const& text : texts) data->reportMismatch("LagSm", text);
  }
  Zol::Ptr<Vemo::VerifyData> data;
  std::vector<std::string> texts = {"x"};
};

TEST(VerifySm, MismatchesAreFiledUnderTheirRequestAndReplacedByItsNextPass) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated);
  auto const cd = Vemo::vemoCommonSmDataFactory("x");
  auto const vd = cd->verifyData();
  LagSmVerifier lagSm(vd);
  auto const mismatches = [&] {
    std::vector<VerifyMismatch> all;
    for (auto const& [seq, m] : vd->mismatchAll()) all.push_back(m);
    return all;
  };
  vd->requestVerify("vr");
  EXPECT_FALSE(vd->completedHas("vr"));
  loop.runUntilIdle();
  EXPECT_EQ(mismatches(), std::vector{VerifyMismatch("vr", "LagSm", "x")});
  EXPECT_EQ(vd->completed("vr"), 1u);

  // Another request keeps its output when "vr" runs again.
  lagSm.texts = {"x", "z"};
  vd->requestVerify("other");
  loop.runUntilIdle();
  lagSm.texts = {"y"};
  vd->requestVerify("vr");
  loop.runUntilIdle();
  EXPECT_EQ(vd->mismatchesOf("other"), 2u);
  EXPECT_EQ(vd->completed("other"), 1u);
  EXPECT_EQ(vd->completed("vr"), 2u);
  EXPECT_EQ(mismatches(), (std::vector<VerifyMismatch>{VerifyMismatch("other", "LagSm", "x"),
                                                       VerifyMismatch("other", "LagSm", "z"),
                                                       VerifyMismatch("vr", "LagSm", "y")}));
}

}  // namespace
