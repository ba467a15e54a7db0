// The MAC address SM: gathers every source of a (MAC, VLAN) entry, decides which one the chip is
// to hold, queues the change, programs it through the platform's VemoHelperMacAddrSm and
// publishes the result in the FDB status (per filtering identifier) and in the library's MAC
// table. It also carries out other agents' flush requests, learning control per port and VLAN,
// and the aging time.
//
// Sources today: the chip's learn and age events (the driver's MAC table), configured static and
// configured dynamic hosts (Bridging::Config's per-FID FDB config), the router's MAC addresses
// and non-aging hosts. The MLAG peer, 802.1X, fast server failover and the remote (VXLAN, EVPN,
// layer-2 RIB) sources are inputs of the factory already; the decision, the candidate type and the
// update list are built for them.
//
// Inputs beyond the factory's list reach the SM through trailing factory arguments: the router
// MAC table, the non-aging MAC status and the port-VLAN membership (null: every port is taken as a
// member of some VLAN). The MLAG peer link comes from Mlag::Status, the port-channels from the
// common data's lagToPort.
//
// Preference between sources (betterEntry ranks preference * 256, plus the tie bit of the kinds
// that win ties): router MACs have preference 1, every other local source 0, so a router MAC
// beats a configured static entry of the same address (counted in
// collidingStaticEntryWithRouterMacEntry), and a configured static entry beats everything else
// learned or synced at its preference.
//
// Full table: an entry the chip refused for want of room is kept aside, out of the FDB status,
// logged once; whenever room is freed (a removal, an age event, a flush) the entries kept aside are
// queued again, so a configured entry gets in as soon as it fits. A learned entry the chip had
// no room for was never learned; the chip learns it again from the host's next packet.
#pragma once

#include <absl/container/btree_set.h>
#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>

#include <deque>
#include <memory>
#include <optional>

#include "Vemo/MacEntryRank.h"
#include "Vemo/SwTunnelGroupIdManager.h"
#include "Vemo/VemoCommon.h"
#include "Vemo/VemoHelperDot1x.h"
#include "Vemo/VemoHelperMacAddrSm.h"
#include "ZolGen/Bridging.h"
#include "ZolGen/Dot1x.h"
#include "ZolGen/FastServerFailover.h"
#include "ZolGen/Interface.h"
#include "ZolGen/L2Rib.h"
#include "ZolGen/Mlag.h"
#include "ZolGen/VemoL2.h"
#include "ZolGen/VemoMac.h"
#include "ZolGen/VemoVxlan.h"
#include "ZolGen/Vxlan.h"

namespace Vemo {

class MacAddrSm : public VemoBaseSm {
 public:
  // Time budget of one run of each time-sliced walk (the update list, the driver's events).
  static constexpr Zol::Seconds kSliceBudget = 0.01;
  // A busy chip is asked again after this long, not in a spin.
  static constexpr Zol::Seconds kBusyRetryDelay = 0.01;
  // Flush requests are carried out this long after the first of a burst arrives: a topology change
  // makes several agents ask at once (spanning tree, LACP, MLAG), and one pass over the chip serves
  // them all, well before a host's retransmission notices the stale entries.
  static constexpr Zol::Seconds kFlushDelay = 0.05;
  static constexpr Zol::U8 kRouterMacPreference = 1;

