// The common data shared by every feature SM of one agent, and the frame every SM and platform
// helper is built on: base classes, the initialized handshake and failure reporting.
#pragma once

#include <source_location>
#include <string_view>

#include "Zol/Activity.h"
#include "Zol/Trace.h"
#include "ZolGen/VemoCommon.h"

namespace Vemo {

// Writes the message and a newline to stderr, then aborts through the C library's assertion
// failure. There is no recovery path inside the library.
[[noreturn]] void vemoAssert(Zol::String const& message,
                             std::source_location where = std::source_location::current());

// Builds the common data: collections empty, scalars at their defaults, the verification store
// "verify" and its SM in place, and initialized true before it returns.
// The common data of an agent whose SMs and helpers run on loop. The one-argument form takes the
// loop the creating thread runs (and asserts that it runs one).
Zol::Ptr<VemoCommonSmData> vemoCommonSmDataFactory(Zol::Name const& name, Zol::ActivityLoop& loop);
Zol::Ptr<VemoCommonSmData> vemoCommonSmDataFactory(Zol::Name const& name);

// Base of every synchronous feature SM. The factory constructs the SM (reactors on its inputs, no
// helper call yet); whoever owns it then calls initializedIs(true), which runs handleInitialized(),
// the first full pass over the inputs.
//
// Pausing (hasNotificationActiveIs(false)) or dying (zolDoZombieReactors(true)) closes the SM's
// delivery gate: none of its reactors is notified and none of its timers fires, whoever wrote the
// handler. The gate covers every reactor and timer the SM makes while it is built by its factory
// and while its own handlers run, child SMs' included. When delivery is back on, timers that came
// due fire and handleResync() brings the SM up to date with its inputs.
class VemoBaseSm : public Zol::PtrInterface, public Zol::GateOwner {
 public:
  explicit VemoBaseSm(Zol::Ptr<VemoCommonSmData> const& commonData);

  // Switches the SM's reactions off and on.
  virtual void hasNotificationActiveIs(bool active);
  virtual std::string_view fwkType() const { return "Vemo::VemoBaseSm"; }
  ~VemoBaseSm() override;
  // The first full pass over the inputs; runs on every change of initialized.
  virtual void handleInitialized() {}
  // Does nothing when v equals the stored value; otherwise stores it and runs handleInitialized(),
  // at once, or when delivery is back on if it is off.
  virtual void initializedIs(bool v);
  // Called when the owner is dying, so that the SM's reactors stop acting.
  virtual void zolDoZombieReactors(bool zombie);
  // Delivery is back on: whatever changed meanwhile was not notified. The default runs the first
  // full pass again; an SM whose first pass may run only once overrides it.
  virtual void handleResync() {
    if (initialized()) handleInitialized();
  }

  Zol::Ptr<VemoCommonSmData> const& commonData() const { return commonData_; }
  bool initialized() const { return initialized_; }
  bool hasNotificationActive() const { return deliveryGate().open(); }
  [[noreturn]] void vemoAssert(Zol::String const& message,
                               std::source_location where = std::source_location::current()) const {
    Vemo::vemoAssert(message, where);
  }

 private:
  void deliveryUpdate();

  Zol::Ptr<VemoCommonSmData> commonData_;
  bool initialized_ = false;
  bool hasNotificationActive_ = true;
  bool zombie_ = false;
  // initialized changed while delivery was off; its pass runs when delivery is back on.
  bool initializedMissed_ = false;
};

// Base of SMs whose hardware operations complete later: the helper publishes each result in its
// asyncOperationResult, and a pending operation that sees no result in time times out.
class VemoAsyncBaseSm : public VemoBaseSm {
 public:
  VemoAsyncBaseSm(Zol::Ptr<VemoCommonSmData> const& commonData,
                  Zol::Ptr<VemoAsyncBaseHelper> const& helper);
  ~VemoAsyncBaseSm() override;
  std::string_view fwkType() const override { return "Vemo::VemoAsyncBaseSm"; }

  AsyncOperationState asyncState() const { return asyncState_; }
  void asyncStateIs(AsyncOperationState s) { asyncState_ = s; }
  Zol::String const& error() const { return error_; }
  void errorIs(Zol::String const& e) { error_ = e; }
  Zol::Seconds pendingOperationTimeout() const { return pendingOperationTimeout_; }
  void pendingOperationTimeoutIs(Zol::Seconds t) { pendingOperationTimeout_ = t; }
  Zol::Clock& pendingOperationTimeoutClock() { return pendingOperationTimeoutClock_; }
  Zol::Clock& tcamRequestClock() { return tcamRequestClock_; }
  Zol::Ptr<VemoAsyncBaseHelper> const& asyncHelper() const { return helper_; }

  // An operation was handed to the helper: pending until its result or its timeout.
  void asyncOperationStarted();

  // tcamRequestClock fired.
  virtual void processTcamRequestQueue() {}
  // No result came within pendingOperationTimeout.
  virtual void handlePendingOperationTimeout();
  // The helper published a result; every asynchronous SM overrides this.
  virtual void handleAsyncOperationResult();

 private:
  class HelperReactor : public VemoAsyncBaseHelper::NotifieeConst {
   public:
    explicit HelperReactor(VemoAsyncBaseSm* sm) : sm_(sm) {}
    void onAsyncOperationResult() override;

   private:
    VemoAsyncBaseSm* sm_;
  };

  Zol::Ptr<VemoAsyncBaseHelper> helper_;
  AsyncOperationState asyncState_ = AsyncOperationState::asyncOperationIdle;
  Zol::String error_;
  Zol::Seconds pendingOperationTimeout_ = 60;
  Zol::Clock pendingOperationTimeoutClock_;
  Zol::Clock tcamRequestClock_;
  HelperReactor helperReactor_{this};
};

// Serves the common data's verification store: notes which request is being served, so that the
// SMs' mismatch reports are filed under it, and marks the request completed once every SM has
// had its pass, or, for a request an SM holds open (answerPending), once the last such SM has
// answered.
class VerifySm : public Zol::PtrInterface {
 public:
  VerifySm(Zol::Ptr<VerifyData> const& verifyData, Zol::ActivityLoop& loop);

 private:
  class Reactor : public VerifyData::NotifieeConst {
   public:
    explicit Reactor(VerifySm* sm) : sm_(sm) {}
    void onVerify(Zol::String const& request) override { sm_->handleRequest(request, false); }
    void onReverify(Zol::String const& request) override { sm_->handleRequest(request, true); }
    void onAnswerPending(Zol::String const& request) override { sm_->handleAnswerPending(request); }

   private:
    VerifySm* sm_;
  };
  void handleRequest(Zol::String const& request, bool retry);
  void handleCompleted();
  void handleAnswerPending(Zol::String const& request);
  void complete(Zol::String const& request, bool retry);

  Zol::Ptr<VerifyData> verifyData_;
  Reactor reactor_{this};
  std::vector<std::pair<Zol::String, bool>> serving_;
  // Served, but held open by an SM that answers later.
  std::vector<std::pair<Zol::String, bool>> waiting_;
  Zol::Clock completedClock_;
};

}  // namespace Vemo
