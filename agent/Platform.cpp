#include "Platform.h"

#include <cstdio>
#include <filesystem>

#include "Scenario.h"
#include "Sim/Dot1xHelper.h"
#include "Zol/Json.h"
#include "ZolGen/AgentScenarioJson.h"

namespace vemo::agent {

// The platform schema repeats the chip's limits and defaults.
static_assert(sim::Chip::maxUnits == 32 && sim::Chip::maxPortsPerUnit == 288 &&
              sim::Chip::Config{}.units == 1 && sim::Chip::Config{}.portsPerUnit == 32);

namespace {

// Mounts the MLAG status the agent publishes, when the port-channel SM asks for it.
class AgentLagMounter : public Vemo::LagMounter {
 public:
  AgentLagMounter(Zol::Name const& name, Zol::Ptr<Mlag::Status> const& status)
      : LagMounter(name), status_(status) {}
  void doMount(Zol::Name const& path) override {
    if (path == "Mlag::Status") mlagStatusIs(status_);
  }

 private:
  Zol::Ptr<Mlag::Status> status_;
};

}  // namespace

PlatformConfig PlatformConfig::parse(rapidjson::Value const& platform) {
  AgentScenario::Platform desc;
  try {
    desc = Zol::fromJson<AgentScenario::Platform>(platform);
  } catch (std::exception const& e) {
    throw ScenarioError(std::string("platform: ") + e.what());
  }
  PlatformConfig c;
  c.chip.units = desc.units();
  c.chip.portsPerUnit = desc.portsPerUnit();
  c.managedByChip = desc.managedByChip();
  c.aclAsync = desc.aclAsync();
  c.macAsync = desc.macAsync();
  c.vxlanLearning = desc.vxlanLearning();
  c.macStore = desc.macStore();
  for (auto const& [table, capacity] : desc.capacityAll()) {
    auto const which = sim::tableFromName(table);
    if (!which) throw ScenarioError("platform: no chip table '" + table + "'");
    c.capacity[*which] = capacity;
  }
  return c;
}

Platform::Platform(PlatformConfig const& config, Zol::Ptr<Vemo::VemoCommonSmData> const& commonData,
                   Zol::ActivityLoop& loop)
    : config_(config),
      loop_(loop),
      wheel_(loop),
      chip_(config.chip),
      lagStatusDir_(Zol::make<Interface::EthLagIntfStatusDir>("ethLagIntfStatusDir")),
      mlagStatus_(Zol::make<Mlag::Status>("mlagStatus")),
      vxlanConfig_(Zol::make<Vxlan::VxlanConfigDir>("vxlanConfigDir")),
      remoteMacInfo_(Zol::make<Vemo::VXLAN::RemoteMacInfoDir>("remoteMacInfoDir")),
      vtepConfig_(Zol::make<Vemo::VXLAN::VtepConfigDir>("vtepConfigDir")),
      vtepGroupConfig_(Zol::make<Vemo::VXLAN::VtepGroupConfigDir>("vtepGroupConfigDir")),
      aclConfig_(Zol::make<Acl::Config>("aclConfig")),
      aclParam_(Zol::make<Acl::ParamConfig>("aclParamConfig")),
      aclIntfConfigDir_(Zol::make<Acl::IntfConfigDir>("aclIntfConfigDir")),
      aclIntfConfigCli_(Zol::make<Acl::IntfConfig>("aclIntfConfigCli")),
      aclHwConfigDir_(Zol::make<Acl::HwConfigDir>("aclHwConfigDir")),
      lagInputConfig_(Zol::make<Lag::Input::Config>("lagInputConfig")),
      brConfig_(Zol::make<Bridging::Config>("bridgingConfig")),
      subIntfStatusDir_(Zol::make<Interface::SubIntfStatusDir>("subIntfStatusDir")),
      subIntfConfigDir_(Zol::make<Interface::SubIntfConfigDir>("subIntfConfigDir")),
      ethPhyIntfConfig_(Zol::make<Interface::AllEthPhyIntfConfigDir>("ethPhyIntfConfigDir")),
      ethPhyIntfStatus_(Zol::make<Interface::AllEthPhyIntfStatusDir>("ethPhyIntfStatusDir")),
      flushRequests_(Zol::make<Bridging::AllHostTableFlushRequestDir>("hostTableFlushRequests")),
      routerMacs_(Zol::make<Bridging::RouterMacTable>("routerMacTable")),
      nonAgingMacs_(Zol::make<Bridging::NonAgingMacStatus>("nonAgingMacStatus")),
      mlagHostTable_(Zol::make<Mlag::HostTable>("mlagHostTable")),
      fsfStatus_(Zol::make<FastServerFailover::Status>("fsfStatus")),
      remoteMacTable_(Zol::make<Bridging::RemoteMacTable>("remoteMacTable")),
      dot1xHostTable_(Zol::make<Dot1x::HostTable>("dot1xHostTable")),
      dot1xStatus_(Zol::make<Dot1x::Status>("dot1xStatus")),
      l2RibHostOutput_(Zol::make<L2Rib::HostOutput>("l2RibHostOutput")),
      objTupleToHwId_(Zol::make<Vemo::ObjTupleToHwId>("objTupleToHwId")),
      vxlanBootStatus_(Zol::make<Vemo::VXLAN::VxlanBootStatus>("vxlanBootStatus")),
      vtepStatus_(Zol::make<Vemo::VXLAN::VtepStatusDir>("vtepStatusDir")),
      vtepGroupStatus_(Zol::make<Vemo::VXLAN::VtepGroupStatusDir>("vtepGroupStatusDir")) {
  remoteMacInfo_->vxlanBootStatusIs(vxlanBootStatus_);
  for (auto const& [table, capacity] : config.capacity) chip_.capacityIs(table, capacity);
  for (Nepo::IntfId const& port : chip_.ports()) {
    ethPhyIntfConfig_->intfConfigIs(port);
    ethPhyIntfStatus_->intfStatusIs(port)->linkStatusIs(Interface::LinkStatus::linkUp);
  }
  l2FrontEnd_ = std::make_unique<L2FrontEnd>(chip_, brConfig_, ethPhyIntfStatus_);
  if (config.vxlanLearning) chip_.macs().remoteLearningIs(true);
  tunnelFrontEnd_ = std::make_unique<TunnelFrontEnd>(chip_, loop_, vtepConfig_, vtepGroupConfig_,
                                                     remoteMacInfo_, vtepStatus_, vtepGroupStatus_);
  start(commonData);
}

void Platform::start(Zol::Ptr<Vemo::VemoCommonSmData> const& commonData) {
  lagDeviceNameDir_ = Zol::make<Lag::Input::IntfDeviceNameDir>("intfDeviceNameDir");
  aclStatus_ = Zol::make<Acl::StatusDp>("aclStatus");
  aclCauseStatus_ = Zol::make<Errdisable::CauseStatus>("aclCauseStatus", "acl");
  lagHelper_ = Zol::make<sim::LagHelper>("lagHelper", chip_, commonData);
  lagHelper_->managedCheckOverrideIs(config_.managedByChip);
  lagSm_ = Vemo::lagSmFactory(commonData, lagStatusDir_, lagDeviceNameDir_, lagHelper_);
  lagHelper_->lagSmIs(lagSm_.ptr());
  lagSm_->lagMounterIs(Zol::make<AgentLagMounter>("lagMounter", mlagStatus_));
  lagSm_->initializedIs(true);
  tunnelGroupManager_ = Vemo::swTunnelGroupIdManagerFactory(commonData);
  vxlanFrontEnd_ = std::make_unique<VxlanFrontEnd>(vxlanConfig_, tunnelGroupManager_, vtepConfig_,
                                                   vtepGroupConfig_);
  tunnelFrontEnd_->groupsIs(
      [this](Vemo::SwTunnelGroupId g) {
        return tunnelGroupManager_->getTunnelIpListFromSwTunnelGroupId(g);
      },
      [this](Nepo::IpAddr const& vtep) {
        return tunnelGroupManager_->getSwTunnelGroupIdForTunnelIp(vtep);
      });

  aclHelper_ = Zol::make<sim::AclHelper>("aclHelper", chip_, loop_);
  // What the simulated chip can do, set here rather than taken from the helper's defaults so
  // that scenarios keep meaning the same. Every list type, ECN, IP length and counters are in
  // hardware. Established sessions are not matched by the chip itself: the SM writes
  // "established" as one entry for ACK and one for RST, and packets exercise both. IPv6 lists
  // let neighbour discovery through ahead of their final deny, or an IPv6 list on a port would
  // cut the port off its neighbours.
  aclHelper_->aclCountersSupportedIs(true);
  aclHelper_->macAclSupportedIs(true);
  aclHelper_->ip6AclSupportedIs(true);
  aclHelper_->aclEcnSupportedIs(true);
  aclHelper_->aclIpLenMatchSupportedIs(true);
  aclHelper_->establishedSupportedIs(false);
  aclHelper_->installImplicitIcmp6RulesIs(true);
  aclHelper_->asyncAclConfigIs(config_.aclAsync);
  aclSm_ = Vemo::aclSmFactory({.commonData = commonData,
                               .mainConfig = aclConfig_,
                               .aclParamConfig = aclParam_,
                               .intfConfigDir = aclIntfConfigDir_,
                               .intfConfigCli = aclIntfConfigCli_,
                               .hwConfigDir = aclHwConfigDir_,
                               .status = aclStatus_,
                               .aclCauseStatus = aclCauseStatus_,
                               .lagInputConfig = lagInputConfig_,
                               .aclHelper = aclHelper_,
                               .clock = &loop_,
                               .brConfig = brConfig_,
                               .subIntfStatusDir = subIntfStatusDir_,
                               .subIntfConfigDir = subIntfConfigDir_});
  aclSm_->initializedIs(true);
  startMac(commonData);
}

void Platform::startMac(Zol::Ptr<Vemo::VemoCommonSmData> const& commonData) {
  macDriverTable_ = Zol::make<VemoTypes::MacTable>("macDriverTable");
  macTable_ = Zol::make<VemoTypes::MacTable>("macTable");
  bridgingStatus_ = Zol::make<Bridging::Status>("bridgingStatus");
  flushReplies_ = Zol::make<Bridging::HostTableFlushReplyDir>("hostTableFlushReplies");
  l2RibHostInput_ = Zol::make<L2Rib::HostInput>("l2RibHostInput");
  macHelper_ = Zol::make<sim::MacAddrHelper>("macHelper", chip_, commonData, macDriverTable_);
  macHelper_->programmedTableIs(macTable_);
  macHelper_->persistentStorePathIs(config_.macStore);
  if (config_.macAsync) macHelper_->indirectAccessIs(wheel_);
  macSm_ = Vemo::macAddrSmFactory(
      commonData, Zol::make<Vemo::VemoCommonMulticastData>("commonMulticastData"), macTable_,
      macDriverTable_, bridgingStatus_, flushRequests_, flushReplies_, brConfig_, ethPhyIntfConfig_,
      ethPhyIntfStatus_, Zol::make<Vemo::VlanHelper>("vlanHelper"), mlagHostTable_, mlagStatus_,
      macHelper_, fsfStatus_, vxlanConfig_, remoteMacInfo_, remoteMacTable_, dot1xHostTable_,
      dot1xStatus_, Zol::make<sim::Dot1xHelper>("dot1xHelper", chip_), l2RibHostInput_,
      l2RibHostOutput_, tunnelGroupManager_, objTupleToHwId_, routerMacs_, nonAgingMacs_, {},
      vtepStatus_, vtepGroupStatus_);
  macSm_->initializedIs(true);
}

// The SMs go before the helpers that program for them. Without clean-up the port-channel SM
// leaves hardware alone for the next run to take over. The ACL SM could too, but a new ACL SM
// cannot take over instances it did not install (it numbers them afresh), so it takes its
// instances out as it goes and the next run installs them again.
void Platform::stop(bool cleanup) {
  if (!cleanup) lagSm_->disableCleanupOnRestartIs(true);
  // The MAC SM leaves the chip as it is either way: what it programmed stays until the next run
  // decides again.
  macSm_ = nullptr;
  macHelper_ = nullptr;
  macDriverTable_ = nullptr;
  macTable_ = nullptr;
  bridgingStatus_ = nullptr;
  flushReplies_ = nullptr;
  l2RibHostInput_ = nullptr;
  aclSm_ = nullptr;
  aclHelper_ = nullptr;
  vxlanFrontEnd_.reset();
  tunnelFrontEnd_->groupsIs({}, {});
  tunnelGroupManager_ = nullptr;
  lagHelper_->lagSmIs(nullptr);
  lagSm_ = nullptr;
  lagHelper_ = nullptr;
  lagDeviceNameDir_ = nullptr;
  aclStatus_ = nullptr;
  aclCauseStatus_ = nullptr;
}

Platform::~Platform() {
  stop(true);
  tunnelFrontEnd_.reset();
  if (!config_.macStore.empty()) std::remove(config_.macStore.c_str());
}

void Platform::restartHitless(Zol::Ptr<Vemo::VemoCommonSmData> const& commonData,
                              bool truncateStore) {
  stop(false);
  if (truncateStore && !config_.macStore.empty()) {
    std::filesystem::resize_file(config_.macStore,
                                 std::filesystem::file_size(config_.macStore) / 2);
  }
  // As the VXLAN agent does at a hitless restart: what the chip holds for remote MACs is
  // recovered, and the restart runs until a scenario says its remote MACs are ready.
  vxlanBootStatus_->recoveredRmacToVtepDelAll();
  for (auto const& [key, entry] : chip_.macs().entries()) {
    if (!entry.nextHop) continue;
    if (auto const hw = tunnelFrontEnd_->hwVtepOfNextHop(*entry.nextHop)) {
      vxlanBootStatus_->recoveredRmacToVtepIs(key.pair(), *hw);
    }
  }
  if (vxlanBootStatus_->recoveredRmacToVtepSize() > 0) {
    vxlanBootStatus_->vxlanHitlessRestartSupportedIs(true);
    vxlanBootStatus_->stageRemoteMacsReadyIs(false);
  }
  start(commonData);
}

std::map<std::string, Zol::Ptr<Zol::Entity>> Platform::mounts() const {
  return {{"interface/status/eth/lag", lagStatusDir_},
          {"lag/input/deviceName", lagDeviceNameDir_},
          {"mlag/status", mlagStatus_},
          {"vxlan/config", vxlanConfig_},
          {"vxlan/remoteMacInfo", remoteMacInfo_},
          {"vxlan/vtepConfig", vtepConfig_},
          {"vxlan/vtepGroupConfig", vtepGroupConfig_},
          {"vemo/tunnelGroups", tunnelGroupManager_->data()},
          {"acl/config", aclConfig_},
          {"acl/param", aclParam_},
          {"acl/intfConfigDir", aclIntfConfigDir_},
          {"acl/intfConfig", aclIntfConfigCli_},
          {"acl/hwConfig", aclHwConfigDir_},
          {"acl/status", aclStatus_},
          {"errdisable/acl", aclCauseStatus_},
          {"lag/inputConfig", lagInputConfig_},
          {"bridging/config", brConfig_},
          {"interface/subIntfStatus", subIntfStatusDir_},
          {"interface/subIntfConfig", subIntfConfigDir_},
          {"interface/config/eth/phy", ethPhyIntfConfig_},
          {"interface/status/eth/phy", ethPhyIntfStatus_},
          {"bridging/status", bridgingStatus_},
          {"bridging/flushRequest", flushRequests_},
          {"bridging/flushReply", flushReplies_},
          {"bridging/routerMac", routerMacs_},
          {"bridging/nonAging", nonAgingMacs_},
          {"mac/driver", macDriverTable_},
          {"mac/table", macTable_},
          {"mlag/hostTable", mlagHostTable_},
          {"fsf/status", fsfStatus_},
          {"dot1x/hostTable", dot1xHostTable_},
          {"dot1x/status", dot1xStatus_},
          {"bridging/remoteMac", remoteMacTable_},
          {"l2rib/hostOutput", l2RibHostOutput_},
          {"l2rib/hostInput", l2RibHostInput_},
          {"l2rib/objTupleToHwId", objTupleToHwId_},
          {"vxlan/bootStatus", vxlanBootStatus_},
          {"vxlan/vtepStatus", vtepStatus_},
          {"vxlan/vtepGroupStatus", vtepGroupStatus_}};
}

}  // namespace vemo::agent
