// The MAC SM's update list drained into the chip in time slices, and the FDB status and MAC table
// written with what the chip took.
#include <absl/cleanup/cleanup.h>

#include <algorithm>

#include "MacAddrSmReactors.h"
#include "Zol/Syslog.h"

ZOL_TRACE_MODULE("MacAddrSm")

namespace Vemo {

namespace {

Zol::SyslogMessage const macHostTableFull{
    "MAC_HOST_TABLE_FULL", LOG_ERR,
    "Unable to program %s host table entry for MAC address %s in VLAN %d due to hardware "
    "resource exhaustion",
    "The switching ASIC has no room for the entry; packets destined to the address are flooded.",
    "Reduce the number of host table entries that need to be programmed into the switching ASIC. "
    "One or more of the following steps might be helpful: 1. Reduce the number of static mac "
    "entries. 2. Clear dynamic mac table entries. 3. Introduce additional layer 3 boundaries to "
    "reduce the number of MAC addresses. Please contact your technical support representative if "
    "you need additional assistance."};

Zol::SyslogMessage const macHashCollision{
    "MAC_HASH_COLLISION", LOG_ERR,
    "The specified MAC address could not be programmed into the switching ASIC due to hash "
    "collisions in a bucket. Packets destined to the address will be flooded.",
    "Every place the address hashes to in the MAC table is taken.",
    "Clear dynamic mac table entries, or move hosts to other VLANs."};

Zol::U16 clipMoves(Zol::U32 moves) {
  return static_cast<Zol::U16>(std::min<Zol::U32>(moves, 0xFFFF));
}

}  // namespace

void MacAddrSm::updateQueuedAddresses() {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::updateQueuedAddresses()");
  if (roomFreed_) requeueFullEntries();
  refDeltas_.emplace();
  absl::Cleanup const writeRefs = [this] { applyRefDeltas(); };
  Zol::Seconds const deadline = now() + kSliceBudget;
  Zol::U32 const agingTime = in_.bridgingConfig->hostAgingTime();
  while (MacUpdateList::Queued const* queued = updateList_.front()) {
    if (auto const ahead = updateList_.ahead(kPrefetchAhead)) prefetch(*ahead);
    Bridging::MacVlanPair const key = queued->key;
    ModifyMacEntry const update = queued->update;
    if (agingTime > 0 && now() - queued->since > agingTime) {
      ZOL_TRACE(5, key << " has been in updateList for longer than aging time of " << agingTime
                       << " seconds");
    }
    std::optional<RemoteTarget> target;
    if (isRemoteAdd(update) && !(target = resolveRemote(update))) {
      // The next hop went while the entry was queued: it waits again, and what it would have
      // replaced is decided meanwhile.
      addToUpdateList(key, update);
      continue;
    }
    if (remoteLimitReached(key, update)) {
      fullEntries_.insert_or_assign(key, update);
      updateList_.popFront();
      continue;
    }
    MacProgramStatus const status = program(key, update, std::move(target));
    if (status == MacProgramStatus::macProgramBusy ||
        status == MacProgramStatus::macProgramFlushInProgress) {
      ZOL_TRACE(5, "Update failed as ASIC busy, retrying");
      updateClock_.timeMinIs(now() + kBusyRetryDelay);
      return;
    }
    updateList_.popFront();
    switch (status) {
      case MacProgramStatus::macProgramSuccess:
      case MacProgramStatus::macProgramInProgress:
        applied(key, update);
        break;
      case MacProgramStatus::macProgramFull:
        entryFull(key, update);
        break;
      default:
        // A wrong request fails again the same way: it waits for the next change of the pair.
        ZOL_TRACE(5, "Unable to program " << key << " " << update << ", code is " << status);
        break;
    }
    if (!updateList_.empty() && now() >= deadline) {
      ZOL_TRACE(
          8, "updateQueuedAddresses: time slice spent, " << updateList_.size() << " entries left");
      updateClock_.timeMinIs(0);
      return;
    }
  }
}

void MacAddrSm::prefetch(Bridging::MacVlanPair const& key) const {
  // A burst of changes leaves the tables' entries for a pair long out of the cache by the time
  // its turn in the list comes.
  updateList_.prefetch(key);
  if (auto const fdb = in_.bridgingStatus->fdbStatus(key.vlanId())) {
    fdb->learnedHostAll().prefetch(key.macAddr());
  }
  auto const& remote = in_.remoteMacInfoDir->hostStatusTable()->statusEntryAll();
  remote.prefetch(key);
}

bool MacAddrSm::isRemoteAdd(ModifyMacEntry const& update) {
  return update.action() == EntryEvaluationAction::addConfiguredRemote ||
         update.action() == EntryEvaluationAction::addLearntRemote;
}

bool MacAddrSm::remoteLimitReached(Bridging::MacVlanPair const& key,
                                   ModifyMacEntry const& update) const {
  if (!isRemoteAdd(update)) return false;
  auto const status = in_.remoteMacInfoDir->hostStatusTable();
  if (status->statusEntrySize() < maxRemoteMacs_ || status->statusEntryHas(key)) return false;
  ZOL_TRACE(5, key << " max remote MAC limit reached, " << maxRemoteMacs_
                   << " remote MACs programmed; it waits for room");
  return true;
}

MacProgramStatus MacAddrSm::program(Bridging::MacVlanPair const& key, ModifyMacEntry const& update,
                                    std::optional<RemoteTarget> target) {
  switch (update.action()) {
    case EntryEvaluationAction::addConfiguredToFdbStatusAndHardware:
      if (update.entryType() == Bridging::EntryType::evpnIntfDynamicMac) {
        ZOL_TRACE(
            6, " Programming evpn received mac as local mac: " << key << " intf " << update.intf());
      } else {
        ZOL_TRACE(6, " Programming MAC entry: " << key << " intf " << update.intf() << " type "
                                                << update.entryType() << " moves "
                                                << update.moves());
      }
      return in_.helper->addHost(key, update.intf(), clipMoves(update.moves()),
                                 !agesInHardware(update.entryType()), update.entryType());
    case EntryEvaluationAction::addConfiguredRemote:
    case EntryEvaluationAction::addLearntRemote: {
      if (!target) vemoAssert("a remote entry is programmed only once its next hop is known");
      programmedTarget_ = std::move(*target);
      Zol::U32 const nextHop = programmedTarget_.nextHop;
      if (skipDuringHitlessRestart(key, update, programmedTarget_)) {
        return MacProgramStatus::macProgramSuccess;
      }
      ZOL_TRACE(6, " Programming remote MAC entry: "
                       << key << " intf " << update.intf() << " nextHopId " << nextHop << " type "
                       << update.entryType() << " moves " << update.moves());
      // Only what the data plane learned ages in the chip, as a local learn does; announced and
      // configured MACs live until their source withdraws them.
      return in_.helper->addRemoteHost(key, update.intf(), nextHop, clipMoves(update.moves()),
                                       update.entryType() != Bridging::EntryType::learnedRemoteMac,
                                       update.entryType(), update.movedToRemote());
    }
    case EntryEvaluationAction::addLearntLocalAndRemoveRemote: {
      ZOL_TRACE(
          6, " Programming local in place of remote entry: " << key << " intf " << update.intf());
      MacProgramStatus const status =
          in_.helper->addLearntLocalAndRemoveRemoteHost(key, update.intf(), update.entryType());
      if (status != MacProgramStatus::macProgramSuccess &&
          status != MacProgramStatus::macProgramInProgress) {
        ZOL_TRACE(5, "Remote to local unsuccessful, code is " << status);
      }
      return status;
    }
    case EntryEvaluationAction::removeFromFdbStatusAndHardware:
      ZOL_TRACE(6, " Removing MAC entry: " << key << " type " << update.entryType());
      return in_.helper->removeHost(key, update.entryType());
    case EntryEvaluationAction::addLearntToFdbStatus:
    case EntryEvaluationAction::ignoreLearnt:
      // Nothing for the chip to do.
      return MacProgramStatus::macProgramSuccess;
    default:
      vemoAssert("no source of this MAC table queues " +
                 std::string(Zol::enumName(update.action())));
  }
}

void MacAddrSm::applied(Bridging::MacVlanPair const& key, ModifyMacEntry const& update) {
  switch (update.action()) {
    case EntryEvaluationAction::addConfiguredRemote:
    case EntryEvaluationAction::addLearntRemote: {
      // What program() just wrote.
      std::optional<VXLAN::HwVtepInfo> const& hw = programmedTarget_.vtep;
      VXLAN::StatusEntry const entry(key, update.intf(), update.swTunnelGroupId(),
                                     update.entryType(), VemoNextHopId(programmedTarget_.nextHop),
                                     hw ? hw->tunnelId() : VemoTunnelId::noTunnel());
      addToFdbStatus(key, Bridging::HostEntry(update.intf(), update.entryType(), update.moves(),
                                              update.lastMoveTime()));
      updateRemoteHostTableAfterHwProg(key, entry);
      if (update.l2RibObjTuple().objType() != L2Rib::ObjType::invalidObj) {
        programmedTuple_.insert_or_assign(key, update.l2RibObjTuple());
      } else {
        if (!programmedTuple_.empty()) programmedTuple_.erase(key);
      }
      break;
    }
    case EntryEvaluationAction::addLearntLocalAndRemoveRemote:
      // The chip learned the host here; the remote entry and its references are gone.
      addToFdbStatus(key, Bridging::HostEntry(update.intf(), update.entryType(), update.moves(),
                                              update.lastMoveTime()));
      break;
    case EntryEvaluationAction::addConfiguredToFdbStatusAndHardware:
      addToFdbStatus(key, Bridging::HostEntry(update.intf(), update.entryType(), update.moves(),
                                              update.lastMoveTime()));
      in_.macTable->entryIs(
          key, VemoTypes::MacAddressTableEntry(key, update.intf(), update.entryType()));
      break;
    case EntryEvaluationAction::removeFromFdbStatusAndHardware:
      delFromFdbStatus(key);
      roomFreed();
      break;
    case EntryEvaluationAction::addLearntToFdbStatus:
      addToFdbStatus(key, Bridging::HostEntry(update.intf(), update.entryType(), update.moves(),
                                              update.lastMoveTime()));
      break;
    default:
      break;
  }
}

void MacAddrSm::handleRefusedHost(Bridging::MacVlanPair const& key) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleRefusedHost(Bridging::MacVlanPair const&) " << key);
  if (!started_) return;
  auto const& refused = in_.helper->refusedHostAll();
  auto const it = refused.find(key);
  if (it == refused.end()) {
    ZOL_TRACE(6, key << " written after all");
    reevaluateEntry(key);
    return;
  }
  Bridging::HostEntry const* host = fdbEntry(key);
  if (!host || host->entryType() == Bridging::EntryType::learnedDynamicMac) return;
  ModifyMacEntry update;
  update.intfIs(host->intf());
  update.entryTypeIs(host->entryType());
  update.movesIs(host->moves());
  update.lastMoveTimeIs(host->lastMoveTime());
  update.actionIs(EntryEvaluationAction::addConfiguredToFdbStatusAndHardware);
  MacProgramStatus const status = it->second;
  // The FDB status no longer claims what the chip does not hold.
  delFromFdbStatus(key);
  if (status == MacProgramStatus::macProgramFull) {
    entryFull(key, update);
  } else {
    ZOL_TRACE(5, "Unable to program " << key << " " << update << ", code is " << status);
  }
}

