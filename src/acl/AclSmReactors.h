// The ACL SMs' reactors on their inputs; each hands the change to the handler of the same name.
#pragma once

#include "Vemo/AclSm.h"

namespace Vemo {

class AclSm::ConfigReactor : public Acl::Config::NotifieeConst {
 public:
  explicit ConfigReactor(AclSm* sm) : sm_(sm) {}
  void onConfig(Acl::AclType type) override { sm_->handleConfig(type); }

 private:
  AclSm* sm_;
};

class AclSm::ParamReactor : public Acl::ParamConfig::NotifieeConst {
 public:
  explicit ParamReactor(AclSm* sm) : sm_(sm) {}
  void onDeepInspSkipL2() override { sm_->handleDeepInspSkip(); }
  void onDeepInspSkipL4() override { sm_->handleDeepInspSkip(); }

 private:
  AclSm* sm_;
};

class AclSm::CommonReactor : public VemoCommonSmData::NotifieeConst {
 public:
  explicit CommonReactor(AclSm* sm) : sm_(sm) {}
  void onIntf(Nepo::IntfId const& intf) override { sm_->handleIntf(intf); }
  void onOperationalMode() override { sm_->handleOperationalMode(); }

 private:
  AclSm* sm_;
};

class AclSm::LagReactor : public Lag::Input::Config::NotifieeConst {
 public:
  explicit LagReactor(AclSm* sm) : sm_(sm) {}
  void onPhyIntf(Nepo::IntfId const& port) override { sm_->handlePhyIntf(port); }

 private:
  AclSm* sm_;
};

class AclSm::HelperReactor : public VemoHelper::AclHelper::NotifieeConst {
 public:
  explicit HelperReactor(AclSm* sm) : sm_(sm) {}
  void onAclHelperCallbackData(AclKey const& key) override { sm_->handleCallbackData(key); }
  void onAclIntfBlockedStatus(Nepo::IntfId const& intf) override {
    sm_->handleIntfBlockedStatus(intf);
  }
  void onUnitError(Zol::String const& unit) override { sm_->syslogUnitError(unit); }

 private:
  AclSm* sm_;
};

class AclSm::VerifyReactor : public VerifyData::NotifieeConst {
 public:
  explicit VerifyReactor(AclSm* sm) : sm_(sm) {}
  void onVerify(Zol::String const& request) override { sm_->handleVerify(request); }

 private:
  AclSm* sm_;
};

// The sources of interface configuration other than the command line, and each source's (and
// the command line's) types: a source's structure changing rewatches every direction.
class AclSm::SourceDirReactor : public Acl::IntfConfigDir::NotifieeConst {
 public:
  explicit SourceDirReactor(AclSm* sm) : sm_(sm) {}
  void onIntfConfig(Zol::Name const& source) override { sm_->handleIntfConfigSource(source); }

 private:
  AclSm* sm_;
};

class AclSm::IntfConfigReactor : public Acl::IntfConfig::NotifieeConst {
 public:
  explicit IntfConfigReactor(AclSm* sm) : sm_(sm) {}
  void onConfig(Acl::AclType) override { sm_->handleIntfConfigSource(Zol::Name()); }

 private:
  AclSm* sm_;
};

class AclSm::SubIntfStatusDirReactor : public Interface::SubIntfStatusDir::NotifieeConst {
 public:
  explicit SubIntfStatusDirReactor(AclSm* sm) : sm_(sm) {}
  void onIntfStatus(Nepo::IntfId const& intf) override {
    sm_->subIntfWatch(intf);
    sm_->handleSubIntfInternalVlanId(intf);
  }

 private:
  AclSm* sm_;
};

class AclSm::SubIntfConfigDirReactor : public Interface::SubIntfConfigDir::NotifieeConst {
 public:
  explicit SubIntfConfigDirReactor(AclSm* sm) : sm_(sm) {}
  void onIntfConfig(Nepo::IntfId const& intf) override {
    sm_->subIntfWatch(intf);
    sm_->handleSubIntfCfgVlanId(intf);
  }

 private:
  AclSm* sm_;
};

// One sub-interface's forwarding VLAN and encapsulation.
class AclSm::SubIntfReactor {
 public:
  SubIntfReactor(AclSm* sm, Nepo::IntfId const& intf) : status_(sm, intf), config_(sm, intf) {}
  void statusIs(Zol::Ptr<Interface::SubIntfStatus const> const& s) { status_.notifierIs(s); }
  void configIs(Zol::Ptr<Interface::SubIntfConfig const> const& c) { config_.notifierIs(c); }
  bool empty() const { return !status_.notifier() && !config_.notifier(); }

 private:
  class Status : public Interface::SubIntfStatus::NotifieeConst {
   public:
    Status(AclSm* sm, Nepo::IntfId const& intf) : sm_(sm), intf_(intf) {}
    void onForwardingVlanId() override { sm_->handleSubIntfInternalVlanId(intf_); }

   private:
    AclSm* sm_;
    Nepo::IntfId intf_;
  };
  class Config : public Interface::SubIntfConfig::NotifieeConst {
   public:
    Config(AclSm* sm, Nepo::IntfId const& intf) : sm_(sm), intf_(intf) {}
    void onDot1qEncap() override { sm_->handleSubIntfCfgVlanId(intf_); }

   private:
    AclSm* sm_;
    Nepo::IntfId intf_;
  };
  Status status_;
  Config config_;
};

}  // namespace Vemo
