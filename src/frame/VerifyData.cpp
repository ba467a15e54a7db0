#include "Vemo/VemoCommon.h"

#include <utility>

ZOL_TRACE_MODULE("VerifySm")

namespace Vemo {

void VerifyData::requestVerify(Zol::String const& request) {
  verifyIs(request, verify(request) + 1);
}

void VerifyData::requestReverify(Zol::String const& request) {
  reverifyIs(request, reverify(request) + 1);
}

// An SM that cannot check yet (not started) holds the request open; it is completed once every
// such SM has given its answer.
void VerifyData::answerDeferred(Zol::String const& request) {
  answerPendingIs(request, answerPending(request) + 1);
}

void VerifyData::answerGiven(Zol::String const& request) {
  Zol::U32 const left = answerPending(request);
  if (left <= 1) {
    answerPendingDel(request);
  } else {
    answerPendingIs(request, left - 1);
  }
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

VerifySm::VerifySm(Zol::Ptr<VerifyData> const& verifyData, Zol::ActivityLoop& loop)
    : verifyData_(verifyData), completedClock_(loop, [this] { handleCompleted(); }) {
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
  completedClock_.timeMinIs(completedClock_.loop().now());
}

void VerifySm::handleCompleted() {
  for (auto const& entry : std::exchange(serving_, {})) {
    if (verifyData_->answerPendingHas(entry.first)) {
      ZOL_TRACE(8, "waiting " << entry.first);
      waiting_.push_back(entry);
    } else {
      complete(entry.first, entry.second);
    }
  }
}

void VerifySm::handleAnswerPending(Zol::String const& request) {
  if (verifyData_->answerPendingHas(request)) return;
  std::vector<std::pair<Zol::String, bool>> stillWaiting;
  for (auto& entry : std::exchange(waiting_, {})) {
    if (entry.first == request) {
      complete(entry.first, entry.second);
    } else {
      stillWaiting.push_back(std::move(entry));
    }
  }
  waiting_ = std::move(stillWaiting);
}

void VerifySm::complete(Zol::String const& request, bool retry) {
  Zol::U32 const gen = retry ? verifyData_->reverify(request) : verifyData_->verify(request);
  ZOL_TRACE(8, "completed " << request << " mismatches " << verifyData_->mismatchesOf(request));
  verifyData_->completedIs(request, gen);
}

}  // namespace Vemo
