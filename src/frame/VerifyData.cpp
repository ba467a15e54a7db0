#include "Vemo/VemoCommon.h"

ZOL_TRACE_MODULE("VerifySm")

namespace Vemo {

void VerifyData::requestVerify(Zol::String const& request) {
  verifyIs(request, verify(request) + 1);
}

void VerifyData::requestReverify(Zol::String const& request) {
  reverifyIs(request, reverify(request) + 1);
}

void VerifyData::reportMismatch(Zol::String const& sm, Zol::String const& text) {
  mismatchIs(nextMismatch(), VerifyMismatch(currentRequest(), sm, text));
  nextMismatchIs(nextMismatch() + 1);
}

size_t VerifyData::mismatchesOf(Zol::String const& request) const {
  size_t n = 0;
  for (auto const& entry : mismatchAll()) n += entry.second.request() == request;
  return n;
}

VerifySm::VerifySm(Zol::Ptr<VerifyData> const& verifyData)
    : verifyData_(verifyData), completedClock_([this] { handleCompleted(); }) {
  reactor_.notifierIs(verifyData_);
}

void VerifySm::handleRequest(Zol::String const& request, bool retry) {
  ZOL_TRACE(8, "handleRequest " << request << (retry ? " reverify" : " verify"));
  // Earlier output of the same request is replaced by this pass's.
  std::vector<Zol::U32> old;
  for (auto const& [seq, m] : verifyData_->mismatchAll()) {
    if (m.request() == request) old.push_back(seq);
  }
  for (Zol::U32 seq : old) verifyData_->mismatchDel(seq);
  verifyData_->currentRequestIs(request);
  serving_.emplace_back(request, retry);
  // The SMs answer in this notification pass; the timer runs right after it.
  completedClock_.timeMinIs(Zol::now());
}

void VerifySm::handleCompleted() {
  for (auto const& [request, retry] : serving_) {
    Zol::U32 const gen = retry ? verifyData_->reverify(request) : verifyData_->verify(request);
    ZOL_TRACE(8, "completed " << request << " mismatches " << verifyData_->mismatchesOf(request));
    verifyData_->completedIs(request, gen);
  }
  serving_.clear();
}

}  // namespace Vemo
