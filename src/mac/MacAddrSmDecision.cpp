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

// The same port, or the same VTEPs of a tunnel interface (not through a RIB object).
bool samePlace(MacCandidate const& a, MacCandidate const& b) {
  return a.intf() == b.intf() && a.swTunnelGroupId() == b.swTunnelGroupId() &&
         !a.l2RibObjTupleSet() && !b.l2RibObjTupleSet();
}

// "later" as the ranking reads time: a NaN time is never later.
bool later(double a, double b) { return !std::isnan(a) && !std::isnan(b) && a > b; }

// Kinds that exist because a host was seen there: each follows the host.
bool learnedKind(EntryType t) {
  return t == EntryType::learnedDynamicMac || t == EntryType::learnedRemoteMac;
}

bool tupleSet(L2Rib::ObjTuple const& t) { return t.objType() != L2Rib::ObjType::invalidObj; }

}  // namespace

bool MacAddrSm::isDynamicSource(EntryType t) {
  return t == EntryType::configuredDynamicMac || t == EntryType::peerDynamicMac ||
         t == EntryType::peerDynamicRemoteMac || t == EntryType::evpnDynamicRemoteMac ||
         t == EntryType::receivedRemoteMac || t == EntryType::evpnIntfDynamicMac;
}

std::optional<MacCandidate> MacAddrSm::configuredEntry(Bridging::MacVlanPair const& key) {
  ZOL_TRACE(9,
            "std::optional<Vemo::MacCandidate> Vemo::MacAddrSm::configuredEntry("
            "Bridging::MacVlanPair const&) "
                << key);
  std::optional<MacCandidate> best;
  gatherCandidates(key, [&](MacCandidate const& c, char const* from) {
    ZOL_TRACE(8, key << from << ": " << c);
    if (betterEntry(c, best ? &*best : nullptr, *in_.swTunnelGroupIdManager)) best = c;
  });
  if (!best) ZOL_TRACE(8, key << " entry not found in collections");
  return best;
}

void MacAddrSm::gatherCandidates(Bridging::MacVlanPair const& key, Consider consider) {
  auto const existing = [&](MacCandidate const& c, char const* from) {
    if (!intfExists(c.intf())) {
      ZOL_TRACE(8, key << " candidate on " << c.intf() << " skipped: no such interface");
      return;
    }
    consider(c, from);
  };
  gatherAnnouncedCandidates(key, existing);
  bool configuredStatic = false;
  if (auto const fdb = in_.bridgingConfig->fdbConfig(key.vlanId())) {
    if (fdb->configuredHostHas(key.macAddr())) {
      Bridging::HostEntry const& host = fdb->configuredHost(key.macAddr());
      configuredStatic = host.entryType() == EntryType::configuredStaticMac;
      // A configured dynamic entry that aged stays out until it is configured again.
      if (!(isProgrammedDynamic(host.entryType()) && agedConfiguredDynamic_.contains(key))) {
        existing(candidate(key, host.intf(), host.entryType(), host.moves(), host.lastMoveTime()),
                 " candidate from fdbConfig");
      }
    }
  }
  gatherConfiguredRemoteCandidate(key, existing);
  bool const routerMac = in_.routerMacTable && in_.routerMacTable->routerMacHas(key);
  if (routerMac) {
    existing(candidate(key, Nepo::IntfId(Nepo::IntfKind::Cpu, {}), EntryType::routerMac, 0, 0,
                       kRouterMacPreference),
             " candidate from routerMacTable");
  }
  if (configuredStatic && routerMac) {
    collidingStatic_.insert(key);
  } else if (!collidingStatic_.empty()) {
    collidingStatic_.erase(key);
  }
  if (std::optional<MacCandidate> const peer = getPeerRemoteEntry(key)) {
    existing(*peer, " candidate from mlagHostTable");
  }
  auto const& dot1x = in_.dot1xHostTable->hostAll();
  if (auto const it = dot1x.empty() ? dot1x.end() : dot1x.find(key); it != dot1x.end()) {
    existing(candidate(key, it->second.intf(), EntryType::dot1xAuthorizedMac, 0, 0),
             " candidate from dot1xHostTable");
  }
  if (auto const it = nonAgingPort_.empty() ? nonAgingPort_.end() : nonAgingPort_.find(key);
      it != nonAgingPort_.end()) {
    // Kept where the chip last learned it; it pins the host there, with no move of its own.
    existing(candidate(key, it->second, EntryType::nonAgingMac, 0, 0),
             " candidate from nonAgingMacStatus");
  }
  if (in_.fsfStatus->failedServerHas(key)) {
    existing(candidate(key, Nepo::IntfId(Nepo::IntfKind::Cpu, {}), EntryType::fsfFailedServerMac, 0,
                       0, kFsfPreference),
             " candidate from fsfStatus");
  }
}

