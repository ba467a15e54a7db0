// Apply cycles: the phases in order, inline or waiting for an asynchronous platform's answers,
// and the root's bookkeeping of operations in flight.
#include "AclSmReactors.h"

ZOL_TRACE_MODULE("AclSm")

namespace Vemo {

void AclSm::doApplyAcls(bool forceRecreateAll) {
  ZOL_TRACE(5, "AclSm::doApplyAcls( forceRecreateAll=" << forceRecreateAll << " )");
  ZOL_TRACE(5, "Applying ACLs");
  in_.aclHelper->dirtyIs(false);
  ++applyCycles_;
  applyStart_ = clock().now();
  // Instances that failed try again: the cycle's changes may have freed what they lacked.
  forEachInstance([forceRecreateAll](AclConfigSm const&, AclDataSm const& inst) {
    bool const failed = inst.data()->aclDataState() == AclDataState::adFinalRuleStatusFailure;
    if (!inst.deleting() && (forceRecreateAll || failed)) inst.data()->dirtyIs(true);
  });
  doApplyAclsPhase(AclApplyPhase::aclApplyPhaseUninstall);
}

void AclSm::doApplyAclsPhase(AclApplyPhase phase) {
  applyPhase_ = phase;
  ZOL_TRACE(5, "AclSm::"
                   << "doApplyAclsPhase"
                   << " phase=" << Zol::enumName(phase));
  dataOpsRequested_ = 0;
  dataOpsCompleted_ = 0;
  std::optional<AclApplyPhase> next;
  switch (phase) {
    case AclApplyPhase::aclApplyPhaseUninstall:
      next = uninstallPhase();
      break;
    case AclApplyPhase::aclApplyPhasePrepare:
      next = preparePhase();
      break;
    case AclApplyPhase::aclApplyPhaseCommit:
      next = commitPhase();
      break;
    case AclApplyPhase::aclApplyPhaseUnblock:
      next = unblockPhase();
      break;
    case AclApplyPhase::aclApplyPhaseDone:
      donePhase();
      break;
  }
  if (next) doApplyAclsPhase(*next);
}

bool AclSm::waitingForHelper() const {
  return in_.aclHelper->asyncAclConfig() && dataOpsRequested_ != 0;
}

std::optional<AclApplyPhase> AclSm::uninstallPhase() {
  bool work = false;
  forEachInstance([&](AclConfigSm const&, AclDataSm const& inst) {
    AclData const& d = *inst.data();
    work = work || inst.deleting() || d.dirty() || d.needsPortUpdate();
  });
  if (!work) return AclApplyPhase::aclApplyPhaseUnblock;
  // Blocks first: a port moving between instances is blocked before the one it leaves lets go
  // of it.
  forEachInstance([](AclConfigSm const&, AclDataSm& inst) { inst.doBlockTakeovers(); });
  std::vector<std::pair<AclConfigSm*, AclKey>> gone;
  for (auto const& [type, typeSm] : types_) {
    for (auto const& [name, acl] : typeSm->configSms()) {
      for (auto const& [key, inst] : acl->dataSms()) {
        ZOL_TRACE(
            8, "AclSm::doAclUninstallPhase " << key.text() << " vlanId=" << key.vlanId().value());
        inst->doUninstall();
        if (inst->deleting()) gone.emplace_back(acl.get(), key);
      }
    }
  }
  for (auto const& [acl, key] : gone) acl->dataSmDel(key);
  for (auto const& [type, typeSm] : types_) typeSm->eraseRemovedAcls();
  if (waitingForHelper()) return std::nullopt;
  return AclApplyPhase::aclApplyPhasePrepare;
}

std::optional<AclApplyPhase> AclSm::preparePhase() {
  forEachInstance([](AclConfigSm const&, AclDataSm& inst) {
    if (inst.data()->dirty()) inst.doPrepare();
  });
  if (waitingForHelper()) return std::nullopt;
  return AclApplyPhase::aclApplyPhaseCommit;
}

std::optional<AclApplyPhase> AclSm::commitPhase() {
  bool const batch = in_.aclHelper->aclBatchCommitSupported();
  bool prepared = false;
  forEachInstance([&](AclConfigSm const&, AclDataSm& inst) {
    if (inst.data()->aclDataState() != AclDataState::adFinalRuleStatusDone) return;
    prepared = true;
    if (!batch) inst.doCommit();
  });
  if (prepared && batch) {
    AclCreateError const e = in_.aclHelper->batchCommitAcls();
    if (e != AclCreateError::aclCreateErrorNone) {
      ZOL_TRACE(1, "ACL programming failure on batch commit: " << Zol::enumName(e));
      forEachInstance([&](AclConfigSm const&, AclDataSm& inst) {
        if (inst.data()->aclDataState() == AclDataState::adFinalRuleStatusDone) {
          inst.statusSm().handleCallbackData(e);
        }
      });
    }
  }
  forEachInstance([](AclConfigSm const&, AclDataSm& inst) { inst.doUpdatePorts(); });
  return AclApplyPhase::aclApplyPhaseUnblock;
}

std::optional<AclApplyPhase> AclSm::unblockPhase() {
  if (!unblockAcls()) return AclApplyPhase::aclApplyPhaseDone;
  ZOL_TRACE(5, "Unblocking pendings interfaces");
  for (auto const& [intf, sm] : intfSms_) {
    if (sm->needsUnblock()) sm->doUnblock();
  }
  if (waitingForHelper()) return std::nullopt;
  return AclApplyPhase::aclApplyPhaseDone;
}

void AclSm::donePhase() {
  if (unblockAcls()) vemoAssert("!unblockAcls()");
  forEachInstance([](AclConfigSm const&, AclDataSm& inst) { inst.statusSm().doSettle(); });
  syslogResourceNormal();
  in_.aclHelper->cliWaitingIs(false);
  // Changes that came while the platform worked get their own cycle.
  if (in_.aclHelper->dirty()) {
    in_.aclHelper->needsDeferredUpdateIs(true);
    if (!timer_.armed()) timer_.timeMinIs(clock().now());
  }
}

void AclSm::dataOpRequested(AclKey const& key) {
  pendingData_.insert(key);
  ++dataOpsRequested_;
}

void AclSm::blockOpRequested(Nepo::IntfId const& intf) {
  pendingBlock_.insert(intf);
  ++dataOpsRequested_;
}

void AclSm::handleCallbackData(AclKey const& key) {
  if (!in_.aclHelper->aclHelperCallbackDataHas(key) || !pendingData_.erase(key)) return;
  AclCreateError const status = in_.aclHelper->aclHelperCallbackData(key).status();
  AclConfigSm* const acl = typeSm(key.type()) ? typeSm(key.type())->configSm(key.name()) : nullptr;
  if (AclDataSm* const inst = acl ? acl->dataSm(key) : nullptr)
    inst->statusSm().handleCallbackData(status);
  ++dataOpsCompleted_;
  handleAclDataOpsCompleted();
}

void AclSm::handleIntfBlockedStatus(Nepo::IntfId const& intf) {
  AclIntfSm* const sm = aclIntfSm(intf);
  if (!sm) return;
  sm->status()->blockedIs(in_.aclHelper->aclIntfBlockedStatus(intf));
  sm->handleBlocked();
}

void AclSm::blockOpCompleted(Nepo::IntfId const& intf) {
  if (!pendingBlock_.erase(intf)) return;
  ++dataOpsCompleted_;
  handleAclDataOpsCompleted();
}

void AclSm::handleAclDataOpsCompleted() {
  if (!in_.aclHelper->asyncAclConfig()) vemoAssert("aclHelper()->asyncAclConfig()");
  if (!(dataOpsRequested() >= dataOpsCompleted())) {
    vemoAssert("dataOpsRequested() >= dataOpsCompleted()");
  }
  ZOL_TRACE(5, "AclSm::handleAclDataOpsCompleted() phase="
                   << Zol::enumName(applyPhase_) << " opsRequested=" << dataOpsRequested_
                   << " opsCompleted=" << dataOpsCompleted_);
  if (dataOpsRequested_ != dataOpsCompleted_) return;
  switch (applyPhase_) {
    case AclApplyPhase::aclApplyPhaseUninstall:
      return doApplyAclsPhase(AclApplyPhase::aclApplyPhasePrepare);
    case AclApplyPhase::aclApplyPhasePrepare:
      return doApplyAclsPhase(AclApplyPhase::aclApplyPhaseCommit);
    case AclApplyPhase::aclApplyPhaseUnblock:
      return doApplyAclsPhase(AclApplyPhase::aclApplyPhaseDone);
    default:
      return;
  }
}

bool AclSm::unblockAcls() const {
  for (auto const& [intf, sm] : intfSms_) {
    if (sm->needsUnblock()) return true;
  }
  return false;
}

// ---- Blocking ----

bool AclSm::permitDuringAclUpdate() const {
  bool const permit =
      !in_.aclHelper->ignorePermitDuringAclUpdate() &&
      (in_.aclParamConfig->permitDuringAclUpdate() || in_.aclHelper->permitDuringAclUpdate());
  ZOL_TRACE(8, " permitDuringAclUpdateConfig is " << permit);
  return permit;
}

AclIntfSm* AclSm::aclIntfSm(Nepo::IntfId const& intf) const {
  auto it = intfSms_.find(intf);
  return it == intfSms_.end() ? nullptr : it->second.get();
}

AclIntfSm* AclSm::aclIntfSmIs(Nepo::IntfId const& intf) {
  auto it = intfSms_.find(intf);
  if (it == intfSms_.end()) {
    it = intfSms_.emplace(intf, std::make_unique<AclIntfSm>(this, intf)).first;
  }
  return it->second.get();
}

AclIntfSm::AclIntfSm(AclSm* root, Nepo::IntfId const& intf)
    : root_(root),
      intf_(Zol::make<AclIntf>(intf.stringValue(), intf)),
      status_(Zol::make<AclIntfStatus>(intf.stringValue(), intf)),
      reactor_(std::make_unique<Reactor>(this)) {
  reactor_->notifiersIs(intf_, status_);
}

AclIntfSm::~AclIntfSm() {
  // An SM that cleans up leaves no port blocked behind it.
  if (!root_->disableCleanupOnRestart() && state() != AclIntfState::aclIntfUnblocked) {
    root_->aclHelper()->blockIntf(intf(), false, AclData::aclNumberInvalid);
  }
}

void AclIntfSm::wantToBlockIs(AclKey const& key, bool want) {
  if (want) {
    intf_->wantToBlockIs(key, true);
    handleWantToBlock();
  } else {
    intf_->wantToBlockDel(key);
  }
}

void AclIntfSm::handleWantToBlock() {
  if (intf_->wantToBlockSize() == 0) return;
  AclIntfState const s = state();
  if (s != AclIntfState::aclIntfUnblocked && s != AclIntfState::aclIntfWaitingToUnblock) return;
  VemoHelper::AclHelper& helper = *root_->aclHelper();
  AclKey const& key = intf_->wantToBlockAll().begin()->first;
  AclDirectionTypeConfigSm* const dir = root_->directionSm(key.type(), key.direction());
  AclConfigSm* const acl = dir ? dir->typeSm()->configSm(key.name()) : nullptr;
  AclDataSm* const inst = acl ? acl->dataSm(key) : nullptr;
  Zol::U32 const aclNum = inst ? inst->data()->aclNumber() : AclData::aclNumberInvalid;
  ZOL_TRACE(5, "AclIntfSm blocking " << intf() << " for " << key.text());
  helper.blockIntf(intf(), true, aclNum);
  if (helper.asyncAclConfig()) {
    status_->aclIntfStateIs(AclIntfState::aclIntfWaitingToBlock);
    root_->blockOpRequested(intf());
  } else {
    status_->blockedIs(true);
    status_->aclIntfStateIs(AclIntfState::aclIntfBlocked);
  }
}

bool AclIntfSm::needsUnblock() const {
  AclIntfState const s = state();
  return intf_->wantToBlockSize() == 0 &&
         (s == AclIntfState::aclIntfBlocked || s == AclIntfState::aclIntfWaitingToBlock);
}

void AclIntfSm::doUnblock() {
  VemoHelper::AclHelper& helper = *root_->aclHelper();
  ZOL_TRACE(5, "AclIntfSm unblocking " << intf());
  helper.blockIntf(intf(), false, AclData::aclNumberInvalid);
  if (helper.asyncAclConfig()) {
    status_->aclIntfStateIs(AclIntfState::aclIntfWaitingToUnblock);
    root_->blockOpRequested(intf());
  } else {
    status_->blockedIs(false);
    status_->aclIntfStateIs(AclIntfState::aclIntfUnblocked);
  }
}

void AclIntfSm::handleBlocked() {
  AclIntfState const s = state();
  if (s == AclIntfState::aclIntfWaitingToBlock && status_->blocked()) {
    status_->aclIntfStateIs(AclIntfState::aclIntfBlocked);
  } else if (s == AclIntfState::aclIntfWaitingToUnblock && !status_->blocked()) {
    status_->aclIntfStateIs(AclIntfState::aclIntfUnblocked);
  } else {
    return;
  }
  root_->blockOpCompleted(intf());
}

}  // namespace Vemo