void MacAddrSm::entryFull(Bridging::MacVlanPair const& key, ModifyMacEntry update) {
  bool const collision = in_.helper->lastFullIsHashCollision();
  ZOL_TRACE(5, "No room for " << key << " " << update << (collision ? " (hash collision)" : ""));
  if (!update.fullLogged()) {
    if (collision) {
      Zol::Syslog::emit(macHashCollision);
    } else {
      std::string const mac = key.macAddr().stringValue();
      Zol::Syslog::emit(macHostTableFull, agesInHardware(update.entryType()) ? "dynamic" : "static",
                        mac.c_str(), static_cast<int>(key.vlanId().value()));
    }
    update.fullLoggedIs(true);
  }
  fullEntries_.insert_or_assign(key, update);
}

void MacAddrSm::roomFreed() {
  if (fullEntries_.empty()) return;
  roomFreed_ = true;
  if (!updateClock_.armed()) updateClock_.timeMinIs(now());
}

void MacAddrSm::requeueFullEntries() {
  roomFreed_ = false;
  // In key order, so that which entry gets the room is not up to the hash map.
  std::vector<std::pair<Bridging::MacVlanPair, ModifyMacEntry>> kept(fullEntries_.begin(),
                                                                     fullEntries_.end());
  std::sort(kept.begin(), kept.end(),
            [](auto const& a, auto const& b) { return a.first < b.first; });
  ZOL_TRACE(6, "room freed: " << kept.size() << " entries the chip had no room for queued again");
  for (auto const& [key, update] : kept) addToUpdateList(key, update);
}