bool MacAddrSm::installedStands(Bridging::MacVlanPair const& key, Bridging::HostEntry const& host) {
  if (host.entryType() == EntryType::learnedDynamicMac) {
    auto const& hw = in_.hwMacTable->entryAll();
    auto const it = hw.find(key);
    if (it == hw.end() || it->second.intf() != host.intf()) return false;
    // The data plane saw the host behind a tunnel since.
    auto const& learns = in_.remoteMacInfoDir->hostTable()->entryAll();
    auto const remote = learns.find(key);
    return remote == learns.end() || in_.remoteMacInfoDir->useReceivedHostTable() ||
           !later(remote->second.lastMoveTime(), host.lastMoveTime());
  }
  VXLAN::StatusEntry const remote = in_.remoteMacInfoDir->hostStatusTable()->statusEntry(key);
  if (host.entryType() == EntryType::learnedRemoteMac) {
    auto const& learns = in_.remoteMacInfoDir->hostTable()->entryAll();
    auto const it = learns.find(key);
    return it != learns.end() && it->second.swTunnelGroupId() == remote.swTunnelGroupId() &&
           !in_.remoteMacInfoDir->useReceivedHostTable();
  }
  auto const tuple = programmedTuple_.find(key);
  bool const viaRib = tuple != programmedTuple_.end();
  MacCandidate const installed(key, host.intf(), host.entryType(), remote.swTunnelGroupId(),
                               Tolm::Seqno32(host.moves()), host.lastMoveTime(), 0, false,
                               viaRib ? tuple->second : L2Rib::ObjTuple(), viaRib);
  bool stands = false;
  gatherCandidates(key, [&](MacCandidate const& c, char const*) {
    stands = stands || sameTarget(c, installed);
  });
  return stands;
}

