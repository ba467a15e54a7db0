#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Sim/Chip.h"
#include "Zol/Json.h"

namespace {

using Nepo::IntfId;
using sim::Chip;
using sim::Status;
using sim::Table;
using testing::ElementsAre;

IntfId intf(std::string_view name) { return IntfId::fromString(name); }

Vemo::VemoLagPortList membersOf(std::initializer_list<std::string_view> names) {
  Vemo::VemoLagPortList list;
  for (auto name : names) list.portIs(intf(name), Vemo::VemoLagPort(true, true));
  return list;
}

TEST(SimChip, PortsSitOnUnitsInOrderAndMapToBitmapPositions) {
  Chip chip(Chip::Config{3, 4});
  EXPECT_EQ(chip.ports().size(), 12u);
  EXPECT_EQ(chip.ports().front(), intf("Ethernet1"));
  EXPECT_EQ(chip.ports().back(), intf("Ethernet12"));
  EXPECT_EQ(chip.location(intf("Ethernet4")), (sim::PortLocation{0, 3}));
  EXPECT_EQ(chip.location(intf("Ethernet5")), (sim::PortLocation{1, 0}));
  EXPECT_EQ(chip.location(intf("Ethernet12")), (sim::PortLocation{2, 3}));
  for (auto name : {"Ethernet0", "Ethernet13", "Ethernet1/1", "Ethernet1.5", "Port-Channel1"}) {
    EXPECT_FALSE(chip.hasPort(intf(name))) << name;
  }
  EXPECT_THROW(Chip(Chip::Config{33, 4}), Zol::RangeException);

  auto const map = Zol::make<sim::ChipIntfToBitmapPosition>("map", chip);
  EXPECT_EQ(map->unitIdToBmpIndexSize(), 3u);
  VemoTypes::IntfToBitmapPosition const& base = *map;
  EXPECT_EQ(base.intfToBitmapPosition(intf("Ethernet7")),
            VemoTypes::BitmapPosition(VemoTypes::BitmapIndex(1), 2, false));
  EXPECT_TRUE(base.intfToBitmapPosition(intf("Ethernet13")).invalid());
  VemoTypes::Bitmap bits;
  bits.bitSet(base.intfToBitmapPosition(intf("Ethernet12")));
  EXPECT_EQ(bits.unitBmpQuantity(), 3u);
}

TEST(SimChip, FaultsAndCapacityRefuseOperationsAndAreLogged) {
  Chip chip;
  chip.faultIs(Table::lag, Status::busy, 2);
  EXPECT_EQ(chip.lags().create(intf("Port-Channel1")), Status::busy);
  // A fault counts operations, whatever port-channel they are for.
  EXPECT_EQ(chip.lags().create(intf("Port-Channel2")), Status::busy);
  EXPECT_EQ(chip.lags().create(intf("Port-Channel1")), Status::ok);
  EXPECT_EQ(chip.faultPending(Table::lag), 0u);
  EXPECT_EQ(chip.lags().create(intf("Ethernet1")), Status::failed);

  chip.capacityIs(Table::lag, 2);
  EXPECT_EQ(chip.lags().create(intf("Port-Channel2")), Status::ok);
  EXPECT_EQ(chip.lags().create(intf("Port-Channel3")), Status::full);
  // Only an operation that adds an entry needs room.
  EXPECT_EQ(chip.lags().create(intf("Port-Channel2")), Status::ok);
  EXPECT_EQ(chip.lags().membersIs(intf("Port-Channel2"), membersOf({"Ethernet2"})), Status::ok);
  EXPECT_EQ(chip.size(Table::lag), 2u);

  // Any operation on the table consumes the fault; ok clears what is pending.
  chip.faultIs(Table::lag, Status::failed, 1);
  EXPECT_EQ(chip.lags().shareIs(intf("Port-Channel2"), intf("Port-Channel1"), true),
            Status::failed);
  chip.faultIs(Table::lag, Status::busy, 5);
  chip.faultIs(Table::lag, Status::ok, 5);
  EXPECT_EQ(chip.lags().destroy(intf("Port-Channel9")), Status::ok);

  // Refused requests change nothing, even when only one member is wrong.
  EXPECT_EQ(chip.lags().membersIs(intf("Port-Channel2"), membersOf({"Ethernet1", "Ethernet33"})),
            Status::failed);
  EXPECT_EQ(chip.lags().memberIs(intf("Port-Channel2"), intf("Ethernet1/1"), true, {}),
            Status::failed);
  EXPECT_EQ(chip.lags().membersIs(intf("Port-Channel7"), membersOf({"Ethernet1"})), Status::failed);
  EXPECT_EQ(chip.lags().entry(intf("Port-Channel2"))->members, membersOf({"Ethernet2"}));
  EXPECT_EQ(chip.size(Table::lag), 2u);

  EXPECT_THAT(
      chip.errors(),
      ElementsAre("lag create Port-Channel1: busy", "lag create Port-Channel2: busy",
                  "lag create Ethernet1: failed, not a port-channel",
                  "lag create Port-Channel3: full", "lag share Port-Channel2 Port-Channel1: failed",
                  "lag members Port-Channel2: failed, Ethernet33 is not a port of this chip",
                  "lag member add Port-Channel2 Ethernet1/1: failed, Ethernet1/1 is not a "
                  "port of this chip",
                  "lag members Port-Channel7: failed, no such port-channel"));
}

TEST(SimChip, LagHardwareIdsAreTheLowestFreeAndReused) {
  Chip chip;
  auto hwId = [&](std::string_view lag) { return chip.lags().entry(intf(lag))->hwId; };
  for (auto lag : {"Port-Channel10", "Port-Channel20", "Port-Channel30", "Port-Channel40"}) {
    ASSERT_EQ(chip.lags().create(intf(lag)), Status::ok);
  }
  EXPECT_EQ(hwId("Port-Channel40"), 4u);
  ASSERT_EQ(chip.lags().destroy(intf("Port-Channel20")), Status::ok);
  ASSERT_EQ(chip.lags().create(intf("Port-Channel5")), Status::ok);
  EXPECT_EQ(hwId("Port-Channel5"), 2u);

  // A hole below ids freed at the top is filled first.
  for (auto lag : {"Port-Channel10", "Port-Channel30", "Port-Channel40"}) {
    ASSERT_EQ(chip.lags().destroy(intf(lag)), Status::ok);
  }
  for (auto lag : {"Port-Channel1", "Port-Channel2", "Port-Channel3"}) {
    ASSERT_EQ(chip.lags().create(intf(lag)), Status::ok);
  }
  EXPECT_EQ(hwId("Port-Channel1"), 1u);
  EXPECT_EQ(hwId("Port-Channel2"), 3u);
  EXPECT_EQ(hwId("Port-Channel3"), 4u);
}

}  // namespace
