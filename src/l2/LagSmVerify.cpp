// The port-channel SM's consistency check: the two membership maps agree with each other and
// with what the SM programmed; the helper then compares the chip with them.
#include <algorithm>
#include <vector>

#include "Vemo/LagSm.h"

ZOL_TRACE_MODULE("LagSm")

namespace Vemo {

namespace {

template <class Map>
std::vector<Nepo::IntfId> sortedKeys(Map const& m) {
  std::vector<Nepo::IntfId> keys;
  keys.reserve(m.size());
  for (auto const& entry : m) keys.push_back(entry.first);
  std::sort(keys.begin(), keys.end());
  return keys;
}

}  // namespace

void LagSm::handleVerify(Zol::String const& request) {
  ZOL_TRACE(8, "handleVerify " << request);
  if (!initialized()) {
    // Nothing is programmed yet: the request waits for this SM's answer, given once the first
    // pass is done.
    if (pendingVerify_.insert(request).second) verifyData()->answerDeferred(request);
    return;
  }
  verifyMaps();
  in_.helper->handleVerify();
}

void LagSm::handleRetryVerify(Zol::String const& request) {
  ZOL_TRACE(8, "handleRetryVerify " << request);
  if (!initialized()) {
    handleVerify(request);
    return;
  }
  verifyMaps();
  in_.helper->handleRetryVerify();
}

void LagSm::verifyMaps() {
  VemoCommonSmData const& cd = *commonData();
  VerifyData& report = *verifyData();
  for (Nepo::IntfId const& lag : sortedKeys(cd.lagToPortAll())) {
    VemoLagPortList const& members = cd.lagToPort(lag);
    for (auto const& [port, state] : members.portAll()) {
      Nepo::IntfId const owner = cd.portToLag(port);
      if (owner == lag) continue;
      report.reportMismatch(
          "LagSm",
          lag.stringValue() + ": member " + port.stringValue() +
              (owner == Nepo::IntfId() ? " has no portToLag entry"
                                       : " is in portToLag as a member of " + owner.stringValue()));
    }
    if (status(lag) && localMember(lag) != members) {
      report.reportMismatch(
          "LagSm", lag.stringValue() + ": lagToPort differs from the members last programmed");
    }
  }
  for (Nepo::IntfId const& port : sortedKeys(cd.portToLagAll())) {
    Nepo::IntfId const lag = cd.portToLag(port);
    if (cd.lagToPort(lag).portHas(port)) continue;
    report.reportMismatch("LagSm", port.stringValue() + ": portToLag says " + lag.stringValue() +
                                       ", whose lagToPort does not list it");
  }
}

}  // namespace Vemo
