#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MacTestSupport.h"
#include "Zol/Syslog.h"

namespace mactest {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(MacSmTest, LearnsMovesAndLetsAStaticEntryOverrideALearnedOne) {
  start();
  EXPECT_THAT(helper->take(), testing::Contains("agingTime 300"));
  learn(host(1), eth(1));
  loop.runUntilIdle();
  EXPECT_EQ(fdb(host(1)), "Ethernet1 learnedDynamicMac moves 0");
  // The chip holds what it learned: nothing to program.
  EXPECT_THAT(helper->take(), IsEmpty());

  learn(host(1), eth(2));
  loop.runUntilIdle();
  EXPECT_EQ(fdb(host(1)), "Ethernet2 learnedDynamicMac moves 1");

  configure(host(1), eth(3));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(),
              ElementsAre("add 00:00:00:00:00:01/10 Ethernet3 configuredStaticMac static"));
  EXPECT_EQ(fdb(host(1)), "Ethernet3 configuredStaticMac moves 2");
  // The chip drops its learn, replaced by the static entry: the static entry stays.
  age(host(1));
  loop.runUntilIdle();
  EXPECT_EQ(fdb(host(1)), "Ethernet3 configuredStaticMac moves 2");
  EXPECT_TRUE(macTable->entryHas(host(1)));
  EXPECT_EQ(verify("clean"), 0u);

  unconfigure(host(1));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), ElementsAre("remove 00:00:00:00:00:01/10 configuredStaticMac"));
  EXPECT_EQ(fdb(host(1)), "none");
  EXPECT_FALSE(status->fdbStatusHas(Bridging::VlanId(10)));
  EXPECT_FALSE(macTable->entryHas(host(1)));
}

TEST_F(MacSmTest, ConfiguredDynamicEntryYieldsToANewerLearnAndStaysOutOnceAged) {
  start();
  helper->take();
  // Configured at t=2000, after the learns below would be (the loop starts at 1000).
  configure(host(2), eth(1), EntryType::configuredDynamicMac, 2000);
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(),
              ElementsAre("add 00:00:00:00:00:02/10 Ethernet1 configuredDynamicMac dynamic"));
  // The driver reports the dynamic entry it holds: an echo, no write.
  learn(host(2), eth(1));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), IsEmpty());
  EXPECT_EQ(fdb(host(2)), "Ethernet1 configuredDynamicMac moves 0");
  // A learn elsewhere is older than the configuration: the configured entry is set back.
  learn(host(2), eth(2));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(),
              ElementsAre("add 00:00:00:00:00:02/10 Ethernet1 configuredDynamicMac dynamic"));

  // Configured long ago: a learn is more recent and wins.
  configure(host(3), eth(1), EntryType::configuredDynamicMac, 10);
  loop.runUntilIdle();
  helper->take();
  learn(host(3), eth(4));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), IsEmpty());
  EXPECT_EQ(fdb(host(3)), "Ethernet4 learnedDynamicMac moves 1");
  // The learn ages: the configured entry is the next best and goes back in.
  age(host(3));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(),
              ElementsAre("add 00:00:00:00:00:03/10 Ethernet1 configuredDynamicMac dynamic"));
  // Now the configured entry itself ages in the chip: it stays out until configured again.
  learn(host(3), eth(1));
  loop.runUntilIdle();
  age(host(3));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), IsEmpty());
  EXPECT_EQ(fdb(host(3)), "none");
  configure(host(3), eth(2), EntryType::configuredDynamicMac, 10);
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(),
              ElementsAre("add 00:00:00:00:00:03/10 Ethernet2 configuredDynamicMac dynamic"));
}

