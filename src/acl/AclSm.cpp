// The ACL SM's root: construction and start, the type SMs and their number ranges, the inputs
// every part of the tree reads (interface sources, port-channel members, sub-interfaces), the
// operational mode and the deferred updater.
#include <cstdlib>

#include "AclSmReactors.h"

ZOL_TRACE_MODULE("AclSm")

namespace Vemo {

AclSm::AclSm(Inputs const& inputs)
    : VemoBaseSm(inputs.commonData),
      in_(inputs),
      simulation_(std::getenv("SIMULATION_VMID") != nullptr),
      timer_(*in_.clock, [this] { handleTime(); }),
      retryTimer_(*in_.clock, [this] { scheduleApply(); }),
      poller_(std::make_unique<AclCountersPoller>(this)),
      configReactor_(std::make_unique<ConfigReactor>(this)),
      paramReactor_(std::make_unique<ParamReactor>(this)),
      commonReactor_(std::make_unique<CommonReactor>(this)),
      lagReactor_(std::make_unique<LagReactor>(this)),
      helperReactor_(std::make_unique<HelperReactor>(this)),
      verifyReactor_(std::make_unique<VerifyReactor>(this)),
      sourceDirReactor_(std::make_unique<SourceDirReactor>(this)),
      subIntfStatusDirReactor_(std::make_unique<SubIntfStatusDirReactor>(this)),
      subIntfConfigDirReactor_(std::make_unique<SubIntfConfigDirReactor>(this)) {
  // One agent, one loop: timers on another would fire on another time.
  if (in_.clock != &commonData()->loop()) vemoAssert("clock == commonData()->loop()");
  for (auto const& [port, lag] : in_.lagInputConfig->phyIntfAll()) lagMembers_[lag].insert(port);
  for (auto const& [intf, s] : in_.subIntfStatusDir->intfStatusAll()) subIntfWatch(intf);
  for (auto const& [intf, c] : in_.subIntfConfigDir->intfConfigAll()) subIntfWatch(intf);
  watchIntfConfigSources();
  for (auto const& [type, config] : in_.mainConfig->configAll()) handleConfig(type);
  configReactor_->notifierIs(in_.mainConfig);
  paramReactor_->notifierIs(in_.aclParamConfig);
  commonReactor_->notifierIs(in_.commonData);
  lagReactor_->notifierIs(in_.lagInputConfig);
  helperReactor_->notifierIs(in_.aclHelper);
  verifyReactor_->notifierIs(in_.commonData->verifyData());
  sourceDirReactor_->notifierIs(in_.intfConfigDir);
  subIntfStatusDirReactor_->notifierIs(in_.subIntfStatusDir);
  subIntfConfigDirReactor_->notifierIs(in_.subIntfConfigDir);
}

AclSm::~AclSm() {
  // Reactors first, so that what the tree's teardown writes never comes back to it.
  configReactor_.reset();
  paramReactor_.reset();
  commonReactor_.reset();
  lagReactor_.reset();
  helperReactor_.reset();
  verifyReactor_.reset();
  sourceDirReactor_.reset();
  subIntfStatusDirReactor_.reset();
  subIntfConfigDirReactor_.reset();
  intfConfigReactors_.clear();
  subIntfReactors_.clear();
  // Instances leave hardware as their SMs go; lookups from there see an empty tree.
  {
    auto types = std::move(types_);
    types_.clear();
    types.clear();
  }
  intfSms_.clear();
}

Zol::Ptr<AclSm> aclSmFactory(Zol::Ptr<VemoCommonSmData> const& commonData,
                             Zol::Ptr<Acl::Config const> const& mainConfig,
                             Zol::Ptr<Acl::ParamConfig const> const& aclParamConfig,
                             Zol::Ptr<Acl::IntfConfigDir const> const& intfConfigDir,
                             Zol::Ptr<Acl::IntfConfig const> const& intfConfigCli,
                             Zol::Ptr<Acl::HwConfigDir const> const& hwConfigDir,
                             Zol::Ptr<Acl::StatusDp> const& status,
                             Zol::Ptr<Errdisable::CauseStatus> const& aclCauseStatus,
                             Zol::Ptr<Lag::Input::Config const> const& lagInputConfig,
                             Zol::Ptr<VemoHelper::AclHelper> const& aclHelper,
                             Zol::ActivityLoop& clock,
                             Zol::Ptr<Bridging::Config const> const& brConfig,
                             Zol::Ptr<Interface::SubIntfStatusDir const> const& subIntfStatusDir,
                             Zol::Ptr<Interface::SubIntfConfigDir const> const& subIntfConfigDir) {
  return aclSmFactory(AclSm::Inputs{commonData, mainConfig, aclParamConfig, intfConfigDir,
                                    intfConfigCli, hwConfigDir, status, aclCauseStatus,
                                    lagInputConfig, aclHelper, &clock, brConfig, subIntfStatusDir,
                                    subIntfConfigDir});
}

Zol::Ptr<AclSm> aclSmFactory(AclSm::Inputs const& inputs) { return Zol::make<AclSm>(inputs); }

void AclSm::handleInitialized() {
  if (!initialized()) return;
  ZOL_TRACE(8, "AclSm::handleInitialized");
  in_.aclHelper->hwInit();
  // Whatever a previous run errdisabled is judged again by this run's first cycle.
  doRemoveAllErrdisables();
  handleOperationalMode();
  handleDeepInspSkip();
  for (auto& [type, typeSm] : types_) typeSm->handleInitialized();
  poller_->handleInitialized();
  scheduleApply();
}

// ---- Types and number ranges ----

AclTypeConfigSm* AclSm::typeSm(Acl::AclType type) const {
  auto it = types_.find(type);
  return it == types_.end() ? nullptr : it->second.get();
}

AclDirectionTypeConfigSm* AclSm::directionSm(Acl::AclType type, Acl::AclDirection d) const {
  AclTypeConfigSm* const t = typeSm(type);
  return t ? t->directionSm(d) : nullptr;
}

void AclSm::handleConfig(Acl::AclType type) {
  Zol::Ptr<Acl::AclTypeConfig const> const config = in_.mainConfig->config(type);
  auto it = types_.find(type);
  if (it != types_.end()) {
    if (it->second->config() == config) return;
    // Out of the map before it goes: its instances leave hardware as it is destroyed and must
    // not find it half-destroyed.
    std::unique_ptr<AclTypeConfigSm> const gone = std::move(it->second);
    types_.erase(it);
  }
  if (!config) return;
  Zol::U16 const aclNumberRangeStart = aclNumbersUsed_;
  auto sm = std::make_unique<AclTypeConfigSm>(this, config);
  if (aclNumbersUsed_ != aclNumberRangeStart) {
    ZOL_TRACE(5, "AclSm::handleAclTypeConfig assigned acl id range " << aclNumberRangeStart
                                                                     << " to " << aclNumbersUsed_);
    if (!(aclNumberRangeStart < aclNumbersUsed()))
      vemoAssert("aclNumberRangeStart < aclNumbersUsed()");
  }
  AclTypeConfigSm* const typeSm = types_.emplace(type, std::move(sm)).first->second.get();
  if (initialized()) typeSm->handleInitialized();
}

Zol::U16 AclSm::aclNumberRangeStartIs(AclTypeDir const& typeDir) {
  // A type deleted and configured again keeps its ranges, so that the 16-bit number space is
  // spent once per type and direction, never per configuration change.
  if (auto it = rangeStart_.find(typeDir); it != rangeStart_.end()) return it->second;
  Zol::U16 const aclNumberRangeStart = aclNumbersUsed_;
  aclNumbersUsed_ = static_cast<Zol::U16>(aclNumberRangeStart + aclNumbersPerType_);
  ZOL_TRACE(5, "AclTypeConfigSm::handleIntfsConfig assigned acl id range "
                   << aclNumberRangeStart << " to " << aclNumberRangeStart + aclNumbersPerType_);
  if (!(aclNumberRangeStart < aclNumbersUsed())) {
    vemoAssert("aclNumberRangeStart < aclSm()->aclNumbersUsed()");
  }
  rangeStart_.emplace(typeDir, aclNumberRangeStart);
  return aclNumberRangeStart;
}

Zol::U32 AclSm::aclNumberCount(Acl::AclType type) const {
  // The larger of the configured limit and what any chip says it installs.
  Zol::U32 limit = in_.aclParamConfig->aclCountLimit();
  for (auto const& [chip, hw] : in_.hwConfigDir->hwConfigAll()) {
    limit = std::max(limit, hw->aclCountLimit());
  }
  if (type != Acl::AclType::mac) limit += aclNumbersPerVlan;
  return limit;
}

// ---- Interface configuration sources ----

std::vector<Zol::Ptr<Acl::IntfTypeConfig const>> AclSm::intfTypeConfigs(Acl::AclType type) const {
  std::vector<Zol::Ptr<Acl::IntfTypeConfig const>> out;
  if (auto c = in_.intfConfigCli->config(type)) out.push_back(c);
  for (auto const& [source, config] : in_.intfConfigDir->intfConfigAll()) {
    if (auto c = config->config(type)) out.push_back(c);
  }
  return out;
}

void AclSm::watchIntfConfigSources() {
  intfConfigReactors_.clear();
  auto const watch = [this](Zol::Ptr<Acl::IntfConfig const> const& c) {
    intfConfigReactors_.push_back(std::make_unique<IntfConfigReactor>(this));
    intfConfigReactors_.back()->notifierIs(c);
  };
  watch(in_.intfConfigCli);
  for (auto const& [source, config] : in_.intfConfigDir->intfConfigAll()) watch(config);
}

void AclSm::handleIntfConfigSource(Zol::Name const& source) {
  ZOL_TRACE(8, "AclSm::handleIntfConfigSource " << source);
  watchIntfConfigSources();
  for (auto& [type, typeSm] : types_) typeSm->handleIntf(Acl::AclDirection::in);
  for (auto& [type, typeSm] : types_) typeSm->handleIntf(Acl::AclDirection::out);
}

// ---- Port-channels, interfaces, sub-interfaces ----

absl::btree_set<Nepo::IntfId> const& AclSm::lagMembers(Nepo::IntfId const& lag) const {
  static absl::btree_set<Nepo::IntfId> const none;
  auto it = lagMembers_.find(lag);
  return it == lagMembers_.end() ? none : it->second;
}

std::optional<Nepo::IntfId> AclSm::lagOf(Nepo::IntfId const& port) const {
  if (!in_.lagInputConfig->phyIntfHas(port)) return std::nullopt;
  return in_.lagInputConfig->phyIntf(port);
}

bool AclSm::isVlanIntf(Nepo::IntfId const& intf) { return intf.isVlan(); }
bool AclSm::isSubIntf(Nepo::IntfId const& intf) { return intf.isSubIntf(); }

void AclSm::handlePhyIntf(Nepo::IntfId const& port) {
  // The port joined, left or moved between port-channels: every instance on either takes the
  // change in the next cycle.
  absl::btree_set<Nepo::IntfId> touched;
  for (auto it = lagMembers_.begin(); it != lagMembers_.end();) {
    if (it->second.erase(port)) touched.insert(it->first);
    it = it->second.empty() ? lagMembers_.erase(it) : std::next(it);
  }
  if (std::optional<Nepo::IntfId> lag = lagOf(port)) {
    lagMembers_[*lag].insert(port);
    touched.insert(*lag);
  }
  ZOL_TRACE(8, "AclSm::handlePhyIntf " << port << " lags " << touched.size());
  // The port's own instance too: it filters the port again once no port-channel's does.
  touched.insert(port);
  bool changed = false;
  for (auto const& [type, typeSm] : types_) {
    for (auto const d : {Acl::AclDirection::in, Acl::AclDirection::out}) {
      for (Nepo::IntfId const& intf : touched) {
        changed = typeSm->directionSm(d)->portOwnerChanged(intf) || changed;
      }
    }
  }
  if (changed) scheduleApply();
}

void AclSm::handleIntf(Nepo::IntfId const& intf) {
  // An interface that appears or goes is reconsidered by every direction: a configuration
  // naming it may have waited for it.
  for (auto const& [type, typeSm] : types_) {
    typeSm->directionSm(Acl::AclDirection::in)->handleIntf(intf);
    typeSm->directionSm(Acl::AclDirection::out)->handleIntf(intf);
  }
}

void AclSm::subIntfWatch(Nepo::IntfId const& intf) {
  auto it = subIntfReactors_.find(intf);
  if (it == subIntfReactors_.end()) {
    it = subIntfReactors_.emplace(intf, std::make_unique<SubIntfReactor>(this, intf)).first;
  }
  it->second->statusIs(in_.subIntfStatusDir->intfStatus(intf));
  it->second->configIs(in_.subIntfConfigDir->intfConfig(intf));
  if (it->second->empty()) subIntfReactors_.erase(it);
}

void AclSm::handleSubIntfInternalVlanId(Nepo::IntfId const& intf) {
  // The sub-interface's instance follows its forwarding VLAN: the entries of the old one go and
  // those of the new one come, through the same add and remove as any interface.
  ZOL_TRACE(5, "AclSm::handleSubIntfInternalVlanId " << intf);
  handleIntf(intf);
}

void AclSm::handleSubIntfCfgVlanId(Nepo::IntfId const& intf) {
  ZOL_TRACE(5, "AclSm::handleSubIntfCfgVlanId " << intf);
  handleIntf(intf);
}

// ---- Modes ----

void AclSm::handleOperationalMode() {
  bool const tapAgg = commonData()->operationalMode() == HwOperationalMode::modeTapAgg;
  ZOL_TRACE(5, "AclSm::handleOperationalMode tapAggMode " << tapAgg);
  in_.aclHelper->tapAggModeIs(tapAgg);
  if (!initialized()) return;
  forceRecreatePending_ = true;
  // A simulation host runs the whole cycle at once rather than waiting for the updater; a cycle
  // still waiting for the platform finishes first, and its end starts this one.
  if (simulation_ && applyPhase_ == AclApplyPhase::aclApplyPhaseDone) {
    doApplyAcls(std::exchange(forceRecreatePending_, false));
  } else {
    scheduleApply();
  }
}

void AclSm::handleDeepInspSkip() {
  bool const l2 = in_.aclParamConfig->deepInspSkipL2();
  bool const l4 = in_.aclParamConfig->deepInspSkipL4();
  if (in_.aclHelper->deepInspSkipL2() == l2 && in_.aclHelper->deepInspSkipL4() == l4) return;
  ZOL_TRACE(5, "AclSm::handleDeepInspSkip L2 " << l2 << " L4 " << l4);
  in_.aclHelper->deepInspSkipL2Is(l2);
  in_.aclHelper->deepInspSkipL4Is(l4);
  // Rules are built with the skip in force: all of them are created again.
  forceRecreatePending_ = true;
  scheduleApply();
}

// ---- Deferred updater ----

void AclSm::scheduleApply() {
  in_.aclHelper->dirtyIs(true);
  if (!initialized()) return;
  in_.aclHelper->needsDeferredUpdateIs(true);
  if (timer_.armed()) return;
  // Platforms that defer operations batch the changes of a moment into one cycle.
  Zol::Seconds const delay = in_.aclHelper->deferredOperationsSupported() ? 0.1 : 0;
  timer_.timeMinIs(clock().now() + delay);
}

void AclSm::retryIs() {
  if (!retryTimer_.armed()) retryTimer_.timeMinIs(clock().now() + retryDelay);
}

void AclSm::handleTime() {
  ZOL_TRACE(8, "AclSm::handleTime()");
  ZOL_TRACE(8, "Running deferred ACL updater");
  in_.aclHelper->needsDeferredUpdateIs(false);
  if (!in_.aclHelper->dirty()) return;
  // A cycle still waiting for the platform finishes first; done looks at dirty again.
  if (applyPhase_ != AclApplyPhase::aclApplyPhaseDone) return;
  ++deferredUpdates_;
  Zol::Seconds const start = clock().now();
  doApplyAcls(std::exchange(forceRecreatePending_, false));
  ZOL_TRACE(6,
            "Latency: " << clock().now() - start << ", total time " << clock().now() - applyStart_);
}

}  // namespace Vemo
