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