TEST_F(MacSmTest, RouterMacBeatsAStaticEntryAndNonAgingHostsStayWhereLearned) {
  start();
  helper->take();
  configure(host(4), eth(1));
  routerMacs->routerMacIs(host(4), true);
  loop.runUntilIdle();
  EXPECT_EQ(fdb(host(4)), "Cpu routerMac moves 0");
  EXPECT_EQ(sm->collidingStaticEntryWithRouterMacEntry(), 1u);
  routerMacs->routerMacDel(host(4));
  loop.runUntilIdle();
  // From the CPU to the port: a move.
  EXPECT_EQ(fdb(host(4)), "Ethernet1 configuredStaticMac moves 1");
  EXPECT_EQ(sm->collidingStaticEntryWithRouterMacEntry(), 0u);
  helper->take();

  learn(host(5), eth(6));
  nonAging->hostIs(host(5), true);
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), ElementsAre("add 00:00:00:00:00:05/10 Ethernet6 nonAgingMac static"));
  age(host(5));  // replaced in the chip by the static entry
  loop.runUntilIdle();
  EXPECT_EQ(fdb(host(5)), "Ethernet6 nonAgingMac moves 0");
  nonAging->hostDel(host(5));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), ElementsAre("remove 00:00:00:00:00:05/10 nonAgingMac"));
  EXPECT_EQ(verify("after"), 0u);
}

TEST_F(MacSmTest, EntriesBehindAMissingPortWaitForIt) {
  start();
  helper->take();
  configure(host(6), eth(20));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), IsEmpty());
  intfStatus->intfStatusIs(eth(20));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(),
              ElementsAre("add 00:00:00:00:00:06/10 Ethernet20 configuredStaticMac static"));
  intfStatus->intfStatusDel(eth(20));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), ElementsAre("remove 00:00:00:00:00:06/10 configuredStaticMac"));
}

TEST_F(MacSmTest, BusyIsRetriedAndFullIsLoggedOnceAndRetriedWhenRoomIsFreed) {
  start();
  helper->take();
  Zol::Syslog::Capture syslog;
  helper->answers = {MacProgramStatus::macProgramBusy};
  configure(host(7), eth(1));
  loop.runUntilIdle();
  EXPECT_EQ(helper->take().size(), 1u);
  EXPECT_EQ(sm->updateListSize(), 1u);
  EXPECT_EQ(fdb(host(7)), "none");
  loop.advanceBy(Vemo::MacAddrSm::kBusyRetryDelay);
  EXPECT_EQ(helper->take().size(), 1u);
  EXPECT_EQ(fdb(host(7)), "Ethernet1 configuredStaticMac moves 0");

  helper->answers = {MacProgramStatus::macProgramFull, MacProgramStatus::macProgramFull};
  configure(host(8), eth(2));
  loop.runUntilIdle();
  EXPECT_EQ(fdb(host(8)), "none");
  EXPECT_EQ(sm->fullEntriesSize(), 1u);
  // Decided again: refused again, but not logged again.
  configure(host(8), eth(2), EntryType::configuredStaticMac, 5);
  loop.runUntilIdle();
  ASSERT_EQ(syslog.records().size(), 1u);
  EXPECT_EQ(syslog.records()[0].text,
            "Unable to program static host table entry for MAC address 00:00:00:00:00:08 in "
            "VLAN 10 due to hardware resource exhaustion");
  helper->take();
  // A removal frees room: the entry kept aside goes in.
  unconfigure(host(7));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(),
              ElementsAre("remove 00:00:00:00:00:07/10 configuredStaticMac",
                          "add 00:00:00:00:00:08/10 Ethernet2 configuredStaticMac static"));
  EXPECT_EQ(fdb(host(8)), "Ethernet2 configuredStaticMac moves 0");
  EXPECT_EQ(sm->fullEntriesSize(), 0u);

  // A full bucket says so.
  helper->collision = true;
  helper->answers = {MacProgramStatus::macProgramFull};
  configure(host(9), eth(3));
  loop.runUntilIdle();
  ASSERT_EQ(syslog.records().size(), 2u);
  EXPECT_EQ(syslog.records()[1].text,
            "The specified MAC address could not be programmed into the switching ASIC due to "
            "hash collisions in a bucket. Packets destined to the address will be flooded.");
  // A configuration that goes takes its entry kept aside with it.
  unconfigure(host(9));
  loop.runUntilIdle();
  EXPECT_EQ(sm->fullEntriesSize(), 0u);
}

