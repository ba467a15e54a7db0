// The MAC SM's remote, MLAG peer, 802.1X and failover sources over the recording helper.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "MacTestSupport.h"
#include "Zol/Syslog.h"

namespace mactest {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Vemo::SwTunnelGroupId;

IntfId vxlan1() { return IntfId(Nepo::IntfKind::Vxlan, {1}); }
Nepo::IpAddr ip(char const* text) { return Nepo::IpAddr::fromString(text); }

class MacSourcesTest : public MacSmTest {
 protected:
  MacSourcesTest() {
    // VLAN 10 is carried by Vxlan1.
    remoteMacInfo->vniInfo()->validVlanVniMapIs(
        Bridging::VlanId(10),
        Vemo::VXLAN::VniEntry(Vxlan::VniExtOrNone(10010), Bridging::VlanId(10), vxlan1()));
  }

  SwTunnelGroupId vtep(char const* addr) { return groups->getSwTunnelGroupIdForTunnelIp(ip(addr)); }
  // The platform programmed the VTEP's tunnel: next hop nextHop.
  void tunnelUp(char const* addr, uint32_t nextHop, uint32_t tunnel = 1) {
    auto s = vtepStatus->vtepStatus(vxlan1());
    if (!s) s = vtepStatus->vtepStatusIs(vxlan1());
    s->hwVtepInfoIs(vtep(addr), Vemo::VXLAN::HwVtepInfo(vtep(addr), Vemo::VemoTunnelId(tunnel),
                                                        Vemo::VemoNextHopId(nextHop)));
  }
  void evpn(MacVlanPair const& key, char const* addr, uint32_t moves, double time = 0) {
    evpnMacs->remoteMacIs(
        key, Bridging::RemoteMacEntry(ip(addr), EntryType::evpnDynamicRemoteMac, moves, time));
  }
  uint32_t refs(Zol::Ptr<Vemo::VXLAN::RefcountTable> const& t, uint64_t index) const {
    return t->refcountHas(index) ? t->refcount(index).count() : 0;
  }
  uint32_t groupRefs(SwTunnelGroupId g) const {
    return refs(groups->data()->refcountTable(), g.value());
  }
  std::string remoteStatus(MacVlanPair const& key) const {
    auto const table = remoteMacInfo->hostStatusTable();
    if (!table->statusEntryHas(key)) return "none";
    auto const& e = table->statusEntry(key);
    return e.intf().stringValue() + " group " + std::to_string(e.swTunnelGroupId().value()) +
           " nh " + std::to_string(e.nextHopId().value());
  }
  void mlagUp(IntfId const& peerLink) {
    mlag->peerLinkIntfIs(peerLink);
    mlag->stateIs(Mlag::State::statePrimary);
  }
  void peerHost(MacVlanPair const& key, IntfId const& intf, uint32_t moves, double time,
                EntryType type = EntryType::learnedDynamicMac) {
    mlagHosts->hostEntryIs(key, Mlag::HostEntry(intf, type, moves, time, Nepo::IpAddr()));
  }
};

TEST_F(MacSourcesTest, RemoteMacsWaitForTheirNextHopAndHoldOneReferenceEach) {
  start();
  helper->take();
  SwTunnelGroupId const g = vtep("10.0.0.2");
  evpn(host(1), "10.0.0.2", 0);
  evpn(host(2), "10.0.0.2", 0);
  loop.runUntilIdle();
  // No next hop yet: nothing is written, nothing is claimed.
  EXPECT_THAT(helper->take(), IsEmpty());
  EXPECT_EQ(sm->waitingForNextHop(), 2u);
  EXPECT_EQ(fdb(host(1)), "none");

  tunnelUp("10.0.0.2", 7);
  loop.runUntilIdle();
  EXPECT_THAT(
      helper->take(),
      ElementsAre("addRemote 00:00:00:00:00:01/10 Vxlan1 nh 7 evpnDynamicRemoteMac static",
                  "addRemote 00:00:00:00:00:02/10 Vxlan1 nh 7 evpnDynamicRemoteMac static"));
  EXPECT_EQ(sm->waitingForNextHop(), 0u);
  EXPECT_EQ(fdb(host(1)), "Vxlan1 evpnDynamicRemoteMac moves 0");
  EXPECT_EQ(remoteStatus(host(1)), "Vxlan1 group " + std::to_string(g.value()) + " nh 7");
  EXPECT_EQ(refs(remoteMacInfo->nextHopIdRefcountTable(), 7), 2u);
  EXPECT_EQ(refs(remoteMacInfo->vlanRefcountTable(), 10), 2u);
  EXPECT_EQ(groupRefs(g), 2u);
  EXPECT_TRUE(remoteMacInfo->vlanBasedHostTableIndex(10)->macAddrListHas(host(2).macAddr()));
  EXPECT_EQ(verify("remote"), 0u);

  // A new next hop for the group: the MACs follow it, the references move with them.
  tunnelUp("10.0.0.2", 9);
  loop.runUntilIdle();
  EXPECT_EQ(helper->take().size(), 2u);
  EXPECT_EQ(refs(remoteMacInfo->nextHopIdRefcountTable(), 7), 0u);
  EXPECT_EQ(refs(remoteMacInfo->nextHopIdRefcountTable(), 9), 2u);

  // A reference taken behind the SM's back is found.
  remoteMacInfo->nextHopIdRefcountTable()->incRefcount(9);
  EXPECT_EQ(verify("stray"), 1u);
  remoteMacInfo->nextHopIdRefcountTable()->decRefcount(9);

  evpnMacs->remoteMacDel(host(1));
  evpnMacs->remoteMacDel(host(2));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), ElementsAre("remove 00:00:00:00:00:01/10 evpnDynamicRemoteMac",
                                          "remove 00:00:00:00:00:02/10 evpnDynamicRemoteMac"));
  EXPECT_EQ(groupRefs(g), 0u);
  EXPECT_FALSE(remoteMacInfo->nextHopIdRefcountTable()->refcountHas(9));
  EXPECT_FALSE(remoteMacInfo->vlanRefcountTable()->refcountHas(10));
  EXPECT_EQ(remoteMacInfo->vlanBasedHostTableIndexSize(), 0u);
  EXPECT_EQ(verify("gone"), 0u);

  // A remote MAC configured on the tunnel interface in a VLAN it does not carry goes nowhere.
  vxlanConfig->vxlanConfigIs(vxlan1())->remoteMacIs(host(9, 20), ip("10.0.0.2"));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), IsEmpty());
  EXPECT_EQ(fdb(host(9, 20)), "none");
}

