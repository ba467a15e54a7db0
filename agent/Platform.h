// The simulated platform under the agent: the chip, one sim helper per feature, the feature SMs
// they serve and the input entities that scenarios write. A scenario's "platform" object sizes
// it; without one the defaults below apply.
#pragma once

#include <rapidjson/document.h>

#include <map>
#include <memory>
#include <string>

#include "L2FrontEnd.h"
#include "Sim/AclHelper.h"
#include "Sim/Chip.h"
#include "Sim/LagHelper.h"
#include "Sim/MacAddrHelper.h"
#include "TunnelFrontEnd.h"
#include "Vemo/AclSm.h"
#include "Vemo/LagSm.h"
#include "Vemo/MacAddrSm.h"
#include "Vemo/SwTunnelGroupIdManager.h"
#include "VxlanFrontEnd.h"

namespace vemo::agent {

struct PlatformConfig {
  sim::Chip::Config chip;  // 1 unit of 32 ports
  std::map<sim::Table, size_t> capacity;
  // The chip decides which interfaces the agent programs (its own ports); when false, the common
  // data's interface list does.
  bool managedByChip = true;
  // The ACL helper answers installs and interface blocking later, as a platform with a separate
  // driver process does.
  bool aclAsync = false;
  // The chip's MAC table is written through indirect-access commands (the MAC programmer), each
  // run a millisecond after it is started.
  bool macAsync = false;
  // The chip reports the sources of packets that come out of a VXLAN tunnel, and the platform
  // turns them into data-plane learns of remote MACs.
  bool vxlanLearning = false;
  // The file the MAC SM keeps its state in across a restart of the agent (removed when the
  // platform goes); empty for none.
  std::string macStore;

  // {"units": 2, "portsPerUnit": 48, "capacity": {"lag": 64, "acl": 16, "rangeChecker": 4},
  // "managedByChip": true, "aclAsync": false, "macAsync": false}; throws ScenarioError naming the
  // member that is wrong.
  static PlatformConfig parse(rapidjson::Value const& platform);
};

// Two lifetimes: the chip and the inputs other agents publish last as long as the platform; the
// SMs, their helpers and the entities the library publishes belong to the agent process, and a
// restart builds them again.
class Platform {
 public:
  Platform(PlatformConfig const& config, Zol::Ptr<Vemo::VemoCommonSmData> const& commonData,
           Zol::ActivityLoop& loop);
  // The SMs undo what they programmed.
  ~Platform();

  // What a restart of the agent process with clean-up disabled does: every SM and helper goes
  // without undoing hardware where the SM can be told to (the port-channel SM; the ACL SM still
  // removes its instances as it goes), the library's own entities go with them, and all is built
  // again over the same inputs, the chip and the new process's common data.
  // A truncated store stands for one a crash cut short: the next SM must refuse it.
  void restartHitless(Zol::Ptr<Vemo::VemoCommonSmData> const& commonData,
                      bool truncateStore = false);

  sim::Chip& chip() { return chip_; }
  sim::Chip const& chip() const { return chip_; }
  // The entities scenarios address, by path.
  std::map<std::string, Zol::Ptr<Zol::Entity>> mounts() const;

  Zol::Ptr<Interface::EthLagIntfStatusDir> const& lagStatusDir() const { return lagStatusDir_; }
  Zol::Ptr<Lag::Input::IntfDeviceNameDir> const& lagDeviceNameDir() const {
    return lagDeviceNameDir_;
  }
  Zol::Ptr<Mlag::Status> const& mlagStatus() const { return mlagStatus_; }
  Zol::Ptr<Mlag::HostTable> const& mlagHostTable() const { return mlagHostTable_; }
  Zol::Ptr<Vxlan::VxlanConfigDir> const& vxlanConfig() const { return vxlanConfig_; }
  Zol::Ptr<Vemo::VXLAN::RemoteMacInfoDir> const& remoteMacInfo() const { return remoteMacInfo_; }
  Zol::Ptr<Vemo::VXLAN::VtepGroupConfigDir> const& vtepGroupConfig() const {
    return vtepGroupConfig_;
  }
  Zol::Ptr<Vemo::SwTunnelGroupIdData> const& tunnelGroups() const {
    return tunnelGroupManager_->data();
  }
  Zol::Ptr<Acl::Config> const& aclConfig() const { return aclConfig_; }
  Zol::Ptr<Acl::IntfConfig> const& aclIntfConfigCli() const { return aclIntfConfigCli_; }
  Zol::Ptr<Acl::IntfConfigDir> const& aclIntfConfigDir() const { return aclIntfConfigDir_; }
  Zol::Ptr<Acl::StatusDp> const& aclStatus() const { return aclStatus_; }
  Zol::Ptr<Errdisable::CauseStatus> const& aclCauseStatus() const { return aclCauseStatus_; }
  Zol::Ptr<Lag::Input::Config> const& lagInputConfig() const { return lagInputConfig_; }
  Zol::Ptr<Bridging::Status> const& bridgingStatus() const { return bridgingStatus_; }
  sim::MacAddrHelper const& macHelper() const { return *macHelper_; }
  // The MAC table's indirect-access interface, with "macAsync"; null otherwise.
  sim::MacIndirectAccess* macIndirectAccess() const {
    return macHelper_ ? macHelper_->indirectAccess() : nullptr;
  }

