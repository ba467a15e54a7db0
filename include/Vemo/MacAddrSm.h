// The MAC address SM: gathers every source of a (MAC, VLAN) entry, decides which one the chip is
// to hold, queues the change, programs it through the platform's VemoHelperMacAddrSm and
// publishes the result in the FDB status (per filtering identifier), in the library's MAC table
// (local entries) and in the remote host status table (entries behind VXLAN tunnels). It also
// carries out other agents' flush requests, learning control per port and VLAN, and the aging
// time.
//
// Sources, in the order the best candidate is chosen: the layer-2 RIB's resolved hosts, EVPN
// remote MACs, remote MACs received from the overlay controller, configured hosts, configured
// remote hosts of the VXLAN tunnel interfaces, router MACs, the MLAG peer's hosts, 802.1X
// authorised hosts, non-aging hosts and failed servers (sent to the CPU). Learn and age events come
// from the chip driver's MAC table (local hosts) and from the VXLAN host table (hosts the data
// plane learned behind a tunnel).
//
// Inputs beyond the factory's list reach the SM through trailing factory arguments: the router
// MAC table, the non-aging MAC status, the port-VLAN membership (null: every port is taken as a
// member of some VLAN), and the VTEP and VTEP-group status of the tunnel interfaces, which give
// each tunnel group's hardware next hop (null: remote MACs resolve only through the layer-2 RIB).
// The MLAG peer link comes from Mlag::Status, the port-channels from the common data's lagToPort.
//
// Preference between sources (betterEntry ranks preference * 256, plus the tie bit of the kinds
// that win ties): router MACs and failed servers have preference 1, controller-received remote
// MACs their own, every other source 0, so a router MAC beats a configured static entry of the
// same address (counted in collidingStaticEntryWithRouterMacEntry), and a configured static entry
// beats everything else learned or synced at its preference. Between a local learn and a dynamic
// source elsewhere (the MLAG peer, a configured dynamic entry, EVPN, the controller) the more
// recent move wins.
//
// Remote MACs: a remote entry points at its tunnel group's next hop; one whose next hop the
// platform has not programmed yet waits (and leaves hardware if it was there) until it appears.
// Every programmed remote MAC holds one reference on its next hop, its VLAN and its tunnel group.
//
// Full table: an entry the chip refused for want of room is kept aside, out of the FDB status,
// logged once; whenever room is freed (a removal, an age event, a flush) the entries kept aside are
// queued again, so a configured entry gets in as soon as it fits. A learned entry the chip had
// no room for was never learned; the chip learns it again from the host's next packet. Remote
// MACs beyond the platform's maximum wait aside the same way.
#pragma once

#include <absl/container/btree_map.h>
#include <absl/container/btree_set.h>
#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#include <absl/functional/function_ref.h>

#include <deque>
#include <memory>
#include <optional>

