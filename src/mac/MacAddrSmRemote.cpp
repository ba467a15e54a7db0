// The MAC SM's remote MACs: hosts behind VXLAN tunnels, from the layer-2 RIB, EVPN, the overlay
// controller, the tunnel interfaces' configuration and data-plane learning; their next hops, the
// remote host status table with its reference counts, remote-MAC flushes and the hitless restart.
#include "MacAddrSmReactors.h"

ZOL_TRACE_MODULE("MacAddrSm")

namespace Vemo {

namespace {

using Bridging::EntryType;

bool rememberedSource(L2Rib::Source s) {
  return s == L2Rib::Source::sourceBgp || s == L2Rib::Source::sourceTestProto1 ||
         s == L2Rib::Source::sourceTestProto2 || s == L2Rib::Source::sourceTestProto3;
}

}  // namespace

bool MacAddrSm::isRemote(EntryType t) {
  switch (t) {
    case EntryType::configuredRemoteMac:
    case EntryType::learnedRemoteMac:
    case EntryType::evpnDynamicRemoteMac:
    case EntryType::receivedRemoteMac:
    case EntryType::evpnConfiguredRemoteMac:
    case EntryType::peerDynamicRemoteMac:
    case EntryType::peerConfiguredRemoteMac:
    case EntryType::peerReceivedRemoteMac:
    case EntryType::evpnRouterMac:
      return true;
    default:
      return false;
  }
}

bool MacAddrSm::isLearnedRemote(EntryType t) {
  return t == EntryType::learnedRemoteMac || t == EntryType::evpnDynamicRemoteMac ||
         t == EntryType::peerDynamicRemoteMac;
}

Nepo::IntfId MacAddrSm::vtiOfVlan(Bridging::VlanId vlan) const {
  return in_.remoteMacInfoDir->vniInfo()->validVlanVniMap(vlan).vtiIntfId();
}

// -- Candidates.

void MacAddrSm::gatherAnnouncedCandidates(Bridging::MacVlanPair const& key, Consider consider) {
  // (Most sources name no host most of the time: an empty one costs no hashing.)
  auto const& rib = in_.l2RibHostOutput->hostAll();
  if (auto const it = rib.empty() ? rib.end() : rib.find(key); it != rib.end()) {
    L2Rib::HostOutputEntry const& host = it->second;
    if (!rememberedSource(host.source())) {
      vemoAssert(
          "hostEntry.source() == L2Rib::Source::sourceBgp || hostEntry.source() == "
          "L2Rib::Source::sourceTestProto1 || hostEntry.source() == "
          "L2Rib::Source::sourceTestProto2 || hostEntry.source() == "
          "L2Rib::Source::sourceTestProto3");
    }
    Tolm::Seqno32 const moves(host.moveCount());
    if (host.destType() == L2Rib::DestType::destIntf) {
      consider(MacCandidate(key, host.intf(), EntryType::evpnIntfDynamicMac, SwTunnelGroupId(),
                            moves, host.lastMoveTime(), 0, false, L2Rib::ObjTuple(), false),
               " candidate from l2RibHostOutput");
    } else if (host.destType() == L2Rib::DestType::destVxlan && !skipRemote_) {
      Nepo::IntfId const vti = vtiOfVlan(key.vlanId());
      if (!vti.isEmpty()) {
        consider(MacCandidate(key, vti, EntryType::evpnDynamicRemoteMac, SwTunnelGroupId(), moves,
                              host.lastMoveTime(), 0, false, host.objTuple(), true),
                 " candidate from l2RibHostOutput");
      }
    } else {
      ZOL_TRACE(8, key << " layer-2 RIB destination " << host.destType() << " not programmed here");
    }
  }
  if (skipRemote_) return;
  auto const& evpn = in_.remoteMacTable->remoteMacAll();
  if (auto const it = evpn.find(key); it != evpn.end()) {
    Bridging::RemoteMacEntry const& mac = it->second;
    Nepo::IntfId const vti = vtiOfVlan(key.vlanId());
    if (!vti.isEmpty() && !mac.vtepAddr().isZero()) {
      EntryType const type =
          isRemote(mac.entryType()) ? mac.entryType() : EntryType::evpnDynamicRemoteMac;
      consider(
          MacCandidate(key, vti, type,
                       in_.swTunnelGroupIdManager->getSwTunnelGroupIdForTunnelIp(mac.vtepAddr()),
                       Tolm::Seqno32(mac.moveCount()), mac.lastMoveTime(), 0, false,
                       L2Rib::ObjTuple(), false),
          " candidate from remoteMacTable");
    }
  }
  if (!in_.remoteMacInfoDir->useReceivedHostTable()) return;
  auto const& received = in_.remoteMacInfoDir->receivedHostTable()->receivedEntryAll();
  if (auto const it = received.find(key); it != received.end()) {
    VXLAN::ReceivedEntry const& mac = it->second;
    Nepo::IntfId const vti = mac.intfName().isVxlan() ? mac.intfName() : vtiOfVlan(key.vlanId());
    if (!vti.isEmpty() && !mac.tunnelIpAddr().isZero()) {
      auto const preference = static_cast<Zol::U8>(std::min<Zol::U32>(mac.preference(), 0xFF));
      consider(
          MacCandidate(
              key, vti, EntryType::receivedRemoteMac,
              in_.swTunnelGroupIdManager->getSwTunnelGroupIdForTunnelIp(mac.tunnelIpAddr()),
              mac.moveCount(), mac.lastMoveTime(), preference, false, L2Rib::ObjTuple(), false),
          " candidate from receivedHostTable");
    }
  }
}

void MacAddrSm::gatherConfiguredRemoteCandidate(Bridging::MacVlanPair const& key,
                                                Consider consider) {
  if (skipRemote_) return;
  // Only the tunnel interface that carries the VLAN can reach the host.
  std::optional<Nepo::IntfId> carrier;
  for (auto const& [vti, config] : in_.vxlanConfigDir->vxlanConfigAll()) {
    auto const& macs = config->remoteMacAll();
    if (macs.empty()) continue;
    if (!carrier) carrier = vtiOfVlan(key.vlanId());
    if (vti != *carrier) continue;
    auto const it = macs.find(key);
    if (it == macs.end()) continue;
    consider(MacCandidate(key, vti, EntryType::configuredRemoteMac,
                          in_.swTunnelGroupIdManager->getSwTunnelGroupIdForTunnelIp(it->second),
                          Tolm::Seqno32(0), 0, 0, false, L2Rib::ObjTuple(), false),
             " candidate from vxlanConfigDir");
  }
}

// -- The sources' handlers.

void MacAddrSm::handleConfiguredRemoteHost(Bridging::MacVlanPair const& key) {
  ZOL_TRACE(
      9, "void Vemo::MacAddrSm::handleConfiguredRemoteHost(Bridging::MacVlanPair const&) " << key);
  if (!started_) return;
  reevaluateEntry(key);
}

void MacAddrSm::handleVxlanConfig(Nepo::IntfId const& vti) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleVxlanConfig(Nepo::IntfId const&) " << vti);
  if (!started_) return;
  Zol::Ptr<Vxlan::VxlanConfig const> const config = in_.vxlanConfigDir->vxlanConfig(vti);
  Reactors::track(this, reactors_->vxlanConfig, vti, config);
  // The interface's configured hosts, and those it held before it went.
  std::vector<Bridging::MacVlanPair> keys;
  if (config) {
    for (auto const& [key, vtep] : config->remoteMacAll()) keys.push_back(key);
  }
  for (auto const& [key, entry] : in_.remoteMacInfoDir->hostStatusTable()->statusEntryAll()) {
    if (entry.intf() == vti && entry.entryType() == EntryType::configuredRemoteMac) {
      keys.push_back(key);
    }
  }
  for (auto const& key : keys) handleConfiguredRemoteHost(key);
}