TEST_F(MacSourcesTest, AHostMovesFromATunnelToAPortAndBackByItsMoveCount) {
  tunnelUp("10.0.0.2", 7);
  start();
  helper->take();
  TraceOn trace("MacAddrSm/6");
  evpn(host(1), "10.0.0.2", 3);
  loop.runUntilIdle();
  helper->take();
  // The chip learns it locally: one more move than EVPN knows, so the port wins, and the
  // remote entry is replaced in one write.
  learn(host(1), eth(2));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), ElementsAre("localForRemote 00:00:00:00:00:01/10 Ethernet2"));
  EXPECT_TRUE(trace.capture.contains(" Detected remote to local move (1). "));
  EXPECT_EQ(fdb(host(1)), "Ethernet2 learnedDynamicMac moves 4");
  EXPECT_EQ(remoteStatus(host(1)), "none");
  EXPECT_EQ(groupRefs(vtep("10.0.0.2")), 0u);
  // Offered to the RIB with its moves, for EVPN to announce.
  ASSERT_TRUE(l2RibIn->hostHas(host(1)));
  EXPECT_EQ(l2RibIn->host(host(1)).moveCount(), 4u);

  // A stale announcement does not pull it back; a newer one does.
  evpn(host(1), "10.0.0.2", 4);
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), IsEmpty());
  evpn(host(1), "10.0.0.2", 5);
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), ElementsAre("addRemote 00:00:00:00:00:01/10 Vxlan1 nh 7 "
                                          "evpnDynamicRemoteMac static replacesLocal"));
  EXPECT_TRUE(trace.capture.contains(" Detected local to remote move (2). "));
  EXPECT_FALSE(l2RibIn->hostHas(host(1)));
  EXPECT_EQ(verify("moved"), 0u);
}

