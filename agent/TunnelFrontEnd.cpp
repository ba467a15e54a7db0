#include "TunnelFrontEnd.h"

#include <map>
#include <set>
#include <vector>

namespace vemo::agent {

using Vemo::SwTunnelGroupId;
namespace VXLAN = Vemo::VXLAN;

// Every input that changes what the chip must hold asks for one pass of sync.
class TunnelFrontEnd::Reactors {
 public:
  template <class Base>
  class Changed : public Base {
   public:
    explicit Changed(TunnelFrontEnd* fe) : fe_(fe) {}

   protected:
    void changed() { fe_->changed(); }

   private:
    TunnelFrontEnd* fe_;
  };
  struct VtepDir : Changed<VXLAN::VtepConfigDir::NotifieeConst> {
    using Changed::Changed;
    void onVtepConfig(Nepo::IntfId const&) override { changed(); }
  };
  struct Vteps : Changed<VXLAN::VtepConfig::NotifieeConst> {
    using Changed::Changed;
    void onRemoteVtepList(SwTunnelGroupId const&) override { changed(); }
  };
  struct GroupDir : Changed<VXLAN::VtepGroupConfigDir::NotifieeConst> {
    using Changed::Changed;
    void onVtepGroupConfig(Nepo::IntfId const&) override { changed(); }
  };
  struct Groups : Changed<VXLAN::VtepGroupConfig::NotifieeConst> {
    using Changed::Changed;
    void onVtepGroupList(SwTunnelGroupId const&) override { changed(); }
  };
  struct Vnis : Changed<VXLAN::VemoVniInfo::NotifieeConst> {
    using Changed::Changed;
    void onValidVlanVniMap(Bridging::VlanId) override { changed(); }
  };
  struct Refs : Changed<VXLAN::RefcountTable::NotifieeConst> {
    using Changed::Changed;
    void onRefcount(Zol::U64) override { changed(); }
  };

  explicit Reactors(TunnelFrontEnd* fe) : vtepDir(fe), groupDir(fe), vnis(fe), refs(fe), fe_(fe) {}

  // One reactor per tunnel interface's list, following the directories.
  void track() {
    trackDir(vtepDir.notifier()->vtepConfigAll(), vteps);
    trackDir(groupDir.notifier()->vtepGroupConfigAll(), groups);
  }

  VtepDir vtepDir;
  GroupDir groupDir;
  Vnis vnis;
  Refs refs;
  std::map<Nepo::IntfId, std::unique_ptr<Vteps>> vteps;
  std::map<Nepo::IntfId, std::unique_ptr<Groups>> groups;

