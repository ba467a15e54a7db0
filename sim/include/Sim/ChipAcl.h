// The chip's ACL block: a TCAM per unit and direction, each unit's range-checker pool, the
// instances applied to interfaces and the interfaces blocked, with the values they hold (what one
// entry matches, the packets the classifier is given and what it answers). Its packet stage
// judges a packet by the instances of its interface and VLAN.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <rapidjson/document.h>

#include "Nepo/EthAddr.h"
#include "Nepo/IntfId.h"
#include "Nepo/IpAddr.h"
#include "Nepo/IpPrefix.h"
#include "Nepo/RangeToMask.h"
#include "Sim/ChipPorts.h"
#include "Sim/ChipTable.h"
#include "Sim/ChipVxlan.h"
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
// family; for non-initial fragments the L4 fields are not there. A decapsulated packet arrived on
// the port intf inside a VXLAN tunnel: the fields are its inner frame's, and decap says where the
// tunnel came from.
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
  std::optional<VxlanDecap> decap;
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

  // What bridging did with an ingress packet the ACLs let through (see MacTable::process): the
  // VLAN it was bridged in, the ports it leaves by (in order; none when it is dropped or goes to
  // the CPU only), and whether it was flooded, sent to the CPU, or taught the table its source.
  uint16_t vlan = 0;
  std::vector<Nepo::IntfId> egress;
  bool flooded = false;
  bool toCpu = false;
  bool learned = false;
  // The VLAN is not one the packet's port carries: dropped.
  bool vlanDropped = false;
  // A known destination behind a tunnel: egress holds the tunnel interface, and this how the
  // packet is encapsulated.
  std::optional<VxlanEncap> vxlan;
  // A decapsulated packet's source was reported as a remote learn (the table holds nothing new).
  bool remoteLearned = false;
  // Why bridging dropped a packet it would otherwise have sent on, as "no tunnel for next hop 7"
  // or "vni 10010 has no vlan"; empty when it did not (a VLAN the port does not carry is
  // vlanDropped).
  std::string dropReason;
};

// The TCAMs and range checkers are two tables (acl and rangeChecker) for faults, capacity and
// counters; their capacities apply to each unit's TCAM and pool. An entry takes a checker for
// each of its ranges; identical ranges of one field share one. Writes (adding an entry, binding)
// count against faults; removals are never refused, so that a rollback always completes.
class AclTables : public PacketStage {
 public:
  static constexpr size_t defaultCapacity = 1024;
  static constexpr size_t defaultRangeCheckers = 32;

  AclTables(ChipPorts const& ports, ErrorLog& errors);

  ChipTable& tcamTable() { return tcam_; }
  ChipTable const& tcamTable() const { return tcam_; }
  ChipTable& checkerTable() { return checkers_; }
  ChipTable const& checkerTable() const { return checkers_; }
  // Entries over every unit and direction; checkers over every unit.
  size_t entryCount() const;
  size_t checkerCount() const;

  // An add refused for want of checkers answers full and sets *missing to the fields that found
  // none, taken in RangeField order; it takes nothing. Adding at an existing key replaces that
  // entry.
  Status entryAdd(uint32_t unit, Acl::AclDirection dir, AclEntry const& entry,
                  RangeFields* missing = nullptr);
  void entryDel(uint32_t unit, Acl::AclDirection dir, AclEntryKey const& key);
  // Every entry of the instance, on every unit, in both directions.
  void deleteInstance(uint32_t aclNumber);
  AclTcamEntry const* entry(uint32_t unit, Acl::AclDirection dir, AclEntryKey const& key) const;
  AclTcam const& tcam(uint32_t unit, Acl::AclDirection dir) const;
  size_t rangeCheckersUsed(uint32_t unit) const;
  // How many entries of the unit share the checker; 0 when there is none.
  uint32_t rangeCheckerUsers(uint32_t unit, RangeField field, PortRange range) const;
  // An error the platform answers for every rule it would program on the unit;
  // aclCreateErrorNone clears it.
  void unitErrorIs(uint32_t unit, Vemo::AclCreateError error);
  Vemo::AclCreateError unitError(uint32_t unit) const;

  // The instance applied to an interface in one direction, one per list type: an IPv4 packet is
  // judged by the interface's IPv4 list, an IPv6 packet by its IPv6 list and any other packet by
  // its MAC list. Packets of a port are looked up in the port's unit's TCAM, those of any other
  // interface in unit 0's (every unit holds the same instances).
  Status bind(Nepo::IntfId const& intf, Acl::AclDirection dir, uint32_t aclNumber,
              Acl::AclType type = Acl::AclType::ip);
  void unbind(Nepo::IntfId const& intf, Acl::AclDirection dir,
              Acl::AclType type = Acl::AclType::ip);
  // Takes the instance off every interface it is applied to in dir.
  void unbindAll(uint32_t aclNumber, Acl::AclDirection dir);
  std::optional<uint32_t> binding(Nepo::IntfId const& intf, Acl::AclDirection dir,
                                  Acl::AclType type = Acl::AclType::ip) const;
  // A blocked interface drops everything, in both directions.
  void blockIs(Nepo::IntfId const& intf, bool blocked);
  bool blocked(Nepo::IntfId const& intf) const { return blocked_.contains(intf); }

  // The packet stage: a blocked interface denies the packet, an interface without an instance
  // lets it go on, otherwise the instance's first matching entry decides and counts it, and a
  // packet no entry matches is denied. A packet of VLAN n also meets interface Vlan<n>: its
  // block, and its instance, looked up after the port's in the same TCAM. A deny from either
  // instance decides; when both permit, the VLAN interface's entry is the one reported.
  bool process(Packet const& p, ClassifyResult& result) override;

  // {"units": [{"unit": 0, "in": {"used": 2, "capacity": 1024, "instances": {"3": {"entries": 2,
  //  "hits": 5}}}, "out": {...}, "rangeCheckers": {"used": 1, "capacity": 32}, "error":
  //  "aclCreateErrorTcamExhaustion"}], "bindings": {"Ethernet1": {"in": 3}}, "blocked":
  //  ["Ethernet2"]}
  rapidjson::Value toJson(rapidjson::Document::AllocatorType& alloc) const;

 private:
  struct RangeChecker {
    RangeField field = RangeField::srcPort;
    PortRange range;
    friend auto operator<=>(RangeChecker const&, RangeChecker const&) = default;
  };
  struct Unit {
    std::array<AclTcam, 2> tcam;                     // by Acl::AclDirection
    std::map<RangeChecker, uint32_t> rangeCheckers;  // users of each checker
    Vemo::AclCreateError error = Vemo::AclCreateError::aclCreateErrorNone;
  };
  Unit const& unitAt(uint32_t unit) const;
  void checkersRelease(Unit& unit, AclEntry const& entry);

  ChipPorts const& ports_;
  ChipTable tcam_;
  ChipTable checkers_;
  std::vector<Unit> units_;
  std::map<std::tuple<Nepo::IntfId, Acl::AclDirection, Acl::AclType>, uint32_t> bindings_;
  std::set<Nepo::IntfId> blocked_;
};

}  // namespace sim