  struct Inputs {
    Zol::Ptr<VemoCommonSmData> commonData;
    Zol::Ptr<VemoCommonMulticastData const> commonMulticastData;
    // What the SM programmed for local destinations (written), and the chip driver's learn and
    // age events.
    Zol::Ptr<VemoTypes::MacTable> macTable;
    Zol::Ptr<VemoTypes::MacTable const> hwMacTable;
    Zol::Ptr<Bridging::Status> bridgingStatus;
    Zol::Ptr<Bridging::AllHostTableFlushRequestDir const> flushRequestDir;
    Zol::Ptr<Bridging::HostTableFlushReplyDir> flushReplyDir;
    Zol::Ptr<Bridging::Config const> bridgingConfig;
    Zol::Ptr<Interface::AllEthPhyIntfConfigDir const> ethPhyIntfConfigDir;
    Zol::Ptr<Interface::AllEthPhyIntfStatusDir const> ethPhyIntfStatusDir;
    Zol::Ptr<VlanHelper> vlanHelper;
    Zol::Ptr<Mlag::HostTable const> mlagHostTable;
    Zol::Ptr<Mlag::Status const> mlagStatus;
    Zol::Ptr<VemoHelper::VemoHelperMacAddrSm> helper;
    Zol::Ptr<FastServerFailover::Status const> fsfStatus;
    Zol::Ptr<Vxlan::VxlanConfigDir const> vxlanConfigDir;
    Zol::Ptr<VXLAN::RemoteMacInfoDir> remoteMacInfoDir;
    Zol::Ptr<Bridging::RemoteMacTable const> remoteMacTable;
    Zol::Ptr<Dot1x::HostTable const> dot1xHostTable;
    Zol::Ptr<Dot1x::Status const> dot1xStatus;
    Zol::Ptr<VemoHelper::VemoHelperDot1x> dot1xHelper;
    Zol::Ptr<L2Rib::HostInput> l2RibHostInput;
    Zol::Ptr<L2Rib::HostOutput const> l2RibHostOutput;
    Zol::Ptr<SwTunnelGroupIdManager> swTunnelGroupIdManager;
    Zol::Ptr<ObjTupleToHwId const> objTupleToHwId;
    // Trailing inputs.
    Zol::Ptr<Bridging::RouterMacTable const> routerMacTable;
    Zol::Ptr<Bridging::NonAgingMacStatus const> nonAgingMacStatus;
    Zol::Ptr<PortVlanMembership const> portVlanMembership;
  };

  explicit MacAddrSm(Inputs const& inputs);
  ~MacAddrSm() override;
  std::string_view fwkType() const override { return "Vemo::MacAddrSm"; }

  // Start: the helper's set-up, the aging time, learning on every port and VLAN, then every
  // configured, router and non-aging entry and every entry the chip already learned.
  void handleInitialized() override;

  // Kinds the chip ages, as it does what it learned: the SM programs them as dynamic entries, and
  // the chip driver reports them like its own learns.
  static bool agesInHardware(Bridging::EntryType t) {
    return t == Bridging::EntryType::learnedDynamicMac ||
           t == Bridging::EntryType::configuredDynamicMac;
  }
  // A dynamic entry the SM itself programs.
  static bool isProgrammedDynamic(Bridging::EntryType t) {
    return t == Bridging::EntryType::configuredDynamicMac;
  }

  Inputs const& inputs() const { return in_; }
  // What is queued for the chip, and what the chip had no room for.
  size_t updateListSize() const { return updateList_.size(); }
  size_t macTableUpdateListSize() const { return macTableUpdateList_.size(); }
  size_t fullEntriesSize() const { return fullEntries_.size(); }
  // Configured static entries whose address is also a router MAC of the VLAN (the router MAC wins).
  size_t collidingStaticEntryWithRouterMacEntry() const { return collidingStatic_.size(); }
  // Learning as last given to the helper, by port and by VLAN.
  absl::flat_hash_map<Nepo::IntfId, bool> const& learning() const { return learning_; }

 private:
  class Reactors;
  struct Queued {
    ModifyMacEntry update;
    Zol::Seconds since;  // when the pair was first queued
  };
  // The union of the flush work that waits for the flush timer.
  struct CondensedFlushRequest {
    bool flushAll = false;
    absl::btree_set<Bridging::VlanId> vlans;
    absl::btree_set<std::pair<Bridging::VlanId, Nepo::IntfId>> ports;
    absl::btree_set<std::pair<Bridging::VlanId, Nepo::IntfId>> lags;
    bool empty() const { return !flushAll && vlans.empty() && ports.empty() && lags.empty(); }
  };

  Zol::Seconds now() const { return commonData()->loop().now(); }
  VerifyData& verifyData() const { return *commonData()->verifyData(); }

