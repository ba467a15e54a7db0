// The port-channel SM's reactors on its inputs; each hands the change to the SM.
#pragma once

#include "Vemo/LagSm.h"
#include "Vemo/SmReactor.h"

namespace Vemo {

class LagSm::DirReactor : public SmReactor<Interface::EthLagIntfStatusDir::NotifieeConst, LagSm> {
 public:
  using SmReactor::SmReactor;
  void onIntfStatus(Nepo::IntfId const& lag) override {
    if (notifier()->intfStatusHas(lag)) {
      sm().newStatus(lag);
    } else {
      sm().statusDel(lag);
    }
  }
};

class LagSm::CommonReactor : public SmReactor<VemoCommonSmData::NotifieeConst, LagSm> {
 public:
  using SmReactor::SmReactor;
  void onOperationalMode() override { sm().handleOperationalMode(); }
  void onIntf(Nepo::IntfId const& intf) override { sm().handleIntfManaged(intf); }
};

class LagSm::VerifyReactor : public SmReactor<VerifyData::NotifieeConst, LagSm> {
 public:
  using SmReactor::SmReactor;
  void onVerify(Zol::String const& request) override { sm().handleVerify(request); }
  void onReverify(Zol::String const& request) override { sm().handleRetryVerify(request); }
};

class LagSm::MlagReactor : public SmReactor<Mlag::Status::NotifieeConst, LagSm> {
 public:
  using SmReactor::SmReactor;
  void onState() override { sm().handleMlagStateOrPeerLinkIntf(); }
  void onPeerLinkIntf() override { sm().handleMlagStateOrPeerLinkIntf(); }
  void onFastMacRedirection() override { sm().handleMlagFastMacRedirection(); }
  void onIntfStatus(Nepo::IntfId const& lag) override { sm().handleMlagIntfStatus(lag); }
};

class LagSm::MounterReactor : public SmReactor<LagMounter::NotifieeConst, LagSm> {
 public:
  using SmReactor::SmReactor;
  void onMlagStatus() override { sm().mlagStatusIs(notifier()->mlagStatus()); }
};

}  // namespace Vemo
