// The MAC SM's flushes: every requester's requests folded into one condensed request, carried out
// by the flush timer, and answered.
#include "MacAddrSmReactors.h"

ZOL_TRACE_MODULE("MacAddrSm")

namespace Vemo {

void MacAddrSm::handleFlushRequestDir(Zol::String const& requester) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleFlushRequestDir(Zol::String const&) " << requester);
  if (!started_) return;
  Zol::Ptr<Bridging::HostTableFlushRequestDir const> const dir =
      in_.flushRequestDir->requestDir(requester);
  Reactors::track(this, reactors_->flushRequestDir, requester, dir);
  if (!dir) {
    removeStaleFlushReplies();
    return;
  }
  for (auto const& [id, request] : dir->requestAll()) handleFlushRequest(requester, id);
}

void MacAddrSm::handleFlushRequest(Zol::String const& requester, Zol::U32 id) {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleFlushRequest(Zol::String const&, Zol::U32) "
                   << requester << " " << id);
  if (!started_) return;
  Bridging::HostTableFlushReplyKey const reply(requester, id);
  Zol::Ptr<Bridging::HostTableFlushRequestDir const> const dir =
      in_.flushRequestDir->requestDir(requester);
  if (!dir || !dir->requestHas(id)) {
    // The requester took the request back: so goes the answer.
    in_.flushReplyDir->replyDel(reply);
    return;
  }
  // A request already answered, or already folded in, is not carried out twice.
  if (in_.flushReplyDir->replyHas(reply)) return;
  if (std::find(flushAnswers_.begin(), flushAnswers_.end(), reply) != flushAnswers_.end()) return;
  Bridging::HostTableFlushRequest const& request = dir->request(id);
  ZOL_TRACE(6, "Host table flush request " << requester << "/" << id << ": vlan "
                                           << request.vlanId() << " intf " << request.intf());
  processFlushReq(request.vlanId(), request.intf());
  flushAnswers_.push_back(reply);
  if (!flushClock_.armed()) flushClock_.timeMinIs(now() + kFlushDelay);
}

void MacAddrSm::processFlushReq(Bridging::VlanIdOrNone vlan, Nepo::IntfId const& intf) {
  ZOL_TRACE(9,
            "void Vemo::MacAddrSm::processFlushReq(Bridging::VlanIdOrNone, Nepo::IntfId "
            "const&) "
                << vlan << " " << intf);
  Bridging::VlanId const v(vlan.value());
  if (intf.isEmpty()) {
    if (vlan.value() == 0) {
      flush_.flushAll = true;
    } else {
      flushVlan(v);
    }
  } else if (!intf.isPortChannel()) {
    // A VXLAN interface's hosts are flushed even before the interface is known here.
    if (intfExists(intf) || intf.isVxlan()) {
      flushPort(v, intf);
    } else {
      ZOL_TRACE(5, "processFlushReq: unknown intf " << intf);
      ZOL_TRACE(5, "Invalid interface, maybe caused by a 10G<->40G switchover");
    }
  } else if (commonData()->lagToPortHas(intf)) {
    flushLag(v, intf);
  } else {
    ZOL_TRACE(5, "processFlushReq: unknown LAG " << intf);
  }
}

void MacAddrSm::flushVlan(Bridging::VlanId vlan) {
  flush_.vlans.insert(vlan);
  if (!flushClock_.armed()) flushClock_.timeMinIs(now() + kFlushDelay);
}

void MacAddrSm::flushPort(Bridging::VlanId vlan, Nepo::IntfId const& intf) {
  flush_.ports.emplace(vlan, intf);
  if (!flushClock_.armed()) flushClock_.timeMinIs(now() + kFlushDelay);
}

void MacAddrSm::flushLag(Bridging::VlanId vlan, Nepo::IntfId const& lag) {
  flush_.lags.emplace(vlan, lag);
  if (!flushClock_.armed()) flushClock_.timeMinIs(now() + kFlushDelay);
}

void MacAddrSm::handleFlushReqTimer() {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::handleFlushReqTimer()");
  execFlush();
  for (Bridging::HostTableFlushReplyKey const& reply : std::exchange(flushAnswers_, {})) {
    auto const dir = in_.flushRequestDir->requestDir(reply.requester());
    if (!dir || !dir->requestHas(reply.requestId())) continue;
    in_.flushReplyDir->replyIs(reply, true);
    ZOL_TRACE(6, "Host table flush request " << reply.requester() << "/" << reply.requestId()
                                             << " has been processed");
  }
  removeStaleFlushReplies();
}

void MacAddrSm::execFlush() {
  ZOL_TRACE(9, "void Vemo::MacAddrSm::execFlush()");
  if (flush_.flushAll) {
    ZOL_TRACE(5, " flushing all macs ");
    in_.helper->flushAll();
  } else {
    for (Bridging::VlanId const vlan : flush_.vlans) {
      ZOL_TRACE(5, " flushing vlan " << vlan);
      in_.helper->flushVlan(vlan.value());
    }
    for (auto const& [vlan, port] : flush_.ports) {
      // A whole VLAN's flush takes its ports' with it.
      if (vlan.value() != 0 && flush_.vlans.contains(vlan)) continue;
      ZOL_TRACE(5, " flushing port " << port << " vlan " << vlan);
      in_.helper->flushVlanPort(vlan.value(), port);
    }
    for (auto const& [vlan, lag] : flush_.lags) {
      if (vlan.value() != 0 && flush_.vlans.contains(vlan)) continue;
      ZOL_TRACE(5, " flushing lag " << lag << " vlan " << vlan);
      in_.helper->flushVlanLag(vlan.value(), lag);
    }
  }
  flush_ = CondensedFlushRequest();
}

void MacAddrSm::removeStaleFlushReplies() {
  std::vector<Bridging::HostTableFlushReplyKey> stale;
  for (auto const& [reply, done] : in_.flushReplyDir->replyAll()) {
    auto const dir = in_.flushRequestDir->requestDir(reply.requester());
    if (!dir || !dir->requestHas(reply.requestId())) stale.push_back(reply);
  }
  for (auto const& reply : stale) {
    ZOL_TRACE(6, "Host table flush reply " << reply.requester() << "/" << reply.requestId()
                                           << " removed: its request is gone");
    in_.flushReplyDir->replyDel(reply);
  }
}

}  // namespace Vemo