std::optional<MacCandidate> MacAddrSm::currentEntry(Bridging::MacVlanPair const& key) const {
  if (auto const it = findIn(waitingFor_, key); it != waitingFor_.end()) {
    // The winner waiting for its next hop is what is about to be.
    ModifyMacEntry const& u = it->second;
    ZOL_TRACE(8, "Found an entry waiting for its next hop for " << key);
    return MacCandidate(key, u.intf(), u.entryType(), u.swTunnelGroupId(), Tolm::Seqno32(u.moves()),
                        u.lastMoveTime(), 0, false, u.l2RibObjTuple(), tupleSet(u.l2RibObjTuple()));
  }
  if (auto const queued = updateList_.find(key)) {
    ModifyMacEntry const& u = queued->update;
    ZOL_TRACE(
        8, "Found a pending operation in updateList with action " << u.action() << " for " << key);
    if (u.action() == EntryEvaluationAction::removeFromFdbStatusAndHardware) return std::nullopt;
    if (u.action() != EntryEvaluationAction::ignoreLearnt) {
      return MacCandidate(key, u.intf(), u.entryType(), u.swTunnelGroupId(),
                          Tolm::Seqno32(u.moves()), u.lastMoveTime(), 0, false, u.l2RibObjTuple(),
                          tupleSet(u.l2RibObjTuple()));
    }
  }
  Bridging::HostEntry const* host = fdbEntry(key);
  if (!host) return std::nullopt;
  if (host->intf().isVxlan()) {
    VXLAN::StatusEntry const remote = in_.remoteMacInfoDir->hostStatusTable()->statusEntry(key);
    ZOL_TRACE(8, "Found entry in Vxlan fdbStatus for "
                     << key << ": " << *host << " tunnels "
                     << in_.swTunnelGroupIdManager->getTunnelIpListFromSwTunnelGroupId(
                            remote.swTunnelGroupId()));
    auto const tuple = findIn(programmedTuple_, key);
    bool const viaRib = tuple != programmedTuple_.end();
    return MacCandidate(key, host->intf(), host->entryType(), remote.swTunnelGroupId(),
                        Tolm::Seqno32(host->moves()), host->lastMoveTime(), 0, false,
                        viaRib ? tuple->second : L2Rib::ObjTuple(), viaRib);
  }
  ZOL_TRACE(8, "Found entry in fdbStatus for " << key << ": " << *host);
  return candidate(key, host->intf(), host->entryType(), host->moves(), host->lastMoveTime());
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
  std::optional<MacCandidate> configured = configuredEntry(key);
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
      host && host->intf() == intf && fuzzyTypeMatch(host->entryType(), entryType) &&
      (!intf.isVxlan() ||
       in_.remoteMacInfoDir->hostStatusTable()->statusEntry(key).swTunnelGroupId() ==
           swTunnelGroupId)) {
    ZOL_TRACE(8, "Ignoring event for mac entry " << key
                                                 << " that matches current entry in fdb "
                                                    "status");
    return;
  }
  if (entryType == EntryType::learnedRemoteMac && configured && configured->intf() == intf &&
      configured->swTunnelGroupId() == swTunnelGroupId && !configured->l2RibObjTupleSet()) {
    // The data plane sees the host where its best source has it: the source's entry stands.
    ZOL_TRACE(6, "ignoring learn event for just-programmed remote entry " << key);
    if (!current || !sameTarget(*current, *configured)) {
      queueConfigured(key, *configured, current);
    } else {
      refreshWaiting(key);
    }
    return;
  }
  if (current && learnedKind(current->entryType()) &&
      later(current->lastMoveTime(), lastMoveTime)) {
    // A learn replayed (its next hop came, or the controller let go) after a newer one.
    ZOL_TRACE(
        6, " Final action: ignore - MAC entry: " << key << " learned later on " << current->intf());
    return;
  }
  if (checkIgnoreEvent(configured, current, intf, swTunnelGroupId, entryType, learnedInHardware)) {
    ZOL_TRACE(6, " Final action: ignore - MAC entry: " << key << " intf " << intf);
    return;
  }
  if (!intf.isVxlan() && in_.nonAgingMacStatus && in_.nonAgingMacStatus->hostHas(key)) {
    // A non-aging host stays where the chip learned it last.
    auto const [it, added] = nonAgingPort_.try_emplace(key, intf);
    if (added || it->second != intf) {
      it->second = intf;
      configured = configuredEntry(key);
    }
  }
  ModifyMacEntry learned;
  learned.intfIs(intf);
  learned.entryTypeIs(entryType);
  learned.swTunnelGroupIdIs(swTunnelGroupId);
  learned.l2RibObjTupleIs(objTuple);
  learned.lastMoveTimeIs(lastMoveTime);
  learned.actionIs(entryType == EntryType::learnedRemoteMac
                       ? EntryEvaluationAction::addLearntRemote
                       : EntryEvaluationAction::addLearntToFdbStatus);
  maybeUpdateMoveCount(learned, current);
  if (configured && isDynamicSource(configured->entryType()) &&
      !later(configured->lastMoveTime(), lastMoveTime) &&
      (configured->intf() != intf || configured->swTunnelGroupId() != swTunnelGroupId)) {
    // A source that counts the host's moves itself saw it last elsewhere: this is a move from
    // there, one more than its count, whatever the FDB status held meanwhile.
    Tolm::Seqno32 const moves(configured->moveCount().value() + 1);
    if (moves > Tolm::Seqno32(learned.moves())) learned.movesIs(moves.value());
  }
  if (Bridging::HostEntry const* host = fdbEntry(key);
      host && current &&
      !samePlace(*current, candidate(key, host->intf(), host->entryType(), host->moves(),
                                     host->lastMoveTime()))) {
    // What the chip holds while a winner waits counted moves of its own.
    bool const moved =
        host->intf() != intf ||
        (intf.isVxlan() &&
         in_.remoteMacInfoDir->hostStatusTable()->statusEntry(key).swTunnelGroupId() !=
             swTunnelGroupId);
    Tolm::Seqno32 const moves(host->moves() + 1);
    if (moved && moves > Tolm::Seqno32(learned.moves())) learned.movesIs(moves.value());
  }
  detectRemoteLocalMove(learned, current, 1);
  handleLearnEvent(key, learned, configured);
}