TEST_F(MacSmTest, BacklogsDrainInTimeSlicesInOrder) {
  start();
  helper->take();
  TraceOn trace("MacAddrSm/8");
  constexpr uint32_t kHosts = 300;
  for (uint32_t n = 1; n <= kHosts; ++n) configure(host(n), eth(1 + n % 8));
  for (uint32_t n = 1; n <= kHosts; ++n) learn(host(n, 20), eth(1 + n % 8));
  // Every read of the clock costs 1 ms: a 10 ms slice holds a few entries only.
  loop.autoAdvanceIs(0.001);
  loop.runUntilIdle();
  loop.autoAdvanceIs(0);
  std::vector<std::string> const calls = helper->take();
  ASSERT_EQ(calls.size(), kHosts);
  for (uint32_t n = 1; n <= kHosts; ++n) {
    EXPECT_EQ(calls[n - 1], "add " + text(host(n)) + " " + eth(1 + n % 8).stringValue() +
                                " configuredStaticMac static");
    EXPECT_EQ(fdb(host(n, 20)), eth(1 + n % 8).stringValue() + " learnedDynamicMac moves 0");
  }
  EXPECT_GT(trace.capture.count("updateQueuedAddresses: time slice spent"), 10u);
  EXPECT_GT(trace.capture.count("handleMacTableTimer: time slice spent"), 10u);
  EXPECT_EQ(sm->updateListSize(), 0u);
  EXPECT_EQ(sm->macTableUpdateListSize(), 0u);
}

TEST_F(MacSmTest, FlushRequestsAreFoldedCarriedOutAndAnswered) {
  start();
  helper->take();
  TraceOn trace("MacAddrSm/5");
  Bridging::HostTableFlushReplyKey const stpReply("stp", 1), lacpReply("lacp", 7);
  auto const stp = flushRequests->requestDirIs("stp");
  auto const lacp = flushRequests->requestDirIs("lacp");
  stp->requestIs(1, Bridging::HostTableFlushRequest(Bridging::VlanIdOrNone(10), eth(1)));
  lacp->requestIs(7, Bridging::HostTableFlushRequest(Bridging::VlanIdOrNone(0), IntfId()));
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), IsEmpty());
  loop.advanceBy(Vemo::MacAddrSm::kFlushDelay);
  // Flush-all wins over the port's flush.
  EXPECT_THAT(helper->take(), ElementsAre("flushAll"));
  EXPECT_TRUE(flushReplies->replyHas(stpReply));
  EXPECT_TRUE(flushReplies->replyHas(lacpReply));
  // A request taken back takes its answer with it.
  lacp->requestDel(7);
  loop.runUntilIdle();
  EXPECT_FALSE(flushReplies->replyHas(lacpReply));
  EXPECT_TRUE(flushReplies->replyHas(stpReply));

  Vemo::VemoLagPortList members;
  members.portIs(eth(5), Vemo::VemoLagPort(true, true));
  cd->lagToPortIs(po(1), members);
  stp->requestIs(2, Bridging::HostTableFlushRequest(Bridging::VlanIdOrNone(20), IntfId()));
  stp->requestIs(3, Bridging::HostTableFlushRequest(Bridging::VlanIdOrNone(20), eth(2)));
  stp->requestIs(4, Bridging::HostTableFlushRequest(Bridging::VlanIdOrNone(30), eth(2)));
  stp->requestIs(5, Bridging::HostTableFlushRequest(Bridging::VlanIdOrNone(0), eth(99)));
  stp->requestIs(6, Bridging::HostTableFlushRequest(Bridging::VlanIdOrNone(0),
                                                    IntfId(Nepo::IntfKind::Vxlan, {1})));
  stp->requestIs(8, Bridging::HostTableFlushRequest(Bridging::VlanIdOrNone(30), po(1)));
  stp->requestIs(9, Bridging::HostTableFlushRequest(Bridging::VlanIdOrNone(30), po(2)));
  loop.advanceBy(Vemo::MacAddrSm::kFlushDelay);
  EXPECT_THAT(helper->take(),
              ElementsAre("flushVlan 20", "flushVlanPort 0 Vxlan1", "flushVlanPort 30 Ethernet2",
                          "flushVlanLag 30 Port-Channel1"));
  EXPECT_TRUE(trace.capture.contains("processFlushReq: unknown intf Ethernet99"));
  EXPECT_TRUE(trace.capture.contains("Invalid interface, maybe caused by a 10G<->40G switchover"));
  EXPECT_TRUE(trace.capture.contains("processFlushReq: unknown LAG Port-Channel2"));
  // Every request is answered, dropped ones too: their requester must not wait for ever.
  for (Zol::U32 id : {1u, 2u, 3u, 4u, 5u, 6u, 8u, 9u}) {
    EXPECT_TRUE(flushReplies->replyHas(Bridging::HostTableFlushReplyKey("stp", id))) << id;
  }
  flushRequests->requestDirDel("stp");
  loop.runUntilIdle();
  EXPECT_EQ(flushReplies->replySize(), 0u);
}

