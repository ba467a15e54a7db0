// vemo-agent [SCENARIO.json] [--json] [--trace MODULE/LEVELS,...] [--paths]
#include <cstring>
#include <iostream>

#include "Agent.h"
#include "DefaultScenario.h"
#include "Zol/Trace.h"

namespace {

int usage(char const* msg) {
  std::cerr << "vemo-agent: " << msg << "\n"
            << "usage: vemo-agent [SCENARIO.json] [--json] [--trace MODULE/LEVELS,...] [--paths]\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  using vemo::agent::Agent;
  using vemo::agent::Scenario;
  using vemo::agent::ScenarioError;
  bool json = false, listPaths = false;
  char const* file = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--json")) {
      json = true;
    } else if (!std::strcmp(argv[i], "--paths")) {
      listPaths = true;
    } else if (!std::strcmp(argv[i], "--trace")) {
      if (++i >= argc) return usage("--trace needs MODULE/LEVELS");
      try {
        Zol::Trace::settingIs(argv[i]);
      } catch (std::exception const& e) {
        return usage(e.what());
      }
    } else if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) {
      usage("runs a scenario against the library on the simulated platform");
      return 0;
    } else if (argv[i][0] == '-' || file) {
      return usage((std::string("unexpected argument '") + argv[i] + "'").c_str());
    } else {
      file = argv[i];
    }
  }
  try {
    Scenario const sc =
        file ? Scenario::load(file) : Scenario::parse(vemo::agent::kDefaultScenario);
    Agent agent(json);
    if (listPaths) {
      for (auto const& p : agent.pathListing()) std::cout << p << "\n";
      return 0;
    }
    return agent.run(sc, std::cout, std::cerr);
  } catch (ScenarioError const& e) {
    std::cerr << "vemo-agent: " << e.what() << "\n";
    return 2;
  }
}
