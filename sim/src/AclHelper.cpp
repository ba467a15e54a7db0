// Every rule becomes TCAM entries written to each unit in the instance's direction, all units or
// none: a unit that refuses undoes what the others took, so the SM's retry starts clean. A range
// the TCAM can express as one value/mask is written that way and keeps the scarce range
// checkers for ranges that need them.
#include "Sim/AclHelper.h"

#include <utility>

#include "Zol/Text.h"
#include "Zol/Trace.h"

ZOL_TRACE_MODULE("SimAclHelper")

namespace sim {

namespace {

using Err = Vemo::AclCreateError;

template <class T>
Nepo::ValueMask<T> exact(T v) {
  return {v, static_cast<T>(~T{0})};
}

template <class T>
Nepo::ValueMask<T> masked(T v, T mask) {
  return {static_cast<T>(v & mask), mask};
}

// The ICMPv6 neighbour-discovery types an IPv6 instance lets through ahead of its final deny:
// router solicitation and advertisement, neighbour solicitation and advertisement.
constexpr uint8_t kIcmp6NdFirst = 133;
constexpr uint8_t kIcmp6NdLast = 136;

// The answer that names exactly the fields that found no range checker.
Err rangeCheckerError(RangeFields missing) {
  constexpr RangeFields src = rangeFieldBit(RangeField::srcPort);
  constexpr RangeFields dst = rangeFieldBit(RangeField::dstPort);
  constexpr RangeFields len = rangeFieldBit(RangeField::ipLen);
  switch (missing) {
    case src:
      return Err::aclCreateErrorSrcPortRangeChecker;
    case dst:
      return Err::aclCreateErrorDstPortRangeChecker;
    case len:
      return Err::aclCreateErrorIpLenRangeChecker;
    case src | dst:
      return Err::aclCreateErrorRangeChecker;
    case len | src:
      return Err::aclCreateErrorIpLenAndSrcPortRangeChecker;
    case len | dst:
      return Err::aclCreateErrorIpLenAndDstPortRangeChecker;
    default:
      return Err::aclCreateErrorIpLenSrcAndDstRangeChecker;
  }
}

Err errorOf(Status s, RangeFields missing) {
  switch (s) {
    case Status::ok:
      return Err::aclCreateErrorNone;
    case Status::busy:
      return Err::aclCreateErrorInsufficientResource;
    case Status::full:
      return missing != 0 ? rangeCheckerError(missing) : Err::aclCreateErrorTcamExhaustion;
    case Status::failed:
      break;
  }
  return Err::aclCreateErrorUnsupportedRule;
}

// What every entry of an IP rule matches: the instance's IP version and the rule's prefixes.
AclEntry ipEntry(Acl::AclType type, Vemo::AclData const& data, Acl::IpRuleConfig const& rule,
                 Zol::U32 aclRule, Zol::U32 subRuleNum) {
  AclEntry e;
  e.key = AclEntryKey{data.aclNumber(), aclRule, subRuleNum};
  e.action = rule.action();
  e.ipVersion = type == Acl::AclType::ipv6 ? 6 : 4;
  e.srcIp = rule.filter().source();
  e.dstIp = rule.filter().destination();
  return e;
}

// One 16-bit field of a subrule: nothing when the filter leaves it open, the ternary entry it was
// given, else its range as one value/mask where that covers it exactly, or a range checker.
// False for a reversed range.
bool fieldIs(AclEntry& e, RangeField field, Nepo::ValueMask<uint16_t>& vm,
             Acl::PortSpec const& configured, Zol::U16 value, Zol::U16 mask, Zol::U16 low,
             Zol::U16 high) {
  if (configured.oper() == Acl::PortOper::portAny) return true;
  if (mask != 0) {
    vm = masked(value, mask);
    return true;
  }
  if (low > high) return false;
  Vemo::AclL4MaskVector v;
  Vemo::createL4PortMasks(low, high, true, v);
  if (v.size() == 1) {
    vm = Nepo::ValueMask<uint16_t>{v[0].start, v[0].mask};
  } else {
    e.rangeIs(field, PortRange{low, high});
  }
  return true;
}

std::string place(Vemo::AclData const& data, Zol::U32 aclRule) {
  return std::to_string(data.aclNumber()) + " " + std::to_string(aclRule);
}

std::string place(Vemo::AclData const& data, Zol::U32 aclRule, Zol::U32 subRuleNum) {
  return place(data, aclRule) + "." + std::to_string(subRuleNum);
}

}  // namespace

AclHelper::AclHelper(Zol::Name const& name, Chip& chip) : VemoHelper::AclHelper(name), chip_(chip) {
  aclEcnSupportedIs(true);
  aclIpLenMatchSupportedIs(true);
  ip6AclSupportedIs(true);
  macAclSupportedIs(true);
  aclCountersSupportedIs(true);
  establishedSupportedIs(false);
}

void AclHelper::note(std::string text) {
  ZOL_TRACE(8, text);
  if (log_.size() >= logLimit) log_.pop_front();
  log_.push_back(std::move(text));
}

Err AclHelper::logged(std::string text, Err e) {
  text += ": ";
  text += Zol::enumName(e);
  note(std::move(text));
  return e;
}

void AclHelper::hwInit() {
  note("hwInit");
  ready_ = true;
}

bool AclHelper::intfSupportsAcl(Nepo::IntfId const& intf) const {
  return chip_.hasPort(intf) || intf.isPortChannel() || intf.isVlan();
}

// An entry written over an existing one is not brought back by a rollback: the SMs delete an
// instance before they create its rules again.
Err AclHelper::program(Acl::AclDirection dir, std::vector<AclEntry> const& entries) {
  std::vector<std::pair<uint32_t, AclEntryKey>> written;
  auto const undo = [&](Err e) {
    for (auto it = written.rbegin(); it != written.rend(); ++it) {
      chip_.aclEntryDel(it->first, dir, it->second);
    }
    return e;
  };
  for (uint32_t unit = 0; unit < chip_.units(); ++unit) {
    if (Err const e = chip_.aclUnitError(unit); e != Err::aclCreateErrorNone) return undo(e);
    for (AclEntry const& entry : entries) {
      RangeFields missing = 0;
      Status const s = chip_.aclEntryAdd(unit, dir, entry, &missing);
      if (s != Status::ok) return undo(errorOf(s, missing));
      written.emplace_back(unit, entry.key);
    }
  }
  return Err::aclCreateErrorNone;
}

Err AclHelper::createIpAclSubrule(Acl::AclType aclType, Acl::IpRuleConfig const& rule,
                                  Acl::UniqueId, Vemo::AclData& data, Zol::U32 aclRule,
                                  Zol::U32 subRuleNum, Zol::U16 srcL4Port, Zol::U16 srcL4PortMask,
                                  Zol::U16 dstL4Port, Zol::U16 dstL4PortMask, Zol::U16 srcPortLow,
                                  Zol::U16 srcPortHigh, Zol::U16 dstPortLow, Zol::U16 dstPortHigh,
                                  Zol::U16 ipLen, Zol::U16 ipLenMask, Zol::U16 ipLenLow,
                                  Zol::U16 ipLenHigh, Zol::U8 tcpFlags, bool l4Rule,
                                  Zol::U8 ecnData, Zol::U8 ecnMask) {
  std::string what = "createIpAclSubrule " + place(data, aclRule, subRuleNum);
  Acl::IpFilter const& f = rule.filter();
  bool const supported = f.vni() == 0 && f.tni() == 0 && aclType != Acl::AclType::mac &&
                         (aclType != Acl::AclType::ipv6 || ip6AclSupported()) &&
                         (f.ipLen().oper() == Acl::PortOper::portAny || aclIpLenMatchSupported());
  if (!supported) return logged(std::move(what), Err::aclCreateErrorUnsupportedRule);

  AclEntry e = ipEntry(aclType, data, rule, aclRule, subRuleNum);
  if (f.protocol() != Acl::IpFilter::protocolAny) e.protocol = exact(f.protocol());
  if (f.dscpMatch()) e.dscp = masked<uint8_t>(f.dscp(), 0x3f);
  if (f.ttlMatch()) e.ttl = exact(f.ttl());
  if (f.icmpType() != 255) e.icmpType = exact(f.icmpType());
  if (f.icmpCode() != 255) e.icmpCode = exact(f.icmpCode());
  if (f.fragments()) {
    e.fragment = FragmentMatch::nonInitial;
  } else if (l4Rule) {
    e.fragment = FragmentMatch::notFragment;
  }
  e.ecn = masked(ecnData, ecnMask);
  // 255 with no flags of the rule's own is the SM's request for established sessions, which
  // only arrives when the hardware says it matches them.
  if (tcpFlags == 255 && establishedSupported() && f.established()) {
    e.tcpEstablished = true;
  } else {
    uint16_t const mask = f.tcpFlagsMask().value() != 0 ? f.tcpFlagsMask().value() : tcpFlags;
    e.tcpFlags = masked<uint16_t>(tcpFlags, mask);
  }
  bool const valid =
      fieldIs(e, RangeField::srcPort, e.srcPort, f.srcPort(), srcL4Port, srcL4PortMask, srcPortLow,
              srcPortHigh) &&
      fieldIs(e, RangeField::dstPort, e.dstPort, f.dstPort(), dstL4Port, dstL4PortMask, dstPortLow,
              dstPortHigh) &&
      fieldIs(e, RangeField::ipLen, e.ipLen, f.ipLen(), ipLen, ipLenMask, ipLenLow, ipLenHigh);
  if (!valid) return logged(std::move(what), Err::aclCreateErrorUnsupportedRule);
  return logged(std::move(what), program(data.key().direction(), {e}));
}

Err AclHelper::createIpFragRule(Vemo::AclData& data, Acl::IpRuleConfig const& rule, Acl::UniqueId,
                                Zol::U32 aclRule, Zol::U32 subRuleNum) {
  Vemo::AclEcnInfo const ecn = Vemo::createAclEcnInfo(rule.filter().ecn(), aclEcnSupported());
  std::vector<AclEntry> entries;
  Zol::U32 sub = subRuleNum;
  for (auto const& [value, mask] : ecn.ecnRulesAll()) {
    AclEntry e = ipEntry(data.key().type(), data, rule, aclRule, sub++);
    e.action = Acl::AclAction::permit;
    e.fragment = FragmentMatch::nonInitial;
    e.ecn = masked<uint8_t>(value, mask);
    entries.push_back(e);
  }
  return logged("createIpFragRule " + place(data, aclRule, subRuleNum),
                program(data.key().direction(), entries));
}

Err AclHelper::createMacAclRule(Acl::MacRuleConfig const& rule, Acl::UniqueId, Vemo::AclData& data,
                                Zol::U32 aclRule) {
  std::string what = "createMacAclRule " + place(data, aclRule);
  Acl::MacFilter const& f = rule.filter();
  if (!macAclSupported() || f.mplsLabelMatch() || f.mplsInnerLabelMatch()) {
    return logged(std::move(what), Err::aclCreateErrorUnsupportedRule);
  }
  AclEntry e;
  e.key = AclEntryKey{data.aclNumber(), aclRule, 0};
  e.action = rule.action();
  e.srcMac = masked(f.source().addr().value(), f.source().mask().value());
  e.dstMac = masked(f.destination().addr().value(), f.destination().mask().value());
  if (f.etherType() != 0) e.etherType = exact(f.etherType());
  e.vlan = masked(f.vlanId(), f.vlanMask());
  return logged(std::move(what), program(data.key().direction(), {e}));
}

Err AclHelper::createFinalAclRule(Acl::AclType type, Vemo::AclData& data, Zol::U32 aclRule) {
  std::vector<AclEntry> entries;
  Zol::U32 sub = 0;
  if (type == Acl::AclType::ipv6 && installImplicitIcmp6Rules()) {
    for (uint8_t t = kIcmp6NdFirst; t <= kIcmp6NdLast; ++t) {
      AclEntry e;
      e.key = AclEntryKey{data.aclNumber(), aclRule, sub++};
      e.action = Acl::AclAction::permit;
      e.ipVersion = 6;
      e.protocol = exact(Acl::IpFilter::protocolIcmp6);
      e.icmpType = exact(t);
      entries.push_back(e);
    }
  }
  AclEntry deny;
  deny.key = AclEntryKey{data.aclNumber(), aclRule, sub};
  deny.action = Acl::AclAction::deny;
  entries.push_back(deny);
  return logged("createFinalAclRule " + place(data, aclRule),
                program(data.key().direction(), entries));
}

void AclHelper::deleteAcl(Zol::U32 aclNum) {
  note("deleteAcl " + std::to_string(aclNum));
  chip_.aclDelete(aclNum);
}

bool AclHelper::ipSubruleExists(Vemo::AclData const& data, Zol::U32 aclRule,
                                Zol::U32 subRuleNum) const {
  // Every unit holds the same entries.
  return chip_.aclEntry(0, data.key().direction(),
                        AclEntryKey{data.aclNumber(), aclRule, subRuleNum}) != nullptr;
}

}  // namespace sim
