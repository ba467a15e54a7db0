// The chip's ports, the admission every table operation goes through, and the JSON dump.
#include "Sim/Chip.h"

#include <charconv>
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

// One step of a lookup: a member of an object, or an element of an array by decimal index.
rapidjson::Value const* child(rapidjson::Value const& node, std::string const& name) {
  if (node.IsObject()) {
    auto const it = node.FindMember(name.c_str());
    return it == node.MemberEnd() ? nullptr : &it->value;
  }
  if (node.IsArray()) {
    rapidjson::SizeType i = 0;
    auto const [end, ec] = std::from_chars(name.data(), name.data() + name.size(), i);
    if (ec != std::errc() || end != name.data() + name.size() || i >= node.Size()) return nullptr;
    return &node[i];
  }
  return nullptr;
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

Status Chip::admit(Table t, bool adds) {
  TableState& s = tables_[index(t)];
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

std::optional<rapidjson::Value> Chip::lookup(std::vector<std::string> const& path,
                                             rapidjson::Document::AllocatorType& alloc) const {
  // The dump is built in a scratch document so that only the answer lands in the caller's pool.
  rapidjson::Document scratch;
  rapidjson::Value const dump = toJson(scratch.GetAllocator());
  rapidjson::Value const* node = &dump;
  for (std::string const& name : path) {
    node = child(*node, name);
    if (!node) return std::nullopt;
  }
  return rapidjson::Value(*node, alloc);
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
