// Show-style views of status entities and of the simulated chip, each also as JSON.
#pragma once

#include <rapidjson/document.h>

#include <optional>
#include <string>
#include <vector>

#include "Sim/Chip.h"
#include "Sim/MacAddrHelper.h"
#include "Sim/MacIndirectAccess.h"
#include "Vemo/VemoCommon.h"
#include "ZolGen/Acl.h"
#include "ZolGen/Bridging.h"
#include "ZolGen/Errdisable.h"
#include "ZolGen/Lag.h"
#include "ZolGen/Mlag.h"
#include "ZolGen/VemoL3.h"
#include "ZolGen/VemoVxlan.h"
#include "ZolGen/Vxlan.h"

namespace vemo::agent {

// Indented JSON text, ending in a newline.
std::string prettyJson(rapidjson::Value const& v);

// The port-channels as the common data has them: members with their collecting and
// distributing flags, and the kernel device name published for each.
std::string showPortChannel(Vemo::VemoCommonSmData const& commonData,
                            Lag::Input::IntfDeviceNameDir const& deviceNames, bool json);
// What the chip's port-channel table holds, LACP, the table's use and refused operations.
std::string showHardwarePortChannel(sim::Chip const& chip, bool json);
// The VTEPs of a group as the tunnel-group manager publishes it; "10.0.0.2 10.0.0.3", or "-".
Vemo::TunnelIpAddrList vtepsOf(Vemo::SwTunnelGroupIdData const& groups, Vemo::SwTunnelGroupId id);
std::string vtepText(Vemo::TunnelIpAddrList const& list);
// The remote MACs the MAC SM programmed: VLAN, address, kind, tunnel interface, VTEPs, next hop
// and tunnel, by VLAN and address.
std::string showVxlanAddressTable(Vemo::VXLAN::HostStatusTable const& remote,
                                  Vemo::SwTunnelGroupIdData const& groups, bool json);
// VTEP groups with their identifiers, reference counts and addresses; the configured flood
// lists and the group each names; the remote MACs of the host table and the VTEPs behind them.
std::string showVxlan(Vemo::SwTunnelGroupIdData const& groups, Vxlan::VxlanConfigDir const& config,
                      Vemo::VXLAN::RemoteMacInfoDir const& remoteMacs, bool json);

// One rule as an engineer writes it, without its sequence number: "permit tcp any any eq 80",
// "deny any host 02:00:00:00:00:01 0x0806".
std::string ipRuleText(Acl::AclType type, Acl::IpRuleConfig const& rule);
std::string macRuleText(Acl::MacRuleConfig const& rule);
// Every ACL of the type: its rules by sequence number with the packets each matched, the
// interfaces it is applied to and the status of each of its hardware instances.
std::string showAccessLists(Acl::AclType type, Acl::Config const& config,
                            Acl::IntfConfig const& intfConfigCli,
                            Acl::IntfConfigDir const& intfConfigDir, Acl::StatusDp const& status,
                            bool json);
// The chip's ACL tables: per unit and direction the TCAM's use and its instances, range
// checkers, bindings, blocked interfaces, unit errors and refused operations; and the status of
// every instance.
std::string showHardwareAcl(sim::Chip const& chip, Acl::StatusDp const& status, bool json);
// What "show mac address-table vlan 10 interface Ethernet1 address 00:00:00:00:00:01" selects;
// each filter is optional.
struct MacTableFilter {
  std::optional<uint16_t> vlan;
  std::optional<Nepo::IntfId> intf;
  std::optional<Nepo::EthAddr> mac;
  // The words after the view's name; throws ScenarioError naming what is wrong.
  static MacTableFilter parse(std::vector<std::string> const& words);
};
// The FDB status as engineers read it: VLAN, address, type (the entry's source), port (a remote
// entry's tunnel interface and the VTEPs behind it), moves and the time since the last move (now
// is the agent's clock), by VLAN and address.
std::string showMacAddressTable(Bridging::Status const& status,
                                Vemo::VXLAN::HostStatusTable const& remote,
                                Vemo::SwTunnelGroupIdData const& groups,
                                MacTableFilter const& filter, double now, bool json);
// Dynamic and static entries per VLAN and in all.
std::string showMacAddressTableCount(Bridging::Status const& status, bool json);
// The MLAG state and peer link, the hosts the peer reports by kind, and how many of them the FDB
// status holds from the peer.
std::string showMlag(Mlag::Status const& mlag, Mlag::HostTable const& peerHosts,
                     Bridging::Status const& status, bool json);
// The chip's MAC table: its use, its hash buckets, what the chip learned and aged on its own,
// the driver's operations and the ones it refused.
// With an indirect-access interface, its queues too.
std::string showHardwareMac(sim::Chip const& chip, sim::MacIndirectAccess const* io, bool json);

// What the MAC driver (the platform's helper) was asked since this agent process started: every
// operation with its count, those never called left out.
std::string showHardwareMacCalls(sim::MacAddrHelper const& helper, bool json);

// The interfaces each cause keeps error-disabled, with the time they went down.
std::string showErrdisable(std::vector<Errdisable::CauseStatus const*> const& causes, bool json);

}  // namespace vemo::agent