void MacAddrSm::maybeUpdateMoveCount(ModifyMacEntry& update,
                                     std::optional<MacCandidate> const& current) {
  if (!current) {
    ZOL_TRACE(8, "Not changing current entry move count");
    return;
  }
  // Between two VTEPs of one tunnel interface is a move too.
  if (current->intf() != update.intf() ||
      (update.intf().isVxlan() && (current->swTunnelGroupId() != update.swTunnelGroupId() ||
                                   current->l2RibObjTuple() != update.l2RibObjTuple()))) {
    // A move: its time is this event's.
    update.movesIs(current->moveCount().value() + 1);
    ZOL_TRACE(8, "Setting moves from configured+1: " << update.moves());
    return;
  }
  update.movesIs(current->moveCount().value());
  // A learn where the host was learned already is no move; where a source had it, it is the
  // first sight of the host here.
  if (learnedKind(current->entryType())) update.lastMoveTimeIs(current->lastMoveTime());
  ZOL_TRACE(8, "Setting moves from configured: " << update.moves());
}

bool MacAddrSm::checkIgnoreEvent(std::optional<MacCandidate> const& configured,
                                 std::optional<MacCandidate> const& current,
                                 Nepo::IntfId const& intf, SwTunnelGroupId swTunnelGroupId,
                                 Bridging::EntryType entryType, bool learnedInHardware) const {
  if (!configured) {
    ZOL_TRACE(8, " no configEntry, returning false ");
    return false;
  }
  // Only what was just programmed echoes: once something else took the pair, a learn where the
  // configured entry is, is the host coming back.
  if (!current || !sameTarget(*current, *configured)) {
    ZOL_TRACE(8, " configEntry is not what is installed, returning false");
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
  if (configured->swTunnelGroupId() != swTunnelGroupId) {
    ZOL_TRACE(8, " tunnel(s) don't match, returning false.");
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
  bool const remote = learned.entryType() == EntryType::learnedRemoteMac;
  if (remote && in_.remoteMacInfoDir->useReceivedHostTable()) {
    // The controller is the authority on where remote hosts are.
    ZOL_TRACE(6, "Ignore dynamically learnt remote macs in controller client mode");
    return;
  }
  // The learn is not taken: the pair goes back to its best source, or out of the chip.
  auto const configuredOrRemove = [&] {
    if (configured) {
      queueConfigured(key, *configured, std::nullopt);
    } else {
      learned.actionIs(EntryEvaluationAction::removeFromFdbStatusAndHardware);
      addToUpdateList(key, learned);
    }
  };
  if (!remote && !agesInHardware(learned.entryType())) {
    // The driver reports only what the chip ages; anything else is not the chip's to learn.
    ZOL_TRACE(5, "unexpected learn "
                     << key << " intf " << learned.intf() << " type " << learned.entryType()
                     << " configured type "
                     << (configured ? configured->entryType() : EntryType::unknownMac)
                     << " configured intf " << (configured ? configured->intf() : Nepo::IntfId()));
    ZOL_TRACE(5, "Removing entry");
    configuredOrRemove();
    return;
  }
  if (!remote && mlagActive() && !peerLink_.isEmpty() && learned.intf() == peerLink_) {
    // The peer syncs its hosts; a learn on the link to it is a packet that went round.
    ZOL_TRACE(6, "Entry was learned on peer-link. Deleting this entry.");
    configuredOrRemove();
    return;
  }
  if (!remote && dot1xRestricts(learned.intf())) {
    ZOL_TRACE(6, "Action is ignoreLearnt_ since interface is Dot1x singleHost or restrictedHost");
    return;
  }
  auto const takeLearned = [&] {
    if (learned.action() == EntryEvaluationAction::addLearntToFdbStatus) {
      addLearntToFdbStatus(key, learned);
    } else {
      ZOL_TRACE(6, " Final action: " << learned.action() << " - MAC Entry: " << key);
      addToUpdateList(key, learned);
    }
  };
  if (!configured) {
    takeLearned();
    return;
  }
  EntryType const type = configured->entryType();
  if (type == EntryType::peerDynamicMac || type == EntryType::peerDynamicRemoteMac) {
    ZOL_TRACE(6, "for learnedDynamicMac Local move time is " << learned.lastMoveTime()
                                                             << ", peer move time is "
                                                             << configured->lastMoveTime());
    if (localMoreRecent(learned, *configured)) {
      ZOL_TRACE(6, "Local dynamic MAC is more recent");
      takeLearned();
    } else {
      ZOL_TRACE(6, " peer dynamic MAC is more recent");
      ZOL_TRACE(6, (type == EntryType::peerDynamicMac ? "Using peer dynamic entry"
                                                      : "Using peer dynamic remote entry"));
      queueConfigured(key, *configured, std::nullopt);
    }
    return;
  }
  if (isProgrammedDynamic(type)) {
    // Both are dynamic: the host is where it was seen last.
    if (later(learned.lastMoveTime(), configured->lastMoveTime())) {
      ZOL_TRACE(6, "Learned dynamic entry is more recent than configured");
      takeLearned();
    } else {
      ZOL_TRACE(6, "Configured dynamic entry is more recent than learned");
      queueConfigured(key, *configured, std::nullopt);
    }
    return;
  }
  if (isDynamicSource(type)) {
    // A learn is a move seen now, counted one past the announcement's (see evaluateEntry), unless
    // the announcement saw a later one: a learn replayed once its next hop came, say.
    if (!later(configured->lastMoveTime(), learned.lastMoveTime())) {
      ZOL_TRACE(6, "Learned entry is more recent than " << type);
      takeLearned();
      return;
    }
    if (type == EntryType::receivedRemoteMac) {
      ZOL_TRACE(6, "Using controller received remote mac entry");
      ZOL_TRACE(6, "Setting moves from received: " << configured->moveCount().value());
    } else {
      ZOL_TRACE(6, "Using " << type << " entry, more recent than the learn");
    }
    queueConfigured(key, *configured, std::nullopt);
    return;
  }
  // Every other configured kind is static: it stays, and the chip is set back to it.
  ZOL_TRACE(6, "Configured " << type << " entry overrides learn on " << learned.intf());
  queueConfigured(key, *configured, std::nullopt);
}

bool MacAddrSm::localMoreRecent(ModifyMacEntry const& local, MacCandidate const& other) const {
  // Announced hosts carry the protocol's move sequence number; against a host learned here (whose
  // count the layer-2 RIB announces in turn) it decides before the clocks of two switches are
  // compared. What the data plane learned is announced by no one: its time decides.
  if (!local.intf().isVxlan() && (other.entryType() == EntryType::evpnDynamicRemoteMac ||
                                  other.entryType() == EntryType::receivedRemoteMac)) {
    Tolm::Seqno32 const moves(local.moves());
    if (moves != other.moveCount()) return moves > other.moveCount();
  }
  // A tie goes to the host this switch sees itself.
  return !later(other.lastMoveTime(), local.lastMoveTime());
}

void MacAddrSm::handleAgeEvent(Bridging::MacVlanPair const& key) {
  Bridging::HostEntry const* host = fdbEntry(key);
  if (host && host->entryType() == EntryType::fsfFailedServerMac) {
    ZOL_TRACE(6, "Ignoring aging event for FSF entry " << key);
    return;
  }
  if (host && host->entryType() == EntryType::learnedRemoteMac) {
    // The data plane stopped seeing the host behind the tunnel; the entry the SM programmed for
    // it goes, or gives way to the next best.
    if (hitlessRestart_) {
      ZOL_TRACE(6, key << " hitless restart is in progress");
      return;
    }
    if (std::optional<MacCandidate> const configured = configuredEntry(key)) {
      queueConfigured(key, *configured, std::nullopt);
    } else {
      queueRemoval(key, *host);
    }
    return;
  }
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
  std::optional<MacCandidate> const current = currentEntry(key);
  if (configured && !current) {
    if (configured->entryType() == EntryType::peerDynamicMac) {
      ZOL_TRACE(6, "Entry aged, using peer dynamic entry");
    } else if (configured->entryType() == EntryType::peerDynamicRemoteMac) {
      ZOL_TRACE(6, "Entry aged, using peer dynamic remote entry");
    } else {
      ZOL_TRACE(6, "Entry aged, using " << configured->entryType() << " entry");
    }
  }
  // As any change of a source: a learn still standing (the data plane's, or one that waits for
  // its next hop) has its say.
  handleSourceChange(key, configured, current);
}

void MacAddrSm::handleSourceChange(Bridging::MacVlanPair const& key,
                                   std::optional<MacCandidate> const& configured,
                                   std::optional<MacCandidate> const& current) {
  if (dataPlaneLearnTakesOver(key, configured, current)) {
    handleRemoteLearn(key);
    return;
  }
  if (configured) {
    if (current && sameTarget(*current, *configured)) {
      ZOL_TRACE(8, " Final action: ignore - MAC entry: " << key << " is installed");
      fullEntries_.erase(key);
      refreshWaiting(key);
      // A source that counts moves itself is the authority on them, even when the host stays.
      Bridging::HostEntry const* host = fdbEntry(key);
      if (host && isDynamicSource(configured->entryType()) && !updateList_.contains(key) &&
          (host->moves() != configured->moveCount().value() ||
           host->lastMoveTime() != configured->lastMoveTime())) {
        addToFdbStatus(
            key, Bridging::HostEntry(host->intf(), host->entryType(),
                                     configured->moveCount().value(), configured->lastMoveTime()));
      }
      return;
    }
    // A data-plane learn where a source has the host too gives way to the source's entry.
    bool const confirmed = current && current->entryType() == EntryType::learnedRemoteMac &&
                           samePlace(*current, *configured);
    if (current && learnedKind(current->entryType()) && isDynamicSource(configured->entryType()) &&
        !confirmed &&
        !(current->entryType() == EntryType::learnedRemoteMac &&
          in_.remoteMacInfoDir->useReceivedHostTable())) {
      ModifyMacEntry local;
      local.intfIs(current->intf());
      local.movesIs(current->moveCount().value());
      local.lastMoveTimeIs(current->lastMoveTime());
      if (localMoreRecent(local, *configured)) {
        ZOL_TRACE(6, "Learned dynamic entry is more recent than " << configured->entryType());
        refreshWaiting(key);
        return;
      }
    }
    queueConfigured(key, *configured, current);
    return;
  }
  fullEntries_.erase(key);
  if (!current) {
    ZOL_TRACE(8, " Final action: ignore - MAC entry: " << key);
    return;
  }
  if (current->entryType() == EntryType::learnedDynamicMac ||
      (current->entryType() == EntryType::learnedRemoteMac &&
       in_.remoteMacInfoDir->hostTable()->entryAll().contains(key) &&
       !in_.remoteMacInfoDir->useReceivedHostTable())) {
    ZOL_TRACE(8, " Final action: ignore - MAC entry: " << key << " is learned");
    refreshWaiting(key);
    return;
  }
  if (hitlessRestart_ && current->intf().isVxlan()) {
    ZOL_TRACE(6, key << " hitless restart is in progress");
    return;
  }
  ModifyMacEntry update;
  update.intfIs(current->intf());
  update.entryTypeIs(current->entryType());
  update.movesIs(current->moveCount().value());
  // A learn where the host was learned already is no move; where a source had it, it is the
  // first sight of the host here.
  if (learnedKind(current->entryType())) update.lastMoveTimeIs(current->lastMoveTime());
  update.actionIs(EntryEvaluationAction::removeFromFdbStatusAndHardware);
  addToUpdateList(key, update);
}

void MacAddrSm::queueConfigured(Bridging::MacVlanPair const& key, MacCandidate const& configured,
                                std::optional<MacCandidate> const& current) {
  ModifyMacEntry update;
  update.intfIs(configured.intf());
  update.entryTypeIs(configured.entryType());
  update.swTunnelGroupIdIs(configured.swTunnelGroupId());
  if (configured.l2RibObjTupleSet()) update.l2RibObjTupleIs(configured.l2RibObjTuple());
  update.movesIs(configured.moveCount().value());
  update.lastMoveTimeIs(configured.lastMoveTime());
  if (configured.intf().isVxlan()) {
    update.actionIs(isLearnedRemote(configured.entryType())
                        ? EntryEvaluationAction::addLearntRemote
                        : EntryEvaluationAction::addConfiguredRemote);
  } else {
    update.actionIs(EntryEvaluationAction::addConfiguredToFdbStatusAndHardware);
  }
  // A source that counts the host's moves itself is the authority on them.
  if (current && !isDynamicSource(configured.entryType())) maybeUpdateMoveCount(update, current);
  if (Bridging::HostEntry const* host = fdbEntry(key)) {
    detectRemoteLocalMove(update, candidate(key, host->intf(), host->entryType(), 0, 0), 2);
  }
  addToUpdateList(key, update);
}

void MacAddrSm::addLearntToFdbStatus(Bridging::MacVlanPair const& key,
                                     ModifyMacEntry const& learned) {
  if (isProgrammedDynamic(learned.entryType())) vemoAssert("!isProgrammedDynamic( entryType )");
  // The chip holds it already: whatever was queued for the pair, or waited, is overtaken.
  stopWaiting(key);
  updateList_.erase(key);
  fullEntries_.erase(key);
  ZOL_TRACE(6, " Final action: addLearntToFdbStatus - MAC Entry: " << key << " " << learned);
  addToFdbStatus(key, Bridging::HostEntry(learned.intf(), learned.entryType(), learned.moves(),
                                          learned.lastMoveTime()));
}

void MacAddrSm::refreshWaiting(Bridging::MacVlanPair const& key) {
  // What the pair keeps meanwhile may have lost its cause.
  if (auto const it = findIn(waitingFor_, key); it != waitingFor_.end()) {
    addToUpdateList(key, ModifyMacEntry(it->second));
  }
}

void MacAddrSm::stopWaiting(Bridging::MacVlanPair const& key) {
  auto const waiting = findIn(waitingFor_, key);
  if (waiting == waitingFor_.end()) return;
  auto const group = waitingGroup_.find(waiting->second.swTunnelGroupId());
  group->second.erase(key);
  if (group->second.empty()) waitingGroup_.erase(group);
  waitingFor_.erase(waiting);
}

void MacAddrSm::addToUpdateList(Bridging::MacVlanPair const& key, ModifyMacEntry update,
                                bool keepWaiting) {
  if (!keepWaiting) stopWaiting(key);
  if (isRemoteAdd(update) && !nextHopOf(update)) {
    Bridging::HostEntry const* host = fdbEntry(key);
    if (tupleSet(update.l2RibObjTuple())) {
      ZOL_TRACE(6, key << " hwId missing changing action to remove");
      if (!host) {
        updateList_.erase(key);
        return;
      }
      // Whatever the pair held gave way to the RIB's host, which waits for its hardware id.
      update.intfIs(host->intf());
      update.entryTypeIs(host->entryType());
      update.actionIs(EntryEvaluationAction::removeFromFdbStatusAndHardware);
    } else {
      ZOL_TRACE(6, key << " changing action to ignore, wait for next hop id "
                       << update.swTunnelGroupId());
      waitingGroup_[update.swTunnelGroupId()].insert(key);
      waitingFor_.insert_or_assign(key, update);
      update.actionIs(EntryEvaluationAction::ignoreLearnt);
      // Meanwhile the pair keeps what it holds only while that still has a cause; a newer learn
      // of the host is no cause for an older one, and a learn the chip holds that the FDB status
      // does not (it lost to the winner) goes.
      auto const& hw = in_.hwMacTable->entryAll();
      auto const learn = hw.find(key);
      bool const strayLearn = learn != hw.end() && !learn->second.intf().isVxlan() &&
                              (!host || host->intf() != learn->second.intf());
      if (strayLearn ||
          (host && (!installedStands(key, *host) ||
                    (learnedKind(update.entryType()) && learnedKind(host->entryType()))))) {
        ZOL_TRACE(6, key << " has nothing with a cause left, removing it while the winner waits");
        update.intfIs(host ? host->intf() : learn->second.intf());
        update.entryTypeIs(host ? host->entryType() : EntryType::learnedDynamicMac);
        update.actionIs(EntryEvaluationAction::removeFromFdbStatusAndHardware);
      }
    }
  }
  if (auto const kept = findIn(fullEntries_, key); kept != fullEntries_.end()) {
    // The same entry refused for want of room is not logged again.
    if (kept->second.intf() == update.intf() && kept->second.entryType() == update.entryType()) {
      update.fullLoggedIs(kept->second.fullLogged());
    }
    fullEntries_.erase(kept);
  }
  if (!updateList_.put(key, update, now())) {
    ZOL_TRACE(8, "Found a pending operation in updateList with key: " << key);
  }
  ZOL_TRACE(6, " Adding to update list - MAC entry: " << key << " " << update);
  if (!updateClock_.armed()) updateClock_.timeMinIs(now());
}

}  // namespace Vemo