 private:
  // The process's part: built by start, taken down by stop.
  void start(Zol::Ptr<Vemo::VemoCommonSmData> const& commonData);
  void startMac(Zol::Ptr<Vemo::VemoCommonSmData> const& commonData);
  void stop(bool cleanup);

  PlatformConfig config_;
  Zol::ActivityLoop& loop_;
  // The timers of the drivers that keep many (the MAC programmer's).
  Tolm::TimerWheel wheel_;
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
  Zol::Ptr<Acl::Config> aclConfig_;
  Zol::Ptr<Acl::ParamConfig> aclParam_;
  Zol::Ptr<Acl::IntfConfigDir> aclIntfConfigDir_;
  Zol::Ptr<Acl::IntfConfig> aclIntfConfigCli_;
  Zol::Ptr<Acl::HwConfigDir> aclHwConfigDir_;
  Zol::Ptr<Acl::StatusDp> aclStatus_;
  Zol::Ptr<Errdisable::CauseStatus> aclCauseStatus_;
  Zol::Ptr<Lag::Input::Config> lagInputConfig_;
  Zol::Ptr<Bridging::Config> brConfig_;
  Zol::Ptr<Interface::SubIntfStatusDir> subIntfStatusDir_;
  Zol::Ptr<Interface::SubIntfConfigDir> subIntfConfigDir_;
  Zol::Ptr<sim::AclHelper> aclHelper_;
  Zol::Ptr<Vemo::AclSm> aclSm_;

  // The MAC table's inputs: every chip port is up until a scenario says otherwise.
  Zol::Ptr<Interface::AllEthPhyIntfConfigDir> ethPhyIntfConfig_;
  Zol::Ptr<Interface::AllEthPhyIntfStatusDir> ethPhyIntfStatus_;
  Zol::Ptr<Bridging::AllHostTableFlushRequestDir> flushRequests_;
  Zol::Ptr<Bridging::RouterMacTable> routerMacs_;
  Zol::Ptr<Bridging::NonAgingMacStatus> nonAgingMacs_;
  Zol::Ptr<Mlag::HostTable> mlagHostTable_;
  Zol::Ptr<FastServerFailover::Status> fsfStatus_;
  Zol::Ptr<Bridging::RemoteMacTable> remoteMacTable_;
  Zol::Ptr<Dot1x::HostTable> dot1xHostTable_;
  Zol::Ptr<Dot1x::Status> dot1xStatus_;
  Zol::Ptr<L2Rib::HostOutput> l2RibHostOutput_;
  Zol::Ptr<Vemo::ObjTupleToHwId> objTupleToHwId_;
  // A hitless restart's stages, as the VXLAN agent sets them; and the tunnels this platform
  // programmed for the VTEPs and VTEP groups of the tunnel interfaces, with their next hops.
  Zol::Ptr<Vemo::VXLAN::VxlanBootStatus> vxlanBootStatus_;
  Zol::Ptr<Vemo::VXLAN::VtepStatusDir> vtepStatus_;
  Zol::Ptr<Vemo::VXLAN::VtepGroupStatusDir> vtepGroupStatus_;
  std::unique_ptr<TunnelFrontEnd> tunnelFrontEnd_;
  std::unique_ptr<L2FrontEnd> l2FrontEnd_;
  // The MAC table's part of the process: the driver's table of what the chip learned, the SM's
  // table of what it programmed, the FDB status and the flush replies.
  Zol::Ptr<VemoTypes::MacTable> macDriverTable_;
  Zol::Ptr<VemoTypes::MacTable> macTable_;
  Zol::Ptr<Bridging::Status> bridgingStatus_;
  Zol::Ptr<Bridging::HostTableFlushReplyDir> flushReplies_;
  Zol::Ptr<L2Rib::HostInput> l2RibHostInput_;
  Zol::Ptr<sim::MacAddrHelper> macHelper_;
  Zol::Ptr<Vemo::MacAddrSm> macSm_;
};

}  // namespace vemo::agent