TEST_F(MacSmTest, LearningFollowsPortsVlansAndThePeerLinkAndOffClearsDynamicEntries) {
  config->switchIntfConfigIs(IntfId(Nepo::IntfKind::Vlan, {10}));
  config->vlanConfigIs(Bridging::VlanId(10));
  config->switchIntfConfigIs(po(10));
  mlag->stateIs(Mlag::State::statePrimary);
  mlag->peerLinkIntfIs(po(10));
  TraceOn trace("MacAddrSm/5");
  start();
  std::vector<std::string> const calls = helper->take();
  EXPECT_THAT(calls, testing::Contains("learning Ethernet1 on"));
  EXPECT_THAT(calls, testing::Contains("learning vlan 10 on"));
  // The peer syncs the hosts behind the peer link.
  EXPECT_THAT(calls, testing::Contains("learning Port-Channel10 off"));
  EXPECT_TRUE(trace.capture.contains("Port-Channel10 is peer link of an MLAG hence enable = 0"));
  EXPECT_TRUE(trace.capture.contains(
      "Vlan10 is vlan interface. MAC learning control feature is not supported"));
  EXPECT_TRUE(trace.capture.contains("Mac learning cannot be enabled on intf:Vlan10"));
  EXPECT_THAT(calls, testing::Not(testing::Contains("learning Vlan10 on")));

  config->switchIntfConfig(eth(3))->macLearningIs(false);
  config->vlanConfig(Bridging::VlanId(10))->macLearningIs(false);
  loop.advanceBy(Vemo::MacAddrSm::kFlushDelay);
  // One flush serves these and the peer link's, whose learning went off at start.
  EXPECT_THAT(helper->take(),
              ElementsAre("learning Ethernet3 off", "learning vlan 10 off", "flushVlan 10",
                          "flushVlanPort 0 Ethernet3", "flushVlanLag 0 Port-Channel10"));
  EXPECT_TRUE(trace.capture.contains(
      "mac learning is not configured on Ethernet3, clear dynamic mac-address table entries"));
  // The peering goes: the peer link learns as any port.
  mlag->stateIs(Mlag::State::stateDisabled);
  loop.runUntilIdle();
  EXPECT_THAT(helper->take(), ElementsAre("learning Port-Channel10 on"));

  EXPECT_EQ(verify("agrees"), 0u);
  // The chip forgets what it was told, and the SM's tables disagree: both are reported.
  helper->learning[eth(4)] = false;
  configure(host(1), eth(1));
  loop.runUntilIdle();
  macTable->entryDel(host(1));
  EXPECT_EQ(verify("disagrees"), 2u);
  // An entry the SM claims to have programmed that the FDB status does not hold.
  helper->learning[eth(4)] = true;
  macTable->entryIs(
      host(1), VemoTypes::MacAddressTableEntry(host(1), eth(1), EntryType::configuredStaticMac));
  macTable->entryIs(
      host(3), VemoTypes::MacAddressTableEntry(host(3), eth(2), EntryType::configuredStaticMac));
  EXPECT_EQ(verify("stray"), 1u);
}

}  // namespace
}  // namespace mactest
