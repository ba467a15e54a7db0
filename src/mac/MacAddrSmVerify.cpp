// The MAC SM's consistency check: the FDB status against the SM's MAC table and the chip driver's,
// learning as set against the chip, then the helper's own comparison of the chip.
#include "MacAddrSmReactors.h"

ZOL_TRACE_MODULE("MacAddrSm")

namespace Vemo {

namespace {

std::string text(Bridging::MacVlanPair const& key) {
  std::ostringstream os;
  os << key;
  return os.str();
}

std::string format(char const* fmt, auto... args) {
  char buf[256];
  std::snprintf(buf, sizeof buf, fmt, args...);
  return buf;
}

// A recount of references by index against the table that holds them.
void compareCounts(VerifyData& report, char const* what,
                   absl::btree_map<Zol::U64, Zol::U32> const& expected,
                   VXLAN::RefcountTable const& table) {
  for (auto const& [index, count] : expected) {
    Zol::U32 const actual = table.refcountHas(index) ? table.refcount(index).count() : 0;
    if (actual != count) {
      report.reportMismatch("MacAddrSm", std::string(what) + " " + std::to_string(index) +
                                             " reference count " + std::to_string(actual) +
                                             ", expected " + std::to_string(count));
    }
  }
  for (auto const& [index, value] : table.refcountAll()) {
    if (!expected.contains(index)) {
      report.reportMismatch("MacAddrSm", std::string(what) + " " + std::to_string(index) +
                                             " holds references no remote MAC accounts for");
    }
  }
}

}  // namespace

void MacAddrSm::handleVerify(Zol::String const& request) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleVerify(Zol::String const&) " << request);
  if (!started_) {
    // Nothing is programmed yet: the request waits for this SM's answer, given after the first
    // pass.
    if (pendingVerify_.insert(request).second) verifyData().answerDeferred(request);
    return;
  }
  verifyTables();
  verifyLearning();
  verifyRemote();
  in_.helper->handleVerify();
}

void MacAddrSm::verifyTables() {
  VerifyData& report = verifyData();
  auto const& hw = in_.hwMacTable->entryAll();
  size_t programmed = 0;
  // The FDB status's per-VLAN children are the SM's index of hosts by VLAN: one per VLAN that
  // holds a host, under its own VLAN.
  ZOL_TRACE(8, " verifying vlanBasedHostTableIndex");
  for (auto const& [fid, status] : in_.bridgingStatus->fdbStatusAll()) {
    if (status->fid() != fid || status->learnedHostSize() == 0) {
      report.reportMismatch("MacAddrSm",
                            "fdbStatus of vlan " + std::to_string(fid.value()) +
                                (status->fid() != fid ? " is keyed wrongly" : " is empty"));
    }
  }
  for (auto const& [key, entry] : in_.macTable->entryAll()) {
    if (!fdbEntry(key)) {
      report.reportMismatch("MacAddrSm", text(key) + " not found in vlanBasedHostTableIndex");
    }
  }
  for (auto const& [fid, status] : in_.bridgingStatus->fdbStatusAll()) {
    for (auto const& [mac, host] : status->learnedHostAll()) {
      Bridging::MacVlanPair const key(mac, fid);
      // An event the SM has not taken yet explains any difference with the driver's table.
      if (macTableUpdatePending_.contains(key)) continue;
      // Remote entries are checked against the remote host status table.
      if (host.intf().isVxlan()) continue;
      if (host.entryType() == Bridging::EntryType::learnedDynamicMac) {
        auto const it = hw.find(key);
        if (it == hw.end() || it->second.intf() != host.intf()) {
          report.reportMismatch("MacAddrSm", text(key) + " is learned on " +
                                                 host.intf().stringValue() +
                                                 " in fdbStatus but not in the chip's table");
        }
        continue;
      }
      ++programmed;
      VemoTypes::MacAddressTableEntry const expected(key, host.intf(), host.entryType());
      if (!in_.macTable->entryHas(key) || in_.macTable->entry(key) != expected) {
        report.reportMismatch("MacAddrSm", text(key) + " is in fdbStatus on " +
                                               host.intf().stringValue() +
                                               " but not so in the programmed MAC table");
      }
    }
  }
  if (programmed != in_.macTable->entrySize()) {
    for (auto const& [key, entry] : in_.macTable->entryAll()) {
      Bridging::HostEntry const* host = fdbEntry(key);
      if (host && host->entryType() == Bridging::EntryType::learnedDynamicMac) {
        report.reportMismatch("MacAddrSm", text(key) +
                                               " is in the programmed MAC table but learned in "
                                               "fdbStatus");
      }
    }
  }
}

void MacAddrSm::verifyLearning() {
  VerifyData& report = verifyData();
  for (auto const& [intf, enable] : learning_) {
    if (in_.helper->verifyLearning(intf, enable)) continue;
    report.reportMismatch("MacAddrSm", "learning on " + intf.stringValue() + " is " +
                                           (enable ? "enabled" : "disabled") +
                                           " but not in the chip");
  }
  for (auto const& [vlan, enable] : vlanLearning_) {
    if (in_.helper->verifyLearningOnVlan(vlan, enable)) continue;
    report.reportMismatch("MacAddrSm", "learning in vlan " + std::to_string(vlan.value()) + " is " +
                                           (enable ? "enabled" : "disabled") +
                                           " but not in the chip");
  }
}

}  // namespace Vemo

