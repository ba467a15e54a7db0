#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <initializer_list>
#include <string>
#include <tuple>
#include <utility>

#include "Vemo/VemoTypes.h"
#include "ZolGen/VemoTypesJson.h"

namespace {

using testing::HasSubstr;
using testing::StrEq;
using testing::ThrowsMessage;
using Tolm::PerUnitBitmap;
using Tolm::PerUnitBitmapWordIndex;
using VemoTypes::Bitmap;
using VemoTypes::BitmapIndex;

VemoTypes::BitmapPosition at(Zol::U32 unit, Zol::U32 bit) {
  return VemoTypes::BitmapPosition(BitmapIndex(unit), bit, false);
}

Bitmap bitmapOf(std::initializer_list<std::pair<Zol::U32, Zol::U32>> bits) {
  Bitmap b;
  for (auto [unit, bit] : bits) b.bitSet(at(unit, bit));
  return b;
}

TEST(Bitmap, BitNumberingAndLimits) {
  Bitmap b = bitmapOf({{2, 33}});
  EXPECT_EQ(b.unitBitmap(BitmapIndex(2)).word(PerUnitBitmapWordIndex(1)), 0x2u);
  EXPECT_TRUE(b.bitTest(at(2, 33)));
  EXPECT_FALSE(b.bitTest(at(2, 32)) || b.bitTest(at(1, 33)) || b.bitTest(at(3, 33)));
  b.bitSet(at(31, 287));
  EXPECT_EQ(b.unitBitmap(BitmapIndex(31)).word(PerUnitBitmapWordIndex(8)), 0x80000000u);
  EXPECT_EQ(b.unitBmpQuantity(), 32u);

  Bitmap const before = b;
  auto const wordError = ThrowsMessage<Zol::RangeException>(
      StrEq("PerUnitBitmapWordIndex::value < 0 or > PerUnitBitmapWordIndex::max not allowed"));
  EXPECT_THAT([&] { b.bitSet(at(0, 288)); }, wordError);
  EXPECT_THAT([&] { b.bitClear(at(5, 288)); }, wordError);
  EXPECT_THAT([&] { (void)b.bitTest(at(31, 288)); }, wordError);
  EXPECT_EQ(b, before);
}

TEST(Bitmap, QuantityFollowsTheHighestNonEmptyUnit) {
  Bitmap b = bitmapOf({{1, 3}, {2, 5}, {7, 0}, {7, 200}});
  EXPECT_EQ(b.unitBmpQuantity(), 8u);
  for (auto [unit, bit] : {std::pair{7, 0}, {2, 5}, {0, 1}}) b.bitClear(at(unit, bit));
  EXPECT_EQ(b.unitBmpQuantity(), 8u);  // unit 2 emptied below the highest
  b.bitClear(at(7, 200));
  EXPECT_EQ(b.unitBmpQuantity(), 2u);
  b.bitClear(at(1, 3));
  EXPECT_TRUE(b.isEmpty());

  PerUnitBitmap unit;
  unit.wordIs(PerUnitBitmapWordIndex(4), 1);
  for (Zol::U32 i : {9, 0, 3}) b.unitBitmapIs(BitmapIndex(i), unit);
  b.unitBitmapIs(BitmapIndex(0), PerUnitBitmap());
  EXPECT_EQ(b.unitBmpQuantity(), 10u);
  b.unitBitmapDel(BitmapIndex(9));
  EXPECT_EQ(b.unitBmpQuantity(), 4u);
  b.unitBitmapDel(BitmapIndex(3));
  EXPECT_EQ(b, Bitmap());
}

TEST(Bitmap, EqualityHashAndSetOperations) {
  Bitmap const a = bitmapOf({{0, 1}, {4, 100}, {3, 287}});
  Bitmap b = bitmapOf({{3, 287}, {0, 1}, {4, 100}, {20, 0}});
  EXPECT_NE(a, b);
  b.bitClear(at(20, 0));
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(), b.hash());

