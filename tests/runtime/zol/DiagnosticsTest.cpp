#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <string>

#include "Zol/Activity.h"
#include "Zol/Assert.h"
#include "Zol/Syslog.h"
#include "Zol/Trace.h"
#include "Zol/Types.h"

using testing::HasSubstr;
using testing::ThrowsMessage;

namespace {

// Trace settings are process-wide: every test leaves none behind.
class TraceTest : public testing::Test {
 protected:
  ~TraceTest() override { Zol::Trace::settingIs(""); }
};

}  // namespace

TEST_F(TraceTest, SettingEnablesExactlyTheNamedLevels) {
  Zol::TraceHandle a("ModA"), b("ModB"), c("ModC");
  Zol::Trace::settingIs("ModA/5,ModB/0-9");
  EXPECT_EQ(a.levels(), 1u << 5);
  EXPECT_EQ(b.levels(), 0x3ffu);
  EXPECT_EQ(c.levels(), 0u);
  Zol::TraceHandle later("ModA");
  EXPECT_EQ(later.levels(), 1u << 5);

  Zol::Trace::settingIs("*/0-1,ModC/13-5,ModB/7");
  EXPECT_EQ(a.levels(), 0x3u);
  EXPECT_EQ(b.levels(), 0x83u);
  EXPECT_EQ(c.levels(), 0x3bu);

  // A malformed setting changes nothing.
  for (char const* bad :
       {"ModA", "ModA/", "/5", "ModA/x", "ModA/5-", "ModA/9-1", "ModA/5,,ModB/1", "ModA/-5"}) {
    EXPECT_THAT([&] { Zol::Trace::settingIs(bad); },
                ThrowsMessage<Zol::ParseError>(HasSubstr("'" + std::string(bad) + "'")));
  }
  EXPECT_EQ(Zol::Trace::setting(), "*/0-1,ModC/13-5,ModB/7");
  EXPECT_EQ(b.levels(), 0x83u);
}

TEST_F(TraceTest, DisabledLevelsNeverEvaluateTheirArguments) {
  Zol::TraceHandle h("Tracer");
  Zol::Trace::settingIs("Tracer/2,Other/0-9");
  Zol::Trace::Capture capture;
  int evaluated = 0;
  auto count = [&] { return ++evaluated; };
  ZOL_TRACE_H(h, 1, "level one " << count());
  ZOL_TRACE_H(h, 3, "level three " << count());
  EXPECT_EQ(evaluated, 0);
  ZOL_TRACE_H(h, 2, "entry " << count() << " of " << 2.5);
  EXPECT_EQ(evaluated, 1);
  ASSERT_EQ(capture.records().size(), 1u);
  EXPECT_EQ(capture.records()[0].module, "Tracer");
  EXPECT_EQ(capture.records()[0].level, 2u);
  EXPECT_EQ(capture.records()[0].text, "entry 1 of 2.5");
  EXPECT_TRUE(capture.contains("1 of"));
  EXPECT_EQ(capture.count("entry"), 1u);

  Zol::Trace::settingIs("");
  ZOL_TRACE_H(h, 2, "off " << count());
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(capture.records().size(), 1u);
}

TEST_F(TraceTest, ADestroyedHandleIsLeftAlone) {
  // The storage is reused after the handle goes; a later setting must not write into it.
  alignas(Zol::TraceHandle) unsigned char storage[sizeof(Zol::TraceHandle)];
  auto* h = new (storage) Zol::TraceHandle("Gone");
  h->~TraceHandle();
  std::memset(storage, 0, sizeof storage);
  Zol::Trace::settingIs("*/0-9");
  unsigned char const zeros[sizeof storage] = {};
  EXPECT_EQ(std::memcmp(storage, zeros, sizeof storage), 0);
}

TEST(Syslog, CaptureReceivesFormattedKeyedMessages) {
  static constexpr Zol::SyslogMessage portDown{"VEMO-3-PORT_DOWN", LOG_ERR,
                                               "port %s down after %d retries (%.1f s)",
                                               "A port went down.", "Check the cable."};
  Zol::Syslog::Capture capture;
  Zol::Syslog::emit(portDown, "Ethernet7", 3, 1.25);
  ASSERT_EQ(capture.records().size(), 1u);
  EXPECT_EQ(capture.records()[0].key, "VEMO-3-PORT_DOWN");
  EXPECT_EQ(capture.records()[0].severity, LOG_ERR);
  EXPECT_EQ(capture.records()[0].text, "port Ethernet7 down after 3 retries (1.2 s)");
}

TEST(AssertDeathTest, FailurePrintsTheConditionAndAborts) {
  int queued = 3;
  EXPECT_DEATH(ZOL_ASSERT(queued < 0), "queued < 0");
  EXPECT_DEATH(ZOL_ASSERT_MSG(queued == 0, "queue not drained"), "queue not drained");
  ZOL_ASSERT(queued == 3);
  EXPECT_DEATH(
      {
        Zol::ActivityLoop real;
        real.advanceTo(1);
      },
      "mode_ == TimeMode::simulated");
}
