// The ACL SM tree on the simulated chip: configuration in, packets through the TCAM out.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "AclSubSms.h"
#include "Sim/AclHelper.h"
#include "Zol/Syslog.h"

namespace {

using Acl::AclAction;
using Acl::AclDirection;
using Acl::AclType;
using Nepo::IntfId;
using sim::Packet;

constexpr auto in = AclDirection::in;

IntfId intf(std::string_view name) { return IntfId::fromString(name); }

Acl::IpRuleConfig tcpTo(AclAction action, uint16_t port, uint32_t id) {
  Acl::IpFilter f;
  f.protocolIs(6);
  f.dstPortIs(Acl::PortSpec(Acl::PortOper::portEq, {port}));
  return Acl::IpRuleConfig(action, false, Acl::UniqueId(id), f);
}

Acl::IpRuleConfig anyIp(AclAction action, uint32_t id) {
  return Acl::IpRuleConfig(action, false, Acl::UniqueId(id), Acl::IpFilter());
}

Acl::MacRuleConfig anyMac(AclAction action, uint32_t id) {
  return Acl::MacRuleConfig(action, false, Acl::UniqueId(id), Acl::MacFilter());
}

Packet tcp(std::string_view port, uint16_t dstPort, uint16_t vlan = 0) {
  Packet p;
  p.intf = intf(port);
  p.direction = in;
  p.vlan = vlan;
  p.isIp = true;
  p.etherType = 0x0800;
  p.srcIp = Nepo::IpAddr::fromString("10.0.0.1");
  p.dstIp = Nepo::IpAddr::fromString("10.0.0.2");
  p.protocol = 6;
  p.dstPort = dstPort;
  return p;
}

// The inputs, the chip and its helper, and the SM, started.
struct World {
  explicit World(bool async = false, size_t units = 1)
      : chip(sim::Chip::Config{uint32_t(units), 8}) {
    helper->aclCountersSupportedIs(true);
    helper->macAclSupportedIs(true);
    helper->asyncAclConfigIs(async);
    sm = Vemo::aclSmFactory(cd, config, param, intfDir, cli, hwDir, status, cause, lag, helper,
                            loop, br, subStatus, subConfig);
    sm->initializedIs(true);
    loop.runUntilIdle();
  }

  Zol::Ptr<Acl::AclConfig> acl(std::string const& name, AclType type = AclType::ip) {
    return config->configIs(type)->aclIs(name);
  }
  // The rules as given, in force.
  void ipRules(std::string const& name, std::vector<Acl::IpRuleConfig> const& rules) {
    auto const a = acl(name);
    a->countersEnabledIs(true);
    a->ipRuleBySequenceDelAll();
    uint32_t seq = 10;
    for (auto const& r : rules) a->ipRuleBySequenceIs(std::exchange(seq, seq + 10), r);
    a->currCfgIs(a->currCfg() + 1);
  }
  void attach(std::string_view port, std::string const& name, AclType type = AclType::ip,
              AclDirection d = in) {
    cli->configIs(type)->intfIs(d)->intfIs(intf(port), name);
  }
  void detach(std::string_view port, AclType type = AclType::ip) {
    cli->configIs(type)->intfIs(in)->intfDel(intf(port));
  }
  void settle() {
    loop.runUntilIdle();
    loop.advanceBy(1);
  }
  AclAction action(Packet const& p) { return chip.classify(p).action; }
  Vemo::AclKey key(std::string const& name, AclType type = AclType::ip) const {
    return Vemo::AclKey(name, type, in, false, {}, "default");
  }
  std::string statusOf(std::string const& name, AclType type = AclType::ip) const {
    std::string const k = key(name, type).text();
    return status->aclStatusHas(k) ? status->aclStatus(k).status() : "-";
  }
  Zol::U32 numberOf(std::string const& name, AclType type = AclType::ip) const {
    return status->aclStatus(key(name, type).text()).aclNumber();
  }
  bool helperDid(std::string_view op) const {
    auto const& log = helper->log();
    return std::any_of(log.begin(), log.end(),
                       [&](std::string const& l) { return l.starts_with(op); });
  }
  size_t verifyMismatches() {
    cd->verifyData()->requestVerify("check");
    loop.runUntilIdle();
    return cd->verifyData()->mismatchesOf("check");
  }