  // Sources.
  void handleMacTableEntry(Bridging::MacVlanPair const& key);
  void handleMacTableTimer();
  void handleMacEntry(Bridging::MacVlanPair const& key);
  void handleAddressLearnt(Bridging::MacVlanPair const& key,
                           VemoTypes::MacAddressTableEntry const& entry);
  void handleAddressAged(Bridging::MacVlanPair const& key);
  void handleConfiguredHost(Bridging::MacVlanPair const& key);
  void handleFdbConfig(Bridging::VlanId fid);
  void handleRouterMacEntry(Bridging::MacVlanPair const& key);
  void handleNonAgingMacEntries(Bridging::MacVlanPair const& key);
  void handleHostAgingTime();
  void handleIntfStatus(Nepo::IntfId const& intf);

  // The decision.
  std::optional<MacCandidate> configuredEntry(Bridging::MacVlanPair const& key);
  std::optional<MacCandidate> currentEntry(Bridging::MacVlanPair const& key) const;
  void evaluateEntry(Bridging::MacVlanPair const& key, Nepo::IntfId const& intf,
                     SwTunnelGroupId swTunnelGroupId, L2Rib::ObjTuple const& objTuple,
                     Bridging::EntryType entryType, bool learnedInHardware, bool aged,
                     double lastMoveTime);
  void reevaluateEntry(Bridging::MacVlanPair const& key);
  void maybeUpdateMoveCount(ModifyMacEntry& update, std::optional<MacCandidate> const& current,
                            Nepo::IntfId const& intf);
  bool checkIgnoreEvent(std::optional<MacCandidate> const& configured, Nepo::IntfId const& intf,
                        Bridging::EntryType entryType, bool learnedInHardware) const;
  void handleLearnEvent(Bridging::MacVlanPair const& key, ModifyMacEntry learned,
                        std::optional<MacCandidate> const& configured);
  void handleAgeEvent(Bridging::MacVlanPair const& key);
  void handleSourceChange(Bridging::MacVlanPair const& key,
                          std::optional<MacCandidate> const& configured,
                          std::optional<MacCandidate> const& current);
  void addLearntToFdbStatus(Bridging::MacVlanPair const& key, ModifyMacEntry const& learned);
  void queueConfigured(Bridging::MacVlanPair const& key, MacCandidate const& configured,
                       std::optional<MacCandidate> const& current);
  bool intfExists(Nepo::IntfId const& intf) const;
  void addToUpdateList(Bridging::MacVlanPair const& key, ModifyMacEntry update);

  // Programming.
  void updateQueuedAddresses();
  MacProgramStatus program(Bridging::MacVlanPair const& key, ModifyMacEntry const& update);
  void applied(Bridging::MacVlanPair const& key, ModifyMacEntry const& update);
  // An asynchronous platform refused a write it had answered success for, or wrote it after all.
  void handleRefusedHost(Bridging::MacVlanPair const& key);
  void entryFull(Bridging::MacVlanPair const& key, ModifyMacEntry update);
  void roomFreed();
  void requeueFullEntries();
  void addToFdbStatus(Bridging::MacVlanPair const& key, Bridging::HostEntry const& entry);
  void delFromFdbStatus(Bridging::MacVlanPair const& key);
  Bridging::HostEntry const* fdbEntry(Bridging::MacVlanPair const& key) const;

  // Flushes.
  void handleFlushRequest(Zol::String const& requester, Zol::U32 id);
  void handleFlushRequestDir(Zol::String const& requester);
  void processFlushReq(Bridging::VlanIdOrNone vlan, Nepo::IntfId const& intf);
  void flushVlan(Bridging::VlanId vlan);
  void flushPort(Bridging::VlanId vlan, Nepo::IntfId const& intf);
  void flushLag(Bridging::VlanId vlan, Nepo::IntfId const& lag);
  void handleFlushReqTimer();
  void execFlush();
  void removeStaleFlushReplies();

  // Learning.
  void handleSwitchIntfConfig(Nepo::IntfId const& intf);
  void handleVlanConfig(Bridging::VlanId vlan);
  void handleLearning(Nepo::IntfId const& intf);
  void handleLearningOnVlan(Bridging::VlanId vlan);
  void handleMlagPeerLink();
  bool learningConfigured(Nepo::IntfId const& intf) const;

  void handleVerify(Zol::String const& request);
  void verifyTables();
  void verifyLearning();

  Inputs const in_;
  std::unique_ptr<Reactors> reactors_;
  bool started_ = false;