void MacAddrSm::handleReceivedRemoteHost(Bridging::MacVlanPair const& key) {
  ZOL_TRACE(9,
            "void Vemo::MacAddrSm::handleReceivedRemoteHost(Bridging::MacVlanPair const&) " << key);
  if (!started_) return;
  reevaluateEntry(key);
}

void MacAddrSm::handleEvpnMacEntry(Bridging::MacVlanPair const& key) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleEvpnMacEntry(Bridging::MacVlanPair const&) " << key);
  if (!started_) return;
  reevaluateEntry(key);
}

void MacAddrSm::handleL2RibHost(Bridging::MacVlanPair const& key) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleL2RibHost(Bridging::MacVlanPair const&) " << key);
  if (!started_) return;
  auto const& rib = in_.l2RibHostOutput->hostAll();
  auto const it = rib.find(key);
  std::optional<L2Rib::ObjTuple> const tuple =
      it != rib.end() && it->second.destType() == L2Rib::DestType::destVxlan
          ? std::optional(it->second.objTuple())
          : std::nullopt;
  if (auto const was = ribTupleOf_.find(key); was != ribTupleOf_.end()) {
    if (tuple != was->second) {
      auto const hosts = tupleHosts_.find(was->second);
      hosts->second.erase(key);
      if (hosts->second.empty()) tupleHosts_.erase(hosts);
      ribTupleOf_.erase(was);
    }
  }
  if (tuple && ribTupleOf_.emplace(key, *tuple).second) tupleHosts_[*tuple].insert(key);
  reevaluateEntry(key);
}

