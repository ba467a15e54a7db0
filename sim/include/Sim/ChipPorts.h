// The chip's front-panel ports: Ethernet1 .. EthernetN, numbered unit by unit.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "Nepo/IntfId.h"

namespace sim {

// Where a front-panel port sits: its unit and its bit within the unit.
struct PortLocation {
  uint32_t unit = 0;
  uint32_t bit = 0;
  bool operator==(PortLocation const&) const = default;
};

class ChipPorts {
 public:
  // The port bitmaps hold 32 units of 288 ports; a larger chip could not be programmed.
  static constexpr uint32_t maxUnits = 32;
  static constexpr uint32_t maxPortsPerUnit = 288;

  // Throws Zol::RangeException for a unit or port count the port bitmaps cannot hold.
  ChipPorts(uint32_t units, uint32_t portsPerUnit);

  uint32_t units() const { return units_; }
  uint32_t portsPerUnit() const { return portsPerUnit_; }
  bool hasPort(Nepo::IntfId const& intf) const { return location(intf).has_value(); }
  std::optional<PortLocation> location(Nepo::IntfId const& intf) const;
  std::vector<Nepo::IntfId> ports() const;

 private:
  uint32_t units_;
  uint32_t portsPerUnit_;
};

}  // namespace sim
