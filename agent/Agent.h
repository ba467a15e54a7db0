// vemo-agent: the forwarding agent process on the simulated platform. It owns the activity loop
// (in simulated time), the common data and the entity tree that scenarios address by path, and
// prints show-style or JSON views of status entities.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "Platform.h"
#include "Scenario.h"
#include "Vemo/VemoCommon.h"
#include "Zol/Activity.h"
#include "Zol/Binding.h"
#include "Zol/Syslog.h"

namespace vemo::agent {

class Agent {
 public:
  explicit Agent(bool json = false);
  ~Agent();

  // Checks every step against the entity types; throws ScenarioError naming the step, the path
  // and what is wrong. Nothing runs.
  void validate(Scenario const& sc) const;
  // Validates, then applies the steps in order, running the loop until idle after each.
  // Returns the exit status: 0 every expectation held, 1 one failed, 2 malformed.
  int run(Scenario const& sc, std::ostream& out, std::ostream& err);

  // Every entity path of the tree, in order.
  std::vector<std::string> paths() const;
  // What --paths prints: each entity path followed by its attributes ("vemo/common
  // intf[Nepo::IntfId]: bool"), then what hw/ paths read ("hw/lag/<key> hwId").
  std::vector<std::string> pathListing() const;
  // Every view, a view that takes filters as "NAME FILTER...".
  std::vector<std::string> viewNames() const;
  // Throws ScenarioError for an unknown view or a filter it does not take.
  std::string view(std::string const& name) const;

  // Rebuilds the simulated platform and everything on it; only before any step has run.
  void platformIs(PlatformConfig const& config);
  Platform& platform() { return *platform_; }

  Zol::ActivityLoop& loop() { return loop_; }
  Zol::Ptr<Vemo::VemoCommonSmData> const& commonData() const { return commonData_; }

 private:
  struct Target {
    Zol::Entity* entity = nullptr;
    Zol::EntityType const* type = nullptr;
  };
  // Walks a path through mounts and child entities; at type level when `live` is false. Live, a
  // missing entity throws unless missingOk, when the target's entity is null.
  Target resolve(std::string const& path, bool live, std::string const& where,
                 bool missingOk = false) const;
  void validateExpect(Step const& s, Target const& t) const;
  void validateWrite(Step const& s, Target const& t) const;
  // The step's fields read as the attribute's value type reads them; throws ScenarioError for
  // fields the type does not have.
  static rapidjson::Value expectedFields(Zol::AttrDesc const& a, Step const& s,
                                         rapidjson::Document::AllocatorType& alloc);
  void validateHardware(Step const& s) const;
  // An expect step on an entity; an entity that does not exist reads as absent.
  bool expectEntity(Step const& s, std::ostream& err) const;
  // Whether the key was raised count times since its last expectLog (or the start).
  bool expectLog(Step const& s, std::ostream& err);
  // Prints the syslog messages raised since the last call, as the switch logs them.
  void printLog(std::ostream& out);
  void restartHitless(bool truncateStore);
  void validateStep(Step const& s) const;
  // Returns false when an expectation failed.
  bool applyStep(Step const& s, std::ostream& out, std::ostream& err);
  void applyFault(Step const& s);
  // Sends the step's packet through the chip; false when its fate is not the expected one.
  bool applyPacket(Step const& s, std::ostream& out, std::ostream& err);
  // An expect step on the chip ("hw/lag/Port-Channel1", attr "members").
  bool expectHardware(Step const& s, std::ostream& err) const;
  void mount(std::string const& path, Zol::Entity* e);

  bool json_;
  // Before the platform, whose SMs log while they go.
  Zol::Syslog::Capture log_;
  size_t logPrinted_ = 0;
  // Per key, where the last expectLog of it stopped counting.
  std::map<std::string, size_t> logCounted_;
  Zol::ActivityLoop loop_{Zol::ActivityLoop::TimeMode::simulated};
  Zol::Ptr<Vemo::VemoCommonSmData> commonData_;
  std::map<std::string, Zol::Ptr<Zol::Entity>> mounts_;
  std::unique_ptr<Platform> platform_;
  using View = std::function<std::string(bool json)>;
  // The view a step names: an exact name, or a view that takes filters followed by them
  // ("mac address-table vlan 10"), its filters bound.
  View boundView(std::string const& name) const;

  std::map<std::string, View> views_;
  // Views that take filters: each reads the words after its name and binds them.
  std::map<std::string, std::function<View(std::vector<std::string> const& words)>> filteredViews_;
};

// Renders a JSON object as indented "name: value" lines, collections one entry a line.
std::string jsonAsText(rapidjson::Value const& v, int indent = 0);

// A syslog message as the switch logs it: "%ACL-3-ACL_HW_RESOURCE_FULL: Hardware ...", the
// facility being the key up to its first underscore and the number the severity.
std::string syslogLine(Zol::SyslogRecord const& r);

}  // namespace vemo::agent
