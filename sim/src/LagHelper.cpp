// The chip's answer to each request decides what follows: ok is done, busy and full wait for the
// retry clock, failed waits for the port-channel's next request. A port-channel left behind is
// brought to everything last asked for it, not replayed call by call, so the chip never sees a
// stale intermediate list.
#include "Sim/LagHelper.h"

#include <algorithm>
#include <array>
#include <string>
#include <vector>

ZOL_TRACE_MODULE("SimLagHelper")

namespace sim {

namespace {

constexpr auto kOpNames = std::to_array<std::string_view>({
    "hwInit",
    "lacpEnabledIs",
    "maybeCreateLag",
    "maybeDestroyLag",
    "updateLagMember",
    "updateLag",
    "intfManagedCheckOverride",
    "isIntfManaged",
    "maybeShareLagMembership",
    "handleVerify",
    "handleRetryVerify",
    "retry",
    "refused",
    "beforeHwInit",
});

std::string memberNames(Vemo::VemoLagPortList const& members) {
  if (members.portSize() == 0) return "none";
  std::string out;
  for (auto const& [port, state] : members.portAll()) {
    if (!out.empty()) out += ' ';
    out += port.stringValue();
  }
  return out;
}

std::string stateText(Vemo::VemoLagPort const& state) {
  return std::string("collecting ") + (state.collecting() ? "yes" : "no") + " distributing " +
         (state.distributing() ? "yes" : "no");
}

// What differs in one port-channel present on both sides.
std::vector<std::string> memberDifferences(Vemo::VemoLagPortList const& hw,
                                           Vemo::VemoLagPortList const& expected) {
  std::vector<std::string> out;
  bool sameSet = hw.portSize() == expected.portSize();
  for (auto const& [port, state] : hw.portAll()) sameSet = sameSet && expected.portHas(port);
  if (!sameSet) {
    out.push_back("hardware members " + memberNames(hw) + ", expected " + memberNames(expected));
  }
  for (auto const& [port, state] : hw.portAll()) {
    if (!expected.portHas(port) || expected.port(port) == state) continue;
    out.push_back(port.stringValue() + " hardware " + stateText(state) + ", expected " +
                  stateText(expected.port(port)));
  }
  return out;
}

}  // namespace

LagHelper::LagHelper(Zol::Name const& name, Chip& chip,
                     Zol::Ptr<Vemo::VemoCommonSmData> const& commonData)
    : VemoHelper::VemoHelperLagSm(name),
      chip_(chip),
      commonData_(commonData),
      retryClock_(commonData->loop(), [this] { handleRetry(); }),
      calls_(kOpNames) {}

uint64_t LagHelper::calls(std::string_view op) const { return calls_(op); }

void LagHelper::programming(Op op) {
  count(op);
  if (ready_) return;
  count(Op::beforeHwInit);
  ZOL_TRACE(0, calls_.name(op) << " before hwInit");
}

void LagHelper::hwInit() {
  count(Op::hwInit);
  ZOL_TRACE(5, "hwInit");
  ready_ = true;
}

void LagHelper::lacpEnabledIs(bool enabled) {
  programming(Op::lacpEnabledIs);
  ZOL_TRACE(5, "lacpEnabledIs " << enabled);
  chip_.lags().lacpEnabledIs(enabled);
}

template <class Operation>
void LagHelper::program(Nepo::IntfId const& lag, Op op, Operation const& operation) {
  bool const behind = retry_.contains(lag) || failed_.contains(lag);
  settle(lag, op, behind ? reconcile(lag) : operation());
}

void LagHelper::maybeCreateLag(Nepo::IntfId const& lag) {
  programming(Op::maybeCreateLag);
  ZOL_TRACE(8, "maybeCreateLag " << lag);
  desired_[lag].exists = true;
  // A new entry gets, with it, the sharing decided before it existed.
  program(lag, Op::maybeCreateLag,
          [&] { return chip_.lags().entry(lag) ? Status::ok : reconcile(lag); });
}

void LagHelper::maybeDestroyLag(Nepo::IntfId const& lag) {
  programming(Op::maybeDestroyLag);
  ZOL_TRACE(8, "maybeDestroyLag " << lag);
  desired_[lag] = Desired();
  program(lag, Op::maybeDestroyLag, [&] { return chip_.lags().destroy(lag); });
}

void LagHelper::updateLagMember(Nepo::IntfId const& lag, Nepo::IntfId const& member, bool add,
                                Vemo::VemoLagPortList const& members) {
  programming(Op::updateLagMember);
  ZOL_TRACE(8, "updateLagMember " << lag << " " << member << " add " << add);
  Desired& d = desired_[lag];
  d.exists = true;
  d.members = members;
  program(lag, Op::updateLagMember,
          [&] { return chip_.lags().memberIs(lag, member, add, members.port(member)); });
}

void LagHelper::updateLag(Nepo::IntfId const& lag, Vemo::VemoLagPortList const& members) {
  programming(Op::updateLag);
  ZOL_TRACE(8, "updateLag " << lag << " members " << memberNames(members));
  Desired& d = desired_[lag];
  d.exists = true;
  d.members = members;
  program(lag, Op::updateLag, [&] { return chip_.lags().membersIs(lag, members); });
}

void LagHelper::maybeShareLagMembership(Nepo::IntfId const& peerLink, Nepo::IntfId const& lag,
                                        bool share) {
  programming(Op::maybeShareLagMembership);
  ZOL_TRACE(8, "maybeShareLagMembership " << peerLink << " " << lag << " share " << share);
  Desired& d = desired_[lag];
  if (share) {
    d.sharedPeerLink = peerLink;
  } else if (d.sharedPeerLink == peerLink) {
    d.sharedPeerLink = Nepo::IntfId();
  }
  // The SM decides sharing for a new port-channel before creating it; creation applies it.
  if (!d.exists && !chip_.lags().entry(lag)) return;
  program(lag, Op::maybeShareLagMembership,
          [&] { return chip_.lags().shareIs(lag, peerLink, share); });
}

bool LagHelper::intfManagedCheckOverride() const {
  count(Op::intfManagedCheckOverride);
  return managedCheckOverride_;
}

bool LagHelper::isIntfManaged(Nepo::IntfId const& intf) const {
  count(Op::isIntfManaged);
  return chip_.hasPort(intf);
}

Status LagHelper::reconcile(Nepo::IntfId const& lag) {
  Desired const& d = desired_[lag];
  LagTable::Entry const* hw = chip_.lags().entry(lag);
  if (!d.exists) return hw ? chip_.lags().destroy(lag) : Status::ok;
  if (!hw) {
    if (Status s = chip_.lags().create(lag); s != Status::ok) return s;
    hw = chip_.lags().entry(lag);
  }
  if (!(hw->members == d.members)) {
    if (Status s = chip_.lags().membersIs(lag, d.members); s != Status::ok) return s;
  }
  if (hw->sharedPeerLink == d.sharedPeerLink) return Status::ok;
  return d.sharedPeerLink.isEmpty() ? chip_.lags().shareIs(lag, hw->sharedPeerLink, false)
                                    : chip_.lags().shareIs(lag, d.sharedPeerLink, true);
}

void LagHelper::settle(Nepo::IntfId const& lag, Op op, Status s) {
  retry_.erase(lag);
  failed_.erase(lag);
  std::string_view const name = calls_.name(op);
  switch (s) {
    case Status::ok:
      if (auto it = desired_.find(lag); it != desired_.end() && !it->second.exists) {
        desired_.erase(it);
      }
      return;
    case Status::busy:
    case Status::full:
      ZOL_TRACE(5, name << " " << lag << ": chip answered " << s << ", retrying");
      retry_[lag] = s;
      if (!retryClock_.armed()) retryClock_.timeMinIs(retryClock_.loop().now() + retryDelay);
      break;
    case Status::failed:
      ZOL_TRACE(0, name << " " << lag << ": chip answered failed, not retried");
      failed_.insert(lag);
      break;
  }
  count(Op::refused);
}

void LagHelper::handleRetry() {
  std::vector<Nepo::IntfId> pending;
  pending.reserve(retry_.size());
  for (auto const& [lag, status] : retry_) pending.push_back(lag);
  for (Nepo::IntfId const& lag : pending) {
    count(Op::retry);
    settle(lag, Op::retry, reconcile(lag));
  }
}

void LagHelper::handleVerify() {
  count(Op::handleVerify);
  verify();
}

void LagHelper::handleRetryVerify() {
  count(Op::handleRetryVerify);
  verify();
}

void LagHelper::verify() {
  Vemo::VerifyData& verifyData = *commonData_->verifyData();
  Vemo::VemoCommonSmData const& cd = *commonData_;
  std::vector<Nepo::IntfId> expected;
  expected.reserve(cd.lagToPortSize());
  for (auto const& entry : cd.lagToPortAll()) expected.push_back(entry.first);
  std::sort(expected.begin(), expected.end());

  // A difference on a port-channel the chip refused says so, so that the engineer knows whether
  // it is on its way or stuck.
  absl::btree_set<Nepo::IntfId> reported;
  auto report = [&](Nepo::IntfId const& lag, std::string const& what) {
    std::string text = lag.stringValue() + ": " + what;
    if (auto it = retry_.find(lag); it != retry_.end()) {
      text += " (pending retry, the chip answered " + std::string(statusText(it->second)) + ")";
    } else if (failed_.contains(lag)) {
      text += " (the chip refused the last change as failed)";
    }
    verifyData.reportMismatch("LagSm", text);
    reported.insert(lag);
  };

  // Both sides in key order, walked together.
  auto hw = chip_.lags().entries().begin();
  auto const hwEnd = chip_.lags().entries().end();
  auto want = expected.begin();
  while (hw != hwEnd || want != expected.end()) {
    if (want == expected.end() || (hw != hwEnd && hw->first < *want)) {
      report(hw->first, "in hardware, not in lagToPort");
      ++hw;
    } else if (hw == hwEnd || *want < hw->first) {
      report(*want, "in lagToPort, not in hardware");
      ++want;
    } else {
      for (auto const& what : memberDifferences(hw->second.members, cd.lagToPort(*want))) {
        report(*want, what);
      }
      ++hw;
      ++want;
    }
  }
  for (auto const& [lag, what] : sharingDifferences()) report(lag, what);
  // Refused changes the maps do not show, such as peer-link sharing.
  for (auto const& [lag, status] : retry_) {
    if (reported.contains(lag)) continue;
    verifyData.reportMismatch("LagSm", lag.stringValue() +
                                           ": hardware programming pending retry, " +
                                           "the chip answered " + std::string(statusText(status)));
  }
  for (Nepo::IntfId const& lag : failed_) {
    if (reported.contains(lag)) continue;
    verifyData.reportMismatch("LagSm",
                              lag.stringValue() + ": the chip refused the last change as failed");
  }
}

std::vector<std::pair<Nepo::IntfId, std::string>> LagHelper::sharingDifferences() const {
  std::vector<std::pair<Nepo::IntfId, std::string>> out;
  if (!lagSm_) return out;
  absl::btree_set<Nepo::IntfId> lags;
  for (auto const& [lag, entry] : chip_.lags().entries()) {
    if (!entry.sharedPeerLink.isEmpty()) lags.insert(lag);
  }
  for (auto const& [lag, shared] : lagSm_->sharePeerLinkWithLagAll()) lags.insert(lag);
  auto const named = [](Nepo::IntfId const& peerLink) {
    return peerLink.isEmpty() ? std::string("none") : peerLink.stringValue();
  };
  for (Nepo::IntfId const& lag : lags) {
    LagTable::Entry const* const hw = chip_.lags().entry(lag);
    Nepo::IntfId const inHw = hw ? hw->sharedPeerLink : Nepo::IntfId();
    Nepo::IntfId const inSm =
        lagSm_->sharePeerLinkWithLag(lag) ? lagSm_->currentPeerLink() : Nepo::IntfId();
    if (inHw == inSm) continue;
    out.emplace_back(lag, "peer link shared in hardware " + named(inHw) +
                              ", in sharePeerLinkWithLag " + named(inSm));
  }
  return out;
}

}  // namespace sim
