#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "Vemo/VemoTypes.h"
#include "Zol/Trace.h"

namespace {

using VemoTypes::NamedRangeAlignment;
using VemoTypes::NamedRangeBitmap;
using VemoTypes::namedRangeBitmapFactory;
using VemoTypes::NamedRangeBitmapStrictness;

constexpr Zol::U16 kInvalid = NamedRangeBitmap::invalidOffset;

// Trace levels are global: switched off again whatever the test asserts.
struct TraceOn {
  explicit TraceOn(std::string_view setting) { Zol::Trace::settingIs(setting); }
  ~TraceOn() { Zol::Trace::settingIs(""); }
  Zol::Trace::Capture capture;
};

TEST(NamedRangeBitmap, AllocatesInOrderWithAlignmentAndRejectsBadFields) {
  TraceOn trace("VemoNamedRangeBitmap/5");
  auto const m = namedRangeBitmapFactory(16, NamedRangeBitmapStrictness::nonStrict);
  EXPECT_EQ(m->allocate("a", 3), 0);
  EXPECT_EQ(m->allocateAligned("b", 4, NamedRangeAlignment::align4Bits), 4);
  EXPECT_EQ(m->allocateAligned("c", 2, NamedRangeAlignment::align8Bits), 8);
  EXPECT_EQ(m->allocate("d", 6), 10);
  EXPECT_EQ(m->offsetOf("unknown"), kInvalid);
  EXPECT_EQ(m->widthOf("unknown"), 0);

  EXPECT_EQ(m->allocate("e", 1), kInvalid);  // the word is full
  auto const n = namedRangeBitmapFactory(16, NamedRangeBitmapStrictness::nonStrict);
  EXPECT_EQ(n->allocate("a", 3), 0);
  EXPECT_EQ(n->allocate("a", 1), kInvalid);
  EXPECT_EQ(n->allocate("zero", 0), kInvalid);
  EXPECT_EQ(n->allocateAt("late", 2, 15), kInvalid);
  EXPECT_EQ(trace.capture.count("cannot allocate field:"), 4u);
  EXPECT_EQ(n->allocateAlignedMaxLostBits("b", 4, NamedRangeAlignment::align4Bits, 3), 3);
  EXPECT_EQ(n->allocateAt("top", 1, 15), 15);

  // Alignment past the end of a full 65535-bit word never wraps back to bit 0.
  auto const full = namedRangeBitmapFactory(65535, NamedRangeBitmapStrictness::nonStrict);
  for (int i = 0; i < 257; ++i) full->allocate("f" + std::to_string(i), 255);
  EXPECT_EQ(full->offsetOf("f256"), 65280);
  EXPECT_EQ(full->allocateAligned("late", 1, NamedRangeAlignment::align8Bits), kInvalid);

  EXPECT_THAT([] { namedRangeBitmapFactory(0, NamedRangeBitmapStrictness::strict); },
              testing::ThrowsMessage<Zol::RangeException>(testing::StrEq(
                  "NamedRangeBitmap::size < 1 or > NamedRangeBitmap::invalidOffset not allowed")));
}

TEST(NamedRangeBitmap, StrictModeRejectsOverlappingFields) {
  TraceOn trace("VemoNamedRangeBitmap/5");
  auto const s = namedRangeBitmapFactory(32, NamedRangeBitmapStrictness::strict);
  EXPECT_EQ(s->allocateAt("mid", 8, 8), 8);
  EXPECT_EQ(s->allocateAt("below", 8, 1), kInvalid);
  EXPECT_EQ(s->allocateAt("inside", 2, 10), kInvalid);
  EXPECT_EQ(s->allocateAt("above", 4, 15), kInvalid);
  EXPECT_EQ(trace.capture.count("strictess check failed for field:"), 3u);
  EXPECT_EQ(trace.capture.count("cannot allocate field:"), 3u);
  EXPECT_EQ(s->allocateAt("low", 8, 0), 0);
  EXPECT_EQ(s->allocateAt("high", 16, 16), 16);
  EXPECT_EQ(s->allocate("next", 1), kInvalid);  // the bump pointer is still at 0

  auto const loose = namedRangeBitmapFactory(32, NamedRangeBitmapStrictness::nonStrict);
  EXPECT_EQ(loose->allocateAt("mid", 8, 8), 8);
  EXPECT_EQ(loose->allocateAt("below", 8, 1), 1);
}

}  // namespace