void MacAddrSm::handleObjTupleHwId(L2Rib::ObjTuple const& tuple) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleObjTupleHwId(L2Rib::ObjTuple const&) " << tuple);
  if (!started_) return;
  auto const hosts = tupleHosts_.find(tuple);
  if (hosts == tupleHosts_.end()) return;
  std::vector<Bridging::MacVlanPair> const keys(hosts->second.begin(), hosts->second.end());
  auto const& ids = in_.objTupleToHwId->hwIdAll();
  auto const id = ids.find(tuple);
  for (auto const& key : keys) {
    auto const programmed = programmedTuple_.find(key);
    if (programmed == programmedTuple_.end() || programmed->second != tuple) {
      reevaluateEntry(key);
      continue;
    }
    Bridging::HostEntry const* host = fdbEntry(key);
    if (id == ids.end()) {
      ZOL_TRACE(6, key << " hwId missing changing action to remove");
      if (host) queueRemoval(key, *host, /*keepWaiting=*/true);
    } else if (id->second !=
               in_.remoteMacInfoDir->hostStatusTable()->statusEntry(key).nextHopId().value()) {
      reprogramRemote(key);
    }
  }
}

void MacAddrSm::handleRemoteLearn(Bridging::MacVlanPair const& key) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleRemoteLearn(Bridging::MacVlanPair const&) " << key);
  if (!started_ || skipRemote_) return;
  auto const& learns = in_.remoteMacInfoDir->hostTable()->entryAll();
  auto const it = learns.find(key);
  if (it == learns.end()) {
    if (auto const waiting = waitingFor_.find(key);
        waiting != waitingFor_.end() &&
        waiting->second.entryType() == EntryType::learnedRemoteMac) {
      // The learn went before its next hop came: the pair is decided without it.
      stopWaiting(key);
      reevaluateEntry(key);
      return;
    }
    Bridging::HostEntry const* host = fdbEntry(key);
    if (host && host->entryType() == EntryType::learnedRemoteMac) {
      ZOL_TRACE(8, " address aged - " << key);
      evaluateEntry(key, Nepo::IntfId(), SwTunnelGroupId(), L2Rib::ObjTuple(),
                    EntryType::learnedRemoteMac, /*learnedInHardware=*/true, /*aged=*/true, now());
    }
    return;
  }
  VXLAN::HostEntry const& learn = it->second;
  if (learn.entryType() != EntryType::learnedRemoteMac) return;
  Nepo::IntfId const vti = learn.intf().isVxlan() ? learn.intf() : vtiOfVlan(key.vlanId());
  if (vti.isEmpty() || learn.swTunnelGroupId().isEmpty()) return;
  evaluateEntry(key, vti, learn.swTunnelGroupId(), L2Rib::ObjTuple(), EntryType::learnedRemoteMac,
                /*learnedInHardware=*/true, /*aged=*/false, learn.lastMoveTime());
}

