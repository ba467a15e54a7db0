// ACLs through the agent: packet steps that are malformed or whose packets meet another fate, and
// rules shown the way they were written.
#include <gtest/gtest.h>

#include <sstream>

#include "AgentTestSupport.h"
#include "Views.h"
#include "Zol/Json.h"
#include "ZolGen/AclJson.h"

namespace vemo::agent {
namespace {

Result run(std::string const& steps) { return runText(R"({"steps": [)" + steps + "]}"); }

TEST(AgentAcl, MalformedPacketStepsAreRejectedNamingStepAndMember) {
  struct Case {
    std::string step;
    std::string message;
  };
  Case const cases[] = {
      {R"({"packet": "Ethernet1"})", "step 2 (packet): 'packet' must be an object"},
      {R"({"packet": {"dstPort": 1}})", "step 2 (packet): a packet needs 'intf'"},
      {R"({"packet": {"intf": "Ethernt1"}})", "packet 'intf' must be an interface name"},
      {R"({"packet": {"intf": "Ethernet1", "direction": "up"}})",
       "step 2 (packet Ethernet1): packet 'direction' must be in or out, found \"up\""},
      {R"({"packet": {"intf": "Ethernet1", "dstPort": 70000}})",
       "packet 'dstPort' must be a number from 0 to 65535, found 70000"},
      {R"({"packet": {"intf": "Ethernet1", "protocol": "sctp"}})",
       "packet 'protocol' must be a number or tcp, udp, icmp, icmpv6"},
      {R"({"packet": {"intf": "Ethernet1", "tcpFlags": ["syn", "fyn"]}})",
       "packet 'tcpFlags' must be a number or a list of fin, syn"},
      {R"({"packet": {"intf": "Ethernet1", "srcIp": "10.0.0.1", "dstIp": "2001:db8::1"}})",
       "'srcIp' and 'dstIp' must be of one family"},
      {R"({"packet": {"intf": "Ethernet1", "dstIp": "10.0.0.1", "etherType": "0x0806"}})",
       "an IP packet's 'etherType' follows its addresses (0x0800)"},
      {R"({"packet": {"intf": "Ethernet1", "etherType": "0x88zz"}})",
       "packet 'etherType' must be a number or hexadecimal text"},
      {R"({"packet": {"intf": "Ethernet1", "colour": 1}})",
       "packet 'colour' is not a field (intf, direction, vlan"},
      {R"({"packet": {"intf": "Ethernet1"}, "expect": "maybe"})",
       "'expect' must be permit, deny, blocked or errdisabled, found \"maybe\""},
      {R"({"packet": {"intf": "Ethernet1"}, "value": 1})", "unexpected member 'value'"},
      {R"({"packet": {"intf": "Ethernet40"}})",
       "step 2 (packet Ethernet40): Ethernet40 is not a port of the chip (Ethernet1 to "
       "Ethernet32)"},
      {R"({"packet": {"intf": "Ethernet1"}, "show": "common"})", "a step does one thing"},
  };
  for (Case const& c : cases) {
    // The first step would print: a rejected scenario runs nothing.
    Result const r = run(R"({"show": "common"}, )" + c.step);
    EXPECT_EQ(r.status, 2) << c.step;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << c.step << "\n" << r.err;
    EXPECT_EQ(r.out, "") << c.step;
  }
}

TEST(AgentAcl, APacketMeetingAnotherFateFailsItsStep) {
  std::string const acl = R"(
      {"set": "acl/config", "attr": "config", "key": "ip"},
      {"set": "acl/config/config/ip", "attr": "acl", "key": "web"},
      {"set": "acl/config/config/ip/acl/web", "attr": "countersEnabled", "value": true},
      {"set": "acl/config/config/ip/acl/web", "attr": "ipRuleBySequence", "key": 10, "value":
       {"action": "permit", "uniqueId": 7, "filter": {"protocol": 6,
        "dstPort": {"oper": "portEq", "value": [80], "count": 1}}}},
      {"set": "acl/config/config/ip/acl/web", "attr": "currCfg", "value": 1},
      {"set": "acl/intfConfig", "attr": "config", "key": "ip"},
      {"set": "acl/intfConfig/config/ip", "attr": "intf", "key": "in"},
      {"set": "acl/intfConfig/config/ip/intf/in", "attr": "intf", "key": "Ethernet2",
       "value": "web"},)";
  auto tcpTo = [](int port, char const* expect) {
    return R"({"packet": {"intf": "Ethernet2", "srcIp": "10.0.0.1", "dstIp": "10.0.0.2",
               "protocol": "tcp", "dstPort": )" +
           std::to_string(port) + R"(}, "expect": ")" + expect + R"("})";
  };
  // The fates and the view are the examples'; another fate fails the step like an expectation,
  // and "blocked" is not any drop.
  Result const r = run(acl + tcpTo(22, "permit"));
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "step 9 (packet Ethernet2): expected permit, found deny (acl 5117 rule 1.0)\n");
  EXPECT_EQ(run(acl + tcpTo(22, "blocked")).status, 1);
}

