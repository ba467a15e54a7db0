// The platform's answers for one ACL instance and what a cycle's end makes of them: the status
// text, errdisable and the ACL syslog messages.
#include "AclSmReactors.h"
#include "Vemo/AclRules.h"
#include "Zol/Syslog.h"

ZOL_TRACE_MODULE("AclSm")

namespace Vemo {

using Err = AclCreateError;

namespace {

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

AclDataStatusSm::AclDataStatusSm(AclDataSm* dataSm, AclKey const& key)
    : dataSm_(dataSm), status_(Zol::make<AclDataStatus>(key.text(), key)) {}

void AclDataStatusSm::handleCallbackData(Err status) {
  // Answers to removeAcl come while the instance is out of hardware; they carry nothing.
  AclDataState const s = dataSm_->data()->aclDataState();
  if (s != AclDataState::adFinalRuleStatusPending && s != AclDataState::adFinalRuleStatusDone) {
    return;
  }
  if (status != Err::aclCreateErrorNone) return dataSm_->failed(status);
  dataSm_->data()->aclDataStateIs(AclDataState::adFinalRuleStatusDone);
}

void AclDataStatusSm::doSettle() {
  if (!dataSm_->touched()) return;
  dataSm_->touchedIs(false);
  AclKey const& k = dataSm_->key();
  if (dataSm_->data()->aclDataState() == AclDataState::adFinalRuleStatusDone) {
    ZOL_TRACE(8, "Moving aclDataState to Done " << k.text());
    dataSm_->data()->aclDataStateIs(AclDataState::adInstalled);
  }
  Err const e = dataSm_->data()->aclDataState() == AclDataState::adInstalled
                    ? Err::aclCreateErrorNone
                    : dataSm_->data()->aclCreateStatus();
  // Where it went wrong: the units of its ports, a failing unit, or the rule the platform
  // refused.
  absl::btree_set<Zol::String> units;
  for (Nepo::IntfId const& port : dataSm_->wantedPorts())
    units.insert(dataSm_->helper().intfLinecardName(port));
  Zol::String where;
  for (Zol::String const& u : units) where += (where.empty() ? "" : ", ") + u;
  Zol::String text = aclCreateErrorText(e, where);
  if (e == Err::aclCreateErrorUnsupportedRule || e == Err::aclCreateErrorUnsupportedFeature) {
    text = aclCreateErrorText(e, "rule " + std::to_string(dataSm_->data()->numRules()));
  }
  if (e != Err::aclCreateErrorNone) {
    for (auto const& [unit, error] : dataSm_->helper().unitErrorAll()) {
      if (error == e) text = "Error on unit " + unit;
    }
  }
  dataSm_->root()->status()->aclStatusIs(
      k.text(), Acl::AclInstanceStatus(text, e == Err::aclCreateErrorNone,
                                       dataSm_->data()->aclNumber(), dataSm_->data()->numRules()));
  bool const errdisable = e != Err::aclCreateErrorNone;
  if (e == Err::aclCreateErrorInsufficientResource) {
    ZOL_TRACE(5, "Insufficient resource error: Do not err disable");
    dataSm_->root()->retryIs();
  } else {
    for (auto const& [intf, active] : dataSm_->data()->activeIntfAll())
      dataSm_->root()->doErrdisable(intf, errdisable);
  }
  dataSm_->helper().aclStatusUpdateCallback(k, e);
  if (errdisable) dataSm_->root()->instanceFailed(*dataSm_, e);
}

// ---- Errdisable and syslog, on the root ----

void AclSm::doErrdisable(Nepo::IntfId const& intf, bool errdisable) {
  // A VLAN interface is routed traffic of many ports: taking it down is not the ACL's call.
  if (intf.isVlan()) return;
  bool const listed = in_.aclCauseStatus->intfStatusHas(intf);
  if (listed && !errdisable) {
    ZOL_TRACE(5, "Removing Errdisable on " << intf);
    in_.aclCauseStatus->intfStatusDel(intf);
    ZOL_TRACE(5, "Moved " << intf << " out of errdisable state");
  } else if (!listed && errdisable) {
    ZOL_TRACE(5, "Errdisabling " << intf);
    in_.aclCauseStatus->intfStatusIs(intf, clock().now());
  }
}

void AclSm::releaseErrdisable(Nepo::IntfId const& intf, AclDataSm const* except) {
  if (!in_.aclCauseStatus->intfStatusHas(intf)) return;
  bool stillFailing = false;
  forEachInstance([&](AclConfigSm const&, AclDataSm const& inst) {
    stillFailing =
        stillFailing ||
        (&inst != except && inst.data()->activeIntfHas(intf) &&
         inst.data()->aclDataState() == AclDataState::adFinalRuleStatusFailure &&
         inst.data()->aclCreateStatus() != AclCreateError::aclCreateErrorInsufficientResource);
  });
  if (!stillFailing) doErrdisable(intf, false);
}

void AclSm::doRemoveAllErrdisables() {
  if (in_.aclCauseStatus->intfStatusSize() == 0) return;
  ZOL_TRACE(5, "Removing all errdisables");
  in_.aclCauseStatus->intfStatusDelAll();
}

void AclSm::instanceFailed(AclDataSm const& inst, AclCreateError e) {
  if (isHwResourceError(e) && !resourceFullLogged_) {
    resourceFullLogged_ = true;
    Zol::String units;
    for (Nepo::IntfId const& port : inst.wantedPorts()) {
      Zol::String const u = in_.aclHelper->intfLinecardName(port);
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
  AclCreateError const e = in_.aclHelper->unitErrorHas(unit) ? in_.aclHelper->unitError(unit)
                                                             : AclCreateError::aclCreateErrorNone;
  bool const publish = in_.aclHelper->publishUnitError(unit);
  ZOL_TRACE(5, "AclSm::syslogUnitError " << unit << ", dirty " << in_.aclHelper->dirty()
                                         << ", error " << Zol::enumName(e));
  if (e != AclCreateError::aclCreateErrorNone && publish) {
    if (unitFullLogged_.insert(unit).second) Zol::Syslog::emit(aclHwResourceFull, unit.c_str());
  } else if (e == AclCreateError::aclCreateErrorNone && unitFullLogged_.erase(unit)) {
    Zol::Syslog::emit(aclHwResourceNormal, unit.c_str());
  }
}

}  // namespace Vemo
