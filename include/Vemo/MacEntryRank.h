// Which of two candidates for one MAC and VLAN is to be in hardware. The MAC SM gathers one
// candidate per source and keeps the one this prefers; the order is part of how MLAG peers and
// overlay controllers agree on a host's place, so it is kept exactly, quirks included.
#pragma once

#include "ZolGen/VemoMac.h"

namespace Vemo {

class SwTunnelGroupIdManager;

using MacCandidate = VemoTypes::RemoteMacAddressTableEntry;

// The entry kinds that win a tie of preference: ordinals 4, 9 and 21 of Bridging::EntryType
// (configuredStaticMac, receivedRemoteMac, dot1xAuthorizedMac). Kinds above 21 never do.
inline constexpr Zol::U32 kTieWinningEntryTypes = 0x200210;

// preference * 256, plus 1 for a tie-winning kind.
Zol::U32 entryRank(MacCandidate const& entry);

// True when first is to be preferred to second; a null second always loses. In order: the higher
// rank; the larger move count (as sequence numbers, so a count that wrapped is larger); the later
// last move (a NaN time, or a first that is not later, loses); an entry with a layer-2 RIB tuple
// over one without, and between two tuples the first only when the second's orders below it;
// then the tunnel endpoints of the two groups (tunnels resolves them): between two single-member
// groups an empty list wins, then the smaller address (equal addresses keep the first), while
// otherwise the longer list wins, then the larger address at the first that differs, and equal
// lists keep the first.
bool betterEntry(MacCandidate const& first, MacCandidate const* second,
                 SwTunnelGroupIdManager const& tunnels);

}  // namespace Vemo