 private:
  template <class All, class Reactor>
  void trackDir(All const& all, std::map<Nepo::IntfId, std::unique_ptr<Reactor>>& reactors) {
    std::erase_if(reactors, [&](auto const& r) { return !all.contains(r.first); });
    for (auto const& [vti, child] : all) {
      auto& r = reactors[vti];
      if (r && r->notifier() == child) continue;
      r = std::make_unique<Reactor>(fe_);
      r->notifierIs(child);
    }
  }
  TunnelFrontEnd* fe_;
};

TunnelFrontEnd::TunnelFrontEnd(sim::Chip& chip, Zol::ActivityLoop& loop,
                               Zol::Ptr<VXLAN::VtepConfigDir const> const& vtepConfig,
                               Zol::Ptr<VXLAN::VtepGroupConfigDir const> const& vtepGroupConfig,
                               Zol::Ptr<VXLAN::RemoteMacInfoDir> const& remoteMacInfo,
                               Zol::Ptr<VXLAN::VtepStatusDir> const& vtepStatus,
                               Zol::Ptr<VXLAN::VtepGroupStatusDir> const& vtepGroupStatus)
    : chip_(chip),
      loop_(loop),
      vtepConfig_(vtepConfig),
      vtepGroupConfig_(vtepGroupConfig),
      remoteMacInfo_(remoteMacInfo),
      vtepStatus_(vtepStatus),
      vtepGroupStatus_(vtepGroupStatus),
      syncClock_(loop, [this] { sync(); }),
      reactors_(std::make_unique<Reactors>(this)) {
  reactors_->vtepDir.notifierIs(vtepConfig_);
  reactors_->groupDir.notifierIs(vtepGroupConfig_);
  reactors_->vnis.notifierIs(remoteMacInfo_->vniInfo());
  reactors_->refs.notifierIs(remoteMacInfo_->nextHopIdRefcountTable());
  chip_.macs().remoteLearnListenerIs([this](sim::MacKey const& key, Nepo::IpAddr const& vtep,
                                            uint32_t vni) { remoteLearn(key, vtep, vni); });
  changed();
}

TunnelFrontEnd::~TunnelFrontEnd() { chip_.macs().remoteLearnListenerIs({}); }

void TunnelFrontEnd::groupsIs(VtepsOf vtepsOf, GroupOf groupOf) {
  vtepsOf_ = std::move(vtepsOf);
  groupOf_ = std::move(groupOf);
  changed();
}

void TunnelFrontEnd::changed() {
  if (!syncClock_.armed()) syncClock_.timeMinIs(0);
}

std::optional<VXLAN::HwVtepInfo> TunnelFrontEnd::hwVtepOfNextHop(uint32_t nextHop) const {
  for (auto const& [key, t] : tunnels_) {
    if (t.nextHop == nextHop) {
      return VXLAN::HwVtepInfo(t.group, Vemo::VemoTunnelId(t.tunnelId),
                               Vemo::VemoNextHopId(t.nextHop));
    }
  }
  return std::nullopt;
}

void TunnelFrontEnd::sync() {
  reactors_->track();
  // VLAN-VNI pairs first: a packet into a new tunnel needs its VNI.
  std::map<uint16_t, uint32_t> vnis;
  for (auto const& [vlan, entry] : remoteMacInfo_->vniInfo()->validVlanVniMapAll()) {
    vnis[vlan.value()] = entry.vni().value();
  }
  for (uint16_t vlan = 1; vlan < 4095; ++vlan) {
    auto const want = vnis.find(vlan);
    std::optional<uint32_t> const have = chip_.vxlan().vni(vlan);
    if (want == vnis.end()) {
      if (have) chip_.vxlan().vniDel(vlan);
    } else if (have != want->second) {
      chip_.vxlan().vniIs(vlan, want->second);
    }
  }
  if (!vtepsOf_) return;
  std::set<std::pair<Nepo::IntfId, SwTunnelGroupId>> wanted;
  for (auto const& [vti, config] : vtepConfig_->vtepConfigAll()) {
    for (auto const& [group, on] : config->remoteVtepListAll()) wanted.emplace(vti, group);
  }
  for (auto const& [vti, config] : vtepGroupConfig_->vtepGroupConfigAll()) {
    for (auto const& [group, on] : config->vtepGroupListAll()) wanted.emplace(vti, group);
  }
  for (auto const& key : wanted) {
    if (tunnels_.contains(key)) continue;
    Vemo::TunnelIpAddrList const list = vtepsOf_(key.second);
    std::vector<Nepo::IpAddr> vteps;
    for (auto const& [addr, on] : list.tunnelIpAddrAll()) vteps.push_back(addr);
    Tunnel const t{key.first, key.second, nextNextHop_, nextTunnelId_};
    if (chip_.vxlan().tunnelIs(t.nextHop, sim::VxlanTunnel{t.vti, vteps, t.tunnelId}) !=
        sim::Status::ok) {
      continue;
    }
    ++nextNextHop_;
    ++nextTunnelId_;
    tunnels_.emplace(key, t);
    publish(t, true);
  }
  auto const refs = remoteMacInfo_->nextHopIdRefcountTable();
  for (auto it = tunnels_.begin(); it != tunnels_.end();) {
    // A tunnel nobody names goes once no remote MAC points at it.
    if (wanted.contains(it->first) || refs->refcountHas(it->second.nextHop)) {
      ++it;
      continue;
    }
    chip_.vxlan().tunnelDel(it->second.nextHop);
    publish(it->second, false);
    it = tunnels_.erase(it);
  }
}

void TunnelFrontEnd::publish(Tunnel const& t, bool present) {
  VXLAN::HwVtepInfo const info(t.group, Vemo::VemoTunnelId(t.tunnelId),
                               Vemo::VemoNextHopId(t.nextHop));
  if (t.group.isSingleMemberGroup()) {
    auto status = vtepStatus_->vtepStatus(t.vti);
    if (!status) status = vtepStatus_->vtepStatusIs(t.vti);
    if (present) {
      status->hwVtepInfoIs(t.group, info);
    } else {
      status->hwVtepInfoDel(t.group);
    }
    return;
  }
  auto status = vtepGroupStatus_->vtepGroupStatus(t.vti);
  if (!status) status = vtepGroupStatus_->vtepGroupStatusIs(t.vti);
  if (present) {
    status->hwVtepGroupInfoIs(t.group,
                              VXLAN::HwVtepGroupInfo(t.group, info.tunnelId(), info.nextHopId()));
  } else {
    status->hwVtepGroupInfoDel(t.group);
  }
}

void TunnelFrontEnd::remoteLearn(sim::MacKey const& key, Nepo::IpAddr const& vtep, uint32_t vni) {
  if (!groupOf_) return;
  Bridging::MacVlanPair const pair = key.pair();
  auto const& byVni = remoteMacInfo_->vniInfo()->validVniVlanMapAll();
  auto const mapped = byVni.find(Vxlan::VniExtOrNone(vni));
  Nepo::IntfId const vti =
      mapped != byVni.end() ? mapped->second.vtiIntfId() : Nepo::IntfId(Nepo::IntfKind::Vxlan, {1});
  SwTunnelGroupId const group = groupOf_(vtep);
  auto const table = remoteMacInfo_->hostTable();
  uint32_t moves = 0;
  if (table->entryHas(pair)) {
    VXLAN::HostEntry const& was = table->entry(pair);
    moves = was.moves() + (was.swTunnelGroupId() != group ? 1 : 0);
  }
  table->entryIs(
      pair, VXLAN::HostEntry(pair, vti, group, Bridging::EntryType::learnedRemoteMac, loop_.now(),
                             moves, VXLAN::HostEntryHwState(), VXLAN::HostEntryOper::add));
}

}  // namespace vemo::agent
