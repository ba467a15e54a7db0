// The subrules of ACL rules, as the helper is asked for them.
#include "Vemo/AclRules.h"

#include <array>

#include "Vemo/VemoCommon.h"
#include "Zol/Trace.h"

ZOL_TRACE_MODULE("AclSm")

namespace Vemo {

using Err = AclCreateError;

bool isRangeCheckerError(AclCreateError e) { return aclRangeFieldsOf(e) != 0; }

unsigned aclRangeFieldsOf(AclCreateError e) {
  switch (e) {
    case Err::aclCreateErrorRangeChecker:
      return aclRangeFieldSrcPort | aclRangeFieldDstPort;
    case Err::aclCreateErrorIpLenRangeChecker:
      return aclRangeFieldIpLen;
    case Err::aclCreateErrorIpLenSrcAndDstRangeChecker:
      return aclRangeFieldSrcPort | aclRangeFieldDstPort | aclRangeFieldIpLen;
    case Err::aclCreateErrorIpLenAndSrcPortRangeChecker:
      return aclRangeFieldIpLen | aclRangeFieldSrcPort;
    case Err::aclCreateErrorIpLenAndDstPortRangeChecker:
      return aclRangeFieldIpLen | aclRangeFieldDstPort;
    case Err::aclCreateErrorSrcPortRangeChecker:
      return aclRangeFieldSrcPort;
    case Err::aclCreateErrorDstPortRangeChecker:
      return aclRangeFieldDstPort;
    default:
      return 0;
  }
}

namespace {

constexpr unsigned allRangeFields =
    aclRangeFieldSrcPort | aclRangeFieldDstPort | aclRangeFieldIpLen;

AclL4Mask rangeMatch(Acl::MatchRange const& r) { return AclL4Mask{r.low(), r.high(), 0}; }

// One rule's subrules, numbered in the order they are created.
class IpRuleCreator {
 public:
  IpRuleCreator(VemoHelper::AclHelper& helper, AclData& data, Acl::IpRuleConfig const& rule,
                Zol::U32 aclRule, AclIpRuleCreateData const& d)
      : helper_(helper), data_(data), rule_(rule), aclRule_(aclRule), d_(d) {}

  Err create() {
    for (auto const& [ecnValue, ecnMask] : d_.ecnInfo.ecnRulesAll()) {
      for (Zol::U8 f = 0; f < d_.tcpFlagsCount; ++f) {
        // The helper's flags argument has eight bits; NS and the mask it takes from the rule.
        Zol::U8 const flags = static_cast<Zol::U8>(d_.tcpFlags[f]);
        for (size_t s = 0; s < d_.srcPort.count; ++s) {
          for (size_t t = 0; t < d_.dstPort.count; ++t) {
            for (size_t l = 0; l < d_.ipLen.count; ++l) {
              Err const e = createWithRanges({s, t, l}, flags, ecnValue, ecnMask);
              if (e != Err::aclCreateErrorNone) return e;
            }
          }
        }
      }
    }
    return Err::aclCreateErrorNone;
  }

  Zol::U32 subrules() const { return subRule_; }

 private:
  using Index = std::array<size_t, 3>;

  AclRuleRanges const& ranges(unsigned field) const {
    return field == aclRangeFieldSrcPort   ? d_.srcPort
           : field == aclRangeFieldDstPort ? d_.dstPort
                                           : d_.ipLen;
  }

  // The subrule of ranges idx; when the hardware is out of range checkers, its fields that ran
  // out as value/mask entries, widening to more fields if those run out too.
  Err createWithRanges(Index const& idx, Zol::U8 flags, Zol::U8 ecnValue, Zol::U8 ecnMask) {
    std::array<AclL4Mask, 3> m = {rangeMatch(d_.srcPort.range[idx[0]]),
                                  rangeMatch(d_.dstPort.range[idx[1]]),
                                  rangeMatch(d_.ipLen.range[idx[2]])};
    Err e = call("Adding subrule ", m, flags, ecnValue, ecnMask);
    unsigned masked = 0;
    while (isRangeCheckerError(e) && masked != allRangeFields) {
      masked |= aclRangeFieldsOf(e);
      ZOL_TRACE(8, "Using data/mask for - rule: " << aclRule_);
      e = createMasked(idx, masked, 0, m, flags, ecnValue, ecnMask);
    }
    return isRangeCheckerError(e) ? Err::aclCreateErrorRangeChecker : e;
  }

  // Every combination of the ternary entries of the masked fields, from field number i on.
  Err createMasked(Index const& idx, unsigned masked, unsigned i, std::array<AclL4Mask, 3>& m,
                   Zol::U8 flags, Zol::U8 ecnValue, Zol::U8 ecnMask) {
    if (i == 3) return call("Adding data/mask subrule ", m, flags, ecnValue, ecnMask);
    unsigned const field = 1u << i;
    AclRuleRanges const& r = ranges(field);
    if (!(masked & field)) return createMasked(idx, masked, i + 1, m, flags, ecnValue, ecnMask);
    for (AclL4Mask const& entry : r.masks(idx[i])) {
      m[i] = entry;
      Err const e = createMasked(idx, masked, i + 1, m, flags, ecnValue, ecnMask);
      if (e != Err::aclCreateErrorNone) {
        m[i] = rangeMatch(r.range[idx[i]]);
        return e;
      }
    }
    m[i] = rangeMatch(r.range[idx[i]]);
    return Err::aclCreateErrorNone;
  }

