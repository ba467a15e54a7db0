// Matching against the configured rules, range-checker fallback included, is the ACL property
// test's; these are the helper's own answers, refusals, bookkeeping and counters.
#include "Sim/AclHelper.h"
#include "SimTestSupport.h"

namespace {

using namespace simtest;
using Acl::AclAction;
using Acl::AclType;
using Acl::PortOper;
using Acl::PortSpec;
using Err = Vemo::AclCreateError;
using sim::Packet;

constexpr auto in = Acl::AclDirection::in;
constexpr auto permit = AclAction::permit;
constexpr auto deny = AclAction::deny;
constexpr Err ok = Err::aclCreateErrorNone;

// What one subrule is given for a 16-bit field: a range, value and mask 0.
struct Field {
  uint16_t low = 0, high = 0;
};

// ranged: the fields (1 source port, 2 destination port, 4 IP length) the filter matches.
Acl::IpRuleConfig ipRule(AclAction action, uint8_t protocol, unsigned ranged = 0,
                         std::string_view dst = "0.0.0.0/0") {
  Acl::IpFilter f;
  f.protocolIs(protocol);
  f.destinationIs(Nepo::IpPrefix::fromString(dst));
  PortSpec const ports(PortOper::portRange, {0, 1});
  if (ranged & 1) f.srcPortIs(ports);
  if (ranged & 2) f.dstPortIs(ports);
  if (ranged & 4) f.ipLenIs(ports);
  return Acl::IpRuleConfig(action, false, Acl::UniqueId(1), f);
}

Packet packet(uint8_t protocol, uint16_t dstPort, std::string_view src = "10.1.1.1") {
  Packet p;
  p.intf = intf("Ethernet4");
  p.isIp = true;
  p.srcIp = Nepo::IpAddr::fromString(src);
  p.dstIp = Nepo::IpAddr::fromString(p.srcIp.isV6() ? "2001:db8::2" : "10.2.2.2");
  p.protocol = protocol;
  p.dstPort = dstPort;
  return p;
}

struct Bench {
  explicit Bench(AclType type = AclType::ip, uint32_t aclNumber = 3)
      : data(Zol::make<Vemo::AclData>("data", Vemo::AclKey("acl", type, in, false, {}, ""))) {
    data->aclNumberIs(aclNumber);
    EXPECT_EQ(chip.acls().bind(intf("Ethernet4"), in, aclNumber, type), Status::ok);
  }
  Err subrule(Acl::IpRuleConfig const& r, uint32_t rule, uint32_t sub, Field s, Field d,
              Field l = {}, uint8_t flags = 0, uint8_t ecn = 0, uint8_t ecnMask = 0) {
    return helper->createIpAclSubrule(data->key().type(), r, r.uniqueId(), *data, rule, sub, 0, 0,
                                      0, 0, s.low, s.high, d.low, d.high, 0, 0, l.low, l.high,
                                      flags, true, ecn, ecnMask);
  }
  // The deciding entry as "rule.subrule".
  std::string decide(Packet const& p, AclAction want) {
    sim::ClassifyResult const r = chip.classify(p);
    EXPECT_EQ(r.action, want);
    if (!r.entry) return "none";
    return std::to_string(r.entry->aclRule) + "." + std::to_string(r.entry->subRuleNum);
  }
  size_t checkers() const {
    return chip.acls().rangeCheckersUsed(0) + chip.acls().rangeCheckersUsed(1);
  }

