// Every rule becomes TCAM entries written to each unit in the instance's direction, all units or
// none: a unit that refuses undoes what the others took, so the SM's retry starts clean. A range
// the TCAM can express as one value/mask is written that way and keeps the scarce range
// checkers for ranges that need them.
#include "Sim/AclHelper.h"

#include <optional>
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

// The nine flags of a subrule. tcpFlags has room for eight: the rule's own and the ACK or RST
// that established sessions add. NS and the mask come from the rule; the added flags are
// required set even where the rule's mask would have them clear.
void tcpFlagsIs(AclEntry& e, Acl::IpFilter const& f, Zol::U8 tcpFlags, bool establishedSupported) {
  uint16_t const own = f.tcpFlags().value();
  uint16_t const mask = f.tcpFlagsMask().value();
  // 255 on a rule with no flags of its own is the SM's request for established sessions, which
  // only arrives when the hardware says it matches them.
  if (tcpFlags == 255 && own == 0 && mask == 0 && establishedSupported && f.established() &&
      f.protocol() == Acl::IpFilter::protocolTcp) {
    e.tcpEstablished = true;
    return;
  }
  auto const added = static_cast<uint16_t>(tcpFlags & ~own);
  e.tcpFlags = masked<uint16_t>(own | added, own | mask | added);
}

// A bind the chip refuses: full names the lack of room, anything else a resource that was not
// there this time.
Err bindErrorOf(Status s) {
  switch (s) {
    case Status::ok:
      return Err::aclCreateErrorNone;
    case Status::full:
      return Err::aclCreateErrorTcamExhaustion;
    case Status::busy:
    case Status::failed:
      break;
  }
  return Err::aclCreateErrorInsufficientResource;
}

std::string unitName(uint32_t unit) { return "unit" + std::to_string(unit); }

std::string place(Vemo::AclData const& data, Zol::U32 aclRule) {
  return std::to_string(data.aclNumber()) + " " + std::to_string(aclRule);
}

std::string place(Vemo::AclData const& data, Zol::U32 aclRule, Zol::U32 subRuleNum) {
  return place(data, aclRule) + "." + std::to_string(subRuleNum);
}

}  // namespace

