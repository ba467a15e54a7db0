#include "L2FrontEnd.h"

namespace vemo::agent {

class L2FrontEnd::ConfigReactor : public Bridging::Config::NotifieeConst {
 public:
  explicit ConfigReactor(L2FrontEnd* fe) : fe_(fe) {}
  void onSwitchIntfConfig(Nepo::IntfId const& intf) override { fe_->vlansChanged(intf); }

 private:
  L2FrontEnd* fe_;
};

class L2FrontEnd::IntfConfigReactor : public Bridging::SwitchIntfConfig::NotifieeConst {
 public:
  IntfConfigReactor(L2FrontEnd* fe, Nepo::IntfId intf) : fe_(fe), intf_(intf) {}
  void onSwitchportModeAndNativeVlan() override { fe_->vlansChanged(intf_); }
  void onTrunkAllowedVlan(Bridging::VlanId) override { fe_->vlansChanged(intf_); }

 private:
  L2FrontEnd* fe_;
  Nepo::IntfId intf_;
};

class L2FrontEnd::StatusDirReactor : public Interface::AllEthPhyIntfStatusDir::NotifieeConst {
 public:
  explicit StatusDirReactor(L2FrontEnd* fe) : fe_(fe) {}
  void onIntfStatus(Nepo::IntfId const& intf) override { fe_->linkChanged(intf); }

 private:
  L2FrontEnd* fe_;
};

class L2FrontEnd::IntfStatusReactor : public Interface::EthPhyIntfStatus::NotifieeConst {
 public:
  IntfStatusReactor(L2FrontEnd* fe, Nepo::IntfId intf) : fe_(fe), intf_(intf) {}
  void onLinkStatus() override { fe_->linkChanged(intf_); }

 private:
  L2FrontEnd* fe_;
  Nepo::IntfId intf_;
};

L2FrontEnd::L2FrontEnd(sim::Chip& chip, Zol::Ptr<Bridging::Config const> const& config,
                       Zol::Ptr<Interface::AllEthPhyIntfStatusDir const> const& intfStatus)
    : chip_(chip), config_(config), intfStatus_(intfStatus) {
  configReactor_ = std::make_unique<ConfigReactor>(this);
  configReactor_->notifierIs(config_);
  statusReactor_ = std::make_unique<StatusDirReactor>(this);
  statusReactor_->notifierIs(intfStatus_);
  for (auto const& [intf, c] : config_->switchIntfConfigAll()) vlansChanged(intf);
  for (auto const& [intf, s] : intfStatus_->intfStatusAll()) linkChanged(intf);
}

L2FrontEnd::~L2FrontEnd() = default;

void L2FrontEnd::vlansChanged(Nepo::IntfId const& intf) {
  auto const c = config_->switchIntfConfig(intf);
  if (!c) {
    intfConfig_.erase(intf);
    chip_.macs().vlanMembershipIs(intf, sim::VlanMembership());
    return;
  }
  auto& reactor = intfConfig_[intf];
  if (!reactor || reactor->notifier() != c) {
    reactor = std::make_unique<IntfConfigReactor>(this, intf);
    reactor->notifierIs(c);
  }
  auto const& mode = c->switchportModeAndNativeVlan();
  uint16_t const native = mode.nativeVlan().value();
  if (mode.switchportMode() != Bridging::SwitchportMode::trunk) {
    chip_.macs().vlanMembershipIs(intf, sim::VlanMembership::access(native));
    return;
  }
  std::set<uint16_t> allowed;
  for (auto const& [vlan, on] : c->trunkAllowedVlanAll()) allowed.insert(vlan.value());
  allowed.insert(native);
  chip_.macs().vlanMembershipIs(intf, sim::VlanMembership::trunkOf(allowed, native));
}

// A port whose status went is down to the chip, as is one whose link is not up.
void L2FrontEnd::linkChanged(Nepo::IntfId const& intf) {
  auto const s = intfStatus_->intfStatus(intf);
  if (!s) {
    intfStatusReactors_.erase(intf);
    chip_.linkIs(intf, false);
    return;
  }
  auto& reactor = intfStatusReactors_[intf];
  if (!reactor || reactor->notifier() != s) {
    reactor = std::make_unique<IntfStatusReactor>(this, intf);
    reactor->notifierIs(s);
  }
  chip_.linkIs(intf, s->linkStatus() == Interface::LinkStatus::linkUp);
}

}  // namespace vemo::agent