TEST_F(MacSourcesTest, DataPlaneLearnsAreProgrammedAgedAndIgnoredInControllerMode) {
  tunnelUp("10.0.0.3", 8);
  start();
  helper->take();
  TraceOn trace("MacAddrSm/6");
  auto hostTable = remoteMacInfo->hostTable();
  auto remoteLearn = [&](MacVlanPair const& key, char const* addr) {
    hostTable->entryIs(key, Vemo::VXLAN::HostEntry(
                                key, vxlan1(), vtep(addr), EntryType::learnedRemoteMac, 1.0, 0,
                                Vemo::VXLAN::HostEntryHwState(), Vemo::VXLAN::HostEntryOper::add));
  };
  remoteLearn(host(5), "10.0.0.3");
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(),
              ElementsAre("addRemote 00:00:00:00:00:05/10 Vxlan1 nh 8 learnedRemoteMac dynamic"));
  EXPECT_EQ(fdb(host(5)), "Vxlan1 learnedRemoteMac moves 0");
  // The VXLAN agent ages it: the SM takes it out of hardware.
  hostTable->entryDel(host(5));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), ElementsAre("remove 00:00:00:00:00:05/10 learnedRemoteMac"));

  remoteMacInfo->useReceivedHostTableIs(true);
  remoteLearn(host(7), "10.0.0.3");
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), IsEmpty());
  EXPECT_TRUE(
      trace.capture.contains("Ignore dynamically learnt remote macs in controller client mode"));
  // The controller's word is taken, with its moves.
  remoteMacInfo->receivedHostTable()->receivedEntryIs(
      host(7), Vemo::VXLAN::ReceivedEntry(host(7), vxlan1(), EntryType::receivedRemoteMac,
                                          ip("10.0.0.3"), Tolm::Seqno32(6), 1.0, 2, false));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(),
              ElementsAre("addRemote 00:00:00:00:00:07/10 Vxlan1 nh 8 receivedRemoteMac static"));
  EXPECT_EQ(fdb(host(7)), "Vxlan1 receivedRemoteMac moves 6");
}

TEST_F(MacSourcesTest, RemoteMacsBeyondThePlatformMaximumWaitForRoom) {
  helper->maxRemote = 1;
  tunnelUp("10.0.0.2", 7);
  start();
  helper->take();
  evpn(host(1), "10.0.0.2", 0);
  evpn(host(2), "10.0.0.2", 0);
  loop.runUntilIdle();
  EXPECT_EQ(helper->take().size(), 1u);
  EXPECT_EQ(sm->fullEntriesSize(), 1u);
  evpnMacs->remoteMacDel(host(1));
  loop.runUntilIdle();
  EXPECT_THAT(
      helper->take(),
      ElementsAre("remove 00:00:00:00:00:01/10 evpnDynamicRemoteMac",
                  "addRemote 00:00:00:00:00:02/10 Vxlan1 nh 7 evpnDynamicRemoteMac static"));
  EXPECT_EQ(sm->fullEntriesSize(), 0u);
}