  Zol::ActivityLoop loop{Zol::ActivityLoop::TimeMode::simulated};
  sim::Chip chip;
  Zol::Ptr<sim::AclHelper> helper = Zol::make<sim::AclHelper>("acl", chip, loop);
  Zol::Ptr<Vemo::VemoCommonSmData> cd = Vemo::vemoCommonSmDataFactory("common");
  Zol::Ptr<Acl::Config> config = Zol::make<Acl::Config>("config");
  Zol::Ptr<Acl::ParamConfig> param = Zol::make<Acl::ParamConfig>("param");
  Zol::Ptr<Acl::IntfConfigDir> intfDir = Zol::make<Acl::IntfConfigDir>("intfDir");
  Zol::Ptr<Acl::IntfConfig> cli = Zol::make<Acl::IntfConfig>("cli");
  Zol::Ptr<Acl::HwConfigDir> hwDir = Zol::make<Acl::HwConfigDir>("hw");
  Zol::Ptr<Acl::StatusDp> status = Zol::make<Acl::StatusDp>("status");
  Zol::Ptr<Errdisable::CauseStatus> cause = Zol::make<Errdisable::CauseStatus>("acl", "acl");
  Zol::Ptr<Lag::Input::Config> lag = Zol::make<Lag::Input::Config>("lag");
  Zol::Ptr<Bridging::Config> br = Zol::make<Bridging::Config>("br");
  Zol::Ptr<Interface::SubIntfStatusDir> subStatus = Zol::make<Interface::SubIntfStatusDir>("s");
  Zol::Ptr<Interface::SubIntfConfigDir> subConfig = Zol::make<Interface::SubIntfConfigDir>("c");
  Zol::Ptr<Vemo::AclSm> sm;
};

TEST(AclSm, PacketsFollowTheRulesInForceThroughChangesAndRemoval) {
  World w;
  w.ipRules("web", {tcpTo(AclAction::permit, 80, 1), anyIp(AclAction::deny, 2)});
  w.attach("Ethernet1", "web");
  w.settle();
  EXPECT_EQ(w.statusOf("web"), "Succeeded install on unit0");
  EXPECT_EQ(w.action(tcp("Ethernet1", 80)), AclAction::permit);
  EXPECT_EQ(w.action(tcp("Ethernet1", 81)), AclAction::deny);
  EXPECT_EQ(w.action(tcp("Ethernet2", 81)), AclAction::permit);
  EXPECT_EQ(w.verifyMismatches(), 0u);

  // Rules edited without a new currCfg are not in force yet, even when the instance is created
  // again for another reason.
  w.acl("web")->ipRuleBySequenceIs(10, tcpTo(AclAction::permit, 81, 1));
  w.cd->operationalModeIs(Vemo::HwOperationalMode::modeTapAgg);
  w.settle();
  EXPECT_TRUE(w.helperDid("removeAcl"));
  EXPECT_EQ(w.action(tcp("Ethernet1", 80)), AclAction::permit);
  w.acl("web")->currCfgIs(w.acl("web")->currCfg() + 1);
  w.settle();
  EXPECT_EQ(w.action(tcp("Ethernet1", 80)), AclAction::deny);
  EXPECT_EQ(w.action(tcp("Ethernet1", 81)), AclAction::permit);

  // A second port shares the instance; the last one to leave takes it out of hardware.
  w.attach("Ethernet2", "web");
  w.settle();
  EXPECT_EQ(w.action(tcp("Ethernet2", 80)), AclAction::deny);
  auto* const dir = w.sm->directionSm(AclType::ip, in);
  size_t const freeWithOne = dir->freeAclSize();
  w.detach("Ethernet1");
  w.detach("Ethernet2");
  w.settle();
  EXPECT_EQ(w.action(tcp("Ethernet1", 80)), AclAction::permit);
  EXPECT_EQ(w.statusOf("web"), "-");
  EXPECT_TRUE(w.chip.acls().tcam(0, in).empty());
  EXPECT_EQ(dir->freeAclSize(), freeWithOne + 1);

  // Deleting the ACL itself while applied leaves nothing behind either.
  w.attach("Ethernet3", "web");
  w.settle();
  EXPECT_EQ(w.action(tcp("Ethernet3", 80)), AclAction::deny);
  w.config->configIs(AclType::ip)->aclDel("web");
  w.settle();
  EXPECT_EQ(w.action(tcp("Ethernet3", 80)), AclAction::permit);
  EXPECT_TRUE(w.chip.acls().tcam(0, in).empty());
  EXPECT_EQ(w.verifyMismatches(), 0u);
}

// Neighbour discovery ahead of the final deny is the property test's.
TEST(AclSm, Ipv6ListsJudgeIpv6PacketsOnly) {
  World w;
  auto const a = w.acl("v6", AclType::ipv6);
  a->ipRuleBySequenceIs(10, tcpTo(AclAction::permit, 443, 1));
  a->currCfgIs(1);
  w.attach("Ethernet1", "v6", AclType::ipv6);
  w.settle();
  EXPECT_EQ(w.statusOf("v6", AclType::ipv6), "Succeeded install on unit0");
  Packet p = tcp("Ethernet1", 443);
  p.etherType = 0x86dd;
  p.srcIp = Nepo::IpAddr::fromString("2001:db8::1");
  p.dstIp = Nepo::IpAddr::fromString("2001:db8::2");
  EXPECT_EQ(w.action(p), AclAction::permit);
  p.dstPort = 22;
  EXPECT_EQ(w.action(p), AclAction::deny);
  EXPECT_EQ(w.action(tcp("Ethernet1", 22)), AclAction::permit) << "IPv4 is not the list's to judge";
}

TEST(AclSm, NumbersAreHandedOutHighestFirstUntilTheLimitThenFreedOnes) {
  World w;
  w.param->aclCountLimitIs(2);
  for (auto const* name : {"m1", "m2", "m3"}) {
    auto const a = w.acl(name, AclType::mac);
    a->macRuleBySequenceIs(10, anyMac(AclAction::permit, 1));
    a->currCfgIs(1);
  }
  w.settle();
  auto* const dir = w.sm->directionSm(AclType::mac, in);
  ASSERT_NE(dir, nullptr);
  // The direction ranges of the three types follow each other, 8192 apart.
  EXPECT_EQ(w.sm->aclNumbersUsed(), 2 * 8192);
  EXPECT_EQ(dir->freeAclSize(), 2u);

  Zol::Trace::settingIs("AclSm/0-9");
  Zol::Trace::Capture trace;
  w.attach("Ethernet1", "m1", AclType::mac);
  w.attach("Ethernet2", "m2", AclType::mac);
  w.attach("Ethernet3", "m3", AclType::mac);
  w.settle();
  Zol::Trace::settingIs("");
  EXPECT_EQ(w.numberOf("m1", AclType::mac), dir->aclNumberStart() + 1u);
  EXPECT_EQ(w.numberOf("m2", AclType::mac), dir->aclNumberStart() + 0u);
  EXPECT_EQ(w.statusOf("m3", AclType::mac), "Too many ACLs");
  EXPECT_TRUE(trace.contains("because the ACL limit was reached"));
  EXPECT_TRUE(w.cause->intfStatusHas(intf("Ethernet3")));

  // A number given back is taken by the instance that waited for one.
  w.detach("Ethernet1", AclType::mac);
  w.settle();
  EXPECT_EQ(w.statusOf("m3", AclType::mac), "Succeeded install on unit0");
  EXPECT_EQ(w.numberOf("m3", AclType::mac), dir->aclNumberStart() + 1u);
  EXPECT_FALSE(w.cause->intfStatusHas(intf("Ethernet3")));
}

// Which blockIntf calls the helper saw, in order: "Ethernet1 on", "Ethernet1 off".
std::vector<std::string> blocks(sim::AclHelper const& h) {
  std::vector<std::string> out;
  for (auto const& l : h.log()) {
    if (l.starts_with("blockIntf ")) out.push_back(l.substr(10));
  }
  return out;
}

// A packet's fate while an ACL changes: blocked (dropped) or filtered by a list in hardware,
// never passed by nothing.
bool filtered(World& w, Packet const& p) {
  sim::ClassifyResult const r = w.chip.classify(p);
  return r.blocked || r.entry.has_value();
}

TEST(AclSm, NoPacketPassesUnfilteredWhileAListIsReplacedOrMovedUnlessAllowedTo) {
  for (bool async : {false, true}) {
    SCOPED_TRACE(async ? "async" : "inline");
    World w(async);
    w.ipRules("a", {tcpTo(AclAction::permit, 80, 1)});
    w.ipRules("b", {tcpTo(AclAction::permit, 81, 2)});
    w.attach("Ethernet1", "a");
    w.settle();
    EXPECT_TRUE(blocks(*w.helper).empty()) << "a new instance has nothing to protect";

    w.ipRules("a", {tcpTo(AclAction::permit, 81, 1)});
    w.loop.runUntilIdle();
    if (async) {
      // The platform has not answered yet: the port is held blocked and the cycle waits.
      EXPECT_NE(w.sm->applyPhase(), Vemo::AclApplyPhase::aclApplyPhaseDone);
      EXPECT_TRUE(w.chip.classify(tcp("Ethernet1", 81)).blocked);
    }
    w.settle();
    EXPECT_EQ(w.sm->applyPhase(), Vemo::AclApplyPhase::aclApplyPhaseDone);
    EXPECT_EQ(blocks(*w.helper), (std::vector<std::string>{"Ethernet1 on", "Ethernet1 off"}));
    EXPECT_EQ(w.action(tcp("Ethernet1", 81)), AclAction::permit);
    EXPECT_EQ(w.sm->aclIntfSm(intf("Ethernet1"))->state(), Vemo::AclIntfState::aclIntfUnblocked);

    // A busy chip refuses the new rules: the port stays blocked until they are in, and is not
    // taken down for it.
    w.helper->logDelAll();
    w.chip.faultIs(sim::Table::acl, sim::Status::busy, 1);
    w.ipRules("a", {tcpTo(AclAction::permit, 82, 1)});
    w.loop.runUntilIdle();
    w.loop.advanceBy(0.5);
    EXPECT_EQ(w.statusOf("a"), "Insufficient HW resources on unit0");
    EXPECT_TRUE(w.chip.classify(tcp("Ethernet1", 82)).blocked);
    EXPECT_FALSE(w.cause->intfStatusHas(intf("Ethernet1")));
    for (std::string const& l : w.helper->log()) {
      EXPECT_FALSE(l.starts_with("removeIntfFromAcl")) << "busy took the list off its port: " << l;
    }
    w.loop.advanceBy(Vemo::AclSm::retryDelay + 1);
    EXPECT_EQ(w.action(tcp("Ethernet1", 82)), AclAction::permit);
    EXPECT_EQ(w.verifyMismatches(), 0u);

    // Moving to another list: blocked from the first change until b is applied.
    w.attach("Ethernet1", "b");
    w.loop.runUntilIdle();
    EXPECT_TRUE(filtered(w, tcp("Ethernet1", 81)));
    w.settle();
    EXPECT_EQ(w.action(tcp("Ethernet1", 81)), AclAction::permit);
    EXPECT_EQ(w.action(tcp("Ethernet1", 82)), AclAction::deny);
    EXPECT_FALSE(w.chip.classify(tcp("Ethernet1", 81)).blocked);

    // The one exception, permit during update: no block, traffic passes unfiltered instead of
    // meeting a half-emptied list, and the status does not claim the list is in hardware meanwhile.
    w.helper->logDelAll();
    w.param->permitDuringAclUpdateIs(true);
    w.ipRules("b", {tcpTo(AclAction::permit, 83, 2)});
    w.loop.runUntilIdle();
    if (async) {
      sim::ClassifyResult const r = w.chip.classify(tcp("Ethernet1", 83));
      EXPECT_EQ(r.action, AclAction::permit);
      EXPECT_FALSE(r.blocked);
      EXPECT_FALSE(w.status->aclStatus(w.key("b").text()).installed());
    }
    w.settle();
    EXPECT_TRUE(blocks(*w.helper).empty());
    EXPECT_EQ(w.action(tcp("Ethernet1", 83)), AclAction::permit);
    EXPECT_EQ(w.action(tcp("Ethernet1", 81)), AclAction::deny);

    // A cycle with nothing to do goes Uninstall, Unblock, Done without the platform.
    w.helper->logDelAll();
    w.sm->doApplyAcls(false);
    EXPECT_EQ(w.sm->applyPhase(), Vemo::AclApplyPhase::aclApplyPhaseDone);
    EXPECT_TRUE(w.helper->log().empty());
    EXPECT_EQ(w.verifyMismatches(), 0u);
  }
}

TEST(AclSm, TcamExhaustionErrdisablesPortsButNeverVlansAndRecovers) {
  World w;
  Zol::Syslog::Capture syslog;
  w.chip.capacityIs(sim::Table::acl, 3);
  w.ipRules("big", {tcpTo(AclAction::permit, 80, 1), tcpTo(AclAction::permit, 81, 2),
                    tcpTo(AclAction::permit, 82, 3), anyIp(AclAction::deny, 4)});
  w.attach("Ethernet1", "big");
  w.attach("Vlan10", "big");
  w.settle();
  EXPECT_EQ(w.statusOf("big"), "Out of TCAM entries on unit0");
  EXPECT_TRUE(w.cause->intfStatusHas(intf("Ethernet1")));
  EXPECT_FALSE(w.cause->intfStatusHas(intf("Vlan10")));
  ASSERT_FALSE(syslog.records().empty());
  EXPECT_EQ(syslog.records().front().key, "ACL_HW_RESOURCE_FULL");
  EXPECT_EQ(syslog.records().front().text,
            "Hardware resources are insufficient to program all ACLs (unit0)");
  // Half-created rules do not linger.
  EXPECT_TRUE(w.chip.acls().tcam(0, in).empty());

  w.chip.capacityIs(sim::Table::acl, 1024);
  w.acl("big")->currCfgIs(w.acl("big")->currCfg() + 1);
  w.settle();
  EXPECT_EQ(w.statusOf("big"), "Succeeded install on unit0");
  EXPECT_FALSE(w.cause->intfStatusHas(intf("Ethernet1")));
  EXPECT_EQ(syslog.records().back().key, "ACL_HW_RESOURCE_NORMAL");
  EXPECT_EQ(w.action(tcp("Ethernet1", 83)), AclAction::deny);
  EXPECT_EQ(w.action(tcp("Ethernet5", 83, 10)), AclAction::deny) << "the VLAN's instance";
}

TEST(AclSm, PortChannelListFollowsItsMembersAndFiltersEachByOneListAtATime) {
  for (bool async : {false, true}) {
    SCOPED_TRACE(async ? "async" : "inline");
    World w(async);
    w.ipRules("po", {tcpTo(AclAction::permit, 80, 1)});
    w.ipRules("own", {tcpTo(AclAction::permit, 81, 2)});
    w.lag->phyIntfIs(intf("Ethernet1"), intf("Port-Channel1"));
    w.lag->phyIntfIs(intf("Ethernet2"), intf("Port-Channel1"));
    w.attach("Port-Channel1", "po");
    w.attach("Ethernet1", "own");
    w.settle();
    EXPECT_EQ(w.action(tcp("Ethernet1", 80)), AclAction::permit) << "the port-channel's list";
    EXPECT_EQ(w.action(tcp("Ethernet1", 81)), AclAction::deny);
    EXPECT_EQ(w.action(tcp("Ethernet2", 81)), AclAction::deny);
    EXPECT_EQ(w.action(tcp("Ethernet3", 81)), AclAction::permit);
    EXPECT_EQ(w.verifyMismatches(), 0u);

    w.lag->phyIntfIs(intf("Ethernet3"), intf("Port-Channel1"));
    w.lag->phyIntfDel(intf("Ethernet2"));
    w.settle();
    EXPECT_EQ(w.action(tcp("Ethernet2", 81)), AclAction::permit);
    EXPECT_EQ(w.action(tcp("Ethernet3", 81)), AclAction::deny);

    // Its own list goes: the port-channel's still filters it.
    w.detach("Ethernet1");
    w.settle();
    EXPECT_EQ(w.action(tcp("Ethernet1", 81)), AclAction::deny);
    EXPECT_EQ(w.verifyMismatches(), 0u);

    // It leaves the port-channel: its own list applies again, and back.
    w.attach("Ethernet1", "own");
    w.lag->phyIntfDel(intf("Ethernet1"));
    w.loop.runUntilIdle();
    EXPECT_TRUE(filtered(w, tcp("Ethernet1", 81)));
    w.settle();
    EXPECT_EQ(w.action(tcp("Ethernet1", 81)), AclAction::permit);
    EXPECT_EQ(w.verifyMismatches(), 0u);
    w.lag->phyIntfIs(intf("Ethernet1"), intf("Port-Channel1"));
    w.settle();
    EXPECT_EQ(w.action(tcp("Ethernet1", 80)), AclAction::permit);
    EXPECT_EQ(w.verifyMismatches(), 0u);

    // The port-channel's list goes: the member's own takes over.
    w.detach("Port-Channel1");
    w.settle();
    EXPECT_EQ(w.action(tcp("Ethernet1", 81)), AclAction::permit);
    EXPECT_EQ(w.action(tcp("Ethernet1", 80)), AclAction::deny);
    EXPECT_EQ(w.verifyMismatches(), 0u);

    // Verification sees a port the chip lost, and a member bound to its own list.
    w.attach("Port-Channel1", "po");
    w.settle();
    w.chip.acls().bind(intf("Ethernet1"), in, w.numberOf("own"), AclType::ip);
    EXPECT_EQ(w.verifyMismatches(), 2u) << "has data for LAG; port not active";
    w.chip.acls().unbind(intf("Ethernet1"), in, AclType::ip);
    EXPECT_EQ(w.verifyMismatches(), 1u);

    // The port-channel's list is found through its first distributing member.
    Vemo::VemoLagPortList members;
    members.portIs(intf("Ethernet2"), Vemo::VemoLagPort(true, false));
    members.portIs(intf("Ethernet3"), Vemo::VemoLagPort(true, true));
    w.cd->lagToPortIs(intf("Port-Channel1"), members);
    Vemo::AclConfigSm* const found = w.sm->findAclSmForIntf(intf("Port-Channel1"), in);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->name(), "po");
    EXPECT_EQ(w.sm->findAclSmForIntf(intf("Port-Channel9"), in), nullptr);
  }
}