#include "Vemo/MacEntryRank.h"
#include "Vemo/MacUpdateList.h"
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
  // A walk of the whole MLAG host table (the peering came up or its peer link changed) runs this
  // long at most before it yields; the walk of one MLAG interface's hosts after its link changed
  // runs in the update list's slices, as failover latency matters there.
  static constexpr Zol::Seconds kMlagWalkBudget = 0.1;
  static constexpr Zol::Seconds kMlagIntfWalkBudget = 0.01;
  static constexpr Zol::U8 kRouterMacPreference = 1;
  static constexpr Zol::U8 kFsfPreference = 1;

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
    Zol::Ptr<VXLAN::VtepStatusDir const> vtepStatusDir;
    Zol::Ptr<VXLAN::VtepGroupStatusDir const> vtepGroupStatusDir;
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
  // Kinds behind a tunnel.
  static bool isRemote(Bridging::EntryType t);
  // Remote kinds that were learned (and age), rather than configured or received.
  static bool isLearnedRemote(Bridging::EntryType t);
  // Sources that report a host where it was last seen, rather than pin it somewhere.
  static bool isDynamicSource(Bridging::EntryType t);

  Inputs const& inputs() const { return in_; }
  // What is queued for the chip, and what the chip had no room for.
  size_t updateListSize() const { return updateList_.size(); }
  size_t macTableUpdateListSize() const { return macTableUpdateList_.size(); }
  size_t fullEntriesSize() const { return fullEntries_.size(); }
  // Configured static entries whose address is also a router MAC of the VLAN (the router MAC wins).
  size_t collidingStaticEntryWithRouterMacEntry() const { return collidingStatic_.size(); }
  // Learning as last given to the helper, by port and by VLAN.
  absl::flat_hash_map<Nepo::IntfId, bool> const& learning() const { return learning_; }
  // Remote MACs held until their tunnel group's next hop is programmed.
  size_t waitingForNextHop() const;
  // Where the time-sliced MLAG walks stand: the next key of the whole-table walk (none when no
  // walk runs), and how many MLAG interfaces wait for their walk.
  std::optional<Bridging::MacVlanPair> mlagHostTableBookmark() const { return mlagBookmark_; }
  size_t mlagIntfWalksPending() const { return mlagIntfWalks_.size(); }
  // While the VXLAN boot status says a hitless restart of remote MACs runs.
  bool hitlessRestartInProgress() const;

 private:
  class Reactors;
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

  // The MLAG peer, 802.1X and failed servers.
  void handleMlagHostTableEntry(Bridging::MacVlanPair const& key);
  void handleMlagStatus();
  void handleMlagIntfStatus(Nepo::IntfId const& intf);
  void handleMlagHostTableTimer();
  void handleMlagIntfHostTableTimer();
  std::optional<MacCandidate> getPeerRemoteEntry(Bridging::MacVlanPair const& key);
  void indexMlagHost(Bridging::MacVlanPair const& key);
  void handleDot1xHostTableEntry(Bridging::MacVlanPair const& key);
  void handleDot1xStatus();
  void handleDot1xIntfStatus(Nepo::IntfId const& intf);
  bool dot1xRestricts(Nepo::IntfId const& intf) const;
  void handleFsfFailedServer(Bridging::MacVlanPair const& key);

  // Remote MACs.
  void handleConfiguredRemoteHost(Bridging::MacVlanPair const& key);
  void handleVxlanConfig(Nepo::IntfId const& vti);
  void handleReceivedRemoteHost(Bridging::MacVlanPair const& key);
  void handleEvpnMacEntry(Bridging::MacVlanPair const& key);
  void handleL2RibHost(Bridging::MacVlanPair const& key);
  void handleObjTupleHwId(L2Rib::ObjTuple const& tuple);
  void handleRemoteLearn(Bridging::MacVlanPair const& key);
  void handleUseReceivedHostTable();
  void handleVlanVni(Bridging::VlanId vlan);
  void handleVtepStatus(Nepo::IntfId const& vti);
  void handleTunnelGroupNextHop(SwTunnelGroupId group);
  void handleRemoteMacFlushRequest(VXLAN::FlushReqKey const& req);
  void handleBootStatus();
  void handleStageRemoteMacsReady();
  using Consider = absl::FunctionRef<void(MacCandidate const&, char const*)>;
  // The layer-2 RIB's, EVPN's and the controller's candidates, then the configured remote hosts.
  void gatherAnnouncedCandidates(Bridging::MacVlanPair const& key, Consider consider);
  void gatherConfiguredRemoteCandidate(Bridging::MacVlanPair const& key, Consider consider);
  // Queues a programmed remote MAC again as it stands (its next hop changed).
  void reprogramRemote(Bridging::MacVlanPair const& key);
  void queueRemoval(Bridging::MacVlanPair const& key, Bridging::HostEntry const& host,
                    bool keepWaiting = false);
  // Between a local learn and a dynamic source elsewhere: whether the local one moved last.
  bool localMoreRecent(ModifyMacEntry const& local, MacCandidate const& other) const;
  bool mlagActive() const;
  // The tunnel interface that carries a VLAN, or none.
  Nepo::IntfId vtiOfVlan(Bridging::VlanId vlan) const;
  // The next hop behind a remote entry: its RIB object's hardware id, or its tunnel group's next
  // hop on the tunnel interface. nullopt: not programmed (yet).
  std::optional<VXLAN::HwVtepInfo> hwVtepOf(Nepo::IntfId const& vti, SwTunnelGroupId group) const;
  std::optional<Zol::U32> nextHopOf(ModifyMacEntry const& update) const;
  // Where a remote entry goes in hardware: its next hop and, behind a tunnel group, the VTEP's
  // hardware state.
  struct RemoteTarget {
    Zol::U32 nextHop = 0;
    std::optional<VXLAN::HwVtepInfo> vtep;
  };
  std::optional<RemoteTarget> resolveRemote(ModifyMacEntry const& update) const;
  void detectRemoteLocalMove(ModifyMacEntry& update, std::optional<MacCandidate> const& current,
                             int point) const;
  void updateRemoteHostTableAfterHwProg(Bridging::MacVlanPair const& key,
                                        std::optional<VXLAN::StatusEntry> const& entry);
  bool skipDuringHitlessRestart(Bridging::MacVlanPair const& key, ModifyMacEntry const& update,
                                RemoteTarget const& target) const;

  // The decision.
  std::optional<MacCandidate> configuredEntry(Bridging::MacVlanPair const& key);
  std::optional<MacCandidate> currentEntry(Bridging::MacVlanPair const& key) const;
  void evaluateEntry(Bridging::MacVlanPair const& key, Nepo::IntfId const& intf,
                     SwTunnelGroupId swTunnelGroupId, L2Rib::ObjTuple const& objTuple,
                     Bridging::EntryType entryType, bool learnedInHardware, bool aged,
                     double lastMoveTime);
  void reevaluateEntry(Bridging::MacVlanPair const& key);
  void maybeUpdateMoveCount(ModifyMacEntry& update, std::optional<MacCandidate> const& current);
  bool checkIgnoreEvent(std::optional<MacCandidate> const& configured,
                        std::optional<MacCandidate> const& current, Nepo::IntfId const& intf,
                        SwTunnelGroupId swTunnelGroupId, Bridging::EntryType entryType,
                        bool learnedInHardware) const;
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
  // keepWaiting: what the pair holds follows its next hop (renumbered, or gone), which is no new
  // decision: a winner waiting for its own next hop keeps waiting.
  void addToUpdateList(Bridging::MacVlanPair const& key, ModifyMacEntry update,
                       bool keepWaiting = false);
  // Every source's candidate for the pair, in the order they are weighed.
  void gatherCandidates(Bridging::MacVlanPair const& key, Consider consider);
  // Whether what the FDB status holds for the pair still has a cause: a source that names it, or
  // the learn it came from.
  bool installedStands(Bridging::MacVlanPair const& key, Bridging::HostEntry const& host);
  void stopWaiting(Bridging::MacVlanPair const& key);
  void refreshWaiting(Bridging::MacVlanPair const& key);
  // The remote MACs programmed on a tunnel group, in key order.
  std::vector<Bridging::MacVlanPair> programmedOn(SwTunnelGroupId group);
  // Whether the data plane's standing learn of the pair is to be decided again in place of what the
  // sources say (it outlives a source that outranked it, unlike a learn the chip overwrote).
  bool dataPlaneLearnTakesOver(Bridging::MacVlanPair const& key,
                               std::optional<MacCandidate> const& configured,
                               std::optional<MacCandidate> const& current) const;

  // Programming.
  void updateQueuedAddresses();
  // target: where a remote add goes, resolved as it is taken from the list.
  MacProgramStatus program(Bridging::MacVlanPair const& key, ModifyMacEntry const& update,
                           std::optional<RemoteTarget> target);
  // A new remote MAC beyond the platform's maximum waits aside, like an entry with no room.
  bool remoteLimitReached(Bridging::MacVlanPair const& key, ModifyMacEntry const& update) const;
  static bool isRemoteAdd(ModifyMacEntry const& update);
  // Remote sources' changes are decided in time slices, as the chip's learns are, with what each
  // decision reads brought into the cache some way ahead.
  enum class RemoteSource : Zol::U8 { evpn, rib, received, dataPlane };
  void queueRemoteChange(Bridging::MacVlanPair const& key, RemoteSource source);
  void handleRemoteChangeTimer();
  void prefetchDecision(Bridging::MacVlanPair const& key, RemoteSource source) const;
  // Brings the entries of a pair some way down the update list into the cache.
  static constexpr size_t kPrefetchAhead = 8;
  void prefetch(Bridging::MacVlanPair const& key) const;
  void applied(Bridging::MacVlanPair const& key, ModifyMacEntry const& update);
  // An asynchronous platform refused a write it had answered success for, or wrote it after all.
  void handleRefusedHost(Bridging::MacVlanPair const& key);
  void entryFull(Bridging::MacVlanPair const& key, ModifyMacEntry update);
  void roomFreed();
  void requeueFullEntries();
  void addToFdbStatus(Bridging::MacVlanPair const& key, Bridging::HostEntry const& entry);
  void delFromFdbStatus(Bridging::MacVlanPair const& key);
  // The layer-2 RIB's input follows the learned hosts of the overlay's VLANs (null: not learned).
  void offerToL2Rib(Bridging::MacVlanPair const& key, Bridging::HostEntry const* learned);
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

  // The persistent store (Vemo/MacStateStore.h), at the helper's path.
  void restoreFromStore();
  void saveToStore() const;

  void handleVerify(Zol::String const& request);
  void verifyTables();
  void verifyLearning();
  void verifyRemote();

  Inputs const in_;
  std::unique_ptr<Reactors> reactors_;
  bool started_ = false;

  // The driver's events waiting for handleMacTableTimer, in arrival order, each pair once.
  std::deque<Bridging::MacVlanPair> macTableUpdateList_;
  absl::flat_hash_set<Bridging::MacVlanPair> macTableUpdatePending_;
  Zol::Clock macTableClock_;
  // Changes of the remote sources (announced and data-plane-learned MACs, which come in bursts of
  // hundreds of thousands), in arrival order, for handleRemoteChangeTimer.
  std::deque<std::pair<Bridging::MacVlanPair, RemoteSource>> remoteChanges_;
  Zol::Clock remoteChangeClock_;

  MacUpdateList updateList_;
  Zol::Clock updateClock_;
  // Entries the chip had no room for, with fullLogged set.
  absl::flat_hash_map<Bridging::MacVlanPair, ModifyMacEntry> fullEntries_;
  bool roomFreed_ = false;
  absl::flat_hash_set<Bridging::MacVlanPair> collidingStatic_;
  // Configured dynamic entries that aged in the chip: they stay out until configured again.
  absl::flat_hash_set<Bridging::MacVlanPair> agedConfiguredDynamic_;
  // Where the chip last learned each non-aging host: its entry stays there.
  absl::flat_hash_map<Bridging::MacVlanPair, Nepo::IntfId> nonAgingPort_;

  CondensedFlushRequest flush_;
  // Requests folded into flush_, answered once it is carried out.
  std::vector<Bridging::HostTableFlushReplyKey> flushAnswers_;
  Zol::Clock flushClock_;

  absl::flat_hash_map<Nepo::IntfId, bool> learning_;
  Nepo::IntfId peerLink_;
  absl::flat_hash_map<Bridging::VlanId, bool> vlanLearning_;
  // Verification requests that came before the first pass, answered after it.
  absl::btree_set<Zol::String> pendingVerify_;

  // The MLAG peer's hosts by the peer's interface, for the walk after an MLAG interface changed.
  absl::flat_hash_map<Nepo::IntfId, absl::btree_set<Bridging::MacVlanPair>> mlagHostTableIndex_;
  absl::flat_hash_map<Bridging::MacVlanPair, Nepo::IntfId> mlagHostIntf_;
  std::optional<Bridging::MacVlanPair> mlagBookmark_;
  Zol::Clock mlagClock_;
  // MLAG interfaces whose hosts wait to be decided again, and where the first one's walk stands.
  std::deque<Nepo::IntfId> mlagIntfWalks_;
  std::optional<Bridging::MacVlanPair> mlagIntfBookmark_;
  Zol::Clock mlagIntfClock_;
  Mlag::State mlagState_ = Mlag::State::stateDisabled;
  absl::flat_hash_map<Nepo::IntfId, Dot1x::HostMode> dot1xHostMode_;

  bool skipRemote_ = false;
  Zol::U32 maxRemoteMacs_ = 0;
  // Remote MACs waiting for their tunnel group's next hop, and those whose RIB object has no
  // hardware id yet, by what they wait for.
  absl::flat_hash_map<SwTunnelGroupId, absl::flat_hash_set<Bridging::MacVlanPair>> waitingGroup_;
  // The winner each waits with; meanwhile the pair keeps what it holds while that has a cause.
  absl::flat_hash_map<Bridging::MacVlanPair, ModifyMacEntry> waitingFor_;
  absl::flat_hash_map<L2Rib::ObjTuple, absl::flat_hash_set<Bridging::MacVlanPair>> tupleHosts_;
  absl::flat_hash_map<Bridging::MacVlanPair, L2Rib::ObjTuple> ribTupleOf_;
  // Programmed remote MACs by tunnel group, and the RIB object of those programmed through one.
  // (Appended as programmed, so that a burst touches no large set: a key that left its group, or
  // came back to it, is sorted out when the group is walked, or compacted as it empties.)
  struct GroupMacs {
    std::vector<Bridging::MacVlanPair> keys;
    Zol::U32 live = 0;  // how many are programmed on the group
  };
  absl::flat_hash_map<SwTunnelGroupId, GroupMacs> remoteByGroup_;
  absl::flat_hash_map<Bridging::MacVlanPair, L2Rib::ObjTuple> programmedTuple_;
  bool hitlessRestart_ = false;
  // While the update list drains, the references its writes take and drop are summed here and
  // written once at the end of the pass (by index, in order), not once a MAC.
  struct RefDeltas {
    absl::btree_map<Zol::U64, Zol::S64> nextHop, vlan, group;
  };
  std::optional<RefDeltas> refDeltas_;
  void countRefs(VXLAN::StatusEntry const& e, Zol::S64 delta);
  void applyRefDeltas();
  // The target of the remote write program() just made, for applied().
  RemoteTarget programmedTarget_;
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
    Zol::Ptr<PortVlanMembership const> const& portVlanMembership = {},
    Zol::Ptr<VXLAN::VtepStatusDir const> const& vtepStatusDir = {},
    Zol::Ptr<VXLAN::VtepGroupStatusDir const> const& vtepGroupStatusDir = {});

}  // namespace Vemo
