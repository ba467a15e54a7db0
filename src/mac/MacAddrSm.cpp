// The MAC SM: start, the sources' handlers and learning control.
#include "MacAddrSmReactors.h"

ZOL_TRACE_MODULE("MacAddrSm")

namespace Vemo {

MacAddrSm::MacAddrSm(Inputs const& inputs)
    : VemoBaseSm(inputs.commonData),
      in_(inputs),
      macTableClock_(inputs.commonData->loop(), [this] { handleMacTableTimer(); }),
      remoteChangeClock_(inputs.commonData->loop(), [this] { handleRemoteChangeTimer(); }),
      updateClock_(inputs.commonData->loop(), [this] { updateQueuedAddresses(); }),
      flushClock_(inputs.commonData->loop(), [this] { handleFlushReqTimer(); }),
      mlagClock_(inputs.commonData->loop(), [this] { handleMlagHostTableTimer(); }),
      mlagIntfClock_(inputs.commonData->loop(), [this] { handleMlagIntfHostTableTimer(); }) {
  reactors_ = std::make_unique<Reactors>(this);
  reactors_->hwMacTable.notifierIs(in_.hwMacTable);
  reactors_->config.notifierIs(in_.bridgingConfig);
  if (in_.routerMacTable) reactors_->routerMac.notifierIs(in_.routerMacTable);
  if (in_.nonAgingMacStatus) reactors_->nonAging.notifierIs(in_.nonAgingMacStatus);
  reactors_->flushRequests.notifierIs(in_.flushRequestDir);
  reactors_->intfStatus.notifierIs(in_.ethPhyIntfStatusDir);
  reactors_->mlag.notifierIs(in_.mlagStatus);
  if (in_.portVlanMembership) reactors_->portVlan.notifierIs(in_.portVlanMembership);
  reactors_->helper.notifierIs(in_.helper);
  reactors_->verify.notifierIs(commonData()->verifyData());
  reactors_->connectSources(this);
}

MacAddrSm::~MacAddrSm() {
  saveToStore();
  // Requests held for this SM's answer must not wait for ever.
  for (Zol::String const& request : pendingVerify_) verifyData().answerGiven(request);
}

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
    Zol::Ptr<Bridging::RouterMacTable const> const& routerMacTable,
    Zol::Ptr<Bridging::NonAgingMacStatus const> const& nonAgingMacStatus,
    Zol::Ptr<PortVlanMembership const> const& portVlanMembership,
    Zol::Ptr<VXLAN::VtepStatusDir const> const& vtepStatusDir,
    Zol::Ptr<VXLAN::VtepGroupStatusDir const> const& vtepGroupStatusDir) {
  return Zol::make<MacAddrSm>(MacAddrSm::Inputs{commonData,
                                                commonMulticastData,
                                                macTable,
                                                hwMacTable,
                                                bridgingStatus,
                                                flushRequestDir,
                                                flushReplyDir,
                                                bridgingConfig,
                                                ethPhyIntfConfigDir,
                                                ethPhyIntfStatusDir,
                                                vlanHelper,
                                                mlagHostTable,
                                                mlagStatus,
                                                helper,
                                                fsfStatus,
                                                vxlanConfigDir,
                                                remoteMacInfoDir,
                                                remoteMacTable,
                                                dot1xHostTable,
                                                dot1xStatus,
                                                dot1xHelper,
                                                l2RibHostInput,
                                                l2RibHostOutput,
                                                swTunnelGroupIdManager,
                                                objTupleToHwId,
                                                routerMacTable,
                                                nonAgingMacStatus,
                                                portVlanMembership,
                                                vtepStatusDir,
                                                vtepGroupStatusDir});
}

