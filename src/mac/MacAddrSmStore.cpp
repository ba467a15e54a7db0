// The MAC SM's persistent store: what the chip holds, saved when the SM stops and read back when
// the next one starts, so that a restarted agent neither rewrites what the chip already holds nor
// forgets how often its hosts moved.
//
// When: the SM saves as it stops (an orderly restart or shutdown of the agent), and the next SM
// reads the file once at its first pass and removes it. A crash therefore leaves no file behind,
// never a stale one: the SM after a crash starts cold rather than trust a state the chip may have
// moved on from.
//
// What is restored: every programmed entry (local and remote, with its next hop and tunnel
// endpoints) into the FDB status, the MAC table and the remote host status table with their
// references; and the move counts of learned hosts the chip still holds on the same interface.
// Every restored pair is then decided again against its sources like any other: what still
// stands is not written, what changed is written, what no source claims any more is removed.
//
// A store that cannot be read is refused whole with one log line, and the SM reconciles as on a
// cold start: it adopts what the chip driver reports as learned (move counts start again) and
// writes every entry its sources claim (a write replaces whatever the chip holds for the pair).
#include <cstdio>

#include "MacAddrSmReactors.h"
#include "Vemo/MacStateStore.h"
#include "Zol/Syslog.h"

ZOL_TRACE_MODULE("MacAddrSm")

namespace Vemo {

namespace {

Zol::SyslogMessage const macStateStoreRefused{
    "MAC_STATE_STORE_REFUSED", LOG_WARNING, "MAC state store %s not used: %s",
    "The file the MAC table's state was saved in at the last restart cannot be read back.",
    "None: the MAC table is programmed again from its sources, and learned hosts are taken as "
    "the chip reports them."};

}  // namespace

void MacAddrSm::restoreFromStore() {
  std::string const path = in_.helper->persistentStorePath();
  if (path.empty()) return;
  MacStateStore::Loaded loaded = MacStateStore::load(path);
  if (loaded.kind == MacStateStore::Loaded::Kind::absent) {
    ZOL_TRACE(5, "no MAC state store at " << path << ": cold start");
    return;
  }
  // Read once: a later crash must not find it again.
  std::remove(path.c_str());
  if (loaded.kind == MacStateStore::Loaded::Kind::refused) {
    Zol::Syslog::emit(macStateStoreRefused, path.c_str(), loaded.reason.c_str());
    return;
  }
  size_t restored = 0;
  auto const& hw = in_.hwMacTable->entryAll();
  for (StoredMacEntry const& e : loaded.snapshot.entries) {
    Bridging::HostEntry const host(e.intf, e.entryType, e.moves, e.lastMoveTime);
    if (e.entryType == Bridging::EntryType::learnedDynamicMac) {
      // Only a host the chip still holds where it was: anything else the chip reports anew.
      auto const it = hw.find(e.key);
      if (it == hw.end() || it->second.intf() != e.intf) continue;
      addToFdbStatus(e.key, host);
    } else if (e.intf.isVxlan()) {
      if (skipRemote_ || e.tunnelIps.tunnelIpAddrSize() == 0) continue;
      SwTunnelGroupId const group =
          e.tunnelIps.tunnelIpAddrSize() == 1
              ? in_.swTunnelGroupIdManager->getSwTunnelGroupIdForTunnelIp(
                    e.tunnelIps.tunnelIpAddrAll().begin()->first)
              : in_.swTunnelGroupIdManager->getSwTunnelGroupIdForTunnelIpList(e.tunnelIps);
      std::optional<VXLAN::HwVtepInfo> const vtep = hwVtepOf(e.intf, group);
      addToFdbStatus(e.key, host);
      updateRemoteHostTableAfterHwProg(
          e.key, VXLAN::StatusEntry(e.key, e.intf, group, e.entryType, e.nextHopId,
                                    vtep ? vtep->tunnelId() : VemoTunnelId::noTunnel()));
    } else {
      addToFdbStatus(e.key, host);
      in_.macTable->entryIs(e.key, VemoTypes::MacAddressTableEntry(e.key, e.intf, e.entryType));
    }
    ++restored;
  }
  ZOL_TRACE(5, "restored " << restored << " of " << loaded.snapshot.entries.size()
                           << " entries from the MAC state store " << path);
}

void MacAddrSm::saveToStore() const {
  std::string const path = in_.helper->persistentStorePath();
  if (path.empty() || !started_) return;
  MacStoreSnapshot snapshot;
  auto const& remote = in_.remoteMacInfoDir->hostStatusTable()->statusEntryAll();
  for (auto const& [fid, status] : in_.bridgingStatus->fdbStatusAll()) {
    for (auto const& [mac, host] : status->learnedHostAll()) {
      StoredMacEntry e;
      e.key = Bridging::MacVlanPair(mac, fid);
      e.intf = host.intf();
      e.entryType = host.entryType();
      e.moves = host.moves();
      e.lastMoveTime = host.lastMoveTime();
      if (host.intf().isVxlan()) {
        auto const it = remote.find(e.key);
        if (it == remote.end()) continue;
        e.tunnelIps = in_.swTunnelGroupIdManager->getTunnelIpListFromSwTunnelGroupId(
            it->second.swTunnelGroupId());
        e.nextHopId = it->second.nextHopId();
        // Held through a RIB object, whose hardware id the next run looks up again.
        if (e.tunnelIps.tunnelIpAddrSize() == 0) continue;
      }
      snapshot.entries.push_back(std::move(e));
    }
  }
  std::string reason;
  if (MacStateStore::save(path, snapshot, &reason)) {
    ZOL_TRACE(5, "saved " << snapshot.entries.size() << " entries in the MAC state store " << path);
    return;
  }
  // An old file would describe a chip that moved on: none is better.
  std::remove(path.c_str());
  Zol::Syslog::emit(macStateStoreRefused, path.c_str(), ("cannot save: " + reason).c_str());
}

}  // namespace Vemo
