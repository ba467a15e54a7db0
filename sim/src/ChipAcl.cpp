// The chip's ACL TCAMs, range checkers, bindings and the packet classifier.
#include "Sim/ChipAcl.h"

#include <array>
#include <optional>
#include <string>

#include "Zol/Json.h"
#include "Zol/Text.h"
#include "Zol/Types.h"

namespace sim {

namespace {

// The VLANs that have a VLAN interface.
constexpr uint16_t kVlanMax = 4094;

constexpr std::array<std::string_view, kRangeFieldCount> kRangeFieldNames = {"srcPort", "dstPort",
                                                                             "ipLen"};

template <class T>
bool hit(Nepo::ValueMask<T> const& f, T v) {
  return ((v ^ f.value) & f.mask) == 0;
}

bool hit(Nepo::IpPrefix const& p, Nepo::IpAddr const& a) {
  return p.length() == 0 || p.contains(a);
}

size_t dirIndex(Acl::AclDirection dir) { return static_cast<size_t>(dir); }

std::string_view dirName(Acl::AclDirection dir) {
  return dir == Acl::AclDirection::in ? "in" : "out";
}

std::string entryName(std::string_view op, uint32_t unit, Acl::AclDirection dir,
                      AclEntryKey const& k) {
  return std::string(op) + " " + std::to_string(k.aclNumber) + " rule " +
         std::to_string(k.aclRule) + "." + std::to_string(k.subRuleNum) + " unit " +
         std::to_string(unit) + " " + std::string(dirName(dir));
}

std::string fieldNames(RangeFields fields) {
  std::string out;
  for (size_t i = 0; i < kRangeFieldCount; ++i) {
    if (!(fields & rangeFieldBit(static_cast<RangeField>(i)))) continue;
    if (!out.empty()) out += ' ';
    out += kRangeFieldNames[i];
  }
  return out;
}

}  // namespace

bool AclEntry::matchesL4() const {
  return srcPort.mask != 0 || dstPort.mask != 0 || tcpFlags.mask != 0 || tcpEstablished ||
         icmpType.mask != 0 || icmpCode.mask != 0 || range(RangeField::srcPort) ||
         range(RangeField::dstPort);
}

bool AclEntry::matchesIp() const {
  return ipVersion != 0 || srcIp.length() != 0 || dstIp.length() != 0 || protocol.mask != 0 ||
         ecn.mask != 0 || dscp.mask != 0 || ipLen.mask != 0 || ttl.mask != 0 ||
         range(RangeField::ipLen) || fragment == FragmentMatch::nonInitial || matchesL4();
}

bool AclEntry::matches(Packet const& p) const {
  uint16_t const type = !p.isIp ? p.etherType : p.srcIp.isV6() ? 0x86DD : 0x0800;
  if (!hit(srcMac, p.srcMac.value()) || !hit(dstMac, p.dstMac.value()) || !hit(etherType, type) ||
      !hit(vlan, p.vlan)) {
    return false;
  }
  if (!matchesIp()) return true;
  if (!p.isIp) return false;
  if (ipVersion != 0 && ipVersion != (p.srcIp.isV6() ? 6 : 4)) return false;
  if (!hit(srcIp, p.srcIp) || !hit(dstIp, p.dstIp) || !hit(protocol, p.protocol) ||
      !hit(ecn, p.ecn) || !hit(dscp, p.dscp) || !hit(ipLen, p.ipLen) || !hit(ttl, p.ttl)) {
    return false;
  }
  if (range(RangeField::ipLen) && !range(RangeField::ipLen)->contains(p.ipLen)) return false;
  if (fragment == FragmentMatch::nonInitial && !p.fragment) return false;
  if (fragment == FragmentMatch::notFragment && p.fragment) return false;
  if (!matchesL4()) return true;
  if (p.fragment) return false;
  constexpr uint16_t ackOrRst = Acl::TcpFlag::ack | Acl::TcpFlag::rst;
  if (tcpEstablished && (p.protocol != Acl::IpFilter::protocolTcp || !(p.tcpFlags & ackOrRst))) {
    return false;
  }
  if (range(RangeField::srcPort) && !range(RangeField::srcPort)->contains(p.srcPort)) return false;
  if (range(RangeField::dstPort) && !range(RangeField::dstPort)->contains(p.dstPort)) return false;
  return hit(srcPort, p.srcPort) && hit(dstPort, p.dstPort) && hit(tcpFlags, p.tcpFlags) &&
         hit(icmpType, p.icmpType) && hit(icmpCode, p.icmpCode);
}

AclTables::AclTables(ChipPorts const& ports, ErrorLog& errors)
    : ports_(ports),
      tcam_(Table::acl, defaultCapacity, errors),
      checkers_(Table::rangeChecker, defaultRangeCheckers, errors),
      units_(ports.units()) {}

size_t AclTables::entryCount() const {
  size_t n = 0;
  for (Unit const& u : units_) n += u.tcam[0].size() + u.tcam[1].size();
  return n;
}

size_t AclTables::checkerCount() const {
  size_t n = 0;
  for (Unit const& u : units_) n += u.rangeCheckers.size();
  return n;
}

AclTables::Unit const& AclTables::unitAt(uint32_t unit) const {
  if (unit >= units_.size()) throw Zol::RangeException("no unit " + std::to_string(unit));
  return units_[unit];
}

AclTcam const& AclTables::tcam(uint32_t unit, Acl::AclDirection dir) const {
  return unitAt(unit).tcam[dirIndex(dir)];
}

Status AclTables::entryAdd(uint32_t unit, Acl::AclDirection dir, AclEntry const& entry,
                           RangeFields* missing) {
  if (missing) *missing = 0;
  AclEntryKey const& key = entry.key;
  if (Status s = tcam_.admit(false, entryCount()); s != Status::ok) {
    return tcam_.refuse(entryName("add", unit, dir, key), s);
  }
  if (unit >= units_.size()) {
    return tcam_.refuse(entryName("add", unit, dir, key), Status::failed, "no such unit");
  }
  Unit& u = units_[unit];
  AclTcam& tcam = u.tcam[dirIndex(dir)];
  auto const old = tcam.find(key);
  if (old == tcam.end() && tcam.size() >= tcam_.capacity()) {
    return tcam_.refuse(entryName("add", unit, dir, key), Status::full);
  }

  // Fields take checkers in RangeField order from the room left; a range already in the pool is
  // shared and takes none. Nothing is taken unless every field gets one.
  RangeFields wanted = 0;
  RangeFields lacking = 0;
  size_t room = checkers_.capacity() - std::min(checkers_.capacity(), u.rangeCheckers.size());
  for (size_t i = 0; i < kRangeFieldCount; ++i) {
    auto const field = static_cast<RangeField>(i);
    if (!entry.ranges[i]) continue;
    wanted |= rangeFieldBit(field);
    if (u.rangeCheckers.contains(RangeChecker{field, *entry.ranges[i]})) continue;
    if (room == 0) {
      lacking |= rangeFieldBit(field);
    } else {
      --room;
    }
  }
  if (wanted != 0) {
    Status s = checkers_.admit(false, checkerCount());
    if (s == Status::full) lacking = wanted;
    if (s == Status::ok && lacking != 0) s = Status::full;
    if (s != Status::ok) {
      if (missing && s == Status::full) *missing = lacking;
      return checkers_.refuse(entryName("add", unit, dir, key), s,
                              s == Status::full ? "none left for " + fieldNames(lacking) : "");
    }
  }

  for (size_t i = 0; i < kRangeFieldCount; ++i) {
    if (!entry.ranges[i]) continue;
    ++u.rangeCheckers[RangeChecker{static_cast<RangeField>(i), *entry.ranges[i]}];
  }
  // A replaced entry starts its hits again, so it is a write even when it matches the same.
  tcam_.wrote();
  checkers_.wrote(wanted != 0);
  if (old != tcam.end()) {
    checkersRelease(u, old->second.entry);
    old->second = AclTcamEntry{entry, 0};
  } else {
    tcam.emplace(key, AclTcamEntry{entry, 0});
  }
  return Status::ok;
}

void AclTables::checkersRelease(Unit& unit, AclEntry const& entry) {
  for (size_t i = 0; i < kRangeFieldCount; ++i) {
    if (!entry.ranges[i]) continue;
    auto const it =
        unit.rangeCheckers.find(RangeChecker{static_cast<RangeField>(i), *entry.ranges[i]});
    if (it != unit.rangeCheckers.end() && --it->second == 0) unit.rangeCheckers.erase(it);
  }
}

void AclTables::entryDel(uint32_t unit, Acl::AclDirection dir, AclEntryKey const& key) {
  tcam_.operated();
  if (unit >= units_.size()) return;
  AclTcam& tcam = units_[unit].tcam[dirIndex(dir)];
  auto const it = tcam.find(key);
  if (!tcam_.wrote(it != tcam.end())) return;
  checkersRelease(units_[unit], it->second.entry);
  tcam.erase(it);
}

void AclTables::deleteInstance(uint32_t aclNumber) {
  tcam_.operated();
  bool changed = false;
  for (Unit& u : units_) {
    for (AclTcam& tcam : u.tcam) {
      auto it = tcam.lower_bound(AclEntryKey{aclNumber, 0, 0});
      while (it != tcam.end() && it->first.aclNumber == aclNumber) {
        checkersRelease(u, it->second.entry);
        it = tcam.erase(it);
        changed = true;
      }
    }
  }
  tcam_.wrote(changed);
}

AclTcamEntry const* AclTables::entry(uint32_t unit, Acl::AclDirection dir,
                                     AclEntryKey const& key) const {
  AclTcam const& t = tcam(unit, dir);
  auto const it = t.find(key);
  return it == t.end() ? nullptr : &it->second;
}

size_t AclTables::rangeCheckersUsed(uint32_t unit) const {
  return unitAt(unit).rangeCheckers.size();
}

uint32_t AclTables::rangeCheckerUsers(uint32_t unit, RangeField field, PortRange range) const {
  auto const& pool = unitAt(unit).rangeCheckers;
  auto const it = pool.find(RangeChecker{field, range});
  return it == pool.end() ? 0 : it->second;
}

void AclTables::unitErrorIs(uint32_t unit, Vemo::AclCreateError error) {
  unitAt(unit);
  units_[unit].error = error;
}

Vemo::AclCreateError AclTables::unitError(uint32_t unit) const { return unitAt(unit).error; }

Status AclTables::bind(Nepo::IntfId const& intf, Acl::AclDirection dir, uint32_t aclNumber,
                       Acl::AclType type) {
  if (Status s = tcam_.admit(false, entryCount()); s != Status::ok) {
    return tcam_.refuse("bind " + intf.stringValue() + " " + std::string(dirName(dir)) + " " +
                            std::to_string(aclNumber),
                        s);
  }
  auto const [it, added] = bindings_.try_emplace({intf, dir, type}, aclNumber);
  tcam_.wrote(added || it->second != aclNumber);
  it->second = aclNumber;
  return Status::ok;
}

void AclTables::unbind(Nepo::IntfId const& intf, Acl::AclDirection dir, Acl::AclType type) {
  tcam_.operated();
  tcam_.wrote(bindings_.erase({intf, dir, type}) != 0);
}

std::optional<uint32_t> AclTables::binding(Nepo::IntfId const& intf, Acl::AclDirection dir,
                                           Acl::AclType type) const {
  auto const it = bindings_.find({intf, dir, type});
  if (it == bindings_.end()) return std::nullopt;
  return it->second;
}

void AclTables::unbindAll(uint32_t aclNumber, Acl::AclDirection dir) {
  tcam_.operated();
  auto const removed = std::erase_if(bindings_, [&](auto const& binding) {
    return std::get<Acl::AclDirection>(binding.first) == dir && binding.second == aclNumber;
  });
  tcam_.wrote(removed != 0);
}

void AclTables::blockIs(Nepo::IntfId const& intf, bool blocked) {
  tcam_.operated();
  if (blocked) {
    tcam_.wrote(blocked_.insert(intf).second);
  } else {
    tcam_.wrote(blocked_.erase(intf) != 0);
  }
}

bool AclTables::process(Packet const& p, ClassifyResult& result) {
  std::optional<Nepo::IntfId> vlan;
  if (p.vlan >= 1 && p.vlan <= kVlanMax) vlan = Nepo::IntfId(Nepo::IntfKind::Vlan, {p.vlan});
  // Only the ACL's part of the result is set; bridging comes after.
  auto const decide = [&](Acl::AclAction action, std::optional<AclEntryKey> entry, bool block) {
    result.action = action;
    result.entry = entry;
    result.blocked = block;
  };
  if (blocked(p.intf) || (vlan && blocked(*vlan))) {
    decide(Acl::AclAction::deny, std::nullopt, true);
    return true;
  }
  std::optional<PortLocation> const where = ports_.location(p.intf);
  AclTcam& tcam = units_[where ? where->unit : 0].tcam[dirIndex(p.direction)];
  Acl::AclType const type = !p.isIp          ? Acl::AclType::mac
                            : p.srcIp.isV6() ? Acl::AclType::ipv6
                                             : Acl::AclType::ip;
  std::array<Nepo::IntfId const*, 2> const intfs{&p.intf, vlan ? &*vlan : nullptr};
  for (Nepo::IntfId const* intf : intfs) {
    std::optional<uint32_t> const acl = intf ? binding(*intf, p.direction, type) : std::nullopt;
    if (!acl) continue;
    decide(Acl::AclAction::deny, std::nullopt, false);
    for (auto it = tcam.lower_bound(AclEntryKey{*acl, 0, 0});
         it != tcam.end() && it->first.aclNumber == *acl; ++it) {
      if (!it->second.entry.matches(p)) continue;
      ++it->second.hits;
      decide(it->second.entry.action, it->first, false);
      break;
    }
    if (result.action == Acl::AclAction::deny) return true;
  }
  return false;
}

rapidjson::Value AclTables::toJson(rapidjson::Document::AllocatorType& alloc) const {
  auto usedOf = [&](size_t used, size_t capacity) {
    rapidjson::Value v(rapidjson::kObjectType);
    v.AddMember("used", static_cast<uint64_t>(used), alloc);
    v.AddMember("capacity", static_cast<uint64_t>(capacity), alloc);
    return v;
  };
  rapidjson::Value units(rapidjson::kArrayType);
  for (uint32_t n = 0; n < units_.size(); ++n) {
    Unit const& u = units_[n];
    rapidjson::Value unit(rapidjson::kObjectType);
    unit.AddMember("unit", n, alloc);
    for (auto const dir : {Acl::AclDirection::in, Acl::AclDirection::out}) {
      AclTcam const& tcam = u.tcam[dirIndex(dir)];
      rapidjson::Value side = usedOf(tcam.size(), tcam_.capacity());
      rapidjson::Value instances(rapidjson::kObjectType);
      for (auto it = tcam.begin(); it != tcam.end();) {
        uint32_t const acl = it->first.aclNumber;
        uint64_t entries = 0;
        uint64_t hits = 0;
        for (; it != tcam.end() && it->first.aclNumber == acl; ++it) {
          ++entries;
          hits += it->second.hits;
        }
        rapidjson::Value instance(rapidjson::kObjectType);
        instance.AddMember("entries", entries, alloc);
        instance.AddMember("hits", hits, alloc);
        instances.AddMember(Zol::toJson(std::to_string(acl), alloc), instance, alloc);
      }
      side.AddMember("instances", instances, alloc);
      unit.AddMember(Zol::toJson(std::string(dirName(dir)), alloc), side, alloc);
    }
    unit.AddMember("rangeCheckers", usedOf(u.rangeCheckers.size(), checkers_.capacity()), alloc);
    if (u.error != Vemo::AclCreateError::aclCreateErrorNone) {
      unit.AddMember("error", Zol::toJson(std::string(Zol::enumName(u.error)), alloc), alloc);
    }
    units.PushBack(unit, alloc);
  }
  rapidjson::Value bindings(rapidjson::kObjectType);
  for (auto it = bindings_.begin(); it != bindings_.end();) {
    Nepo::IntfId const intf = std::get<Nepo::IntfId>(it->first);
    rapidjson::Value dirs(rapidjson::kObjectType);
    for (; it != bindings_.end() && std::get<Nepo::IntfId>(it->first) == intf; ++it) {
      // "in" for the IPv4 list, "ipv6 in" and "mac in" for the others.
      auto const [port, dir, type] = it->first;
      std::string name(dirName(dir));
      if (type != Acl::AclType::ip) name = std::string(Zol::enumName(type)) + " " + name;
      dirs.AddMember(Zol::toJson(name, alloc), rapidjson::Value(it->second), alloc);
    }
    bindings.AddMember(Zol::toJson(intf.stringValue(), alloc), dirs, alloc);
  }
  rapidjson::Value blocked(rapidjson::kArrayType);
  for (Nepo::IntfId const& intf : blocked_) {
    blocked.PushBack(Zol::toJson(intf.stringValue(), alloc), alloc);
  }
  rapidjson::Value root(rapidjson::kObjectType);
  root.AddMember("units", units, alloc);
  root.AddMember("bindings", bindings, alloc);
  root.AddMember("blocked", blocked, alloc);
  return root;
}

}  // namespace sim
