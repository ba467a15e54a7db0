// The port-channel SM's reactors on its inputs; each hands the change to the SM.
#pragma once

#include "Vemo/LagSm.h"

namespace Vemo {

class LagSm::DirReactor : public Interface::EthLagIntfStatusDir::NotifieeConst {
 public:
  explicit DirReactor(LagSm* sm) : sm_(sm) {}
  void onIntfStatus(Nepo::IntfId const& lag) override {
    if (notifier()->intfStatusHas(lag)) {
      sm_->newStatus(lag);
    } else {
      sm_->statusDel(lag);
    }
  }

 private:
  LagSm* sm_;
};

class LagSm::CommonReactor : public VemoCommonSmData::NotifieeConst {
 public:
  explicit CommonReactor(LagSm* sm) : sm_(sm) {}
  void onOperationalMode() override { sm_->handleOperationalMode(); }
  void onIntf(Nepo::IntfId const& intf) override { sm_->handleIntfManaged(intf); }

 private:
  LagSm* sm_;
};

class LagSm::VerifyReactor : public VerifyData::NotifieeConst {
 public:
  explicit VerifyReactor(LagSm* sm) : sm_(sm) {}
  void onVerify(Zol::String const& request) override { sm_->handleVerify(request); }
  void onReverify(Zol::String const& request) override { sm_->handleRetryVerify(request); }

 private:
  LagSm* sm_;
};

class LagSm::MlagReactor : public Mlag::Status::NotifieeConst {
 public:
  explicit MlagReactor(LagSm* sm) : sm_(sm) {}
  void onState() override { sm_->handleMlagStateOrPeerLinkIntf(); }
  void onPeerLinkIntf() override { sm_->handleMlagStateOrPeerLinkIntf(); }
  void onFastMacRedirection() override { sm_->handleMlagFastMacRedirection(); }
  void onIntfStatus(Nepo::IntfId const& lag) override { sm_->handleMlagIntfStatus(lag); }

 private:
  LagSm* sm_;
};

class LagSm::MounterReactor : public LagMounter::NotifieeConst {
 public:
  explicit MounterReactor(LagSm* sm) : sm_(sm) {}
  void onMlagStatus() override { sm_->mlagStatusIs(notifier()->mlagStatus()); }

 private:
  LagSm* sm_;
};

}  // namespace Vemo
