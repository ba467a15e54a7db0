// The simulated platform under the agent: the chip, one sim helper per feature, the feature SMs
// they serve and the input entities that scenarios write. A scenario's "platform" object sizes
// it; without one the defaults below apply.
#pragma once

#include <rapidjson/document.h>

#include <map>
#include <memory>
#include <string>

#include "Sim/Chip.h"
#include "Sim/LagHelper.h"
#include "Vemo/LagSm.h"
#include "Vemo/SwTunnelGroupIdManager.h"
#include "VxlanFrontEnd.h"

namespace vemo::agent {

struct PlatformConfig {
  sim::Chip::Config chip;  // 1 unit of 32 ports
  std::map<sim::Table, size_t> capacity;
  // The chip decides which interfaces the agent programs (its own ports); when false, the common
  // data's interface list does.
  bool managedByChip = true;

  // {"units": 2, "portsPerUnit": 48, "capacity": {"lag": 64}, "managedByChip": true}; throws
  // ScenarioError naming the member that is wrong.
  static PlatformConfig parse(rapidjson::Value const& platform);
};

class Platform {
 public:
  Platform(PlatformConfig const& config, Zol::Ptr<Vemo::VemoCommonSmData> const& commonData);
  ~Platform();

  sim::Chip& chip() { return chip_; }
  sim::Chip const& chip() const { return chip_; }
  // The entities scenarios address, by path.
  std::map<std::string, Zol::Ptr<Zol::Entity>> mounts() const;

  Zol::Ptr<Interface::EthLagIntfStatusDir> const& lagStatusDir() const { return lagStatusDir_; }
  Zol::Ptr<Lag::Input::IntfDeviceNameDir> const& lagDeviceNameDir() const {
    return lagDeviceNameDir_;
  }
  Zol::Ptr<Mlag::Status> const& mlagStatus() const { return mlagStatus_; }
  Zol::Ptr<Vxlan::VxlanConfigDir> const& vxlanConfig() const { return vxlanConfig_; }
  Zol::Ptr<Vemo::VXLAN::RemoteMacInfoDir> const& remoteMacInfo() const { return remoteMacInfo_; }
  Zol::Ptr<Vemo::VXLAN::VtepGroupConfigDir> const& vtepGroupConfig() const {
    return vtepGroupConfig_;
  }
  Zol::Ptr<Vemo::SwTunnelGroupIdData> const& tunnelGroups() const {
    return tunnelGroupManager_->data();
  }

 private:
  sim::Chip chip_;
  Zol::Ptr<Interface::EthLagIntfStatusDir> lagStatusDir_;
  Zol::Ptr<Lag::Input::IntfDeviceNameDir> lagDeviceNameDir_;
  Zol::Ptr<Mlag::Status> mlagStatus_;
  Zol::Ptr<sim::LagHelper> lagHelper_;
  Zol::Ptr<Vemo::LagSm> lagSm_;
  Zol::Ptr<Vxlan::VxlanConfigDir> vxlanConfig_;
  Zol::Ptr<Vemo::VXLAN::RemoteMacInfoDir> remoteMacInfo_;
  Zol::Ptr<Vemo::VXLAN::VtepConfigDir> vtepConfig_;
  Zol::Ptr<Vemo::VXLAN::VtepGroupConfigDir> vtepGroupConfig_;
  Zol::Ptr<Vemo::SwTunnelGroupIdManager> tunnelGroupManager_;
  std::unique_ptr<VxlanFrontEnd> vxlanFrontEnd_;
};

}  // namespace vemo::agent
