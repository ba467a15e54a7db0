#include <algorithm>
#include <cstdio>
#include <map>
#include <vector>

#include "Vemo/SwTunnelGroupIdManager.h"
#include "Views.h"

namespace vemo::agent {

Vemo::TunnelIpAddrList vtepsOf(Vemo::SwTunnelGroupIdData const& groups, Vemo::SwTunnelGroupId id) {
  if (id.isEmpty()) return {};
  if (id.isSingleMemberGroup()) {
    return Vemo::TunnelIpAddrList{Nepo::IpAddr::fromV4HostOrder(static_cast<uint32_t>(id.index()))};
  }
  return groups.swTunnelGroupIdToAddr(id);
}

std::string vtepText(Vemo::TunnelIpAddrList const& list) {
  std::string out;
  for (auto const& [addr, present] : list.tunnelIpAddrAll()) {
    out += (out.empty() ? "" : " ") + addr.stringValue();
  }
  return out.empty() ? "-" : out;
}

namespace {

using Vemo::SwTunnelGroupId;
using Vemo::TunnelIpAddrList;

// What the view knows of one group, from the manager's published state only.
struct GroupRow {
  uint32_t refs = 0;
  TunnelIpAddrList vteps;
};

// The group a flood list names, as the manager would answer without numbering a new one.
SwTunnelGroupId groupOf(Vemo::SwTunnelGroupIdData const& groups, TunnelIpAddrList const& list) {
  auto const& addrs = list.tunnelIpAddrAll();
  if (addrs.size() == 1 && addrs.begin()->first.isV4()) {
    return Vemo::convertToSwTunnelGroupId(Vemo::SwTunnelGroupType::singleMemberGroup,
                                          addrs.begin()->first.v4HostOrder());
  }
  return groups.tunnelIpAddrListToTunnelId(list);
}

template <typename Set>
TunnelIpAddrList listOf(Set const& addrs) {
  TunnelIpAddrList list;
  for (auto const& [addr, present] : addrs) list.tunnelIpAddrIs(addr, true);
  return list;
}

std::string idText(SwTunnelGroupId id) { return id.isEmpty() ? "-" : std::to_string(id.value()); }

std::string row(std::vector<std::pair<int, std::string>> const& cells) {
  std::string out;
  for (auto const& [width, text] : cells) {
    char cell[128];
    std::snprintf(cell, sizeof cell, "%-*s ", width, text.c_str());
    out += cell;
  }
  out.erase(out.find_last_not_of(' ') + 1);
  return out + "\n";
}

rapidjson::Value str(std::string const& s, rapidjson::Document::AllocatorType& alloc) {
  return rapidjson::Value(s.c_str(), static_cast<rapidjson::SizeType>(s.size()), alloc);
}

rapidjson::Value vtepArray(TunnelIpAddrList const& list,
                           rapidjson::Document::AllocatorType& alloc) {
  rapidjson::Value a(rapidjson::kArrayType);
  for (auto const& [addr, present] : list.tunnelIpAddrAll()) {
    a.PushBack(str(addr.stringValue(), alloc), alloc);
  }
  return a;
}

struct FloodRow {
  Nepo::IntfId vti;
  uint32_t vlan;  // 0: the interface's default list
  TunnelIpAddrList vteps;
};

// What the view shows: every group that is referenced or numbered, in identifier order; the
// flood lists of every interface; the remote MACs in key order.
struct VxlanRows {
  std::map<SwTunnelGroupId, GroupRow> groups;
  std::vector<FloodRow> flood;
  std::vector<Vemo::VXLAN::HostEntry> hosts;
};

VxlanRows vxlanRows(Vemo::SwTunnelGroupIdData const& groups, Vxlan::VxlanConfigDir const& config,
                    Vemo::VXLAN::RemoteMacInfoDir const& remoteMacs) {
  VxlanRows rows;
  for (auto const& [value, count] : groups.refcountTable()->refcountAll()) {
    rows.groups[SwTunnelGroupId(value)].refs = count.count();
  }
  for (auto const& [id, list] : groups.swTunnelGroupIdToAddrAll()) rows.groups[id];
  for (auto& [id, r] : rows.groups) r.vteps = vtepsOf(groups, id);

  for (auto const& [vti, c] : config.vxlanConfigAll()) {
    if (c->floodVtepListSize() > 0) rows.flood.push_back({vti, 0, listOf(c->floodVtepListAll())});
    for (auto const& [vlan, list] : c->vlanToVtepListAll()) {
      rows.flood.push_back({vti, vlan.value(), listOf(list->vtepAll())});
    }
  }
  for (auto const& [key, entry] : remoteMacs.hostTable()->entryAll()) rows.hosts.push_back(entry);
  std::sort(rows.hosts.begin(), rows.hosts.end(),
            [](auto const& a, auto const& b) { return a.key() < b.key(); });
  return rows;
}

std::string vxlanJson(Vemo::SwTunnelGroupIdData const& groups, VxlanRows const& rows) {
  rapidjson::Document doc(rapidjson::kObjectType);
  auto& alloc = doc.GetAllocator();
  doc.AddMember("lastSequenceNumber", groups.currentIdx(), alloc);
  rapidjson::Value g(rapidjson::kArrayType);
  for (auto const& [id, r] : rows.groups) {
    rapidjson::Value e(rapidjson::kObjectType);
    e.AddMember("id", id.value(), alloc);
    e.AddMember("type", str(id.isSingleMemberGroup() ? "single" : "multi", alloc), alloc);
    e.AddMember("refcount", r.refs, alloc);
    e.AddMember("vteps", vtepArray(r.vteps, alloc), alloc);
    g.PushBack(e, alloc);
  }
  doc.AddMember("groups", g, alloc);
  rapidjson::Value f(rapidjson::kArrayType);
  for (FloodRow const& r : rows.flood) {
    rapidjson::Value e(rapidjson::kObjectType);
    e.AddMember("interface", str(r.vti.stringValue(), alloc), alloc);
    e.AddMember("vlan", r.vlan, alloc);
    e.AddMember("group", groupOf(groups, r.vteps).value(), alloc);
    e.AddMember("vteps", vtepArray(r.vteps, alloc), alloc);
    f.PushBack(e, alloc);
  }
  doc.AddMember("floodLists", f, alloc);
  rapidjson::Value h(rapidjson::kArrayType);
  for (auto const& entry : rows.hosts) {
    rapidjson::Value e(rapidjson::kObjectType);
    e.AddMember("mac", str(entry.key().macAddr().stringValue(), alloc), alloc);
    e.AddMember("vlan", entry.key().vlanId().value(), alloc);
    e.AddMember("interface", str(entry.intf().stringValue(), alloc), alloc);
    e.AddMember("group", entry.swTunnelGroupId().value(), alloc);
    e.AddMember("vteps", vtepArray(vtepsOf(groups, entry.swTunnelGroupId()), alloc), alloc);
    h.PushBack(e, alloc);
  }
  doc.AddMember("remoteMacs", h, alloc);
  return prettyJson(doc);
}

std::string vxlanText(Vemo::SwTunnelGroupIdData const& groups, VxlanRows const& rows) {
  std::string out = "VTEP groups: " + std::to_string(groups.swTunnelGroupIdToAddrSize()) +
                    " numbered, last sequence number " + std::to_string(groups.currentIdx()) + "\n";
  out += row({{12, "Group"}, {6, "Type"}, {5, "Refs"}, {0, "VTEPs"}});
  for (auto const& [id, r] : rows.groups) {
    out += row({{12, idText(id)},
                {6, id.isSingleMemberGroup() ? "single" : "multi"},
                {5, std::to_string(r.refs)},
                {0, vtepText(r.vteps)}});
  }
  if (rows.groups.empty()) out += "(no VTEP groups)\n";
  out += "\nFlood lists\n";
  out += row({{12, "Interface"}, {7, "VLAN"}, {12, "Group"}, {0, "VTEPs"}});
  for (FloodRow const& r : rows.flood) {
    out += row({{12, r.vti.stringValue()},
                {7, r.vlan == 0 ? "default" : std::to_string(r.vlan)},
                {12, idText(groupOf(groups, r.vteps))},
                {0, vtepText(r.vteps)}});
  }
  if (rows.flood.empty()) out += "(no flood lists)\n";
  out += "\nRemote MACs\n";
  out += row({{17, "MAC"}, {5, "VLAN"}, {12, "Interface"}, {12, "Group"}, {0, "VTEPs"}});
  for (auto const& entry : rows.hosts) {
    out += row({{17, entry.key().macAddr().stringValue()},
                {5, std::to_string(entry.key().vlanId().value())},
                {12, entry.intf().stringValue()},
                {12, idText(entry.swTunnelGroupId())},
                {0, vtepText(vtepsOf(groups, entry.swTunnelGroupId()))}});
  }
  if (rows.hosts.empty()) out += "(no remote MACs)\n";
  return out;
}

}  // namespace

std::string showVxlan(Vemo::SwTunnelGroupIdData const& groups, Vxlan::VxlanConfigDir const& config,
                      Vemo::VXLAN::RemoteMacInfoDir const& remoteMacs, bool json) {
  VxlanRows const rows = vxlanRows(groups, config, remoteMacs);
  return json ? vxlanJson(groups, rows) : vxlanText(groups, rows);
}

}  // namespace vemo::agent