TEST_F(MacSourcesTest, RibHostsGoThroughTheirObjectsHardwareId) {
  start();
  helper->take();
  TraceOn trace("MacAddrSm/6");
  L2Rib::ObjTuple const tuple(L2Rib::ObjType::vxlanTunnelObj, 42);
  l2RibOut->hostIs(host(3),
                   L2Rib::HostOutputEntry(L2Rib::Source::sourceBgp, L2Rib::DestType::destVxlan,
                                          IntfId(), tuple, 1, 1.0));
  // A host resolving to a local port is a local entry.
  l2RibOut->hostIs(
      host(4), L2Rib::HostOutputEntry(L2Rib::Source::sourceBgp, L2Rib::DestType::destIntf, eth(4),
                                      L2Rib::ObjTuple(), 0, 1.0));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(),
              ElementsAre("add 00:00:00:00:00:04/10 Ethernet4 evpnIntfDynamicMac static"));
  EXPECT_TRUE(trace.capture.contains(" Programming evpn received mac as local mac: "));
  hwIds->hwIdIs(tuple, 77);
  loop.runUntilIdle();
  EXPECT_THAT(
      helper->take(),
      ElementsAre("addRemote 00:00:00:00:00:03/10 Vxlan1 nh 77 evpnDynamicRemoteMac static"));
  // Its hardware id goes: so does the MAC.
  hwIds->hwIdDel(tuple);
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), ElementsAre("remove 00:00:00:00:00:03/10 evpnDynamicRemoteMac"));
  EXPECT_TRUE(trace.capture.contains(" hwId missing changing action to remove"));
  EXPECT_EQ(verify("rib"), 0u);
}

TEST_F(MacSourcesTest, ThePeersHostTakesOverWhenTheLocalOneAgesAndPeerLinkLearnsGo) {
  cd->lagToPortIs(po(1), Vemo::VemoLagPortList());
  mlag->intfStatusIs(po(1),
                     Mlag::IntfStatus(Mlag::IntfState::intfStateUp, Mlag::IntfState::intfStateUp));
  mlagUp(eth(8));
  start();
  helper->take();
  TraceOn trace("MacAddrSm/6");
  // The peer learned the host on the MLAG interface, which is up here too.
  peerHost(host(1), po(1), 0, 1000.0);
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(),
              ElementsAre("add 00:00:00:00:00:01/10 Port-Channel1 peerDynamicMac static"));
  // It moves to a local port: the local learn is more recent.
  loop.advanceBy(1);
  learn(host(1), eth(2));
  loop.runUntilIdle();
  EXPECT_TRUE(trace.capture.contains("Local dynamic MAC is more recent"));
  EXPECT_EQ(fdb(host(1)), "Ethernet2 learnedDynamicMac moves 1");
  // It ages here: the peer's entry takes over.
  age(host(1));
  loop.runUntilIdle();
  EXPECT_TRUE(trace.capture.contains("Entry aged, using peer dynamic entry"));
  EXPECT_EQ(fdb(host(1)), "Port-Channel1 peerDynamicMac moves 0");

  // This side of the MLAG interface goes down: its peer hosts go behind the peer link.
  helper->take();
  mlag->intfStatusIs(
      po(1), Mlag::IntfStatus(Mlag::IntfState::intfStateDown, Mlag::IntfState::intfStateUp));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(),
              ElementsAre("add 00:00:00:00:00:01/10 Ethernet8 peerDynamicMac static"));

  // A learn on the peer link is a packet that went round: it goes.
  learn(host(2), eth(8));
  loop.runUntilIdle();
  EXPECT_TRUE(trace.capture.contains("Entry was learned on peer-link. Deleting this entry."));
  EXPECT_THAT(helper->take(), ElementsAre("remove 00:00:00:00:00:02/10 learnedDynamicMac"));
  // Controller kinds are never taken from the peer.
  peerHost(host(3), po(1), 0, 1.0, EntryType::receivedRemoteMac);
  loop.runUntilIdle();
  EXPECT_EQ(fdb(host(3)), "none");
  EXPECT_EQ(verify("mlag"), 0u);

  // The peering goes: its hosts go with it.
  mlag->stateIs(Mlag::State::stateInactive);
  loop.runUntilIdle();
  EXPECT_EQ(fdb(host(1)), "none");
}

