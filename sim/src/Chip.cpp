// The chip: its tables by name, the packet path, and the JSON tree scenarios read.
#include "Sim/Chip.h"

#include <rapidjson/pointer.h>

#include <charconv>
#include <functional>
#include <ostream>

#include "Zol/Json.h"
#include "Zol/Types.h"
#include "ZolGen/VemoCommonJson.h"

namespace sim {

namespace {

rapidjson::Value text(std::string_view s, rapidjson::Document::AllocatorType& alloc) {
  return rapidjson::Value(s.data(), static_cast<rapidjson::SizeType>(s.size()), alloc);
}

// The form of treeJson: "*" stands for any key of a keyed object and an array's one element for
// every element. Kept beside toJson and the table dumps, which it must follow.
constexpr char const* kTreeShape = R"({
  "units": [{"unit": 0, "ports": 0}],
  "lacpEnabled": true,
  "lag": {"writes": 0, "operations": 0, "*": {"hwId": 0, "sharedPeerLink": "",
          "members": {"*": {"collecting": true, "distributing": true}}}},
  "acl": {"writes": 0, "operations": 0,
          "units": [{"unit": 0, "error": "",
                     "in": {"used": 0, "capacity": 0, "instances": {"*": {"entries": 0, "hits": 0}}},
                     "out": {"used": 0, "capacity": 0, "instances": {"*": {"entries": 0, "hits": 0}}},
                     "rangeCheckers": {"used": 0, "capacity": 0}}],
          "bindings": {"*": {"in": 0, "out": 0, "ipv6 in": 0, "ipv6 out": 0, "mac in": 0,
                             "mac out": 0}},
          "blocked": [""]},
  "mac": {"writes": 0, "operations": 0, "learns": 0, "aged": 0, "remote": 0, "remoteLearns": 0,
          "*": {"*": {"intf": "", "type": "", "static": true, "nextHop": 0}}},
  "vxlan": {"writes": 0, "operations": 0,
            "tunnels": {"*": {"intf": "", "vteps": [""], "tunnelId": 0}},
            "vnis": {"*": 0}},
  "rangeChecker": {"writes": 0, "operations": 0},
  "capacity": {"lag": 0, "mac": 0, "vxlan": 0},
  "errors": [""],
  "writes": 0,
  "operations": 0
})";

rapidjson::Document const& treeShape() {
  static rapidjson::Document const shape = [] {
    rapidjson::Document d;
    d.Parse(kTreeShape);
    return d;
  }();
  return shape;
}

bool isIndex(std::string const& name, size_t* value = nullptr) {
  size_t i = 0;
  auto const [end, ec] = std::from_chars(name.data(), name.data() + name.size(), i);
  if (ec != std::errc() || end != name.data() + name.size()) return false;
  if (value) *value = i;
  return true;
}

void addCounters(rapidjson::Value& obj, Chip::Counters c,
                 rapidjson::Document::AllocatorType& alloc) {
  obj.AddMember("writes", c.writes, alloc);
  obj.AddMember("operations", c.operations, alloc);
}

}  // namespace

Chip::Chip() : Chip(Config{}) {}

Chip::Chip(Config const& config)
    : ports_(config.units, config.portsPerUnit),
      lags_(ports_, errors_),
      acls_(ports_, errors_),
      vxlan_(errors_),
      macs_(ports_, lags_, vxlan_, errors_),
      path_{&acls_, &macs_} {}

ChipTable& Chip::table(Table t) {
  return const_cast<ChipTable&>(static_cast<Chip const&>(*this).table(t));
}

ChipTable const& Chip::table(Table t) const {
  switch (t) {
    case Table::lag:
      return lags_;
    case Table::acl:
      return acls_.tcamTable();
    case Table::rangeChecker:
      return acls_.checkerTable();
    case Table::mac:
      return macs_;
    case Table::vxlan:
      return vxlan_;
  }
  throw Zol::RangeException("no table " + std::to_string(static_cast<int>(t)));
}

