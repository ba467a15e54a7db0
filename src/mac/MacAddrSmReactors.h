// The MAC SM's reactors on its inputs; each hands the change to the SM. Reactors on a keyed
// child (one VLAN's configured hosts, one interface's switching config, one requester's flush
// requests) come and go with the child.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <memory>

#include "MacAddrSmText.h"
#include "Vemo/MacAddrSm.h"
#include "Vemo/SmReactor.h"

namespace Vemo {

class MacAddrSm::Reactors {
 public:
  explicit Reactors(MacAddrSm* sm)
      : hwMacTable(sm),
        config(sm),
        routerMac(sm),
        nonAging(sm),
        flushRequests(sm),
        intfStatus(sm),
        mlag(sm),
        portVlan(sm),
        helper(sm),
        verify(sm) {}

  class HwMacTable : public SmReactor<VemoTypes::MacTable::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onEntry(Bridging::MacVlanPair const& key) override { sm().handleMacTableEntry(key); }
  };

  class Config : public SmReactor<Bridging::Config::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onFdbConfig(Bridging::VlanId fid) override { sm().handleFdbConfig(fid); }
    void onHostAgingTime() override { sm().handleHostAgingTime(); }
    void onSwitchIntfConfig(Nepo::IntfId const& intf) override {
      sm().handleSwitchIntfConfig(intf);
    }
    void onVlanConfig(Bridging::VlanId vlan) override { sm().handleVlanConfig(vlan); }
  };

  class FdbConfig
      : public SmKeyReactor<Bridging::FdbConfig::NotifieeConst, MacAddrSm, Bridging::VlanId> {
   public:
    using SmKeyReactor::SmKeyReactor;
    void onConfiguredHost(Nepo::EthAddr const& mac) override {
      sm().handleConfiguredHost(Bridging::MacVlanPair(mac, key()));
    }
  };

  class SwitchIntfConfig
      : public SmKeyReactor<Bridging::SwitchIntfConfig::NotifieeConst, MacAddrSm, Nepo::IntfId> {
   public:
    using SmKeyReactor::SmKeyReactor;
    void onMacLearning() override { sm().handleLearning(key()); }
    void onSwitchportModeAndNativeVlan() override { sm().handleLearning(key()); }
  };

  class VlanConfig
      : public SmKeyReactor<Bridging::VlanConfig::NotifieeConst, MacAddrSm, Bridging::VlanId> {
   public:
    using SmKeyReactor::SmKeyReactor;
    void onMacLearning() override { sm().handleLearningOnVlan(key()); }
  };

  class RouterMac : public SmReactor<Bridging::RouterMacTable::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onRouterMac(Bridging::MacVlanPair const& key) override { sm().handleRouterMacEntry(key); }
  };

  class NonAging : public SmReactor<Bridging::NonAgingMacStatus::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onHost(Bridging::MacVlanPair const& key) override { sm().handleNonAgingMacEntries(key); }
  };

  class FlushRequests
      : public SmReactor<Bridging::AllHostTableFlushRequestDir::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onRequestDir(Zol::String const& requester) override {
      sm().handleFlushRequestDir(requester);
    }
  };

  class FlushRequestDir : public SmKeyReactor<Bridging::HostTableFlushRequestDir::NotifieeConst,
                                              MacAddrSm, Zol::String> {
   public:
    using SmKeyReactor::SmKeyReactor;
    void onRequest(Zol::U32 id) override { sm().handleFlushRequest(key(), id); }
  };

  class IntfStatus : public SmReactor<Interface::AllEthPhyIntfStatusDir::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onIntfStatus(Nepo::IntfId const& intf) override { sm().handleIntfStatus(intf); }
  };

  class MlagStatus : public SmReactor<Mlag::Status::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onState() override { sm().handleMlagPeerLink(); }
    void onPeerLinkIntf() override { sm().handleMlagPeerLink(); }
  };

  class PortVlan : public SmReactor<PortVlanMembership::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onIntfVlans(Nepo::IntfId const& intf) override { sm().handleLearning(intf); }
  };

  class Helper : public SmReactor<VemoHelper::VemoHelperMacAddrSmState::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onRefusedHost(Bridging::MacVlanPair const& key) override { sm().handleRefusedHost(key); }
  };

  class Verify : public SmReactor<VerifyData::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onVerify(Zol::String const& request) override { sm().handleVerify(request); }
  };

  // Keeps one reactor per present child of a keyed collection.
  template <class Reactor, class Key, class Child>
  static void track(MacAddrSm* sm, absl::flat_hash_map<Key, std::unique_ptr<Reactor>>& reactors,
                    Key const& key, Zol::Ptr<Child> const& child) {
    if (!child) {
      reactors.erase(key);
      return;
    }
    auto& r = reactors[key];
    if (r && r->notifier() == child) return;
    r = std::make_unique<Reactor>(sm, key);
    r->notifierIs(child);
  }

  HwMacTable hwMacTable;
  Config config;
  RouterMac routerMac;
  NonAging nonAging;
  FlushRequests flushRequests;
  IntfStatus intfStatus;
  MlagStatus mlag;
  PortVlan portVlan;
  Helper helper;
  Verify verify;
  absl::flat_hash_map<Bridging::VlanId, std::unique_ptr<FdbConfig>> fdbConfig;
  absl::flat_hash_map<Nepo::IntfId, std::unique_ptr<SwitchIntfConfig>> switchIntfConfig;
  absl::flat_hash_map<Bridging::VlanId, std::unique_ptr<VlanConfig>> vlanConfig;
  absl::flat_hash_map<Zol::String, std::unique_ptr<FlushRequestDir>> flushRequestDir;
};

}  // namespace Vemo
