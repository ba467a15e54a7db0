// The simulated switching chip: front-panel ports over units, one object per hardware table
// (as a chip's SDK has one API per table), and the packet path through the tables' stages. Every
// table answers each operation with a Status; tests and scenarios make it refuse (busy, full,
// failed) to exercise the helpers' recovery. A table added to the chip gets its Table name, its
// object here, its part of the JSON tree (kTreeShape beside toJson) and, when it touches
// packets, its stage in the path.
#pragma once

#include <rapidjson/document.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Sim/ChipAcl.h"
#include "Sim/ChipLag.h"
#include "Sim/ChipMac.h"
#include "Sim/ChipPorts.h"
#include "Sim/ChipTable.h"
#include "Sim/ChipVxlan.h"
#include "Vemo/VemoTypes.h"

namespace sim {

class Chip {
 public:
  struct Config {
    uint32_t units = 1;
    uint32_t portsPerUnit = 32;
  };
  static constexpr uint32_t maxUnits = ChipPorts::maxUnits;
  static constexpr uint32_t maxPortsPerUnit = ChipPorts::maxPortsPerUnit;
  using Counters = sim::Counters;

  // Throws Zol::RangeException for a unit or port count the port bitmaps cannot hold.
  Chip();
  explicit Chip(Config const& config);
  Chip(Chip const&) = delete;
  Chip& operator=(Chip const&) = delete;

  // Ports: Ethernet1 .. EthernetN, numbered unit by unit.
  ChipPorts const& portLayout() const { return ports_; }
  uint32_t units() const { return ports_.units(); }
  uint32_t portsPerUnit() const { return ports_.portsPerUnit(); }
  bool hasPort(Nepo::IntfId const& intf) const { return ports_.hasPort(intf); }
  std::optional<PortLocation> location(Nepo::IntfId const& intf) const {
    return ports_.location(intf);
  }
  std::vector<Nepo::IntfId> ports() const { return ports_.ports(); }

  // The tables.
  LagTable& lags() { return lags_; }
  LagTable const& lags() const { return lags_; }
  AclTables& acls() { return acls_; }
  AclTables const& acls() const { return acls_; }
  MacTable& macs() { return macs_; }
  MacTable const& macs() const { return macs_; }
  // The VXLAN tunnels and VNIs, which the platform programs directly.
  VxlanTable& vxlan() { return vxlan_; }
  VxlanTable const& vxlan() const { return vxlan_; }

  // A port's link, up unless said otherwise: one that goes down loses what the chip learned on
  // it and sends nothing.
  void linkIs(Nepo::IntfId const& port, bool up) { macs_.linkIs(port, up); }
  bool linkUp(Nepo::IntfId const& port) const { return macs_.linkUp(port); }
  // The chip's time, for learning and aging; it stands at 0 until a source is given.
  void timeSourceIs(MacTable::TimeSource now) { macs_.timeSourceIs(std::move(now)); }
  Zol::Seconds now() const { return macs_.now(); }

  // Fault injection, limits and counters of any table by its name. For acl and rangeChecker,
  // whose capacity applies to each unit's TCAM and pool, size is the total over the chip. An ACL
  // entry that takes range checkers counts once in acl and once in rangeChecker.
  void faultIs(Table t, Status kind, uint32_t count) { table(t).faultIs(kind, count); }
  uint32_t faultPending(Table t) const { return table(t).faultPending(); }
  void capacityIs(Table t, size_t capacity) { table(t).capacityIs(capacity); }
  size_t capacity(Table t) const { return table(t).capacity(); }
  size_t size(Table t) const;
  Counters counters(Table t) const { return table(t).counters(); }
  // Over every table.
  Counters counters() const;
  std::vector<std::string> const& errors() const { return errors_.lines(); }
  void errorsDelAll() { errors_.clear(); }

  // The fate of one packet: each stage of the path in turn, the first that decides ending it;
  // a packet no stage decides is permitted. The path: the ACL stage, then bridging (ingress
  // packets only).
  ClassifyResult classify(Packet const& p);

  // Everything the chip holds, in key order:
  // {"units": [{"unit": 0, "ports": 32}], "lacpEnabled": true, "lag": {LagTable::toJson},
  //  "acl": {AclTables::toJson}, "mac": {MacTable::toJson}, "vxlan": {VxlanTable::toJson},
  //  "capacity": {"lag": 1024, "mac": 32768, "vxlan": 4096}, "errors": [...]}; the ACL tables'
  //  capacities are shown in their units.
  rapidjson::Value toJson(rapidjson::Document::AllocatorType& alloc) const;
  // What scenarios read under hw/: toJson with the counters, "writes" and "operations", at the
  // root (every table) and in each table's object ("lag", "acl", "mac", "vxlan", and
  // "rangeChecker", which holds only them); "mac" also counts what the chip "learns" and "aged" on
  // its own, the "remote" entries it holds and the "remoteLearns" it reported.
  rapidjson::Value treeJson(rapidjson::Document::AllocatorType& alloc) const;
  // The part of treeJson at path: object members by name, array elements by decimal index.
  std::optional<rapidjson::Value> lookup(std::vector<std::string> const& path,
                                         rapidjson::Document::AllocatorType& alloc) const;
  // Whether path can name something in treeJson on this chip, whatever it holds now: known
  // tables and attribute names, a unit that exists, any key where the tree is keyed (a
  // port-channel, an interface, an ACL number, a VLAN, a MAC address and a next hop). Otherwise
  // says why in *problem.
  bool validPath(std::vector<std::string> const& path, std::string* problem) const;
  // Every path validPath accepts down to the values, with "<key>" and "<unit>" where the tree is
  // keyed or indexed ("lag/<key>/hwId", "acl/units/<unit>/in/used").
  static std::vector<std::string> pathTemplates();

 private:
  ChipTable& table(Table t);
  ChipTable const& table(Table t) const;

  ChipPorts ports_;
  ErrorLog errors_;
  LagTable lags_;
  AclTables acls_;
  // Before the MAC table, which reads it.
  VxlanTable vxlan_;
  MacTable macs_;
  // The packet path, in order.
  std::vector<PacketStage*> path_;
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
