// End to end, from configured rules to the simulated TCAM: for random ACLs and random packets,
// the action the chip's classifier returns must be the one a first-match walk over the
// configured rules gives. Any fault in port specifications, ternary expansion, established
// sessions, ECN selectors, value/mask fallback or fragment permits shows as a difference. Each
// ACL is installed three ways: with range checkers to spare, with none, and with a few.
#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "Sim/AclHelper.h"
#include "Sim/Chip.h"
#include "Vemo/AclRules.h"

using namespace Vemo;
using Acl::AclAction;
using Acl::PortOper;
using Acl::PortSpec;

namespace {

constexpr Zol::U16 ack = Acl::TcpFlag::ack, rst = Acl::TcpFlag::rst;

// The values random rules and packets draw from: few enough that packets hit rule boundaries.
constexpr Zol::U16 kPorts[] = {0, 1, 21, 22, 23, 79, 80, 81, 443, 1023, 1024, 8080, 65534, 65535};
constexpr Zol::U16 kLens[] = {20, 40, 64, 576, 1500, 9000};
constexpr Zol::U8 kProtocols[] = {Acl::IpFilter::protocolTcp, Acl::IpFilter::protocolUdp,
                                  Acl::IpFilter::protocolIcmp};

// ---- the reference: what the configured rules mean -------------------------------------------

bool portsMatch(PortSpec const& ports, Zol::U16 v) {
  if (ports.oper() == PortOper::portAny) return true;
  auto const ranges = ports.ranges();
  return ranges && ranges->contains(v);
}

bool ecnMatches(Acl::EcnMatch sel, Zol::U8 ecn) {
  switch (sel) {
    case Acl::EcnMatch::ecnAny:
      return true;
    case Acl::EcnMatch::ecnEctOrCe:
      return ecn != 0;
    case Acl::EcnMatch::ecnNotEct:
      return ecn == 0;
    case Acl::EcnMatch::ecnCe:
      return ecn == 3;
    case Acl::EcnMatch::ecnEct:
      return ecn == 1 || ecn == 2;
  }
  return false;
}

bool prefixMatches(Nepo::IpPrefix const& p, Nepo::IpAddr const& a) {
  return p.length() == 0 || p.contains(a);
}

bool hasL4(Acl::IpFilter const& f) {
  bool const established = f.established() && f.protocol() == Acl::IpFilter::protocolTcp;
  return f.srcPort().oper() != PortOper::portAny || f.dstPort().oper() != PortOper::portAny ||
         f.icmp() != Acl::IpFilter::icmpAny || f.tcpFlags().value() != 0 || established;
}

bool flagsMatch(Acl::IpFilter const& f, Zol::U16 flags) {
  auto const has = [&](Zol::U16 want) { return (flags & want) == want; };
  Zol::U16 const own = f.tcpFlags().value();
  if (f.established() && f.protocol() == Acl::IpFilter::protocolTcp) {
    // Either ACK or RST establishes; with ACK asked for already, RST is required beside it.
    if (own & ack) return has(own | rst);
    return has(own | ack) || (!(own & rst) && has(own | rst));
  }
  return has(own);
}

bool l3Matches(Acl::IpFilter const& f, sim::Packet const& p) {
  return (f.protocol() == Acl::IpFilter::protocolAny || f.protocol() == p.protocol) &&
         prefixMatches(f.source(), p.srcIp) && prefixMatches(f.destination(), p.dstIp) &&
         (!f.dscpMatch() || f.dscp() == p.dscp) && ecnMatches(f.ecn(), p.ecn) &&
         (!f.ttlMatch() || f.ttl() == p.ttl) && portsMatch(f.ipLen(), p.ipLen);
}

bool l4Matches(Acl::IpFilter const& f, sim::Packet const& p) {
  return portsMatch(f.srcPort(), p.srcPort) && portsMatch(f.dstPort(), p.dstPort) &&
         (f.icmpType() == 255 || f.icmpType() == p.icmpType) &&
         (f.icmpCode() == 255 || f.icmpCode() == p.icmpCode) && flagsMatch(f, p.tcpFlags);
}

AclAction firstMatch(Acl::AclConfig const& acl, sim::Packet const& p) {
  for (auto const& [seq, rule] : acl.ipRuleBySequenceAll()) {
    Acl::IpFilter const& f = rule.filter();
    bool matched;
    if (p.fragment) {
      // A non-initial fragment has no L4 header: rules on L4 fields pass it over, but a permit
      // among them lets it through on its addresses and ECN alone.
      if (f.fragments() || !hasL4(f)) {
        matched = l3Matches(f, p);
      } else {
        matched = rule.action() == AclAction::permit && prefixMatches(f.source(), p.srcIp) &&
                  prefixMatches(f.destination(), p.dstIp) && ecnMatches(f.ecn(), p.ecn) &&
                  f.srcPort().ranges() && f.dstPort().ranges() && f.ipLen().ranges();
      }
    } else {
      matched = !f.fragments() && l3Matches(f, p) && l4Matches(f, p);
    }
    if (matched) return rule.action();
  }
  return AclAction::deny;
}

// ---- random rules and packets ----------------------------------------------------------------

class Gen {
 public:
  explicit Gen(uint32_t seed) : rng_(seed) {}

