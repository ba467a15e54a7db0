// The configuration side of the ACL tree: one SM per type with its ACLs and its two directions,
// where each direction decides which instance every interface is on and hands out numbers.
#include "AclSmReactors.h"
#include "Zol/Syslog.h"

ZOL_TRACE_MODULE("AclSm")

namespace Vemo {

namespace {

Zol::SyslogMessage const aclUnsupportedHardware{
    "ACL_UNSUPPORTED_HARDWARE", LOG_WARNING, "ACL ( %s ) cannot be applied on %s.",
    "The named ACL is not programmed on the named device because ACLs are not supported on the "
    "device.",
    "Remove ACLs from interfaces on the named device."};

Zol::SyslogMessage const aclSubIntfUnsharedNotSupported{
    "ACL_SUBINTF_UNSHARED_NOT_SUPPORTED", LOG_WARNING,
    "IPv4 egress ACLs are not supported on subinterfaces ( %s ) in unshared mode",
    "The user configuration will be stored. The ACL will become active when the egress ACL "
    "sharing mode is changed to share resources",
    ""};

}  // namespace

// ---- AclTypeConfigSm ----

AclTypeConfigSm::AclTypeConfigSm(AclSm* root, Zol::Ptr<Acl::AclTypeConfig const> const& config)
    : root_(root), config_(config), reactor_(std::make_unique<Reactor>(this)) {
  for (auto const d : {Acl::AclDirection::in, Acl::AclDirection::out}) {
    Zol::U16 const start = root_->aclNumberRangeStartIs(AclTypeDir(config_->type(), d));
    direction_[static_cast<size_t>(d)] = std::make_unique<AclDirectionTypeConfigSm>(this, d, start);
  }
  for (auto const& [name, acl] : config_->aclAll()) {
    acl_.emplace(name, std::make_unique<AclConfigSm>(this, acl));
  }
  reactor_->notifierIs(config_);
  watchSources();
}

AclTypeConfigSm::~AclTypeConfigSm() {
  reactor_.reset();
  intfTypeReactors_.clear();
  // Instances leave hardware with their SMs, while the directions still take numbers back.
  {
    auto acls = std::move(acl_);
    acl_.clear();
    acls.clear();
  }
  for (auto& d : direction_) d.reset();
}

void AclTypeConfigSm::handleInitialized() {
  for (auto& d : direction_) d->handleInitialized();
}

AclConfigSm* AclTypeConfigSm::configSm(Zol::Name const& name) const {
  auto it = acl_.find(name);
  return it == acl_.end() ? nullptr : it->second.get();
}

void AclTypeConfigSm::handleAcl(Zol::Name const& name) {
  Zol::Ptr<Acl::AclConfig const> const config = config_->acl(name);
  AclConfigSm* sm = configSm(name);
  ZOL_TRACE(8, "AclTypeConfigSm::handleAcl " << name << (config ? " configured" : " deleted"));
  if (config) {
    if (!sm) {
      sm = acl_.emplace(name, std::make_unique<AclConfigSm>(this, config)).first->second.get();
    } else if (sm->config() != config || sm->removed()) {
      sm->configIs(config);
    }
  } else if (sm) {
    sm->removedIs(true);
  }
  for (auto& d : direction_) d->handleAclName(name);
  eraseRemovedAcls();
}

void AclTypeConfigSm::eraseRemovedAcls() {
  for (auto it = acl_.begin(); it != acl_.end();) {
    it = it->second->removed() && it->second->dataSms().empty() ? acl_.erase(it) : std::next(it);
  }
}

void AclTypeConfigSm::watchSources() {
  intfTypeReactors_.clear();
  for (auto const& c : root_->intfTypeConfigs(type())) {
    intfTypeReactors_.push_back(std::make_unique<IntfTypeReactor>(this));
    intfTypeReactors_.back()->notifierIs(c);
  }
}

void AclTypeConfigSm::handleIntf(Acl::AclDirection direction) {
  watchSources();
  directionSm(direction)->watchSources();
}

// ---- AclConfigSm ----

AclConfigSm::AclConfigSm(AclTypeConfigSm* typeSm, Zol::Ptr<Acl::AclConfig const> const& config)
    : typeSm_(typeSm),
      config_(config),
      clock_(typeSm->root()->clock(), [this] { handleTime(); }),
      reactor_(std::make_unique<Reactor>(this)) {
  rulesIs();
  reactor_->notifierIs(config_);
}

AclConfigSm::~AclConfigSm() {
  reactor_.reset();
  data_.clear();
  if (!root()->disableCleanupOnRestart()) ruleHitsDel();
}

void AclConfigSm::ruleHitsDel() {
  Acl::StatusDp& status = *root()->status();
  Zol::Ptr<Acl::AclTypeRuleHits> const hits = status.ruleHits(typeSm_->type());
  if (!hits) return;
  hits->aclDel(name());
  if (hits->aclSize() == 0) status.ruleHitsDel(typeSm_->type());
}

void AclConfigSm::removedIs(bool v) {
  removed_ = v;
  // A deleted list's counts are gone: a list made again under its name starts from zero.
  if (v) ruleHitsDel();
}

AclSm* AclConfigSm::root() const { return typeSm_->root(); }

void AclConfigSm::configIs(Zol::Ptr<Acl::AclConfig const> const& config) {
  config_ = config;
  removed_ = false;
  reactor_->notifierIs(config_);
  rulesIs();
  markDirty();
}

void AclConfigSm::rulesIs() {
  // A copy nobody watches: the configuration may be rewritten rule by rule before the next
  // currCfg, and no cycle in between may install half of it.
  rules_ = Zol::make<Acl::AclConfig>(config_->aclName(), config_->aclName());
  for (auto const& [seq, rule] : config_->ipRuleBySequenceAll())
    rules_->ipRuleBySequenceIs(seq, rule);
  for (auto const& [seq, rule] : config_->macRuleBySequenceAll()) {
    rules_->macRuleBySequenceIs(seq, rule);
  }
}

AclDataSm* AclConfigSm::dataSm(AclKey const& key) const {
  auto it = data_.find(key);
  return it == data_.end() ? nullptr : it->second.get();
}

AclDataSm* AclConfigSm::dataSmIs(AclKey const& key, bool vlanIntf) {
  auto it = data_.find(key);
  if (it != data_.end()) {
    it->second->deletingIs(false);
    return it->second.get();
  }
  ZOL_TRACE(5, (vlanIntf ? "Added first vlan to " : "Added first port to ")
                   << key.text() << ", instantiating...");
  return data_.emplace(key, std::make_unique<AclDataSm>(this, key)).first->second.get();
}

void AclConfigSm::dataSmDel(AclKey const& key) { data_.erase(key); }

void AclConfigSm::markDirty() {
  for (auto& [key, inst] : data_) {
    if (inst->deleting()) continue;
    ZOL_TRACE(8, "AclConfigSm::markDirty() adding to dirty acl list " << key.text());
    inst->data()->dirtyIs(true);
  }
  if (!data_.empty()) root()->scheduleApply();
}

void AclConfigSm::handleCurrCfg() {
  ZOL_TRACE(5, "AclConfigSm::handleCurrCfg " << name() << " currCfg " << config_->currCfg());
  rulesIs();
  markDirty();
}

void AclConfigSm::handleCounterUpdateRequestTime() {
  // Requests of one moment are served by one refresh.
  clock_.timeMinIs(root()->clock().now());
}

void AclConfigSm::handleTime() { root()->countersPoller().pollAcl(*this); }

// ---- AclDirectionTypeConfigSm ----

AclDirectionTypeConfigSm::AclDirectionTypeConfigSm(AclTypeConfigSm* typeSm,
                                                   Acl::AclDirection direction,
                                                   Zol::U16 aclNumberStart)
    : typeSm_(typeSm),
      direction_(direction),
      aclNumberStart_(aclNumberStart),
      brReactor_(std::make_unique<BrReactor>(this)) {
  for (auto const& [intf, c] : root()->brConfig()->switchIntfConfigAll()) {
    switchport_.emplace(intf, std::make_unique<AclSwitchportModeConfigSm>(this, c));
  }
  brReactor_->notifierIs(root()->brConfig());
}

AclDirectionTypeConfigSm::~AclDirectionTypeConfigSm() {
  brReactor_.reset();
  sources_.clear();
  switchport_.clear();
}

AclSm* AclDirectionTypeConfigSm::root() const { return typeSm_->root(); }
Acl::AclType AclDirectionTypeConfigSm::type() const { return typeSm_->type(); }

void AclDirectionTypeConfigSm::handleInitialized() {
  Zol::U32 const numbers = root()->aclNumberCount(type());
  if (!(numbers < root()->aclNumbersPerType())) {
    root()->vemoAssert("numbers < aclSm()->aclNumbersPerType()");
  }
  freeAcl_.clear();
  freeAcl_.reserve(numbers);
  // Pushed in increasing order: the highest number is handed out first.
  for (Zol::U32 i = 0; i < numbers; ++i) {
    freeAcl_.push_back(static_cast<Zol::U16>(aclNumberStart_ + i));
  }
  watchSources();
}

AclCreateError AclDirectionTypeConfigSm::allocateAclNumber(AclData& data) {
  if (data.hasAclNumber()) return AclCreateError::aclCreateErrorNone;
  if (freeAcl_.empty()) {
    ZOL_TRACE(1, "Could not create " << data.key().text() << " because the ACL limit was reached");
    return AclCreateError::aclCreateErrorTooManyAcls;
  }
  data.aclNumberIs(freeAcl_.back());
  freeAcl_.pop_back();
  return AclCreateError::aclCreateErrorNone;
}

void AclDirectionTypeConfigSm::freeAclNumber(AclData& data) {
  if (!data.hasAclNumber()) return;
  freeAcl_.push_back(static_cast<Zol::U16>(data.aclNumber()));
  data.aclNumberIs(AclData::aclNumberInvalid);
}

void AclDirectionTypeConfigSm::watchSources() {
  sources_.clear();
  absl::btree_set<Nepo::IntfId> intfs;
  for (auto const& [intf, key] : intfKey_) intfs.insert(intf);
  for (auto const& c : root()->intfTypeConfigs(type())) {
    Zol::Ptr<Acl::AclIntf const> const source = c->intf(direction_);
    if (!source) continue;
    sources_.push_back(std::make_unique<SourceReactor>(this));
    sources_.back()->notifierIs(source);
    for (auto const& [intf, name] : source->intfAll()) intfs.insert(intf);
  }
  for (Nepo::IntfId const& intf : intfs) handleIntf(intf);
}

Zol::Name AclDirectionTypeConfigSm::configuredAclName(Nepo::IntfId const& intf) const {
  for (auto const& c : root()->intfTypeConfigs(type())) {
    Zol::Ptr<Acl::AclIntf const> const source = c->intf(direction_);
    if (source && source->intfHas(intf)) return source->intf(intf);
  }
  return Zol::Name();
}

std::optional<AclKey> AclDirectionTypeConfigSm::wantedKey(Nepo::IntfId const& intf,
                                                          Zol::Name const& name) const {
  if (name.empty()) return std::nullopt;
  AclConfigSm const* const acl = typeSm_->configSm(name);
  if (!acl || acl->removed()) return std::nullopt;
  VemoHelper::AclHelper& helper = *root()->aclHelper();
  if (!helper.intfSupportsAcl(intf)) {
    ZOL_TRACE(1, "ACL " << name << " cannot be applied on " << intf);
    helper.logAclUnsupportedHardware(name, intf);
    Zol::Syslog::emit(aclUnsupportedHardware, name.c_str(), intf.stringValue().c_str());
    return std::nullopt;
  }
  AclVlanIdOrNone vlanId = AclVlanIdOrNone::none();
  if (AclSm::isVlanIntf(intf)) {
    bool const sharing = direction_ == Acl::AclDirection::in ? helper.ingressRaclSharingSupported()
                                                             : helper.egressRaclSharingSupported();
    vlanId = sharing ? AclVlanIdOrNone::sharing()
                     : AclVlanIdOrNone(static_cast<Zol::U16>(intf.number(0)));
  } else if (AclSm::isSubIntf(intf)) {
    if (!helper.subIntfAclSupported()) return std::nullopt;
    if (type() == Acl::AclType::ip && direction_ == Acl::AclDirection::out &&
        !helper.egressRaclSharingSupported()) {
      Zol::Syslog::emit(aclSubIntfUnsharedNotSupported, intf.stringValue().c_str());
      return std::nullopt;
    }
    auto const status = root()->subIntfStatusDir()->intfStatus(intf);
    Zol::U16 const vlan = status ? status->forwardingVlanId().value() : 0;
    // Without a forwarding VLAN the sub-interface carries no traffic yet.
    if (vlan == 0) return std::nullopt;
    vlanId = AclVlanIdOrNone(vlan);
  }
  return AclKey(name, type(), direction_, acl->config()->standard(), vlanId,
                Zol::String(AclKey::aclGroupDefault));
}

void AclDirectionTypeConfigSm::handleIntf(Nepo::IntfId const& intf) {
  if (!root()->initialized()) return;
  Zol::Name const name = configuredAclName(intf);
  for (auto it = intfsByName_.begin(); it != intfsByName_.end();) {
    it->second.erase(intf);
    it = it->second.empty() ? intfsByName_.erase(it) : std::next(it);
  }
  if (!name.empty()) intfsByName_[name].insert(intf);
  intfKeyIs(intf, wantedKey(intf, name));
}

void AclDirectionTypeConfigSm::handleAclName(Zol::Name const& name) {
  auto it = intfsByName_.find(name);
  if (it == intfsByName_.end()) return;
  absl::btree_set<Nepo::IntfId> const intfs = it->second;
  for (Nepo::IntfId const& intf : intfs) handleIntf(intf);
}

void AclDirectionTypeConfigSm::intfKeyIs(Nepo::IntfId const& intf,
                                         std::optional<AclKey> const& key) {
  std::optional<AclKey> const old = intfKey(intf);
  if (old == key) return;
  bool const vlanIntf = AclSm::isVlanIntf(intf);
  if (old) {
    intfKey_.erase(intf);
    AclConfigSm* const acl = typeSm_->configSm(old->name());
    AclDataSm* const inst = acl ? acl->dataSm(*old) : nullptr;
    if (inst) {
      inst->data()->activeIntfDel(intf);
      inst->data()->needsPortUpdateIs(true);
      if (inst->data()->activeIntfSize() == 0) {
        ZOL_TRACE(5, (vlanIntf ? "Removed last intf from " : "Removed last port from ")
                         << old->text() << ", deleting...");
        inst->deletingIs(true);
      }
    }
    if (!key) root()->releaseErrdisable(intf, inst);
  }
  if (key) {
    intfKey_.insert_or_assign(intf, *key);
    AclDataSm* const inst = typeSm_->configSm(key->name())->dataSmIs(*key, vlanIntf);
    inst->data()->activeIntfIs(intf, true);
    inst->data()->needsPortUpdateIs(true);
  }
  // A port-channel's ACL takes its members over from their own, or gives them back.
  if (intf.isPortChannel()) portOwnerChanged(intf);
  root()->scheduleApply();
}

bool AclDirectionTypeConfigSm::portOwnerChanged(Nepo::IntfId const& intf) {
  bool marked = false;
  auto const mark = [&](Nepo::IntfId const& i) {
    std::optional<AclKey> const key = intfKey(i);
    AclConfigSm* const acl = key ? typeSm_->configSm(key->name()) : nullptr;
    if (AclDataSm* const inst = acl ? acl->dataSm(*key) : nullptr) {
      inst->data()->needsPortUpdateIs(true);
      marked = true;
    }
  };
  mark(intf);
  if (intf.isPortChannel()) {
    for (Nepo::IntfId const& member : root()->lagMembers(intf)) mark(member);
  } else if (std::optional<Nepo::IntfId> const lag = root()->lagOf(intf)) {
    mark(*lag);
  }
  return marked;
}

std::optional<AclKey> AclDirectionTypeConfigSm::boundKey(Nepo::IntfId const& port) const {
  auto it = boundKey_.find(port);
  if (it == boundKey_.end()) return std::nullopt;
  return it->second;
}

void AclDirectionTypeConfigSm::boundKeyIs(Nepo::IntfId const& port, AclKey const& key, bool bound) {
  if (bound) {
    boundKey_.insert_or_assign(port, key);
  } else if (auto it = boundKey_.find(port); it != boundKey_.end() && it->second == key) {
    boundKey_.erase(it);
  }
}

std::optional<AclKey> AclDirectionTypeConfigSm::intfKey(Nepo::IntfId const& intf) const {
  auto it = intfKey_.find(intf);
  if (it == intfKey_.end()) return std::nullopt;
  return it->second;
}

std::optional<AclKey> AclDirectionTypeConfigSm::portKey(Nepo::IntfId const& port) const {
  if (std::optional<Nepo::IntfId> const lag = root()->lagOf(port)) {
    if (auto key = intfKey(*lag)) return key;
  }
  return intfKey(port);
}

void AclDirectionTypeConfigSm::handleSwitchIntfConfig(Nepo::IntfId const& intf) {
  auto const config = root()->brConfig()->switchIntfConfig(intf);
  if (!config) {
    switchport_.erase(intf);
    return;
  }
  auto it = switchport_.find(intf);
  if (it != switchport_.end() && it->second->notifier() == config) return;
  switchport_.insert_or_assign(intf, std::make_unique<AclSwitchportModeConfigSm>(this, config));
}

// ---- AclSwitchportModeConfigSm ----

AclSwitchportModeConfigSm::AclSwitchportModeConfigSm(
    AclDirectionTypeConfigSm* dirSm, Zol::Ptr<Bridging::SwitchIntfConfig const> const& config)
    : dirSm_(dirSm), mode_(config->switchportModeAndNativeVlan().switchportMode()) {
  notifierIs(config);
}

void AclSwitchportModeConfigSm::handleSwitchportModeAndNativeVlan() {
  Bridging::SwitchportMode const mode = notifier()->switchportModeAndNativeVlan().switchportMode();
  if (mode == mode_) return;
  ZOL_TRACE(5, "Interface switchport mode changing from " << Zol::enumName(mode_) << " to "
                                                          << Zol::enumName(mode));
  mode_ = mode;
  Nepo::IntfId const intf = notifier()->intfId();
  std::optional<AclKey> const key = dirSm_->intfKey(intf);
  if (!key) {
    ZOL_TRACE(8, "Ignore switchport mode: No ACL config");
    return;
  }
  AclSm* const root = dirSm_->root();
  if (mode == Bridging::SwitchportMode::routed &&
      root->aclHelper()->routedPortAclSharingDefaultUnshared()) {
    ZOL_TRACE(8, "Ignore switchport mode: Routed port RACL sharing not supported for ACL "
                     << key->name());
    return;
  }
  // The instance is created again, so that its rules follow how the port now forwards.
  AclConfigSm* const acl = dirSm_->typeSm()->configSm(key->name());
  if (AclDataSm* const inst = acl ? acl->dataSm(*key) : nullptr) {
    inst->data()->dirtyIs(true);
    root->scheduleApply();
  }
}

}  // namespace Vemo