// -- The FDB status: one child per filtering identifier, gone when it holds no host.

Bridging::HostEntry const* MacAddrSm::fdbEntry(Bridging::MacVlanPair const& key) const {
  auto const& all = in_.bridgingStatus->fdbStatusAll();
  auto const child = all.find(key.vlanId());
  if (child == all.end()) return nullptr;
  auto const& hosts = child->second->learnedHostAll();
  auto const it = hosts.find(key.macAddr());
  return it == hosts.end() ? nullptr : &it->second;
}

void MacAddrSm::addToFdbStatus(Bridging::MacVlanPair const& key, Bridging::HostEntry const& entry) {
  ZOL_TRACE(5, "addToFdbStatus " << key << " " << entry);
  Zol::Ptr<Bridging::FdbStatus> status = in_.bridgingStatus->fdbStatus(key.vlanId());
  if (!status) status = in_.bridgingStatus->fdbStatusIs(key.vlanId());
  status->learnedHostIs(key.macAddr(), entry);
  bool const learned = entry.entryType() == Bridging::EntryType::learnedDynamicMac;
  // A learn that overtook a programmed entry: the SM no longer holds anything there.
  if ((learned || entry.intf().isVxlan()) && in_.macTable->entrySize() > 0) {
    in_.macTable->entryDel(key);
  }
  if (!entry.intf().isVxlan() && in_.remoteMacInfoDir->hostStatusTable()->statusEntrySize() > 0) {
    updateRemoteHostTableAfterHwProg(key, std::nullopt);
  }
  offerToL2Rib(key, learned ? &entry : nullptr);
}