  bool chance(int percent) { return int(rng_() % 100) < percent; }
  template <typename T, size_t N>
  T pick(T const (&values)[N]) {
    return values[rng_() % N];
  }
  Zol::U16 nearby(Zol::U16 v) {
    int const d = int(rng_() % 3) - 1;
    return static_cast<Zol::U16>(std::clamp(int(v) + d, 0, 65535));
  }

  Nepo::IpAddr addr() {
    return Nepo::IpAddr::fromString("10." + std::to_string(rng_() % 2) + "." +
                                    std::to_string(rng_() % 3) + "." + std::to_string(rng_() % 4));
  }
  Nepo::IpPrefix prefix() {
    static constexpr unsigned lengths[] = {0, 0, 8, 16, 24, 32};
    return Nepo::IpPrefix(addr(), pick(lengths));
  }

  PortSpec portSpec(Zol::U16 const* pool, size_t n) {
    auto value = [&] { return nearby(pool[rng_() % n]); };
    switch (rng_() % 6) {
      case 0:
        return PortSpec();
      case 1: {
        PortSpec s(PortOper::portEq, {value()});
        if (chance(40)) s = PortSpec(PortOper::portEq, {value(), value(), value()});
        return s;
      }
      case 2:
        return chance(50) ? PortSpec(PortOper::portNeq, {value()})
                          : PortSpec(PortOper::portNeq, {value(), value()});
      case 3:
        return PortSpec(PortOper::portLt, {value()});
      case 4:
        return PortSpec(PortOper::portGt, {value()});
      default: {
        Zol::U16 a = value(), b = value();
        if (a > b && chance(90)) std::swap(a, b);
        return PortSpec(PortOper::portRange, {a, b});
      }
    }
  }

  Acl::IpRuleConfig rule(Zol::U32 id) {
    Acl::IpFilter f;
    f.protocolIs(chance(20) ? Acl::IpFilter::protocolAny : pick(kProtocols));
    f.sourceIs(prefix());
    f.destinationIs(prefix());
    bool const ports =
        f.protocol() == Acl::IpFilter::protocolTcp || f.protocol() == Acl::IpFilter::protocolUdp;
    if (ports && chance(70)) {
      f.srcPortIs(chance(50) ? PortSpec() : portSpec(kPorts, std::size(kPorts)));
      f.dstPortIs(portSpec(kPorts, std::size(kPorts)));
    }
    if (f.protocol() == Acl::IpFilter::protocolTcp) {
      if (chance(30)) f.establishedIs(true);
      if (chance(25)) f.tcpFlagsIs(Acl::TcpFlag(static_cast<Zol::U16>(rng_() % 0x20)));
    }
    if (f.protocol() == Acl::IpFilter::protocolIcmp && chance(60)) {
      f.icmpTypeIs(static_cast<Zol::U8>(rng_() % 3 == 0 ? 0 : 8));
      if (chance(40)) f.icmpCodeIs(static_cast<Zol::U8>(rng_() % 2));
    }
    if (chance(25)) f.ipLenIs(portSpec(kLens, std::size(kLens)));
    if (chance(30)) f.ecnIs(static_cast<Acl::EcnMatch>(rng_() % 5));
    if (chance(10)) {
      f.dscpMatchIs(true);
      f.dscpIs(static_cast<Zol::U8>(rng_() % 2 * 46));
    }
    if (!hasL4(f) && chance(10)) f.fragmentsIs(true);
    Acl::IpRuleConfig r;
    r.actionIs(chance(50) ? AclAction::permit : AclAction::deny);
    r.uniqueIdIs(Acl::UniqueId(id));
    r.filterIs(f);
    return r;
  }

