// An IP rule's filter expanded into the scratch record its subrules are created from: TCP flags
// for established sessions, port and IP-length ranges with their ternary entries, ECN rules.
#include <utility>

#include "Nepo/RangeToMask.h"
#include "Vemo/AclTypes.h"
#include "Vemo/VemoCommon.h"
#include "Zol/Trace.h"

ZOL_TRACE_MODULE("AclSm")

namespace Vemo {

void createL4PortMasks(Zol::U16 low, Zol::U16 high, bool enabled, AclL4MaskVector& maskVect) {
  ZOL_TRACE(9, "void Vemo::createL4PortMasks(U16, U16, bool, AclL4MaskVector&)"
                   << " low " << low << " high " << high << " enabled " << enabled);
  if (!enabled) {
    maskVect.push_back(AclL4Mask{0, 0, 0});
    return;
  }
  size_t const before = maskVect.size();
  for (auto const& vm : Nepo::rangeToMasks<Zol::U16>(low, high)) {
    maskVect.push_back(AclL4Mask{vm.value, vm.last(), vm.mask});
  }
  // Each range has a vector of its own, so an empty one means the range gave no entry.
  if (maskVect.size() == before) vemoAssert("!maskVect.empty()");
}

AclEcnInfo createAclEcnInfo(Acl::EcnMatch selector, bool ecnSupported) {
  AclEcnInfo info;
  if (!ecnSupported) {
    info.ecnRulesIs(0, 0);
    return info;
  }
  // Values are the two ECN bits: 0 Not-ECT, 1 ECT(1), 2 ECT(0), 3 CE.
  switch (selector) {
    case Acl::EcnMatch::ecnAny:
      info.ecnRulesIs(0, 0);
      break;
    case Acl::EcnMatch::ecnEctOrCe:
      info.ecnRulesIs(1, 3);
      info.ecnRulesIs(2, 2);
      break;
    case Acl::EcnMatch::ecnNotEct:
      info.ecnRulesIs(0, 3);
      break;
    case Acl::EcnMatch::ecnCe:
      info.ecnRulesIs(3, 3);
      break;
    case Acl::EcnMatch::ecnEct:
      info.ecnRulesIs(1, 3);
      info.ecnRulesIs(2, 3);
      break;
    default:
      // A selector this build does not know matches nothing rather than everything.
      break;
  }
  info.aclEcnRuleSplitIs(info.ecnRulesSize() > 1);
  return info;
}

namespace {

// Established sessions are those with ACK or RST set. Without hardware support, a rule is
// created once with ACK and, unless its own flags hold RST, once more with RST. A rule whose mask
// asks for flags clear has flags of its own too: the hardware's established match cannot carry
// them, so it takes the ACK and RST entries like any other.
void addEstablishedFlags(Acl::TcpFlag flags, Acl::TcpFlag mask, AclIpRuleCreateData& data,
                         bool establishedSupported) {
  ZOL_TRACE(8, "\tEstablished: Yes");
  constexpr Zol::U32 ack = Acl::TcpFlag::ack;
  constexpr Zol::U32 rst = Acl::TcpFlag::rst;
  Zol::U32 const own = flags.value();
  if (establishedSupported && own == 0 && mask.value() == 0) {
    data.tcpFlags[0] = 255;
    data.tcpFlagsMask = 0;
    ZOL_TRACE(8, "\t establishedSupported");
    return;
  }
  if (!flags.has(Acl::TcpFlag::ack)) {
    ZOL_TRACE(8, "\tAdding ACK flag");
    data.tcpFlags[0] = own | ack;
    if (flags.has(Acl::TcpFlag::rst)) return;
    ZOL_TRACE(8, "\tAdding RST flag");
    data.tcpFlags[1] = own | rst;
    data.tcpFlagsCount = 2;
    return;
  }
  // With ACK already asked for, RST joins the same entry: both are then required. Unlike the
  // case without ACK this does not add an entry; rules configured this way rely on it.
  if (flags.has(Acl::TcpFlag::rst)) return;
  ZOL_TRACE(8, "\tAdding RST flag");
  data.tcpFlags[0] = own | rst;
}

bool copyRanges(Acl::PortSpec const& ports, AclRuleRanges& out) {
  auto const list = ports.ranges();
  if (!list) return false;
  out.count = list->count();
  for (size_t i = 0; i < out.count; ++i) out.range[i] = list->range(i);
  return true;
}

// A field the rule does not match stands as one disabled range (0, 0).
void disableIfEmpty(AclRuleRanges& r) {
  if (r.count != 0) return;
  r.enabled = false;
  r.count = 1;
  r.range[0] = Acl::MatchRange(0, 0);
}

}  // namespace

bool createIpAclRuleData(Acl::IpFilter const& filter, AclIpRuleCreateData& data, bool ecnSupported,
                         bool establishedSupported) {
  ZOL_TRACE(9, "void Vemo::createIpAclRuleData(IpFilter const&, AclIpRuleCreateData&, bool, bool)"
                   << " ecnSupported " << ecnSupported << " establishedSupported "
                   << establishedSupported);
  // Field by field rather than from a fresh record: the mask vectors keep their memory.
  data.tcpFlags = {};
  for (AclRuleRanges* r : {&data.srcPort, &data.dstPort, &data.ipLen}) r->reset();
  data.l4Rule = false;
  data.tcpFlags[0] = filter.tcpFlags().value();
  data.tcpFlagsMask = filter.tcpFlagsMask().value();
  data.tcpFlagsCount = 1;
  if (filter.protocol() == Acl::IpFilter::protocolTcp && filter.established()) {
    addEstablishedFlags(filter.tcpFlags(), filter.tcpFlagsMask(), data, establishedSupported);
  }
  if (!copyRanges(filter.srcPort(), data.srcPort) || !copyRanges(filter.dstPort(), data.dstPort) ||
      !copyRanges(filter.ipLen(), data.ipLen)) {
    return false;
  }
  if (data.srcPort.count == 0) {
    // A mask alone ("!syn") matches on the flags as much as flags do.
    data.l4Rule = data.dstPort.count != 0 || filter.icmp() != Acl::IpFilter::icmpAny ||
                  data.tcpFlags[0] != 0 || data.tcpFlagsMask != 0;
  } else {
    data.l4Rule = true;
  }
  for (AclRuleRanges* r : {&data.srcPort, &data.dstPort, &data.ipLen}) {
    disableIfEmpty(*r);
  }
  data.ecnInfo = createAclEcnInfo(filter.ecn(), ecnSupported);
  return true;
}

}  // namespace Vemo
