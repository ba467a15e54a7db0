#include "Vemo/VemoCommon.h"

ZOL_TRACE_MODULE("VemoBaseSm")

namespace Vemo {

VemoBaseSm::VemoBaseSm(Zol::Ptr<VemoCommonSmData> const& commonData) : commonData_(commonData) {}

VemoBaseSm::~VemoBaseSm() = default;

void VemoBaseSm::initializedIs(bool v) {
  if (v == initialized_) return;
  initialized_ = v;
  handleInitialized();
}

VemoAsyncBaseSm::VemoAsyncBaseSm(Zol::Ptr<VemoCommonSmData> const& commonData,
                                 Zol::Ptr<VemoAsyncBaseHelper> const& helper)
    : VemoBaseSm(commonData),
      helper_(helper),
      pendingOperationTimeoutClock_([this] { handlePendingOperationTimeout(); }),
      tcamRequestClock_([this] { processTcamRequestQueue(); }) {
  helperReactor_.notifierIs(helper_);
}

VemoAsyncBaseSm::~VemoAsyncBaseSm() = default;

void VemoAsyncBaseSm::asyncOperationStarted() {
  asyncState_ = AsyncOperationState::asyncOperationPending;
  error_.clear();
  pendingOperationTimeoutClock_.timeMinIs(Zol::now() + pendingOperationTimeout_);
}

void VemoAsyncBaseSm::handlePendingOperationTimeout() {
  ZOL_TRACE(5, "handlePendingOperationTimeout " << fwkType());
  asyncState_ = AsyncOperationState::asyncOperationTimedOut;
  error_ = "timed out";
}

void VemoAsyncBaseSm::handleAsyncOperationResult() { Vemo::vemoAssert("0"); }

void VemoAsyncBaseSm::HelperReactor::onAsyncOperationResult() {
  if (!sm_->hasNotificationActive()) return;
  sm_->pendingOperationTimeoutClock_.timeMinIs(Zol::Clock::never);
  AsyncOperationResult const& r = notifier()->asyncOperationResult();
  sm_->asyncState_ = r.error().empty() ? AsyncOperationState::asyncOperationDone
                                       : AsyncOperationState::asyncOperationFailed;
  sm_->error_ = r.error();
  sm_->handleAsyncOperationResult();
}

}  // namespace Vemo