TEST_F(MacSourcesTest, MlagWalksResumeFromTheirBookmarks) {
  cd->lagToPortIs(po(1), Vemo::VemoLagPortList());
  mlag->intfStatusIs(po(1),
                     Mlag::IntfStatus(Mlag::IntfState::intfStateUp, Mlag::IntfState::intfStateUp));
  constexpr uint32_t kHosts = 400;
  for (uint32_t n = 1; n <= kHosts; ++n) peerHost(host(n), po(1), 0, 1.0);
  start();
  helper->take();
  TraceOn trace("MacAddrSm/8-9");
  mlagUp(eth(8));
  // Every read of the clock costs 1 ms: the 100 ms budget holds part of the table.
  loop.autoAdvanceIs(0.001);
  loop.runUntilIdle();
  EXPECT_GT(trace.capture.count("handleMlagHostTableTimer: time slice spent"), 1u);
  // Each host was taken once: the walk went on where it stopped.
  for (uint32_t n = 1; n <= kHosts; n += 37) {
    EXPECT_EQ(trace.capture.count("handleMlagHostTableEntry(Bridging::MacVlanPair const&) " +
                                  host(n).macAddr().stringValue() + " vlan 10"),
              1u)
        << n;
  }
  // Learning goes off on the peer link, and every host is written once.
  std::vector<std::string> const first = helper->take();
  EXPECT_EQ(std::count_if(first.begin(), first.end(),
                          [](std::string const& c) { return c.starts_with("add "); }),
            kHosts);
  EXPECT_FALSE(sm->mlagHostTableBookmark());

  // One interface's walk, in 10 ms slices.
  trace.capture.clear();
  mlag->intfStatusIs(
      po(1), Mlag::IntfStatus(Mlag::IntfState::intfStateDown, Mlag::IntfState::intfStateUp));
  loop.runUntilIdle();
  loop.autoAdvanceIs(0);
  EXPECT_GT(trace.capture.count("handleMlagIntfHostTableTimer: time slice spent"), 1u);
  std::vector<std::string> const calls = helper->take();
  ASSERT_EQ(calls.size(), kHosts);
  EXPECT_EQ(calls.front(), "add 00:00:00:00:00:01/10 Ethernet8 peerDynamicMac static");
  EXPECT_EQ(sm->mlagIntfWalksPending(), 0u);
}

TEST_F(MacSourcesTest, Dot1xPinsAuthorisedHostsAndRestrictedPortsIgnoreOthers) {
  dot1xStatus->enabledIs(true);
  dot1xStatus->intfStatusIs(eth(3), Dot1x::IntfStatus(Dot1x::HostMode::singleHost, true));
  start();
  helper->take();
  TraceOn trace("MacAddrSm/6");
  EXPECT_EQ(dot1xHelper->modes[eth(3)], Dot1x::HostMode::singleHost);
  dot1xHosts->hostIs(host(1), Dot1x::HostEntry(eth(3)));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(),
              ElementsAre("add 00:00:00:00:00:01/10 Ethernet3 dot1xAuthorizedMac static"));
  // A second host on the single-host port is not taken.
  learn(host(2), eth(3));
  loop.runUntilIdle();
  EXPECT_EQ(fdb(host(2)), "none");
  EXPECT_TRUE(trace.capture.contains(
      "Action is ignoreLearnt_ since interface is Dot1x singleHost or restrictedHost"));
  // The authorised host seen elsewhere is a spoof: it stays on its port.
  learn(host(1), eth(4));
  loop.runUntilIdle();
  EXPECT_EQ(fdb(host(1)), "Ethernet3 dot1xAuthorizedMac moves 0");
  // 802.1X off: every port is multi-host.
  dot1xStatus->enabledIs(false);
  loop.runUntilIdle();
  EXPECT_EQ(dot1xHelper->modes[eth(3)], Dot1x::HostMode::multiHost);
  age(host(2));
  learn(host(2), eth(3));
  loop.runUntilIdle();
  EXPECT_EQ(fdb(host(2)), "Ethernet3 learnedDynamicMac moves 0");
}

