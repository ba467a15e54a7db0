// The port-channel SM's MLAG side: sharing the peer link's members with MLAG interfaces.
//
// The rule reads Mlag::Status as follows. The peering is valid as primary or secondary; the peer
// link is valid when it names a port-channel whose status exists (its members are that
// port-channel's lagToPort).
// A port-channel shares the peer link while fast MAC redirection is on, it is an MLAG interface
// (an intfStatus entry) and both its local and its peer state are intfStateUp: traffic for it
// can then fall back to the peer link at once when its own members fail.
#include <string>

#include "LagSmReactors.h"

ZOL_TRACE_MODULE("LagSm")

namespace Vemo {

namespace {

std::string portsText(VemoLagPortList const& list) {
  std::string out;
  for (auto const& [port, state] : list.portAll()) {
    if (!out.empty()) out += ',';
    out += port.stringValue();
  }
  return out.empty() ? "(none)" : out;
}

}  // namespace

void LagSm::lagMounterIs(Zol::Ptr<LagMounter> const& mounter) {
  lagMounter_ = mounter;
  mounterReactor_->notifierIs(mounter);
  if (mounter && mounter->mlagStatus()) mlagStatusIs(mounter->mlagStatus());
}

void LagSm::mlagStatusIs(Zol::Ptr<Mlag::Status const> const& status) {
  if (status == mlagStatus_) return;
  mlagStatus_ = status;
  mlagReactor_->notifierIs(status);
  handleMlagStateOrPeerLinkIntf();
}

bool LagSm::mlagStateValid() const {
  if (!mlagStatus_) return false;
  Mlag::State const s = mlagStatus_->state();
  return s == Mlag::State::statePrimary || s == Mlag::State::stateSecondary;
}

bool LagSm::peerLinkValid() const {
  if (!mlagStatus_ || !mlagStatus_->peerLinkIntf().isPortChannel()) return false;
  // Only while its status exists: a removed peer link's members back up nothing.
  ZolStatus const* const peerLink = status(mlagStatus_->peerLinkIntf());
  return peerLink && peerLink->initialized();
}

void LagSm::maybeSharePeerLinkWithLag(Nepo::IntfId const& lag, VemoLagPortList const& members) {
  ZOL_TRACE(8, "LagSm::"
                   << "maybeSharePeerLinkWithLag " << lag << " " << portsText(members));
  if (!mlagStateValid()) {
    ZOL_TRACE(8, "LagSm::maybeSharePeerLinkWithLag"
                     << " ignore since MLAG state is invalid.");
    return;
  }
  if (!peerLinkValid()) {
    ZOL_TRACE(8, "LagSm::maybeSharePeerLinkWithLag"
                     << " ignore since peer-link is invalid.");
    return;
  }
  Nepo::IntfId const& peerLink = mlagStatus_->peerLinkIntf();
  if (peerLink != currentPeerLink_) {
    // The MLAG notification of a new peer link has not been served yet: serve it for every
    // port-channel now, so that none shares the old peer link and another the new.
    sharePeerLinkWithAll(lagToPortOrEmpty(peerLink), true);
  }
  addOrRemovePeerLink(lag, peerLink, lagToPortOrEmpty(peerLink), false);
}

void LagSm::addOrRemovePeerLink(Nepo::IntfId const& lag, Nepo::IntfId const& peerLink,
                                VemoLagPortList const& peerLinkMembers, bool forceUpdate) {
  Mlag::IntfStatus const intfStatus =
      mlagStatus_ ? mlagStatus_->intfStatus(lag) : Mlag::IntfStatus();
  ZOL_TRACE(8, "LagSm::"
                   << "addOrRemovePeerLink"
                   << " lag: " << lag << " MLAG intfStatus: " << Zol::stringValue(intfStatus)
                   << " portList: " << portsText(lagToPortOrEmpty(lag)) << " peer-link: "
                   << peerLink << " peer-link portList: " << portsText(peerLinkMembers)
                   << " forceUpdate: " << forceUpdate);
  bool const share = mlagStateValid() && peerLinkValid() && lag != peerLink &&
                     mlagStatus_->fastMacRedirection() && mlagStatus_->intfStatusHas(lag) &&
                     intfStatus.localState() == Mlag::IntfState::intfStateUp &&
                     intfStatus.peerState() == Mlag::IntfState::intfStateUp;
  bool const shares = sharePeerLinkWithLag(lag);
  if (share) {
    if (shares && !forceUpdate) {
      ZOL_TRACE(8, "LagSm::addOrRemovePeerLink " << lag << " already shares " << peerLink);
      return;
    }
    ZOL_TRACE(5, "LagSm::addOrRemovePeerLink"
                     << " updating LAG membership"
                     << " to add " << peerLink << " to " << lag);
    in_.helper->maybeShareLagMembership(peerLink, lag, true);
    sharePeerLinkWithLag_[lag] = true;
  } else if (shares) {
    ZOL_TRACE(5, "LagSm::addOrRemovePeerLink"
                     << " updating LAG membership"
                     << " to remove " << peerLink << " from " << lag);
    in_.helper->maybeShareLagMembership(peerLink, lag, false);
    sharePeerLinkWithLag_.erase(lag);
  } else {
    ZOL_TRACE(8, "LagSm::addOrRemovePeerLink " << lag << " doesn't share " << peerLink);
  }
}

void LagSm::handleMlagStateOrPeerLinkIntf() {
  ZOL_TRACE(8, "LagSm::handleMlagStateOrPeerLinkIntf");
  if (!initialized()) return;
  bool const valid = mlagStateValid() && peerLinkValid();
  Nepo::IntfId const peerLink = valid ? mlagStatus_->peerLinkIntf() : Nepo::IntfId();
  sharePeerLinkWithAll(lagToPortOrEmpty(peerLink), peerLink != currentPeerLink_);
}

void LagSm::handleMlagFastMacRedirection() {
  ZOL_TRACE(8, "LagSm::handleMlagFastMacRedirection"
                   << " fastMacRedirection " << (mlagStatus_ && mlagStatus_->fastMacRedirection()));
  handleMlagStateOrPeerLinkIntf();
}

void LagSm::sharePeerLinkWithAll(VemoLagPortList const& peerLinkMembers, bool forceUpdate) {
  bool const valid = mlagStateValid() && peerLinkValid();
  Nepo::IntfId const peerLink = valid ? mlagStatus_->peerLinkIntf() : Nepo::IntfId();
  // The old peer link goes first, so that what follows starts from nothing shared.
  if (peerLink != currentPeerLink_ && currentPeerLink_ != Nepo::IntfId()) {
    stopSharingPeerLink(currentPeerLink_);
  }
  if (valid) {
    for (auto const& [lag, status] : status_) {
      // Only port-channels that exist in hardware, and never the peer link itself.
      if (!status->initialized() || lag == peerLink || !commonData()->lagToPortHas(lag)) continue;
      ZOL_TRACE(8, "Check if we need to update the peer-link members for lag " << lag);
      addOrRemovePeerLink(lag, peerLink, peerLinkMembers, forceUpdate);
    }
  }
  currentPeerLinkIs(peerLink);
}

void LagSm::stopSharingPeerLink(Nepo::IntfId const& peerLink) {
  if (sharePeerLinkWithLag_.empty()) {
    ZOL_TRACE(8, "LagSm::handleMlagStateOrPeerLinkIntf"
                     << " will not share members of peer-link " << peerLink);
    return;
  }
  for (auto const& [lag, shared] : sharePeerLinkWithLag_) {
    ZOL_TRACE(5, "Stop sharing members of peer-link " << peerLink << " from lag " << lag);
    in_.helper->maybeShareLagMembership(peerLink, lag, false);
  }
  sharePeerLinkWithLag_.clear();
}

void LagSm::handleMlagIntfStatus(Nepo::IntfId const& lag) {
  ZOL_TRACE(8, "LagSm::"
                   << "handleMlagIntfStatus"
                   << "(" << lag << ")");
  if (!initialized()) return;
  ZolStatus const* const s = status(lag);
  if (!s || !s->initialized() || !commonData()->lagToPortHas(lag)) return;
  Nepo::IntfId const peerLink = mlagStatus_->peerLinkIntf();
  if (peerLink != currentPeerLink_) {
    handleMlagStateOrPeerLinkIntf();
    return;
  }
  addOrRemovePeerLink(lag, peerLink, lagToPortOrEmpty(peerLink), false);
}

}  // namespace Vemo