size_t Chip::size(Table t) const {
  switch (t) {
    case Table::lag:
      return lags_.size();
    case Table::acl:
      return acls_.entryCount();
    case Table::rangeChecker:
      return acls_.checkerCount();
    case Table::mac:
      return macs_.size();
    case Table::vxlan:
      return vxlan_.size();
  }
  return 0;
}

Chip::Counters Chip::counters() const {
  Counters total;
  for (size_t i = 0; i < kTableCount; ++i) {
    Counters const c = table(static_cast<Table>(i)).counters();
    total.writes += c.writes;
    total.operations += c.operations;
  }
  return total;
}

ClassifyResult Chip::classify(Packet const& p) {
  ClassifyResult result;
  for (PacketStage* stage : path_) {
    if (stage->process(p, result)) break;
  }
  return result;
}

rapidjson::Value Chip::toJson(rapidjson::Document::AllocatorType& alloc) const {
  rapidjson::Value root(rapidjson::kObjectType);
  rapidjson::Value units(rapidjson::kArrayType);
  for (uint32_t u = 0; u < ports_.units(); ++u) {
    rapidjson::Value unit(rapidjson::kObjectType);
    unit.AddMember("unit", u, alloc);
    unit.AddMember("ports", ports_.portsPerUnit(), alloc);
    units.PushBack(unit, alloc);
  }
  root.AddMember("units", units, alloc);
  root.AddMember("lacpEnabled", lags_.lacpEnabled(), alloc);
  root.AddMember("lag", lags_.toJson(alloc), alloc);
  root.AddMember("acl", acls_.toJson(alloc), alloc);
  root.AddMember("mac", macs_.toJson(alloc), alloc);
  root.AddMember("vxlan", vxlan_.toJson(alloc), alloc);
  rapidjson::Value capacities(rapidjson::kObjectType);
  for (size_t i = 0; i < kTableCount; ++i) {
    // The ACL tables' capacities apply per unit and are shown there.
    if (static_cast<Table>(i) == Table::acl || static_cast<Table>(i) == Table::rangeChecker) {
      continue;
    }
    rapidjson::Value capacity(static_cast<uint64_t>(table(static_cast<Table>(i)).capacity()));
    capacities.AddMember(text(tableName(static_cast<Table>(i)), alloc), capacity, alloc);
  }
  root.AddMember("capacity", capacities, alloc);
  rapidjson::Value errors(rapidjson::kArrayType);
  for (std::string const& e : errors_.lines()) errors.PushBack(text(e, alloc), alloc);
  root.AddMember("errors", errors, alloc);
  return root;
}

rapidjson::Value Chip::treeJson(rapidjson::Document::AllocatorType& alloc) const {
  rapidjson::Value root = toJson(alloc);
  addCounters(root["lag"], counters(Table::lag), alloc);
  addCounters(root["acl"], counters(Table::acl), alloc);
  addCounters(root["mac"], counters(Table::mac), alloc);
  root["mac"].AddMember("learns", macs_.learns(), alloc);
  root["mac"].AddMember("aged", macs_.aged(), alloc);
  root["mac"].AddMember("remote", static_cast<uint64_t>(macs_.remoteSize()), alloc);
  root["mac"].AddMember("remoteLearns", macs_.remoteLearns(), alloc);
  addCounters(root["vxlan"], counters(Table::vxlan), alloc);
  rapidjson::Value checkers(rapidjson::kObjectType);
  addCounters(checkers, counters(Table::rangeChecker), alloc);
  root.AddMember("rangeChecker", checkers, alloc);
  addCounters(root, counters(), alloc);
  return root;
}