TEST_F(MacSourcesTest, FailedServersGoToTheCpuUntilTheyRecover) {
  start();
  learn(host(1), eth(1));
  loop.runUntilIdle();
  helper->take();
  TraceOn trace("MacAddrSm/6");
  fsf->failedServerIs(host(1), eth(1));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(),
              ElementsAre("add 00:00:00:00:00:01/10 Cpu fsfFailedServerMac static"));
  age(host(1));
  loop.runUntilIdle();
  EXPECT_TRUE(trace.capture.contains("Ignoring aging event for FSF entry "));
  EXPECT_EQ(fdb(host(1)), "Cpu fsfFailedServerMac moves 1");
  fsf->failedServerDel(host(1));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), ElementsAre("remove 00:00:00:00:00:01/10 fsfFailedServerMac"));
}

TEST_F(MacSourcesTest, HitlessRestartKeepsWhatHardwareHoldsAndRemovesWhatNobodyClaims) {
  tunnelUp("10.0.0.2", 7, 3);
  auto boot = Zol::make<Vemo::VXLAN::VxlanBootStatus>("boot");
  boot->vxlanHitlessRestartSupportedIs(true);
  Vemo::VXLAN::HwVtepInfo const held(vtep("10.0.0.2"), Vemo::VemoTunnelId(3),
                                     Vemo::VemoNextHopId(7));
  boot->recoveredRmacToVtepIs(host(1), held);
  boot->recoveredRmacToVtepIs(host(2), held);
  remoteMacInfo->vxlanBootStatusIs(boot);
  start();
  helper->take();
  TraceOn trace("MacAddrSm/5-6");
  evpn(host(1), "10.0.0.2", 0);
  evpn(host(3), "10.0.0.2", 0);
  loop.runUntilIdle();
  // host 1 is in hardware as it should be: no write. host 3 is new.
  EXPECT_THAT(
      helper->take(),
      ElementsAre("addRemote 00:00:00:00:00:03/10 Vxlan1 nh 7 evpnDynamicRemoteMac static"));
  EXPECT_TRUE(
      trace.capture.contains(" skipping programming of remote MAC 00:00:00:00:00:01/10 "
                             "during hitless restart "));
  EXPECT_EQ(fdb(host(1)), "Vxlan1 evpnDynamicRemoteMac moves 0");
  EXPECT_EQ(groupRefs(vtep("10.0.0.2")), 2u);
  // Sources going during the restart take nothing out yet.
  evpnMacs->remoteMacDel(host(3));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), IsEmpty());

  boot->stageRemoteMacsReadyIs(true);
  loop.runUntilIdle();
  EXPECT_TRUE(trace.capture.contains(" Remote MAC hitless recovery complete "));
  EXPECT_THAT(helper->take(), ElementsAre("remove 00:00:00:00:00:03/10 evpnDynamicRemoteMac",
                                          "remove 00:00:00:00:00:02/10 configuredRemoteMac"));
  EXPECT_EQ(fdb(host(1)), "Vxlan1 evpnDynamicRemoteMac moves 0");
}

}  // namespace
}  // namespace mactest

namespace mactest {
namespace {

class MacStoreRestartTest : public MacSourcesTest {
 protected:
  MacStoreRestartTest() {
    helper->storePath = testing::TempDir() + "/mac-state-" +
                        testing::UnitTest::GetInstance()->current_test_info()->name() + ".json";
    std::remove(helper->storePath.c_str());
    tunnelUp("10.0.0.2", 7);
  }
  ~MacStoreRestartTest() override { std::remove(helper->storePath.c_str()); }