void MacAddrSm::handleInitialized() {
  ZOL_TRACE(9, "virtual void Vemo::MacAddrSm::handleInitialized()");
  if (!initialized()) return;
  // The pass runs again after a pause of delivery: every handler below only converges, so what
  // changed meanwhile is caught up and nothing else is touched.
  if (!started_) {
    started_ = true;
    in_.helper->hwInit();
    in_.helper->handleLinkStateAtInit();
    skipRemote_ = in_.helper->skipVemoVxlanRmacHandling();
    maxRemoteMacs_ = in_.helper->getMaxRemoteMacs();
    // The remote host status table, its references and its index are this SM's claims: a
    // previous run's are dropped, and the store says what the chip still holds.
    VXLAN::RemoteMacInfoDir& remote = *in_.remoteMacInfoDir;
    remote.hostStatusTable()->statusEntryDelAll();
    remote.nextHopIdRefcountTable()->refcountDelAll();
    remote.vlanRefcountTable()->refcountDelAll();
    remote.vlanBasedHostTableIndexDelAll();
    restoreFromStore();
  }
  handleHostAgingTime();
  peerLink_ = in_.mlagStatus->peerLinkIntf();
  for (auto const& [intf, config] : in_.bridgingConfig->switchIntfConfigAll()) {
    handleSwitchIntfConfig(intf);
  }
  for (auto const& [vlan, config] : in_.bridgingConfig->vlanConfigAll()) handleVlanConfig(vlan);
  for (auto const& [fid, config] : in_.bridgingConfig->fdbConfigAll()) handleFdbConfig(fid);
  // Programmed entries whose source went while nothing was acted on.
  std::vector<Bridging::MacVlanPair> programmed;
  for (auto const& [key, entry] : in_.macTable->entryAll()) programmed.push_back(key);
  for (auto const& [key, entry] : in_.remoteMacInfoDir->hostStatusTable()->statusEntryAll()) {
    programmed.push_back(key);
  }
  for (auto const& key : programmed) reevaluateEntry(key);
  if (in_.routerMacTable) {
    for (auto const& [key, on] : in_.routerMacTable->routerMacAll()) handleRouterMacEntry(key);
  }
  if (in_.nonAgingMacStatus) {
    for (auto const& [key, on] : in_.nonAgingMacStatus->hostAll()) handleNonAgingMacEntries(key);
  }
  handleMlagStatus();
  for (auto const& [key, entry] : in_.mlagHostTable->hostEntryAll()) handleMlagHostTableEntry(key);
  handleDot1xStatus();
  for (auto const& [key, entry] : in_.dot1xHostTable->hostAll()) handleDot1xHostTableEntry(key);
  for (auto const& [key, intf] : in_.fsfStatus->failedServerAll()) handleFsfFailedServer(key);
  handleBootStatus();
  if (in_.vtepStatusDir) {
    for (auto const& [vti, status] : in_.vtepStatusDir->vtepStatusAll()) handleVtepStatus(vti);
  }
  if (in_.vtepGroupStatusDir) {
    for (auto const& [vti, status] : in_.vtepGroupStatusDir->vtepGroupStatusAll()) {
      handleVtepStatus(vti);
    }
  }
  for (auto const& [vti, config] : in_.vxlanConfigDir->vxlanConfigAll()) handleVxlanConfig(vti);
  for (auto const& [key, entry] : in_.remoteMacInfoDir->receivedHostTable()->receivedEntryAll()) {
    handleReceivedRemoteHost(key);
  }
  for (auto const& [key, entry] : in_.remoteMacTable->remoteMacAll()) handleEvpnMacEntry(key);
  for (auto const& [key, entry] : in_.l2RibHostOutput->hostAll()) handleL2RibHost(key);
  for (auto const& [key, entry] : in_.remoteMacInfoDir->hostTable()->entryAll()) {
    handleRemoteLearn(key);
  }
  // What the chip learned before this start is published, as if it were learned now.
  for (auto const& [key, entry] : in_.hwMacTable->entryAll()) handleMacTableEntry(key);
  for (auto const& [requester, dir] : in_.flushRequestDir->requestDirAll()) {
    handleFlushRequestDir(requester);
  }
  removeStaleFlushReplies();
  for (Zol::String const& request : std::exchange(pendingVerify_, {})) {
    handleVerify(request);
    verifyData().answerGiven(request);
  }
}

// -- The chip's learn and age events: queued here, taken in time slices by handleMacTableTimer.

void MacAddrSm::handleMacTableEntry(Bridging::MacVlanPair const& key) {
  if (!started_) return;
  if (!macTableUpdatePending_.insert(key).second) return;
  macTableUpdateList_.push_back(key);
  if (!macTableClock_.armed()) macTableClock_.timeMinIs(0);
}

