// The chip's layer-2 table: room and buckets, what the chip does on its own (learning, moves,
// aging, link loss), where the bridging stage sends packets, and remote (VXLAN) entries. Secure
// (802.1X) ports are the mac-dot1x example's.
#include <set>

#include "SimTestSupport.h"
#include "Zol/Json.h"

namespace {

using namespace simtest;
using Bridging::EntryType;
using Nepo::IpAddr;
using sim::MacKey;
using sim::VlanMembership;

MacKey key(uint16_t vlan, uint64_t n) { return MacKey{vlan, mac(n)}; }
IpAddr ip(std::string_view text) { return IpAddr::fromString(text); }
EthAddr const all = EthAddr::broadcast();

// A chip with a settable clock and every report of its listener, as "+vlan 10 ... Ethernet1" or
// "-vlan 10 ...".
struct Bench {
  sim::Chip chip{sim::Chip::Config{1, 8}};
  sim::MacTable& t = chip.macs();
  double now = 0;
  std::vector<std::string> events;
  Bench() {
    chip.timeSourceIs([this] { return now; });
    t.listenerIs(
        [this](MacKey const& k, sim::MacEntry const* e) {
          events.push_back(e ? "+" + k.text() + " " + e->intf.stringValue() : "-" + k.text());
        },
        this);
  }
  // Configured dynamic entries age; the other kinds given here do not.
  Status add(MacKey const& k, std::string_view to,
             EntryType type = EntryType::configuredStaticMac) {
    return t.add(k, intf(to), type, type == EntryType::configuredDynamicMac);
  }
  Status addRemote(MacKey const& k, uint32_t nextHop, bool aging = false) {
    return t.addRemote(k, intf("Vxlan1"), nextHop, EntryType::configuredRemoteMac, aging);
  }
  sim::ClassifyResult send(std::string_view port, uint64_t src, EthAddr dst, uint16_t vlan = 0,
                           std::optional<sim::VxlanDecap> decap = {}) {
    sim::Packet p;
    p.intf = intf(port);
    p.vlan = vlan;
    p.srcMac = mac(src);
    p.dstMac = dst;
    p.decap = decap;
    return chip.classify(p);
  }
  // Arrived on Ethernet8 through Vxlan1's tunnel.
  sim::ClassifyResult decap(std::string_view vtep, uint32_t vni, uint64_t src, EthAddr dst) {
    return send("Ethernet8", src, dst, 0, sim::VxlanDecap{intf("Vxlan1"), ip(vtep), vni});
  }
  // Five hosts of vlan that share a bucket, and one in another bucket.
  std::pair<std::vector<uint64_t>, uint64_t> bucketmates(uint16_t vlan) const {
    std::vector<uint64_t> same;
    uint64_t other = 0;
    for (uint64_t n = 1; same.size() < 5 || other == 0; ++n) {
      bool const together = t.bucket(key(vlan, n)) == t.bucket(key(vlan, 1));
      if (together && same.size() < 5) same.push_back(n);
      if (!together && other == 0) other = n;
    }
    return {same, other};
  }
  std::string at(MacKey const& k) const {
    return t.entry(k) ? t.entry(k)->intf.stringValue() : "none";
  }
  void vlans(std::string_view port, VlanMembership const& m) { t.vlanMembershipIs(intf(port), m); }
  void lag(std::string_view name, std::vector<std::pair<std::string_view, bool>> const& members) {
    ASSERT_EQ(chip.lags().create(intf(name)), Status::ok);
    for (auto [port, distributing] : members) {
      ASSERT_EQ(chip.lags().memberIs(intf(name), intf(port), true, {true, distributing}),
                Status::ok);
    }
  }
};

TEST(SimChipMac, AFullBucketRefusesWhileTheTableHasRoom) {
  Bench b;
  b.t.capacityIs(16);  // 4 buckets of 4
  auto const [same, other] = b.bucketmates(1);
  for (int i = 0; i < 4; ++i) ASSERT_EQ(b.add(key(1, same[i]), "Ethernet1"), Status::ok);
  EXPECT_EQ(b.add(key(1, same[4]), "Ethernet1"), Status::full);
  EXPECT_TRUE(b.t.lastFullWasCollision());
  // Neither replacing an entry of the full bucket nor learning into it takes room.
  EXPECT_EQ(b.add(key(1, same[0]), "Ethernet2", EntryType::configuredDynamicMac), Status::ok);
  EXPECT_FALSE(b.send("Ethernet3", same[4], {}).learned);
  EXPECT_EQ(b.t.entry(key(1, same[4])), nullptr);
  EXPECT_EQ(b.add(key(1, other), "Ethernet1"), Status::ok);
  EXPECT_EQ(b.add(key(20, 1), "Vlan20"), Status::failed);
  EXPECT_THAT(b.chip.errors(),
              ElementsAre("mac add " + key(1, same[4]).text() + ": full, hash bucket full",
                          "mac add vlan 20 02:00:00:00:00:01: failed, Vlan20 is not a port, a "
                          "port-channel or the CPU"));
}

TEST(SimChipMac, StaticEntriesOutliveAgingFlushesAndMovesWhileDynamicOnesAreReported) {
  Bench b;
  ASSERT_EQ(b.add(key(10, 1), "Ethernet1"), Status::ok);
  ASSERT_EQ(b.add(key(10, 2), "Ethernet2", EntryType::configuredDynamicMac), Status::ok);
  for (auto port : {"Ethernet3", "Ethernet4"}) b.vlans(port, VlanMembership::access(10));
  b.now = 50;
  EXPECT_TRUE(b.send("Ethernet3", 3, all).learned);
  // The static host seen elsewhere stays; the dynamic one moves, as a learn.
  EXPECT_FALSE(b.send("Ethernet4", 1, all).learned);
  EXPECT_TRUE(b.send("Ethernet4", 2, all).learned);
  EXPECT_EQ(b.t.entry(key(10, 2))->type, EntryType::learnedDynamicMac);
  EXPECT_EQ(b.t.oldestSeen(), 50);
  b.now = 100;
  EXPECT_FALSE(b.send("Ethernet3", 3, mac(1)).learned);  // a refresh
  EXPECT_EQ(b.t.age(349, 300), 0u);
  EXPECT_EQ(b.t.age(350, 300), 1u);
  EXPECT_EQ(b.t.age(10000, 0), 0u);  // aging off
  EXPECT_EQ(b.t.flush(0), 1u);
  EXPECT_EQ(b.t.flushIntf(0, intf("Ethernet1")), 0u);
  // Aging took host 2 and the flush host 3, the static host 1 stays (see the reports). A static
  // entry replacing a dynamic one leaves the reports; the VLAN's removal takes both.
  ASSERT_EQ(b.add(key(10, 5), "Ethernet5", EntryType::configuredDynamicMac), Status::ok);
  ASSERT_EQ(b.add(key(10, 5), "Ethernet5"), Status::ok);
  EXPECT_EQ(b.t.removeVlan(10), 2u);
  EXPECT_THAT(
      b.events,
      ElementsAre("+vlan 10 02:00:00:00:00:02 Ethernet2", "+vlan 10 02:00:00:00:00:03 Ethernet3",
                  "+vlan 10 02:00:00:00:00:02 Ethernet4", "-vlan 10 02:00:00:00:00:02",
                  "-vlan 10 02:00:00:00:00:03", "+vlan 10 02:00:00:00:00:05 Ethernet5",
                  "-vlan 10 02:00:00:00:00:05"));
  EXPECT_EQ(b.t.learns(), 2u);
  EXPECT_EQ(b.t.aged(), 1u);
}

TEST(SimChipMac, AHostAnotherSwitchReportedMovesWhenLearnedHereButNeverAges) {
  Bench b;
  ASSERT_EQ(b.add(key(10, 1), "Ethernet8", EntryType::peerDynamicMac), Status::ok);
  for (auto port : {"Ethernet3", "Ethernet8"}) b.vlans(port, VlanMembership::access(10));
  b.now = 400;
  EXPECT_EQ(b.t.age(400, 300), 0u);
  // Seen where it was programmed: nothing to learn.
  EXPECT_FALSE(b.send("Ethernet8", 1, all).learned);
  EXPECT_THAT(b.events, IsEmpty());
  // Seen on a port of this switch: a station move, reported as a learn.
  EXPECT_TRUE(b.send("Ethernet3", 1, all).learned);
  EXPECT_EQ(b.t.entry(key(10, 1))->type, EntryType::learnedDynamicMac);
  EXPECT_THAT(b.events, ElementsAre("+vlan 10 02:00:00:00:00:01 Ethernet3"));
}

TEST(SimChipMac, LearningFollowsPortAndVlanSwitchesPortChannelsAndLinks) {
  Bench b;
  b.lag("Port-Channel1", {{"Ethernet5", true}});
  b.t.learningIs(intf("Ethernet3"), false);
  b.t.vlanLearningIs(20, false);
  b.vlans("Ethernet1", VlanMembership::trunkOf({1, 20}));
  EXPECT_FALSE(b.send("Ethernet3", 1, {}).learned);
  EXPECT_FALSE(b.send("Ethernet1", 1, {}, 20).learned);
  EXPECT_TRUE(b.send("Ethernet1", 1, {}).learned);
  // Learning off on the new port keeps the host where it was.
  EXPECT_FALSE(b.send("Ethernet3", 1, {}).learned);
  EXPECT_TRUE(b.send("Ethernet5", 2, {}).learned);
  EXPECT_EQ(b.at(key(1, 2)), "Port-Channel1");
  ASSERT_EQ(b.add(key(1, 3), "Ethernet2"), Status::ok);
  EXPECT_TRUE(b.send("Ethernet2", 4, {}).learned);

  // A link going down takes what was learned on it, and nothing leaves by it.
  b.events.clear();
  b.chip.linkIs(intf("Ethernet2"), false);
  EXPECT_THAT(b.events, ElementsAre("-vlan 1 02:00:00:00:00:04"));
  EXPECT_EQ(b.at(key(1, 3)), "Ethernet2");
  EXPECT_THAT(b.send("Ethernet4", 9, mac(3)).egress, IsEmpty());
  EXPECT_EQ(b.t.counters().writes, 3u);  // learning switches and the static entry; learns are not
  rapidjson::Document doc;
  auto const tree = [&](std::vector<std::string> const& path) {
    return Zol::jsonText(*b.chip.lookup(path, doc.GetAllocator()));
  };
  EXPECT_EQ(tree({"mac", "1", "02:00:00:00:00:02"}),
            R"({"intf":"Port-Channel1","type":"learnedDynamicMac","static":false})");
  EXPECT_EQ(tree({"mac", "1", "02:00:00:00:00:03", "static"}), "true");
  EXPECT_EQ(tree({"mac", "learns"}), "4");
}

TEST(SimChipMac, FloodsOneMemberPerPortChannelAndHashesFlowsOverDistributingMembers) {
  Bench b;
  b.lag("Port-Channel1", {{"Ethernet5", true}, {"Ethernet6", true}, {"Ethernet7", false}});
  for (auto port : {"Ethernet1", "Ethernet8"}) b.vlans(port, VlanMembership::access(10));
  b.vlans("Ethernet2", VlanMembership::trunkOf({10, 20}));
  b.vlans("Port-Channel1", VlanMembership::trunkOf({10}));
  // The one member of Port-Channel1 a result leaves by.
  auto const member = [](sim::ClassifyResult const& r) {
    std::vector<IntfId> m;
    for (IntfId const& p : r.egress) {
      if (p >= intf("Ethernet5") && p <= intf("Ethernet7")) m.push_back(p);
    }
    EXPECT_EQ(m.size(), 1u);
    return m.empty() ? IntfId() : m[0];
  };

  sim::ClassifyResult r = b.send("Ethernet1", 1, all);
  EXPECT_TRUE(r.flooded);
  EXPECT_EQ(r.vlan, 10);
  EXPECT_EQ(r.egress.size(), 3u);
  EXPECT_NE(member(r), intf("Ethernet7"));
  r = b.send("Ethernet6", 2, mac(99), 10);
  EXPECT_THAT(r.egress, ElementsAre(intf("Ethernet1"), intf("Ethernet2"), intf("Ethernet8")));

  // Known unicast to the port-channel: one distributing member per flow, the same each time.
  std::set<IntfId> used;
  for (uint64_t src = 10; src < 40; ++src) {
    IntfId const first = member(b.send("Ethernet8", src, mac(2)));
    EXPECT_EQ(member(b.send("Ethernet8", src, mac(2))), first);
    used.insert(first);
  }
  EXPECT_EQ(used, (std::set<IntfId>{intf("Ethernet5"), intf("Ethernet6")}));
  // Back where it came from: dropped. The CPU: no port.
  EXPECT_THAT(b.send("Ethernet7", 51, mac(2), 10).egress, IsEmpty());
  ASSERT_EQ(b.add(key(10, 60), "Cpu", EntryType::routerMac), Status::ok);
  r = b.send("Ethernet1", 1, mac(60));
  EXPECT_TRUE(r.toCpu);
  EXPECT_THAT(r.egress, IsEmpty());

  // A VLAN the port does not carry, tagged or native: dropped before learning.
  r = b.send("Ethernet1", 70, all, 20);
  EXPECT_TRUE(r.vlanDropped);
  EXPECT_FALSE(r.learned);
  EXPECT_THAT(r.egress, IsEmpty());
  EXPECT_TRUE(b.send("Ethernet2", 70, all).vlanDropped);
  // VLAN 1 is carried by the ports left as they were.
  EXPECT_THAT(b.send("Ethernet3", 70, all).egress, ElementsAre(intf("Ethernet4")));
  // Egress packets and blocked ones never reach bridging.
  sim::Packet out;
  out.intf = intf("Ethernet1");
  out.srcMac = mac(71);
  out.direction = Acl::AclDirection::out;
  EXPECT_FALSE(b.chip.classify(out).flooded);
  b.chip.acls().blockIs(intf("Ethernet1"), true);
  EXPECT_FALSE(b.send("Ethernet1", 72, all).learned);
  EXPECT_EQ(b.t.entry(key(10, 71)), nullptr);
}

TEST(SimChipMac, RemoteEntriesTakeSlotsHaveTheirOwnLimitAndOutliveFlushes) {
  Bench b;
  b.t.capacityIs(8);  // 2 buckets of 4
  auto const [same, other] = b.bucketmates(10);
  for (int i = 0; i < 4; ++i) ASSERT_EQ(b.addRemote(key(10, same[i]), 7), Status::ok);
  EXPECT_EQ(b.add(key(10, same[4]), "Ethernet1"), Status::full);
  EXPECT_EQ(b.addRemote(key(10, same[4]), 7), Status::full);
  EXPECT_TRUE(b.t.lastFullWasCollision());
  EXPECT_EQ(b.t.remoteSize(), 4u);

  // At the remote limit only a new remote entry is refused, and not as a collision.
  b.t.remoteCapacityIs(4);
  EXPECT_EQ(b.addRemote(key(10, other), 7), Status::full);
  EXPECT_FALSE(b.t.lastFullWasCollision());
  EXPECT_EQ(b.addRemote(key(10, same[0]), 8), Status::ok);
  EXPECT_EQ(b.add(key(10, other), "Ethernet1", EntryType::configuredDynamicMac), Status::ok);
  ASSERT_EQ(b.add(key(10, same[1]), "Ethernet2"), Status::ok);
  EXPECT_EQ(b.t.remoteSize(), 3u);
  // The local aging entry turned remote goes from the reports' point of view too.
  EXPECT_EQ(b.addRemote(key(10, other), 7, true), Status::ok);
  EXPECT_EQ(b.t.remoteSize(), 4u);
  EXPECT_EQ(b.t.addRemote(key(10, 1), intf("Ethernet1"), 7, EntryType::configuredRemoteMac, false),
            Status::failed);

  // Flushes take what the chip learned, not what the driver put behind tunnels; aging does.
  EXPECT_EQ(b.t.flush(0), 0u);
  EXPECT_EQ(b.t.flushIntf(10, intf("Vxlan1")), 0u);
  EXPECT_EQ(b.t.age(300, 300), 1u);
  EXPECT_EQ(b.t.remove(key(10, same[2])), Status::ok);
  EXPECT_EQ(b.t.removeIntf(intf("Vxlan1")), 2u);
  EXPECT_EQ(b.t.remoteSize(), 0u);
  EXPECT_EQ(b.t.size(), 1u);
  std::string const o = key(10, other).text();
  EXPECT_THAT(b.events, ElementsAre("+" + o + " Ethernet1", "+" + o + " Vxlan1", "-" + o));
}

TEST(SimChipMac, PacketsToRemoteHostsLeaveByTheTunnelInTheVlansVniOrAreDropped) {
  Bench b;
  sim::VxlanTable& vx = b.chip.vxlan();
  for (auto port : {"Ethernet1", "Ethernet2"}) b.vlans(port, VlanMembership::trunkOf({10, 20}));
  ASSERT_EQ(vx.vniIs(10, 10010), Status::ok);
  ASSERT_EQ(vx.tunnelIs(7, {intf("Vxlan1"), {ip("10.0.0.3"), ip("10.0.0.2"), ip("10.0.0.3")}, 3}),
            Status::ok);
  ASSERT_EQ(b.addRemote(key(10, 1), 7), Status::ok);
  ASSERT_EQ(b.addRemote(key(10, 2), 8), Status::ok);
  ASSERT_EQ(b.addRemote(key(20, 1), 7), Status::ok);

  // A flow keeps to one VTEP of the group, whichever port it comes from; flows spread over both.
  std::set<IpAddr> used;
  for (uint64_t src = 10; src < 40; ++src) {
    sim::ClassifyResult const r = b.send("Ethernet1", src, mac(1), 10);
    ASSERT_TRUE(r.vxlan);
    EXPECT_THAT(r.egress, ElementsAre(intf("Vxlan1")));
    EXPECT_EQ(r.vxlan->vni, 10010u);
    EXPECT_EQ(b.send("Ethernet2", src, mac(1), 10).vxlan, r.vxlan);
    used.insert(r.vxlan->vtep);
  }
  EXPECT_EQ(used, (std::set<IpAddr>{ip("10.0.0.2"), ip("10.0.0.3")}));

  // Without the next hop's tunnel or the VLAN's VNI the packet is dropped, never flooded.
  sim::ClassifyResult r = b.send("Ethernet1", 50, mac(2), 10);
  EXPECT_THAT(r.egress, IsEmpty());
  EXPECT_FALSE(r.flooded);
  EXPECT_EQ(r.dropReason, "no tunnel for next hop 8");
  r = b.send("Ethernet1", 50, mac(1), 20);
  EXPECT_THAT(r.egress, IsEmpty());
  EXPECT_EQ(r.dropReason, "vlan 20 has no vni");
  ASSERT_EQ(vx.tunnelIs(8, {intf("Vxlan1"), {ip("10.0.0.4")}, 4}), Status::ok);
  r = b.send("Ethernet1", 50, mac(2), 10);
  EXPECT_EQ(r.vxlan, (sim::VxlanEncap{intf("Vxlan1"), ip("10.0.0.4"), 10010, 4}));
  vx.tunnelDel(8);
  EXPECT_EQ(b.send("Ethernet1", 50, mac(2), 10).dropReason, "no tunnel for next hop 8");
  r = b.send("Ethernet1", 50, mac(99), 10);
  EXPECT_THAT(r.egress, ElementsAre(intf("Ethernet2")));
  EXPECT_FALSE(r.vxlan);

  // A tunnel needs a VTEP to hash to; a VNI belongs to one VLAN at a time.
  EXPECT_EQ(vx.tunnelIs(9, {intf("Vxlan1"), {}, 5}), Status::failed);
  EXPECT_EQ(vx.vniIs(20, 10010), Status::failed);
  EXPECT_EQ(vx.vniIs(10, 10011), Status::ok);
  EXPECT_EQ(vx.vniIs(20, 10010), Status::ok);
  rapidjson::Document doc;
  auto const tree = [&](std::vector<std::string> const& path) {
    EXPECT_TRUE(b.chip.validPath(path, nullptr));
    return Zol::jsonText(*b.chip.lookup(path, doc.GetAllocator()));
  };
  EXPECT_EQ(tree({"vxlan", "tunnels", "7"}),
            R"({"intf":"Vxlan1","vteps":["10.0.0.2","10.0.0.3"],"tunnelId":3})");
  EXPECT_EQ(tree({"mac", "10", "02:00:00:00:00:02", "nextHop"}), "8");
  EXPECT_EQ(tree({"mac", "remote"}), "3");
}

TEST(SimChipMac, LocalLearnsMoveAgingRemoteEntriesAndDecapsulatedSourcesAreOnlyReported) {
  Bench b;
  std::vector<std::string> remote;
  b.t.remoteLearnListenerIs([&](MacKey const& k, IpAddr const& vtep, uint32_t vni) {
    remote.push_back(k.text() + " " + vtep.stringValue() + " " + std::to_string(vni));
  });
  ASSERT_EQ(b.chip.vxlan().vniIs(1, 10001), Status::ok);
  ASSERT_EQ(b.chip.vxlan().tunnelIs(7, {intf("Vxlan1"), {ip("10.0.0.2")}, 3}), Status::ok);

  // A host that came home: learned over an aging remote entry (reported), not over a static one.
  ASSERT_EQ(b.addRemote(key(1, 1), 7, true), Status::ok);
  ASSERT_EQ(b.addRemote(key(1, 2), 7), Status::ok);
  EXPECT_TRUE(b.send("Ethernet1", 1, all).learned);
  EXPECT_FALSE(b.send("Ethernet1", 2, all).learned);
  EXPECT_EQ(b.at(key(1, 1)), "Ethernet1");
  EXPECT_EQ(b.t.entry(key(1, 2))->nextHop, 7u);
  EXPECT_EQ(b.t.remoteSize(), 1u);
  EXPECT_THAT(b.events, ElementsAre("+vlan 1 02:00:00:00:00:01 Vxlan1",
                                    "+vlan 1 02:00:00:00:00:01 Ethernet1"));

  // Remote learning is off until switched on; a decapsulated packet floods the local ports.
  sim::ClassifyResult r = b.decap("10.0.0.2", 10001, 5, all);
  EXPECT_FALSE(r.remoteLearned);
  EXPECT_EQ(r.egress.size(), 8u);
  b.t.remoteLearningIs(true);
  EXPECT_TRUE(b.decap("10.0.0.2", 10001, 5, all).remoteLearned);
  EXPECT_EQ(b.t.entry(key(1, 5)), nullptr);
  // Once programmed, its VTEP's packets refresh it and another VTEP's are a move to report.
  ASSERT_EQ(b.addRemote(key(1, 5), 7, true), Status::ok);
  b.now = 100;
  EXPECT_FALSE(b.decap("10.0.0.2", 10001, 5, all).remoteLearned);
  EXPECT_EQ(b.t.entry(key(1, 5))->lastSeen, 100);
  EXPECT_TRUE(b.decap("10.0.0.9", 10001, 5, all).remoteLearned);
  EXPECT_FALSE(b.decap("10.0.0.9", 10001, 2, all).remoteLearned);  // static: the driver's
  r = b.decap("10.0.0.2", 999, 6, all);
  EXPECT_EQ(r.dropReason, "vni 999 has no vlan");
  EXPECT_THAT(r.egress, IsEmpty());
  EXPECT_FALSE(r.remoteLearned);
  b.t.vlanLearningIs(1, false);
  EXPECT_FALSE(b.decap("10.0.0.2", 10001, 6, all).remoteLearned);
  b.t.vlanLearningIs(1, true);

  // From a tunnel to a local host: its port; to a remote host: nowhere, never back into the
  // overlay.
  EXPECT_THAT(b.decap("10.0.0.2", 10001, 6, mac(1)).egress, ElementsAre(intf("Ethernet1")));
  r = b.decap("10.0.0.2", 10001, 6, mac(2));
  EXPECT_THAT(r.egress, IsEmpty());
  EXPECT_FALSE(r.vxlan);
  EXPECT_EQ(b.t.entry(key(1, 6)), nullptr);
  EXPECT_THAT(remote, ElementsAre("vlan 1 02:00:00:00:00:05 10.0.0.2 10001",
                                  "vlan 1 02:00:00:00:00:05 10.0.0.9 10001",
                                  "vlan 1 02:00:00:00:00:06 10.0.0.2 10001",
                                  "vlan 1 02:00:00:00:00:06 10.0.0.2 10001"));
  EXPECT_EQ(b.t.learns(), 1u);
}

}  // namespace
