#pragma once

namespace vemo::agent {

// The scenario run when none is given (examples/port-channel.json, embedded at build time).
extern char const* const kDefaultScenario;

}  // namespace vemo::agent