namespace Vemo {

void MacAddrSm::verifyRemote() {
  VerifyData& report = verifyData();
  auto const& status = in_.remoteMacInfoDir->hostStatusTable()->statusEntryAll();
  // Recounts from the remote host status table.
  absl::btree_map<Zol::U64, Zol::U32> groups;
  absl::btree_map<Zol::U64, Zol::U32> nextHops;
  absl::btree_map<Zol::U64, Zol::U32> vlans;
  for (auto const& [key, entry] : status) {
    if (!entry.swTunnelGroupId().isEmpty()) ++groups[entry.swTunnelGroupId().value()];
    if (entry.nextHopId().isValid()) ++nextHops[entry.nextHopId().value()];
    ++vlans[key.vlanId().value()];
    Bridging::HostEntry const* host = fdbEntry(key);
    if (!host || host->intf() != entry.intf() || host->entryType() != entry.entryType()) {
      report.reportMismatch("MacAddrSm", text(key) +
                                             " is in the remote host status table but not so in "
                                             "fdbStatus");
    }
    if (!in_.helper->verifyRemoteHost(key, entry.nextHopId().value())) {
      report.reportMismatch("MacAddrSm", text(key) + " is not in the chip behind next hop " +
                                             std::to_string(entry.nextHopId().value()));
    }
  }
  if (!in_.helper->verifyNumRemoteHost(static_cast<Zol::U16>(status.size()))) {
    report.reportMismatch(
        "MacAddrSm", "the chip does not hold " + std::to_string(status.size()) + " remote MACs");
  }
  // SwTunnelGroupId references: this SM's own (by group) against the recount, and the shared
  // table must hold at least this SM's.
  for (auto const& [group, keys] : remoteByGroup_) {
    // MACs held through a RIB object have no group.
    if (group.isEmpty()) continue;
    if (!groups.contains(group.value())) {
      report.reportMismatch("MacAddrSm", format("SwTunnelGroupId %llu found but not expected",
                                                static_cast<unsigned long long>(group.value())));
    }
  }
  auto const& shared = in_.swTunnelGroupIdManager->data()->refcountTable();
  for (auto const& [value, count] : groups) {
    auto const it = remoteByGroup_.find(SwTunnelGroupId(value));
    if (it == remoteByGroup_.end()) {
      report.reportMismatch("MacAddrSm", format("SwTunnelGroupId %llu expected but not found",
                                                static_cast<unsigned long long>(value)));
      continue;
    }
    Zol::U32 const own = it->second.live;
    Zol::U32 const held = shared->refcountHas(value) ? shared->refcount(value).count() : 0;
    if (own != count || held < count) {
      report.reportMismatch(
          "MacAddrSm",
          format("swTunnelGroupId reference count doesn't match for %llu "
                 "Actual: %u Expected %u ",
                 static_cast<unsigned long long>(value), own != count ? own : held, count));
    }
  }
  compareCounts(report, "nextHopId", nextHops, *in_.remoteMacInfoDir->nextHopIdRefcountTable());
  compareCounts(report, "vlan", vlans, *in_.remoteMacInfoDir->vlanRefcountTable());
  // The remote MACs by VLAN.
  size_t indexed = 0;
  for (auto const& [vlan, index] : in_.remoteMacInfoDir->vlanBasedHostTableIndexAll()) {
    for (auto const& [mac, on] : index->macAddrListAll()) {
      ++indexed;
      Bridging::MacVlanPair const key(mac, Bridging::VlanId(static_cast<Zol::U16>(vlan)));
      if (!status.contains(key)) {
        report.reportMismatch("MacAddrSm",
                              text(key) + " is in vlanBasedHostTableIndex but not programmed");
      }
    }
  }
  for (auto const& [key, entry] : status) {
    auto const index = in_.remoteMacInfoDir->vlanBasedHostTableIndex(key.vlanId().value());
    if (!index || !index->macAddrListHas(key.macAddr())) {
      report.reportMismatch("MacAddrSm", text(key) + " not found in vlanBasedHostTableIndex");
    }
  }
  if (indexed != status.size()) {
    report.reportMismatch("MacAddrSm", "vlanBasedHostTableIndex holds " + std::to_string(indexed) +
                                           " MACs, " + std::to_string(status.size()) +
                                           " remote MACs are programmed");
  }
  // The MLAG host index against the MLAG host table.
  size_t mlagIndexed = 0;
  for (auto const& [intf, keys] : mlagHostTableIndex_) mlagIndexed += keys.size();
  auto const& peerHosts = in_.mlagHostTable->hostEntryAll();
  for (auto const& [key, host] : peerHosts) {
    auto const index = mlagHostTableIndex_.find(host.intf());
    if (index == mlagHostTableIndex_.end() || !index->second.contains(key)) {
      report.reportMismatch("MacAddrSm", text(key) + " not found in mlagHostTableIndex");
    }
  }
  if (mlagIndexed != peerHosts.size()) {
    report.reportMismatch("MacAddrSm", "mlagHostTableIndex holds " + std::to_string(mlagIndexed) +
                                           " hosts, the MLAG host table " +
                                           std::to_string(peerHosts.size()));
  }
}

}  // namespace Vemo