  sim::Packet packet(Nepo::IntfId const& intf) {
    sim::Packet p;
    p.intf = intf;
    p.direction = Acl::AclDirection::in;
    p.isIp = true;
    p.etherType = 0x0800;
    p.srcIp = addr();
    p.dstIp = addr();
    p.protocol = pick(kProtocols);
    bool const ports = p.protocol != Acl::IpFilter::protocolIcmp;
    p.srcPort = ports ? nearby(pick(kPorts)) : 0;
    p.dstPort = ports ? nearby(pick(kPorts)) : 0;
    p.tcpFlags =
        p.protocol == Acl::IpFilter::protocolTcp ? static_cast<Zol::U16>(rng_() % 0x20) : 0;
    p.icmpType =
        p.protocol == Acl::IpFilter::protocolIcmp ? static_cast<Zol::U8>(rng_() % 2 * 8) : 0;
    p.icmpCode = p.protocol == Acl::IpFilter::protocolIcmp ? static_cast<Zol::U8>(rng_() % 2) : 0;
    p.ecn = static_cast<Zol::U8>(rng_() % 4);
    p.dscp = static_cast<Zol::U8>(rng_() % 2 * 46);
    p.ipLen = nearby(pick(kLens));
    p.ttl = 64;
    p.fragment = chance(15);
    if (p.fragment) p.srcPort = p.dstPort = p.tcpFlags = p.icmpType = p.icmpCode = 0;
    return p;
  }

  std::mt19937& rng() { return rng_; }

 private:
  std::mt19937 rng_;
};

std::string describe(sim::Packet const& p) {
  std::ostringstream os;
  os << p.srcIp << " > " << p.dstIp << " proto " << unsigned{p.protocol} << " ports " << p.srcPort
     << " > " << p.dstPort << " flags 0x" << std::hex << p.tcpFlags << std::dec << " icmp "
     << unsigned{p.icmpType} << "/" << unsigned{p.icmpCode} << " ecn " << unsigned{p.ecn}
     << " dscp " << unsigned{p.dscp} << " len " << p.ipLen << (p.fragment ? " fragment" : "");
  return os.str();
}

std::string describe(Acl::AclConfig const& acl) {
  std::ostringstream os;
  for (auto const& [seq, rule] : acl.ipRuleBySequenceAll())
    os << seq << ": " << rule.stringValue() << "\n";
  return os.str();
}

}  // namespace

TEST(AclTcamProperty, ClassifierAgreesWithFirstMatchOfTheConfiguredRules) {
  Nepo::IntfId const port = Nepo::IntfId::fromString("Ethernet1");
  size_t packets = 0, fallbacks = 0;
  for (uint32_t seed = 1; seed <= 60; ++seed) {
    Gen gen(seed);
    auto acl = Zol::make<Acl::AclConfig>("acl", "acl");
    size_t const rules = 1 + gen.rng()() % 12;
    for (Zol::U32 i = 0; i < rules; ++i) acl->ipRuleBySequenceIs(10 * (i + 1), gen.rule(i));
    std::vector<sim::Packet> traffic;
    for (int i = 0; i < 400; ++i) traffic.push_back(gen.packet(port));

    for (size_t checkers : {size_t{64}, size_t{0}, size_t{2}}) {
      SCOPED_TRACE("seed " + std::to_string(seed) + ", range checkers " + std::to_string(checkers) +
                   "\n" + describe(*acl));
      sim::Chip chip(sim::Chip::Config{1, 8});
      chip.capacityIs(sim::Table::acl, 1u << 20);
      chip.capacityIs(sim::Table::rangeChecker, checkers);
      auto helper = Zol::make<sim::AclHelper>("acl", chip);
      auto data = Zol::make<AclData>("data", AclKey("acl", Acl::AclType::ip, Acl::AclDirection::in,
                                                    false, AclVlanIdOrNone(), "default"));
      data->aclNumberIs(7);
      ASSERT_EQ(createAclRules(*helper, *data, *acl), AclCreateError::aclCreateErrorNone);
      chip.aclBind(port, Acl::AclDirection::in, 7);
      for (sim::Packet const& p : traffic) {
        AclAction const want = firstMatch(*acl, p);
        auto const got = chip.classify(p);
        ASSERT_EQ(got.action, want) << describe(p);
        ++packets;
      }
      if (checkers == 0) fallbacks += chip.aclRangeCheckersUsed(0) == 0;
    }
  }
  EXPECT_EQ(fallbacks, 60u);
  EXPECT_EQ(packets, 60u * 3 * 400);
}
