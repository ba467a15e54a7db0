// The simulated switching chip: front-panel ports over units, and the hardware tables that the
// platform helpers program. Every table answers each operation with a Status; tests and
// scenarios make it refuse (busy, full, failed) to exercise the helpers' recovery.
#pragma once

#include <rapidjson/document.h>

#include <array>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "Nepo/IntfId.h"
#include "Sim/ChipAcl.h"
#include "Vemo/VemoTypes.h"
#include "ZolGen/VemoCommon.h"

namespace sim {

// The chip's tables; each new one is appended and gets a name in tableName.
enum class Table : uint8_t { lag, acl, rangeChecker };
inline constexpr size_t kTableCount = 3;

// What the chip answers to one table operation.
enum class Status : uint8_t {
  ok,
  busy,    // try again later
  full,    // no room for another entry
  failed,  // the request itself is wrong; the same request fails again
};

std::string_view tableName(Table t);
std::optional<Table> tableFromName(std::string_view name);
std::string_view statusText(Status s);
std::optional<Status> statusFromText(std::string_view text);
std::ostream& operator<<(std::ostream& os, Status s);

// Where a front-panel port sits: its unit and its bit within the unit.
struct PortLocation {
  uint32_t unit = 0;
  uint32_t bit = 0;
  bool operator==(PortLocation const&) const = default;
};

class Chip {
 public:
  struct Config {
    uint32_t units = 1;
    uint32_t portsPerUnit = 32;
  };
  // The port bitmaps hold 32 units of 288 ports; a larger chip could not be programmed.
  static constexpr uint32_t maxUnits = 32;
  static constexpr uint32_t maxPortsPerUnit = 288;
  static constexpr size_t defaultCapacity = 1024;
  static constexpr size_t defaultRangeCheckers = 32;
  static constexpr size_t errorLogLimit = 1024;

  struct LagEntry {
    uint32_t hwId = 0;
    Vemo::VemoLagPortList members;
    // The MLAG peer link whose members back this port-channel up; empty when none.
    Nepo::IntfId sharedPeerLink;
  };
  using LagTable = std::map<Nepo::IntfId, LagEntry>;

  // Throws Zol::RangeException for a unit or port count the port bitmaps cannot hold.
  Chip();
  explicit Chip(Config const& config);
  Chip(Chip const&) = delete;
  Chip& operator=(Chip const&) = delete;

  // Ports: Ethernet1 .. EthernetN, numbered unit by unit.
  uint32_t units() const { return config_.units; }
  uint32_t portsPerUnit() const { return config_.portsPerUnit; }
  bool hasPort(Nepo::IntfId const& intf) const { return location(intf).has_value(); }
  std::optional<PortLocation> location(Nepo::IntfId const& intf) const;
  std::vector<Nepo::IntfId> ports() const;

  // Fault injection and limits, the same for every table. The next count operations on the
  // table answer kind (ok clears what is pending); an operation that would add an entry beyond
  // the capacity answers full.
  void faultIs(Table t, Status kind, uint32_t count);
  uint32_t faultPending(Table t) const { return tables_[index(t)].faultCount; }
  void capacityIs(Table t, size_t capacity) { tables_[index(t)].capacity = capacity; }
  size_t capacity(Table t) const { return tables_[index(t)].capacity; }
  // For acl and rangeChecker, whose capacity applies to each unit's TCAM and pool, the total over
  // the chip.
  size_t size(Table t) const;
  // Every refused operation, oldest first, as "lag create Port-Channel3: full"; only the last
  // errorLogLimit are kept.
  std::vector<std::string> const& errors() const { return errors_; }
  void errorsDelAll() { errors_.clear(); }

  // What was asked of a table and what changed it: every write operation counts, refused or
  // not, and a write is one that changed what the table holds (a port-channel created again, a
  // binding set to what it was, are operations but no writes). Reading and packets count
  // nothing. An ACL entry that takes range checkers counts once in acl and once in rangeChecker.
  struct Counters {
    uint64_t writes = 0;
    uint64_t operations = 0;
  };
  Counters counters(Table t) const { return tables_[index(t)].counters; }
  // Over every table.
  Counters counters() const;

  // LACP frames trapped to the CPU (true) or forwarded as data; counted in the lag table.
  bool lacpEnabled() const { return lacpEnabled_; }
  void lacpEnabledIs(bool enabled);