  Zol::ActivityLoop loop{Zol::ActivityLoop::TimeMode::simulated};
  sim::Chip chip{sim::Chip::Config{2, 2}};
  Zol::Ptr<sim::AclHelper> helper = Zol::make<sim::AclHelper>("aclHelper", chip, loop);
  Zol::Ptr<Vemo::AclData> data;
};

TEST(SimAclHelper, SubrulesProgramEveryUnitAndMatchTheirRule) {
  Bench b;
  auto& h = *b.helper;
  h.hwInit();
  EXPECT_TRUE(h.intfSupportsAcl(intf("Ethernet4")) && h.intfSupportsAcl(intf("Port-Channel2")) &&
              h.intfSupportsAcl(intf("Vlan10")));
  EXPECT_FALSE(h.intfSupportsAcl(intf("Ethernet5")));

  // Rule 0 needs a checker, rule 1's range is one value/mask; the source port is left open.
  ASSERT_EQ(b.subrule(ipRule(permit, 6, 2), 0, 0, {}, {1000, 2000}, {}, Acl::TcpFlag::syn), ok);
  ASSERT_EQ(b.subrule(ipRule(deny, 6, 2, "10.2.0.0/16"), 1, 0, {}, {1024, 2047}), ok);
  ASSERT_EQ(h.createFinalAclRule(AclType::ip, *b.data, 2), ok);
  EXPECT_EQ(b.chip.acls().tcam(0, in).size(), 3u);
  EXPECT_EQ(b.chip.acls().rangeCheckersUsed(1), 1u);
  EXPECT_TRUE(h.ipSubruleExists(*b.data, 1, 0));
  EXPECT_FALSE(h.ipSubruleExists(*b.data, 1, 1));

  Packet p = packet(6, 2000);
  p.tcpFlags = Acl::TcpFlag::syn | Acl::TcpFlag::psh;
  EXPECT_EQ(b.decide(p, permit), "0.0");
  p.dstPort = 2001;
  EXPECT_EQ(b.decide(p, deny), "1.0");

  h.deleteAcl(3);
  EXPECT_EQ(b.chip.size(Table::acl), 0u);
  EXPECT_EQ(b.checkers(), 0u);
  EXPECT_FALSE(h.ipSubruleExists(*b.data, 1, 0));
  EXPECT_THAT(h.log(), ElementsAre("hwInit", "createIpAclSubrule 3 0.0: aclCreateErrorNone",
                                   "createIpAclSubrule 3 1.0: aclCreateErrorNone",
                                   "createFinalAclRule 3 2: aclCreateErrorNone", "deleteAcl 3"));
}

TEST(SimAclHelper, CheckerExhaustionNamesExactlyTheFieldsThatRanOut) {
  struct Case {
    size_t pool;
    unsigned fields;  // 1 source port, 2 destination port, 4 IP length
    Err want;
  };
  for (Case const& c :
       std::initializer_list<Case>{{0, 1, Err::aclCreateErrorSrcPortRangeChecker},
                                   {0, 2, Err::aclCreateErrorDstPortRangeChecker},
                                   {0, 4, Err::aclCreateErrorIpLenRangeChecker},
                                   {0, 3, Err::aclCreateErrorRangeChecker},
                                   {0, 5, Err::aclCreateErrorIpLenAndSrcPortRangeChecker},
                                   {0, 6, Err::aclCreateErrorIpLenAndDstPortRangeChecker},
                                   {0, 7, Err::aclCreateErrorIpLenSrcAndDstRangeChecker},
                                   {1, 7, Err::aclCreateErrorIpLenAndDstPortRangeChecker},
                                   {2, 7, Err::aclCreateErrorIpLenRangeChecker},
                                   {3, 7, ok}}) {
    Bench b;
    b.chip.capacityIs(Table::rangeChecker, c.pool);
    // 1..2 takes two value/mask entries, so it needs a checker; 0..1023 is one entry.
    auto field = [&](unsigned bit) { return c.fields & bit ? Field{1, 2} : Field{0, 1023}; };
    EXPECT_EQ(b.subrule(ipRule(permit, 17, 7), 0, 0, field(1), field(2), field(4)), c.want)
        << c.pool << " " << c.fields;
    EXPECT_EQ(b.checkers(), c.want == ok ? 6u : 0u);
    EXPECT_EQ(b.chip.size(Table::acl), c.want == ok ? 2u : 0u);
  }

  // A range already in the pool is shared, so only the new one runs out.
  Bench b;
  b.chip.capacityIs(Table::rangeChecker, 1);
  ASSERT_EQ(b.subrule(ipRule(permit, 17, 3), 0, 0, {1, 2}, {0, 7}), ok);
  EXPECT_EQ(b.subrule(ipRule(permit, 17, 3), 0, 1, {1, 2}, {1, 2}),
            Err::aclCreateErrorDstPortRangeChecker);
  EXPECT_EQ(b.chip.acls().rangeCheckerUsers(1, sim::RangeField::srcPort, {1, 2}), 1u);
}

TEST(SimAclHelper, RefusalsLeaveNoUnitProgrammed) {
  Bench b;
  Acl::IpRuleConfig rule = ipRule(permit, 17, 2);
  // Unit 1's TCAM is full: unit 0's entry and checker are given back.
  b.chip.capacityIs(Table::acl, 1);
  ASSERT_EQ(b.chip.acls().entryAdd(1, in, sim::AclEntry{}), Status::ok);
  EXPECT_EQ(b.subrule(rule, 0, 0, {}, {1, 2}), Err::aclCreateErrorTcamExhaustion);
  EXPECT_EQ(b.checkers(), 0u);
  EXPECT_TRUE(b.chip.acls().tcam(0, in).empty());
  b.chip.capacityIs(Table::acl, 8);
  b.chip.acls().unitErrorIs(1, Err::aclCreateErrorTooManyAcls);
  EXPECT_EQ(b.helper->createFinalAclRule(AclType::ip, *b.data, 0), Err::aclCreateErrorTooManyAcls);
  EXPECT_TRUE(b.chip.acls().tcam(0, in).empty());
  b.chip.acls().unitErrorIs(1, ok);

  for (auto [fault, want] : {std::pair{Status::full, Err::aclCreateErrorTcamExhaustion},
                             std::pair{Status::failed, Err::aclCreateErrorUnsupportedRule},
                             std::pair{Status::busy, Err::aclCreateErrorInsufficientResource}}) {
    b.chip.faultIs(Table::acl, fault, 1);
    EXPECT_EQ(b.subrule(rule, 0, 0, {}, {1, 2}), want);
  }
  // Tunnel identifiers are refused before the chip is asked.
  Acl::IpFilter f = rule.filter();
  f.vniIs(5);
  rule.filterIs(f);
  b.chip.faultIs(Table::acl, Status::busy, 1);
  EXPECT_EQ(b.subrule(rule, 0, 0, {}, {1, 2}), Err::aclCreateErrorUnsupportedRule);
  EXPECT_EQ(b.chip.faultPending(Table::acl), 1u);
  EXPECT_EQ(b.chip.size(Table::acl), 1u);
}

TEST(SimAclHelper, FragmentPermitsFinalRulesAndMacRules) {
  Bench b(AclType::ipv6, 5);
  b.helper->installImplicitIcmp6RulesIs(true);
  Acl::IpRuleConfig ssh = ipRule(permit, 6, 2, "2001:db8::/32");
  Acl::IpFilter f = ssh.filter();
  f.ecnIs(Acl::EcnMatch::ecnEctOrCe);
  ssh.filterIs(f);
  ASSERT_EQ(b.subrule(ssh, 0, 0, {}, {22, 22}, {}, 0, 1, 3), ok);
  ASSERT_EQ(b.subrule(ssh, 0, 1, {}, {22, 22}, {}, 0, 2, 2), ok);
  ASSERT_EQ(b.helper->createIpFragRule(*b.data, ssh, ssh.uniqueId(), 0, 2), ok);
  ASSERT_EQ(b.helper->createFinalAclRule(AclType::ipv6, *b.data, 1), ok);
  Packet p = packet(6, 22, "2001:db8::1");
  p.ecn = 2;
  EXPECT_EQ(b.decide(p, permit), "0.1");
  p.fragment = true;
  EXPECT_EQ(b.decide(p, permit), "0.3");
  p.ecn = 0;
  EXPECT_EQ(b.decide(p, deny), "1.4");

  Bench m(AclType::mac, 7);
  Acl::MacFilter mf;
  mf.sourceIs(Nepo::EthAddrWithMask::fromString("02:00:00:00:00:00/ff:00:00:00:00:00"));
  mf.destinationIs(Nepo::EthAddrWithMask(Nepo::EthAddr(), Nepo::EthAddr()));
  mf.etherTypeIs(0x0806);
  mf.vlanIdIs(10);
  mf.vlanMaskIs(0xffe);
  Acl::MacRuleConfig rule(permit, false, Acl::UniqueId(1), mf);
  ASSERT_EQ(m.helper->createMacAclRule(rule, rule.uniqueId(), *m.data, 0), ok);
  ASSERT_EQ(m.helper->createFinalAclRule(AclType::mac, *m.data, 1), ok);
  Packet arp;
  arp.intf = intf("Ethernet4");
  arp.etherType = 0x0806;
  arp.srcMac = Nepo::EthAddr(2, 9, 9, 9, 9, 9);
  arp.vlan = 11;
  EXPECT_EQ(m.decide(arp, permit), "0.0");
  EXPECT_TRUE(m.helper->macRuleExists(*m.data, 1));
  EXPECT_FALSE(m.helper->macRuleExists(*m.data, 2));
  mf.mplsLabelMatchIs(true);
  rule.filterIs(mf);
  EXPECT_EQ(m.helper->createMacAclRule(rule, rule.uniqueId(), *m.data, 0),
            Err::aclCreateErrorUnsupportedRule);
}

TEST(SimAclHelper, InstallSurfacesUnitErrorsAndDestroyLeavesNothingBound) {
  Bench b;
  auto& h = *b.helper;
  auto const bound = [&](std::string_view name, Acl::AclDirection dir = in) {
    return b.chip.acls().binding(intf(name), dir).value_or(0);
  };
  b.chip.acls().unitErrorIs(1, Err::aclCreateErrorTooManyAcls);
  EXPECT_EQ(h.prepareToCommit(*b.data), Err::aclCreateErrorTooManyAcls);
  EXPECT_TRUE(h.unitError("unit1") == Err::aclCreateErrorTooManyAcls &&
              h.publishUnitError("unit1") && !h.unitErrorHas("unit0"));
  EXPECT_EQ(h.batchCommitAcls(), ok);
  EXPECT_FALSE(h.aclCountersAllocated(*b.data));
  b.chip.acls().unitErrorIs(1, ok);
  EXPECT_EQ(h.prepareToCommit(*b.data), ok);
  EXPECT_EQ(h.unitErrorSize() + h.publishUnitErrorSize(), 0u);
  EXPECT_EQ(h.batchCommitAcls(), ok);
  EXPECT_TRUE(h.aclCountersAllocated(*b.data));
  EXPECT_EQ(h.intfLinecardName(intf("Ethernet3")), "unit1");

  b.chip.faultIs(Table::acl, Status::full, 1);
  EXPECT_EQ(h.addIntfToAcl(intf("Ethernet1"), *b.data), Err::aclCreateErrorTcamExhaustion);
  for (auto port : {"Ethernet1", "Ethernet2", "Vlan10"})
    ASSERT_EQ(h.addIntfToAcl(intf(port), *b.data), ok);
  // The replacing instance's bind takes the port over; a port it already took is left to it.
  h.removeIntfFromAcl(intf("Ethernet1"), *b.data, true);
  EXPECT_EQ(bound("Ethernet1"), 3u);
  ASSERT_EQ(b.chip.acls().bind(intf("Ethernet1"), in, 9), Status::ok);
  h.removeIntfFromAcl(intf("Ethernet1"), *b.data, false);
  h.removeIntfFromAcl(intf("Ethernet2"), *b.data, false);
  EXPECT_EQ(bound("Ethernet1") + bound("Ethernet2"), 9u);
  ASSERT_EQ(b.chip.acls().bind(intf("Ethernet2"), Acl::AclDirection::out, 3), Status::ok);
  h.destroyAcl(*b.data);
  EXPECT_EQ(bound("Ethernet4") + bound("Vlan10"), 0u);
  EXPECT_EQ(bound("Ethernet1") + bound("Ethernet2", Acl::AclDirection::out), 12u);
  EXPECT_FALSE(h.aclCountersAllocated(*b.data));
}

TEST(SimAclHelper, CountersSinceLastPollSumUnitsAndSubrulesAndRestartWithTheEntries) {
  Bench b;
  auto& h = *b.helper;
  Acl::IpRuleConfig const tcp = ipRule(permit, 6);
  auto const create = [&] {
    for (uint8_t ecn : {1, 2}) ASSERT_EQ(b.subrule(tcp, 0, ecn, {}, {}, {}, 0, ecn, ecn), ok);
  };
  auto const send = [&](std::string_view port, uint8_t ecn) {
    Packet p = packet(6, 80);
    p.intf = intf(port);
    p.ecn = ecn;
    b.chip.classify(p);
  };
  auto const poll = [&] { return h.aclRuleCountersSinceLastPoll(*b.data, 0, tcp.uniqueId()); };
  create();
  ASSERT_EQ(b.chip.acls().bind(intf("Ethernet1"), in, 3), Status::ok);
  for (auto port : {"Ethernet1", "Ethernet4"}) {
    for (uint8_t ecn : {1, 2}) send(port, ecn);
  }
  EXPECT_EQ(poll(), 4u);
  EXPECT_EQ(poll(), 0u);
  // Entries written again count from zero, whether or not the instance was removed first.
  create();
  send("Ethernet4", 1);
  EXPECT_EQ(poll(), 1u);
  h.removeAcl(*b.data);
  EXPECT_FALSE(h.ipSubruleExists(*b.data, 0, 1));
  EXPECT_EQ(b.chip.acls().binding(intf("Ethernet1"), in), 3u);
  create();
  for (int i = 0; i < 3; ++i) send("Ethernet4", 1);
  EXPECT_EQ(poll(), 3u);
}

// The answers the helper publishes, in the order the SM sees them.
struct AnswerWatcher : VemoHelper::AclHelper::NotifieeConst {
  std::vector<std::string> seen;
  void onAclHelperCallbackData(Vemo::AclKey const& key) override {
    seen.emplace_back(Zol::enumName(notifier()->aclHelperCallbackData(key).status()));
  }
  void onAclIntfBlockedStatus(Nepo::IntfId const& i) override {
    seen.push_back(i.stringValue() + (notifier()->aclIntfBlockedStatus(i) ? " on" : " off"));
  }
};

TEST(SimAclHelper, AsyncAnswersComeAfterTheDelayInCallOrderEvenWhenRepeated) {
  Bench b;
  auto& h = *b.helper;
  AnswerWatcher w;
  w.notifierIs(b.helper);
  h.asyncAclConfigIs(true);
  b.chip.acls().unitErrorIs(0, Err::aclCreateErrorTcamExhaustion);
  h.blockIntf(intf("Ethernet4"), true, 3);
  h.prepareToCommit(*b.data);
  EXPECT_TRUE(b.chip.acls().blocked(intf("Ethernet4")));  // the chip work is done at once
  b.loop.advanceBy(0.0005);
  EXPECT_THAT(w.seen, IsEmpty());
  b.loop.advanceBy(0.0005);
  EXPECT_THAT(w.seen, ElementsAre("Ethernet4 on", "aclCreateErrorTcamExhaustion"));

  // Repeated answers are seen too, and none overtakes an earlier one.
  b.chip.acls().unitErrorIs(0, ok);
  h.removeAcl(*b.data);
  b.loop.advanceBy(0.001);
  h.asyncDelayIs(0.5);
  h.prepareToCommit(*b.data);
  h.asyncDelayIs(0.1);
  h.blockIntf(intf("Ethernet4"), true, 4);
  b.loop.advanceBy(0.4);
  EXPECT_EQ(w.seen.size(), 3u);
  b.loop.advanceBy(0.2);
  EXPECT_THAT(w.seen, ElementsAre(testing::_, testing::_, "aclCreateErrorNone",
                                  "aclCreateErrorNone", "Ethernet4 on"));
}

}  // namespace
