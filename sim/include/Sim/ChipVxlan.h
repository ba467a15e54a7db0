// The chip's VXLAN tables: the tunnels remote MAC entries point to, by next hop, and the VNI
// each VLAN is carried in. The platform programs them directly (they are not MAC helper
// operations); the bridging stage reads them to encapsulate towards remote MACs and to place
// decapsulated packets in their VLAN.
#pragma once

#include <rapidjson/document.h>

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "Nepo/IntfId.h"
#include "Nepo/IpAddr.h"
#include "Sim/ChipTable.h"

namespace sim {

// One next hop of the overlay: packets for it leave by the tunnel interface vti towards one of
// vteps. A next hop of several VTEPs is a group: each flow goes to one of them, chosen by a hash
// of its addresses, as a port-channel picks a member, so that a flow's packets stay in order.
struct VxlanTunnel {
  Nepo::IntfId vti;
  // Kept sorted and without duplicates, so that the hash picks the same VTEP on every run.
  std::vector<Nepo::IpAddr> vteps;
  uint32_t tunnelId = 0;
  bool operator==(VxlanTunnel const&) const = default;
};

// How a packet leaves by a tunnel: the interface, the VTEP chosen and the VNI of its VLAN.
struct VxlanEncap {
  Nepo::IntfId vti;
  Nepo::IpAddr vtep;
  uint32_t vni = 0;
  uint32_t tunnelId = 0;
  bool operator==(VxlanEncap const&) const = default;
};

// Where a decapsulated packet came from: the tunnel interface it arrived on, the VTEP that sent
// it and the VNI it was carried in.
struct VxlanDecap {
  Nepo::IntfId vti = Nepo::IntfId(Nepo::IntfKind::Vxlan, {1});
  Nepo::IpAddr srcVtep;
  uint32_t vni = 0;
};

// Tunnel writes are admitted against the capacity (in tunnels); VNI mappings take no room but
// can be refused by faults. Deletions are never refused, so that a clean-up always completes.
class VxlanTable : public ChipTable {
 public:
  static constexpr size_t defaultCapacity = 4096;
  static constexpr uint32_t maxVni = (1u << 24) - 1;
  using Tunnels = std::map<uint32_t, VxlanTunnel>;

  explicit VxlanTable(ErrorLog& errors) : ChipTable(Table::vxlan, defaultCapacity, errors) {}

  // Programs the next hop, replacing what it held. failed: vti is not a VXLAN interface, or
  // there is no VTEP, or one is the zero or a multicast address.
  Status tunnelIs(uint32_t nextHopId, VxlanTunnel tunnel);
  void tunnelDel(uint32_t nextHopId);
  VxlanTunnel const* tunnel(uint32_t nextHopId) const;
  Tunnels const& tunnels() const { return tunnels_; }
  size_t size() const { return tunnels_.size(); }

  // failed: a VLAN outside 1-4094, a VNI outside 1-16777215, or a VNI another VLAN is mapped to
  // (a decapsulated packet must have one VLAN).
  Status vniIs(uint16_t vlan, uint32_t vniId);
  void vniDel(uint16_t vlan);
  std::optional<uint32_t> vni(uint16_t vlan) const;
  std::optional<uint16_t> vlanOfVni(uint32_t vni) const;

  // {"tunnels": {"7": {"intf": "Vxlan1", "vteps": ["10.0.0.2"], "tunnelId": 3}},
  //  "vnis": {"10": 10010}}, by next hop and by VLAN.
  rapidjson::Value toJson(rapidjson::Document::AllocatorType& alloc) const;

 private:
  Tunnels tunnels_;
  std::map<uint16_t, uint32_t> vnis_;
  std::map<uint32_t, uint16_t> vlans_;
};

}  // namespace sim
