// The port-channel SM: start, per-port-channel reactors, membership updates and clean-up.
#include "LagSmReactors.h"

ZOL_TRACE_MODULE("LagSm")

namespace Vemo {

LagSm::LagSm(Inputs const& inputs)
    : VemoBaseSm(inputs.commonData),
      in_(inputs),
      dirReactor_(std::make_unique<DirReactor>(this)),
      commonReactor_(std::make_unique<CommonReactor>(this)),
      verifyReactor_(std::make_unique<VerifyReactor>(this)),
      mlagReactor_(std::make_unique<MlagReactor>(this)),
      mounterReactor_(std::make_unique<MounterReactor>(this)) {
  for (auto const& [lag, status] : in_.ethLagIntfStatusDir->intfStatusAll()) newStatus(lag);
  dirReactor_->notifierIs(in_.ethLagIntfStatusDir);
  commonReactor_->notifierIs(in_.commonData);
  verifyReactor_->notifierIs(verifyData());
}

LagSm::~LagSm() {
  // Unregister first: nothing the clean-up writes may come back to a half-destroyed SM.
  dirReactor_.reset();
  commonReactor_.reset();
  verifyReactor_.reset();
  mlagReactor_.reset();
  mounterReactor_.reset();
  // Every port-channel goes; none may take back a port another one releases on the way.
  contested_.clear();
  for (auto& [lag, status] : status_) status->handleDel();
  // Requests held for this SM's answer must not wait for ever.
  for (Zol::String const& request : pendingVerify_) verifyData()->answerGiven(request);
}

Zol::Ptr<LagSm> lagSmFactory(
    Zol::Ptr<VemoCommonSmData> const& commonData,
    Zol::Ptr<Interface::EthLagIntfStatusDir const> const& ethLagIntfStatusDir,
    Zol::Ptr<Lag::Input::IntfDeviceNameDir> const& lagInputIntfDeviceNameDir,
    Zol::Ptr<VemoHelper::VemoHelperLagSm> const& helper) {
  return Zol::make<LagSm>(
      LagSm::Inputs{commonData, ethLagIntfStatusDir, lagInputIntfDeviceNameDir, helper});
}

void LagSm::handleInitialized() {
  if (!initialized()) return;
  ZOL_TRACE(8, "handleInitialized");
  if (started_) {
    resync();
    return;
  }
  started_ = true;
  // The helper is readied here, before the first port-channel is created.
  in_.helper->hwInit();
  handleOperationalMode();
  if (!mlagStatus_ && lagMounter_) lagMounter_->doMount("Mlag::Status");
  for (auto& [lag, status] : status_) status->handleInitialized();
  in_.lagInputIntfDeviceNameDir->containsLocalDevicesIs(true);
  answerPendingVerify();
}

void LagSm::resync() {
  ZOL_TRACE(5, "resync");
  handleOperationalMode();
  // Statuses that went, or were replaced, while nothing was acted on go first, so that their
  // ports are free for the port-channels that list them now.
  std::vector<Nepo::IntfId> gone;
  for (auto const& [lag, status] : status_) {
    if (!status->statusExists()) gone.push_back(lag);
  }
  for (Nepo::IntfId const& lag : gone) statusDel(lag);
  // Key order: where two statuses list one port, the same one wins on every run.
  absl::btree_set<Nepo::IntfId> lags;
  for (auto const& [lag, entity] : in_.ethLagIntfStatusDir->intfStatusAll()) lags.insert(lag);
  for (Nepo::IntfId const& lag : lags) {
    ZolStatus* const reactor = status(lag);
    if (reactor && reactor->initialized()) {
      reactor->resync();
    } else {
      newStatus(lag);
    }
  }
  handleMlagStateOrPeerLinkIntf();
  answerPendingVerify();
}

void LagSm::answerPendingVerify() {
  for (Zol::String const& request : std::exchange(pendingVerify_, {})) {
    verifyData()->requestVerify(request);
    verifyData()->answerGiven(request);
  }
}

LagSm::ZolStatus* LagSm::status(Nepo::IntfId const& lag) const {
  auto it = status_.find(lag);
  return it == status_.end() ? nullptr : it->second.get();
}

VemoLagPortList const& LagSm::localMember(Nepo::IntfId const& lag) const {
  static VemoLagPortList const empty;
  auto it = localMember_.find(lag);
  return it == localMember_.end() ? empty : it->second;
}

void LagSm::localMemberIs(Nepo::IntfId const& lag, VemoLagPortList const& members) {
  localMember_.insert_or_assign(lag, members);
}

VemoLagPortList const& LagSm::lagToPortOrEmpty(Nepo::IntfId const& lag) const {
  // The common data answers an empty list for a port-channel it does not hold.
  return commonData()->lagToPort(lag);
}

void LagSm::newStatus(Nepo::IntfId const& lag) {
  if (stopped()) return;
  Zol::Ptr<Interface::EthLagIntfStatus const> const entity =
      in_.ethLagIntfStatusDir->intfStatus(lag);
  ZolStatus* existing = status(lag);
  if (existing && existing->notifier() != entity) {
    // Deleted and created again between two passes: the old status is gone.
    statusDel(lag);
    existing = nullptr;
  }
  if (!existing) {
    existing = status_.emplace(lag, std::make_unique<ZolStatus>(this, entity)).first->second.get();
  }
  if (existing->initialized()) return;
  existing->handleInitialized();
  // A peer link whose status (re)appears is valid again.
  if (initialized() && mlagStatus_ && mlagStatus_->peerLinkIntf() == lag &&
      currentPeerLink_ != lag) {
    handleMlagStateOrPeerLinkIntf();
  }
}

void LagSm::statusDel(Nepo::IntfId const& lag) {
  if (stopped()) return;
  auto it = status_.find(lag);
  if (it == status_.end()) return;
  std::unique_ptr<ZolStatus> const gone = std::move(it->second);
  status_.erase(it);
  forgetContested(lag);
  // The peer link is valid only while its status exists: sharing it is withdrawn before the
  // peer link itself is cleaned up.
  if (initialized() && lag == currentPeerLink_ && !disableCleanupOnRestart_) {
    handleMlagStateOrPeerLinkIntf();
  }
  gone->handleDel();
}

void LagSm::forgetContested(Nepo::IntfId const& lag) {
  absl::erase_if(contested_, [&lag](auto& entry) {
    std::erase(entry.second, lag);
    return entry.second.empty();
  });
}

bool LagSm::isIntfManaged(Nepo::IntfId const& intf) const {
  if (in_.helper->intfManagedCheckOverride()) return in_.helper->isIntfManaged(intf);
  return commonData()->intfHas(intf);
}

void LagSm::handleIntfManaged(Nepo::IntfId const& intf) {
  // The common data's interfaces decide membership only without the helper's override; an
  // interface that comes or goes resyncs the port-channels that list it.
  if (!initialized() || in_.helper->intfManagedCheckOverride()) return;
  for (auto& [lag, status] : status_) {
    if (status->notifier()->memberHas(intf) || lagToPortOrEmpty(lag).portHas(intf)) {
      status->handleIntf();
    }
  }
}

void LagSm::doScrubMember(Nepo::IntfId const& lag, Nepo::IntfId const& port) {
  ZOL_TRACE(8, "doScrubMember"
                   << " intfName " << port);
  // This SM keeps portToLag the index of lagToPort, so the one other port-channel that can hold
  // the port is found there rather than by walking every port-channel.
  Nepo::IntfId const other = commonData()->portToLag(port);
  if (other == lag || !lagToPortOrEmpty(other).portHas(port)) return;
  ZOL_TRACE(5, "doScrubMember"
                   << " intfName " << port << " duplicate lag found " << other);
  ZolStatus* const holder = status(other);
  if (!holder || !holder->initialized()) {
    scrubOrphan(other, port);
    return;
  }
  holder->doUpdateMember(port, false);
  // Remembered so that the port goes back to it if the taker lets go while it still lists it.
  std::vector<Nepo::IntfId>& losers = contested_[port];
  std::erase(losers, other);
  losers.push_back(other);
}

void LagSm::scrubOrphan(Nepo::IntfId const& lag, Nepo::IntfId const& port) {
  VemoCommonSmData& cd = *commonData();
  VemoLagPortList list = lagToPortOrEmpty(lag);
  list.portDel(port);
  if (list.portSize() == 0) {
    sharePeerLinkWithLag_.erase(lag);
    cd.lagToPortDel(lag);
    localMemberDel(lag);
    in_.helper->maybeDestroyLag(lag);
  } else {
    localMemberIs(lag, list);
    in_.helper->updateLag(lag, list);
    cd.lagToPortIs(lag, list);
  }
  if (cd.portToLag(port) == lag) cd.portToLagDel(port);
}

class LagSm::UpdateScope {
 public:
  explicit UpdateScope(LagSm* sm) : sm_(sm) { ++sm_->updateDepth_; }
  ~UpdateScope() {
    if (--sm_->updateDepth_ == 0) sm_->reclaimReleased();
  }
  UpdateScope(UpdateScope const&) = delete;
  UpdateScope& operator=(UpdateScope const&) = delete;

