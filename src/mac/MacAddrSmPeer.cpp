// The MAC SM's MLAG peer, 802.1X and fast-server-failover sources.
#include "MacAddrSmReactors.h"

ZOL_TRACE_MODULE("MacAddrSm")

namespace Vemo {

namespace {

using Bridging::EntryType;

// What a host the peer holds is to this switch. The peer reports its own kinds; controller
// kinds are never taken from it (the controller tells this switch itself).
std::optional<EntryType> peerType(EntryType t) {
  switch (t) {
    case EntryType::learnedDynamicMac:
    case EntryType::peerDynamicMac:
    case EntryType::configuredDynamicMac:
      return EntryType::peerDynamicMac;
    case EntryType::configuredStaticMac:
    case EntryType::peerStaticMac:
      return EntryType::peerStaticMac;
    case EntryType::learnedRemoteMac:
    case EntryType::evpnDynamicRemoteMac:
    case EntryType::peerDynamicRemoteMac:
      return EntryType::peerDynamicRemoteMac;
    case EntryType::configuredRemoteMac:
    case EntryType::evpnConfiguredRemoteMac:
    case EntryType::peerConfiguredRemoteMac:
      return EntryType::peerConfiguredRemoteMac;
    case EntryType::routerMac:
    case EntryType::peerRouterMac:
      return EntryType::peerRouterMac;
    case EntryType::dot1xAuthorizedMac:
    case EntryType::peerDot1xAuthorizedMac:
      return EntryType::peerDot1xAuthorizedMac;
    default:
      return std::nullopt;
  }
}

}  // namespace

bool MacAddrSm::mlagActive() const {
  Mlag::State const s = in_.mlagStatus->state();
  return s == Mlag::State::statePrimary || s == Mlag::State::stateSecondary;
}

// -- The MLAG peer's hosts.

std::optional<MacCandidate> MacAddrSm::getPeerRemoteEntry(Bridging::MacVlanPair const& key) {
  if (!mlagActive()) return std::nullopt;
  auto const& hosts = in_.mlagHostTable->hostEntryAll();
  auto const it = hosts.find(key);
  if (it == hosts.end()) return std::nullopt;
  Mlag::HostEntry const& peer = it->second;
  std::optional<EntryType> const type = peerType(peer.entryType());
  if (!type) {
    ZOL_TRACE(6, key << " " << peer.entryType() << " from the MLAG peer not accepted");
    return std::nullopt;
  }
  Nepo::IntfId intf;
  SwTunnelGroupId group;
  if (isRemote(*type)) {
    if (skipRemote_ || peer.tunnelIpAddr().isZero()) return std::nullopt;
    intf = peer.intf().isVxlan() ? peer.intf() : vtiOfVlan(key.vlanId());
    group = in_.swTunnelGroupIdManager->getSwTunnelGroupIdForTunnelIp(peer.tunnelIpAddr());
  } else {
    // A host on an MLAG interface is reached locally while this side of the interface is up;
    // anything else the peer holds is behind the peer link.
    auto const& mlagIntfs = in_.mlagStatus->intfStatusAll();
    auto const m = mlagIntfs.find(peer.intf());
    bool const localUp =
        m != mlagIntfs.end() && m->second.localState() == Mlag::IntfState::intfStateUp;
    intf = localUp ? peer.intf() : peerLink_;
  }
  if (intf.isEmpty()) return std::nullopt;
  return MacCandidate(key, intf, *type, group, Tolm::Seqno32(peer.moves()), peer.lastMoveTime(), 0,
                      false, L2Rib::ObjTuple(), false);
}

void MacAddrSm::indexMlagHost(Bridging::MacVlanPair const& key) {
  auto const& hosts = in_.mlagHostTable->hostEntryAll();
  auto const it = hosts.find(key);
  auto const was = mlagHostIntf_.find(key);
  if (was != mlagHostIntf_.end()) {
    if (it != hosts.end() && it->second.intf() == was->second) return;
    auto const index = mlagHostTableIndex_.find(was->second);
    index->second.erase(key);
    if (index->second.empty()) mlagHostTableIndex_.erase(index);
    mlagHostIntf_.erase(was);
  }
  if (it == hosts.end()) return;
  mlagHostIntf_.emplace(key, it->second.intf());
  mlagHostTableIndex_[it->second.intf()].insert(key);
}

void MacAddrSm::handleMlagHostTableEntry(Bridging::MacVlanPair const& key) {
  ZOL_TRACE(9,
            "void Vemo::MacAddrSm::handleMlagHostTableEntry(Bridging::MacVlanPair const&) " << key);
  if (!started_) return;
  indexMlagHost(key);
  reevaluateEntry(key);
}

void MacAddrSm::handleMlagStatus() {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleMlagStatus()");
  if (!started_) return;
  Nepo::IntfId const oldPeerLink = peerLink_;
  handleMlagPeerLink();
  Mlag::State const state = in_.mlagStatus->state();
  if (state == mlagState_ && peerLink_ == oldPeerLink) return;
  mlagState_ = state;
  // Every peer host is decided again, from the first key, in slices.
  auto const& hosts = in_.mlagHostTable->hostEntryAll();
  if (hosts.empty()) return;
  mlagBookmark_ = hosts.begin()->first;
  // Room for a decision per host at once: growing a large update list mid-walk would cost one
  // slice a rehash of all of it.
  updateList_.reserve(updateList_.size() + hosts.size());
  if (!mlagClock_.armed()) mlagClock_.timeMinIs(now());
}

void MacAddrSm::handleMlagHostTableTimer() {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleMlagHostTableTimer()");
  if (!mlagBookmark_) return;
  Zol::Seconds const deadline = now() + kMlagWalkBudget;
  auto const& hosts = in_.mlagHostTable->hostEntryAll();
  for (auto it = hosts.lower_bound(*mlagBookmark_); it != hosts.end();) {
    Bridging::MacVlanPair const key = it->first;
    handleMlagHostTableEntry(key);
    it = hosts.upper_bound(key);
    if (it != hosts.end() && now() >= deadline) {
      mlagBookmark_ = it->first;
      ZOL_TRACE(8, "handleMlagHostTableTimer: time slice spent, resuming at " << *mlagBookmark_);
      // Behind whatever is due already (the update list's drain above all), not ahead of it.
      mlagClock_.timeMinIs(now());
      return;
    }
  }
  mlagBookmark_.reset();
}

void MacAddrSm::handleMlagIntfStatus(Nepo::IntfId const& intf) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleMlagIntfStatus(Nepo::IntfId const&) " << intf);
  if (!started_ || !mlagHostTableIndex_.contains(intf)) return;
  if (std::find(mlagIntfWalks_.begin(), mlagIntfWalks_.end(), intf) != mlagIntfWalks_.end()) {
    // A walk of it is pending; restarting it would only repeat the hosts already done.
    return;
  }
  mlagIntfWalks_.push_back(intf);
  if (!mlagIntfClock_.armed()) mlagIntfClock_.timeMinIs(now());
}

