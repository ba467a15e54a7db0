// The chip's VXLAN tunnels and VLAN-to-VNI map.
#include "Sim/ChipVxlan.h"

#include <algorithm>
#include <string>

#include "Zol/Json.h"

namespace sim {

namespace {

constexpr uint16_t kVlanMax = 4094;

std::string tunnelNamed(std::string_view op, uint32_t nextHopId) {
  return std::string(op) + " next hop " + std::to_string(nextHopId);
}

std::string vlanNamed(uint16_t vlan) { return "vni vlan " + std::to_string(vlan); }

}  // namespace

Status VxlanTable::tunnelIs(uint32_t nextHopId, VxlanTunnel tunnel) {
  auto const it = tunnels_.find(nextHopId);
  if (Status s = admit(it == tunnels_.end(), size()); s != Status::ok) {
    return refuse(tunnelNamed("add", nextHopId), s);
  }
  if (!tunnel.vti.isVxlan()) {
    return refuse(tunnelNamed("add", nextHopId), Status::failed,
                  tunnel.vti.stringValue() + " is not a VXLAN interface");
  }
  std::sort(tunnel.vteps.begin(), tunnel.vteps.end());
  tunnel.vteps.erase(std::unique(tunnel.vteps.begin(), tunnel.vteps.end()), tunnel.vteps.end());
  bool const unusable = tunnel.vteps.empty() ||
                        std::any_of(tunnel.vteps.begin(), tunnel.vteps.end(),
                                    [](auto const& a) { return a.isZero() || a.isMulticast(); });
  if (unusable) {
    return refuse(tunnelNamed("add", nextHopId), Status::failed,
                  "a tunnel needs unicast VTEP addresses");
  }
  if (wrote(it == tunnels_.end() || it->second != tunnel)) tunnels_[nextHopId] = std::move(tunnel);
  return Status::ok;
}

void VxlanTable::tunnelDel(uint32_t nextHopId) {
  operated();
  wrote(tunnels_.erase(nextHopId) != 0);
}

VxlanTunnel const* VxlanTable::tunnel(uint32_t nextHopId) const {
  auto const it = tunnels_.find(nextHopId);
  return it == tunnels_.end() ? nullptr : &it->second;
}

Status VxlanTable::vniIs(uint16_t vlan, uint32_t vniId) {
  if (Status s = admit(false, size()); s != Status::ok) return refuse(vlanNamed(vlan), s);
  if (vlan < 1 || vlan > kVlanMax) return refuse(vlanNamed(vlan), Status::failed, "no such VLAN");
  if (vniId < 1 || vniId > maxVni) {
    return refuse(vlanNamed(vlan), Status::failed, "no VNI " + std::to_string(vniId));
  }
  if (auto const other = vlanOfVni(vniId); other && *other != vlan) {
    return refuse(vlanNamed(vlan), Status::failed,
                  "VNI " + std::to_string(vniId) + " is VLAN " + std::to_string(*other) + "'s");
  }
  std::optional<uint32_t> const old = vni(vlan);
  if (!wrote(old != vniId)) return Status::ok;
  if (old) vlans_.erase(*old);
  vnis_[vlan] = vniId;
  vlans_[vniId] = vlan;
  return Status::ok;
}

void VxlanTable::vniDel(uint16_t vlan) {
  operated();
  auto const it = vnis_.find(vlan);
  if (!wrote(it != vnis_.end())) return;
  vlans_.erase(it->second);
  vnis_.erase(it);
}

std::optional<uint32_t> VxlanTable::vni(uint16_t vlan) const {
  auto const it = vnis_.find(vlan);
  return it == vnis_.end() ? std::nullopt : std::optional(it->second);
}

std::optional<uint16_t> VxlanTable::vlanOfVni(uint32_t vni) const {
  auto const it = vlans_.find(vni);
  return it == vlans_.end() ? std::nullopt : std::optional(it->second);
}

rapidjson::Value VxlanTable::toJson(rapidjson::Document::AllocatorType& alloc) const {
  rapidjson::Value tunnels(rapidjson::kObjectType);
  for (auto const& [nextHop, t] : tunnels_) {
    rapidjson::Value entry(rapidjson::kObjectType);
    entry.AddMember("intf", Zol::toJson(t.vti.stringValue(), alloc), alloc);
    rapidjson::Value vteps(rapidjson::kArrayType);
    for (Nepo::IpAddr const& a : t.vteps)
      vteps.PushBack(Zol::toJson(a.stringValue(), alloc), alloc);
    entry.AddMember("vteps", vteps, alloc);
    entry.AddMember("tunnelId", t.tunnelId, alloc);
    tunnels.AddMember(Zol::toJson(std::to_string(nextHop), alloc), entry, alloc);
  }
  rapidjson::Value vnis(rapidjson::kObjectType);
  for (auto const& [vlan, id] : vnis_) {
    rapidjson::Value value(id);
    vnis.AddMember(Zol::toJson(std::to_string(vlan), alloc), value, alloc);
  }
  rapidjson::Value table(rapidjson::kObjectType);
  table.AddMember("tunnels", tunnels, alloc);
  table.AddMember("vnis", vnis, alloc);
  return table;
}

}  // namespace sim
