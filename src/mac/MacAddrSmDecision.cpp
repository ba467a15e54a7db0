// The MAC SM's decision: the best candidate of the sources, what is installed or about to be,
// and what to do about a learn, an age or a change of a source.
#include <cmath>

#include "MacAddrSmReactors.h"

ZOL_TRACE_MODULE("MacAddrSm")

namespace Vemo {

namespace {

using Bridging::EntryType;

MacCandidate candidate(Bridging::MacVlanPair const& key, Nepo::IntfId const& intf, EntryType type,
                       Zol::U32 moves, double lastMoveTime, Zol::U8 preference = 0) {
  return MacCandidate(key, intf, type, SwTunnelGroupId(), Tolm::Seqno32(moves), lastMoveTime,
                      preference, false, L2Rib::ObjTuple(), false);
}

// A chip reports every dynamic entry it holds as learned, whoever put it there, so the kinds it
// ages are one kind to a learn event.
bool fuzzyTypeMatch(EntryType a, EntryType b) {
  return a == b || (MacAddrSm::agesInHardware(a) && MacAddrSm::agesInHardware(b));
}

bool sameTarget(MacCandidate const& a, MacCandidate const& b) {
  return a.intf() == b.intf() && a.entryType() == b.entryType() &&
         a.swTunnelGroupId() == b.swTunnelGroupId() &&
         a.l2RibObjTupleSet() == b.l2RibObjTupleSet() &&
         (!a.l2RibObjTupleSet() || a.l2RibObjTuple() == b.l2RibObjTuple());
}

// "later" as the ranking reads time: a NaN time is never later.
bool later(double a, double b) { return !std::isnan(a) && !std::isnan(b) && a > b; }

}  // namespace

std::optional<MacCandidate> MacAddrSm::configuredEntry(Bridging::MacVlanPair const& key) {
  ZOL_TRACE(9,
            "std::optional<Vemo::MacCandidate> Vemo::MacAddrSm::configuredEntry("
            "Bridging::MacVlanPair const&) "
                << key);
  std::optional<MacCandidate> best;
  auto consider = [&](MacCandidate const& c, char const* from) {
    if (!intfExists(c.intf())) {
      ZOL_TRACE(8, key << " candidate on " << c.intf() << " skipped: no such interface");
      return;
    }
    ZOL_TRACE(8, key << from << ": " << c);
    if (betterEntry(c, best ? &*best : nullptr, *in_.swTunnelGroupIdManager)) best = c;
  };

  bool configuredStatic = false;
  if (auto const fdb = in_.bridgingConfig->fdbConfig(key.vlanId())) {
    if (fdb->configuredHostHas(key.macAddr())) {
      Bridging::HostEntry const& host = fdb->configuredHost(key.macAddr());
      configuredStatic = host.entryType() == EntryType::configuredStaticMac;
      // A configured dynamic entry that aged stays out until it is configured again.
      if (!(isProgrammedDynamic(host.entryType()) && agedConfiguredDynamic_.contains(key))) {
        consider(candidate(key, host.intf(), host.entryType(), host.moves(), host.lastMoveTime()),
                 " candidate from fdbConfig");
      }
    }
  }
  bool const routerMac = in_.routerMacTable && in_.routerMacTable->routerMacHas(key);
  if (routerMac) {
    consider(candidate(key, Nepo::IntfId(Nepo::IntfKind::Cpu, {}), EntryType::routerMac, 0, 0,
                       kRouterMacPreference),
             " candidate from routerMacTable");
  }
  if (configuredStatic && routerMac) {
    collidingStatic_.insert(key);
  } else {
    collidingStatic_.erase(key);
  }
  if (in_.nonAgingMacStatus && in_.nonAgingMacStatus->hostHas(key)) {
    // Kept where the chip last learned it.
    auto const& hw = in_.hwMacTable->entryAll();
    auto const it = hw.find(key);
    Bridging::HostEntry const* host = fdbEntry(key);
    Nepo::IntfId const intf = it != hw.end() ? it->second.intf()
                              : host         ? host->intf()
                                             : Nepo::IntfId();
    if (!intf.isEmpty()) {
      consider(candidate(key, intf, EntryType::nonAgingMac, host ? host->moves() : 0,
                         host ? host->lastMoveTime() : now()),
               " candidate from nonAgingMacStatus");
    }
  }
  if (!best) ZOL_TRACE(8, key << " entry not found in collections");
  return best;
}

std::optional<MacCandidate> MacAddrSm::currentEntry(Bridging::MacVlanPair const& key) const {
  if (auto const it = updateList_.find(key); it != updateList_.end()) {
    ModifyMacEntry const& u = it->second.update;
    ZOL_TRACE(
        8, "Found a pending operation in updateList with action " << u.action() << " for " << key);
    if (u.action() == EntryEvaluationAction::removeFromFdbStatusAndHardware) return std::nullopt;
    if (u.action() != EntryEvaluationAction::ignoreLearnt) {
      return candidate(key, u.intf(), u.entryType(), u.moves(), u.lastMoveTime());
    }
  }
  if (Bridging::HostEntry const* host = fdbEntry(key)) {
    ZOL_TRACE(8, "Found entry in fdbStatus for " << key << ": " << *host);
    return candidate(key, host->intf(), host->entryType(), host->moves(), host->lastMoveTime());
  }
  return std::nullopt;
}

void MacAddrSm::reevaluateEntry(Bridging::MacVlanPair const& key) {
  evaluateEntry(key, Nepo::IntfId(), SwTunnelGroupId(), L2Rib::ObjTuple(), EntryType::unknownMac,
                /*learnedInHardware=*/false, /*aged=*/false, now());
}

void MacAddrSm::evaluateEntry(Bridging::MacVlanPair const& key, Nepo::IntfId const& intf,
                              SwTunnelGroupId swTunnelGroupId, L2Rib::ObjTuple const& objTuple,
                              Bridging::EntryType entryType, bool learnedInHardware, bool aged,
                              double lastMoveTime) {
  ZOL_TRACE(9,
            "void Vemo::MacAddrSm::evaluateEntry(Bridging::MacVlanPair const&, Nepo::IntfId "
            "const&, Vemo::SwTunnelGroupId, L2Rib::ObjTuple const&, Bridging::EntryType, bool, "
            "bool, double) "
                << key << " " << intf << " " << entryType << " " << learnedInHardware << " " << aged
                << " " << lastMoveTime);
  if (aged) {
    handleAgeEvent(key);
    return;
  }
  std::optional<MacCandidate> const configured = configuredEntry(key);
  std::optional<MacCandidate> const current = currentEntry(key);
  if (current) {
    ZOL_TRACE(8, "Current entry is " << *current);
  } else {
    ZOL_TRACE(8, "Current entry is none");
  }
  if (configured) {
    ZOL_TRACE(8, "Configured entry is " << *configured);
  } else {
    ZOL_TRACE(8, "Configured entry is none");
  }
  if (!learnedInHardware) {
    handleSourceChange(key, configured, current);
    return;
  }
  if (Bridging::HostEntry const* host = fdbEntry(key);
      host && host->intf() == intf && fuzzyTypeMatch(host->entryType(), entryType)) {
    ZOL_TRACE(8, "Ignoring event for mac entry " << key
                                                 << " that matches current entry in fdb "
                                                    "status");
    return;
  }
  if (checkIgnoreEvent(configured, intf, entryType, learnedInHardware)) {
    ZOL_TRACE(6, " Final action: ignore - MAC entry: " << key << " intf " << intf);
    return;
  }
  ModifyMacEntry learned;
  learned.intfIs(intf);
  learned.entryTypeIs(entryType);
  learned.swTunnelGroupIdIs(swTunnelGroupId);
  learned.l2RibObjTupleIs(objTuple);
  learned.lastMoveTimeIs(lastMoveTime);
  learned.actionIs(EntryEvaluationAction::addLearntToFdbStatus);
  maybeUpdateMoveCount(learned, current, intf);
  handleLearnEvent(key, learned, configured);
}

void MacAddrSm::maybeUpdateMoveCount(ModifyMacEntry& update,
                                     std::optional<MacCandidate> const& current,
                                     Nepo::IntfId const& intf) {
  if (!current) {
    ZOL_TRACE(8, "Not changing current entry move count");
    return;
  }
  if (current->intf() != intf) {
    // A move: its time is this event's.
    update.movesIs(current->moveCount().value() + 1);
    ZOL_TRACE(8, "Setting moves from configured+1: " << update.moves());
    return;
  }
  update.movesIs(current->moveCount().value());
  update.lastMoveTimeIs(current->lastMoveTime());
  ZOL_TRACE(8, "Setting moves from configured: " << update.moves());
}

bool MacAddrSm::checkIgnoreEvent(std::optional<MacCandidate> const& configured,
                                 Nepo::IntfId const& intf, Bridging::EntryType entryType,
                                 bool learnedInHardware) const {
  if (!configured) {
    ZOL_TRACE(8, " no configEntry, returning false ");
    return false;
  }
  if (configured->intf() != intf) {
    ZOL_TRACE(8, " intfs don't match, returning false.  ");
    return false;
  }
  if (!learnedInHardware) {
    ZOL_TRACE(8, " not learnedInHardware, returning false");
    return false;
  }
  if (!fuzzyTypeMatch(configured->entryType(), entryType)) {
    ZOL_TRACE(8, " fuzzy type match failed, returning false.");
    return false;
  }
  if (configured->swTunnelGroupId().isEmpty() && !configured->l2RibObjTupleSet()) {
    ZOL_TRACE(8, " no tunnel(s)/l2RibObjTuple returning true.");
    return true;
  }
  ZOL_TRACE(8, " fall through, returning true.");
  return true;
}

void MacAddrSm::handleLearnEvent(Bridging::MacVlanPair const& key, ModifyMacEntry learned,
                                 std::optional<MacCandidate> const& configured) {
  if (!agesInHardware(learned.entryType())) {
    // The driver reports only what the chip ages; anything else is not the chip's to learn.
    ZOL_TRACE(5, "unexpected learn "
                     << key << " intf " << learned.intf() << " type " << learned.entryType()
                     << " configured type "
                     << (configured ? configured->entryType() : EntryType::unknownMac)
                     << " configured intf " << (configured ? configured->intf() : Nepo::IntfId()));
    ZOL_TRACE(5, "Removing entry");
    if (configured) {
      queueConfigured(key, *configured, std::nullopt);
    } else {
      learned.actionIs(EntryEvaluationAction::removeFromFdbStatusAndHardware);
      addToUpdateList(key, learned);
    }
    return;
  }
  if (!configured) {
    addLearntToFdbStatus(key, learned);
    return;
  }
  if (isProgrammedDynamic(configured->entryType())) {
    // Both are dynamic: the host is where it was seen last.
    if (later(learned.lastMoveTime(), configured->lastMoveTime())) {
      ZOL_TRACE(6, "Learned dynamic entry is more recent than configured");
      addLearntToFdbStatus(key, learned);
    } else {
      ZOL_TRACE(6, "Configured dynamic entry is more recent than learned");
      queueConfigured(key, *configured, std::nullopt);
    }
    return;
  }
  // Every other configured kind is static: it stays, and the chip is set back to it.
  ZOL_TRACE(6, "Configured " << configured->entryType() << " entry overrides learn on "
                             << learned.intf());
  queueConfigured(key, *configured, std::nullopt);
}

void MacAddrSm::handleAgeEvent(Bridging::MacVlanPair const& key) {
  Bridging::HostEntry const* host = fdbEntry(key);
  if (host && !agesInHardware(host->entryType())) {
    // The chip dropped a learn of its own that a programmed entry replaced.
    ZOL_TRACE(8, "age of " << key << " ignored: " << host->entryType() << " is programmed static");
    return;
  }
  if (host) {
    if (isProgrammedDynamic(host->entryType())) agedConfiguredDynamic_.insert(key);
    delFromFdbStatus(key);
  }
  // The next best candidate takes over.
  std::optional<MacCandidate> const configured = configuredEntry(key);
  if (configured) {
    ZOL_TRACE(6, "Entry aged, using " << configured->entryType() << " entry");
    queueConfigured(key, *configured, std::nullopt);
  }
}

void MacAddrSm::handleSourceChange(Bridging::MacVlanPair const& key,
                                   std::optional<MacCandidate> const& configured,
                                   std::optional<MacCandidate> const& current) {
  if (configured) {
    if (current && sameTarget(*current, *configured)) {
      ZOL_TRACE(8, " Final action: ignore - MAC entry: " << key << " is installed");
      fullEntries_.erase(key);
      return;
    }
    if (current && current->entryType() == EntryType::learnedDynamicMac &&
        isProgrammedDynamic(configured->entryType()) &&
        later(current->lastMoveTime(), configured->lastMoveTime())) {
      ZOL_TRACE(6, "Learned dynamic entry is more recent than configured");
      return;
    }
    queueConfigured(key, *configured, current);
    return;
  }
  fullEntries_.erase(key);
  if (current && current->entryType() != EntryType::learnedDynamicMac) {
    ModifyMacEntry update;
    update.intfIs(current->intf());
    update.entryTypeIs(current->entryType());
    update.movesIs(current->moveCount().value());
    update.lastMoveTimeIs(current->lastMoveTime());
    update.actionIs(EntryEvaluationAction::removeFromFdbStatusAndHardware);
    addToUpdateList(key, update);
    return;
  }
  ZOL_TRACE(8, " Final action: ignore - MAC entry: " << key);
}

void MacAddrSm::queueConfigured(Bridging::MacVlanPair const& key, MacCandidate const& configured,
                                std::optional<MacCandidate> const& current) {
  ModifyMacEntry update;
  update.intfIs(configured.intf());
  update.entryTypeIs(configured.entryType());
  update.swTunnelGroupIdIs(configured.swTunnelGroupId());
  update.l2RibObjTupleIs(configured.l2RibObjTuple());
  update.movesIs(configured.moveCount().value());
  update.lastMoveTimeIs(configured.lastMoveTime());
  update.actionIs(EntryEvaluationAction::addConfiguredToFdbStatusAndHardware);
  if (current) maybeUpdateMoveCount(update, current, configured.intf());
  addToUpdateList(key, update);
}

void MacAddrSm::addLearntToFdbStatus(Bridging::MacVlanPair const& key,
                                     ModifyMacEntry const& learned) {
  if (isProgrammedDynamic(learned.entryType())) vemoAssert("!isProgrammedDynamic( entryType )");
  // The chip holds it already: whatever was queued for the pair is overtaken.
  updateList_.erase(key);
  fullEntries_.erase(key);
  ZOL_TRACE(6, " Final action: addLearntToFdbStatus - MAC Entry: " << key << " " << learned);
  addToFdbStatus(key, Bridging::HostEntry(learned.intf(), learned.entryType(), learned.moves(),
                                          learned.lastMoveTime()));
}

void MacAddrSm::addToUpdateList(Bridging::MacVlanPair const& key, ModifyMacEntry update) {
  if (auto const kept = fullEntries_.find(key); kept != fullEntries_.end()) {
    // The same entry refused for want of room is not logged again.
    if (kept->second.intf() == update.intf() && kept->second.entryType() == update.entryType()) {
      update.fullLoggedIs(kept->second.fullLogged());
    }
    fullEntries_.erase(kept);
  }
  auto [it, inserted] = updateList_.try_emplace(key, Queued{update, now()});
  if (!inserted) {
    ZOL_TRACE(8, "Found a pending operation in updateList with key: " << key);
    it->second.update = update;
  } else {
    updateOrder_.push_back(key);
  }
  ZOL_TRACE(6, " Adding to update list - MAC entry: " << key << " " << update);
  if (!updateClock_.armed()) updateClock_.timeMinIs(now());
}

}  // namespace Vemo
