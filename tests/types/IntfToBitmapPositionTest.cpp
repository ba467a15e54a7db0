#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "Vemo/VemoTypes.h"

namespace {

using VemoTypes::BitmapIndex;
using VemoTypes::IntfToBitmapPosition;

Zol::U32 indexOf(Zol::Ptr<IntfToBitmapPosition> const& m, Zol::U32 unit) {
  return m->unitIdToBmpIndexIs(unit)->bmpIndex().value();
}

TEST(IntfToBitmapPositionDeathTest, UnitsGetIndicesInOrderOfFirstAppearance) {
  unsetenv("SIMULATION_VMID");
  auto const m = Zol::make<IntfToBitmapPosition>("unitMap");
  EXPECT_EQ(indexOf(m, 7), 0u);
  EXPECT_EQ(indexOf(m, 3), 1u);
  EXPECT_EQ(indexOf(m, 0), 2u);
  EXPECT_EQ(indexOf(m, 7), 0u);
  for (Zol::U32 unit = 100; unit < 129; ++unit) EXPECT_EQ(indexOf(m, unit), unit - 97);
  EXPECT_THAT([&] { m->unitIdToBmpIndexIs(500); },
              testing::ThrowsMessage<Zol::RangeException>(
                  testing::StrEq("BitmapIndex::value < 0 or > BitmapIndex::max not allowed")));
  EXPECT_FALSE(m->unitIdToBmpIndexHas(500));
  EXPECT_EQ(m->unitIdToBmpIndexSize(), 32u);

  EXPECT_EQ(m->intfToBitmapPosition(Nepo::IntfId::fromString("Ethernet3/1")),
            VemoTypes::BitmapPosition(BitmapIndex(0), 0, false));
  m->unitIdToBmpIndexDel(12345);  // no such unit: nothing to refuse
  EXPECT_DEATH(m->unitIdToBmpIndexDel(3), "shall never delete a unitIdToBmpIndex member");
  // Only the environment at construction counts.
  setenv("SIMULATION_VMID", "1", 1);
  EXPECT_DEATH(m->unitIdToBmpIndexDel(3), "shall never delete a unitIdToBmpIndex member");
  unsetenv("SIMULATION_VMID");
}

TEST(IntfToBitmapPosition, SimulationMayDeleteUnitsButIndicesAreNeverReused) {
  setenv("SIMULATION_VMID", "1", 1);
  auto const m = Zol::make<IntfToBitmapPosition>("unitMap");
  unsetenv("SIMULATION_VMID");
  EXPECT_EQ(indexOf(m, 5), 0u);
  EXPECT_EQ(indexOf(m, 6), 1u);
  m->unitIdToBmpIndexDel(5);
  EXPECT_EQ(indexOf(m, 8), 2u);
  EXPECT_EQ(indexOf(m, 5), 3u);
  m->unitIdToBmpIndexDelAll();
  EXPECT_EQ(indexOf(m, 6), 4u);
}

}  // namespace
