// Scenario files: a JSON object with an optional "description", an optional "platform" object and
// "steps", applied in order. Parsing checks the shape of every step; the agent then checks every
// path, attribute, key and value against the entity types before any step runs.
#pragma once

#include <rapidjson/document.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Sim/ChipAcl.h"

namespace vemo::agent {

// A malformed scenario or bad usage; the text names the step, the path and what is wrong.
class ScenarioError : public std::runtime_error {
 public:
  explicit ScenarioError(std::string const& what) : std::runtime_error(what) {}
};

struct Step {
  enum class Kind { set, del, advance, show, expect, fault, packet, comment, expectLog, restart };
  Kind kind = Kind::show;
  size_t number = 0;  // 1-based, as people count steps
  std::string path;
  std::string attr;
  rapidjson::Value const* key = nullptr;
  // set, del: how many consecutive MAC addresses, from the key's, the step writes.
  uint32_t repeat = 1;
  rapidjson::Value const* value = nullptr;  // set, expect (null JSON means absent)
  // expect: only these fields of the value are compared; or only whether it is there. Without
  // attr, present is about the entity at path.
  rapidjson::Value const* fields = nullptr;
  std::optional<bool> present;
  double seconds = 0;
  std::string view;
  // fault: the chip table, and either what its next `count` operations answer or its capacity.
  std::string table;
  std::string answer;
  uint32_t count = 0;
  std::optional<uint64_t> capacity;
  // comment: the note; expectLog: the message's key (count is how many); restart: "hitless".
  std::string text;
  // restart: the MAC state store is cut to half its length first.
  bool truncateStore = false;
  // packet: what is sent, and what must become of it (permit, deny, blocked, errdisabled; empty
  // when anything goes). path holds the packet's interface, for the label.
  sim::Packet packet;
  std::string verdict;
  // packet: the ports it must leave by, when given ("egress": ["Ethernet3"]; [] for none).
  std::optional<std::vector<Nepo::IntfId>> egress;

  // "step 3 (expect vemo/common intf)": how messages name the step.
  std::string label() const;
};

// One line of a packet: "Ethernet1 in tcp 10.0.0.1:1024 > 10.0.0.2:80 [syn]".
std::string packetText(sim::Packet const& p);

class Scenario {
 public:
  // Throws ScenarioError for text that is not JSON or steps of the wrong shape.
  static Scenario parse(std::string_view text);
  static Scenario load(std::string const& file);

  std::string const& description() const { return description_; }
  rapidjson::Value const* platform() const { return platform_; }
  std::vector<Step> const& steps() const { return steps_; }

 private:
  std::shared_ptr<rapidjson::Document> doc_;
  std::string description_;
  rapidjson::Value const* platform_ = nullptr;
  std::vector<Step> steps_;
};

}  // namespace vemo::agent
