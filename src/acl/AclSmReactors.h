// The ACL SMs' reactors on their inputs, the root's and its sub-SMs'; each hands the change to
// the handler of the same name.
#pragma once

#include "AclSubSms.h"
#include "Vemo/SmReactor.h"

namespace Vemo {

class AclSm::ConfigReactor : public SmReactor<Acl::Config::NotifieeConst, AclSm> {
 public:
  using SmReactor::SmReactor;
  void onConfig(Acl::AclType type) override { sm().handleConfig(type); }
};

class AclSm::ParamReactor : public SmReactor<Acl::ParamConfig::NotifieeConst, AclSm> {
 public:
  using SmReactor::SmReactor;
  void onDeepInspSkipL2() override { sm().handleDeepInspSkip(); }
  void onDeepInspSkipL4() override { sm().handleDeepInspSkip(); }
};

class AclSm::CommonReactor : public SmReactor<VemoCommonSmData::NotifieeConst, AclSm> {
 public:
  using SmReactor::SmReactor;
  void onIntf(Nepo::IntfId const& intf) override { sm().handleIntf(intf); }
  void onOperationalMode() override { sm().handleOperationalMode(); }
};

class AclSm::LagReactor : public SmReactor<Lag::Input::Config::NotifieeConst, AclSm> {
 public:
  using SmReactor::SmReactor;
  void onPhyIntf(Nepo::IntfId const& port) override { sm().handlePhyIntf(port); }
};

class AclSm::HelperReactor : public SmReactor<VemoHelper::AclHelper::NotifieeConst, AclSm> {
 public:
  using SmReactor::SmReactor;
  void onAclHelperCallbackData(AclKey const& key) override { sm().handleCallbackData(key); }
  void onAclIntfBlockedStatus(Nepo::IntfId const& intf) override {
    sm().handleIntfBlockedStatus(intf);
  }
  void onUnitError(Zol::String const& unit) override { sm().syslogUnitError(unit); }
};

class AclSm::VerifyReactor : public SmReactor<VerifyData::NotifieeConst, AclSm> {
 public:
  using SmReactor::SmReactor;
  void onVerify(Zol::String const& request) override { sm().handleVerify(request); }
};

// The sources of interface configuration other than the command line, and each source's (and
// the command line's) types: a source's structure changing rewatches every direction.
class AclSm::SourceDirReactor : public SmReactor<Acl::IntfConfigDir::NotifieeConst, AclSm> {
 public:
  using SmReactor::SmReactor;
  void onIntfConfig(Zol::Name const& source) override { sm().handleIntfConfigSource(source); }
};

class AclSm::IntfConfigReactor : public SmReactor<Acl::IntfConfig::NotifieeConst, AclSm> {
 public:
  using SmReactor::SmReactor;
  void onConfig(Acl::AclType) override { sm().handleIntfConfigSource(Zol::Name()); }
};

class AclSm::SubIntfStatusDirReactor
    : public SmReactor<Interface::SubIntfStatusDir::NotifieeConst, AclSm> {
 public:
  using SmReactor::SmReactor;
  void onIntfStatus(Nepo::IntfId const& intf) override {
    sm().subIntfWatch(intf);
    sm().handleSubIntfInternalVlanId(intf);
  }
};

class AclSm::SubIntfConfigDirReactor
    : public SmReactor<Interface::SubIntfConfigDir::NotifieeConst, AclSm> {
 public:
  using SmReactor::SmReactor;
  void onIntfConfig(Nepo::IntfId const& intf) override {
    sm().subIntfWatch(intf);
    sm().handleSubIntfCfgVlanId(intf);
  }
};

// One sub-interface's forwarding VLAN and encapsulation.
class AclSm::SubIntfReactor {
 public:
  SubIntfReactor(AclSm* sm, Nepo::IntfId const& intf) : status_(sm, intf), config_(sm, intf) {}
  void statusIs(Zol::Ptr<Interface::SubIntfStatus const> const& s) { status_.notifierIs(s); }
  void configIs(Zol::Ptr<Interface::SubIntfConfig const> const& c) { config_.notifierIs(c); }
  bool empty() const { return !status_.notifier() && !config_.notifier(); }

 private:
  class Status : public SmKeyReactor<Interface::SubIntfStatus::NotifieeConst, AclSm, Nepo::IntfId> {
   public:
    using SmKeyReactor::SmKeyReactor;
    void onForwardingVlanId() override { sm().handleSubIntfInternalVlanId(key()); }
  };
  class Config : public SmKeyReactor<Interface::SubIntfConfig::NotifieeConst, AclSm, Nepo::IntfId> {
   public:
    using SmKeyReactor::SmKeyReactor;
    void onDot1qEncap() override { sm().handleSubIntfCfgVlanId(key()); }
  };
  Status status_;
  Config config_;
};

// The sub-SMs' reactors.

class AclTypeConfigSm::Reactor
    : public SmReactor<Acl::AclTypeConfig::NotifieeConst, AclTypeConfigSm> {
 public:
  using SmReactor::SmReactor;
  void onAcl(Zol::Name const& name) override { sm().handleAcl(name); }
};

class AclTypeConfigSm::IntfTypeReactor
    : public SmReactor<Acl::IntfTypeConfig::NotifieeConst, AclTypeConfigSm> {
 public:
  using SmReactor::SmReactor;
  void onIntf(Acl::AclDirection direction) override { sm().handleIntf(direction); }
};

class AclConfigSm::Reactor : public SmReactor<Acl::AclConfig::NotifieeConst, AclConfigSm> {
 public:
  using SmReactor::SmReactor;
  void onCurrCfg() override { sm().handleCurrCfg(); }
  void onCounterUpdateRequestTime() override { sm().handleCounterUpdateRequestTime(); }
};

class AclDirectionTypeConfigSm::SourceReactor
    : public SmReactor<Acl::AclIntf::NotifieeConst, AclDirectionTypeConfigSm> {
 public:
  using SmReactor::SmReactor;
  void onIntf(Nepo::IntfId const& intf) override { sm().handleIntf(intf); }
};

class AclDirectionTypeConfigSm::BrReactor
    : public SmReactor<Bridging::Config::NotifieeConst, AclDirectionTypeConfigSm> {
 public:
  using SmReactor::SmReactor;
  void onSwitchIntfConfig(Nepo::IntfId const& intf) override { sm().handleSwitchIntfConfig(intf); }
};

// One blocked interface's request and the platform's answer.
class AclIntfSm::Reactor {
 public:
  explicit Reactor(AclIntfSm* sm) : intf_(sm), status_(sm) {}
  void notifiersIs(Zol::Ptr<AclIntf const> const& i, Zol::Ptr<AclIntfStatus const> const& s) {
    intf_.notifierIs(i);
    status_.notifierIs(s);
  }

 private:
  class Intf : public SmReactor<AclIntf::NotifieeConst, AclIntfSm> {
   public:
    using SmReactor::SmReactor;
    void onWantToBlock(AclKey const&) override { sm().handleWantToBlock(); }
  };
  class Status : public SmReactor<AclIntfStatus::NotifieeConst, AclIntfSm> {
   public:
    using SmReactor::SmReactor;
    void onBlocked() override { sm().handleBlocked(); }
  };
  Intf intf_;
  Status status_;
};

}  // namespace Vemo