TEST(AclSm, HitsAddEachPollPerTypeAndRuleAndGoWithTheList) {
  World w;
  w.ipRules("web", {tcpTo(AclAction::permit, 80, 7), anyIp(AclAction::deny, 8)});
  auto const mac = w.acl("web", AclType::mac);
  mac->countersEnabledIs(true);
  mac->macRuleBySequenceIs(10, anyMac(AclAction::permit, 7));
  mac->currCfgIs(1);
  w.attach("Ethernet1", "web");
  w.attach("Ethernet1", "web", AclType::mac);
  w.settle();
  Packet l2;
  l2.intf = intf("Ethernet1");
  l2.direction = in;
  l2.etherType = 0x88b5;
  for (int i = 0; i < 3; ++i) w.action(tcp("Ethernet1", 80));
  w.action(tcp("Ethernet1", 22));
  w.action(l2);
  w.loop.advanceBy(Vemo::AclCountersPoller::period);
  auto const hits = w.status->ruleHits(AclType::ip)->acl("web");
  ASSERT_TRUE(hits);
  EXPECT_EQ(hits->hits(Acl::UniqueId(7)), 3u);
  EXPECT_EQ(hits->hits(Acl::UniqueId(8)), 1u);
  EXPECT_EQ(w.status->ruleHits(AclType::mac)->acl("web")->hits(Acl::UniqueId(7)), 1u);
  // A rule written ahead of the next currCfg does not shift the counts to other rules.
  w.acl("web")->ipRuleBySequenceIs(5, tcpTo(AclAction::deny, 443, 9));
  w.action(tcp("Ethernet1", 80));
  w.loop.advanceBy(Vemo::AclCountersPoller::period);
  EXPECT_EQ(hits->hits(Acl::UniqueId(7)), 4u) << "only what came since the last poll is added";
  EXPECT_EQ(hits->hits(Acl::UniqueId(9)), 0u);
  // Changed before the poll: the hits of the rules it replaces are read first.
  w.action(tcp("Ethernet1", 80));
  w.ipRules("web", {tcpTo(AclAction::permit, 80, 7)});
  w.loop.advanceBy(Vemo::AclCountersPoller::period + 1);
  EXPECT_EQ(hits->hits(Acl::UniqueId(7)), 5u);

  // Entries lost behind the SM's back are reported by rule, the final rule too.
  w.chip.acls().deleteInstance(w.numberOf("web"));
  w.cd->verifyData()->requestVerify("lost");
  w.loop.runUntilIdle();
  EXPECT_EQ(w.cd->verifyData()->mismatchesOf("lost"), 2u);

  // A deleted list's hits go with it and do not come back with a new list of its name.
  w.config->configIs(AclType::ip)->aclDel("web");
  w.settle();
  EXPECT_FALSE(w.status->ruleHits(AclType::ip));
  w.ipRules("web", {tcpTo(AclAction::permit, 80, 7)});
  w.loop.advanceBy(Vemo::AclCountersPoller::period + 1);
  auto const after = w.status->ruleHits(AclType::ip);
  EXPECT_TRUE(!after || !after->acl("web") || after->acl("web")->hits(Acl::UniqueId(7)) == 0u);
}