void MacAddrSm::offerToL2Rib(Bridging::MacVlanPair const& key, Bridging::HostEntry const* learned) {
  // Hosts learned here in a VLAN of the overlay are offered to the layer-2 RIB, which announces
  // them to the other VTEPs; hosts of other VLANs are no one else's business.
  if (learned && in_.remoteMacInfoDir->vniInfo()->validVlanVniMapHas(key.vlanId())) {
    in_.l2RibHostInput->hostIs(
        key, L2Rib::HostInputEntry(learned->intf(), learned->moves(), learned->lastMoveTime()));
  } else if (in_.l2RibHostInput->hostSize() > 0 && in_.l2RibHostInput->hostHas(key)) {
    in_.l2RibHostInput->hostDel(key);
  }
}

void MacAddrSm::delFromFdbStatus(Bridging::MacVlanPair const& key) {
  ZOL_TRACE(5, "delFromFdbStatus " << key);
  in_.macTable->entryDel(key);
  updateRemoteHostTableAfterHwProg(key, std::nullopt);
  if (in_.l2RibHostInput->hostHas(key)) in_.l2RibHostInput->hostDel(key);
  Zol::Ptr<Bridging::FdbStatus> const status = in_.bridgingStatus->fdbStatus(key.vlanId());
  if (!status) return;
  status->learnedHostDel(key.macAddr());
  if (status->learnedHostSize() == 0) in_.bridgingStatus->fdbStatusDel(key.vlanId());
}

}  // namespace Vemo