void MacAddrSm::handleMlagIntfHostTableTimer() {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleMlagIntfHostTableTimer()");
  Zol::Seconds const deadline = now() + kMlagIntfWalkBudget;
  while (!mlagIntfWalks_.empty()) {
    Nepo::IntfId const intf = mlagIntfWalks_.front();
    auto const index = mlagHostTableIndex_.find(intf);
    if (index != mlagHostTableIndex_.end()) {
      auto const& keys = index->second;
      auto it = mlagIntfBookmark_ ? keys.lower_bound(*mlagIntfBookmark_) : keys.begin();
      while (it != keys.end()) {
        Bridging::MacVlanPair const key = *it;
        reevaluateEntry(key);
        it = keys.upper_bound(key);
        if (it != keys.end() && now() >= deadline) {
          mlagIntfBookmark_ = *it;
          ZOL_TRACE(8, "handleMlagIntfHostTableTimer: time slice spent on "
                           << intf << ", resuming at " << *mlagIntfBookmark_);
          mlagIntfClock_.timeMinIs(now());
          return;
        }
      }
    }
    mlagIntfWalks_.pop_front();
    mlagIntfBookmark_.reset();
    if (!mlagIntfWalks_.empty() && now() >= deadline) {
      mlagIntfClock_.timeMinIs(now());
      return;
    }
  }
}

// -- 802.1X.

void MacAddrSm::handleDot1xHostTableEntry(Bridging::MacVlanPair const& key) {
  ZOL_TRACE(
      9, "void Vemo::MacAddrSm::handleDot1xHostTableEntry(Bridging::MacVlanPair const&) " << key);
  if (!started_) return;
  reevaluateEntry(key);
}

void MacAddrSm::handleDot1xStatus() {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleDot1xStatus()");
  if (!started_) return;
  std::vector<Nepo::IntfId> intfs;
  for (auto const& [intf, mode] : dot1xHostMode_) intfs.push_back(intf);
  for (auto const& [intf, status] : in_.dot1xStatus->intfStatusAll()) intfs.push_back(intf);
  for (Nepo::IntfId const& intf : intfs) handleDot1xIntfStatus(intf);
}

void MacAddrSm::handleDot1xIntfStatus(Nepo::IntfId const& intf) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleDot1xIntfStatus(Nepo::IntfId const&) " << intf);
  if (!started_) return;
  auto const& ports = in_.dot1xStatus->intfStatusAll();
  auto const port = ports.find(intf);
  Dot1x::HostMode mode = Dot1x::HostMode::multiHost;
  if (!in_.dot1xStatus->enabled() || port == ports.end()) {
    ZOL_TRACE(6, "dot1x is disabled, seting host mode to multi-host");
  } else {
    mode = port->second.hostMode();
    ZOL_TRACE(6, "dot1x is enabled, setting host mode to " << Zol::enumName(mode));
  }
  auto const it = dot1xHostMode_.find(intf);
  if (it != dot1xHostMode_.end() ? it->second == mode : mode == Dot1x::HostMode::multiHost) return;
  if (port == ports.end()) {
    dot1xHostMode_.erase(intf);
  } else {
    dot1xHostMode_.insert_or_assign(intf, mode);
  }
  in_.dot1xHelper->setHostMode(intf, mode);
}

bool MacAddrSm::dot1xRestricts(Nepo::IntfId const& intf) const {
  auto const it = dot1xHostMode_.find(intf);
  return it != dot1xHostMode_.end() && (it->second == Dot1x::HostMode::singleHost ||
                                        it->second == Dot1x::HostMode::restrictedHost);
}

// -- Failed servers: sent to the CPU while they are down.

void MacAddrSm::handleFsfFailedServer(Bridging::MacVlanPair const& key) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleFsfFailedServer(Bridging::MacVlanPair const&) " << key);
  if (!started_) return;
  auto const& failed = in_.fsfStatus->failedServerAll();
  if (auto const it = failed.find(key); it != failed.end()) {
    ZOL_TRACE(5, "Adding entry for FSF failed server on " << it->second << " " << key);
  } else {
    ZOL_TRACE(5, "Removing entry for FSF failed server on " << key);
  }
  reevaluateEntry(key);
}

}  // namespace Vemo