bool MacAddrSm::dataPlaneLearnTakesOver(Bridging::MacVlanPair const& key,
                                        std::optional<MacCandidate> const& configured,
                                        std::optional<MacCandidate> const& current) const {
  if (skipRemote_ || in_.remoteMacInfoDir->useReceivedHostTable()) return false;
  auto const& learns = in_.remoteMacInfoDir->hostTable()->entryAll();
  auto const it = findIn(learns, key);
  if (it == learns.end() || it->second.entryType() != EntryType::learnedRemoteMac) return false;
  VXLAN::HostEntry const& learn = it->second;
  if (current && current->entryType() == EntryType::learnedRemoteMac &&
      current->swTunnelGroupId() == learn.swTunnelGroupId()) {
    return false;  // it is what the pair holds, or waits for
  }
  if (current &&
      (current->entryType() == EntryType::learnedDynamicMac ||
       current->entryType() == EntryType::learnedRemoteMac) &&
      current->lastMoveTime() > learn.lastMoveTime()) {
    return false;  // a newer learn holds the pair
  }
  // The data plane keeps what it learned: it comes back when no source outranks it.
  return !configured || (isDynamicSource(configured->entryType()) &&
                         !(configured->lastMoveTime() > learn.lastMoveTime()));
}

void MacAddrSm::handleUseReceivedHostTable() {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleUseReceivedHostTable()");
  if (!started_) return;
  std::vector<Bridging::MacVlanPair> keys;
  for (auto const& [key, entry] : in_.remoteMacInfoDir->receivedHostTable()->receivedEntryAll()) {
    keys.push_back(key);
  }
  // The data plane's learns give way to the controller's word, or come back as the learns they
  // were.
  std::vector<Bridging::MacVlanPair> learned;
  for (auto const& [key, entry] : in_.remoteMacInfoDir->hostTable()->entryAll()) {
    learned.push_back(key);
  }
  std::sort(keys.begin(), keys.end());
  std::sort(learned.begin(), learned.end());
  // Learns first: one that comes back is a move from where the controller had the host.
  for (auto const& key : learned) {
    if (in_.remoteMacInfoDir->useReceivedHostTable()) {
      reevaluateEntry(key);
    } else {
      handleRemoteLearn(key);
    }
  }
  for (auto const& key : keys) reevaluateEntry(key);
}

void MacAddrSm::handleVlanVni(Bridging::VlanId vlan) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleVlanVni(Bridging::VlanId) " << vlan);
  if (!started_) return;
  // The VLAN moved to another tunnel interface, or off VXLAN: its remote MACs follow.
  std::vector<Bridging::MacVlanPair> keys;
  for (auto const& [key, e] : in_.remoteMacTable->remoteMacAll()) {
    if (key.vlanId() == vlan) keys.push_back(key);
  }
  for (auto const& [key, e] : in_.l2RibHostOutput->hostAll()) {
    if (key.vlanId() == vlan) keys.push_back(key);
  }
  for (auto const& [key, e] : in_.remoteMacInfoDir->receivedHostTable()->receivedEntryAll()) {
    if (key.vlanId() == vlan) keys.push_back(key);
  }
  for (auto const& [key, e] : in_.remoteMacInfoDir->hostStatusTable()->statusEntryAll()) {
    if (key.vlanId() == vlan) keys.push_back(key);
  }
  for (auto const& key : keys) reevaluateEntry(key);
  // The VLAN's learned hosts join or leave the layer-2 RIB's input.
  if (auto const status = in_.bridgingStatus->fdbStatus(vlan)) {
    for (auto const& [mac, host] : status->learnedHostAll()) {
      bool const learned = host.entryType() == EntryType::learnedDynamicMac;
      offerToL2Rib(Bridging::MacVlanPair(mac, vlan), learned ? &host : nullptr);
    }
  }
}

// -- Next hops.

