// The agent's stand-in for the platform's port and VLAN drivers: it gives the simulated chip each
// port's VLANs from the switching configuration (an access port's VLAN, a trunk's allowed VLANs
// and native VLAN) and each port's link from the interface status, as the chip's port driver
// would. It goes when the VLAN SMs program VLAN membership themselves.
#pragma once

#include <absl/container/btree_map.h>

#include <memory>

#include "Sim/Chip.h"
#include "ZolGen/Bridging.h"
#include "ZolGen/Interface.h"

namespace vemo::agent {

class L2FrontEnd {
 public:
  L2FrontEnd(sim::Chip& chip, Zol::Ptr<Bridging::Config const> const& config,
             Zol::Ptr<Interface::AllEthPhyIntfStatusDir const> const& intfStatus);
  ~L2FrontEnd();
  L2FrontEnd(L2FrontEnd const&) = delete;
  L2FrontEnd& operator=(L2FrontEnd const&) = delete;

 private:
  class ConfigReactor;
  class IntfConfigReactor;
  class StatusDirReactor;
  class IntfStatusReactor;

  void vlansChanged(Nepo::IntfId const& intf);
  void linkChanged(Nepo::IntfId const& intf);

  sim::Chip& chip_;
  Zol::Ptr<Bridging::Config const> config_;
  Zol::Ptr<Interface::AllEthPhyIntfStatusDir const> intfStatus_;
  std::unique_ptr<ConfigReactor> configReactor_;
  std::unique_ptr<StatusDirReactor> statusReactor_;
  absl::btree_map<Nepo::IntfId, std::unique_ptr<IntfConfigReactor>> intfConfig_;
  absl::btree_map<Nepo::IntfId, std::unique_ptr<IntfStatusReactor>> intfStatusReactors_;
};

}  // namespace vemo::agent
