// End to end, from configured rules to the simulated TCAM: for random ACLs and random packets,
// the action the chip's classifier returns must be the one a first-match walk over the
// configured rules gives. Any fault in port specifications, ternary expansion, TCP flags and
// their masks, established sessions, ECN selectors, value/mask fallback or fragment permits shows
// as a difference. Each run holds an IPv4, an IPv6 and a MAC list on a port of each of two units,
// in one direction, installed three ways: with range checkers to spare, with none, and with a few.
#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "Sim/AclHelper.h"
#include "Sim/Chip.h"
#include "Vemo/AclRules.h"

using namespace Vemo;
using Acl::AclAction;
using Acl::AclType;
using Acl::PortOper;
using Acl::PortSpec;

namespace {

constexpr Zol::U16 ack = Acl::TcpFlag::ack, rst = Acl::TcpFlag::rst;
constexpr Zol::U8 tcp = Acl::IpFilter::protocolTcp, udp = Acl::IpFilter::protocolUdp;

// The values random rules and packets draw from: few enough that packets hit rule boundaries.
constexpr Zol::U16 kPorts[] = {0, 1, 21, 22, 23, 79, 80, 81, 443, 1023, 1024, 8080, 65534, 65535};
constexpr Zol::U16 kLens[] = {20, 40, 64, 576, 1500, 9000};
constexpr Zol::U8 kProtocols4[] = {tcp, udp, Acl::IpFilter::protocolIcmp};
constexpr Zol::U8 kProtocols6[] = {tcp, udp, Acl::IpFilter::protocolIcmp6};
constexpr Zol::U8 kIcmpTypes4[] = {0, 8};
// Echo request, neighbour solicitation (let through ahead of the final deny when asked) and
// redirect.
constexpr Zol::U8 kIcmpTypes6[] = {128, 135, 137};
constexpr Zol::U16 kEtherTypes[] = {0x0806, 0x88cc, 0x8809};
constexpr Zol::U16 kVlans[] = {0, 10, 11};

// ---- the reference: what the configured rules mean -------------------------------------------

bool portsMatch(PortSpec const& ports, Zol::U16 v) {
  if (ports.oper() == PortOper::portAny) return true;
  auto const ranges = ports.ranges();
  return ranges && ranges->contains(v);
}

// The codepoints (0 Not-ECT, 1 and 2 ECT, 3 CE) each selector takes, in the selectors' order:
// any, ECT or CE, Not-ECT, CE, ECT.
bool ecnMatches(Acl::EcnMatch sel, Zol::U8 ecn) {
  constexpr unsigned kCodepoints[] = {0b1111, 0b1110, 0b0001, 0b1000, 0b0110};
  return (kCodepoints[static_cast<size_t>(sel)] >> ecn) & 1;
}

bool prefixMatches(Nepo::IpPrefix const& p, Nepo::IpAddr const& a) {
  return p.length() == 0 || p.contains(a);
}

bool hasL4(Acl::IpFilter const& f) {
  bool const established = f.established() && f.protocol() == tcp;
  return f.srcPort().oper() != PortOper::portAny || f.dstPort().oper() != PortOper::portAny ||
         f.icmp() != Acl::IpFilter::icmpAny || f.tcpFlags().value() != 0 ||
         f.tcpFlagsMask().value() != 0 || established;
}

// The rule's flags set and the rest of its mask clear. Established sessions add ACK or RST, set
// whatever the mask says of them: either one; with ACK asked for already, RST beside it.
bool flagsMatch(Acl::IpFilter const& f, Zol::U16 flags) {
  Zol::U16 const own = f.tcpFlags().value();
  Zol::U16 const care = own | f.tcpFlagsMask().value();
  auto const with = [&](Zol::U16 added) { return ((flags ^ (own | added)) & (care | added)) == 0; };
  if (f.established() && f.protocol() == tcp) {
    if (own & ack) return with(rst);
    return with(ack) || (!(own & rst) && with(rst));
  }
  return with(0);
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

bool ipRuleMatches(Acl::IpRuleConfig const& rule, sim::Packet const& p) {
  Acl::IpFilter const& f = rule.filter();
  if (!p.fragment) return !f.fragments() && l3Matches(f, p) && l4Matches(f, p);
  // A non-initial fragment has no L4 header: rules on L4 fields pass it over, but a permit among
  // them lets it through on its addresses and ECN alone.
  if (f.fragments() || !hasL4(f)) return l3Matches(f, p);
  return rule.action() == AclAction::permit && prefixMatches(f.source(), p.srcIp) &&
         prefixMatches(f.destination(), p.dstIp) && ecnMatches(f.ecn(), p.ecn) &&
         f.srcPort().ranges() && f.dstPort().ranges() && f.ipLen().ranges();
}

bool macRuleMatches(Acl::MacFilter const& f, sim::Packet const& p) {
  auto const hit = [](Nepo::EthAddrWithMask const& want, Nepo::EthAddr a) {
    return ((a.value() ^ want.addr().value()) & want.mask().value()) == 0;
  };
  return hit(f.source(), p.srcMac) && hit(f.destination(), p.dstMac) &&
         (f.etherType() == 0 || f.etherType() == p.etherType) &&
         ((p.vlan ^ f.vlanId()) & f.vlanMask()) == 0;
}

// icmp6Nd: the IPv6 list lets neighbour discovery through ahead of its final deny.
AclAction firstMatch(Acl::AclConfig const& acl, sim::Packet const& p, bool icmp6Nd) {
  if (!p.isIp) {
    for (auto const& [seq, rule] : acl.macRuleBySequenceAll()) {
      if (macRuleMatches(rule.filter(), p)) return rule.action();
    }
    return AclAction::deny;
  }
  for (auto const& [seq, rule] : acl.ipRuleBySequenceAll()) {
    if (ipRuleMatches(rule, p)) return rule.action();
  }
  bool const nd = p.srcIp.isV6() && p.protocol == Acl::IpFilter::protocolIcmp6 && !p.fragment &&
                  p.icmpType >= 133 && p.icmpType <= 136;
  return icmp6Nd && nd ? AclAction::permit : AclAction::deny;
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
  // Each of the nine TCP flags, NS included, with the given chance.
  Zol::U16 flags(int percent) {
    Zol::U16 out = 0;
    for (unsigned bit = 0; bit < 9; ++bit) {
      if (chance(percent)) out = static_cast<Zol::U16>(out | 1u << bit);
    }
    return out;
  }

  Nepo::IpAddr addr(bool v6) {
    std::string const a = std::to_string(rng_() % 2), b = std::to_string(rng_() % 3),
                      c = std::to_string(rng_() % 4);
    return Nepo::IpAddr::fromString(v6 ? "2001:db8:" + a + ":" + b + "::" + c
                                       : "10." + a + "." + b + "." + c);
  }
  Nepo::IpPrefix prefix(bool v6) {
    static constexpr unsigned lengths4[] = {0, 0, 8, 16, 24, 32};
    static constexpr unsigned lengths6[] = {0, 0, 32, 48, 64, 128};
    return Nepo::IpPrefix(addr(v6), v6 ? pick(lengths6) : pick(lengths4));
  }
  Nepo::EthAddr mac() {
    return Nepo::EthAddr(chance(50) ? 2 : 4, 0, 0, 0, 0, static_cast<uint8_t>(rng_() % 3));
  }

  PortSpec portSpec(Zol::U16 const* pool, size_t n) {
    auto value = [&] { return nearby(pool[rng_() % n]); };
    auto const oper = static_cast<PortOper>(rng_() % 6);  // any, eq, neq, lt, gt, range
    if (oper == PortOper::portAny) return PortSpec();
    if (oper == PortOper::portLt || oper == PortOper::portGt) return PortSpec(oper, {value()});
    Zol::U16 a = value(), b = value();
    if (oper == PortOper::portRange) {
      if (a > b && chance(90)) std::swap(a, b);  // now and then one that matches nothing
      return PortSpec(oper, {a, b});
    }
    // One value or a few; equal ones among them now and then.
    return chance(50) ? PortSpec(oper, {a}) : PortSpec(oper, {a, b, value()});
  }

  Acl::IpRuleConfig ipRule(Zol::U32 id, bool v6) {
    Acl::IpFilter f;
    f.protocolIs(chance(20) ? Acl::IpFilter::protocolAny
                 : v6       ? pick(kProtocols6)
                            : pick(kProtocols4));
    f.sourceIs(prefix(v6));
    f.destinationIs(prefix(v6));
    if ((f.protocol() == tcp || f.protocol() == udp) && chance(70)) {
      f.srcPortIs(chance(50) ? PortSpec() : portSpec(kPorts, std::size(kPorts)));
      f.dstPortIs(portSpec(kPorts, std::size(kPorts)));
    }
    if (f.protocol() == tcp) {
      if (chance(30)) f.establishedIs(true);
      if (chance(35)) f.tcpFlagsIs(Acl::TcpFlag(flags(20)));
      if (chance(35)) f.tcpFlagsMaskIs(Acl::TcpFlag(flags(25)));
    }
    if (f.protocol() != Acl::IpFilter::protocolAny && f.protocol() != tcp && f.protocol() != udp &&
        chance(60)) {
      f.icmpTypeIs(v6 ? pick(kIcmpTypes6) : pick(kIcmpTypes4));
      if (chance(40)) f.icmpCodeIs(static_cast<Zol::U8>(rng_() % 2));
    }
    if (chance(25)) f.ipLenIs(portSpec(kLens, std::size(kLens)));
    if (chance(30)) f.ecnIs(static_cast<Acl::EcnMatch>(rng_() % 5));
    if (chance(10)) {
      f.dscpMatchIs(true);
      f.dscpIs(static_cast<Zol::U8>(rng_() % 2 * 46));
    }
    if (!hasL4(f) && chance(10)) f.fragmentsIs(true);
    return Acl::IpRuleConfig(chance(50) ? AclAction::permit : AclAction::deny, false,
                             Acl::UniqueId(id), f);
  }

  Acl::MacRuleConfig macRule(Zol::U32 id) {
    auto const addr = [&] {
      static constexpr uint8_t masks[] = {0x00, 0xff};
      uint8_t const m = pick(masks);
      return Nepo::EthAddrWithMask(mac(), Nepo::EthAddr(m, m, m, m, m, chance(50) ? m : 0));
    };
    Acl::MacFilter f;
    f.sourceIs(addr());
    f.destinationIs(addr());
    if (chance(50)) f.etherTypeIs(pick(kEtherTypes));
    if (chance(40)) {
      f.vlanIdIs(pick(kVlans));
      f.vlanMaskIs(chance(50) ? 0xfff : 0xffe);
    }
    return Acl::MacRuleConfig(chance(50) ? AclAction::permit : AclAction::deny, false,
                              Acl::UniqueId(id), f);
  }

  sim::Packet packet(Nepo::IntfId const& intf, Acl::AclDirection dir) {
    sim::Packet p;
    p.intf = intf;
    p.direction = dir;
    p.vlan = pick(kVlans);
    p.srcMac = mac();
    p.dstMac = mac();
    int const kind = int(rng_() % 100);
    if (kind >= 75) {
      p.etherType = pick(kEtherTypes);
      return p;
    }
    bool const v6 = kind >= 40;
    p.isIp = true;
    p.srcIp = addr(v6);
    p.dstIp = addr(v6);
    p.protocol = v6 ? pick(kProtocols6) : pick(kProtocols4);
    if (p.protocol == tcp || p.protocol == udp) {
      p.srcPort = nearby(pick(kPorts));
      p.dstPort = nearby(pick(kPorts));
    } else {
      p.icmpType = v6 ? pick(kIcmpTypes6) : pick(kIcmpTypes4);
      p.icmpCode = static_cast<Zol::U8>(rng_() % 2);
    }
    if (p.protocol == tcp) p.tcpFlags = static_cast<Zol::U16>(rng_() % 0x200);
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
  os << p.intf.stringValue() << (p.direction == Acl::AclDirection::in ? " in " : " out ");
  if (!p.isIp) {
    os << p.srcMac.value() << " > " << p.dstMac.value() << " type 0x" << std::hex << p.etherType
       << std::dec << " vlan " << p.vlan;
    return os.str();
  }
  os << p.srcIp << " > " << p.dstIp << " proto " << unsigned{p.protocol} << " ports " << p.srcPort
     << " > " << p.dstPort << " flags 0x" << std::hex << p.tcpFlags << std::dec << " icmp "
     << unsigned{p.icmpType} << "/" << unsigned{p.icmpCode} << " ecn " << unsigned{p.ecn}
     << " dscp " << unsigned{p.dscp} << " len " << p.ipLen << (p.fragment ? " fragment" : "");
  return os.str();
}

// An IPv4, an IPv6 and a MAC list, numbered 1 to 3 on the chip.
constexpr AclType kTypes[] = {AclType::ip, AclType::ipv6, AclType::mac};

struct Lists {
  std::array<Zol::Ptr<Acl::AclConfig>, 3> acl;

  explicit Lists(Gen& gen) {
    for (size_t t = 0; t < 3; ++t) {
      acl[t] = Zol::make<Acl::AclConfig>("acl", "acl");
      size_t const rules = 1 + gen.rng()() % 10;
      for (Zol::U32 i = 0; i < rules; ++i) {
        if (kTypes[t] == AclType::mac) {
          acl[t]->macRuleBySequenceIs(10 * (i + 1), gen.macRule(i));
        } else {
          acl[t]->ipRuleBySequenceIs(10 * (i + 1), gen.ipRule(i, kTypes[t] == AclType::ipv6));
        }
      }
    }
  }
  Acl::AclConfig const& of(sim::Packet const& p) const {
    return *acl[!p.isIp ? 2 : p.srcIp.isV6() ? 1 : 0];
  }
  std::string text() const {
    std::ostringstream os;
    for (auto const& a : acl) {
      for (auto const& [seq, r] : a->ipRuleBySequenceAll())
        os << seq << ": " << r.stringValue() << "\n";
      for (auto const& [seq, r] : a->macRuleBySequenceAll())
        os << seq << ": " << r.stringValue() << "\n";
    }
    return os.str();
  }
};

// Installs every list through the rule-creation path on every unit and applies it to ports.
void install(sim::AclHelper& helper, sim::Chip& chip, Lists const& lists, Acl::AclDirection dir,
             std::vector<Nepo::IntfId> const& ports) {
  for (size_t t = 0; t < 3; ++t) {
    auto data = Zol::make<AclData>(
        "data", AclKey("acl", kTypes[t], dir, false, AclVlanIdOrNone(), "default"));
    auto const aclNumber = static_cast<Zol::U32>(t + 1);
    data->aclNumberIs(aclNumber);
    ASSERT_EQ(createAclRules(helper, *data, *lists.acl[t]), AclCreateError::aclCreateErrorNone);
    for (Nepo::IntfId const& port : ports) {
      ASSERT_EQ(chip.acls().bind(port, dir, aclNumber, kTypes[t]), sim::Status::ok);
    }
  }
}

}  // namespace

TEST(AclTcamProperty, ClassifierAgreesWithFirstMatchOfTheConfiguredRules) {
  Zol::ActivityLoop loop(Zol::ActivityLoop::TimeMode::simulated);
  // Ethernet1 sits on unit 0, Ethernet6 on unit 1.
  std::vector<Nepo::IntfId> const ports = {Nepo::IntfId::fromString("Ethernet1"),
                                           Nepo::IntfId::fromString("Ethernet6")};
  constexpr uint32_t seeds = 120;
  size_t packets = 0, permits = 0, fallbacks = 0;
  for (uint32_t seed = 1; seed <= seeds; ++seed) {
    Gen gen(seed);
    Lists const lists(gen);
    auto const dir = seed % 2 ? Acl::AclDirection::in : Acl::AclDirection::out;
    bool const established = seed % 3 == 0;
    bool const icmp6Nd = seed % 4 == 0;
    std::vector<sim::Packet> traffic;
    for (int i = 0; i < 400; ++i) traffic.push_back(gen.packet(ports[i % 2], dir));

    for (size_t checkers : {size_t{64}, size_t{0}, size_t{2}}) {
      SCOPED_TRACE("seed " + std::to_string(seed) + ", range checkers " + std::to_string(checkers) +
                   "\n" + lists.text());
      sim::Chip chip(sim::Chip::Config{2, 4});
      chip.capacityIs(sim::Table::acl, 1u << 20);
      chip.capacityIs(sim::Table::rangeChecker, checkers);
      auto helper = Zol::make<sim::AclHelper>("acl", chip, loop);
      helper->establishedSupportedIs(established);
      helper->installImplicitIcmp6RulesIs(icmp6Nd);
      install(*helper, chip, lists, dir, ports);
      if (HasFatalFailure()) return;
      for (sim::Packet const& p : traffic) {
        AclAction const want = firstMatch(lists.of(p), p, icmp6Nd);
        ASSERT_EQ(chip.classify(p).action, want) << describe(p);
        permits += want == AclAction::permit;
        ++packets;
      }
      if (checkers == 0) fallbacks += !chip.errors().empty();
    }
  }
  EXPECT_EQ(packets, seeds * 3 * 400);
  // Both answers are common, and most lists needed value/mask entries without checkers.
  EXPECT_GT(permits, packets / 10);
  EXPECT_LT(permits, packets * 9 / 10);
  EXPECT_GT(fallbacks, seeds / 2);
}

// Every one of the 512 flag combinations of a rule, under no mask, its own flags as mask
// ("syn/syn"), a full mask and a partial one, plain and established, with and without the
// hardware's own established match, against every combination a packet can carry.
TEST(AclTcamProperty, TcpFlagsMasksAndEstablishedOverEveryFlagCombination) {
  Zol::ActivityLoop loop(Zol::ActivityLoop::TimeMode::simulated);
  Nepo::IntfId const port = Nepo::IntfId::fromString("Ethernet1");
  sim::Packet p;
  p.intf = port;
  p.isIp = true;
  p.srcIp = Nepo::IpAddr::fromString("10.0.0.1");
  p.dstIp = Nepo::IpAddr::fromString("10.0.0.2");
  p.protocol = tcp;
  for (bool native : {false, true}) {
    sim::Chip chip(sim::Chip::Config{1, 4});
    auto helper = Zol::make<sim::AclHelper>("acl", chip, loop);
    helper->establishedSupportedIs(native);
    auto data = Zol::make<AclData>("data", AclKey("acl", AclType::ip, Acl::AclDirection::in, false,
                                                  AclVlanIdOrNone(), "default"));
    data->aclNumberIs(1);
    ASSERT_EQ(chip.acls().bind(port, Acl::AclDirection::in, 1), sim::Status::ok);
    auto acl = Zol::make<Acl::AclConfig>("acl", "acl");
    for (Zol::U16 own = 0; own < 0x200; ++own) {
      for (Zol::U16 mask :
           {Zol::U16{0}, own, Zol::U16{0x1ff}, static_cast<Zol::U16>(own ^ 0x155)}) {
        for (bool established : {false, true}) {
          Acl::IpFilter f;
          f.protocolIs(tcp);
          f.tcpFlagsIs(Acl::TcpFlag(own));
          f.tcpFlagsMaskIs(Acl::TcpFlag(mask));
          f.establishedIs(established);
          acl->ipRuleBySequenceIs(10, Acl::IpRuleConfig(AclAction::permit, false, {}, f));
          helper->deleteAcl(1);
          ASSERT_EQ(createAclRules(*helper, *data, *acl), AclCreateError::aclCreateErrorNone);
          for (Zol::U16 flags = 0; flags < 0x200; ++flags) {
            p.tcpFlags = flags;
            ASSERT_EQ(chip.classify(p).action,
                      flagsMatch(f, flags) ? AclAction::permit : AclAction::deny)
                << "native " << native << " rule " << f.stringValue() << " packet flags 0x"
                << std::hex << flags;
          }
        }
      }
    }
  }
}
