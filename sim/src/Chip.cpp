// The chip's ports, the admission every table operation goes through, and the JSON dump.
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

constexpr std::array<std::string_view, kTableCount> kTableNames = {"lag", "acl", "rangeChecker"};
constexpr std::array<std::string_view, 4> kStatusTexts = {"ok", "busy", "full", "failed"};

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
  "rangeChecker": {"writes": 0, "operations": 0},
  "capacity": {"lag": 0},
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

std::string_view tableName(Table t) { return kTableNames[static_cast<size_t>(t)]; }

std::optional<Table> tableFromName(std::string_view name) {
  for (size_t i = 0; i < kTableNames.size(); ++i) {
    if (kTableNames[i] == name) return static_cast<Table>(i);
  }
  return std::nullopt;
}

std::string_view statusText(Status s) { return kStatusTexts[static_cast<size_t>(s)]; }

std::optional<Status> statusFromText(std::string_view text) {
  for (size_t i = 0; i < kStatusTexts.size(); ++i) {
    if (kStatusTexts[i] == text) return static_cast<Status>(i);
  }
  return std::nullopt;
}

std::ostream& operator<<(std::ostream& os, Status s) { return os << statusText(s); }

Chip::Chip() : Chip(Config{}) {}

Chip::Chip(Config const& config) : config_(config) {
  if (config.units < 1 || config.units > maxUnits) {
    throw Zol::RangeException("chip units " + std::to_string(config.units) + " not in 1.." +
                              std::to_string(maxUnits));
  }
  if (config.portsPerUnit < 1 || config.portsPerUnit > maxPortsPerUnit) {
    throw Zol::RangeException("chip ports per unit " + std::to_string(config.portsPerUnit) +
                              " not in 1.." + std::to_string(maxPortsPerUnit));
  }
  tables_[index(Table::rangeChecker)].capacity = defaultRangeCheckers;
  aclUnits_.resize(config.units);
}

std::optional<PortLocation> Chip::location(Nepo::IntfId const& intf) const {
  if (!intf.isEthernet() || intf.numberCount() != 1) return std::nullopt;
  uint32_t const n = intf.number(0);
  if (n < 1 || n > config_.units * config_.portsPerUnit) return std::nullopt;
  return PortLocation{(n - 1) / config_.portsPerUnit, (n - 1) % config_.portsPerUnit};
}

std::vector<Nepo::IntfId> Chip::ports() const {
  std::vector<Nepo::IntfId> out;
  uint32_t const n = config_.units * config_.portsPerUnit;
  out.reserve(n);
  for (uint32_t i = 1; i <= n; ++i) out.push_back(Nepo::IntfId(Nepo::IntfKind::Ethernet, {i}));
  return out;
}

void Chip::faultIs(Table t, Status kind, uint32_t count) {
  TableState& s = tables_[index(t)];
  s.faultKind = kind;
  s.faultCount = kind == Status::ok ? 0 : count;
}

size_t Chip::size(Table t) const {
  switch (t) {
    case Table::lag:
      return lags_.size();
    case Table::acl: {
      size_t n = 0;
      for (AclUnit const& u : aclUnits_) n += u.tcam[0].size() + u.tcam[1].size();
      return n;
    }
    case Table::rangeChecker: {
      size_t n = 0;
      for (AclUnit const& u : aclUnits_) n += u.rangeCheckers.size();
      return n;
    }
  }
  return 0;
}

Chip::Counters Chip::counters() const {
  Counters total;
  for (TableState const& s : tables_) {
    total.writes += s.counters.writes;
    total.operations += s.counters.operations;
  }
  return total;
}

void Chip::lacpEnabledIs(bool enabled) {
  operated(Table::lag);
  wrote(Table::lag, lacpEnabled_ != enabled);
  lacpEnabled_ = enabled;
}

Status Chip::admit(Table t, bool adds) {
  TableState& s = tables_[index(t)];
  ++s.counters.operations;
  if (s.faultCount > 0) {
    --s.faultCount;
    return s.faultKind;
  }
  if (adds && size(t) >= s.capacity) return Status::full;
  return Status::ok;
}

Status Chip::refuse(Table t, std::string_view what, Status s, std::string_view why) {
  std::string line =
      std::string(tableName(t)) + " " + std::string(what) + ": " + std::string(statusText(s));
  if (!why.empty()) line += ", " + std::string(why);
  if (errors_.size() >= errorLogLimit) errors_.erase(errors_.begin());
  errors_.push_back(std::move(line));
  return s;
}

rapidjson::Value Chip::toJson(rapidjson::Document::AllocatorType& alloc) const {
  rapidjson::Value root(rapidjson::kObjectType);
  rapidjson::Value units(rapidjson::kArrayType);
  for (uint32_t u = 0; u < config_.units; ++u) {
    rapidjson::Value unit(rapidjson::kObjectType);
    unit.AddMember("unit", u, alloc);
    unit.AddMember("ports", config_.portsPerUnit, alloc);
    units.PushBack(unit, alloc);
  }
  root.AddMember("units", units, alloc);
  root.AddMember("lacpEnabled", lacpEnabled_, alloc);
  root.AddMember("lag", lagJson(alloc), alloc);
  root.AddMember("acl", aclJson(alloc), alloc);
  rapidjson::Value capacities(rapidjson::kObjectType);
  for (size_t i = 0; i < kTableCount; ++i) {
    // The ACL tables' capacities apply per unit and are shown there.
    if (static_cast<Table>(i) == Table::acl || static_cast<Table>(i) == Table::rangeChecker) {
      continue;
    }
    rapidjson::Value capacity(static_cast<uint64_t>(tables_[i].capacity));
    capacities.AddMember(text(kTableNames[i], alloc), capacity, alloc);
  }
  root.AddMember("capacity", capacities, alloc);
  rapidjson::Value errors(rapidjson::kArrayType);
  for (std::string const& e : errors_) errors.PushBack(text(e, alloc), alloc);
  root.AddMember("errors", errors, alloc);
  return root;
}

rapidjson::Value Chip::treeJson(rapidjson::Document::AllocatorType& alloc) const {
  rapidjson::Value root = toJson(alloc);
  addCounters(root["lag"], counters(Table::lag), alloc);
  addCounters(root["acl"], counters(Table::acl), alloc);
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
        if (i >= config_.units) {
          if (problem) {
            *problem = "the chip has no unit " + name + " (units 0 to " +
                       std::to_string(config_.units - 1) + ")";
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
