// The agent's stand-in for the VXLAN agent: it turns the configured flood lists of every VXLAN
// tunnel interface into VTEP groups through the tunnel-group manager, holds one reference on a
// group for every list that names it, and publishes each interface's groups and remote VTEPs
// in the VXLAN state model, where the library's readers find them.
#pragma once

#include <absl/container/btree_map.h>

#include <memory>
#include <utility>

#include "Vemo/SwTunnelGroupIdManager.h"
#include "ZolGen/Vxlan.h"

namespace vemo::agent {

class VxlanFrontEnd {
 public:
  VxlanFrontEnd(Zol::Ptr<Vxlan::VxlanConfigDir const> const& config,
                Zol::Ptr<Vemo::SwTunnelGroupIdManager> const& manager,
                Zol::Ptr<Vemo::VXLAN::VtepConfigDir> const& vtepConfig,
                Zol::Ptr<Vemo::VXLAN::VtepGroupConfigDir> const& vtepGroupConfig);
  // Gives back every reference it holds.
  ~VxlanFrontEnd();
  VxlanFrontEnd(VxlanFrontEnd const&) = delete;
  VxlanFrontEnd& operator=(VxlanFrontEnd const&) = delete;

  // The group a tunnel interface's list names: VLAN 0 is the default flood list.
  Vemo::SwTunnelGroupId group(Nepo::IntfId const& vti, uint32_t vlan) const;

 private:
  class DirReactor;
  class VtiReactor;
  class VlanReactor;

  void vtiChanged(Nepo::IntfId const& vti);
  // Recomputes one interface's groups from its configuration as it stands.
  void refresh(Nepo::IntfId const& vti);
  void publish(Nepo::IntfId const& vti);

  Zol::Ptr<Vxlan::VxlanConfigDir const> config_;
  Zol::Ptr<Vemo::SwTunnelGroupIdManager> manager_;
  Zol::Ptr<Vemo::VXLAN::VtepConfigDir> vtepConfig_;
  Zol::Ptr<Vemo::VXLAN::VtepGroupConfigDir> vtepGroupConfig_;
  absl::btree_map<std::pair<Nepo::IntfId, uint32_t>, Vemo::SwTunnelGroupId> held_;
  absl::btree_map<Nepo::IntfId, std::unique_ptr<VtiReactor>> vtis_;
  std::unique_ptr<DirReactor> dirReactor_;
};

}  // namespace vemo::agent