 private:
  LagSm* sm_;
};

void LagSm::reclaimReleased() {
  while (!released_.empty()) {
    Nepo::IntfId const port = released_.back();
    released_.pop_back();
    auto it = contested_.find(port);
    if (it == contested_.end() || commonData()->portToLagHas(port)) continue;
    std::vector<Nepo::IntfId> losers = std::move(it->second);
    contested_.erase(it);
    while (!losers.empty()) {
      ZolStatus* const loser = status(losers.back());
      losers.pop_back();
      if (!loser || !loser->initialized() || !loser->statusExists() ||
          !loser->notifier()->memberHas(port) || !isIntfManaged(port)) {
        continue;
      }
      ZOL_TRACE(5, "reclaimMember"
                       << " intfName " << port << " lag " << loser->intf());
      if (!losers.empty()) contested_[port] = std::move(losers);
      loser->handleIntf(port);
      break;
    }
  }
}

void LagSm::handleOperationalMode() {
  ZOL_TRACE(5, "void Vemo::LagSm::handleOperationalMode()");
  if (!initialized()) return;
  // Tap aggregation forwards LACP frames as data.
  in_.helper->lacpEnabledIs(commonData()->operationalMode() != HwOperationalMode::modeTapAgg);
}

// ---------------------------------------------------------------------------------------------
// One port-channel.

LagSm::ZolStatus::ZolStatus(LagSm* sm, Zol::Ptr<Interface::EthLagIntfStatus const> const& status)
    : sm_(sm), intf_(status->intfId()) {
  notifierIs(status);
}

bool LagSm::ZolStatus::statusExists() const {
  return sm_->in_.ethLagIntfStatusDir->intfStatus(intf_) == notifier();
}

bool LagSm::ZolStatus::active() const { return initialized_ && sm_->initialized(); }

void LagSm::ZolStatus::writeDeviceName() {
  Zol::String const& name = notifier()->deviceName();
  Lag::Input::IntfDeviceNameDir& names = *sm_->in_.lagInputIntfDeviceNameDir;
  if (!name.empty()) {
    names.deviceNameIs(intf_, name);
  } else if (names.deviceNameHas(intf_)) {
    ZOL_TRACE(6, "Removing deviceName input for " << intf_);
    names.deviceNameDel(intf_);
  }
}

void LagSm::ZolStatus::resync() {
  writeDeviceName();
  handleIntf();
}

void LagSm::ZolStatus::handleInitialized() {
  if (!sm_->initialized()) return;
  if (initialized_) sm_->vemoAssert("!initialized()");
  initialized_ = true;
  if (Zol::String const& name = notifier()->deviceName(); !name.empty()) {
    sm_->in_.lagInputIntfDeviceNameDir->deviceNameIs(intf_, name);
    ZOL_TRACE(6, "Added deviceName " << name << " input for " << intf_);
  }
  handleIntf();
}

void LagSm::ZolStatus::handleIntf() {
  if (!active()) return;
  ZOL_TRACE(8, "handleIntf " << intf_);
  VemoLagPortList list;
  for (auto const& [member, present] : notifier()->memberAll()) {
    if (member.isPeer() || !sm_->isIntfManaged(member)) continue;
    list.portIs(member, VemoLagPort(true, true));
  }
  if (list.portSize() == 0) {
    doCleanupLag();
  } else {
    doUpdatePortList(list);
  }
  sm_->answerPendingVerify();
}

void LagSm::ZolStatus::onMember(Nepo::IntfId const& member) { handleIntf(member); }

void LagSm::ZolStatus::onDeviceName() {
  if (active()) writeDeviceName();
}

void LagSm::ZolStatus::handleIntf(Nepo::IntfId const& member) {
  if (!active()) return;
  ZOL_TRACE(8, "handleIntf"
                   << " intfName " << member);
  if (member.isPeer() || !sm_->isIntfManaged(member)) return;
  doUpdateMember(member, statusExists() && notifier()->memberHas(member));
}

void LagSm::ZolStatus::doUpdateMember(Nepo::IntfId const& member, bool add) {
  VemoLagPortList list = sm_->lagToPortOrEmpty(intf_);
  if (add) {
    list.portIs(member, VemoLagPort(true, true));
  } else {
    list.portDel(member);
  }
  ZOL_TRACE(8, "doUpdateMember"
                   << " infName " << member << " add " << add);
  if (list.portSize() == 0 && !statusExists()) {
    doCleanupLag();
  } else {
    doUpdatePortList(list);
  }
}

void LagSm::ZolStatus::doUpdatePortList(VemoLagPortList const& newList) {
  if (!initialized_) return;
  ZOL_TRACE(8, "doUpdatePortList " << intf_);
  UpdateScope const scope(sm_);
  VemoCommonSmData& cd = *sm_->commonData();
  VemoLagPortList const oldList = sm_->lagToPortOrEmpty(intf_);
  for (auto const& [port, state] : newList.portAll()) sm_->doScrubMember(intf_, port);
  sm_->maybeSharePeerLinkWithLag(intf_, newList);
  sm_->localMemberIs(intf_, newList);
  sm_->helper()->maybeCreateLag(intf_);
  sm_->helper()->updateLag(intf_, newList);
  // Readers see the new list before any per-port entry changes, so no port is ever in two.
  cd.lagToPortIs(intf_, newList);
  if (statusExists()) writeDeviceName();
  for (auto const& [port, state] : oldList.portAll()) {
    if (newList.portHas(port)) continue;
    ZOL_TRACE(5, "doUpdatePortList " << intf_ << " deleting " << port);
    // Only this port-channel's own entry goes; a port taken by a port-channel that started
    // first keeps the entry that port-channel wrote.
    if (cd.portToLag(port) == intf_) {
      cd.portToLagDel(port);
      sm_->portReleased(port);
    }
  }
  for (auto const& [port, state] : newList.portAll()) {
    if (cd.portToLag(port) == intf_) continue;
    ZOL_TRACE(5, "doUpdatePortList " << intf_ << " adding " << port);
    cd.portToLagIs(port, intf_);
  }
}

void LagSm::ZolStatus::doCleanupLag() {
  if (!initialized_) return;
  ZOL_TRACE(8, "doCleanupLag " << intf_);
  UpdateScope const scope(sm_);
  VemoCommonSmData& cd = *sm_->commonData();
  VemoLagPortList const members = sm_->lagToPortOrEmpty(intf_);
  for (auto const& [port, state] : members.portAll()) {
    if (cd.portToLag(port) != intf_) sm_->vemoAssert("vcsd()->portToLag( i.key() ) == intf()");
    cd.portToLagDel(port);
    sm_->portReleased(port);
  }
  sm_->sharePeerLinkWithLag_.erase(intf_);
  cd.lagToPortDel(intf_);
  sm_->localMemberDel(intf_);
  sm_->helper()->maybeDestroyLag(intf_);
}

void LagSm::ZolStatus::handleDel() {
  if (!initialized_) return;
  ZOL_TRACE(8, "handleDel " << intf_);
  if (sm_->disableCleanupOnRestart()) {
    ZOL_TRACE(5, "Disabling Vemo cleanup in case of restart");
    return;
  }
  doCleanupLag();
  ZOL_TRACE(6, "Removing deviceName input for " << intf_);
  sm_->in_.lagInputIntfDeviceNameDir->deviceNameDel(intf_);
}

}  // namespace Vemo