  Bitmap const other = bitmapOf({{4, 100}, {9, 9}});
  Bitmap both = a;
  both.bitmapOr(other);
  EXPECT_EQ(both, bitmapOf({{0, 1}, {3, 287}, {4, 100}, {9, 9}}));
  Bitmap common = other;  // loses its highest unit
  common.bitmapAnd(a);
  EXPECT_EQ(common, bitmapOf({{4, 100}}));
  Bitmap rest = both;
  rest.bitmapAndNot(other);
  EXPECT_EQ(rest, bitmapOf({{0, 1}, {3, 287}}));
  rest.bitmapAndNot(a);
  EXPECT_EQ(rest, Bitmap());
  both.bitmapOr(bitmapOf({{1, 0}}));
  EXPECT_EQ(both.unitBmpQuantity(), 10u);
}

// A count that disagrees with the listed units would let bitTest see bits that equality,
// hashing and printing skip; both text and JSON refuse it.
TEST(Bitmap, TextFormPrintsTheUsedUnitsAndParsingChecksTheCount) {
  Bitmap b = bitmapOf({{1, 33}});
  EXPECT_EQ(b.stringValue(),
            "Value('VemoTypes::Bitmap', ** {'unitBitmap': ["
            "Value('Tolm::PerUnitBitmap', ** {'word': [0, 0, 0, 0, 0, 0, 0, 0, 0]}), "
            "Value('Tolm::PerUnitBitmap', ** {'word': [0, 2, 0, 0, 0, 0, 0, 0, 0]})], "
            "'unitBmpQuantity': 2})");
  b.bitSet(at(31, 287));
  EXPECT_EQ(Zol::valueFromString<Bitmap>(b.stringValue()), b);

  std::string const zero = "Value('Tolm::PerUnitBitmap', ** {'word': [0, 0, 0, 0, 0, 0, 0, 0, 0]})";
  std::string const one = "Value('Tolm::PerUnitBitmap', ** {'word': [1, 0, 0, 0, 0, 0, 0, 0, 0]})";
  auto text = [](std::string const& units, int count) {
    return "Value('VemoTypes::Bitmap', ** {'unitBitmap': [" + units +
           "], 'unitBmpQuantity': " + std::to_string(count) + "})";
  };
  auto json = [](std::string const& units, int count) {
    rapidjson::Document d;
    std::string const s =
        "{\"unitBitmap\": [" + units + "], \"unitBmpQuantity\": " + std::to_string(count) + "}";
    d.Parse(s.c_str());
    return Zol::fromJson<Bitmap>(d);
  };
  std::string const zeroJ = "{\"word\": [0, 0, 0, 0, 0, 0, 0, 0, 0]}";
  std::string const oneJ = "{\"word\": [1, 0, 0, 0, 0, 0, 0, 0, 0]}";
  EXPECT_THAT([&] { Zol::valueFromString<Bitmap>(text("", 33)); },
              ThrowsMessage<Zol::RangeException>(
                  StrEq("Bitmap::unitBmpQuantity < 0 or > Expr @VemoBitmapTypes:47 not allowed")));

  EXPECT_EQ(json(zeroJ + ", " + oneJ, 2), bitmapOf({{1, 0}}));
  auto const hidden = ThrowsMessage<Zol::ParseError>(HasSubstr("'unitBmpQuantity'"));
  auto const hiddenJ = ThrowsMessage<Zol::BindError>(HasSubstr("'unitBmpQuantity'"));
  // A non-empty unit at or above the count; an empty last counted unit.
  for (auto [units, unitsJ, count] :
       {std::tuple{one + ", " + one, oneJ + ", " + oneJ, 1}, {one, oneJ, 0}, {zero, zeroJ, 1}}) {
    EXPECT_THAT([&] { Zol::valueFromString<Bitmap>(text(units, count)); }, hidden) << units;
    EXPECT_THAT([&] { json(unitsJ, count); }, hiddenJ) << unitsJ;
  }
  // A unit listed twice counts once, as the last listing.
  EXPECT_THAT(
      [&] { Zol::valueFromString<Bitmap>(text(one + ", " + one + "], 'unitBitmap': [" + one, 2)); },
      hidden);
}

}  // namespace
