#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "Vemo/MacEntryRank.h"
#include "Vemo/SwTunnelGroupIdManager.h"

namespace {

using Bridging::EntryType;
using Nepo::IpAddr;
using Vemo::MacCandidate;
using Vemo::SwTunnelGroupId;

IpAddr ip(char const* text) { return IpAddr::fromString(text); }

struct Tunnels {
  Zol::ActivityLoop loop{Zol::ActivityLoop::TimeMode::simulated};
  Zol::Ptr<Vemo::VemoCommonSmData> cd = Vemo::vemoCommonSmDataFactory("cd");
  Zol::Ptr<Vemo::SwTunnelGroupIdManager> mgr = Vemo::swTunnelGroupIdManagerFactory(cd);

  SwTunnelGroupId one(char const* addr) const {
    return mgr->getSwTunnelGroupIdForTunnelIp(ip(addr));
  }
  SwTunnelGroupId many(std::vector<char const*> const& addrs) {
    Vemo::TunnelIpAddrList list;
    for (char const* a : addrs) list.tunnelIpAddrIs(ip(a), true);
    return mgr->getSwTunnelGroupIdForTunnelIpList(list);
  }
};

struct Candidate {
  EntryType type = EntryType::learnedDynamicMac;
  Zol::U8 preference = 0;
  Zol::U32 moves = 0;
  double time = 0;
  std::optional<L2Rib::ObjTuple> tuple;
  SwTunnelGroupId group;

  MacCandidate make() const {
    MacCandidate c;
    c.entryTypeIs(type);
    c.preferenceIs(preference);
    c.moveCountIs(Tolm::Seqno32(moves));
    c.lastMoveTimeIs(time);
    if (tuple) {
      c.l2RibObjTupleIs(*tuple);
      c.l2RibObjTupleSetIs(true);
    }
    c.swTunnelGroupIdIs(group);
    return c;
  }
};

Candidate ofType(EntryType t, Zol::U32 moves = 0, Zol::U8 preference = 0) {
  Candidate c;
  c.type = t;
  c.moves = moves;
  c.preference = preference;
  return c;
}
Candidate withPreference(Zol::U8 preference, Zol::U32 moves = 0) {
  return ofType(EntryType::learnedDynamicMac, moves, preference);
}
Candidate withMoves(Zol::U32 moves) { return ofType(EntryType::learnedDynamicMac, moves); }
Candidate atTime(double t) {
  Candidate c;
  c.time = t;
  return c;
}
Candidate withTuple(Zol::U64 id) {
  Candidate c;
  c.tuple = L2Rib::ObjTuple(L2Rib::ObjType::destObj, id);
  return c;
}
Candidate inGroup(SwTunnelGroupId g) {
  Candidate c;
  c.group = g;
  return c;
}

TEST(MacEntryRank, EveryRuleInOrder) {
  Tunnels t;
  double const nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    std::string what;
    Candidate first;
    std::optional<Candidate> second;
    bool firstWins;
  };
  std::vector<Case> const cases = {
      {"no second", withMoves(0), std::nullopt, true},
      {"higher preference", withPreference(2), withPreference(1, 9), true},
      {"lower preference", withPreference(1, 9), withPreference(2), false},
      {"configured static wins a tie", ofType(EntryType::configuredStaticMac),
       ofType(EntryType::learnedDynamicMac, 5), true},
      {"controller-received wins a tie", ofType(EntryType::learnedRemoteMac, 5),
       ofType(EntryType::receivedRemoteMac), false},
      {"802.1X-authorised wins a tie", ofType(EntryType::dot1xAuthorizedMac),
       ofType(EntryType::dot1xDynamicMac, 5), true},
      {"the tie bit is no preference", ofType(EntryType::configuredStaticMac), withPreference(1),
       false},
      {"kinds above 21 never win a tie", ofType(EntryType::peerDot1xAuthorizedMac),
       ofType(EntryType::learnedDynamicMac, 1), false},
      {"configured dynamic does not win a tie", ofType(EntryType::configuredDynamicMac),
       ofType(EntryType::learnedDynamicMac, 1), false},
      {"more moves", withMoves(3), withMoves(2), true},
      {"fewer moves", withMoves(2), withMoves(3), false},
      {"a wrapped count is larger", withMoves(0), withMoves(0xFFFFFFFF), true},
      {"a count about to wrap is smaller", withMoves(0xFFFFFFFF), withMoves(0), false},
      {"later move", atTime(2), atTime(1), true},
      {"earlier move", atTime(1), atTime(2), false},
      {"a NaN first time loses", atTime(nan), atTime(1), false},
      {"a NaN second time loses the first", atTime(1), atTime(nan), false},
      {"two NaN times keep the second", atTime(nan), atTime(nan), false},
      {"a tuple beats none", withTuple(1), withMoves(0), true},
      {"none loses to a tuple", withMoves(0), withTuple(1), false},
      {"the second's tuple orders below", withTuple(5), withTuple(3), true},
      {"the second's tuple orders above", withTuple(3), withTuple(5), false},
      {"equal tuples keep the second", withTuple(3), withTuple(3), false},
      {"single: empty first", inGroup(SwTunnelGroupId()), inGroup(t.one("10.0.0.1")), true},
      {"single: empty second", inGroup(t.one("10.0.0.1")), inGroup(SwTunnelGroupId()), false},
      {"single: smaller address", inGroup(t.one("10.0.0.1")), inGroup(t.one("10.0.0.2")), true},
      {"single: larger address", inGroup(t.one("10.0.0.2")), inGroup(t.one("10.0.0.1")), false},
      {"single: same address", inGroup(t.one("10.0.0.2")), inGroup(t.one("10.0.0.2")), true},
      {"longer list", inGroup(t.many({"10.0.0.1", "10.0.0.2"})), inGroup(t.one("10.0.0.9")), true},
      {"shorter list", inGroup(SwTunnelGroupId()), inGroup(t.many({"10.0.0.1", "10.0.0.2"})),
       false},
      {"multi: larger address", inGroup(t.many({"10.0.0.1", "10.0.0.5"})),
       inGroup(t.many({"10.0.0.2", "10.0.0.5"})), false},
      {"multi: larger address first", inGroup(t.many({"10.0.0.2", "10.0.0.5"})),
       inGroup(t.many({"10.0.0.1", "10.0.0.5"})), true},
      {"multi: equal lists keep the first", inGroup(t.many({"10.0.0.1", "2001:db8::1"})),
       inGroup(t.many({"10.0.0.1", "2001:db8::1"})), true},
  };
  for (Case const& c : cases) {
    MacCandidate const first = c.first.make();
    std::optional<MacCandidate> const second =
        c.second ? std::optional(c.second->make()) : std::nullopt;
    EXPECT_EQ(Vemo::betterEntry(first, second ? &*second : nullptr, *t.mgr), c.firstWins) << c.what;
  }
  EXPECT_EQ(Vemo::entryRank(ofType(EntryType::receivedRemoteMac, 0, 3).make()), 3u * 256 + 1);
}

}  // namespace
