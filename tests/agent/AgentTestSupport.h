// Runs a scenario through a fresh agent as the command line does and keeps what it said.
#pragma once

#include <sstream>
#include <string>

#include "Agent.h"

namespace vemo::agent {

struct Result {
  int status;
  std::string out;
  std::string err;
};

// A malformed scenario answers 2 with its message, as vemo-agent exits.
inline Result runText(std::string const& text, bool json = false) {
  Agent agent(json);
  std::ostringstream out, err;
  try {
    int const status = agent.run(Scenario::parse(text), out, err);
    return {status, out.str(), err.str()};
  } catch (ScenarioError const& e) {
    return {2, out.str(), e.what()};
  }
}

}  // namespace vemo::agent