std::optional<VXLAN::HwVtepInfo> MacAddrSm::hwVtepOf(Nepo::IntfId const& vti,
                                                     SwTunnelGroupId group) const {
  if (group.isEmpty()) return std::nullopt;
  if (group.isSingleMemberGroup()) {
    if (!in_.vtepStatusDir) return std::nullopt;
    Zol::Ptr<VXLAN::VtepStatus const> const status = in_.vtepStatusDir->vtepStatus(vti);
    if (!status) return std::nullopt;
    auto const& all = status->hwVtepInfoAll();
    auto const it = all.find(group);
    if (it == all.end()) return std::nullopt;
    return it->second;
  }
  if (!in_.vtepGroupStatusDir) return std::nullopt;
  Zol::Ptr<VXLAN::VtepGroupStatus const> const status =
      in_.vtepGroupStatusDir->vtepGroupStatus(vti);
  if (!status) return std::nullopt;
  auto const& all = status->hwVtepGroupInfoAll();
  auto const it = all.find(group);
  if (it == all.end()) return std::nullopt;
  VXLAN::HwVtepGroupInfo const& info = it->second;
  return VXLAN::HwVtepInfo(info.swTunnelGroupId(), info.tunnelId(), info.nextHopId());
}

std::optional<MacAddrSm::RemoteTarget> MacAddrSm::resolveRemote(
    ModifyMacEntry const& update) const {
  if (update.l2RibObjTuple().objType() != L2Rib::ObjType::invalidObj) {
    auto const& ids = in_.objTupleToHwId->hwIdAll();
    auto const it = ids.find(update.l2RibObjTuple());
    if (it == ids.end()) return std::nullopt;
    return RemoteTarget{it->second, std::nullopt};
  }
  std::optional<VXLAN::HwVtepInfo> hw = hwVtepOf(update.intf(), update.swTunnelGroupId());
  if (!hw || !hw->nextHopId().isValid()) return std::nullopt;
  return RemoteTarget{hw->nextHopId().value(), std::move(hw)};
}

std::optional<Zol::U32> MacAddrSm::nextHopOf(ModifyMacEntry const& update) const {
  std::optional<RemoteTarget> const target = resolveRemote(update);
  if (!target) return std::nullopt;
  return target->nextHop;
}

size_t MacAddrSm::waitingForNextHop() const { return waitingFor_.size(); }

void MacAddrSm::handleVtepStatus(Nepo::IntfId const& vti) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleVtepStatus(Nepo::IntfId const&) " << vti);
  if (!started_) return;
  std::vector<SwTunnelGroupId> groups;
  if (in_.vtepStatusDir) {
    auto const status = in_.vtepStatusDir->vtepStatus(vti);
    Reactors::track(this, reactors_->vtepStatus, vti, status);
    if (status) {
      for (auto const& [group, info] : status->hwVtepInfoAll()) groups.push_back(group);
    }
  }
  if (in_.vtepGroupStatusDir) {
    auto const status = in_.vtepGroupStatusDir->vtepGroupStatus(vti);
    Reactors::track(this, reactors_->vtepGroupStatus, vti, status);
    if (status) {
      for (auto const& [group, info] : status->hwVtepGroupInfoAll()) groups.push_back(group);
    }
  }
  // Groups of an interface that went, or that came with their interface, are all looked at again.
  for (auto const& [group, keys] : remoteByGroup_) groups.push_back(group);
  for (auto const& [group, keys] : waitingGroup_) groups.push_back(group);
  std::sort(groups.begin(), groups.end());
  groups.erase(std::unique(groups.begin(), groups.end()), groups.end());
  for (SwTunnelGroupId group : groups) handleTunnelGroupNextHop(group);
}

void MacAddrSm::handleTunnelGroupNextHop(SwTunnelGroupId group) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleTunnelGroupNextHop(Vemo::SwTunnelGroupId) " << group);
  if (!started_) return;
  if (auto const waiting = waitingGroup_.find(group); waiting != waitingGroup_.end()) {
    std::vector<Bridging::MacVlanPair> keys(waiting->second.begin(), waiting->second.end());
    std::sort(keys.begin(), keys.end());
    // Any change of a pair decides it again, so what waits is still the decision: it is made
    // now, with the move count it was given (a data-plane learn is no source's to decide again).
    for (auto const& key : keys) addToUpdateList(key, ModifyMacEntry(waitingFor_.at(key)));
  }
  // Programmed MACs follow a next hop that changed. One that went with MACs still on it is the
  // platform's to keep until their references go, so they are left as they are.
  auto const status = in_.remoteMacInfoDir->hostStatusTable();
  for (auto const& key : programmedOn(group)) {
    VXLAN::StatusEntry const entry = status->statusEntry(key);
    std::optional<VXLAN::HwVtepInfo> const hw = hwVtepOf(entry.intf(), group);
    if (hw && hw->nextHopId().isValid() && hw->nextHopId() != entry.nextHopId()) {
      reprogramRemote(key);
    }
  }
}

