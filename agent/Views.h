// Show-style views of status entities and of the simulated chip, each also as JSON.
#pragma once

#include <rapidjson/document.h>

#include <string>

#include "Sim/Chip.h"
#include "Vemo/VemoCommon.h"
#include "ZolGen/Lag.h"
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
// VTEP groups with their identifiers, reference counts and addresses; the configured flood
// lists and the group each names; the remote MACs of the host table and the VTEPs behind them.
std::string showVxlan(Vemo::SwTunnelGroupIdData const& groups, Vxlan::VxlanConfigDir const& config,
                      Vemo::VXLAN::RemoteMacInfoDir const& remoteMacs, bool json);

}  // namespace vemo::agent