AclHelper::AclHelper(Zol::Name const& name, Chip& chip, Zol::ActivityLoop& loop)
    : VemoHelper::AclHelper(name), chip_(chip), asyncClock_(loop, [this] { publishDue(); }) {
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
      chip_.acls().entryDel(it->first, dir, it->second);
    }
    return e;
  };
  for (uint32_t unit = 0; unit < chip_.units(); ++unit) {
    if (Err const e = chip_.acls().unitError(unit); e != Err::aclCreateErrorNone) return undo(e);
    for (AclEntry const& entry : entries) {
      RangeFields missing = 0;
      Status const s = chip_.acls().entryAdd(unit, dir, entry, &missing);
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
  tcpFlagsIs(e, f, tcpFlags, establishedSupported());
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
  chip_.acls().deleteInstance(aclNum);
  countersDel(aclNum);
}

bool AclHelper::verifyDropAllRule(Vemo::AclData const& data) const {
  bool const icmp6 = data.key().type() == Acl::AclType::ipv6 && installImplicitIcmp6Rules();
  Zol::U32 const sub = icmp6 ? kIcmp6NdLast - kIcmp6NdFirst + 1 : 0;
  for (uint32_t unit = 0; unit < chip_.units(); ++unit) {
    AclTcamEntry const* const e = chip_.acls().entry(
        unit, data.key().direction(), AclEntryKey{data.aclNumber(), data.numRules(), sub});
    if (!e || e->entry.action != Acl::AclAction::deny) return false;
  }
  return true;
}

bool AclHelper::verifyAclGeneral(Vemo::AclData const& data, Nepo::IntfId const& intf) const {
  return chip_.acls().binding(intf, data.key().direction(), data.key().type()) == data.aclNumber();
}

bool AclHelper::ipSubruleExists(Vemo::AclData const& data, Zol::U32 aclRule,
                                Zol::U32 subRuleNum) const {
  // Every unit holds the same entries.
  return chip_.acls().entry(0, data.key().direction(),
                            AclEntryKey{data.aclNumber(), aclRule, subRuleNum}) != nullptr;
}

bool AclHelper::macRuleExists(Vemo::AclData const& data, Zol::U32 aclRule) const {
  return chip_.acls().entry(0, data.key().direction(), AclEntryKey{data.aclNumber(), aclRule, 0}) !=
         nullptr;
}

Zol::String AclHelper::intfLinecardName(Nepo::IntfId const& intf) const {
  std::optional<PortLocation> const where = chip_.location(intf);
  return unitName(where ? where->unit : 0);
}

// Answers leave in call order: one with a shorter delay waits behind those filed before it.
void AclHelper::later(std::function<void()> publish) {
  pending_.push_back(Completion{asyncClock_.loop().now() + asyncDelay_, std::move(publish)});
  if (!asyncClock_.armed()) asyncClock_.timeMinIs(pending_.front().due);
}

void AclHelper::publishDue() {
  Zol::Seconds const now = asyncClock_.loop().now();
  while (!pending_.empty() && pending_.front().due <= now) {
    std::function<void()> const publish = std::move(pending_.front().publish);
    pending_.pop_front();
    publish();
  }
  if (!pending_.empty()) asyncClock_.timeMinIs(pending_.front().due);
}

// Writing the answer already there notifies nobody, yet it is a new completion the SM waits for.
void AclHelper::answerIs(Vemo::AclKey const& key, Err status) {
  VemoHelper::AclHelperCallbackData const answer(status);
  bool const same = aclHelperCallbackDataHas(key) && aclHelperCallbackData(key) == answer;
  aclHelperCallbackDataIs(key, answer);
  if (same) aclHelperCallbackDataNotify(key);
}

void AclHelper::blockedAnswerIs(Nepo::IntfId const& intf, bool blocked) {
  bool const same = aclIntfBlockedStatusHas(intf) && aclIntfBlockedStatus(intf) == blocked;
  aclIntfBlockedStatusIs(intf, blocked);
  if (same) aclIntfBlockedStatusNotify(intf);
}

Err AclHelper::prepareToCommit(Vemo::AclData& data) {
  // Every unit is looked at, so that unitError shows all of them and not just the first.
  Err answer = Err::aclCreateErrorNone;
  for (uint32_t unit = 0; unit < chip_.units(); ++unit) {
    Err const e = chip_.acls().unitError(unit);
    std::string const name = unitName(unit);
    if (e == Err::aclCreateErrorNone) {
      unitErrorDel(name);
      publishUnitErrorDel(name);
      continue;
    }
    unitErrorIs(name, e);
    publishUnitErrorIs(name, true);
    if (answer == Err::aclCreateErrorNone) answer = e;
  }
  if (answer == Err::aclCreateErrorNone) prepared_.insert(data.aclNumber());
  logged("prepareToCommit " + std::to_string(data.aclNumber()), answer);
  if (asyncAclConfig()) later([this, key = data.key(), answer] { answerIs(key, answer); });
  return answer;
}

Err AclHelper::commitAcl(Vemo::AclData& data) {
  prepared_.erase(data.aclNumber());
  committed_.insert(data.aclNumber());
  return logged("commitAcl " + std::to_string(data.aclNumber()), Err::aclCreateErrorNone);
}

Err AclHelper::batchCommitAcls() {
  std::string what = "batchCommitAcls";
  for (Zol::U32 aclNum : prepared_) what += " " + std::to_string(aclNum);
  committed_.merge(prepared_);
  prepared_.clear();
  return logged(std::move(what), Err::aclCreateErrorNone);
}

Err AclHelper::addIntfToAcl(Nepo::IntfId const& intf, Vemo::AclData const& data) {
  Status const s =
      chip_.acls().bind(intf, data.key().direction(), data.aclNumber(), data.key().type());
  return logged("addIntfToAcl " + intf.stringValue() + " " + std::to_string(data.aclNumber()),
                bindErrorOf(s));
}

void AclHelper::removeIntfFromAcl(Nepo::IntfId const& intf, Vemo::AclData const& data,
                                  bool belongsToAnother) {
  std::string what =
      "removeIntfFromAcl " + intf.stringValue() + " " + std::to_string(data.aclNumber());
  Acl::AclDirection const dir = data.key().direction();
  // The next instance's bind replaces this one without a gap; and a port another instance has
  // already taken over is left alone.
  if (belongsToAnother) {
    what += " belongsToAnother";
  } else if (chip_.acls().binding(intf, dir, data.key().type()) == data.aclNumber()) {
    chip_.acls().unbind(intf, dir, data.key().type());
  }
  note(std::move(what));
}

void AclHelper::blockIntf(Nepo::IntfId const& intf, bool block, Zol::U32) {
  note("blockIntf " + intf.stringValue() + (block ? " on" : " off"));
  chip_.acls().blockIs(intf, block);
  if (asyncAclConfig()) later([this, intf, block] { blockedAnswerIs(intf, block); });
}

void AclHelper::removeAcl(Vemo::AclData& data) {
  note("removeAcl " + std::to_string(data.aclNumber()));
  chip_.acls().deleteInstance(data.aclNumber());
  countersDel(data.aclNumber());
  if (asyncAclConfig()) {
    later([this, key = data.key()] { answerIs(key, Err::aclCreateErrorNone); });
  }
}

void AclHelper::destroyAcl(Vemo::AclData& data) {
  Zol::U32 const aclNum = data.aclNumber();
  note("destroyAcl " + std::to_string(aclNum));
  chip_.acls().deleteInstance(aclNum);
  chip_.acls().unbindAll(aclNum, data.key().direction());
  prepared_.erase(aclNum);
  committed_.erase(aclNum);
  countersDel(aclNum);
}

void AclHelper::aclStatusUpdateCallback(Vemo::AclKey const& key, Err error) {
  logged("aclStatusUpdateCallback " + key.text(), error);
}

bool AclHelper::aclCountersAllocated(Vemo::AclData const& data) const {
  return committed_.contains(data.aclNumber());
}

Zol::U64 AclHelper::aclRuleCountersSinceLastPoll(Vemo::AclData const& data, Zol::U32 aclRule,
                                                 Acl::UniqueId) {
  Zol::U32 const aclNum = data.aclNumber();
  Zol::U64 total = 0;
  for (uint32_t unit = 0; unit < chip_.units(); ++unit) {
    AclTcam const& tcam = chip_.acls().tcam(unit, data.key().direction());
    for (auto it = tcam.lower_bound(AclEntryKey{aclNum, aclRule, 0});
         it != tcam.end() && it->first.aclNumber == aclNum && it->first.aclRule == aclRule; ++it) {
      total += it->second.hits;
    }
  }
  Zol::U64& last = lastHits_[{aclNum, aclRule}];
  // A total below the last one means the entries were written again and counted from zero.
  Zol::U64 const delta = total >= last ? total - last : total;
  last = total;
  return delta;
}

Zol::U64 AclHelper::aclRuleCounterPerChipSinceLastPoll(Vemo::AclData const& data, Zol::U32 aclRule,
                                                       Acl::UniqueId uniqueId) {
  // The chip is the only one there is.
  return aclRuleCountersSinceLastPoll(data, aclRule, uniqueId);
}

void AclHelper::countersDel(Zol::U32 aclNum) {
  auto const first = lastHits_.lower_bound({aclNum, 0});
  auto last = first;
  while (last != lastHits_.end() && last->first.first == aclNum) ++last;
  lastHits_.erase(first, last);
}

void AclHelper::logAclUnsupportedHardware(Zol::Name const& aclName, Nepo::IntfId const& intf) {
  note("logAclUnsupportedHardware " + aclName + " " + intf.stringValue());
}

}  // namespace sim
