// The chip's layer-2 table and its bridging stage.
#include "Sim/ChipMac.h"

#include <algorithm>
#include <string>

#include "Sim/ChipAcl.h"
#include "Zol/Json.h"
#include "Zol/Text.h"

namespace sim {

namespace {

constexpr uint16_t kVlanMax = 4094;

// A fixed mix, so that buckets and the member a flow takes are the same on every run.
uint64_t mix(uint64_t x) {
  x ^= x >> 30;
  x *= 0xbf58476d1ce4e5b9ULL;
  x ^= x >> 27;
  x *= 0x94d049bb133111ebULL;
  x ^= x >> 31;
  return x;
}

uint64_t flowHash(Packet const& p) { return mix(p.srcMac.value() ^ mix(p.dstMac.value())); }

std::string named(std::string_view op, MacKey const& key) {
  return std::string(op) + " " + key.text();
}

}  // namespace

std::string MacKey::text() const {
  return "vlan " + std::to_string(vlan) + " " + mac.stringValue();
}

MacTable::MacTable(ChipPorts const& ports, LagTable const& lags, VxlanTable const& vxlan,
                   ErrorLog& errors)
    : ChipTable(Table::mac, defaultCapacity, errors),
      ports_(ports),
      lags_(lags),
      vxlan_(vxlan),
      bucketsFor_(static_cast<size_t>(-1)) {}

size_t MacTable::bucket(MacKey const& key) const {
  size_t const buckets = std::max<size_t>(1, capacity() / bucketDepth);
  return mix(key.mac.value() << 12 | key.vlan) % buckets;
}

void MacTable::syncBuckets() {
  if (bucketsFor_ == capacity()) return;
  bucketsFor_ = capacity();
  bucketUse_.clear();
  for (auto const& [key, e] : entries_) ++bucketUse_[bucket(key)];
}

bool MacTable::bucketFull(MacKey const& key) {
  syncBuckets();
  auto const it = bucketUse_.find(bucket(key));
  return it != bucketUse_.end() && it->second >= bucketDepth;
}

MacTable::Iterator MacTable::insert(MacKey const& key, MacEntry const& e) {
  syncBuckets();
  ++bucketUse_[bucket(key)];
  if (e.aging) seen_.emplace(e.lastSeen, key);
  if (e.remote()) ++remoteSize_;
  return entries_.emplace(key, e).first;
}

void MacTable::replace(Iterator it, MacEntry const& e) {
  if (it->second.aging) seen_.erase({it->second.lastSeen, it->first});
  if (it->second.remote()) --remoteSize_;
  if (e.remote()) ++remoteSize_;
  it->second = e;
  if (e.aging) seen_.emplace(e.lastSeen, it->first);
}

MacTable::Iterator MacTable::erase(Iterator it) {
  syncBuckets();
  MacKey const key = it->first;
  bool const aging = it->second.aging;
  if (aging) seen_.erase({it->second.lastSeen, key});
  if (it->second.remote()) --remoteSize_;
  if (auto b = bucketUse_.find(bucket(key)); b != bucketUse_.end() && --b->second == 0) {
    bucketUse_.erase(b);
  }
  Iterator const next = entries_.erase(it);
  if (aging) report(key, nullptr);
  return next;
}

template <class Pred>
size_t MacTable::eraseIf(uint16_t vlan, bool agingOnly, Pred const& pred) {
  size_t n = 0;
  auto it = vlan == 0 ? entries_.begin() : entries_.lower_bound(MacKey{vlan, {}});
  while (it != entries_.end() && (vlan == 0 || it->first.vlan == vlan)) {
    if ((agingOnly && !it->second.aging) || !pred(it->second)) {
      ++it;
      continue;
    }
    it = erase(it);
    ++n;
  }
  return n;
}

void MacTable::report(MacKey const& key, MacEntry const* e) const {
  if (listener_) listener_(key, e);
}

void MacTable::listenerIs(Listener listener, void const* owner) {
  listener_ = std::move(listener);
  listenerOwner_ = listener_ ? owner : nullptr;
}

Status MacTable::add(MacKey const& key, Nepo::IntfId const& intf, Bridging::EntryType type,
                     bool aging) {
  if (Status s = admit(false, size()); s != Status::ok) {
    if (s == Status::full) lastFullWasCollision_ = false;
    return refuse(named("add", key), s);
  }
  if (key.vlan < 1 || key.vlan > kVlanMax) {
    return refuse(named("add", key), Status::failed, "no such VLAN");
  }
  if (!ports_.hasPort(intf) && !intf.isPortChannel() && !intf.isCpu()) {
    return refuse(named("add", key), Status::failed,
                  intf.stringValue() + " is not a port, a port-channel or the CPU");
  }
  return put("add", key, MacEntry{intf, type, aging, now(), std::nullopt});
}

Status MacTable::addRemote(MacKey const& key, Nepo::IntfId const& vti, uint32_t nextHopId,
                           Bridging::EntryType type, bool aging) {
  constexpr std::string_view op = "add remote";
  if (Status s = admit(false, size()); s != Status::ok) {
    if (s == Status::full) lastFullWasCollision_ = false;
    return refuse(named(op, key), s);
  }
  if (key.vlan < 1 || key.vlan > kVlanMax) {
    return refuse(named(op, key), Status::failed, "no such VLAN");
  }
  if (!vti.isVxlan()) {
    return refuse(named(op, key), Status::failed, vti.stringValue() + " is not a VXLAN interface");
  }
  MacEntry const* const old = entry(key);
  if ((!old || !old->remote()) && remoteSize_ >= remoteCapacity_) {
    lastFullWasCollision_ = false;
    return refuse(named(op, key), Status::full, "remote entries full");
  }
  return put(op, key, MacEntry{vti, type, aging, now(), nextHopId});
}

Status MacTable::put(std::string_view op, MacKey const& key, MacEntry const& e) {
  auto const it = entries_.find(key);
  if (it == entries_.end()) {
    if (size() >= capacity() || bucketFull(key)) {
      lastFullWasCollision_ = size() < capacity();
      return refuse(named(op, key), Status::full, lastFullWasCollision_ ? "hash bucket full" : "");
    }
    wrote();
    Iterator const added = insert(key, e);
    if (e.aging) report(key, &added->second);
    return Status::ok;
  }
  MacEntry const old = it->second;
  bool const changed =
      old.intf != e.intf || old.type != e.type || old.aging != e.aging || old.nextHop != e.nextHop;
  wrote(changed);
  replace(it, e);
  if (e.aging && changed) {
    report(key, &it->second);
  } else if (old.aging && !e.aging) {
    report(key, nullptr);
  }
  return Status::ok;
}

Status MacTable::remove(MacKey const& key) {
  if (Status s = admit(false, size()); s != Status::ok) return refuse(named("remove", key), s);
  auto const it = entries_.find(key);
  if (wrote(it != entries_.end())) erase(it);
  return Status::ok;
}

size_t MacTable::flush(uint16_t vlan) {
  operated();
  size_t const n = eraseIf(vlan, true, [](MacEntry const& e) { return !e.remote(); });
  wrote(n != 0);
  return n;
}

size_t MacTable::flushIntf(uint16_t vlan, Nepo::IntfId const& intf) {
  operated();
  size_t const n =
      eraseIf(vlan, true, [&](MacEntry const& e) { return !e.remote() && e.intf == intf; });
  wrote(n != 0);
  return n;
}

size_t MacTable::removeIntf(Nepo::IntfId const& intf) {
  operated();
  size_t const n = eraseIf(0, false, [&](MacEntry const& e) { return e.intf == intf; });
  wrote(n != 0);
  return n;
}

size_t MacTable::removeVlan(uint16_t vlan) {
  operated();
  // VLAN 0 names no VLAN here, not every one.
  size_t const n = vlan == 0 ? 0 : eraseIf(vlan, false, [](MacEntry const&) { return true; });
  wrote(n != 0);
  return n;
}

void MacTable::learningIs(Nepo::IntfId const& intf, bool enabled) {
  operated();
  wrote(enabled ? learningOff_.erase(intf) != 0 : learningOff_.insert(intf).second);
}

void MacTable::vlanLearningIs(uint16_t vlan, bool enabled) {
  operated();
  wrote(enabled ? vlanLearningOff_.erase(vlan) != 0 : vlanLearningOff_.insert(vlan).second);
}

void MacTable::remoteLearningIs(bool enabled) {
  operated();
  wrote(remoteLearning_ != enabled);
  remoteLearning_ = enabled;
}

size_t MacTable::age(Zol::Seconds now, Zol::Seconds agingTime) {
  if (agingTime <= 0) return 0;
  size_t n = 0;
  while (!seen_.empty() && seen_.begin()->first + agingTime <= now) {
    erase(entries_.find(seen_.begin()->second));
    ++n;
  }
  aged_ += n;
  return n;
}

std::optional<Zol::Seconds> MacTable::oldestSeen() const {
  if (seen_.empty()) return std::nullopt;
  return seen_.begin()->first;
}

void MacTable::vlanMembershipIs(Nepo::IntfId const& intf, VlanMembership const& membership) {
  if (membership == VlanMembership()) {
    membership_.erase(intf);
  } else {
    membership_[intf] = membership;
  }
}

VlanMembership const& MacTable::vlanMembership(Nepo::IntfId const& intf) const {
  static VlanMembership const unset;
  auto const it = membership_.find(intf);
  return it == membership_.end() ? unset : it->second;
}

void MacTable::linkIs(Nepo::IntfId const& port, bool up) {
  if (up) {
    linkDown_.erase(port);
  } else if (linkDown_.insert(port).second) {
    eraseIf(0, true, [&](MacEntry const& e) { return e.intf == port; });
  }
}

MacEntry const* MacTable::entry(MacKey const& key) const {
  auto const it = entries_.find(key);
  return it == entries_.end() ? nullptr : &it->second;
}

Nepo::IntfId MacTable::bridgePort(Nepo::IntfId const& port) const {
  for (auto const& [lag, e] : lags_.entries()) {
    if (e.members.portHas(port)) return lag;
  }
  return port;
}

bool MacTable::process(Packet const& p, ClassifyResult& result) {
  // Egress packets meet only the egress ACLs.
  if (p.direction != Acl::AclDirection::in) return false;
  if (p.decap) return processDecap(p, result);
  Nepo::IntfId const from = bridgePort(p.intf);
  VlanMembership const& membership = vlanMembership(from);
  uint16_t const vlan = p.vlan != 0 ? p.vlan : membership.vlan;
  result.vlan = vlan;
  if (!membership.carries(vlan)) {
    result.vlanDropped = true;
    return true;
  }
  if (secure_.contains(from)) {
    // Only hosts programmed on the port pass; nothing is learned there.
    MacEntry const* const e = entry(MacKey{vlan, p.srcMac});
    if (!e || e->aging || e->intf != from) {
      result.dropReason = "source not authorised on " + from.stringValue();
      return true;
    }
  } else {
    result.learned = learn(p, from, vlan);
  }
  forward(p, from, vlan, result);
  return true;
}

void MacTable::secureIs(Nepo::IntfId const& intf, bool secure) {
  operated();
  wrote(secure_.contains(intf) != secure);
  if (secure) {
    secure_.insert(intf);
  } else {
    secure_.erase(intf);
  }
}

bool MacTable::movedByLearns(Bridging::EntryType type) {
  using Bridging::EntryType;
  return type == EntryType::peerDynamicMac || type == EntryType::peerDynamicRemoteMac ||
         type == EntryType::evpnDynamicRemoteMac || type == EntryType::evpnIntfDynamicMac;
}

bool MacTable::learn(Packet const& p, Nepo::IntfId const& from, uint16_t vlan) {
  if (p.srcMac.isMulticast() || p.srcMac.isZero()) return false;
  MacKey const key{vlan, p.srcMac};
  Zol::Seconds const t = now();
  MacEntry const learned{from, Bridging::EntryType::learnedDynamicMac, true, t, std::nullopt};
  auto const it = entries_.find(key);
  if (it != entries_.end()) {
    MacEntry const& e = it->second;
    if (!e.aging && !movedByLearns(e.type)) return false;
    if (e.intf == from) {
      if (e.aging) replace(it, MacEntry{e.intf, e.type, true, t, std::nullopt});
      return false;
    }
  }
  if (!learning(from) || !vlanLearning(vlan)) return false;
  Iterator at = it;
  if (at != entries_.end()) {
    replace(at, learned);
  } else {
    if (size() >= capacity() || bucketFull(key)) return false;
    at = insert(key, learned);
  }
  ++learns_;
  report(key, &at->second);
  return true;
}

bool MacTable::processDecap(Packet const& p, ClassifyResult& result) {
  std::optional<uint16_t> const vlan = vxlan_.vlanOfVni(p.decap->vni);
  if (!vlan) {
    result.dropReason = "vni " + std::to_string(p.decap->vni) + " has no vlan";
    return true;
  }
  result.vlan = *vlan;
  result.remoteLearned = learnRemote(p, *vlan);
  forward(p, p.decap->vti, *vlan, result);
  return true;
}

bool MacTable::learnRemote(Packet const& p, uint16_t vlan) {
  if (!remoteLearning_ || !vlanLearning(vlan)) return false;
  if (p.srcMac.isMulticast() || p.srcMac.isZero()) return false;
  MacKey const key{vlan, p.srcMac};
  VxlanDecap const& from = *p.decap;
  if (auto const it = entries_.find(key); it != entries_.end()) {
    MacEntry const& e = it->second;
    // A static entry, local or remote, is the driver's to move.
    if (!e.aging) return false;
    VxlanTunnel const* const t = e.nextHop ? vxlan_.tunnel(*e.nextHop) : nullptr;
    if (t && std::binary_search(t->vteps.begin(), t->vteps.end(), from.srcVtep)) {
      // Where the table already sends it: a refresh.
      replace(it, MacEntry{e.intf, e.type, true, now(), e.nextHop});
      return false;
    }
  }
  ++remoteLearns_;
  if (remoteLearnListener_) remoteLearnListener_(key, from.srcVtep, from.vni);
  return true;
}

void MacTable::toTunnel(MacEntry const& e, uint16_t vlan, Packet const& p,
                        ClassifyResult& result) const {
  VxlanTunnel const* const t = vxlan_.tunnel(*e.nextHop);
  if (!t) {
    result.dropReason = "no tunnel for next hop " + std::to_string(*e.nextHop);
    return;
  }
  std::optional<uint32_t> const vni = vxlan_.vni(vlan);
  if (!vni) {
    result.dropReason = "vlan " + std::to_string(vlan) + " has no vni";
    return;
  }
  result.egress.push_back(t->vti);
  result.vxlan = VxlanEncap{t->vti, t->vteps[flowHash(p) % t->vteps.size()], *vni, t->tunnelId};
}

std::optional<Nepo::IntfId> MacTable::egressPort(Nepo::IntfId const& to, uint16_t vlan,
                                                 Packet const& p) const {
  if (!vlanMembership(to.isPortChannel() ? to : bridgePort(to)).carries(vlan)) return std::nullopt;
  if (!to.isPortChannel()) {
    if (!ports_.hasPort(to) || !linkUp(to)) return std::nullopt;
    return to;
  }
  LagTable::Entry const* lag = lags_.entry(to);
  if (!lag) return std::nullopt;
  std::vector<Nepo::IntfId> usable;
  for (auto const& [port, state] : lag->members.portAll()) {
    if (state.distributing() && linkUp(port)) usable.push_back(port);
  }
  if (usable.empty()) return std::nullopt;
  std::sort(usable.begin(), usable.end());
  return usable[flowHash(p) % usable.size()];
}

void MacTable::forward(Packet const& p, Nepo::IntfId const& from, uint16_t vlan,
                       ClassifyResult& result) {
  if (p.dstMac.isUnicast()) {
    if (auto const it = entries_.find(MacKey{vlan, p.dstMac}); it != entries_.end()) {
      MacEntry const& e = it->second;
      if (e.intf.isCpu()) {
        result.toCpu = true;
      } else if (e.intf == from) {
        // Nothing goes back where it came from.
      } else if (e.remote()) {
        toTunnel(e, vlan, p, result);
      } else if (auto const port = egressPort(e.intf, vlan, p)) {
        result.egress.push_back(*port);
      }
      return;
    }
  }
  // A port-channel floods through one member; its members are not flooded on their own.
  result.flooded = true;
  std::set<Nepo::IntfId> members;
  for (auto const& [lag, e] : lags_.entries()) {
    for (auto const& [port, state] : e.members.portAll()) members.insert(port);
    if (lag == from) continue;
    if (auto const port = egressPort(lag, vlan, p)) result.egress.push_back(*port);
  }
  for (Nepo::IntfId const& port : ports_.ports()) {
    if (port == from || members.contains(port)) continue;
    if (auto const out = egressPort(port, vlan, p)) result.egress.push_back(*out);
  }
  std::sort(result.egress.begin(), result.egress.end());
}

rapidjson::Value MacTable::toJson(rapidjson::Document::AllocatorType& alloc) const {
  rapidjson::Value table(rapidjson::kObjectType);
  for (auto it = entries_.begin(); it != entries_.end();) {
    uint16_t const vlan = it->first.vlan;
    rapidjson::Value byMac(rapidjson::kObjectType);
    for (; it != entries_.end() && it->first.vlan == vlan; ++it) {
      MacEntry const& e = it->second;
      rapidjson::Value entry(rapidjson::kObjectType);
      entry.AddMember("intf", Zol::toJson(e.intf.stringValue(), alloc), alloc);
      entry.AddMember("type", Zol::toJson(std::string(Zol::enumName(e.type)), alloc), alloc);
      entry.AddMember("static", !e.aging, alloc);
      if (e.nextHop) entry.AddMember("nextHop", *e.nextHop, alloc);
      byMac.AddMember(Zol::toJson(it->first.mac.stringValue(), alloc), entry, alloc);
    }
    table.AddMember(Zol::toJson(std::to_string(vlan), alloc), byMac, alloc);
  }
  return table;
}

}  // namespace sim
