#include "VxlanFrontEnd.h"

#include <set>
#include <vector>

namespace vemo::agent {

using Vemo::SwTunnelGroupId;

class VxlanFrontEnd::DirReactor : public Vxlan::VxlanConfigDir::NotifieeConst {
 public:
  explicit DirReactor(VxlanFrontEnd* fe) : fe_(fe) {}
  void onVxlanConfig(Nepo::IntfId const& vti) override { fe_->vtiChanged(vti); }

 private:
  VxlanFrontEnd* fe_;
};

class VxlanFrontEnd::VlanReactor : public Vxlan::VlanFloodList::NotifieeConst {
 public:
  VlanReactor(VxlanFrontEnd* fe, Nepo::IntfId const& vti) : fe_(fe), vti_(vti) {}
  void onVtep(Nepo::IpAddr const&) override { fe_->refresh(vti_); }

 private:
  VxlanFrontEnd* fe_;
  Nepo::IntfId vti_;
};

class VxlanFrontEnd::VtiReactor : public Vxlan::VxlanConfig::NotifieeConst {
 public:
  VtiReactor(VxlanFrontEnd* fe, Zol::Ptr<Vxlan::VxlanConfig const> const& config)
      : fe_(fe), vti_(config->intfId()) {
    notifierIs(config);
    for (auto const& [vlan, list] : config->vlanToVtepListAll()) watch(vlan);
  }
  void onFloodVtepList(Nepo::IpAddr const&) override { fe_->refresh(vti_); }
  void onVlanToVtepList(Bridging::VlanId vlan) override {
    watch(vlan);
    fe_->refresh(vti_);
  }

 private:
  void watch(Bridging::VlanId vlan) {
    Zol::Ptr<Vxlan::VlanFloodList const> const list = notifier()->vlanToVtepList(vlan);
    if (!list) {
      vlans_.erase(vlan.value());
      return;
    }
    auto& reactor = vlans_[vlan.value()];
    if (!reactor) reactor = std::make_unique<VlanReactor>(fe_, vti_);
    reactor->notifierIs(list);
  }

  VxlanFrontEnd* fe_;
  Nepo::IntfId vti_;
  absl::btree_map<uint32_t, std::unique_ptr<VlanReactor>> vlans_;
};

namespace {

template <typename Set>
Vemo::TunnelIpAddrList listOf(Set const& addrs) {
  Vemo::TunnelIpAddrList list;
  for (auto const& [addr, present] : addrs) list.tunnelIpAddrIs(addr, true);
  return list;
}

}  // namespace

VxlanFrontEnd::VxlanFrontEnd(Zol::Ptr<Vxlan::VxlanConfigDir const> const& config,
                             Zol::Ptr<Vemo::SwTunnelGroupIdManager> const& manager,
                             Zol::Ptr<Vemo::VXLAN::VtepConfigDir> const& vtepConfig,
                             Zol::Ptr<Vemo::VXLAN::VtepGroupConfigDir> const& vtepGroupConfig)
    : config_(config),
      manager_(manager),
      vtepConfig_(vtepConfig),
      vtepGroupConfig_(vtepGroupConfig),
      dirReactor_(std::make_unique<DirReactor>(this)) {
  dirReactor_->notifierIs(config_);
  for (auto const& [vti, c] : config_->vxlanConfigAll()) vtiChanged(vti);
}

VxlanFrontEnd::~VxlanFrontEnd() {
  dirReactor_.reset();
  vtis_.clear();
  for (auto const& [key, id] : held_) manager_->decSwTunnelGroupIdRefcount(id);
}

SwTunnelGroupId VxlanFrontEnd::group(Nepo::IntfId const& vti, uint32_t vlan) const {
  auto it = held_.find({vti, vlan});
  return it == held_.end() ? SwTunnelGroupId() : it->second;
}

void VxlanFrontEnd::vtiChanged(Nepo::IntfId const& vti) {
  Zol::Ptr<Vxlan::VxlanConfig const> const config = config_->vxlanConfig(vti);
  if (!config) {
    vtis_.erase(vti);
  } else if (auto it = vtis_.find(vti); it == vtis_.end() || it->second->notifier() != config) {
    vtis_[vti] = std::make_unique<VtiReactor>(this, config);
  }
  refresh(vti);
}

void VxlanFrontEnd::refresh(Nepo::IntfId const& vti) {
  absl::btree_map<uint32_t, Vemo::TunnelIpAddrList> lists;
  if (Zol::Ptr<Vxlan::VxlanConfig const> const config = config_->vxlanConfig(vti)) {
    lists[0] = listOf(config->floodVtepListAll());
    for (auto const& [vlan, list] : config->vlanToVtepListAll()) {
      lists[vlan.value()] = listOf(list->vtepAll());
    }
  }
  // Every list takes its new group's reference before giving back the old one's, so a group
  // that two lists swap keeps its count.
  for (auto const& [vlan, list] : lists) {
    SwTunnelGroupId const newId = manager_->getSwTunnelGroupIdForTunnelIpList(list);
    SwTunnelGroupId const oldId = group(vti, vlan);
    manager_->updateSwTunnelGroupIdRefcount(newId, oldId);
    if (newId.isEmpty()) {
      held_.erase({vti, vlan});
    } else {
      held_[{vti, vlan}] = newId;
    }
  }
  for (auto it = held_.lower_bound({vti, 0}); it != held_.end() && it->first.first == vti;) {
    if (lists.contains(it->first.second)) {
      ++it;
      continue;
    }
    manager_->decSwTunnelGroupIdRefcount(it->second);
    it = held_.erase(it);
  }
  publish(vti);
}

void VxlanFrontEnd::publish(Nepo::IntfId const& vti) {
  std::set<SwTunnelGroupId> groups;
  std::set<SwTunnelGroupId> vteps;
  for (auto it = held_.lower_bound({vti, 0}); it != held_.end() && it->first.first == vti; ++it) {
    groups.insert(it->second);
    Vemo::TunnelIpAddrList const list = manager_->getTunnelIpListFromSwTunnelGroupId(it->second);
    for (auto const& [addr, present] : list.tunnelIpAddrAll()) {
      // A remote VTEP is named by its own address; an IPv6 one has no such name and is
      // reached through its group only.
      if (addr.isV4()) vteps.insert(manager_->getSwTunnelGroupIdForTunnelIp(addr));
    }
  }
  if (groups.empty()) {
    vtepGroupConfig_->vtepGroupConfigDel(vti);
    vtepConfig_->vtepConfigDel(vti);
    return;
  }
  Zol::Ptr<Vemo::VXLAN::VtepGroupConfig> const groupConfig =
      vtepGroupConfig_->vtepGroupConfigIs(vti);
  std::vector<SwTunnelGroupId> stale;
  for (auto const& [id, present] : groupConfig->vtepGroupListAll()) {
    if (!groups.contains(id)) stale.push_back(id);
  }
  for (SwTunnelGroupId const& id : stale) groupConfig->vtepGroupListDel(id);
  for (SwTunnelGroupId const& id : groups) groupConfig->vtepGroupListIs(id, true);

  Zol::Ptr<Vemo::VXLAN::VtepConfig> const vtepConfig = vtepConfig_->vtepConfigIs(vti);
  stale.clear();
  for (auto const& [id, present] : vtepConfig->remoteVtepListAll()) {
    if (!vteps.contains(id)) stale.push_back(id);
  }
  for (SwTunnelGroupId const& id : stale) vtepConfig->remoteVtepListDel(id);
  for (SwTunnelGroupId const& id : vteps) vtepConfig->remoteVtepListIs(id, true);
}

}  // namespace vemo::agent