void MacAddrSm::handleMacTableTimer() {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleMacTableTimer()");
  Zol::Seconds const deadline = now() + kSliceBudget;
  while (!macTableUpdateList_.empty()) {
    Bridging::MacVlanPair const key = macTableUpdateList_.front();
    macTableUpdateList_.pop_front();
    macTableUpdatePending_.erase(key);
    handleMacEntry(key);
    if (!macTableUpdateList_.empty() && now() >= deadline) {
      ZOL_TRACE(8, "handleMacTableTimer: time slice spent, " << macTableUpdateList_.size()
                                                             << " events left");
      macTableClock_.timeMinIs(0);
      return;
    }
  }
}

// -- Changes of the remote sources: queued here, decided in time slices.

void MacAddrSm::queueRemoteChange(Bridging::MacVlanPair const& key, RemoteSource source) {
  if (!started_) return;
  remoteChanges_.emplace_back(key, source);
  if (!remoteChangeClock_.armed()) remoteChangeClock_.timeMinIs(0);
}

void MacAddrSm::handleRemoteChangeTimer() {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleRemoteChangeTimer()");
  Zol::Seconds const deadline = now() + kSliceBudget;
  while (!remoteChanges_.empty()) {
    if (remoteChanges_.size() > kPrefetchAhead) {
      auto const& [ahead, source] = remoteChanges_[kPrefetchAhead];
      prefetchDecision(ahead, source);
    }
    auto const [key, source] = remoteChanges_.front();
    remoteChanges_.pop_front();
    switch (source) {
      case RemoteSource::evpn:
        handleEvpnMacEntry(key);
        break;
      case RemoteSource::rib:
        handleL2RibHost(key);
        break;
      case RemoteSource::received:
        handleReceivedRemoteHost(key);
        break;
      case RemoteSource::dataPlane:
        handleRemoteLearn(key);
        break;
    }
    if (!remoteChanges_.empty() && now() >= deadline) {
      ZOL_TRACE(8, "handleRemoteChangeTimer: time slice spent, " << remoteChanges_.size()
                                                                 << " changes left");
      remoteChangeClock_.timeMinIs(0);
      return;
    }
  }
}

void MacAddrSm::prefetchDecision(Bridging::MacVlanPair const& key, RemoteSource source) const {
  switch (source) {
    case RemoteSource::evpn:
      in_.remoteMacTable->remoteMacAll().prefetch(key);
      break;
    case RemoteSource::rib:
      in_.l2RibHostOutput->hostAll().prefetch(key);
      break;
    case RemoteSource::received:
      in_.remoteMacInfoDir->receivedHostTable()->receivedEntryAll().prefetch(key);
      break;
    case RemoteSource::dataPlane:
      in_.remoteMacInfoDir->hostTable()->entryAll().prefetch(key);
      break;
  }
  updateList_.prefetch(key);
  if (auto const fdb = in_.bridgingStatus->fdbStatus(key.vlanId())) {
    fdb->learnedHostAll().prefetch(key.macAddr());
  }
}

void MacAddrSm::handleMacEntry(Bridging::MacVlanPair const& key) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleMacEntry(Bridging::MacVlanPair const&) " << key);
  auto const& entries = in_.hwMacTable->entryAll();
  auto const it = entries.find(key);
  if (it == entries.end()) {
    handleAddressAged(key);
  } else {
    handleAddressLearnt(key, it->second);
  }
}

void MacAddrSm::handleAddressLearnt(Bridging::MacVlanPair const& key,
                                    VemoTypes::MacAddressTableEntry const& entry) {
  ZOL_TRACE(9,
            "void Vemo::MacAddrSm::handleAddressLearnt(Bridging::MacVlanPair const&, "
            "VemoTypes::MacAddressTableEntry const&) "
                << key << " " << entry.intf());
  evaluateEntry(key, entry.intf(), SwTunnelGroupId(), L2Rib::ObjTuple(), entry.entryType(),
                /*learnedInHardware=*/true, /*aged=*/false, now());
}

void MacAddrSm::handleAddressAged(Bridging::MacVlanPair const& key) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleAddressAged(Bridging::MacVlanPair const&)");
  ZOL_TRACE(8, " address aged - " << key);
  roomFreed();
  if (Bridging::HostEntry const* host = fdbEntry(key); host && host->intf().isVxlan()) {
    // The chip dropped its local entry for a host that moved behind a tunnel.
    ZOL_TRACE(8, "age of " << key << " ignored: it is behind " << host->intf());
    return;
  }
  evaluateEntry(key, Nepo::IntfId(), SwTunnelGroupId(), L2Rib::ObjTuple(),
                Bridging::EntryType::learnedDynamicMac, /*learnedInHardware=*/true,
                /*aged=*/true, now());
}