std::vector<Bridging::MacVlanPair> MacAddrSm::programmedOn(SwTunnelGroupId group) {
  auto const it = remoteByGroup_.find(group);
  if (it == remoteByGroup_.end()) return {};
  std::vector<Bridging::MacVlanPair>& keys = it->second.keys;
  std::sort(keys.begin(), keys.end());
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  auto const& status = in_.remoteMacInfoDir->hostStatusTable()->statusEntryAll();
  std::erase_if(keys, [&](Bridging::MacVlanPair const& key) {
    auto const e = status.find(key);
    return e == status.end() || e->second.swTunnelGroupId() != group;
  });
  return keys;
}

void MacAddrSm::reprogramRemote(Bridging::MacVlanPair const& key) {
  Bridging::HostEntry const* host = fdbEntry(key);
  if (!host) return;
  // A queued write finds the new next hop when it is made; only a pair that keeps what it holds
  // (nothing queued, or a winner waiting) needs writing again.
  if (auto const queued = updateList_.find(key);
      queued && queued->update.action() != EntryEvaluationAction::ignoreLearnt) {
    return;
  }
  VXLAN::StatusEntry const entry = in_.remoteMacInfoDir->hostStatusTable()->statusEntry(key);
  ModifyMacEntry update;
  update.intfIs(host->intf());
  update.entryTypeIs(host->entryType());
  update.swTunnelGroupIdIs(entry.swTunnelGroupId());
  update.movesIs(host->moves());
  update.lastMoveTimeIs(host->lastMoveTime());
  if (auto const tuple = programmedTuple_.find(key); tuple != programmedTuple_.end()) {
    update.l2RibObjTupleIs(tuple->second);
  }
  update.actionIs(isLearnedRemote(host->entryType()) ? EntryEvaluationAction::addLearntRemote
                                                     : EntryEvaluationAction::addConfiguredRemote);
  ZOL_TRACE(6, key << " next hop changed, programming again");
  addToUpdateList(key, update, /*keepWaiting=*/true);
}

void MacAddrSm::queueRemoval(Bridging::MacVlanPair const& key, Bridging::HostEntry const& host,
                             bool keepWaiting) {
  ModifyMacEntry update;
  update.intfIs(host.intf());
  update.entryTypeIs(host.entryType());
  update.movesIs(host.moves());
  update.lastMoveTimeIs(host.lastMoveTime());
  update.actionIs(EntryEvaluationAction::removeFromFdbStatusAndHardware);
  addToUpdateList(key, update, keepWaiting);
}

// -- Moves between local ports and tunnels.

void MacAddrSm::detectRemoteLocalMove(ModifyMacEntry& update,
                                      std::optional<MacCandidate> const& current, int point) const {
  if (!current) return;
  bool const wasRemote = current->intf().isVxlan();
  bool const isNowRemote = update.intf().isVxlan();
  if (wasRemote && !isNowRemote) {
    ZOL_TRACE(6, " Detected remote to local move (" << point << "). " << current->key());
    update.movedToLocalIs(true);
    if (update.action() == EntryEvaluationAction::addLearntToFdbStatus) {
      update.actionIs(EntryEvaluationAction::addLearntLocalAndRemoveRemote);
    }
    ZOL_TRACE(6, " set movedToLocal flag and updated action to " << update.action());
  } else if (!wasRemote && isNowRemote) {
    ZOL_TRACE(6, " Detected local to remote move (" << point << "). " << current->key());
    update.movedToRemoteIs(true);
    ZOL_TRACE(6, " set movedToRemote flag and updated action to " << update.action());
  }
}

