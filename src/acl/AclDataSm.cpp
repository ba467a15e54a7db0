// One ACL instance through an apply cycle: taken out of hardware when it changed, its rules
// created and committed, applied to its ports.
#include "AclSmReactors.h"
#include "Vemo/AclRules.h"

ZOL_TRACE_MODULE("AclSm")

namespace Vemo {

using Err = AclCreateError;

AclDataSm::AclDataSm(AclConfigSm* configSm, AclKey const& key)
    : configSm_(configSm), data_(Zol::make<AclData>(key.text(), key)), statusSm_(this, key) {
  data_->dirtyIs(true);
  data_->isDpAclIs(true);
}

AclDataSm::~AclDataSm() {
  // Torn down with its ACL or type: it leaves hardware now rather than in a cycle; an agent that
  // restarts leaves hardware to the next run.
  if (root()->disableCleanupOnRestart()) return;
  if (data_->hasAclNumber() || status()->intfStateSize() != 0) doDestroy();
}

AclSm* AclDataSm::root() const { return configSm_->root(); }
VemoHelper::AclHelper& AclDataSm::helper() const { return *root()->aclHelper(); }
AclDirectionTypeConfigSm* AclDataSm::dirSm() const {
  return root()->directionSm(key().type(), key().direction());
}

absl::btree_set<Nepo::IntfId> AclDataSm::wantedPorts() const {
  absl::btree_set<Nepo::IntfId> ports;
  AclDirectionTypeConfigSm const* const dir = dirSm();
  if (!dir) return ports;
  // A port is filtered by one instance: its port-channel's while it is a member of one with an
  // ACL, its own otherwise.
  auto const owned = [&](Nepo::IntfId const& port) {
    if (dir->portKey(port) == key()) ports.insert(port);
  };
  for (auto const& [intf, active] : data_->activeIntfAll()) {
    if (intf.isPortChannel()) {
      for (Nepo::IntfId const& member : root()->lagMembers(intf)) owned(member);
    } else {
      owned(intf);
    }
  }
  return ports;
}

void AclDataSm::bindingIs(Nepo::IntfId const& port, bool bound) {
  if (bound) {
    status()->intfStateIs(port, true);
  } else {
    status()->intfStateDel(port);
  }
  if (AclDirectionTypeConfigSm* const dir = dirSm()) dir->boundKeyIs(port, key(), bound);
}

void AclDataSm::wantToBlockIs(Nepo::IntfId const& port) {
  status()->blockedIntfIs(port, true);
  root()->aclIntfSmIs(port)->wantToBlockIs(key(), true);
}

void AclDataSm::releaseBlocks() {
  for (auto const& [port, blocked] : status()->blockedIntfAll()) {
    if (AclIntfSm* const sm = root()->aclIntfSm(port)) sm->wantToBlockIs(key(), false);
  }
  status()->blockedIntfDelAll();
}

void AclDataSm::doBlockTakeovers() {
  if (deleting_ || !data_->needsPortUpdate()) return;
  AclDirectionTypeConfigSm const* const dir = dirSm();
  std::vector<Nepo::IntfId> takeovers;
  for (Nepo::IntfId const& port : wantedPorts()) {
    if (status()->intfStateHas(port)) continue;
    std::optional<AclKey> const bound = dir->boundKey(port);
    if (bound && *bound != key()) takeovers.push_back(port);
  }
  if (takeovers.empty()) return;
  if (root()->permitDuringAclUpdate()) {
    ZOL_TRACE(5, "Not blocking intf because of cli configuration");
    return;
  }
  touched_ = true;
  for (Nepo::IntfId const& port : takeovers) wantToBlockIs(port);
}

void AclDataSm::doUninstall() {
  if (deleting_) return doDestroy();
  if (!data_->dirty() || !hwPresent_) return;
  touched_ = true;
  AclKey const& k = key();
  if (installed()) root()->countersPoller().pollBeforeRemoval(*configSm_, *this);
  if (status()->intfStateSize() != 0) {
    if (root()->permitDuringAclUpdate()) {
      // Traffic passes unfiltered while the ACL changes, as configured, rather than meet an
      // instance whose rules are half gone.
      ZOL_TRACE(5, "Not blocking intf because of cli configuration");
      unbindAll(false);
    } else {
      for (auto const& [port, bound] : status()->intfStateAll()) wantToBlockIs(port);
    }
  }
  helper().removeAcl(*data_);
  outOfHardware();
  data_->aclDataStateIs(AclDataState::adNotUsed);
  if (root()->status()->aclStatusHas(k.text())) {
    Acl::AclInstanceStatus s = root()->status()->aclStatus(k.text());
    s.installedIs(false);
    root()->status()->aclStatusIs(k.text(), s);
  }
  if (helper().asyncAclConfig()) root()->dataOpRequested(k);
}

void AclDataSm::outOfHardware() {
  hwPresent_ = false;
  installedRules_ = nullptr;
  data_->fragMapDelAll();
  data_->subruleCountDelAll();
}

void AclDataSm::doPrepare() {
  AclKey const& k = key();
  ZOL_TRACE(8, "AclSm::doAclPreparePhase " << k.text() << " vlanId=" << k.vlanId().value());
  touched_ = true;
  data_->dirtyIs(false);
  Err e = dirSm()->allocateAclNumber(*data_);
  if (e != Err::aclCreateErrorNone) return failed(e);
  if (hwPresent_) {
    // Rules of an earlier attempt that was not taken out first.
    helper().deleteAcl(data_->aclNumber());
    outOfHardware();
  }
  hwPresent_ = true;
  installedRules_ = configSm_->rules();
  if (k.type() == Acl::AclType::ipv6) {
    // The platform lets neighbour discovery through ahead of the final rule, or an IPv6 list
    // would cut the interface off its neighbours.
    data_->ip6DefaultIcmp6StateIs(helper().installImplicitIcmp6Rules()
                                      ? Ip6DefaultIcmp6State::Ip6DefaultIcmp6MultipleRules
                                      : Ip6DefaultIcmp6State::Ip6DefaultIcmp6RulesNotNeeded);
  }
  e = createAclRules(helper(), *data_, *installedRules_);
  if (e != Err::aclCreateErrorNone) return failed(e);
  data_->aclDataStateIs(AclDataState::adCreateAclRulesDone);
  data_->aclDataStateIs(AclDataState::adFinalRuleStatusPending);
  e = helper().prepareToCommit(*data_);
  if (helper().asyncAclConfig()) return root()->dataOpRequested(k);
  statusSm_.handleCallbackData(e);
}

void AclDataSm::doCommit() {
  Err const e = helper().commitAcl(*data_);
  if (e != Err::aclCreateErrorNone) {
    ZOL_TRACE(1, "ACL programming failure on " << key().text() << ": " << Zol::enumName(e));
    return failed(e);
  }
  // Every port is applied again: the instance's rules are new.
  data_->needsPortUpdateIs(true);
  rebind_ = true;
}

void AclDataSm::doUpdatePorts() {
  AclDataState const s = data_->aclDataState();
  bool const committed = s == AclDataState::adFinalRuleStatusDone || s == AclDataState::adInstalled;
  if (!committed || !data_->needsPortUpdate()) return;
  touched_ = true;
  data_->needsPortUpdateIs(false);
  absl::btree_set<Nepo::IntfId> const wanted = wantedPorts();
  AclDirectionTypeConfigSm* const dir = dirSm();
  std::vector<Nepo::IntfId> extra;
  for (auto const& [port, bound] : status()->intfStateAll()) {
    if (!wanted.contains(port)) extra.push_back(port);
  }
  for (Nepo::IntfId const& port : extra) {
    std::optional<AclKey> const owner = dir->portKey(port);
    helper().removeIntfFromAcl(port, *data_, owner && *owner != key());
    bindingIs(port, false);
  }
  bool const rebind = std::exchange(rebind_, false);
  for (Nepo::IntfId const& port : wanted) {
    if (!rebind && status()->intfStateHas(port)) continue;
    Err const e = helper().addIntfToAcl(port, *data_);
    if (e != Err::aclCreateErrorNone) return failed(e);
    bindingIs(port, true);
  }
  data_->aclCreateStatusIs(Err::aclCreateErrorNone);
  releaseBlocks();
}

void AclDataSm::failed(Err e) {
  ZOL_TRACE(1, "Moving aclDataState to Failure " << key().text() << ": " << Zol::enumName(e));
  touched_ = true;
  data_->aclCreateStatusIs(e);
  data_->aclDataStateIs(AclDataState::adFinalRuleStatusFailure);
  data_->needsPortUpdateIs(false);
  if (hwPresent_ && data_->hasAclNumber()) helper().deleteAcl(data_->aclNumber());
  outOfHardware();
  // A busy platform gets the instance again soon, and its ports stay bound and blocked
  // meanwhile. Any other failure takes it off its ports; those it was filtering stay blocked
  // until it, or what replaces it, is applied.
  if (e != Err::aclCreateErrorInsufficientResource) unbindAll(false);
}

void AclDataSm::unbindAll(bool release) {
  AclDirectionTypeConfigSm* const dir = dirSm();
  std::vector<Nepo::IntfId> bound;
  for (auto const& [port, b] : status()->intfStateAll()) bound.push_back(port);
  for (Nepo::IntfId const& port : bound) {
    std::optional<AclKey> const owner = dir ? dir->portKey(port) : std::nullopt;
    helper().removeIntfFromAcl(port, *data_, owner && *owner != key());
    bindingIs(port, false);
  }
  if (release) releaseBlocks();
}

void AclDataSm::doDestroy() {
  ZOL_TRACE(5, "AclDataSm::doDestroy " << key().text());
  if (installed()) root()->countersPoller().pollBeforeRemoval(*configSm_, *this);
  unbindAll(true);
  if (data_->hasAclNumber()) {
    helper().destroyAcl(*data_);
    if (AclDirectionTypeConfigSm* const dir = dirSm()) dir->freeAclNumber(*data_);
  }
  outOfHardware();
  data_->aclNumberIs(AclData::aclNumberInvalid);
  data_->aclDataStateIs(AclDataState::adNotUsed);
  root()->status()->aclStatusDel(key().text());
  // What it errdisabled goes with it.
  for (auto const& [intf, active] : data_->activeIntfAll()) root()->releaseErrdisable(intf, this);
}

}  // namespace Vemo
