#include "SimTestSupport.h"
#include "Zol/Json.h"

namespace {

using namespace simtest;
using Acl::AclAction;
using Acl::AclDirection;
using sim::AclEntry;
using sim::Chip;
using sim::Packet;
using sim::PortRange;
using sim::RangeField;

constexpr auto in = AclDirection::in;
constexpr auto permit = AclAction::permit;
constexpr auto deny = AclAction::deny;

// Subrule sub of the rule; a destination port or network of 0 or "" matches any.
AclEntry entry(uint32_t acl, uint32_t rule, AclAction action, uint16_t dstPort = 0,
               std::string_view dstNet = "", uint32_t sub = 0) {
  AclEntry e;
  e.key = sim::AclEntryKey{acl, rule, sub};
  e.action = action;
  if (dstPort) e.dstPort = {dstPort, 0xffff};
  if (!dstNet.empty()) e.dstIp = Nepo::IpPrefix::fromString(dstNet);
  return e;
}

// Writes the entries, in this order, into the ingress TCAM of both units.
void addToBothUnits(Chip& chip, std::initializer_list<AclEntry> entries) {
  for (uint32_t unit : {0u, 1u}) {
    for (AclEntry const& e : entries) ASSERT_EQ(chip.acls().entryAdd(unit, in, e), Status::ok);
  }
}

Packet tcp(std::string_view port, uint16_t dstPort, std::string_view dst = "10.1.1.1") {
  Packet p;
  p.intf = intf(port);
  p.isIp = true;
  p.srcIp = Nepo::IpAddr::fromString("192.168.0.1");
  p.dstIp = Nepo::IpAddr::fromString(dst);
  p.protocol = 6;
  p.dstPort = dstPort;
  return p;
}

TEST(SimChipAcl, ClassifyTakesTheFirstMatchOfTheBoundInstanceAndCounts) {
  Chip chip(Chip::Config{2, 2});
  // Written out of order: lookup follows (rule, subrule), not the order of writing.
  addToBothUnits(chip, {entry(3, 1, permit, 80), entry(3, 0, deny, 0, "10.0.0.0/8"),
                        entry(4, 0, permit), entry(3, 2, deny)});
  auto decide = [&](Packet const& p, AclAction want) {
    sim::ClassifyResult const r = chip.classify(p);
    EXPECT_EQ(r.action, want);
    return r.entry ? r.entry->aclRule * 10 + r.entry->subRuleNum : 99;
  };
  EXPECT_EQ(decide(tcp("Ethernet3", 80), permit), 99u);  // nothing bound
  ASSERT_EQ(chip.acls().bind(intf("Ethernet3"), in, 3), Status::ok);
  ASSERT_EQ(chip.acls().bind(intf("Port-Channel1"), in, 3), Status::ok);
  EXPECT_EQ(decide(tcp("Ethernet3", 80), deny), 0u);
  EXPECT_EQ(decide(tcp("Ethernet3", 80, "11.0.0.1"), permit), 10u);
  EXPECT_EQ(decide(tcp("Ethernet3", 81, "11.0.0.1"), deny), 20u);
  // An IPv4 prefix never matches an IPv6 address with the same leading bits.
  EXPECT_EQ(decide(tcp("Ethernet3", 80, "a00::1"), permit), 10u);
  // A non-initial fragment has no ports to match.
  Packet fragment = tcp("Ethernet3", 80, "11.0.0.1");
  fragment.fragment = true;
  EXPECT_EQ(decide(fragment, deny), 20u);
  Packet out = tcp("Ethernet3", 80);
  out.direction = AclDirection::out;
  EXPECT_EQ(decide(out, permit), 99u);
  // Ethernet3 is on unit 1; a port-channel is looked up in unit 0.
  EXPECT_EQ(decide(tcp("Port-Channel1", 80, "11.0.0.1"), permit), 10u);
  EXPECT_EQ(chip.acls().entry(1, in, {3, 1, 0})->hits, 2u);
  EXPECT_EQ(chip.acls().entry(0, in, {3, 1, 0})->hits, 1u);

  // Blocked: dropped before the lookup, so nothing counts.
  chip.acls().blockIs(intf("Ethernet3"), true);
  EXPECT_TRUE(chip.classify(tcp("Ethernet3", 80, "11.0.0.1")).blocked);
  EXPECT_EQ(decide(tcp("Ethernet3", 80, "11.0.0.1"), deny), 99u);
  EXPECT_EQ(chip.acls().entry(1, in, {3, 1, 0})->hits, 2u);
  chip.acls().blockIs(intf("Ethernet3"), false);
  chip.acls().deleteInstance(3);
  EXPECT_EQ(decide(tcp("Ethernet3", 80, "11.0.0.1"), deny), 99u);  // bound, nothing matches
  chip.acls().unbind(intf("Ethernet3"), in);
  EXPECT_EQ(decide(tcp("Ethernet3", 80), permit), 99u);
  EXPECT_EQ(chip.size(Table::acl), 2u);
}

TEST(SimChipAcl, APacketOfAVlanAlsoMeetsTheVlanInterface) {
  Chip chip(Chip::Config{2, 2});
  addToBothUnits(chip, {entry(3, 0, permit, 80), entry(3, 1, deny),
                        entry(4, 0, deny, 0, "10.0.0.0/8"), entry(4, 1, permit)});
  ASSERT_EQ(chip.acls().bind(intf("Ethernet3"), in, 3), Status::ok);
  ASSERT_EQ(chip.acls().bind(intf("Vlan10"), in, 4), Status::ok);
  auto decide = [&](std::string_view port, uint16_t vlan, uint16_t dstPort, std::string_view dst) {
    Packet p = tcp(port, dstPort, dst);
    p.vlan = vlan;
    sim::ClassifyResult const r = chip.classify(p);
    return std::to_string(r.entry ? r.entry->aclNumber * 10 + r.entry->aclRule : 99) + " " +
           (r.action == permit ? "permit" : "deny");
  };
  // The port's permit still meets the VLAN's deny; a port deny ends the lookup.
  EXPECT_EQ(decide("Ethernet3", 10, 80, "10.1.1.1"), "40 deny");
  EXPECT_EQ(decide("Ethernet3", 10, 80, "11.1.1.1"), "41 permit");
  EXPECT_EQ(decide("Ethernet3", 10, 81, "11.1.1.1"), "31 deny");
  EXPECT_EQ(chip.acls().entry(1, in, {4, 1, 0})->hits, 1u);
  EXPECT_EQ(decide("Ethernet3", 20, 80, "10.1.1.1"), "30 permit");
  // A port without an instance of its own: the VLAN's is looked up in the port's unit.
  EXPECT_EQ(decide("Ethernet1", 10, 81, "10.1.1.1"), "40 deny");
  EXPECT_EQ(chip.acls().entry(0, in, {4, 0, 0})->hits, 1u);
  chip.acls().blockIs(intf("Vlan10"), true);
  EXPECT_EQ(decide("Ethernet1", 10, 81, "11.1.1.1"), "99 deny");
}

TEST(SimChipAcl, CheckersAreSharedPerUnitAndTheDumpShowsTheAclPart) {
  Chip chip(Chip::Config{2, 2});
  rapidjson::Document doc;
  auto const tree = [&](std::vector<std::string> const& path) {
    return Zol::jsonText(*chip.lookup(path, doc.GetAllocator()));
  };
  EXPECT_EQ(tree({"acl", "units", "1", "rangeCheckers"}), R"({"used":0,"capacity":32})");
  chip.capacityIs(Table::acl, 2);
  chip.capacityIs(Table::rangeChecker, 1);
  AclEntry a = entry(1, 0, deny);
  a.rangeIs(RangeField::srcPort, PortRange{10, 20});
  AclEntry b = entry(1, 0, deny, 0, "", 1);
  b.ranges = {PortRange{10, 20}, PortRange{1, 2}, std::nullopt};
  ASSERT_EQ(chip.acls().entryAdd(0, in, a), Status::ok);
  // The identical source range is shared; the destination range finds the pool empty.
  sim::RangeFields missing = 0;
  EXPECT_EQ(chip.acls().entryAdd(0, in, b, &missing), Status::full);
  EXPECT_EQ(missing, sim::rangeFieldBit(RangeField::dstPort));
  chip.capacityIs(Table::rangeChecker, 2);
  // The TCAM is full per unit and direction; writing at a key replaces that entry.
  ASSERT_EQ(chip.acls().entryAdd(0, in, entry(1, 5, deny)), Status::ok);
  EXPECT_EQ(chip.acls().entryAdd(0, in, entry(1, 6, deny)), Status::full);
  EXPECT_EQ(chip.acls().entryAdd(0, in, entry(1, 5, permit)), Status::ok);
  EXPECT_EQ(chip.acls().entryAdd(0, AclDirection::out, entry(1, 6, deny)), Status::ok);
  chip.faultIs(Table::rangeChecker, Status::busy, 1);
  EXPECT_EQ(chip.acls().entryAdd(1, in, a), Status::busy);
  EXPECT_THAT(chip.errors(),
              ElementsAre("rangeChecker add 1 rule 0.1 unit 0 in: full, none left for dstPort",
                          "acl add 1 rule 6.0 unit 0 in: full",
                          "rangeChecker add 1 rule 0.0 unit 1 in: busy"));

  ASSERT_EQ(chip.acls().bind(intf("Ethernet2"), in, 1), Status::ok);
  chip.acls().blockIs(intf("Vlan5"), true);
  chip.acls().unitErrorIs(1, Vemo::AclCreateError::aclCreateErrorTooManyAcls);
  EXPECT_EQ(chip.classify(tcp("Ethernet2", 1)).action, permit);
  EXPECT_EQ(tree({"acl"}),
            R"({"units":[{"unit":0,"in":{"used":2,"capacity":2,"instances":{"1":)"
            R"({"entries":2,"hits":1}}},"out":{"used":1,"capacity":2,"instances":{"1":)"
            R"({"entries":1,"hits":0}}},"rangeCheckers":{"used":1,"capacity":2}},{"unit":1,)"
            R"("in":{"used":0,"capacity":2,"instances":{}},"out":{"used":0,"capacity":2,)"
            R"("instances":{}},"rangeCheckers":{"used":0,"capacity":2},)"
            R"("error":"aclCreateErrorTooManyAcls"}],"bindings":{"Ethernet2":{"in":1}},)"
            R"("blocked":["Vlan5"],"writes":6,"operations":9})");
  EXPECT_EQ(tree({"capacity"}), R"({"lag":1024,"mac":32768,"vxlan":4096})");
  chip.acls().deleteInstance(1);
  EXPECT_EQ(chip.acls().rangeCheckersUsed(0), 0u);
  EXPECT_EQ(chip.size(Table::acl), 0u);
}

}  // namespace