// -- The remote host status table and its references.

void MacAddrSm::updateRemoteHostTableAfterHwProg(Bridging::MacVlanPair const& key,
                                                 std::optional<VXLAN::StatusEntry> const& entry) {
  Zol::Ptr<VXLAN::HostStatusTable> const table = in_.remoteMacInfoDir->hostStatusTable();
  auto const& all = table->statusEntryAll();
  auto const it = all.find(key);
  std::optional<VXLAN::StatusEntry> const old =
      it == all.end() ? std::nullopt : std::optional(it->second);
  if (old == entry) return;
  // References move by the one mechanism a drain pass sums them with; outside one they are
  // written at once.
  bool const inPass = refDeltas_.has_value();
  if (!inPass) refDeltas_.emplace();
  if (entry) countRefs(*entry, +1);
  if (old) countRefs(*old, -1);
  if (!inPass) applyRefDeltas();
  if (old) {
    auto const byGroup = remoteByGroup_.find(old->swTunnelGroupId());
    if (byGroup != remoteByGroup_.end()) {
      if (--byGroup->second.live == 0) {
        remoteByGroup_.erase(byGroup);
      } else if (byGroup->second.keys.size() > 2 * size_t{byGroup->second.live} + 64) {
        programmedOn(old->swTunnelGroupId());
      }
    }
  }
  if (entry) {
    GroupMacs& byGroup = remoteByGroup_[entry->swTunnelGroupId()];
    byGroup.keys.push_back(key);
    ++byGroup.live;
    if (!old) in_.remoteMacInfoDir->addMacToVlanBasedHostIndex(key.vlanId().value(), key.macAddr());
    table->statusEntryIs(key, *entry);
  } else {
    in_.remoteMacInfoDir->delMacFromVlanBasedHostIndex(key.vlanId().value(), key.macAddr());
    table->statusEntryDel(key);
    programmedTuple_.erase(key);
    roomFreed();
  }
}

void MacAddrSm::countRefs(VXLAN::StatusEntry const& e, Zol::S64 delta) {
  if (e.nextHopId().isValid()) {
    refDeltas_->nextHop[e.nextHopId().value()] += delta;
  } else {
    ZOL_TRACE(8, " ignoring invalid nextHopId : " << e.nextHopId().value());
  }
  refDeltas_->vlan[e.key().vlanId().value()] += delta;
  if (!e.swTunnelGroupId().isEmpty()) refDeltas_->group[e.swTunnelGroupId().value()] += delta;
}

void MacAddrSm::applyRefDeltas() {
  RefDeltas deltas = std::move(*refDeltas_);
  refDeltas_.reset();
  // The new references first, so that one a MAC moved to never passes through zero.
  for (bool const adding : {true, false}) {
    for (auto const& [index, delta] : deltas.nextHop) {
      if (delta != 0 && (delta > 0) == adding) {
        in_.remoteMacInfoDir->nextHopIdRefcountTable()->addRefcount(index, delta);
      }
    }
    for (auto const& [index, delta] : deltas.vlan) {
      if (delta != 0 && (delta > 0) == adding) {
        in_.remoteMacInfoDir->vlanRefcountTable()->addRefcount(index, delta);
      }
    }
    for (auto const& [index, delta] : deltas.group) {
      if (delta != 0 && (delta > 0) == adding) {
        in_.swTunnelGroupIdManager->addSwTunnelGroupIdRefcount(SwTunnelGroupId(index), delta);
      }
    }
  }
}

// -- Remote-MAC flushes.

void MacAddrSm::handleRemoteMacFlushRequest(VXLAN::FlushReqKey const& req) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleRemoteMacFlushRequest(Vemo::VXLAN::FlushReqKey const&)"
                   << " " << req);
  if (!started_ || !in_.remoteMacInfoDir->remoteMacFlushReqTable()->flushReqHas(req)) return;
  ZOL_TRACE(5, " flushing remote macs of vlan " << req.vlanId() << " on " << req.vtiIntfId());
  auto const index = in_.remoteMacInfoDir->vlanBasedHostTableIndex(req.vlanId().value());
  if (!index) return;
  std::vector<Bridging::MacVlanPair> keys;
  for (auto const& [mac, on] : index->macAddrListAll()) keys.emplace_back(mac, req.vlanId());
  for (auto const& key : keys) {
    Bridging::HostEntry const* host = fdbEntry(key);
    // Only what was learned goes: configured and announced MACs stand until their source goes.
    if (!host || !isLearnedRemote(host->entryType())) continue;
    if (!req.vtiIntfId().isEmpty() && host->intf() != req.vtiIntfId()) continue;
    queueRemoval(key, *host);
  }
}

