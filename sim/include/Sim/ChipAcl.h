// The values of the chip's ACL TCAMs: what one entry matches, the packets the classifier is
// given and what it answers. The tables themselves live in Chip.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <map>
#include <optional>

#include "Nepo/EthAddr.h"
#include "Nepo/IntfId.h"
#include "Nepo/IpAddr.h"
#include "Nepo/IpPrefix.h"
#include "Nepo/RangeToMask.h"
#include "ZolGen/Acl.h"
#include "ZolGen/VemoAcl.h"

namespace sim {

// The 16-bit fields a range checker can compare, in the order a subrule takes checkers.
enum class RangeField : uint8_t { srcPort, dstPort, ipLen };
inline constexpr size_t kRangeFieldCount = 3;
// A set of RangeFields, one bit each (srcPort is bit 0).
using RangeFields = uint8_t;
constexpr RangeFields rangeFieldBit(RangeField f) {
  return static_cast<RangeFields>(1u << static_cast<unsigned>(f));
}

// An inclusive range of a 16-bit field.
struct PortRange {
  uint16_t low = 0;
  uint16_t high = 0;
  bool contains(uint16_t v) const { return low <= v && v <= high; }
  friend auto operator<=>(PortRange const&, PortRange const&) = default;
};

// Non-initial fragments carry no L4 header.
enum class FragmentMatch : uint8_t { any, notFragment, nonInitial };

// Where an entry sits: entries of one ACL instance are looked up in (aclRule, subRuleNum) order.
struct AclEntryKey {
  uint32_t aclNumber = 0;
  uint32_t aclRule = 0;
  uint32_t subRuleNum = 0;
  friend auto operator<=>(AclEntryKey const&, AclEntryKey const&) = default;
};

// One packet as the classifier sees it. For IP packets the Ethernet type follows the address
// family; for non-initial fragments the L4 fields are not there.
struct Packet {
  Nepo::IntfId intf;
  Acl::AclDirection direction = Acl::AclDirection::in;
  uint16_t vlan = 0;
  Nepo::EthAddr srcMac, dstMac;
  uint16_t etherType = 0;
  bool isIp = false;
  Nepo::IpAddr srcIp, dstIp;
  uint8_t protocol = 0;
  uint16_t srcPort = 0, dstPort = 0;
  uint16_t tcpFlags = 0;
  uint8_t ecn = 0, dscp = 0;
  uint16_t ipLen = 0;
  uint8_t ttl = 0;
  uint8_t icmpType = 0, icmpCode = 0;
  bool fragment = false;
};

// One TCAM entry. Every value/mask pair with mask 0 matches anything; an entry that matches on
// any IP field matches IP packets only, and one that matches on an L4 field (ports, TCP flags,
// ICMP) matches no non-initial fragment.
struct AclEntry {
  AclEntryKey key;
  Acl::AclAction action = Acl::AclAction::deny;
  Nepo::ValueMask<uint64_t> srcMac, dstMac;  // 48 bits
  Nepo::ValueMask<uint16_t> etherType;
  Nepo::ValueMask<uint16_t> vlan;  // 12 bits
  // 0 for any packet, 4 or 6 for IP packets of that version.
  uint8_t ipVersion = 0;
  // Length 0 is any address of either family.
  Nepo::IpPrefix srcIp, dstIp;
  Nepo::ValueMask<uint8_t> protocol;
  Nepo::ValueMask<uint16_t> srcPort, dstPort;
  Nepo::ValueMask<uint16_t> tcpFlags;  // 9 bits
  // TCP with ACK or RST set, for hardware that matches established sessions itself.
  bool tcpEstablished = false;
  Nepo::ValueMask<uint8_t> ecn;   // 2 bits
  Nepo::ValueMask<uint8_t> dscp;  // 6 bits
  Nepo::ValueMask<uint16_t> ipLen;
  Nepo::ValueMask<uint8_t> ttl;
  Nepo::ValueMask<uint8_t> icmpType, icmpCode;
  FragmentMatch fragment = FragmentMatch::any;
  // Fields the entry matches through a range checker, by RangeField.
  std::array<std::optional<PortRange>, kRangeFieldCount> ranges{};

  std::optional<PortRange> const& range(RangeField f) const {
    return ranges[static_cast<size_t>(f)];
  }
  void rangeIs(RangeField f, PortRange r) { ranges[static_cast<size_t>(f)] = r; }
  bool matchesL4() const;
  bool matchesIp() const;
  bool matches(Packet const& p) const;
};

struct AclTcamEntry {
  AclEntry entry;
  uint64_t hits = 0;
};
using AclTcam = std::map<AclEntryKey, AclTcamEntry>;

struct ClassifyResult {
  Acl::AclAction action = Acl::AclAction::permit;
  // The entry that decided; none when no ACL is bound, the interface is blocked or nothing
  // matched.
  std::optional<AclEntryKey> entry;
  bool blocked = false;
};

}  // namespace sim