  // The port-channel table. Members must be ports of this chip; a refused operation changes
  // nothing.
  Status lagCreate(Nepo::IntfId const& lag);
  Status lagDestroy(Nepo::IntfId const& lag);
  Status lagMembersIs(Nepo::IntfId const& lag, Vemo::VemoLagPortList const& members);
  Status lagMemberIs(Nepo::IntfId const& lag, Nepo::IntfId const& member, bool add,
                     Vemo::VemoLagPort const& state);
  Status lagShareIs(Nepo::IntfId const& lag, Nepo::IntfId const& peerLink, bool share);
  LagEntry const* lag(Nepo::IntfId const& lag) const;
  LagTable const& lags() const { return lags_; }

  // The ACL TCAMs, one per unit and direction, and each unit's range-checker pool. An entry
  // takes a checker for each of its ranges; identical ranges of one field share one. Writes
  // (adding an entry, binding) count against faults; removals are never refused, so that a
  // rollback always completes. An add refused for want of checkers answers full and sets
  // *missing to the fields that found none, taken in RangeField order; it takes nothing.
  // Adding at an existing key replaces that entry.
  Status aclEntryAdd(uint32_t unit, Acl::AclDirection dir, AclEntry const& entry,
                     RangeFields* missing = nullptr);
  void aclEntryDel(uint32_t unit, Acl::AclDirection dir, AclEntryKey const& key);
  // Every entry of the instance, on every unit, in both directions.
  void aclDelete(uint32_t aclNumber);
  AclTcamEntry const* aclEntry(uint32_t unit, Acl::AclDirection dir, AclEntryKey const& key) const;
  AclTcam const& aclTcam(uint32_t unit, Acl::AclDirection dir) const;
  size_t aclRangeCheckersUsed(uint32_t unit) const;
  // How many entries of the unit share the checker; 0 when there is none.
  uint32_t aclRangeCheckerUsers(uint32_t unit, RangeField field, PortRange range) const;
  // An error the platform answers for every rule it would program on the unit;
  // aclCreateErrorNone clears it.
  void aclUnitErrorIs(uint32_t unit, Vemo::AclCreateError error);
  Vemo::AclCreateError aclUnitError(uint32_t unit) const;

  // The instance applied to an interface in one direction, one per list type: an IPv4 packet is
  // judged by the interface's IPv4 list, an IPv6 packet by its IPv6 list and any other packet by
  // its MAC list. Packets of a port are looked up in the port's unit's TCAM, those of any other
  // interface in unit 0's (every unit holds the same instances).
  Status aclBind(Nepo::IntfId const& intf, Acl::AclDirection dir, uint32_t aclNumber,
                 Acl::AclType type = Acl::AclType::ip);
  void aclUnbind(Nepo::IntfId const& intf, Acl::AclDirection dir,
                 Acl::AclType type = Acl::AclType::ip);
  // Takes the instance off every interface it is applied to in dir.
  void aclUnbindAll(uint32_t aclNumber, Acl::AclDirection dir);
  std::optional<uint32_t> aclBinding(Nepo::IntfId const& intf, Acl::AclDirection dir,
                                     Acl::AclType type = Acl::AclType::ip) const;
  // A blocked interface drops everything, in both directions.
  void aclBlockIs(Nepo::IntfId const& intf, bool blocked);
  bool aclBlocked(Nepo::IntfId const& intf) const { return aclBlocked_.contains(intf); }

  // The fate of one packet: a blocked interface denies it, an interface without an instance
  // permits it, otherwise the instance's first matching entry decides and counts it, and a
  // packet no entry matches is denied. A packet of VLAN n also meets interface Vlan<n>: its
  // block, and its instance, looked up after the port's in the same TCAM. A deny from either
  // instance decides; when both permit, the VLAN interface's entry is the one reported.
  ClassifyResult classify(Packet const& p);

