// One ACL instance through an apply cycle: taken out of hardware when it changed, its rules
// created and committed, applied to its ports, and settled: status text, errdisable and syslog.
#include "AclSmReactors.h"
#include "Vemo/AclRules.h"
#include "Zol/Syslog.h"

ZOL_TRACE_MODULE("AclSm")

namespace Vemo {

namespace {

using Err = AclCreateError;

Zol::SyslogMessage const aclHwResourceFull{
    "ACL_HW_RESOURCE_FULL", LOG_ERR, "Hardware resources are insufficient to program all ACLs (%s)",
    "The switch is unable to program all ACLs due to insufficient hardware resources.",
    "Reconfigure your ACLs to reduce the size and/or complexity of the ACL."};

Zol::SyslogMessage const aclHwResourceNormal{"ACL_HW_RESOURCE_NORMAL", LOG_NOTICE,
                                             "All ACLs are programmed in hardware (%s)",
                                             "The switch was able to program all the ACLs in the "
                                             "hardware.",
                                             ""};

Zol::SyslogMessage const aclComputationFailed{
    "ACL_COMPUTATION_FAILED", LOG_ERR, "Computing resources to program ACLs failed (%s).",
    "The switch is unable to program the ACLs into hardware due to insufficient hardware "
    "resources. The ACL will not be active.",
    "Reconfigure your ACLs to reduce the resource usage"};

Zol::SyslogMessage const aclComputationSuccess{
    "ACL_COMPUTATION_SUCCESS", LOG_NOTICE, "Computing resources to program ACLs succeeded (%s).",
    "The switch has successfully programmed ACLs into hardware. The ACLs are now active.", ""};

// Errors that say the hardware is full, as opposed to the rules being beyond what the number
// and range-checker resources can be computed for.
bool isHwResourceError(Err e) {
  return e == Err::aclCreateErrorTcamExhaustion || e == Err::aclCreateErrorInsufficientResource ||
         e == Err::aclCreateErrorPolicerExhaustion || e == Err::aclCreateErrorNoUDFAvailable;
}

bool isComputationError(Err e) {
  return e == Err::aclCreateErrorTooManyAcls || isRangeCheckerError(e);
}

}  // namespace

Zol::String aclCreateErrorText(Err e, Zol::String const& units) {
  switch (e) {
    case Err::aclCreateErrorNone:
      return "Succeeded install on " + units;
    case Err::aclCreateErrorTcamExhaustion:
      return "Out of TCAM entries on " + units;
    case Err::aclCreateErrorTooManyAcls:
      return "Too many ACLs";
    case Err::aclCreateErrorInsufficientResource:
    case Err::aclCreateErrorPolicerExhaustion:
    case Err::aclCreateErrorNoUDFAvailable:
      return "Insufficient HW resources on " + units;
    case Err::aclCreateErrorUnsupportedAction:
      return "Unsupported Acl action";
    case Err::aclCreateErrorUnsupportedRule:
    case Err::aclCreateErrorUnsupportedFeature:
      return "Unsupported Acl rule, " + units;
    default:
      break;
  }
  if (isRangeCheckerError(e)) return "Too many L4 port ranges";
  return "Unknown error";
}

AclDataSm::AclDataSm(AclConfigSm* configSm, AclKey const& key)
    : configSm_(configSm),
      data_(Zol::make<AclData>(key.text(), key)),
      status_(Zol::make<AclDataStatus>(key.text(), key)) {
  data_->dirtyIs(true);
  data_->isDpAclIs(true);
}

AclDataSm::~AclDataSm() {
  // Torn down with its ACL or type: it leaves hardware now rather than in a cycle.
  if (data_->hasAclNumber() || status_->intfStateSize() != 0) doDestroy();
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
  if (status_->intfStateSize() != 0) {
    if (root()->permitDuringAclUpdate()) {
      ZOL_TRACE(5, "Not blocking intf because of cli configuration");
    } else {
      for (auto const& [port, bound] : status_->intfStateAll()) {
        status_->blockedIntfIs(port, true);
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
  e = createAclRules(helper(), *data_, *configSm_->rules());
  if (e != Err::aclCreateErrorNone) return failed(e);
  data_->aclDataStateIs(AclDataState::adCreateAclRulesDone);
  data_->aclDataStateIs(AclDataState::adFinalRuleStatusPending);
  e = helper().prepareToCommit(*data_);
  if (helper().asyncAclConfig()) return root()->dataOpRequested(k);
  handleCallbackData(e);
}

void AclDataSm::handleCallbackData(Err status) {
  // Answers to removeAcl come while the instance is out of hardware; they carry nothing.
  AclDataState const s = data_->aclDataState();
  if (s != AclDataState::adFinalRuleStatusPending && s != AclDataState::adFinalRuleStatusDone) {
    return;
  }
  if (status != Err::aclCreateErrorNone) return failed(status);
  data_->aclDataStateIs(AclDataState::adFinalRuleStatusDone);
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
  for (auto const& [port, bound] : status_->intfStateAll()) {
    if (!wanted.contains(port)) extra.push_back(port);
  }
  for (Nepo::IntfId const& port : extra) {
    std::optional<AclKey> const owner = dir->portKey(port);
    helper().removeIntfFromAcl(port, *data_, owner && *owner != key());
    status_->intfStateDel(port);
  }
  bool const rebind = std::exchange(rebind_, false);
  for (Nepo::IntfId const& port : wanted) {
    if (!rebind && status_->intfStateHas(port)) continue;
    Err const e = helper().addIntfToAcl(port, *data_);
    if (e != Err::aclCreateErrorNone) return failed(e);
    status_->intfStateIs(port, true);
  }
  data_->aclCreateStatusIs(Err::aclCreateErrorNone);
  for (auto const& [port, blocked] : status_->blockedIntfAll()) {
    if (AclIntfSm* const sm = root()->aclIntfSm(port)) sm->wantToBlockIs(key(), false);
  }
  status_->blockedIntfDelAll();
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
  for (auto const& [port, bound] : status_->intfStateAll()) {
    std::optional<AclKey> const owner = dir ? dir->portKey(port) : std::nullopt;
    helper().removeIntfFromAcl(port, *data_, owner && *owner != key());
  }
  status_->intfStateDelAll();
  for (auto const& [port, blocked] : status_->blockedIntfAll()) {
    if (AclIntfSm* const sm = root()->aclIntfSm(port)) sm->wantToBlockIs(key(), false);
  }
  status_->blockedIntfDelAll();
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

void AclDataSm::doSettle() {
  if (!touched_) return;
  touched_ = false;
  AclKey const& k = key();
  if (data_->aclDataState() == AclDataState::adFinalRuleStatusDone) {
    ZOL_TRACE(8, "Moving aclDataState to Done " << k.text());
    data_->aclDataStateIs(AclDataState::adInstalled);
  }
  Err const e = data_->aclDataState() == AclDataState::adInstalled ? Err::aclCreateErrorNone
                                                                   : data_->aclCreateStatus();
  // Where it went wrong: the units of its ports, a failing unit, or the rule the platform
  // refused.
  absl::btree_set<Zol::String> units;
  for (Nepo::IntfId const& port : wantedPorts()) units.insert(helper().intfLinecardName(port));
  Zol::String where;
  for (Zol::String const& u : units) where += (where.empty() ? "" : ", ") + u;
  Zol::String text = aclCreateErrorText(e, where);
  if (e == Err::aclCreateErrorUnsupportedRule || e == Err::aclCreateErrorUnsupportedFeature) {
    text = aclCreateErrorText(e, "rule " + std::to_string(data_->numRules()));
  }
  if (e != Err::aclCreateErrorNone) {
    for (auto const& [unit, error] : helper().unitErrorAll()) {
      if (error == e) text = "Error on unit " + unit;
    }
  }
  root()->status()->aclStatusIs(
      k.text(), Acl::AclInstanceStatus(text, e == Err::aclCreateErrorNone, data_->aclNumber(),
                                       data_->numRules()));
  bool const errdisable = e != Err::aclCreateErrorNone;
  if (e == Err::aclCreateErrorInsufficientResource) {
    ZOL_TRACE(5, "Insufficient resource error: Do not err disable");
    root()->retryIs();
  } else {
    for (auto const& [intf, active] : data_->activeIntfAll())
      root()->doErrdisable(intf, errdisable);
  }
  helper().aclStatusUpdateCallback(k, e);
  if (errdisable) root()->instanceFailed(*this, e);
}

// ---- Errdisable and syslog, on the root ----

void AclSm::doErrdisable(Nepo::IntfId const& intf, bool errdisable) {
  // A VLAN interface is routed traffic of many ports: taking it down is not the ACL's call.
  if (intf.isVlan()) return;
  bool const listed = aclCauseStatus_->intfStatusHas(intf);
  if (listed && !errdisable) {
    ZOL_TRACE(5, "Removing Errdisable on " << intf);
    aclCauseStatus_->intfStatusDel(intf);
    ZOL_TRACE(5, "Moved " << intf << " out of errdisable state");
  } else if (!listed && errdisable) {
    ZOL_TRACE(5, "Errdisabling " << intf);
    aclCauseStatus_->intfStatusIs(intf, clock_.now());
  }
}

void AclSm::doRemoveAllErrdisables() {
  if (aclCauseStatus_->intfStatusSize() == 0) return;
  ZOL_TRACE(5, "Removing all errdisables");
  aclCauseStatus_->intfStatusDelAll();
}

void AclSm::instanceFailed(AclDataSm const& inst, AclCreateError e) {
  if (isHwResourceError(e) && !resourceFullLogged_) {
    resourceFullLogged_ = true;
    Zol::String units;
    for (Nepo::IntfId const& port : inst.wantedPorts()) {
      Zol::String const u = aclHelper_->intfLinecardName(port);
      if (units.find(u) == Zol::String::npos) units += (units.empty() ? "" : ", ") + u;
    }
    failedUnits_ = units;
    Zol::Syslog::emit(aclHwResourceFull, failedUnits_.c_str());
  } else if (isComputationError(e) && !computationFailedLogged_) {
    computationFailedLogged_ = true;
    Zol::Syslog::emit(aclComputationFailed, inst.key().text().c_str());
  }
}

void AclSm::syslogResourceNormal() {
  bool hwFailed = false;
  bool computationFailed = false;
  forEachInstance([&](AclConfigSm const&, AclDataSm const& inst) {
    if (inst.installed() || inst.data()->aclDataState() == AclDataState::adNotUsed) return;
    AclCreateError const e = inst.data()->aclCreateStatus();
    hwFailed = hwFailed || isHwResourceError(e);
    computationFailed = computationFailed || isComputationError(e);
  });
  if (resourceFullLogged_ && !hwFailed) {
    resourceFullLogged_ = false;
    Zol::Syslog::emit(aclHwResourceNormal, failedUnits_.c_str());
  }
  if (computationFailedLogged_ && !computationFailed) {
    computationFailedLogged_ = false;
    Zol::Syslog::emit(aclComputationSuccess, "all ACLs");
  }
}

void AclSm::syslogUnitError(Zol::String const& unit) {
  AclCreateError const e = aclHelper_->unitErrorHas(unit) ? aclHelper_->unitError(unit)
                                                          : AclCreateError::aclCreateErrorNone;
  bool const publish = aclHelper_->publishUnitError(unit);
  ZOL_TRACE(5, "AclSm::syslogUnitError " << unit << ", dirty " << aclHelper_->dirty() << ", error "
                                         << Zol::enumName(e));
  if (e != AclCreateError::aclCreateErrorNone && publish) {
    if (unitFullLogged_.insert(unit).second) Zol::Syslog::emit(aclHwResourceFull, unit.c_str());
  } else if (e == AclCreateError::aclCreateErrorNone && unitFullLogged_.erase(unit)) {
    Zol::Syslog::emit(aclHwResourceNormal, unit.c_str());
  }
}

}  // namespace Vemo
