// The agent's stand-in for the platform's tunnel programming and the VXLAN agent's data-plane
// learning. It programs one chip tunnel, with a next hop of its own, for every VTEP and VTEP
// group the tunnel interfaces name (the VXLAN state model's VtepConfig and VtepGroupConfig, which
// VxlanFrontEnd fills from the flood lists), and publishes each in VtepStatus or VtepGroupStatus,
// where the MAC SM finds the next hop of a remote MAC. A tunnel that is no longer named stays
// while remote MACs still refer to its next hop, and goes with the last one. It maps the valid
// VLAN-VNI pairs in the chip, and turns the chip's remote learns into data-plane learns in the
// VXLAN host table.
//
// It lives as long as the chip: tunnels and their next hops survive a restart of the agent
// process, as a chip's do.
#pragma once

#include <absl/container/btree_map.h>

#include <functional>
#include <memory>

#include "Sim/Chip.h"
#include "ZolGen/VemoVxlan.h"

namespace vemo::agent {

class TunnelFrontEnd {
 public:
  // The VTEP addresses of a group, as the tunnel-group manager of the running process has them.
  using VtepsOf = std::function<Vemo::TunnelIpAddrList(Vemo::SwTunnelGroupId)>;
  // The group of one VTEP address.
  using GroupOf = std::function<Vemo::SwTunnelGroupId(Nepo::IpAddr const&)>;

  TunnelFrontEnd(sim::Chip& chip, Zol::ActivityLoop& loop,
                 Zol::Ptr<Vemo::VXLAN::VtepConfigDir const> const& vtepConfig,
                 Zol::Ptr<Vemo::VXLAN::VtepGroupConfigDir const> const& vtepGroupConfig,
                 Zol::Ptr<Vemo::VXLAN::RemoteMacInfoDir> const& remoteMacInfo,
                 Zol::Ptr<Vemo::VXLAN::VtepStatusDir> const& vtepStatus,
                 Zol::Ptr<Vemo::VXLAN::VtepGroupStatusDir> const& vtepGroupStatus);
  ~TunnelFrontEnd();
  TunnelFrontEnd(TunnelFrontEnd const&) = delete;
  TunnelFrontEnd& operator=(TunnelFrontEnd const&) = delete;

  // The running process's view of groups; until set, groups are not programmed.
  void groupsIs(VtepsOf vtepsOf, GroupOf groupOf);
  // What the chip holds for a remote MAC's next hop, as the platform recovers it after a restart.
  std::optional<Vemo::VXLAN::HwVtepInfo> hwVtepOfNextHop(uint32_t nextHop) const;

 private:
  class Reactors;
  struct Tunnel {
    Nepo::IntfId vti;
    Vemo::SwTunnelGroupId group;
    uint32_t nextHop = 0;
    uint32_t tunnelId = 0;
  };

  // Brings the chip and the published status in line with the configuration, once per pass.
  void changed();
  void sync();
  void publish(Tunnel const& t, bool present);
  void remoteLearn(sim::MacKey const& key, Nepo::IpAddr const& vtep, uint32_t vni);

  sim::Chip& chip_;
  Zol::ActivityLoop& loop_;
  Zol::Ptr<Vemo::VXLAN::VtepConfigDir const> vtepConfig_;
  Zol::Ptr<Vemo::VXLAN::VtepGroupConfigDir const> vtepGroupConfig_;
  Zol::Ptr<Vemo::VXLAN::RemoteMacInfoDir> remoteMacInfo_;
  Zol::Ptr<Vemo::VXLAN::VtepStatusDir> vtepStatus_;
  Zol::Ptr<Vemo::VXLAN::VtepGroupStatusDir> vtepGroupStatus_;
  VtepsOf vtepsOf_;
  GroupOf groupOf_;
  absl::btree_map<std::pair<Nepo::IntfId, Vemo::SwTunnelGroupId>, Tunnel> tunnels_;
  uint32_t nextNextHop_ = 1;
  uint32_t nextTunnelId_ = 1;
  Zol::Clock syncClock_;
  std::unique_ptr<Reactors> reactors_;
};

}  // namespace vemo::agent