std::optional<rapidjson::Value> Chip::lookup(std::vector<std::string> const& path,
                                             rapidjson::Document::AllocatorType& alloc) const {
  // The tree is built in a scratch document so that only the answer lands in the caller's pool.
  rapidjson::Document scratch;
  rapidjson::Value const tree = treeJson(scratch.GetAllocator());
  rapidjson::Pointer pointer;
  for (std::string const& name : path) {
    // A number indexes an array and names an object's member alike; "01" is only a name.
    size_t i = 0;
    bool const index =
        isIndex(name, &i) && i < rapidjson::kPointerInvalidIndex && std::to_string(i) == name;
    pointer = index ? pointer.Append(static_cast<rapidjson::SizeType>(i))
                    : pointer.Append(name.c_str(), static_cast<rapidjson::SizeType>(name.size()));
  }
  rapidjson::Value const* node = pointer.Get(tree);
  if (!node) return std::nullopt;
  return rapidjson::Value(*node, alloc);
}

bool Chip::validPath(std::vector<std::string> const& path, std::string* problem) const {
  rapidjson::Value const* shape = &treeShape();
  std::string at = "hw";
  for (std::string const& name : path) {
    std::string const here = at;
    at += "/" + name;
    if (shape->IsArray()) {
      size_t i = 0;
      if (!isIndex(name, &i)) {
        if (problem) *problem = "'" + name + "' in '" + at + "' must be an index";
        return false;
      }
      if (here == "hw/units" || here == "hw/acl/units") {
        if (i >= ports_.units()) {
          if (problem) {
            *problem = "the chip has no unit " + name + " (units 0 to " +
                       std::to_string(ports_.units() - 1) + ")";
          }
          return false;
        }
      }
      shape = &(*shape)[0];
    } else if (shape->IsObject() && shape->HasMember(name.c_str())) {
      shape = &(*shape)[name.c_str()];
    } else if (shape->IsObject() && shape->HasMember("*")) {
      shape = &(*shape)["*"];
    } else {
      if (problem) {
        std::string known;
        if (shape->IsObject()) {
          for (auto const& m : shape->GetObject()) {
            std::string const n = m.name.GetString();
            known += (known.empty() ? "" : ", ") + (n == "*" ? "<key>" : n);
          }
        }
        *problem =
            "'" + name + "' in '" + at + "' is not in the chip's tables" +
            (known.empty() ? "; '" + here + "' is a value" : " (" + here + " has " + known + ")");
      }
      return false;
    }
  }
  return true;
}

std::vector<std::string> Chip::pathTemplates() {
  std::vector<std::string> out;
  std::function<void(rapidjson::Value const&, std::string const&)> walk =
      [&](rapidjson::Value const& shape, std::string const& path) {
        std::string const prefix = path.empty() ? "" : path + "/";
        if (shape.IsArray()) {
          walk(shape[0], prefix + "<n>");
        } else if (shape.IsObject()) {
          for (auto const& m : shape.GetObject()) {
            std::string const name = m.name.GetString();
            walk(m.value, prefix + (name == "*" ? "<key>" : name));
          }
        } else {
          out.push_back(path);
        }
      };
  walk(treeShape(), "");
  return out;
}

ChipIntfToBitmapPosition::ChipIntfToBitmapPosition(Zol::Name const& name, Chip const& chip)
    : VemoTypes::IntfToBitmapPosition(name), chip_(chip) {
  for (uint32_t u = 0; u < chip.units(); ++u) unitIdToBmpIndexIs(u);
}

VemoTypes::BitmapPosition ChipIntfToBitmapPosition::intfToBitmapPosition(
    Nepo::IntfId const& intf) const {
  std::optional<PortLocation> const where = chip_.location(intf);
  Zol::Ptr<VemoTypes::AssignedBitmapIndex> const unit =
      where ? unitIdToBmpIndex(where->unit) : nullptr;
  if (!unit) return VemoTypes::BitmapPosition(VemoTypes::BitmapIndex(0), 0, true);
  return VemoTypes::BitmapPosition(unit->bmpIndex(), where->bit, false);
}

}  // namespace sim
