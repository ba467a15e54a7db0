// The chip itself: ports over units, refusals and their log, port-channel ids, the write and
// operation counters, and the hw/ paths scenarios read them and the tables by.
#include "Sim/Chip.h"
#include "SimTestSupport.h"
#include "Zol/Json.h"

namespace {

using namespace simtest;
using sim::Chip;

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
  auto& lags = chip.lags();
  chip.faultIs(Table::lag, Status::busy, 2);
  EXPECT_EQ(lags.create(intf("Port-Channel1")), Status::busy);
  // A fault counts operations, whatever port-channel they are for.
  EXPECT_EQ(lags.create(intf("Port-Channel2")), Status::busy);
  EXPECT_EQ(lags.create(intf("Port-Channel1")), Status::ok);
  EXPECT_EQ(chip.faultPending(Table::lag), 0u);
  EXPECT_EQ(lags.create(intf("Ethernet1")), Status::failed);

  chip.capacityIs(Table::lag, 2);
  EXPECT_EQ(lags.create(intf("Port-Channel2")), Status::ok);
  EXPECT_EQ(lags.create(intf("Port-Channel3")), Status::full);
  // Only an operation that adds an entry needs room.
  EXPECT_EQ(lags.create(intf("Port-Channel2")), Status::ok);
  EXPECT_EQ(lags.membersIs(intf("Port-Channel2"), membersOf({"Ethernet2"})), Status::ok);

  // Any operation on the table consumes the fault; ok clears what is pending.
  chip.faultIs(Table::lag, Status::failed, 1);
  EXPECT_EQ(lags.shareIs(intf("Port-Channel2"), intf("Port-Channel1"), true), Status::failed);
  chip.faultIs(Table::lag, Status::busy, 5);
  chip.faultIs(Table::lag, Status::ok, 5);
  EXPECT_EQ(lags.destroy(intf("Port-Channel9")), Status::ok);

  // Refused requests change nothing, even when only one member is wrong.
  EXPECT_EQ(lags.membersIs(intf("Port-Channel2"), membersOf({"Ethernet1", "Ethernet33"})),
            Status::failed);
  EXPECT_EQ(lags.memberIs(intf("Port-Channel2"), intf("Ethernet1/1"), true, {}), Status::failed);
  EXPECT_EQ(lags.membersIs(intf("Port-Channel7"), membersOf({"Ethernet1"})), Status::failed);
  EXPECT_EQ(lags.entry(intf("Port-Channel2"))->members, membersOf({"Ethernet2"}));
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
  auto each = [&](auto op, std::initializer_list<int> lags) {
    for (int n : lags) ASSERT_EQ(op(intf("Port-Channel" + std::to_string(n))), Status::ok);
  };
  auto const create = [&](IntfId const& i) { return chip.lags().create(i); };
  auto const destroy = [&](IntfId const& i) { return chip.lags().destroy(i); };
  each(create, {10, 20, 30, 40});
  EXPECT_EQ(hwId("Port-Channel40"), 4u);
  each(destroy, {20});
  each(create, {5});
  EXPECT_EQ(hwId("Port-Channel5"), 2u);
  // A hole below ids freed at the top is filled first.
  each(destroy, {10, 30, 40});
  each(create, {1, 2, 3});
  EXPECT_EQ(hwId("Port-Channel1"), 1u);
  EXPECT_EQ(hwId("Port-Channel2"), 3u);
  EXPECT_EQ(hwId("Port-Channel3"), 4u);
}

TEST(SimChipCounters, OnlyChangesAreWritesAndRefusalsAreOperations) {
  Chip chip;
  auto& lags = chip.lags();
  IntfId const po1 = intf("Port-Channel1");
  for (int twice = 0; twice < 2; ++twice) {
    ASSERT_EQ(lags.create(po1), Status::ok);
    ASSERT_EQ(lags.membersIs(po1, membersOf({"Ethernet1"})), Status::ok);
  }
  ASSERT_EQ(lags.memberIs(po1, intf("Ethernet1"), true, Vemo::VemoLagPort(true, true)), Status::ok);
  lags.lacpEnabledIs(true);
  chip.faultIs(Table::lag, Status::busy, 1);
  EXPECT_EQ(lags.destroy(po1), Status::busy);
  EXPECT_EQ(chip.counters(Table::lag).writes, 2u);
  EXPECT_EQ(chip.counters(Table::lag).operations, 7u);

  for (int twice = 0; twice < 2; ++twice) {
    ASSERT_EQ(chip.acls().bind(intf("Ethernet2"), Acl::AclDirection::in, 3), Status::ok);
  }
  chip.acls().unbind(intf("Ethernet3"), Acl::AclDirection::in);
  chip.acls().blockIs(intf("Ethernet2"), false);
  chip.acls().deleteInstance(9);
  EXPECT_EQ(chip.counters(Table::acl).writes, 1u);
  EXPECT_EQ(chip.counters().writes, 3u);

  // Packets and reads count nothing.
  sim::Packet p;
  p.intf = intf("Ethernet2");
  chip.classify(p);
  rapidjson::Document doc;
  auto const tree = [&](std::vector<std::string> const& path) {
    return Zol::jsonText(*chip.lookup(path, doc.GetAllocator()));
  };
  EXPECT_EQ(tree({"acl", "operations"}), "5");
  EXPECT_EQ(tree({"rangeChecker"}), R"({"writes":0,"operations":0})");
  EXPECT_EQ(tree({"operations"}), "12");
  EXPECT_EQ(tree({"acl", "bindings", "Ethernet2", "in"}), "3");
  EXPECT_EQ(tree({"units", "0", "ports"}), "32");
  EXPECT_FALSE(chip.lookup({"units", "00"}, doc.GetAllocator()));
}

TEST(SimChipCounters, PathsAreCheckedAgainstTheTablesNotTheirContent) {
  Chip chip(Chip::Config{2, 4});
  std::string problem;
  // Keyed parts take any key, entries that are not there yet included.
  EXPECT_TRUE(chip.validPath({"acl", "bindings", "Ethernet1", "mac out"}, &problem)) << problem;
  EXPECT_TRUE(chip.validPath({"lag", "Port-Channel9", "members", "Ethernet3"}, &problem));
  EXPECT_TRUE(chip.validPath({"acl", "units", "1", "in", "instances", "5117", "hits"}, &problem));
  EXPECT_FALSE(chip.validPath({"lag", "Port-Channel1", "hwid"}, &problem));
  EXPECT_THAT(problem, testing::AllOf(testing::HasSubstr("'hwid' in 'hw/lag/Port-Channel1/hwid'"),
                                      testing::HasSubstr("hwId")));
  EXPECT_FALSE(chip.validPath({"acl", "units", "2"}, &problem));
  EXPECT_THAT(problem, testing::HasSubstr("no unit 2"));
  for (std::vector<std::string> bad :
       {std::vector<std::string>{"acl", "units", "x"}, {"lacpEnabled", "x"}, {"tcam"}}) {
    EXPECT_FALSE(chip.validPath(bad, &problem)) << bad[0];
  }

  // Every template names a path the chip accepts once its placeholders are filled.
  for (std::string t : Chip::pathTemplates()) {
    std::vector<std::string> path;
    for (size_t start = 0, slash = 0; slash != std::string::npos; start = slash + 1) {
      slash = t.find('/', start);
      std::string part = t.substr(start, slash - start);
      path.push_back(part == "<n>" ? "0" : part == "<key>" ? "Ethernet1" : part);
    }
    EXPECT_TRUE(chip.validPath(path, &problem)) << t << ": " << problem;
  }
}

}  // namespace