// -- Configured, router and non-aging entries.

void MacAddrSm::handleFdbConfig(Bridging::VlanId fid) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleFdbConfig(Bridging::VlanId) " << fid);
  if (!started_) return;
  Zol::Ptr<Bridging::FdbConfig const> const config = in_.bridgingConfig->fdbConfig(fid);
  Reactors::track(this, reactors_->fdbConfig, fid, config);
  // A VLAN's configuration that went takes its configured hosts with it: every pair of the VLAN
  // that holds a configured entry is decided again.
  std::vector<Bridging::MacVlanPair> keys;
  updateList_.forEach([&](MacUpdateList::Queued const& q) {
    if (q.key.vlanId() == fid) keys.push_back(q.key);
  });
  if (auto const status = in_.bridgingStatus->fdbStatus(fid)) {
    for (auto const& [mac, host] : status->learnedHostAll()) {
      if (host.entryType() != Bridging::EntryType::learnedDynamicMac) keys.emplace_back(mac, fid);
    }
  }
  if (config) {
    for (auto const& [mac, host] : config->configuredHostAll()) keys.emplace_back(mac, fid);
  }
  for (auto const& key : keys) handleConfiguredHost(key);
}

void MacAddrSm::handleConfiguredHost(Bridging::MacVlanPair const& key) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleConfiguredHost(Bridging::MacVlanPair const&) " << key);
  if (!started_) return;
  agedConfiguredDynamic_.erase(key);
  reevaluateEntry(key);
}

void MacAddrSm::handleRouterMacEntry(Bridging::MacVlanPair const& key) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleRouterMacEntry(Bridging::MacVlanPair const&) " << key);
  if (!started_) return;
  reevaluateEntry(key);
}

void MacAddrSm::handleNonAgingMacEntries(Bridging::MacVlanPair const& key) {
  ZOL_TRACE(9,
            "void Vemo::MacAddrSm::handleNonAgingMacEntries(Bridging::MacVlanPair const&) " << key);
  if (!started_) return;
  if (!in_.nonAgingMacStatus->hostHas(key)) {
    nonAgingPort_.erase(key);
  } else if (!nonAgingPort_.contains(key)) {
    // The host stays where the chip holds its learn, or where the FDB status has it learned (or
    // kept non-aging, as restored at a start).
    auto const& hw = in_.hwMacTable->entryAll();
    auto const learn = hw.find(key);
    Bridging::HostEntry const* host = fdbEntry(key);
    bool const ownKind = host && (host->entryType() == Bridging::EntryType::learnedDynamicMac ||
                                  host->entryType() == Bridging::EntryType::nonAgingMac);
    // The chip reports the SM's own aging writes too; those are no learn.
    bool const echo = learn != hw.end() && host && !ownKind && host->intf() == learn->second.intf();
    if (learn != hw.end() && !echo && !learn->second.intf().isVxlan()) {
      nonAgingPort_.emplace(key, learn->second.intf());
    } else if (ownKind && !host->intf().isVxlan()) {
      nonAgingPort_.emplace(key, host->intf());
    }
  }
  reevaluateEntry(key);
}

void MacAddrSm::handleHostAgingTime() {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleHostAgingTime()");
  if (!started_) return;
  int const seconds = static_cast<int>(in_.bridgingConfig->hostAgingTime());
  ZOL_TRACE(6, "aging time " << seconds);
  in_.helper->configureAgingTime(seconds);
}

void MacAddrSm::handleIntfStatus(Nepo::IntfId const& intf) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleIntfStatus(Nepo::IntfId const&) " << intf);
  if (!started_) return;
  handleLearning(intf);
  // Configured entries behind the port are installed or withdrawn with it.
  for (auto const& [fid, config] : in_.bridgingConfig->fdbConfigAll()) {
    for (auto const& [mac, host] : config->configuredHostAll()) {
      if (host.intf() == intf) reevaluateEntry(Bridging::MacVlanPair(mac, fid));
    }
  }
  if (!intfExists(intf)) flushPort(Bridging::VlanId(0), intf);
}

