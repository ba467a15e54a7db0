#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <vector>

#include "Vemo/VemoTypes.h"

namespace {

using Slots = std::vector<Zol::U32>;
using VemoTypes::ViaBitmap;
using VemoTypes::ViaBitmapIndex;
using VemoTypes::ViaBitmapIter;
using VemoTypes::ViaBitmapRange;

ViaBitmap viasOf(std::initializer_list<Zol::U32> slots) {
  ViaBitmap v;
  for (Zol::U32 s : slots) v.bitSet(s);
  return v;
}

Slots slotsOf(ViaBitmapIter it) {
  Slots out;
  for (; it.inRange(); ++it) out.push_back(it.key());
  return out;
}

TEST(ViaBitmap, NextBitSetWalksTheSlotsUpToNull) {
  EXPECT_EQ(ViaBitmap().nextbitset(ViaBitmapRange(ViaBitmap::null)).value(), 2048u);
  ViaBitmap v = viasOf({31, 32, 2047, 0, 1, 32});
  EXPECT_EQ(v.bitCounter(), 5u);
  // Word 64 exists but holds no slot: neither counted nor visited.
  v.bitListIs(ViaBitmapIndex(64), 0x2);
  v.updateBitCount();
  EXPECT_EQ(v.bitCounter(), 5u);
  EXPECT_EQ(slotsOf(ViaBitmapIter(v)), (Slots{0, 1, 31, 32, 2047}));
  EXPECT_THROW(viasOf({2049}), Zol::RangeException);
}

TEST(ViaBitmapDeathTest, IteratorVisitsTheSlotsOfItsCopyInOrder) {
  ViaBitmap v = viasOf({1500, 3, 64, 63});
  ViaBitmapIter it(v);
  v.bitSet(5);
  EXPECT_EQ(slotsOf(it), (Slots{3, 63, 64, 1500}));
  ViaBitmapIter end(ViaBitmap{});
  EXPECT_FALSE(end.inRange());
  EXPECT_DEATH(end.key(), "inRange\\(\\)");
}

TEST(ViaBitmap, SetOperationsEqualityAndText) {
  ViaBitmap both = viasOf({1, 100, 2000});
  both.bitmapOr(viasOf({100, 7}));
  EXPECT_EQ(both, viasOf({1, 7, 100, 2000}));
  EXPECT_EQ(both.bitCounter(), 4u);
  both.bitmapAnd(viasOf({100, 7, 3}));
  EXPECT_EQ(both, viasOf({7, 100}));
  EXPECT_EQ(both.bitCounter(), 2u);

  // The modification count is internal: it takes no part in equality or hashing.
  ViaBitmap edited = viasOf({9, 10});
  edited.bitListDelAll();
  edited.bitSet(9);
  EXPECT_NE(edited.modCount(), viasOf({9}).modCount());
  EXPECT_EQ(edited, viasOf({9}));
  EXPECT_EQ(edited.hash(), viasOf({9}).hash());

  EXPECT_THAT(edited.stringValue(),
              testing::StartsWith(
                  "Value('VemoTypes::ViaBitmap', ** {'bitCounter': 1, 'bitList': [512, 0, "));
  EXPECT_THAT([&] { Zol::valueFromString<ViaBitmap>(edited.stringValue()); },
              testing::ThrowsMessage<Zol::ParseError>(
                  testing::EndsWith("No String constructor for ViaBitmap - has collection")));
}

}  // namespace