TEST(AclSm, ErrdisableGoesWithItsCauseButSurvivesARestart) {
  for (int how : {0, 1, 2}) {
    bool const restart = how == 2;
    SCOPED_TRACE(how == 0 ? "type deleted" : how == 1 ? "destroyed" : "restart");
    World w;
    w.chip.capacityIs(sim::Table::acl, 1);
    w.ipRules("big", {tcpTo(AclAction::permit, 80, 1), anyIp(AclAction::deny, 2)});
    w.attach("Ethernet1", "big");
    w.settle();
    ASSERT_TRUE(w.cause->intfStatusHas(intf("Ethernet1")));
    if (how != 0) {
      w.sm->disableCleanupOnRestartIs(restart);
      w.sm = nullptr;
      EXPECT_EQ(w.cause->intfStatusHas(intf("Ethernet1")), restart);
    } else {
      w.config->configDel(AclType::ip);
      w.settle();
      EXPECT_FALSE(w.cause->intfStatusHas(intf("Ethernet1")));
    }
  }
}

TEST(AclSm, AnOperationalModeChangeMidCycleWaitsForTheCycleOnASimulationHost) {
  ::setenv("SIMULATION_VMID", "1", 1);
  World w(true);
  ::unsetenv("SIMULATION_VMID");
  w.ipRules("web", {tcpTo(AclAction::permit, 80, 1)});
  w.attach("Ethernet1", "web");
  w.settle();
  w.ipRules("web", {tcpTo(AclAction::permit, 81, 1)});
  w.loop.runUntilIdle();
  ASSERT_NE(w.sm->applyPhase(), Vemo::AclApplyPhase::aclApplyPhaseDone);
  w.helper->logDelAll();
  w.cd->operationalModeIs(Vemo::HwOperationalMode::modeTapAgg);
  w.loop.runUntilIdle();
  w.settle();
  w.settle();
  EXPECT_EQ(w.sm->applyPhase(), Vemo::AclApplyPhase::aclApplyPhaseDone);
  EXPECT_TRUE(w.helperDid("removeAcl")) << "the forced re-creation ran after the cycle";
  EXPECT_EQ(w.action(tcp("Ethernet1", 81)), AclAction::permit);
  EXPECT_EQ(w.verifyMismatches(), 0u);
}

}  // namespace
