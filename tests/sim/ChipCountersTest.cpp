// The chip's write and operation counters: what changed a table against what was asked of it,
// and the hw/ paths scenarios read them and the tables by.
#include <gtest/gtest.h>

#include "Sim/Chip.h"
#include "Zol/Json.h"

namespace sim {
namespace {

Nepo::IntfId intf(char const* name) { return Nepo::IntfId::fromString(name); }

TEST(ChipCounters, OnlyChangesAreWritesAndRefusalsAreOperations) {
  Chip chip;
  Vemo::VemoLagPortList members;
  members.portIs(intf("Ethernet1"), Vemo::VemoLagPort(true, true));
  ASSERT_EQ(chip.lags().create(intf("Port-Channel1")), Status::ok);
  ASSERT_EQ(chip.lags().create(intf("Port-Channel1")), Status::ok);
  ASSERT_EQ(chip.lags().membersIs(intf("Port-Channel1"), members), Status::ok);
  ASSERT_EQ(chip.lags().membersIs(intf("Port-Channel1"), members), Status::ok);
  ASSERT_EQ(chip.lags().memberIs(intf("Port-Channel1"), intf("Ethernet1"), true,
                                 Vemo::VemoLagPort(true, true)),
            Status::ok);
  chip.lags().lacpEnabledIs(true);
  chip.faultIs(Table::lag, Status::busy, 1);
  EXPECT_EQ(chip.lags().destroy(intf("Port-Channel1")), Status::busy);
  EXPECT_EQ(chip.counters(Table::lag).writes, 2u);
  EXPECT_EQ(chip.counters(Table::lag).operations, 7u);

  ASSERT_EQ(chip.acls().bind(intf("Ethernet2"), Acl::AclDirection::in, 3), Status::ok);
  ASSERT_EQ(chip.acls().bind(intf("Ethernet2"), Acl::AclDirection::in, 3), Status::ok);
  chip.acls().unbind(intf("Ethernet3"), Acl::AclDirection::in);
  chip.acls().blockIs(intf("Ethernet2"), false);
  chip.acls().deleteInstance(9);
  EXPECT_EQ(chip.counters(Table::acl).writes, 1u);
  EXPECT_EQ(chip.counters(Table::acl).operations, 5u);
  EXPECT_EQ(chip.counters().writes, 3u);
  EXPECT_EQ(chip.counters().operations, 12u);

  // Packets and reads count nothing.
  Packet p;
  p.intf = intf("Ethernet2");
  chip.classify(p);
  rapidjson::Document doc;
  auto& alloc = doc.GetAllocator();
  EXPECT_EQ(Zol::jsonText(*chip.lookup({"lag", "writes"}, alloc)), "2");
  EXPECT_EQ(Zol::jsonText(*chip.lookup({"acl", "operations"}, alloc)), "5");
  EXPECT_EQ(Zol::jsonText(*chip.lookup({"rangeChecker"}, alloc)), R"({"writes":0,"operations":0})");
  EXPECT_EQ(Zol::jsonText(*chip.lookup({"operations"}, alloc)), "12");
  EXPECT_EQ(Zol::jsonText(*chip.lookup({"acl", "bindings", "Ethernet2", "in"}, alloc)), "3");
  EXPECT_EQ(Zol::jsonText(*chip.lookup({"units", "0", "ports"}, alloc)), "32");
  EXPECT_FALSE(chip.lookup({"units", "00"}, alloc));
}

TEST(ChipCounters, PathsAreCheckedAgainstTheTablesNotTheirContent) {
  Chip chip(Chip::Config{2, 4});
  std::string problem;
  // Keyed parts take any key, entries that are not there yet included.
  EXPECT_TRUE(chip.validPath({"acl", "bindings", "Ethernet1", "mac out"}, &problem)) << problem;
  EXPECT_TRUE(chip.validPath({"lag", "Port-Channel9", "members", "Ethernet3"}, &problem));
  EXPECT_TRUE(chip.validPath({"acl", "units", "1", "in", "instances", "5117", "hits"}, &problem));
  EXPECT_TRUE(chip.validPath({"lag", "writes"}, &problem));
  EXPECT_FALSE(chip.validPath({"lag", "Port-Channel1", "hwid"}, &problem));
  EXPECT_NE(problem.find("'hwid' in 'hw/lag/Port-Channel1/hwid'"), std::string::npos) << problem;
  EXPECT_NE(problem.find("hwId"), std::string::npos) << problem;
  EXPECT_FALSE(chip.validPath({"acl", "units", "2"}, &problem));
  EXPECT_NE(problem.find("no unit 2"), std::string::npos) << problem;
  EXPECT_FALSE(chip.validPath({"acl", "units", "x"}, &problem));
  EXPECT_FALSE(chip.validPath({"lacpEnabled", "x"}, &problem));
  EXPECT_FALSE(chip.validPath({"tcam"}, &problem));

  // Every template names a path the chip accepts once its placeholders are filled.
  for (std::string t : Chip::pathTemplates()) {
    std::vector<std::string> path;
    size_t start = 0;
    for (size_t slash = 0; slash != std::string::npos; start = slash + 1) {
      slash = t.find('/', start);
      std::string part = t.substr(start, slash - start);
      path.push_back(part == "<n>" ? "0" : part == "<key>" ? "Ethernet1" : part);
    }
    EXPECT_TRUE(chip.validPath(path, &problem)) << t << ": " << problem;
  }
}

}  // namespace
}  // namespace sim