bool MacAddrSm::intfExists(Nepo::IntfId const& intf) const {
  if (intf.isEthernet()) return in_.ethPhyIntfStatusDir->intfStatusHas(intf);
  if (intf.isPortChannel()) return commonData()->lagToPortHas(intf);
  return intf.isCpu() || intf.isVxlan();
}

// -- Learning control.

void MacAddrSm::handleSwitchIntfConfig(Nepo::IntfId const& intf) {
  if (!started_) return;
  Reactors::track(this, reactors_->switchIntfConfig, intf,
                  in_.bridgingConfig->switchIntfConfig(intf));
  handleLearning(intf);
}

void MacAddrSm::handleVlanConfig(Bridging::VlanId vlan) {
  if (!started_) return;
  Reactors::track(this, reactors_->vlanConfig, vlan, in_.bridgingConfig->vlanConfig(vlan));
  handleLearningOnVlan(vlan);
}

bool MacAddrSm::learningConfigured(Nepo::IntfId const& intf) const {
  auto const config = in_.bridgingConfig->switchIntfConfig(intf);
  if (!config || !config->macLearning()) return false;
  if (config->switchportModeAndNativeVlan().switchportMode() == Bridging::SwitchportMode::routed) {
    return false;
  }
  if (in_.portVlanMembership) {
    return in_.portVlanMembership->intfVlans(intf).vlanSize() > 0;
  }
  return true;
}

void MacAddrSm::handleLearning(Nepo::IntfId const& intf) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleLearning(Nepo::IntfId const&) " << intf);
  if (!started_) return;
  if (intf.isVlan()) {
    ZOL_TRACE(5, intf << " is vlan interface. MAC learning control feature is not supported");
    if (in_.bridgingConfig->switchIntfConfigHas(intf)) {
      ZOL_TRACE(5, "Mac learning cannot be enabled on intf:" << intf);
    }
    return;
  }
  bool const known = in_.bridgingConfig->switchIntfConfigHas(intf);
  bool enable = learningConfigured(intf);
  if (known && intf == peerLink_ && in_.mlagStatus->state() != Mlag::State::stateDisabled &&
      in_.mlagStatus->state() != Mlag::State::stateInactive) {
    // The peer syncs what it learns: hosts behind the peer link come from it, not the chip.
    enable = false;
    ZOL_TRACE(5, intf << " is peer link of an MLAG hence enable = " << enable);
  }
  auto const it = learning_.find(intf);
  if (!known) {
    if (it == learning_.end()) return;
    learning_.erase(it);
    return;
  }
  if (it != learning_.end() && it->second == enable) return;
  learning_.insert_or_assign(intf, enable);
  ZOL_TRACE(5, "learning on " << intf << " " << (enable ? "enabled" : "disabled"));
  in_.helper->enableLearning(intf, enable);
  if (!enable) {
    ZOL_TRACE(5, "mac learning is not configured on "
                     << intf << ", clear dynamic mac-address table entries");
    if (intf.isPortChannel()) {
      flushLag(Bridging::VlanId(0), intf);
    } else {
      flushPort(Bridging::VlanId(0), intf);
    }
  }
}

void MacAddrSm::handleLearningOnVlan(Bridging::VlanId vlan) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleLearningOnVlan(Bridging::VlanId) " << vlan);
  if (!started_) return;
  auto const config = in_.bridgingConfig->vlanConfig(vlan);
  auto const it = vlanLearning_.find(vlan);
  if (!config) {
    if (it != vlanLearning_.end()) vlanLearning_.erase(it);
    return;
  }
  bool const enable = config->macLearning();
  if (it != vlanLearning_.end() && it->second == enable) return;
  vlanLearning_.insert_or_assign(vlan, enable);
  ZOL_TRACE(5, "learning in vlan " << vlan << " " << (enable ? "enabled" : "disabled"));
  in_.helper->enableLearningOnVlan(vlan, enable);
  if (!enable) {
    ZOL_TRACE(5, "mac learning is not configured on vlan "
                     << vlan << ", clear dynamic mac-address table entries");
    flushVlan(vlan);
  }
}

void MacAddrSm::handleMlagPeerLink() {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleMlagPeerLink()");
  if (!started_) return;
  Nepo::IntfId const old = std::exchange(peerLink_, in_.mlagStatus->peerLinkIntf());
  if (!old.isEmpty()) handleLearning(old);
  if (!peerLink_.isEmpty() && peerLink_ != old) handleLearning(peerLink_);
}

}  // namespace Vemo
