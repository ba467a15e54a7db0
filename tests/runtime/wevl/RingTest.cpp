#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "Wevl/Wevl.h"

namespace wevltest {

enum class Speed : uint8_t { s10g = 10 };
enum Delta : int { kDown = -1 };
struct IntfId {
  uint32_t value;
};
uint32_t wevlValue(IntfId i) { return i.value; }
struct Name {
  std::string text;
};
std::string_view wevlValue(Name const& n) { return n.text; }

}  // namespace wevltest

namespace Wevl {
namespace {

using wevltest::Delta;
using wevltest::IntfId;
using wevltest::Name;
using wevltest::Speed;

TEST(WevlRing, RoundTripsEveryArgumentType) {
  Ring ring(16);
  double now = 12.5;
  ring.clockIs([&] { return now; });

  MsgDesc const ints("LagSm", 3, "i=%d u=%u x=%#x X=%04X neg=%x", __FILE__, __LINE__);
  ring.put(ints, int8_t{-5}, UINT64_MAX, 255u, 0xab, -1);
  now = 13;
  MsgDesc const mixed("MacSm", 0, "f=%.2f g=%g b=%b c=%c e=%d p=%p n=%p");
  ring.put(mixed, 3.14159, 0.25f, true, 'Z', Speed::s10g, reinterpret_cast<void*>(0x1000), nullptr);
  MsgDesc const strs("LagSm", 5, "[%s] [%-6s] [%6s] [%.3s] %s %s %s %s");
  char const* none = nullptr;
  ring.put(strs, "lit", std::string("str"), std::string_view("sv"), "truncate", none, IntfId{7},
           Name{"po1"}, "a\nb");
  ring.putAt(-1.5, ints, 1, 2u, 3, 4, wevltest::kDown);

  std::vector<std::string> const expected = {
      "12.500000 LagSm/3 i=-5 u=18446744073709551615 x=0xff X=00AB neg=ffffffffffffffff",
      "13.000000 MacSm/0 f=3.14 g=0.25 b=true c=Z e=10 p=0x1000 n=0x0",
      "13.000000 LagSm/5 [lit] [str   ] [    sv] [tru] (null) 7 po1 a\\nb",
      "-1.500000 LagSm/3 i=1 u=2 x=0x3 X=0004 neg=ffffffffffffffff",
  };
  EXPECT_EQ(ring.lines(), expected);
  EXPECT_EQ(decode(ring.dump()), expected);
  std::string const path = ::testing::TempDir() + "wevl_roundtrip.dump";
  ring.dumpTo(path);
  EXPECT_EQ(decode(std::filesystem::path(path)), expected);
  std::remove(path.c_str());

  // The recorded values themselves, before any formatting.
  auto const a = ring[1].args();
  ASSERT_EQ(a.size(), 7u);
  EXPECT_EQ(a[0].kind, Kind::Double);
  EXPECT_EQ(a[0].asDouble(), 3.14159);
  EXPECT_EQ(a[4].kind, Kind::Uint);
  EXPECT_EQ(a[6].kind, Kind::Ptr);
  EXPECT_EQ(ring[3].args()[4].asInt(), -1);
  EXPECT_EQ(ring[0].desc(), &ints);

  // Without a clock, records are stamped 0.
  Ring unclocked(2);
  unclocked.put(ints, 0, 0u, 0, 0, 0);
  EXPECT_EQ(unclocked.lines().at(0).substr(0, 9), "0.000000 ");
}

TEST(WevlRing, OverwritesTheOldestAndCountsThem) {
  Ring ring(3);
  MsgDesc const d("Sm", 1, "n=%d");
  for (int i = 0; i < 5; ++i) ring.put(d, i);
  EXPECT_EQ(ring.size(), 3u);
  EXPECT_EQ(ring.dropped(), 2u);
  std::vector<int64_t> seen;
  for (Record const& r : ring) seen.push_back(r.args().at(0).asInt());
  EXPECT_EQ(seen, (std::vector<int64_t>{2, 3, 4}));
  std::vector<std::string> const newest = {"0.000000 Sm/1 n=2", "0.000000 Sm/1 n=3",
                                           "0.000000 Sm/1 n=4"};
  EXPECT_EQ(decode(ring.dump()), newest);

  // Wrapping many times over keeps the order.
  for (int i = 5; i < 12; ++i) ring.put(d, i);
  EXPECT_EQ(ring[0].args().at(0).asInt(), 9);
  EXPECT_EQ(ring[2].args().at(0).asInt(), 11);
  EXPECT_EQ(ring.dropped(), 9u);

  ring.clear();
  EXPECT_TRUE(ring.empty());
  EXPECT_EQ(ring.dropped(), 0u);
  EXPECT_EQ(ring.begin(), ring.end());
  EXPECT_TRUE(decode(ring.dump()).empty());
  ring.put(d, 7);
  EXPECT_EQ(ring.lines(), std::vector<std::string>{"0.000000 Sm/1 n=7"});

  EXPECT_THROW(Ring(0), std::invalid_argument);
}

TEST(WevlRing, DisabledLevelRecordsAndEvaluatesNothing) {
  Ring ring(8);
  int calls = 0;
  auto expensive = [&] {
    ++calls;
    return 42;
  };
  unsigned const level = 2;
  WEVL_PUT(ring, "LagSm", level, 3, "v=%d", expensive());
  EXPECT_EQ(ring.size(), 0u);
  EXPECT_EQ(calls, 0);
  WEVL_PUT(ring, "LagSm", level, 2, "v=%d", expensive());
  EXPECT_EQ(ring.size(), 1u);
  EXPECT_EQ(calls, 1);
  WEVL_PUT(ring, "LagSm", level, 0, "plain 100%%");
  EXPECT_EQ(ring.lines(),
            (std::vector<std::string>{"0.000000 LagSm/2 v=42", "0.000000 LagSm/0 plain 100%"}));
  EXPECT_TRUE(ring[0].desc()->file().ends_with("RingTest.cpp"));
  EXPECT_GT(ring[0].desc()->line(), 0u);

  // One call site, one descriptor, however often it runs.
  for (int i = 0; i < 3; ++i) WEVL_PUT(ring, "LagSm", level, 1, "i=%d", i);
  EXPECT_EQ(ring[2].descId(), ring[4].descId());
  EXPECT_NE(ring[0].descId(), ring[2].descId());
}

TEST(WevlFormat, PlaceholdersAreCheckedAgainstArgumentTypes) {
  EXPECT_EQ((checkFormat<int, std::string>("%d %s")), FormatProblem::None);
  EXPECT_EQ((checkFormat<Speed, IntfId, char const*>("%u %x %-8s")), FormatProblem::None);
  EXPECT_EQ(checkFormat<double>("%s"), FormatProblem::None);
  EXPECT_EQ(checkFormat<>("100%%"), FormatProblem::None);
  EXPECT_EQ(checkFormat<std::string>("%d"), FormatProblem::WrongType);
  EXPECT_EQ(checkFormat<double>("%d"), FormatProblem::WrongType);
  EXPECT_EQ(checkFormat<bool>("%d"), FormatProblem::WrongType);
  EXPECT_EQ(checkFormat<int>("%f"), FormatProblem::WrongType);
  EXPECT_EQ(checkFormat<int>("%d %d"), FormatProblem::TooFewArguments);
  EXPECT_EQ((checkFormat<int, int>("%d")), FormatProblem::TooManyArguments);
  EXPECT_EQ(checkFormat<int>("%q"), FormatProblem::BadPlaceholder);
  EXPECT_EQ(checkFormat<int>("%d %"), FormatProblem::BadPlaceholder);
  EXPECT_EQ(checkFormat<int>("%1000d"), FormatProblem::BadPlaceholder);
  EXPECT_EQ(checkFormat<std::vector<int>>("%s"), FormatProblem::UnrecordableType);

  EXPECT_EQ(kindOf<Delta>(), Kind::Int);
  EXPECT_EQ(kindOf<IntfId>(), Kind::Uint);
  EXPECT_EQ(kindOf<Name>(), Kind::Str);
  EXPECT_EQ(kindOf<uint8_t>(), Kind::Uint);
  EXPECT_EQ(kindOf<int const*>(), Kind::Ptr);
  EXPECT_EQ(kindOf<wchar_t>(), Kind::None);
}

TEST(WevlFormat, DecodesRecordsThatDisagreeWithTheirFormat) {
  Ring ring(8);
  MsgDesc const twoInts("Sm", 1, "a=%d b=%d");
  ring.put(twoInts, "text");
  MsgDesc const noPlaceholders("Sm", 1, "only");
  ring.put(noPlaceholders, 1, true);
  MsgDesc const malformed("Sm", 1, "bad %q %");
  ring.put(malformed);
  {
    MsgDesc const gone("Gone", 4, "x=%d");
    ring.put(gone, 5);
  }
  std::vector<std::string> const expected = {"0.000000 Sm/1 a=text b=<missing>",
                                             "0.000000 Sm/1 only 1 true", "0.000000 Sm/1 bad %q %",
                                             "0.000000 ?/0 (descriptor gone) 5"};
  EXPECT_EQ(ring.lines(), expected);
  EXPECT_EQ(decode(ring.dump()), expected);
}

TEST(WevlRing, TruncatesStringsToWhatFits) {
  Ring ring(8);
  MsgDesc const one("Sm", 1, "%s");
  std::string const longText(100, 'a');
  ring.put(one, longText);
  auto a = ring[0].args();
  EXPECT_EQ(a[0].str, std::string(47, 'a'));
  EXPECT_TRUE(a[0].truncated);
  EXPECT_EQ(ring.lines()[0], "0.000000 Sm/1 " + std::string(47, 'a') + "...");

  // An exact fit is not truncated.
  ring.put(one, std::string(47, 'b'));
  a = ring[1].args();
  EXPECT_EQ(a[0].str.size(), 47u);
  EXPECT_FALSE(a[0].truncated);

  // Long strings share evenly; short ones are kept whole and leave the rest to the long ones.
  MsgDesc const two("Sm", 1, "%s %s");
  ring.put(two, longText, longText);
  a = ring[2].args();
  EXPECT_EQ(a[0].str.size(), 23u);
  EXPECT_EQ(a[1].str.size(), 23u);
  ring.put(two, "ab", longText);
  a = ring[3].args();
  EXPECT_EQ(a[0].str, "ab");
  EXPECT_FALSE(a[0].truncated);
  EXPECT_EQ(a[1].str.size(), 44u);

  // Numbers take their 8 bytes first; an odd byte goes to the first long string.
  MsgDesc const mixed("Sm", 1, "%d %s %b %s");
  ring.put(mixed, 1, longText, false, longText);
  a = ring[4].args();
  EXPECT_EQ(a[1].str.size(), 19u);
  EXPECT_EQ(a[3].str.size(), 18u);
  EXPECT_EQ(a[2].kind, Kind::Bool);

  // A char buffer without a terminator is read to its end, not beyond.
  char const buf[4] = {'w', 'x', 'y', 'z'};
  ring.put(one, buf);
  EXPECT_EQ(ring[5].args()[0].str, "wxyz");
}

}  // namespace
}  // namespace Wevl
