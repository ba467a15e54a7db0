#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <vector>

#include "Scenario.h"
#include "Vemo/SwTunnelGroupIdManager.h"
#include "Views.h"
#include "Zol/Text.h"

namespace vemo::agent {

namespace {

using Bridging::EntryType;

rapidjson::Value str(std::string const& s, rapidjson::Document::AllocatorType& alloc) {
  return rapidjson::Value(s.c_str(), static_cast<rapidjson::SizeType>(s.size()), alloc);
}

// The kinds as the table's Type column names them.
std::string typeText(EntryType t) {
  switch (t) {
    case EntryType::learnedDynamicMac:
      return "DYNAMIC";
    case EntryType::configuredDynamicMac:
      return "CONFIGURED-DYNAMIC";
    case EntryType::configuredStaticMac:
      return "STATIC";
    case EntryType::routerMac:
      return "ROUTER";
    case EntryType::nonAgingMac:
      return "NON-AGING";
    case EntryType::peerDynamicMac:
      return "PEER-DYNAMIC";
    case EntryType::peerStaticMac:
      return "PEER-STATIC";
    case EntryType::peerRouterMac:
      return "PEER-ROUTER";
    case EntryType::learnedRemoteMac:
      return "DYNAMIC-REMOTE";
    case EntryType::configuredRemoteMac:
      return "STATIC-REMOTE";
    case EntryType::evpnDynamicRemoteMac:
    case EntryType::evpnIntfDynamicMac:
      return "EVPN";
    case EntryType::receivedRemoteMac:
      return "RECEIVED-REMOTE";
    case EntryType::peerDynamicRemoteMac:
      return "PEER-DYNAMIC-REMOTE";
    case EntryType::peerConfiguredRemoteMac:
      return "PEER-STATIC-REMOTE";
    case EntryType::dot1xAuthorizedMac:
      return "DOT1X";
    case EntryType::peerDot1xAuthorizedMac:
      return "PEER-DOT1X";
    case EntryType::fsfFailedServerMac:
      return "FSF";
    default:
      return std::string(Zol::enumName(t));
  }
}

// "0:01:05 ago" for a host the chip learned (when it last moved, or was learned); "-" for an
// entry put in place, which does not move.
std::string agoText(Bridging::HostEntry const& host, double now) {
  double const lastMoveTime = host.lastMoveTime();
  bool const dynamic = host.entryType() == EntryType::learnedDynamicMac ||
                       host.entryType() == EntryType::configuredDynamicMac ||
                       host.entryType() == EntryType::learnedRemoteMac;
  if (!dynamic || !(lastMoveTime >= 0) || lastMoveTime > now) return "-";
  auto const s = static_cast<uint64_t>(now - lastMoveTime);
  char text[32];
  std::snprintf(
      text, sizeof text, "%llu:%02llu:%02llu ago", static_cast<unsigned long long>(s / 3600),
      static_cast<unsigned long long>(s / 60 % 60), static_cast<unsigned long long>(s % 60));
  return text;
}

struct Row {
  Bridging::MacVlanPair key;
  Bridging::HostEntry const* host;
};

// The FDB status's hosts that pass the filter, by VLAN and address.
std::vector<Row> rows(Bridging::Status const& status, MacTableFilter const& filter) {
  std::vector<Row> out;
  for (auto const& [fid, fdb] : status.fdbStatusAll()) {
    if (filter.vlan && *filter.vlan != fid.value()) continue;
    size_t const first = out.size();
    for (auto const& [mac, host] : fdb->learnedHostAll()) {
      if (filter.intf && *filter.intf != host.intf()) continue;
      if (filter.mac && *filter.mac != mac) continue;
      out.push_back({Bridging::MacVlanPair(mac, fid), &host});
    }
    std::sort(out.begin() + static_cast<std::ptrdiff_t>(first), out.end(),
              [](Row const& a, Row const& b) { return a.key.macAddr() < b.key.macAddr(); });
  }
  return out;
}

std::string tableRow(std::string const& vlan, std::string const& mac, std::string const& type,
                     std::string const& port, std::string const& moves, std::string const& last) {
  char line[256];
  std::snprintf(line, sizeof line, "%4s    %-17s  %-18s  %-16s  %5s   %s", vlan.c_str(),
                mac.c_str(), type.c_str(), port.c_str(), moves.c_str(), last.c_str());
  std::string out = line;
  out.erase(out.find_last_not_of(' ') + 1);
  return out + "\n";
}

}  // namespace

MacTableFilter MacTableFilter::parse(std::vector<std::string> const& words) {
  MacTableFilter f;
  for (size_t i = 0; i < words.size(); i += 2) {
    std::string const& what = words[i];
    if (i + 1 >= words.size()) throw ScenarioError("'" + what + "' wants a value");
    std::string const& value = words[i + 1];
    try {
      if (what == "vlan") {
        f.vlan = Bridging::VlanId(Zol::parseInteger<uint16_t>(value)).value();
      } else if (what == "interface") {
        f.intf = Nepo::IntfId::fromString(value);
      } else if (what == "address") {
        f.mac = Nepo::EthAddr::fromString(value);
      } else {
        throw ScenarioError("unknown filter '" + what + "' (filters: vlan, interface, address)");
      }
    } catch (ScenarioError const&) {
      throw;
    } catch (std::exception const& e) {
      throw ScenarioError(what + " '" + value + "': " + e.what());
    }
  }
  return f;
}

std::string showMacAddressTable(Bridging::Status const& status,
                                Vemo::VXLAN::HostStatusTable const& remote,
                                Vemo::SwTunnelGroupIdData const& groups,
                                MacTableFilter const& filter, double now, bool json) {
  std::vector<Row> const all = rows(status, filter);
  // The VTEPs behind a remote entry, from the remote host status table.
  auto vteps = [&](Row const& r) -> std::optional<Vemo::TunnelIpAddrList> {
    if (!r.host->intf().isVxlan() || !remote.statusEntryHas(r.key)) return std::nullopt;
    return vtepsOf(groups, remote.statusEntry(r.key).swTunnelGroupId());
  };
  if (json) {
    rapidjson::Document doc(rapidjson::kObjectType);
    auto& alloc = doc.GetAllocator();
    rapidjson::Value entries(rapidjson::kArrayType);
    for (Row const& r : all) {
      rapidjson::Value e(rapidjson::kObjectType);
      e.AddMember("vlan", r.key.vlanId().value(), alloc);
      e.AddMember("mac", str(r.key.macAddr().stringValue(), alloc), alloc);
      e.AddMember("type", str(std::string(Zol::enumName(r.host->entryType())), alloc), alloc);
      e.AddMember("intf", str(r.host->intf().stringValue(), alloc), alloc);
      e.AddMember("moves", r.host->moves(), alloc);
      e.AddMember("lastMoveTime", r.host->lastMoveTime(), alloc);
      if (auto const list = vteps(r)) {
        rapidjson::Value a(rapidjson::kArrayType);
        for (auto const& [addr, on] : list->tunnelIpAddrAll()) {
          a.PushBack(str(addr.stringValue(), alloc), alloc);
        }
        e.AddMember("vteps", a, alloc);
      }
      entries.PushBack(e, alloc);
    }
    doc.AddMember("entries", entries, alloc);
    doc.AddMember("total", static_cast<uint64_t>(all.size()), alloc);
    return prettyJson(doc);
  }
  std::string out = "          Mac Address Table\n";
  out += tableRow("Vlan", "Mac Address", "Type", "Ports", "Moves", "Last Move");
  out += tableRow("----", "-----------", "----", "-----", "-----", "---------");
  for (Row const& r : all) {
    std::string port = r.host->intf().stringValue();
    if (auto const list = vteps(r)) port += " " + vtepText(*list);
    out += tableRow(std::to_string(r.key.vlanId().value()), r.key.macAddr().stringValue(),
                    typeText(r.host->entryType()), port, std::to_string(r.host->moves()),
                    agoText(*r.host, now));
  }
  out += "Total Mac Addresses for this criterion: " + std::to_string(all.size()) + "\n";
  return out;
}

std::string showVxlanAddressTable(Vemo::VXLAN::HostStatusTable const& remote,
                                  Vemo::SwTunnelGroupIdData const& groups, bool json) {
  std::vector<Vemo::VXLAN::StatusEntry> entries;
  for (auto const& [key, e] : remote.statusEntryAll()) entries.push_back(e);
  std::sort(entries.begin(), entries.end(), [](auto const& a, auto const& b) {
    return std::pair(a.key().vlanId().value(), a.key().macAddr()) <
           std::pair(b.key().vlanId().value(), b.key().macAddr());
  });
  auto tunnelText = [](Vemo::VemoTunnelId t) {
    return t.isNoTunnel() ? std::string("-") : std::to_string(t.value());
  };
  if (json) {
    rapidjson::Document doc(rapidjson::kObjectType);
    auto& alloc = doc.GetAllocator();
    rapidjson::Value list(rapidjson::kArrayType);
    for (auto const& e : entries) {
      rapidjson::Value v(rapidjson::kObjectType);
      v.AddMember("vlan", e.key().vlanId().value(), alloc);
      v.AddMember("mac", str(e.key().macAddr().stringValue(), alloc), alloc);
      v.AddMember("type", str(std::string(Zol::enumName(e.entryType())), alloc), alloc);
      v.AddMember("intf", str(e.intf().stringValue(), alloc), alloc);
      v.AddMember("vteps", str(vtepText(vtepsOf(groups, e.swTunnelGroupId())), alloc), alloc);
      v.AddMember("nextHop", e.nextHopId().value(), alloc);
      v.AddMember("tunnel", str(tunnelText(e.tunnelId()), alloc), alloc);
      list.PushBack(v, alloc);
    }
    doc.AddMember("entries", list, alloc);
    doc.AddMember("total", static_cast<uint64_t>(entries.size()), alloc);
    return prettyJson(doc);
  }
  std::string out = "          Vxlan Mac Address Table\n";
  auto line = [](std::string const& vlan, std::string const& mac, std::string const& type,
                 std::string const& intf, std::string const& vteps, std::string const& nh,
                 std::string const& tunnel) {
    char text[256];
    std::snprintf(text, sizeof text, "%4s    %-17s  %-19s  %-8s  %-8s  %-6s  %s", vlan.c_str(),
                  mac.c_str(), type.c_str(), intf.c_str(), nh.c_str(), tunnel.c_str(),
                  vteps.c_str());
    std::string o = text;
    o.erase(o.find_last_not_of(' ') + 1);
    return o + "\n";
  };
  out += line("Vlan", "Mac Address", "Type", "Intf", "VTEPs", "NextHop", "Tunnel");
  out += line("----", "-----------", "----", "----", "-----", "-------", "------");
  for (auto const& e : entries) {
    out += line(std::to_string(e.key().vlanId().value()), e.key().macAddr().stringValue(),
                typeText(e.entryType()), e.intf().stringValue(),
                vtepText(vtepsOf(groups, e.swTunnelGroupId())),
                std::to_string(e.nextHopId().value()), tunnelText(e.tunnelId()));
  }
  out += "Total Remote Mac Addresses: " + std::to_string(entries.size()) + "\n";
  return out;
}

std::string showMacAddressTableCount(Bridging::Status const& status, bool json) {
  struct Count {
    size_t dynamic = 0, other = 0;
  };
  std::map<uint16_t, Count> perVlan;
  Count total;
  for (Row const& r : rows(status, MacTableFilter())) {
    bool const dynamic = r.host->entryType() == EntryType::learnedDynamicMac ||
                         r.host->entryType() == EntryType::configuredDynamicMac;
    Count& c = perVlan[r.key.vlanId().value()];
    ++(dynamic ? c.dynamic : c.other);
    ++(dynamic ? total.dynamic : total.other);
  }
  if (json) {
    rapidjson::Document doc(rapidjson::kObjectType);
    auto& alloc = doc.GetAllocator();
    rapidjson::Value vlans(rapidjson::kObjectType);
    for (auto const& [vlan, c] : perVlan) {
      rapidjson::Value v(rapidjson::kObjectType);
      v.AddMember("dynamic", static_cast<uint64_t>(c.dynamic), alloc);
      v.AddMember("static", static_cast<uint64_t>(c.other), alloc);
      vlans.AddMember(str(std::to_string(vlan), alloc), v, alloc);
    }
    doc.AddMember("vlans", vlans, alloc);
    doc.AddMember("dynamic", static_cast<uint64_t>(total.dynamic), alloc);
    doc.AddMember("static", static_cast<uint64_t>(total.other), alloc);
    doc.AddMember("total", static_cast<uint64_t>(total.dynamic + total.other), alloc);
    return prettyJson(doc);
  }
  std::string out;
  for (auto const& [vlan, c] : perVlan) {
    out += "Vlan " + std::to_string(vlan) + ": " + std::to_string(c.dynamic) + " dynamic, " +
           std::to_string(c.other) + " static\n";
  }
  out += "Total Mac Addresses: " + std::to_string(total.dynamic + total.other) + " (" +
         std::to_string(total.dynamic) + " dynamic, " + std::to_string(total.other) + " static)\n";
  return out;
}

std::string showMlag(Mlag::Status const& mlag, Mlag::HostTable const& peerHosts,
                     Bridging::Status const& status, bool json) {
  // What the peer reports, by the kind of host it is there.
  size_t learned = 0, configured = 0, remote = 0;
  for (auto const& [key, host] : peerHosts.hostEntryAll()) {
    if (host.entryType() == EntryType::learnedDynamicMac) {
      ++learned;
    } else if (host.entryType() == EntryType::configuredStaticMac) {
      ++configured;
    } else {
      ++remote;
    }
  }
  // What the FDB status holds from it.
  size_t peerDynamic = 0, peerStatic = 0, peerRemote = 0;
  for (Row const& r : rows(status, MacTableFilter())) {
    peerDynamic += r.host->entryType() == EntryType::peerDynamicMac;
    peerStatic += r.host->entryType() == EntryType::peerStaticMac;
    peerRemote += r.host->entryType() == EntryType::peerDynamicRemoteMac;
  }
  // "statePrimary" reads "primary".
  std::string state(Zol::enumName(mlag.state()));
  if (state.starts_with("state") && state.size() > 5) {
    state = std::string(1, static_cast<char>(std::tolower(state[5]))) + state.substr(6);
  }
  std::string const peerLink =
      mlag.peerLinkIntf().isEmpty() ? "none" : mlag.peerLinkIntf().stringValue();
  if (json) {
    rapidjson::Document doc(rapidjson::kObjectType);
    auto& alloc = doc.GetAllocator();
    doc.AddMember("state", str(state, alloc), alloc);
    doc.AddMember("peerLink", str(peerLink, alloc), alloc);
    rapidjson::Value reported(rapidjson::kObjectType);
    reported.AddMember("learned", static_cast<uint64_t>(learned), alloc);
    reported.AddMember("static", static_cast<uint64_t>(configured), alloc);
    reported.AddMember("remote", static_cast<uint64_t>(remote), alloc);
    doc.AddMember("peerHosts", reported, alloc);
    rapidjson::Value installed(rapidjson::kObjectType);
    installed.AddMember("peerDynamic", static_cast<uint64_t>(peerDynamic), alloc);
    installed.AddMember("peerStatic", static_cast<uint64_t>(peerStatic), alloc);
    installed.AddMember("peerRemote", static_cast<uint64_t>(peerRemote), alloc);
    doc.AddMember("installedFromPeer", installed, alloc);
    return prettyJson(doc);
  }
  return "MLAG state: " + state + "\nPeer link: " + peerLink +
         "\nPeer hosts: " + std::to_string(learned + configured + remote) + " (" +
         std::to_string(learned) + " learned, " + std::to_string(configured) + " static, " +
         std::to_string(remote) + " remote)\nInstalled from the peer: " +
         std::to_string(peerDynamic + peerStatic + peerRemote) + " (" +
         std::to_string(peerDynamic) + " dynamic, " + std::to_string(peerStatic) + " static, " +
         std::to_string(peerRemote) + " remote)\n";
}

}  // namespace vemo::agent

