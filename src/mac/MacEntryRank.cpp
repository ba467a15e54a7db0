#include "Vemo/MacEntryRank.h"

#include <cmath>

#include "Vemo/SwTunnelGroupIdManager.h"

namespace Vemo {

namespace {

// The last rule: it always decides. True when the first wins.
bool firstWinsByTunnels(MacCandidate const& first, MacCandidate const& second,
                        SwTunnelGroupIdManager const& tunnels) {
  SwTunnelGroupId const a = first.swTunnelGroupId();
  SwTunnelGroupId const b = second.swTunnelGroupId();
  TunnelIpAddrList const la = tunnels.getTunnelIpListFromSwTunnelGroupId(a);
  TunnelIpAddrList const lb = tunnels.getTunnelIpListFromSwTunnelGroupId(b);
  auto const& aa = la.tunnelIpAddrAll();
  auto const& ab = lb.tunnelIpAddrAll();
  if (a.isSingleMemberGroup() && b.isSingleMemberGroup()) {
    if (aa.empty()) return true;
    if (ab.empty()) return false;
    return !(ab.begin()->first < aa.begin()->first);
  }
  if (aa.size() != ab.size()) return aa.size() > ab.size();
  for (auto ia = aa.begin(), ib = ab.begin(); ia != aa.end(); ++ia, ++ib) {
    if (ia->first != ib->first) return ia->first > ib->first;
  }
  return true;
}

}  // namespace

Zol::U32 entryRank(MacCandidate const& entry) {
  auto const ordinal = static_cast<Zol::U32>(entry.entryType());
  bool const winsTies = ordinal < 32 && ((kTieWinningEntryTypes >> ordinal) & 1);
  return Zol::U32{entry.preference()} * 256 + (winsTies ? 1 : 0);
}

bool betterEntry(MacCandidate const& first, MacCandidate const* second,
                 SwTunnelGroupIdManager const& tunnels) {
  if (!second) return true;
  if (entryRank(first) != entryRank(*second)) return entryRank(first) > entryRank(*second);

  Tolm::Seqno32 const m1 = first.moveCount();
  Tolm::Seqno32 const m2 = second->moveCount();
  if (m1 > m2) return true;
  if (m1 != m2) return false;

  double const t1 = first.lastMoveTime();
  double const t2 = second->lastMoveTime();
  if (t1 > t2) return true;
  if (!(t1 == t2)) return false;  // differ, or either is NaN

  if (first.l2RibObjTupleSet() != second->l2RibObjTupleSet()) return first.l2RibObjTupleSet();
  if (first.l2RibObjTupleSet()) return second->l2RibObjTuple() < first.l2RibObjTuple();

  return firstWinsByTunnels(first, *second, tunnels);
}

}  // namespace Vemo
