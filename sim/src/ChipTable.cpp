// What the chip's tables share: names, answers, admission and the refusal log; and the ports.
#include "Sim/ChipTable.h"

#include <array>
#include <ostream>

#include "Sim/ChipPorts.h"
#include "Zol/Types.h"

namespace sim {

namespace {

constexpr std::array<std::string_view, kTableCount> kTableNames = {"lag", "acl", "rangeChecker",
                                                                   "mac", "vxlan"};
constexpr std::array<std::string_view, 4> kStatusTexts = {"ok", "busy", "full", "failed"};

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

void ErrorLog::add(std::string line) {
  if (lines_.size() >= limit) lines_.erase(lines_.begin());
  lines_.push_back(std::move(line));
}

Status ChipTable::admit(bool adds, size_t size) {
  ++counters_.operations;
  if (faultCount_ > 0) {
    --faultCount_;
    return faultKind_;
  }
  if (adds && size >= capacity_) return Status::full;
  return Status::ok;
}

Status ChipTable::refuse(std::string_view what, Status s, std::string_view why) {
  std::string line =
      std::string(tableName(id_)) + " " + std::string(what) + ": " + std::string(statusText(s));
  if (!why.empty()) line += ", " + std::string(why);
  errors_.add(std::move(line));
  return s;
}

ChipPorts::ChipPorts(uint32_t units, uint32_t portsPerUnit)
    : units_(units), portsPerUnit_(portsPerUnit) {
  if (units < 1 || units > maxUnits) {
    throw Zol::RangeException("chip units " + std::to_string(units) + " not in 1.." +
                              std::to_string(maxUnits));
  }
  if (portsPerUnit < 1 || portsPerUnit > maxPortsPerUnit) {
    throw Zol::RangeException("chip ports per unit " + std::to_string(portsPerUnit) +
                              " not in 1.." + std::to_string(maxPortsPerUnit));
  }
}

std::optional<PortLocation> ChipPorts::location(Nepo::IntfId const& intf) const {
  if (!intf.isEthernet() || intf.numberCount() != 1) return std::nullopt;
  uint32_t const n = intf.number(0);
  if (n < 1 || n > units_ * portsPerUnit_) return std::nullopt;
  return PortLocation{(n - 1) / portsPerUnit_, (n - 1) % portsPerUnit_};
}

std::vector<Nepo::IntfId> ChipPorts::ports() const {
  std::vector<Nepo::IntfId> out;
  uint32_t const n = units_ * portsPerUnit_;
  out.reserve(n);
  for (uint32_t i = 1; i <= n; ++i) out.push_back(Nepo::IntfId(Nepo::IntfKind::Ethernet, {i}));
  return out;
}

}  // namespace sim
