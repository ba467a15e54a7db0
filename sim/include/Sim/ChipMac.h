// The chip's layer-2 table: (MAC, VLAN) entries behind a port, a port-channel, the CPU or a VXLAN
// tunnel's next hop, kept in hash buckets of fixed depth; what the chip learns and ages on its
// own; the VLANs each port carries, whether it learns, and its link. Its packet stage, after the
// ACLs, learns the source and forwards to the destination.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <compare>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <rapidjson/document.h>

#include "Nepo/EthAddr.h"
#include "Nepo/IntfId.h"
#include "Nepo/IpAddr.h"
#include "Sim/ChipLag.h"
#include "Sim/ChipPorts.h"
#include "Sim/ChipTable.h"
#include "Sim/ChipVxlan.h"
#include "Zol/Types.h"
#include "ZolGen/Bridging.h"

namespace sim {

// Entries sort by VLAN, then address, so that one VLAN's entries are a range.
struct MacKey {
  uint16_t vlan = 0;
  Nepo::EthAddr mac;
  friend auto operator<=>(MacKey const&, MacKey const&) = default;

  static MacKey of(Bridging::MacVlanPair const& pair) {
    return MacKey{pair.vlanId().value(), pair.macAddr()};
  }
  Bridging::MacVlanPair pair() const { return Bridging::MacVlanPair(mac, Bridging::VlanId(vlan)); }
  // "vlan 10 02:00:00:00:00:01"
  std::string text() const;
};

// One entry. aging: the chip ages it and a learn elsewhere moves it (learned entries and dynamic
// ones the driver programs); a static entry stays until the driver removes it, except that a
// host another switch reported (the MLAG peer's or EVPN's, see MacTable::movedByLearns) moves
// when the chip learns it on a port of its own: the chip does not age it, but a station move
// wins. A remote entry
// (nextHop set) is behind the tunnel interface intf, through that next hop of the VXLAN table.
struct MacEntry {
  Nepo::IntfId intf;
  Bridging::EntryType type = Bridging::EntryType::learnedDynamicMac;
  bool aging = true;
  Zol::Seconds lastSeen = 0;
  std::optional<uint32_t> nextHop;
  bool remote() const { return nextHop.has_value(); }
};

// The VLANs a port or port-channel carries: an access port one, its packets untagged; a trunk its
// allowed set, with untagged packets in the native VLAN.
struct VlanMembership {
  bool trunk = false;
  // The access VLAN, or the trunk's native VLAN.
  uint16_t vlan = 1;
  std::set<uint16_t> allowed;

  static VlanMembership access(uint16_t vlan) { return VlanMembership{false, vlan, {}}; }
  static VlanMembership trunkOf(std::set<uint16_t> allowed, uint16_t native = 1) {
    return VlanMembership{true, native, std::move(allowed)};
  }
  bool carries(uint16_t v) const { return trunk ? allowed.contains(v) : v == vlan; }
  bool operator==(VlanMembership const&) const = default;
};

// Driver operations (add, remove, the flushes, learning control) are counted and the ones that
// return a Status can be refused; what the chip does on its own (learning from packets, aging,
// flushing a port whose link went down) is not an operation and is counted in learns and aged.
// Every change to an aging entry, whoever made it, goes to the listener.
//
// Remote entries are the driver's: the chip never installs one itself. A static remote entry
// stays until the driver removes it, whatever the chip sees. An aging one is a remote host that
// may move: it ages as learned entries do, and a local learn of its address replaces it (reported
// as any learn), so that a host that came home from behind a tunnel is found again. Flushes,
// which remove what the chip learned, leave remote entries alone. Decapsulated packets are never
// learned as local entries; with remote learning on, their unknown or moved sources go to the
// remote learn listener, and the MAC SM decides whether to program them.
class MacTable : public ChipTable, public PacketStage {
 public:
  static constexpr size_t defaultCapacity = 32768;
  static constexpr size_t bucketDepth = 4;
  using Entries = std::map<MacKey, MacEntry>;
  // The aging entry now held for key, remote ones too, or null when it went (aged, flushed,
  // removed, or replaced by a static entry). Static entries are never reported.
  using Listener = std::function<void(MacKey const& key, MacEntry const* entry)>;
  // A decapsulated packet's source, with the VTEP that sent it and the VNI it came in.
  using RemoteLearnListener =
      std::function<void(MacKey const& key, Nepo::IpAddr const& vtep, uint32_t vni)>;
  using TimeSource = std::function<Zol::Seconds()>;
  static constexpr size_t defaultRemoteCapacity = 16384;

