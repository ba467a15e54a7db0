// ACL value types (generated from schema/Acl.toml and schema/VemoAcl.toml) and the rule-creation
// arithmetic the ACL SMs share: the text form of an AclKey, port ranges as ternary entries, and
// the scratch record one IP rule is expanded into before its subrules go to the helper.
#pragma once

#include <array>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ZolGen/Acl.h"
#include "ZolGen/VemoAcl.h"

namespace Vemo {

// The groups of the AclKey text pattern
//   ^(\S+)-(ip|ipv6|mac)-(in|out)\(std=(false|true),vlanId=(\d+),aclGroup=(\S+)\)
// as a regex search with that pattern would capture them; text after the match is ignored. It
// is matched by hand because a backtracking regex engine recurses once per character and runs
// out of stack on long texts.
struct AclKeyTextMatch {
  std::string_view name;
  std::string_view type;
  std::string_view direction;
  std::string_view standard;
  std::string_view vlanId;
  std::string_view aclGroup;
};
std::optional<AclKeyTextMatch> matchAclKeyText(std::string_view text);

// What one subrule matches on a 16-bit field (source port, destination port, IP length). With a
// mask, one ternary entry: the values v with (v & mask) == start, which run to end. Without
// (mask 0), the range start..end for a hardware range checker; a field the rule leaves open is
// (0, 0, mask 0).
struct AclL4Mask {
  Zol::U16 start = 0;
  Zol::U16 end = 0;
  Zol::U16 mask = 0;
  // The value the helper is given beside the mask: 0 for a range.
  Zol::U16 value() const { return start & mask; }
  friend bool operator==(AclL4Mask const&, AclL4Mask const&) = default;
};
using AclL4MaskVector = std::vector<AclL4Mask>;
// "value/0xmask" for an entry, "start-end" for a range, as the rule-creation trace prints them.
std::ostream& operator<<(std::ostream& os, AclL4Mask const& f);

// Appends the fewest aligned entries that cover [low, high] exactly, lowest first; 0..65535 is
// one entry with mask 0. A disabled range is the wildcard (0, 0, mask 0). low > high is a
// programming error and asserts.
void createL4PortMasks(Zol::U16 low, Zol::U16 high, bool enabled, AclL4MaskVector& maskVect);

// The ranges of one field of an IP rule (source port, destination port, IP length). A field the
// rule does not match is disabled and holds the single range (0, 0).
struct AclRuleRanges {
  static constexpr size_t maxRanges = Acl::MatchRangeList::maxRanges;
  std::array<Acl::MatchRange, maxRanges> range{};
  Zol::U8 count = 0;
  bool enabled = true;
  // The ternary entries of range[i], for hardware out of range checkers. Built on first use:
  // most subrules never need them.
  // Back to no range, enabled, keeping the mask vectors' memory.
  void reset() {
    count = 0;
    enabled = true;
    for (auto& m : masks_) m.clear();
  }
  AclL4MaskVector const& masks(size_t i) const {
    if (masks_[i].empty()) createL4PortMasks(range[i].low(), range[i].high(), enabled, masks_[i]);
    return masks_[i];
  }

 private:
  mutable std::array<AclL4MaskVector, maxRanges> masks_{};
};

// The scratch record of one IP rule: every combination of a TCP-flags entry, a range of each
// field and an ECN rule becomes one subrule.
struct AclIpRuleCreateData {
  static constexpr size_t maxTcpFlags = 2;
  // The filter's flags (NS in bit 8 included), with the ACK or RST that established sessions
  // add. The helper is given the low eight bits; it reads NS and the mask from the rule.
  std::array<Zol::U32, maxTcpFlags> tcpFlags{};
  // The filter's flag mask; 0 beside the flags value 255 when hardware matches established
  // sessions itself.
  Zol::U32 tcpFlagsMask = 0;
  Zol::U8 tcpFlagsCount = 0;
  AclRuleRanges srcPort;
  AclRuleRanges dstPort;
  AclRuleRanges ipLen;
  // True when the subrules match on L4 fields (ports, ICMP, TCP flags).
  bool l4Rule = false;
  AclEcnInfo ecnInfo;
};

// The ECN value/mask pairs a selector stands for; {0: 0} (any) without hardware ECN support.
AclEcnInfo createAclEcnInfo(Acl::EcnMatch selector, bool ecnSupported);

// Fills data (reset first) from the filter. establishedSupported: the hardware matches
// established TCP sessions itself. False when a port or length match can be met by no value
// (lt 0, a reversed range): such a rule has no subrules.
bool createIpAclRuleData(Acl::IpFilter const& filter, AclIpRuleCreateData& data, bool ecnSupported,
                         bool establishedSupported);

}  // namespace Vemo
