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

// A lookup that costs no hashing in a map that is empty, as most of the SM's side tables and
// most sources are most of the time.
template <class Map, class Key>
auto findIn(Map const& map, Key const& key) {
  return map.empty() ? map.end() : map.find(key);
}

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
        verify(sm),
        mlagHosts(sm),
        dot1xHosts(sm),
        dot1xStatus(sm),
        fsf(sm),
        vxlanConfigDir(sm),
        receivedHosts(sm),
        remoteLearns(sm),
        evpnMacs(sm),
        l2RibHosts(sm),
        hwIds(sm),
        remoteMacInfo(sm),
        vniInfo(sm),
        remoteFlush(sm),
        bootStatus(sm),
        vtepStatusDir(sm),
        vtepGroupStatusDir(sm) {}

  // The reactors on the peer, 802.1X, failover and remote sources.
  void connectSources(MacAddrSm* sm) {
    MacAddrSm::Inputs const& in = sm->inputs();
    mlagHosts.notifierIs(in.mlagHostTable);
    dot1xHosts.notifierIs(in.dot1xHostTable);
    dot1xStatus.notifierIs(in.dot1xStatus);
    fsf.notifierIs(in.fsfStatus);
    vxlanConfigDir.notifierIs(in.vxlanConfigDir);
    receivedHosts.notifierIs(in.remoteMacInfoDir->receivedHostTable());
    remoteLearns.notifierIs(in.remoteMacInfoDir->hostTable());
    evpnMacs.notifierIs(in.remoteMacTable);
    l2RibHosts.notifierIs(in.l2RibHostOutput);
    hwIds.notifierIs(in.objTupleToHwId);
    remoteMacInfo.notifierIs(in.remoteMacInfoDir);
    vniInfo.notifierIs(in.remoteMacInfoDir->vniInfo());
    remoteFlush.notifierIs(in.remoteMacInfoDir->remoteMacFlushReqTable());
    if (in.vtepStatusDir) vtepStatusDir.notifierIs(in.vtepStatusDir);
    if (in.vtepGroupStatusDir) vtepGroupStatusDir.notifierIs(in.vtepGroupStatusDir);
  }

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
    void onState() override { sm().handleMlagStatus(); }
    void onPeerLinkIntf() override { sm().handleMlagStatus(); }
    void onIntfStatus(Nepo::IntfId const& intf) override { sm().handleMlagIntfStatus(intf); }
  };

  class MlagHostTable : public SmReactor<Mlag::HostTable::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onHostEntry(Bridging::MacVlanPair const& key) override {
      sm().handleMlagHostTableEntry(key);
    }
  };

  class Dot1xHostTable : public SmReactor<Dot1x::HostTable::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onHost(Bridging::MacVlanPair const& key) override { sm().handleDot1xHostTableEntry(key); }
  };

  class Dot1xStatus : public SmReactor<Dot1x::Status::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onEnabled() override { sm().handleDot1xStatus(); }
    void onIntfStatus(Nepo::IntfId const& intf) override { sm().handleDot1xIntfStatus(intf); }
  };

  class Fsf : public SmReactor<FastServerFailover::Status::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onFailedServer(Bridging::MacVlanPair const& key) override {
      sm().handleFsfFailedServer(key);
    }
  };

  class VxlanConfigDir : public SmReactor<Vxlan::VxlanConfigDir::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onVxlanConfig(Nepo::IntfId const& vti) override { sm().handleVxlanConfig(vti); }
  };

  class VxlanConfig
      : public SmKeyReactor<Vxlan::VxlanConfig::NotifieeConst, MacAddrSm, Nepo::IntfId> {
   public:
    using SmKeyReactor::SmKeyReactor;
    void onRemoteMac(Bridging::MacVlanPair const& key) override {
      sm().handleConfiguredRemoteHost(key);
    }
  };

  class ReceivedHosts : public SmReactor<VXLAN::ReceivedHostTable::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onReceivedEntry(Bridging::MacVlanPair const& key) override {
      sm().queueRemoteChange(key, MacAddrSm::RemoteSource::received);
    }
  };

  class RemoteLearns : public SmReactor<VXLAN::HostTable::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onEntry(Bridging::MacVlanPair const& key) override {
      sm().queueRemoteChange(key, MacAddrSm::RemoteSource::dataPlane);
    }
  };

  class EvpnMacs : public SmReactor<Bridging::RemoteMacTable::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onRemoteMac(Bridging::MacVlanPair const& key) override {
      sm().queueRemoteChange(key, MacAddrSm::RemoteSource::evpn);
    }
  };

  class L2RibHosts : public SmReactor<L2Rib::HostOutput::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onHost(Bridging::MacVlanPair const& key) override {
      sm().queueRemoteChange(key, MacAddrSm::RemoteSource::rib);
    }
  };

  class HwIds : public SmReactor<ObjTupleToHwId::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onHwId(L2Rib::ObjTuple const& tuple) override { sm().handleObjTupleHwId(tuple); }
  };

  class RemoteMacInfo : public SmReactor<VXLAN::RemoteMacInfoDir::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onUseReceivedHostTable() override { sm().handleUseReceivedHostTable(); }
    void onVxlanBootStatus() override { sm().handleBootStatus(); }
  };

  class VniInfo : public SmReactor<VXLAN::VemoVniInfo::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onValidVlanVniMap(Bridging::VlanId vlan) override { sm().handleVlanVni(vlan); }
  };

  class RemoteFlush : public SmReactor<VXLAN::RemoteMacFlushReqTable::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onFlushReq(VXLAN::FlushReqKey const& req) override {
      sm().handleRemoteMacFlushRequest(req);
    }
  };

  class BootStatus : public SmReactor<VXLAN::VxlanBootStatus::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onVxlanHitlessRestartSupported() override { sm().handleStageRemoteMacsReady(); }
    void onStageRemoteMacsReady() override { sm().handleStageRemoteMacsReady(); }
  };

  class VtepStatusDir : public SmReactor<VXLAN::VtepStatusDir::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onVtepStatus(Nepo::IntfId const& vti) override { sm().handleVtepStatus(vti); }
  };

  class VtepGroupStatusDir : public SmReactor<VXLAN::VtepGroupStatusDir::NotifieeConst, MacAddrSm> {
   public:
    using SmReactor::SmReactor;
    void onVtepGroupStatus(Nepo::IntfId const& vti) override { sm().handleVtepStatus(vti); }
  };

  class VtepStatus
      : public SmKeyReactor<VXLAN::VtepStatus::NotifieeConst, MacAddrSm, Nepo::IntfId> {
   public:
    using SmKeyReactor::SmKeyReactor;
    void onHwVtepInfo(SwTunnelGroupId const& group) override {
      sm().handleTunnelGroupNextHop(group);
    }
  };

  class VtepGroupStatus
      : public SmKeyReactor<VXLAN::VtepGroupStatus::NotifieeConst, MacAddrSm, Nepo::IntfId> {
   public:
    using SmKeyReactor::SmKeyReactor;
    void onHwVtepGroupInfo(SwTunnelGroupId const& group) override {
      sm().handleTunnelGroupNextHop(group);
    }
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
  MlagHostTable mlagHosts;
  Dot1xHostTable dot1xHosts;
  Dot1xStatus dot1xStatus;
  Fsf fsf;
  VxlanConfigDir vxlanConfigDir;
  ReceivedHosts receivedHosts;
  RemoteLearns remoteLearns;
  EvpnMacs evpnMacs;
  L2RibHosts l2RibHosts;
  HwIds hwIds;
  RemoteMacInfo remoteMacInfo;
  VniInfo vniInfo;
  RemoteFlush remoteFlush;
  BootStatus bootStatus;
  VtepStatusDir vtepStatusDir;
  VtepGroupStatusDir vtepGroupStatusDir;
  absl::flat_hash_map<Bridging::VlanId, std::unique_ptr<FdbConfig>> fdbConfig;
  absl::flat_hash_map<Nepo::IntfId, std::unique_ptr<SwitchIntfConfig>> switchIntfConfig;
  absl::flat_hash_map<Bridging::VlanId, std::unique_ptr<VlanConfig>> vlanConfig;
  absl::flat_hash_map<Zol::String, std::unique_ptr<FlushRequestDir>> flushRequestDir;
  absl::flat_hash_map<Nepo::IntfId, std::unique_ptr<VxlanConfig>> vxlanConfig;
  absl::flat_hash_map<Nepo::IntfId, std::unique_ptr<VtepStatus>> vtepStatus;
  absl::flat_hash_map<Nepo::IntfId, std::unique_ptr<VtepGroupStatus>> vtepGroupStatus;
};

}  // namespace Vemo
