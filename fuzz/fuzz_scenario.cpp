// Feeds arbitrary text to the agent's scenario loader: it must either accept the text or reject
// it with ScenarioError, never crash, leak or throw anything else.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Scenario.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string_view const text(reinterpret_cast<char const*>(data), size);
  try {
    auto const scenario = vemo::agent::Scenario::parse(text);
    // Labels print the step's key back as JSON: reach that for every accepted step too.
    size_t total = 0;
    for (auto const& step : scenario.steps()) total += step.label().size();
    if (total == 0 && !scenario.steps().empty()) __builtin_trap();
  } catch (vemo::agent::ScenarioError const&) {
  }
  return 0;
}
