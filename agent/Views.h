// Show-style views of status entities and of the simulated chip, each also as JSON.
#pragma once

#include <rapidjson/document.h>

#include <string>

#include "Sim/Chip.h"
#include "Vemo/VemoCommon.h"
#include "ZolGen/Lag.h"

namespace vemo::agent {

// Indented JSON text, ending in a newline.
std::string prettyJson(rapidjson::Value const& v);

// The port-channels as the common data has them: members with their collecting and
// distributing flags, and the kernel device name published for each.
std::string showPortChannel(Vemo::VemoCommonSmData const& commonData,
                            Lag::Input::IntfDeviceNameDir const& deviceNames, bool json);
// What the chip's port-channel table holds, LACP, the table's use and refused operations.
std::string showHardwarePortChannel(sim::Chip const& chip, bool json);

}  // namespace vemo::agent
