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
  // Torn down with its ACL or type: it leaves hardware now rather than in a cycle.
  if (data_->hasAclNumber() || status()->intfStateSize() != 0) doDestroy();
}

AclSm* AclDataSm::root() const { return configSm_->root(); }
VemoHelper::AclHelper& AclDataSm::helper() const { return *root()->aclHelper(); }

absl::btree_set<Nepo::IntfId> AclDataSm::wantedPorts() const {
  absl::btree_set<Nepo::IntfId> ports;
  for (auto const& [intf, active] : data_->activeIntfAll()) {
    if (intf.isPortChannel()) {
      for (Nepo::IntfId const& member : root()->lagMembers(intf)) ports.insert(member);
    } else {
      ports.insert(intf);
    }
  }
  return ports;
}

void AclDataSm::doUninstall() {
  if (deleting_) return doDestroy();
  if (!data_->dirty() || !hwPresent_) return;
  touched_ = true;
  AclKey const& k = key();
  if (status()->intfStateSize() != 0) {
    if (root()->permitDuringAclUpdate()) {
      ZOL_TRACE(5, "Not blocking intf because of cli configuration");
    } else {
      for (auto const& [port, bound] : status()->intfStateAll()) {
        status()->blockedIntfIs(port, true);
        root()->aclIntfSmIs(port)->wantToBlockIs(k, true);
      }
    }
  }
  helper().removeAcl(*data_);
  hwPresent_ = false;
  data_->fragMapDelAll();
  data_->aclDataStateIs(AclDataState::adNotUsed);
  if (helper().asyncAclConfig()) root()->dataOpRequested(k);
}

void AclDataSm::doPrepare() {
  AclKey const& k = key();
  ZOL_TRACE(8, "AclSm::doAclPreparePhase " << k.text() << " vlanId=" << k.vlanId().value());
  touched_ = true;
  data_->dirtyIs(false);
  AclDirectionTypeConfigSm* const dir = root()->directionSm(k.type(), k.direction());
  Err e = dir->allocateAclNumber(*data_);
  if (e != Err::aclCreateErrorNone) return failed(e);
  if (hwPresent_) {
    // Rules of an earlier attempt that was not taken out first.
    helper().deleteAcl(data_->aclNumber());
    data_->fragMapDelAll();
  }
  hwPresent_ = true;
  if (k.type() == Acl::AclType::ipv6) {
    // The platform lets neighbour discovery through ahead of the final rule, or an IPv6 list
    // would cut the interface off its neighbours.
    data_->ip6DefaultIcmp6StateIs(helper().installImplicitIcmp6Rules()
                                      ? Ip6DefaultIcmp6State::Ip6DefaultIcmp6MultipleRules
                                      : Ip6DefaultIcmp6State::Ip6DefaultIcmp6RulesNotNeeded);
  }
  e = createAclRules(helper(), *data_, *configSm_->rules());
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
  AclDirectionTypeConfigSm* const dir = root()->directionSm(key().type(), key().direction());
  std::vector<Nepo::IntfId> extra;
  for (auto const& [port, bound] : status()->intfStateAll()) {
    if (!wanted.contains(port)) extra.push_back(port);
  }
  for (Nepo::IntfId const& port : extra) {
    std::optional<AclKey> const owner = dir->portKey(port);
    helper().removeIntfFromAcl(port, *data_, owner && *owner != key());
    status()->intfStateDel(port);
  }
  bool const rebind = std::exchange(rebind_, false);
  for (Nepo::IntfId const& port : wanted) {
    if (!rebind && status()->intfStateHas(port)) continue;
    Err const e = helper().addIntfToAcl(port, *data_);
    if (e != Err::aclCreateErrorNone) return failed(e);
    status()->intfStateIs(port, true);
  }
  data_->aclCreateStatusIs(Err::aclCreateErrorNone);
  for (auto const& [port, blocked] : status()->blockedIntfAll()) {
    if (AclIntfSm* const sm = root()->aclIntfSm(port)) sm->wantToBlockIs(key(), false);
  }
  status()->blockedIntfDelAll();
}

void AclDataSm::failed(Err e) {
  ZOL_TRACE(1, "Moving aclDataState to Failure " << key().text() << ": " << Zol::enumName(e));
  touched_ = true;
  data_->aclCreateStatusIs(e);
  data_->aclDataStateIs(AclDataState::adFinalRuleStatusFailure);
  data_->needsPortUpdateIs(false);
  if (hwPresent_ && data_->hasAclNumber()) helper().deleteAcl(data_->aclNumber());
  hwPresent_ = false;
  data_->fragMapDelAll();
  unbindAll();
}

void AclDataSm::unbindAll() {
  AclDirectionTypeConfigSm* const dir = root()->directionSm(key().type(), key().direction());
  for (auto const& [port, bound] : status()->intfStateAll()) {
    std::optional<AclKey> const owner = dir ? dir->portKey(port) : std::nullopt;
    helper().removeIntfFromAcl(port, *data_, owner && *owner != key());
  }
  status()->intfStateDelAll();
  for (auto const& [port, blocked] : status()->blockedIntfAll()) {
    if (AclIntfSm* const sm = root()->aclIntfSm(port)) sm->wantToBlockIs(key(), false);
  }
  status()->blockedIntfDelAll();
}

void AclDataSm::doDestroy() {
  ZOL_TRACE(5, "AclDataSm::doDestroy " << key().text());
  unbindAll();
  if (data_->hasAclNumber()) {
    helper().destroyAcl(*data_);
    if (AclDirectionTypeConfigSm* const dir =
            root()->directionSm(key().type(), key().direction())) {
      dir->freeAclNumber(*data_);
    }
  }
  hwPresent_ = false;
  data_->aclNumberIs(AclData::aclNumberInvalid);
  root()->status()->aclStatusDel(key().text());
}

}  // namespace Vemo