  Err call(char const* what, std::array<AclL4Mask, 3> const& m, Zol::U8 flags, Zol::U8 ecnValue,
           Zol::U8 ecnMask) {
    auto const& [src, dst, len] = m;
    Err const e = helper_.createIpAclSubrule(
        data_.key().type(), rule_, rule_.uniqueId(), data_, aclRule_, subRule_, src.value(),
        src.mask, dst.value(), dst.mask, src.start, src.end, dst.start, dst.end, len.value(),
        len.mask, len.start, len.end, flags, d_.l4Rule, ecnValue, ecnMask);
    ZOL_TRACE(8, what << subRule_ << " flags(" << unsigned{flags} << "), src(" << src << "), dst("
                      << dst << "), iplen(" << len << "), success:" << Zol::enumName(e));
    if (e == Err::aclCreateErrorNone) ++subRule_;
    return e;
  }

  VemoHelper::AclHelper& helper_;
  AclData& data_;
  Acl::IpRuleConfig const& rule_;
  Zol::U32 const aclRule_;
  AclIpRuleCreateData const& d_;
  Zol::U32 subRule_ = 0;
};

// Non-initial fragments carry no L4 header, so a permit that matches on L4 fields would drop
// them; one permit per source, destination and ECN lets them through.
Err checkIpFragRule(VemoHelper::AclHelper& helper, AclData& data, Acl::IpRuleConfig const& rule,
                    Zol::U32 aclRule, Zol::U32 subRule, bool l4Rule) {
  Acl::IpFilter const& f = rule.filter();
  if (!l4Rule || f.fragments() || rule.action() != Acl::AclAction::permit) {
    return Err::aclCreateErrorNone;
  }
  AclFragInfo const info(f.source(), f.destination(), f.ecn());
  if (data.fragMapHas(info)) return Err::aclCreateErrorNone;
  ZOL_TRACE(8, "Creating fragment permit rule");
  Err const e = helper.createIpFragRule(data, rule, rule.uniqueId(), aclRule, subRule);
  if (e == Err::aclCreateErrorNone) data.fragMapIs(info, aclRule);
  return e;
}

}  // namespace

namespace {

// d is scratch: one record serves every rule of a list.
Err createIpAclRule(VemoHelper::AclHelper& helper, AclData& data, Acl::IpRuleConfig const& rule,
                    Zol::U32 aclRule, AclIpRuleCreateData& d) {
  ZOL_TRACE(8, data.key().text() << " VLAN " << data.key().vlanId().value() << " creating rule "
                                 << aclRule);
  if (!createIpAclRuleData(rule.filter(), d, helper.aclEcnSupported(),
                           helper.establishedSupported())) {
    // A port or length match that no value meets: the rule can match nothing.
    ZOL_TRACE(8, "Skipping rule " << aclRule << ": it matches no packet");
    return Err::aclCreateErrorNone;
  }
  IpRuleCreator creator(helper, data, rule, aclRule, d);
  if (Err const e = creator.create(); e != Err::aclCreateErrorNone) return e;
  // Verification looks for every one of them.
  data.subruleCountIs(aclRule, creator.subrules());
  return checkIpFragRule(helper, data, rule, aclRule, creator.subrules(), d.l4Rule);
}

}  // namespace

AclCreateError createIpAclRule(VemoHelper::AclHelper& helper, AclData& data,
                               Acl::IpRuleConfig const& rule, Zol::U32 aclRule) {
  AclIpRuleCreateData d;
  return createIpAclRule(helper, data, rule, aclRule, d);
}

AclCreateError createMacAclRule(VemoHelper::AclHelper& helper, AclData& data,
                                Acl::MacRuleConfig const& rule, Zol::U32 aclRule) {
  ZOL_TRACE(8, data.key().text() << " VLAN " << data.key().vlanId().value() << " creating rule "
                                 << aclRule);
  return helper.createMacAclRule(rule, rule.uniqueId(), data, aclRule);
}

AclCreateError createAclRules(VemoHelper::AclHelper& helper, AclData& data,
                              Acl::AclConfig const& config) {
  Acl::AclType const type = data.key().type();
  Zol::U32 aclRule = 0;
  auto const done = [&](Err e, auto const& seq) {
    if (e != Err::aclCreateErrorIgnoredRule) return e;
    ZOL_TRACE(8, "Skipping " << seq << " for being fully unsupported");
    return Err::aclCreateErrorNone;
  };
  Err e = Err::aclCreateErrorNone;
  if (type == Acl::AclType::mac) {
    for (auto const& [seq, rule] : config.macRuleBySequenceAll()) {
      if ((e = done(createMacAclRule(helper, data, rule, aclRule), seq)) != Err::aclCreateErrorNone)
        break;
      ++aclRule;
    }
  } else {
    AclIpRuleCreateData scratch;
    for (auto const& [seq, rule] : config.ipRuleBySequenceAll()) {
      if ((e = done(createIpAclRule(helper, data, rule, aclRule, scratch), seq)) !=
          Err::aclCreateErrorNone)
        break;
      ++aclRule;
    }
  }
  if (e == Err::aclCreateErrorNone) e = helper.createFinalAclRule(type, data, aclRule);
  data.numRulesIs(aclRule);
  return e;
}

}  // namespace Vemo