  // The driver's events waiting for handleMacTableTimer, in arrival order, each pair once.
  std::deque<Bridging::MacVlanPair> macTableUpdateList_;
  absl::flat_hash_set<Bridging::MacVlanPair> macTableUpdatePending_;
  Zol::Clock macTableClock_;

  // One pending write per pair, in the order pairs were first queued (a pair taken out of the
  // list early leaves its place in updateOrder_ behind, skipped when reached).
  std::deque<Bridging::MacVlanPair> updateOrder_;
  absl::flat_hash_map<Bridging::MacVlanPair, Queued> updateList_;
  Zol::Clock updateClock_;
  // Entries the chip had no room for, with fullLogged set.
  absl::flat_hash_map<Bridging::MacVlanPair, ModifyMacEntry> fullEntries_;
  bool roomFreed_ = false;
  absl::flat_hash_set<Bridging::MacVlanPair> collidingStatic_;
  // Configured dynamic entries that aged in the chip: they stay out until configured again.
  absl::flat_hash_set<Bridging::MacVlanPair> agedConfiguredDynamic_;

  CondensedFlushRequest flush_;
  // Requests folded into flush_, answered once it is carried out.
  std::vector<Bridging::HostTableFlushReplyKey> flushAnswers_;
  Zol::Clock flushClock_;

  absl::flat_hash_map<Nepo::IntfId, bool> learning_;
  Nepo::IntfId peerLink_;
  absl::flat_hash_map<Bridging::VlanId, bool> vlanLearning_;
  // Verification requests that came before the first pass, answered after it.
  absl::btree_set<Zol::String> pendingVerify_;
};

Zol::Ptr<MacAddrSm> macAddrSmFactory(
    Zol::Ptr<VemoCommonSmData> const& commonData,
    Zol::Ptr<VemoCommonMulticastData const> const& commonMulticastData,
    Zol::Ptr<VemoTypes::MacTable> const& macTable,
    Zol::Ptr<VemoTypes::MacTable const> const& hwMacTable,
    Zol::Ptr<Bridging::Status> const& bridgingStatus,
    Zol::Ptr<Bridging::AllHostTableFlushRequestDir const> const& flushRequestDir,
    Zol::Ptr<Bridging::HostTableFlushReplyDir> const& flushReplyDir,
    Zol::Ptr<Bridging::Config const> const& bridgingConfig,
    Zol::Ptr<Interface::AllEthPhyIntfConfigDir const> const& ethPhyIntfConfigDir,
    Zol::Ptr<Interface::AllEthPhyIntfStatusDir const> const& ethPhyIntfStatusDir,
    Zol::Ptr<VlanHelper> const& vlanHelper, Zol::Ptr<Mlag::HostTable const> const& mlagHostTable,
    Zol::Ptr<Mlag::Status const> const& mlagStatus,
    Zol::Ptr<VemoHelper::VemoHelperMacAddrSm> const& helper,
    Zol::Ptr<FastServerFailover::Status const> const& fsfStatus,
    Zol::Ptr<Vxlan::VxlanConfigDir const> const& vxlanConfigDir,
    Zol::Ptr<VXLAN::RemoteMacInfoDir> const& remoteMacInfoDir,
    Zol::Ptr<Bridging::RemoteMacTable const> const& remoteMacTable,
    Zol::Ptr<Dot1x::HostTable const> const& dot1xHostTable,
    Zol::Ptr<Dot1x::Status const> const& dot1xStatus,
    Zol::Ptr<VemoHelper::VemoHelperDot1x> const& dot1xHelper,
    Zol::Ptr<L2Rib::HostInput> const& l2RibHostInput,
    Zol::Ptr<L2Rib::HostOutput const> const& l2RibHostOutput,
    Zol::Ptr<SwTunnelGroupIdManager> const& swTunnelGroupIdManager,
    Zol::Ptr<ObjTupleToHwId const> const& objTupleToHwId,
    Zol::Ptr<Bridging::RouterMacTable const> const& routerMacTable = {},
    Zol::Ptr<Bridging::NonAgingMacStatus const> const& nonAgingMacStatus = {},
    Zol::Ptr<PortVlanMembership const> const& portVlanMembership = {});

}  // namespace Vemo