  // A configured host, a host that moved once, and a remote one, then the SM stops.
  void runAndStop() {
    start();
    configure(host(1), eth(1));
    learn(host(2), eth(2));
    loop.runUntilIdle();
    learn(host(2), eth(3));
    evpn(host(3), "10.0.0.2", 0);
    loop.runUntilIdle();
    ASSERT_EQ(fdb(host(2)), "Ethernet3 learnedDynamicMac moves 1");
    sm = {};
  }
  // The agent restarts: the SM's own tables start empty, the chip and the sources stay.
  void restart() {
    status = Zol::make<Bridging::Status>("bridgingStatus");
    macTable = Zol::make<VemoTypes::MacTable>("macTable");
    groups = Vemo::swTunnelGroupIdManagerFactory(cd);
    helper->take();
    start();
  }
  static bool writes(std::vector<std::string> const& calls) {
    return std::any_of(calls.begin(), calls.end(),
                       [](std::string const& c) { return c.starts_with("add"); });
  }
};

TEST_F(MacStoreRestartTest, ARestoredRestartWritesNothingAndKeepsMoveCounts) {
  runAndStop();
  ASSERT_TRUE(std::ifstream(helper->storePath).good());
  unconfigure(host(4));  // nothing
  restart();
  EXPECT_FALSE(writes(helper->take()));
  EXPECT_EQ(fdb(host(1)), "Ethernet1 configuredStaticMac moves 0");
  EXPECT_EQ(fdb(host(2)), "Ethernet3 learnedDynamicMac moves 1");
  EXPECT_EQ(fdb(host(3)), "Vxlan1 evpnDynamicRemoteMac moves 0");
  EXPECT_EQ(groupRefs(vtep("10.0.0.2")), 1u);
  EXPECT_EQ(verify("restored"), 0u);
  // Read once: a crash from here on finds no file to trust.
  EXPECT_FALSE(std::ifstream(helper->storePath).good());
}

TEST_F(MacStoreRestartTest, WhatChangedWhileDownIsReconciled) {
  runAndStop();
  unconfigure(host(1));
  evpn(host(3), "10.0.0.2", 4);
  restart();
  std::vector<std::string> const calls = helper->take();
  EXPECT_THAT(calls, testing::Contains("remove 00:00:00:00:00:01/10 configuredStaticMac"));
  EXPECT_EQ(fdb(host(3)), "Vxlan1 evpnDynamicRemoteMac moves 4");
  EXPECT_EQ(verify("reconciled"), 0u);
}

TEST_F(MacStoreRestartTest, ACorruptStoreIsRefusedWholeAndTheSourcesAreWrittenAgain) {
  runAndStop();
  std::string text;
  {
    std::ifstream in(helper->storePath);
    std::getline(in, text, '\0');
  }
  {
    std::ofstream out(helper->storePath, std::ios::trunc);
    out << text.substr(0, text.size() / 2);
  }
  Zol::Syslog::Capture logs;
  restart();
  ASSERT_EQ(logs.records().size(), 1u);
  EXPECT_EQ(logs.records()[0].key, "MAC_STATE_STORE_REFUSED");
  std::vector<std::string> const calls = helper->take();
  EXPECT_THAT(calls, testing::Contains("add 00:00:00:00:00:01/10 Ethernet1 configuredStaticMac "
                                       "static"));
  EXPECT_THAT(calls, testing::Contains("addRemote 00:00:00:00:00:03/10 Vxlan1 nh 7 "
                                       "evpnDynamicRemoteMac static"));
  // The chip's learn is adopted; its moves start again.
  EXPECT_EQ(fdb(host(2)), "Ethernet3 learnedDynamicMac moves 0");
  EXPECT_EQ(verify("cold"), 0u);
  EXPECT_FALSE(std::ifstream(helper->storePath).good());
}

}  // namespace
}  // namespace mactest