namespace vemo::agent {

std::string showHardwareMac(sim::Chip const& chip, sim::MacIndirectAccess const* io, bool json) {
  sim::MacTable const& table = chip.macs();
  size_t const buckets = std::max<size_t>(1, table.capacity() / sim::MacTable::bucketDepth);
  std::map<size_t, size_t> fill;
  size_t statics = 0;
  for (auto const& [key, entry] : table.entries()) {
    ++fill[table.bucket(key)];
    if (!entry.aging) ++statics;
  }
  size_t fullest = 0, fullBuckets = 0;
  for (auto const& [bucket, n] : fill) {
    fullest = std::max(fullest, n);
    if (n >= sim::MacTable::bucketDepth) ++fullBuckets;
  }
  sim::Counters const c = chip.counters(sim::Table::mac);
  std::vector<std::string> refused;
  for (std::string const& e : chip.errors()) {
    if (e.rfind("mac ", 0) == 0) refused.push_back(e);
  }
  if (json) {
    rapidjson::Document doc(rapidjson::kObjectType);
    auto& alloc = doc.GetAllocator();
    doc.AddMember("entries", static_cast<uint64_t>(table.size()), alloc);
    doc.AddMember("static", static_cast<uint64_t>(statics), alloc);
    doc.AddMember("remote", static_cast<uint64_t>(table.remoteSize()), alloc);
    doc.AddMember("capacity", static_cast<uint64_t>(table.capacity()), alloc);
    doc.AddMember("buckets", static_cast<uint64_t>(buckets), alloc);
    doc.AddMember("bucketsUsed", static_cast<uint64_t>(fill.size()), alloc);
    doc.AddMember("bucketsFull", static_cast<uint64_t>(fullBuckets), alloc);
    doc.AddMember("fullestBucket", static_cast<uint64_t>(fullest), alloc);
    doc.AddMember("learns", table.learns(), alloc);
    doc.AddMember("aged", table.aged(), alloc);
    doc.AddMember("writes", c.writes, alloc);
    doc.AddMember("operations", c.operations, alloc);
    rapidjson::Value errors(rapidjson::kArrayType);
    for (std::string const& e : refused) errors.PushBack(str(e, alloc), alloc);
    doc.AddMember("refused", errors, alloc);
    if (io) {
      rapidjson::Value q(rapidjson::kObjectType);
      q.AddMember("pending", static_cast<uint64_t>(io->pendingSize()), alloc);
      q.AddMember("inProgress", static_cast<uint64_t>(io->inProgressSize()), alloc);
      q.AddMember("overflow", static_cast<uint64_t>(io->overflowSize()), alloc);
      q.AddMember("overflowDelay", io->updateOverflowAddressDelay(), alloc);
      doc.AddMember("indirectAccess", q, alloc);
    }
    return prettyJson(doc);
  }
  std::string out =
      "MAC table: " + std::to_string(table.size()) + " of " + std::to_string(table.capacity()) +
      " entries (" + std::to_string(statics) + " static" +
      (table.remoteSize() ? ", " + std::to_string(table.remoteSize()) + " remote" : "") + ")\n";
  out += "Buckets: " + std::to_string(fill.size()) + " of " + std::to_string(buckets) + " used, " +
         std::to_string(fullBuckets) + " full, fullest holds " + std::to_string(fullest) + " of " +
         std::to_string(sim::MacTable::bucketDepth) + "\n";
  out += "Learned by the chip: " + std::to_string(table.learns()) +
         ", aged: " + std::to_string(table.aged()) + "\n";
  out += "Driver operations: " + std::to_string(c.operations) +
         ", writes: " + std::to_string(c.writes) + "\n";
  if (io) {
    char delay[32];
    std::snprintf(delay, sizeof delay, "%g", io->updateOverflowAddressDelay());
    out += "Indirect access: " + std::to_string(io->pendingSize()) + " pending, " +
           std::to_string(io->inProgressSize()) + " in progress, " +
           std::to_string(io->overflowSize()) + " in overflow (retried every " + delay + " s)\n";
  }
  if (!refused.empty()) out += "Refused operations:\n";
  for (std::string const& e : refused) out += "  " + e + "\n";
  return out;
}

std::string showHardwareMacCalls(sim::MacAddrHelper const& helper, bool json) {
  auto const calls = helper.allCalls();
  if (json) {
    rapidjson::Document doc(rapidjson::kObjectType);
    auto& alloc = doc.GetAllocator();
    for (auto const& [name, n] : calls) {
      if (n == 0) continue;
      rapidjson::Value key = str(std::string(name), alloc);
      doc.AddMember(key, rapidjson::Value(static_cast<uint64_t>(n)), alloc);
    }
    return prettyJson(doc);
  }
  std::string out = "MAC driver calls since the agent started:\n";
  for (auto const& [name, n] : calls) {
    if (n > 0) out += "  " + std::string(name) + ": " + std::to_string(n) + "\n";
  }
  return out;
}

}  // namespace vemo::agent