  // Static kinds that a learn on another port moves (and reports as any learn).
  static bool movedByLearns(Bridging::EntryType type);

  MacTable(ChipPorts const& ports, LagTable const& lags, VxlanTable const& vxlan, ErrorLog& errors);

  // Programs key behind intf (a port of the chip, a port-channel, or Cpu), replacing what the
  // table holds for it; replacing never needs room. full is a full table or, when the table has
  // room, a full bucket: lastFullWasCollision tells which.
  Status add(MacKey const& key, Nepo::IntfId const& intf, Bridging::EntryType type, bool aging);
  bool lastFullWasCollision() const { return lastFullWasCollision_; }
  // Programs key behind the VXLAN interface vti, through nextHopId (which the VXLAN table need
  // not hold yet: until it does, packets to key are dropped). Replaces what the table holds for
  // key, and takes a slot as add does; full also when remoteCapacity remote entries are held
  // (not a collision).
  Status addRemote(MacKey const& key, Nepo::IntfId const& vti, uint32_t nextHopId,
                   Bridging::EntryType type, bool aging);
  // Removing what the table does not hold succeeds.
  Status remove(MacKey const& key);
  // Flushes remove aging entries only: of vlan, or of intf in vlan; vlan 0 is every VLAN.
  // They return how many went.
  size_t flush(uint16_t vlan);
  size_t flushIntf(uint16_t vlan, Nepo::IntfId const& intf);
  // Every entry behind intf, or of vlan, static ones too: the port-channel or VLAN is gone.
  size_t removeIntf(Nepo::IntfId const& intf);
  size_t removeVlan(uint16_t vlan);
  // Learning per port or port-channel and per VLAN, on by default; a source is learned where
  // both are on.
  void learningIs(Nepo::IntfId const& intf, bool enabled);
  void vlanLearningIs(uint16_t vlan, bool enabled);
  bool learning(Nepo::IntfId const& intf) const { return !learningOff_.contains(intf); }
  bool vlanLearning(uint16_t vlan) const { return !vlanLearningOff_.contains(vlan); }
  // Reporting decapsulated sources, off by default; the VLAN's learning switch applies too.
  void remoteLearningIs(bool enabled);
  bool remoteLearning() const { return remoteLearning_; }
  // At most this many remote entries; lowering it keeps the ones held.
  void remoteCapacityIs(size_t capacity) { remoteCapacity_ = capacity; }
  size_t remoteCapacity() const { return remoteCapacity_; }

  // Removes the aging entries not seen for agingTime (0: none) and returns how many.
  size_t age(Zol::Seconds now, Zol::Seconds agingTime);
  // When the aging entry seen longest ago was last seen; none without aging entries.
  std::optional<Zol::Seconds> oldestSeen() const;

  // A secure port (802.1X in single-host or restricted-host mode) lets through only the sources
  // programmed static on it, and learns nothing.
  void secureIs(Nepo::IntfId const& intf, bool secure);
  bool secure(Nepo::IntfId const& intf) const { return secure_.contains(intf); }

  // What the platform's user sets, not the driver. A port with nothing set is an access port in
  // VLAN 1; a port-channel's setting applies to its members.
  void vlanMembershipIs(Nepo::IntfId const& intf, VlanMembership const& membership);
  VlanMembership const& vlanMembership(Nepo::IntfId const& intf) const;
  // A port whose link goes down loses its aging entries; a down port sends nothing.
  void linkIs(Nepo::IntfId const& port, bool up);
  bool linkUp(Nepo::IntfId const& port) const { return !linkDown_.contains(port); }
  std::set<Nepo::IntfId> const& linksDown() const { return linkDown_; }

  // One listener; owner tags it so that only whoever set it takes it away.
  void listenerIs(Listener listener, void const* owner);
  void const* listenerOwner() const { return listenerOwner_; }
  void remoteLearnListenerIs(RemoteLearnListener listener) {
    remoteLearnListener_ = std::move(listener);
  }
  // Learning and programming stamp entries with this time; without a source the time stays 0.
  void timeSourceIs(TimeSource now) { now_ = std::move(now); }
  Zol::Seconds now() const { return now_ ? now_() : 0; }