  // Everything the chip holds, in key order:
  // {"units": [{"unit": 0, "ports": 32}], "lacpEnabled": true, "lag": {"Port-Channel1":
  //  {"hwId": 1, "members": {"Ethernet1": {"collecting": true, "distributing": true}},
  //  "sharedPeerLink": "Port-Channel10"}}, "capacity": {"lag": 1024}, "errors": [...]}
  // "acl" follows "lag": {"units": [{"unit": 0, "in": {"used": 2, "capacity": 1024, "instances":
  // {"3":
  //  {"entries": 2, "hits": 5}}}, "out": {...}, "rangeCheckers": {"used": 1, "capacity": 32},
  //  "error": "aclCreateErrorTcamExhaustion"}], "bindings": {"Ethernet1": {"in": 3}},
  //  "blocked": ["Ethernet2"]}; the ACL tables' capacities are shown there, per unit.
  rapidjson::Value toJson(rapidjson::Document::AllocatorType& alloc) const;
  // What scenarios read under hw/: toJson with the counters, "writes" and "operations", at the
  // root (every table) and in each table's object ("lag", "acl", and "rangeChecker", which holds
  // only them).
  rapidjson::Value treeJson(rapidjson::Document::AllocatorType& alloc) const;
  // The part of treeJson at path: object members by name, array elements by decimal index.
  std::optional<rapidjson::Value> lookup(std::vector<std::string> const& path,
                                         rapidjson::Document::AllocatorType& alloc) const;
  // Whether path can name something in treeJson on this chip, whatever it holds now: known
  // tables and attribute names, a unit that exists, any key where the tree is keyed (a
  // port-channel, an interface, an ACL number). Otherwise says why in *problem.
  bool validPath(std::vector<std::string> const& path, std::string* problem) const;
  // Every path validPath accepts down to the values, with "<key>" and "<unit>" where the tree is
  // keyed or indexed ("lag/<key>/hwId", "acl/units/<unit>/in/used").
  static std::vector<std::string> pathTemplates();

 private:
  struct TableState {
    size_t capacity = defaultCapacity;
    Status faultKind = Status::ok;
    uint32_t faultCount = 0;
    Counters counters;
  };
  static size_t index(Table t) { return static_cast<size_t>(t); }

  // Every table operation that can be refused asks here first, and is counted: a pending fault
  // is consumed, then an operation that adds an entry must fit. The operation logs anything but
  // ok through refuse, so that the text is built only for refusals.
  Status admit(Table t, bool adds);
  // Operations that are never refused count here; each returns changed, for the caller's flow.
  void operated(Table t) { ++tables_[index(t)].counters.operations; }
  bool wrote(Table t, bool changed = true) {
    if (changed) ++tables_[index(t)].counters.writes;
    return changed;
  }
  // Logs a refusal ("lag create Port-Channel3: failed, not a port-channel") and returns s.
  Status refuse(Table t, std::string_view what, Status s, std::string_view why = {});
  Status refuseMember(std::string_view what, Nepo::IntfId const& member);

  uint32_t lagHwIdAlloc();
  void lagHwIdFree(uint32_t id);
  rapidjson::Value lagJson(rapidjson::Document::AllocatorType& alloc) const;

  struct RangeChecker {
    RangeField field = RangeField::srcPort;
    PortRange range;
    friend auto operator<=>(RangeChecker const&, RangeChecker const&) = default;
  };
  struct AclUnit {
    std::array<AclTcam, 2> tcam;                     // by Acl::AclDirection
    std::map<RangeChecker, uint32_t> rangeCheckers;  // users of each checker
    Vemo::AclCreateError error = Vemo::AclCreateError::aclCreateErrorNone;
  };
  AclTcam& aclTcamOf(uint32_t unit, Acl::AclDirection dir);
  void aclCheckersRelease(AclUnit& unit, AclEntry const& entry);
  rapidjson::Value aclJson(rapidjson::Document::AllocatorType& alloc) const;

  Config config_;
  std::array<TableState, kTableCount> tables_{};
  std::vector<std::string> errors_;
  bool lacpEnabled_ = true;
  LagTable lags_;
  // Hardware ids below lagNextHwId_ that were given back; the lowest free id is the first of
  // these, or lagNextHwId_.
  std::set<uint32_t> lagFreeHwIds_;
  uint32_t lagNextHwId_ = 1;
  std::vector<AclUnit> aclUnits_;
  std::map<std::tuple<Nepo::IntfId, Acl::AclDirection, Acl::AclType>, uint32_t> aclBindings_;
  std::set<Nepo::IntfId> aclBlocked_;
};

// The chip's port layout for the port bitmaps: unit u gets bitmap index u (units are registered
// in order at construction, so the base class's first-appearance order is the unit order) and
// a port's bit is its bit within the unit. Interfaces that are not ports of the chip are
// answered with an invalid position.
class ChipIntfToBitmapPosition : public VemoTypes::IntfToBitmapPosition {
 public:
  ChipIntfToBitmapPosition(Zol::Name const& name, Chip const& chip);
  VemoTypes::BitmapPosition intfToBitmapPosition(Nepo::IntfId const& intf) const override;

 private:
  Chip const& chip_;
};

}  // namespace sim