// -- Hitless restart.

bool MacAddrSm::hitlessRestartInProgress() const {
  Zol::Ptr<VXLAN::VxlanBootStatus> const boot = in_.remoteMacInfoDir->vxlanBootStatus();
  return boot && boot->vxlanHitlessRestartSupported() && !boot->stageRemoteMacsReady();
}

void MacAddrSm::handleBootStatus() {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleBootStatus()");
  if (!started_) return;
  Zol::Ptr<VXLAN::VxlanBootStatus> const boot = in_.remoteMacInfoDir->vxlanBootStatus();
  if (reactors_->bootStatus.notifier() != boot) reactors_->bootStatus.notifierIs(boot);
  handleStageRemoteMacsReady();
}

void MacAddrSm::handleStageRemoteMacsReady() {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleStageRemoteMacsReady()");
  if (!started_) return;
  bool const inProgress = hitlessRestartInProgress();
  if (inProgress == hitlessRestart_) return;
  hitlessRestart_ = inProgress;
  if (inProgress) {
    ZOL_TRACE(5, "hitless restart is in progress");
    return;
  }
  ZOL_TRACE(5, " Remote MAC hitless recovery complete ");
  // Remote MACs kept while their sources were coming back are decided now; what hardware held
  // before the restart and no source claimed again goes.
  std::vector<Bridging::MacVlanPair> keys;
  for (auto const& [key, entry] : in_.remoteMacInfoDir->hostStatusTable()->statusEntryAll()) {
    keys.push_back(key);
  }
  for (auto const& key : keys) reevaluateEntry(key);
  Zol::Ptr<VXLAN::VxlanBootStatus> const boot = in_.remoteMacInfoDir->vxlanBootStatus();
  if (!boot) return;
  for (auto const& [key, hw] : boot->recoveredRmacToVtepAll()) {
    if (fdbEntry(key) || updateList_.contains(key)) continue;
    ZOL_TRACE(6, key << " recovered from hardware and claimed by no source: removing");
    ModifyMacEntry update;
    update.swTunnelGroupIdIs(hw.swTunnelGroupId());
    update.entryTypeIs(EntryType::configuredRemoteMac);
    update.actionIs(EntryEvaluationAction::removeFromFdbStatusAndHardware);
    addToUpdateList(key, update);
  }
}

bool MacAddrSm::skipDuringHitlessRestart(Bridging::MacVlanPair const& key,
                                         ModifyMacEntry const& update,
                                         RemoteTarget const& target) const {
  if (!hitlessRestart_) return false;
  Zol::Ptr<VXLAN::VxlanBootStatus> const boot = in_.remoteMacInfoDir->vxlanBootStatus();
  auto const& recovered = boot->recoveredRmacToVtepAll();
  auto const it = recovered.find(key);
  if (it == recovered.end()) return false;
  std::optional<VXLAN::HwVtepInfo> const& hw = target.vtep;
  if (!hw || *hw != it->second) return false;
  auto const& tunnels = in_.remoteMacInfoDir->tunnelInfoDir()->tunnelInfoAll();
  if (auto const t = tunnels.find(hw->tunnelId());
      t != tunnels.end() && t->second.vtiIntfId() != update.intf()) {
    return false;
  }
  ZOL_TRACE(6,
            "MacProgramStatus Vemo::MacAddrSm::program(Bridging::MacVlanPair const&, "
            "Vemo::ModifyMacEntry const&) skipping programming of remote MAC "
                << key.macAddr() << "/" << key.vlanId() << " during hitless restart ");
  return true;
}

}  // namespace Vemo