  MacEntry const* entry(MacKey const& key) const;
  Entries const& entries() const { return entries_; }
  size_t size() const { return entries_.size(); }
  size_t remoteSize() const { return remoteSize_; }
  // The bucket key hashes to: capacity / bucketDepth buckets.
  size_t bucket(MacKey const& key) const;
  uint64_t learns() const { return learns_; }
  uint64_t aged() const { return aged_; }
  uint64_t remoteLearns() const { return remoteLearns_; }

  // Ingress packets only: the VLAN is the packet's tag, or its port's access or native VLAN; a
  // VLAN the port does not carry drops the packet. The source is learned or refreshed (all-zero
  // and group addresses are no station's), then a known unicast destination gets its port (one
  // distributing member of a port-channel, by a hash of the addresses) or the CPU, and anything
  // else floods the VLAN's ports. Nothing goes back where it came from. A remote destination
  // leaves by its next hop's tunnel, to the VTEP the flow hashes to, in the VLAN's VNI; without
  // the tunnel or the VNI the packet is dropped (dropReason), never flooded. A decapsulated
  // packet is bridged from its tunnel interface in the VLAN its VNI maps to (dropped when none).
  bool process(Packet const& p, ClassifyResult& result) override;

  // {"10": {"02:00:00:00:00:01": {"intf": "Ethernet1", "type": "learnedDynamicMac",
  //  "static": false}}}, by VLAN then address; a remote entry adds "nextHop": 7.
  rapidjson::Value toJson(rapidjson::Document::AllocatorType& alloc) const;

 private:
  using Iterator = Entries::iterator;
  // Rebuilds the bucket counts after the capacity changed.
  void syncBuckets();
  bool bucketFull(MacKey const& key);
  // add and addRemote once the request was checked: room, then the write and its reports.
  Status put(std::string_view op, MacKey const& key, MacEntry const& e);
  // Each keeps the buckets and the aging order with the entries; erase reports what went.
  Iterator insert(MacKey const& key, MacEntry const& e);
  void replace(Iterator it, MacEntry const& e);
  Iterator erase(Iterator it);
  template <class Pred>
  size_t eraseIf(uint16_t vlan, bool agingOnly, Pred const& pred);
  void report(MacKey const& key, MacEntry const* e) const;
  // The port-channel a port is a member of, or the port itself.
  Nepo::IntfId bridgePort(Nepo::IntfId const& port) const;
  bool learn(Packet const& p, Nepo::IntfId const& from, uint16_t vlan);
  bool processDecap(Packet const& p, ClassifyResult& result);
  bool learnRemote(Packet const& p, uint16_t vlan);
  void toTunnel(MacEntry const& e, uint16_t vlan, Packet const& p, ClassifyResult& result) const;
  void forward(Packet const& p, Nepo::IntfId const& from, uint16_t vlan, ClassifyResult& result);
  // The port a packet to the bridge port to leaves by; none when it cannot leave there.
  std::optional<Nepo::IntfId> egressPort(Nepo::IntfId const& to, uint16_t vlan,
                                         Packet const& p) const;

  ChipPorts const& ports_;
  LagTable const& lags_;
  VxlanTable const& vxlan_;
  Entries entries_;
  // Aging entries by when they were last seen, oldest first.
  std::set<std::pair<Zol::Seconds, MacKey>> seen_;
  absl::flat_hash_map<size_t, uint32_t> bucketUse_;
  size_t bucketsFor_ = 0;
  bool lastFullWasCollision_ = false;
  std::set<Nepo::IntfId> learningOff_;
  std::set<uint16_t> vlanLearningOff_;
  bool remoteLearning_ = false;
  size_t remoteCapacity_ = defaultRemoteCapacity;
  size_t remoteSize_ = 0;
  RemoteLearnListener remoteLearnListener_;
  std::map<Nepo::IntfId, VlanMembership> membership_;
  std::set<Nepo::IntfId> linkDown_;
  std::set<Nepo::IntfId> secure_;
  Listener listener_;
  void const* listenerOwner_ = nullptr;
  TimeSource now_;
  uint64_t learns_ = 0;
  uint64_t aged_ = 0;
  uint64_t remoteLearns_ = 0;
};

}  // namespace sim
