#include <set>

#include "Sim/MacAddrHelper.h"
#include "SimTestSupport.h"

namespace {

using namespace simtest;
using Bridging::EntryType;
using Bridging::MacVlanPair;
using enum Vemo::MacProgramStatus;

MacVlanPair pair(uint16_t vlan, uint64_t n) { return MacVlanPair(mac(n), Bridging::VlanId(vlan)); }
IntfId eth(uint32_t n) { return IntfId(Nepo::IntfKind::Ethernet, {n}); }

struct Bench {
  Zol::ActivityLoop loop{Zol::ActivityLoop::TimeMode::simulated};
  Tolm::TimerWheel wheel{loop};
  sim::Chip chip{sim::Chip::Config{1, 8}};
  Zol::Ptr<Vemo::VemoCommonSmData> cd = Vemo::vemoCommonSmDataFactory("cd");
  Zol::Ptr<VemoTypes::MacTable> driver = Zol::make<VemoTypes::MacTable>("driver");
  Zol::Ptr<sim::MacAddrHelper> helper =
      Zol::make<sim::MacAddrHelper>("macHelper", chip, cd, driver);

  bool packet(std::string_view port, uint64_t src, uint16_t vlan = 1) {
    sim::Packet p;
    p.intf = intf(port);
    p.vlan = vlan;
    p.srcMac = mac(src);
    p.dstMac = EthAddr::broadcast();
    return chip.classify(p).learned;
  }
  // The driver table as "vlan 1 02:00:00:00:00:05 Ethernet1 learnedDynamicMac", sorted.
  std::set<std::string> published() const {
    std::set<std::string> out;
    for (auto const& [k, e] : driver->entryAll()) {
      out.insert(sim::MacKey::of(k).text() + " " + e.intf().stringValue() + " " +
                 std::string(Zol::enumName(e.entryType())));
    }
    return out;
  }
  std::vector<std::string> verify() { return verifyTexts(*cd, *helper); }
  // Where the chip has the host, or none.
  IntfId at(MacVlanPair const& k) const {
    auto const* e = chip.macs().entry(sim::MacKey::of(k));
    return e ? e->intf : IntfId();
  }
  // Writes from now on go through the chip's indirect commands, run on the wheel.
  sim::MacIndirectAccess& indirect() {
    helper->hwInit();
    helper->indirectAccessIs(wheel);
    return *helper->indirectAccess();
  }
};

TEST(SimMacAddrHelper, TheDriverTableFollowsLearnsMovesAgingFlushesAndStaticReplacement) {
  Bench b;
  auto& h = *b.helper;
  h.hwInit();
  h.configureAgingTime(300);
  EXPECT_EQ(b.loop.armedTimers(), 0u);
  for (auto port : {"Ethernet3", "Ethernet4"}) {
    b.chip.macs().vlanMembershipIs(intf(port), sim::VlanMembership::trunkOf({1, 20}));
  }
  ASSERT_TRUE(b.packet("Ethernet1", 1));
  ASSERT_TRUE(b.packet("Ethernet1", 2));
  ASSERT_TRUE(b.packet("Ethernet3", 3));
  ASSERT_TRUE(b.packet("Ethernet3", 3, 20));
  ASSERT_TRUE(b.packet("Ethernet2", 2));  // a move
  EXPECT_EQ(h.addHost(pair(1, 4), intf("Ethernet4"), 0, false, EntryType::configuredDynamicMac),
            macProgramSuccess);
  EXPECT_EQ(h.addHost(pair(1, 1), intf("Ethernet1"), 0, true, EntryType::configuredStaticMac),
            macProgramSuccess);
  EXPECT_THAT(b.published(), ElementsAre("vlan 1 02:00:00:00:00:02 Ethernet2 learnedDynamicMac",
                                         "vlan 1 02:00:00:00:00:03 Ethernet3 learnedDynamicMac",
                                         "vlan 1 02:00:00:00:00:04 Ethernet4 configuredDynamicMac",
                                         "vlan 20 02:00:00:00:00:03 Ethernet3 learnedDynamicMac"));

  // Entries seen again stay; the others age at 300 s, and no clock is left once none ages.
  b.loop.advanceBy(200);
  ASSERT_FALSE(b.packet("Ethernet2", 2));
  b.loop.advanceBy(99);
  EXPECT_EQ(b.published().size(), 4u);
  b.loop.advanceBy(1);
  EXPECT_THAT(b.published(), ElementsAre("vlan 1 02:00:00:00:00:02 Ethernet2 learnedDynamicMac"));
  b.loop.advanceBy(200);
  EXPECT_THAT(b.published(), IsEmpty());
  EXPECT_EQ(b.loop.armedTimers(), 0u);
  EXPECT_EQ(b.at(pair(1, 1)), intf("Ethernet1"));

  // Flushes take the dynamic entries of what they name, and the driver table follows.
  for (uint16_t vlan : {1, 20}) {
    ASSERT_TRUE(b.packet("Ethernet3", 5, vlan));
    ASSERT_TRUE(b.packet("Ethernet4", 6, vlan));
  }
  h.flushVlanPort(20, intf("Ethernet3"));
  h.flushVlanLag(0, intf("Ethernet4"));
  EXPECT_THAT(b.published(), ElementsAre("vlan 1 02:00:00:00:00:05 Ethernet3 learnedDynamicMac"));
  h.flushAll();
  h.configureAgingTime(0);
  ASSERT_TRUE(b.packet("Ethernet3", 7));
  b.loop.advanceBy(10000);
  EXPECT_THAT(b.published(), ElementsAre("vlan 1 02:00:00:00:00:07 Ethernet3 learnedDynamicMac"));
  EXPECT_EQ(b.chip.size(Table::mac), 2u);
  EXPECT_EQ(h.calls("beforeHwInit"), 0u);
  EXPECT_EQ(h.calls("aging"), 2u);
}

TEST(SimMacAddrHelper, RefusalsMapToProgramStatusAndACollisionIsTold) {
  Bench b;
  auto& h = *b.helper;
  auto add = [&](uint64_t n, std::string_view to = "Ethernet1") {
    return h.addHost(pair(1, n), intf(to), 0, true, EntryType::configuredStaticMac);
  };
  EXPECT_EQ(add(1), macProgramSuccess);
  EXPECT_EQ(h.calls("beforeHwInit"), 1u);
  h.hwInit();
  b.chip.faultIs(Table::mac, Status::busy, 1);
  EXPECT_EQ(h.removeHost(pair(1, 1), EntryType::configuredStaticMac), macProgramBusy);
  b.chip.faultIs(Table::mac, Status::failed, 1);
  EXPECT_EQ(add(2), macProgramFailed);
  EXPECT_EQ(add(2, "Vlan1"), macProgramFailed);
  b.chip.faultIs(Table::mac, Status::full, 1);
  EXPECT_EQ(add(2), macProgramFull);
  EXPECT_FALSE(h.lastFullIsHashCollision());

  b.chip.capacityIs(Table::mac, 4);  // one bucket
  for (uint64_t n = 2; n <= 4; ++n) ASSERT_EQ(add(n), macProgramSuccess);
  EXPECT_EQ(add(5), macProgramFull);
  EXPECT_FALSE(h.lastFullIsHashCollision());
  b.chip.capacityIs(Table::mac, 7);  // still one bucket, now with room
  EXPECT_EQ(add(5), macProgramFull);
  EXPECT_TRUE(h.lastFullIsHashCollision());
  for (int twice = 0; twice < 2; ++twice) {
    EXPECT_EQ(h.removeHost(pair(1, 4), EntryType::configuredStaticMac), macProgramSuccess);
  }
  EXPECT_EQ(add(5), macProgramSuccess);
  EXPECT_EQ(h.calls("refused"), 6u);
  EXPECT_EQ(h.calls("addHost"), 10u);
}

TEST(SimMacAddrHelper, VerificationLearningAndLinkStateAgreeWithTheChip) {
  Bench b;
  auto& h = *b.helper;
  h.hwInit();
  auto const programmed = Zol::make<VemoTypes::MacTable>("programmed");
  h.programmedTableIs(programmed);
  auto program = [&](MacVlanPair const& k, std::string_view to, EntryType type) {
    programmed->entryIs(k, VemoTypes::MacAddressTableEntry(k, intf(to), type));
    bool const aging = type == EntryType::configuredDynamicMac;
    ASSERT_EQ(h.addHost(k, intf(to), 0, !aging, type), macProgramSuccess);
  };
  program(pair(1, 1), "Ethernet1", EntryType::configuredStaticMac);
  program(pair(1, 2), "Cpu", EntryType::routerMac);
  program(pair(10, 3), "Port-Channel2", EntryType::configuredDynamicMac);
  ASSERT_TRUE(b.packet("Ethernet5", 9));  // learned entries are the chip's own
  EXPECT_THAT(b.verify(), IsEmpty());

  auto const key = [](MacVlanPair const& k) { return sim::MacKey::of(k); };
  ASSERT_EQ(b.chip.macs().remove(key(pair(1, 1))), Status::ok);
  ASSERT_EQ(b.chip.macs().add(key(pair(1, 2)), intf("Ethernet2"), EntryType::routerMac, false),
            Status::ok);
  ASSERT_EQ(
      b.chip.macs().add(key(pair(1, 8)), intf("Ethernet3"), EntryType::configuredStaticMac, false),
      Status::ok);
  EXPECT_THAT(b.verify(),
              ElementsAre("vlan 1 02:00:00:00:00:01: programmed behind Ethernet1 "
                          "(configuredStaticMac), not in hardware",
                          "vlan 1 02:00:00:00:00:02: programmed behind Cpu (routerMac), hardware "
                          "has Ethernet2 (routerMac)",
                          "vlan 1 02:00:00:00:00:08: static in hardware behind Ethernet3 "
                          "(configuredStaticMac), not programmed"));

  h.enableLearning(intf("Ethernet1"), false);
  h.enableLearningOnVlan(Bridging::VlanId(10), false);
  EXPECT_FALSE(h.verifyLearning(intf("Ethernet1"), true));
  EXPECT_TRUE(h.verifyLearning(intf("Ethernet2"), true));
  EXPECT_FALSE(h.verifyLearningOnVlan(Bridging::VlanId(10), true));

  // A dynamic entry programmed behind a port whose link is down goes at start.
  b.chip.linkIs(intf("Ethernet6"), false);
  program(pair(1, 6), "Ethernet6", EntryType::configuredDynamicMac);
  ASSERT_EQ(b.published().size(), 3u);
  h.handleLinkStateAtInit();
  EXPECT_EQ(b.at(pair(1, 6)), IntfId());
  EXPECT_EQ(b.published().size(), 2u);
}

TEST(SimMacAddrHelper, ANewHelperPublishesWhatTheChipKeptAndTheOldOneLetsGo) {
  Bench b;
  ASSERT_TRUE(b.packet("Ethernet1", 1));
  ASSERT_TRUE(b.packet("Ethernet1", 2));
  auto const driver = Zol::make<VemoTypes::MacTable>("driver2");
  // A stale entry the chip no longer holds is taken out.
  driver->entryIs(pair(1, 7), VemoTypes::MacAddressTableEntry(pair(1, 7), intf("Ethernet7"),
                                                              EntryType::learnedDynamicMac));
  auto second = Zol::make<sim::MacAddrHelper>("macHelper2", b.chip, b.cd, driver);
  b.helper = nullptr;
  ASSERT_TRUE(b.packet("Ethernet2", 1));
  EXPECT_EQ(driver->entrySize(), 2u);
  EXPECT_EQ(driver->entry(pair(1, 1)).intf(), intf("Ethernet2"));
  EXPECT_EQ(b.driver->entry(pair(1, 1)).intf(), intf("Ethernet1"));
}

TEST(SimMacAddrHelper, RemoteHostsAreWrittenCountedAndVerifiedButNeverPublished) {
  Bench b;
  auto& h = *b.helper;
  h.hwInit();
  auto const programmed = Zol::make<VemoTypes::MacTable>("programmed");
  h.programmedTableIs(programmed);
  IntfId const vti = intf("Vxlan1");
  auto remote = [&](MacVlanPair const& k, uint32_t nextHop, bool staticEntry) {
    return h.addRemoteHost(
        k, vti, nextHop, 0, staticEntry,
        staticEntry ? EntryType::configuredRemoteMac : EntryType::learnedRemoteMac, false);
  };
  EXPECT_EQ(remote(pair(1, 1), 7, true), macProgramSuccess);
  ASSERT_TRUE(b.packet("Ethernet1", 2));
  EXPECT_EQ(remote(pair(1, 2), 8, false), macProgramSuccess);  // the learned host moved away
  EXPECT_THAT(b.published(), IsEmpty());
  // Written again as it is: an operation, not a write.
  sim::Counters const before = b.chip.counters(Table::mac);
  EXPECT_EQ(remote(pair(1, 2), 8, false), macProgramSuccess);
  EXPECT_EQ(b.chip.counters(Table::mac).writes, before.writes);
  EXPECT_EQ(b.chip.counters(Table::mac).operations, before.operations + 1);

  EXPECT_TRUE(h.verifyRemoteHost(pair(1, 1), 7));
  EXPECT_FALSE(h.verifyRemoteHost(pair(1, 1), 8));
  EXPECT_FALSE(h.verifyRemoteHost(pair(1, 3), 7));
  EXPECT_TRUE(h.verifyNumRemoteHost(2));
  EXPECT_FALSE(h.verifyNumRemoteHost(3));
  // Remote entries are no strays; a local entry the SM programmed is still checked.
  programmed->entryIs(pair(1, 3), VemoTypes::MacAddressTableEntry(pair(1, 3), intf("Ethernet3"),
                                                                  EntryType::configuredStaticMac));
  EXPECT_EQ(remote(pair(1, 3), 7, true), macProgramSuccess);
  EXPECT_THAT(b.verify(), ElementsAre("vlan 1 02:00:00:00:00:03: programmed behind Ethernet3 "
                                      "(configuredStaticMac), hardware has Vxlan1 "
                                      "(configuredRemoteMac)"));

  // The chip's limit refuses a new remote host, not as a collision.
  h.maxRemoteMacsIs(3);
  EXPECT_EQ(remote(pair(1, 4), 7, true), macProgramFull);
  EXPECT_FALSE(h.lastFullIsHashCollision());
  EXPECT_EQ(h.removeHost(pair(1, 1), EntryType::configuredRemoteMac), macProgramSuccess);
  EXPECT_EQ(remote(pair(1, 4), 7, true), macProgramSuccess);

  // A flush leaves them; the aging one ages, and its going is no driver event either.
  h.configureAgingTime(300);
  h.flushAll();
  EXPECT_TRUE(h.verifyNumRemoteHost(3));
  b.loop.advanceBy(300);
  EXPECT_FALSE(h.verifyRemoteHost(pair(1, 2), 8));
  EXPECT_TRUE(h.verifyNumRemoteHost(2));
  EXPECT_THAT(b.published(), IsEmpty());
  EXPECT_EQ(h.calls("refused"), 1u);
}

TEST(SimMacAddrHelper, AHostBackFromATunnelIsOneLocalWriteOrNoneWhenTheChipLearnedIt) {
  Bench b;
  auto& h = *b.helper;
  h.hwInit();
  for (uint64_t n : {1, 2, 3}) {
    ASSERT_EQ(h.addRemoteHost(pair(1, n), intf("Vxlan1"), 7, 0, n == 3, EntryType::learnedRemoteMac,
                              false),
              macProgramSuccess);
  }
  auto const home = [&](uint64_t n, std::string_view to) {
    return h.addLearntLocalAndRemoveRemoteHost(pair(1, n), intf(to), EntryType::learnedDynamicMac);
  };
  sim::Counters before = b.chip.counters(Table::mac);
  EXPECT_EQ(home(1, "Ethernet2"), macProgramSuccess);
  EXPECT_EQ(b.chip.counters(Table::mac).writes, before.writes + 1);

  // The chip saw the host first: nothing to write, and its age is left as it was.
  b.loop.advanceBy(10);
  ASSERT_TRUE(b.packet("Ethernet3", 2));
  b.loop.advanceBy(10);
  before = b.chip.counters(Table::mac);
  EXPECT_EQ(home(2, "Ethernet3"), macProgramSuccess);
  EXPECT_EQ(b.chip.counters(Table::mac).operations, before.operations);
  EXPECT_EQ(b.chip.macs().entry(sim::MacKey::of(pair(1, 2)))->lastSeen, 10);
  // Learned elsewhere than the SM says: written where the SM says.
  EXPECT_EQ(home(2, "Ethernet4"), macProgramSuccess);
  EXPECT_EQ(b.at(pair(1, 2)), intf("Ethernet4"));
  EXPECT_EQ(home(3, "Ethernet5"), macProgramSuccess);  // a static remote entry too
  EXPECT_TRUE(h.verifyNumRemoteHost(0));
  EXPECT_THAT(b.published(), ElementsAre("vlan 1 02:00:00:00:00:01 Ethernet2 learnedDynamicMac",
                                         "vlan 1 02:00:00:00:00:02 Ethernet4 learnedDynamicMac",
                                         "vlan 1 02:00:00:00:00:03 Ethernet5 learnedDynamicMac"));
}

// The command delay, overflow for want of room and lost commands are the mac-indirect-access
// example's.
TEST(SimMacIndirectAccess, CommandsOfOneKeyRunInOrderAndSurviveLateAndRefusedAnswers) {
  using Fault = sim::MacIndirectAccess::Fault;
  Bench b;
  auto& io = b.indirect();
  auto const add = [&](uint64_t n, uint32_t port) {
    return b.helper->addHost(pair(10, n), eth(port), 0, true, EntryType::configuredStaticMac);
  };
  auto const at = [&](uint64_t n) { return b.at(pair(10, n)); };
  auto const idle = [&] { return io.pendingSize() + io.inProgressSize() == 0; };
  // Accepted at once, held by the chip once the command has run.
  EXPECT_EQ(add(1, 1), macProgramSuccess);
  EXPECT_EQ(at(1), IntfId());
  b.loop.advanceBy(0.01);
  EXPECT_EQ(at(1), eth(1));
  // Two writes of one key in flight: they run in the order they were started.
  add(1, 2);
  b.loop.runUntilIdle();
  add(1, 3);
  b.loop.advanceBy(0.2);
  EXPECT_EQ(at(1), eth(3));
  EXPECT_TRUE(idle());

  // A late answer is not waited for; a parity error is retried.
  add(2, 4);
  b.loop.advanceBy(0.2);
  ASSERT_EQ(at(2), eth(4));
  io.faultIs(Fault::late, 1);
  b.helper->removeHost(pair(10, 2), EntryType::configuredStaticMac);
  b.loop.advanceBy(0.01);
  EXPECT_EQ(at(2), IntfId());
  io.faultIs(Fault::parity, 1);
  add(3, 5);
  b.loop.advanceBy(5);
  EXPECT_EQ(at(3), eth(5));
  EXPECT_TRUE(idle());
}

TEST(SimMacIndirectAccess, ARemoteWriteWaitsForTheCommandsOfItsKeySoThatNoneUndoesIt) {
  Bench b;
  auto& io = b.indirect();
  auto& h = *b.helper;
  IntfId const vti(Nepo::IntfKind::Vxlan, {1});
  auto const remote = [&](uint64_t n) {
    return h.addRemoteHost(pair(10, n), vti, 7, 0, true, EntryType::configuredRemoteMac, false);
  };
  auto const at = [&](uint64_t n) { return b.at(pair(10, n)); };
  h.addHost(pair(10, 1), eth(1), 0, true, EntryType::configuredStaticMac);
  EXPECT_EQ(remote(1), macProgramBusy);
  EXPECT_EQ(remote(2), macProgramSuccess);  // another key goes at once
  // Run, but in progress until the programmer polls it.
  b.loop.advanceBy(0.01);
  EXPECT_EQ(at(1), eth(1));
  EXPECT_EQ(remote(1), macProgramBusy);
  b.loop.advanceBy(0.2);
  EXPECT_EQ(remote(1), macProgramSuccess);
  b.loop.advanceBy(2);
  EXPECT_EQ(at(1), vti);

  // A local write parked for room is withdrawn, so that it cannot land over the remote entry.
  b.chip.capacityIs(Table::mac, b.chip.macs().size());
  h.addHost(pair(10, 3), eth(3), 0, true, EntryType::configuredStaticMac);
  b.loop.advanceBy(1);
  ASSERT_EQ(io.overflowSize(), 1u);
  EXPECT_EQ(remote(3), macProgramBusy);
  EXPECT_EQ(io.overflowSize(), 0u);
  b.chip.capacityIs(Table::mac, 1000);
  b.loop.advanceBy(0.2);
  EXPECT_EQ(remote(3), macProgramSuccess);
  b.loop.advanceBy(io.updateOverflowAddressDelay() + 1);
  EXPECT_EQ(at(3), vti);

  // Coming home goes through the commands, like any local write.
  EXPECT_EQ(h.addLearntLocalAndRemoveRemoteHost(pair(10, 3), eth(4), EntryType::learnedDynamicMac),
            macProgramSuccess);
  EXPECT_EQ(at(3), vti);
  b.loop.advanceBy(0.2);
  EXPECT_EQ(at(3), eth(4));
  EXPECT_EQ(io.pendingSize() + io.inProgressSize(), 0u);
}

}  // namespace
