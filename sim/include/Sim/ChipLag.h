// The chip's port-channel table: port-channels with their hardware ids, members and the MLAG
// peer link that backs them up, and whether LACP frames go to the CPU.
#pragma once

#include <rapidjson/document.h>

#include <cstdint>
#include <map>
#include <set>

#include "Sim/ChipPorts.h"
#include "Sim/ChipTable.h"
#include "ZolGen/VemoCommon.h"

namespace sim {

class LagTable : public ChipTable {
 public:
  static constexpr size_t defaultCapacity = 1024;

  struct Entry {
    uint32_t hwId = 0;
    Vemo::VemoLagPortList members;
    // The MLAG peer link whose members back this port-channel up; empty when none.
    Nepo::IntfId sharedPeerLink;
  };
  using Entries = std::map<Nepo::IntfId, Entry>;

  LagTable(ChipPorts const& ports, ErrorLog& errors)
      : ChipTable(Table::lag, defaultCapacity, errors), ports_(ports) {}

  // LACP frames trapped to the CPU (true) or forwarded as data; counted in this table.
  bool lacpEnabled() const { return lacpEnabled_; }
  void lacpEnabledIs(bool enabled);

  // Members must be ports of the chip; a refused operation changes nothing. The lowest free
  // hardware id goes to each new port-channel.
  Status create(Nepo::IntfId const& lag);
  Status destroy(Nepo::IntfId const& lag);
  Status membersIs(Nepo::IntfId const& lag, Vemo::VemoLagPortList const& members);
  Status memberIs(Nepo::IntfId const& lag, Nepo::IntfId const& member, bool add,
                  Vemo::VemoLagPort const& state);
  Status shareIs(Nepo::IntfId const& lag, Nepo::IntfId const& peerLink, bool share);
  Entry const* entry(Nepo::IntfId const& lag) const;
  Entries const& entries() const { return entries_; }
  size_t size() const { return entries_.size(); }

  // {"Port-Channel1": {"hwId": 1, "members": {"Ethernet1": {"collecting": true,
  //  "distributing": true}}, "sharedPeerLink": "Port-Channel10"}}
  rapidjson::Value toJson(rapidjson::Document::AllocatorType& alloc) const;

 private:
  Status refuseMember(std::string_view what, Nepo::IntfId const& member);
  uint32_t hwIdAlloc();
  void hwIdFree(uint32_t id);

  ChipPorts const& ports_;
  bool lacpEnabled_ = true;
  Entries entries_;
  // Hardware ids below nextHwId_ that were given back; the lowest free id is the first of
  // these, or nextHwId_.
  std::set<uint32_t> freeHwIds_;
  uint32_t nextHwId_ = 1;
};

}  // namespace sim