template <class T>
T parsed(char const* json) {
  rapidjson::Document doc;
  doc.Parse(json);
  return Zol::fromJson<T>(doc);
}

TEST(AgentAcl, RulesAreShownAsWritten) {
  struct Case {
    char const* rule;
    char const* text;
  };
  Case const ip[] = {
      {R"({"action": "deny", "filter": {}})", "deny ip any any"},
      {R"({"action": "permit", "log": true, "filter": {"protocol": 17,
          "source": "10.1.0.0/16", "srcPort": {"oper": "portNeq", "value": [53, 67], "count": 2},
          "destination": "10.2.0.9/32", "dstPort": {"oper": "portGt", "value": [1023], "count": 1}}})",
       "permit udp 10.1.0.0/16 neq 53 67 host 10.2.0.9 gt 1023 log"},
      {R"({"action": "permit", "filter": {"protocol": 6, "tcpFlags": 18, "tcpFlagsMask": 22,
          "dstPort": {"oper": "portRange", "value": [1000, 1999], "count": 2}}})",
       "permit tcp any any range 1000 1999 syn !rst ack"},
      {R"({"action": "permit", "filter": {"protocol": 6, "established": true,
          "srcPort": {"oper": "portLt", "value": [1024], "count": 1}}})",
       "permit tcp any lt 1024 any established"},
      {R"({"action": "permit", "filter": {"protocol": 1, "icmpType": 3, "icmpCode": 4,
          "dscpMatch": true, "dscp": 46, "ecn": "ecnEctOrCe", "ttlMatch": true, "ttl": 1,
          "ipLen": {"oper": "portEq", "value": [1500], "count": 1}}})",
       "permit icmp any any type 3 code 4 ip-length eq 1500 dscp 46 ecn ect-ce ttl eq 1"},
      {R"({"action": "deny", "filter": {"protocol": 47, "fragments": true}})",
       "deny 47 any any fragments"},
  };
  for (Case const& c : ip) {
    EXPECT_EQ(ipRuleText(Acl::AclType::ip, parsed<Acl::IpRuleConfig>(c.rule)), c.text);
  }
  EXPECT_EQ(ipRuleText(Acl::AclType::ipv6,
                       parsed<Acl::IpRuleConfig>(R"({"filter": {"source": "2001:db8::/32"}})")),
            "permit ipv6 2001:db8::/32 any");
  Case const mac[] = {
      {R"({"action": "permit", "filter": {"destination": "02:00:00:00:00:01/ff:ff:ff:00:00:00", "etherType": 2054,
          "vlanId": 10, "vlanMask": 4095}})",
       "permit any 02:00:00:00:00:01/ff:ff:ff:00:00:00 0x0806 vlan 10 0xfff"},
      {R"({"action": "deny", "log": true, "filter": {"mplsLabelMatch": true, "mplsLabel": 16,
          "mplsInnerLabelMatch": true, "mplsInnerLabel": 17}})",
       "deny any any mpls-label 16 mpls-inner-label 17 log"},
  };
  for (Case const& c : mac) {
    EXPECT_EQ(macRuleText(parsed<Acl::MacRuleConfig>(c.rule)), c.text);
  }
}

}  // namespace
}  // namespace vemo::agent
