#include "Vemo/VemoCommon.h"

#include <utility>

ZOL_TRACE_MODULE("VemoBaseSm")

namespace Vemo {

VemoBaseSm::VemoBaseSm(Zol::Ptr<VemoCommonSmData> const& commonData) : commonData_(commonData) {}

VemoBaseSm::~VemoBaseSm() = default;

void VemoBaseSm::initializedIs(bool v) {
  if (v == initialized_) return;
  initialized_ = v;
  if (!hasNotificationActive()) {
    initializedMissed_ = true;
    return;
  }
  Zol::DeliveryGate::Scope const scope(&deliveryGate());
  handleInitialized();
}

void VemoBaseSm::hasNotificationActiveIs(bool active) {
  hasNotificationActive_ = active;
  deliveryUpdate();
}

void VemoBaseSm::zolDoZombieReactors(bool zombie) {
  zombie_ = zombie;
  deliveryUpdate();
}

void VemoBaseSm::deliveryUpdate() {
  bool const open = hasNotificationActive_ && !zombie_;
  if (open == deliveryGate().open()) return;
  ZOL_TRACE(5, fwkType() << (open ? " delivery on" : " delivery off"));
  deliveryGate().openIs(open);
  if (!open) return;
  Zol::DeliveryGate::Scope const scope(&deliveryGate());
  if (std::exchange(initializedMissed_, false)) {
    handleInitialized();
  } else {
    handleResync();
  }
}

VemoAsyncBaseSm::VemoAsyncBaseSm(Zol::Ptr<VemoCommonSmData> const& commonData,
                                 Zol::Ptr<VemoAsyncBaseHelper> const& helper)
    : VemoBaseSm(commonData),
      helper_(helper),
      pendingOperationTimeoutClock_(commonData->loop(),
                                    [this] { handlePendingOperationTimeout(); }),
      tcamRequestClock_(commonData->loop(), [this] { processTcamRequestQueue(); }) {
  helperReactor_.notifierIs(helper_);
}

VemoAsyncBaseSm::~VemoAsyncBaseSm() = default;

void VemoAsyncBaseSm::asyncOperationStarted() {
  asyncState_ = AsyncOperationState::asyncOperationPending;
  error_.clear();
  pendingOperationTimeoutClock_.timeMinIs(commonData()->loop().now() + pendingOperationTimeout_);
}

void VemoAsyncBaseSm::handlePendingOperationTimeout() {
  ZOL_TRACE(5, "handlePendingOperationTimeout " << fwkType());
  asyncState_ = AsyncOperationState::asyncOperationTimedOut;
  error_ = "timed out";
}

void VemoAsyncBaseSm::handleAsyncOperationResult() { Vemo::vemoAssert("0"); }

void VemoAsyncBaseSm::HelperReactor::onAsyncOperationResult() {
  sm_->pendingOperationTimeoutClock_.timeMinIs(Zol::Clock::never);
  AsyncOperationResult const& r = notifier()->asyncOperationResult();
  sm_->asyncState_ = r.error().empty() ? AsyncOperationState::asyncOperationDone
                                       : AsyncOperationState::asyncOperationFailed;
  sm_->error_ = r.error();
  sm_->handleAsyncOperationResult();
}

}  // namespace Vemo
