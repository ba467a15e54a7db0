// Expectations on fields, presence, absent entities, syslog messages and chip paths, and the
// hitless restart: what a scenario can say, and what it is told when it says it wrong.
#include <gtest/gtest.h>

#include <algorithm>

#include "AgentTestSupport.h"

namespace vemo::agent {
namespace {

// Without a platform, a second run goes on over the first one's state.
std::string steps(std::string const& body, std::string const& platform = "") {
  return "{" + (platform.empty() ? "" : R"("platform": )" + platform + ", ") + R"("steps": [)" +
         body + "]}";
}

constexpr char const* kStatusKey = "web-ip-in(std=false,vlanId=0,aclGroup=default)";

// An ACL of two entries and the final deny, applied to Ethernet1.
std::string aclOnEthernet1() {
  return R"(
    {"set": "acl/config", "attr": "config", "key": "ip"},
    {"set": "acl/config/config/ip", "attr": "acl", "key": "web"},
    {"set": "acl/config/config/ip/acl/web", "attr": "ipRuleBySequence", "key": 10,
     "value": {"action": "permit", "uniqueId": 1, "filter": {"protocol": 6}}},
    {"set": "acl/config/config/ip/acl/web", "attr": "currCfg", "value": 1},
    {"set": "acl/intfConfig", "attr": "config", "key": "ip"},
    {"set": "acl/intfConfig/config/ip", "attr": "intf", "key": "in"},
    {"set": "acl/intfConfig/config/ip/intf/in", "attr": "intf", "key": "Ethernet1",
     "value": "web"})";
}

TEST(ScenarioFeatures, MalformedChecksAreRejectedBeforeAnythingRuns) {
  struct Case {
    std::string step;
    std::string message;
  };
  Case const cases[] = {
      {R"({"expect": "hw/lag/Port-Channel1", "attr": "hwid", "value": 1})",
       "step 2 (expect hw/lag/Port-Channel1 hwid): 'hwid' in 'hw/lag/Port-Channel1/hwid' is not "
       "in the chip's tables"},
      {R"({"expect": "hw/acl/unit/0", "attr": "used", "value": 1})", "'unit' in 'hw/acl/unit'"},
      {R"({"expect": "hw/acl/units/1/in", "attr": "used", "value": 1})", "no unit 1"},
      {R"({"expect": "hw/lag", "attr": "Port-Channel1", "fields": {"hwid": 1}})", "'hwid'"},
      {R"({"expect": "acl/status", "attr": "aclStatus", "key": "x", "fields": {"instaled": 1}})",
       "has no field 'instaled'"},
      {R"({"expect": "acl/status", "attr": "aclStatus", "fields": {"installed": true}})",
       "give its 'key'"},
      {R"({"expect": "vemo/common", "attr": "initialized", "fields": {"x": 1}})", "fields"},
      {R"({"expect": "vemo/common", "attr": "initialized", "fields": {}})",
       "'fields' must be an object naming at least one field"},
      {R"({"expect": "vemo/common", "attr": "initialized", "value": true, "present": true})",
       "takes one of 'value', 'fields' and 'present'"},
      {R"({"expect": "vemo/common", "present": 1})", "'present' must be true or false"},
      {R"({"expect": "vemo/common", "key": "x", "present": true})", "needs the 'attr'"},
      {R"({"expectLog": "ACL_HW_RESOURCE_FULL", "count": -1})", "'count' must be a number"},
      {R"({"restart": "cold"})", "'restart' must be \"hitless\""},
      {R"({"restart": "hitless", "store": "lost"})", "'store' must be \"truncated\""},
      {R"({"set": "bridging/remoteMac", "attr": "remoteMac", "key": "x", "repeat": 2})",
       "'repeat' needs a key with a \"macAddr\""},
      {R"({"comment": 5})", "'comment' must be a string"},
  };
  for (Case const& c : cases) {
    Result const r = runText(steps(R"({"comment": "first"}, )" + c.step));
    EXPECT_EQ(r.status, 2) << c.step;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << c.step << "\n" << r.err;
    EXPECT_EQ(r.out, "") << c.step;
  }
}

TEST(ScenarioFeatures, AbsentEntitiesFieldsAndPresence) {
  // Nothing of the ACL exists yet: every form of "absent" holds, and a value does not.
  std::string const absent = R"(
    {"expect": "acl/config/config/ip/acl/web", "present": false},
    {"expect": "acl/config/config/ip/acl/web", "attr": "currCfg", "value": null},
    {"expect": "hw/acl/bindings/Ethernet1", "attr": "in", "present": false})";
  Result r = runText(steps(absent));
  EXPECT_EQ(r.status, 0) << r.err;
  r = runText(steps(R"({"expect": "acl/config/config/ip/acl/web", "attr": "currCfg",
                        "value": 1})"));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("expected 1, found null"), std::string::npos) << r.err;

  std::string const status = R"({"expect": "acl/status", "attr": "aclStatus", "key": ")" +
                             std::string(kStatusKey) + R"(", )";
  r = runText(steps(aclOnEthernet1() + "," + status + R"("fields": {"installed": true}},
    {"expect": "acl/config/config/ip/acl/web", "present": true},
    {"expect": "hw/acl/bindings/Ethernet1", "attr": "in", "present": true},
    {"expect": "hw/acl/units/0/in/instances", "attr": "5117", "fields": {"entries": 2}},)" +
                    status + R"("fields": {"installed": true, "numRules": 99}})"));
  EXPECT_EQ(r.status, 1) << r.err;
  // Only the named fields are compared, and the message shows what the value held.
  EXPECT_NE(r.err.find("step 12 (expect acl/status aclStatus"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("expected fields {\"installed\":true,\"numRules\":99}, found {"),
            std::string::npos)
      << r.err;
  r = runText(
      steps(aclOnEthernet1() +
            R"(, {"expect": "hw/acl/bindings/Ethernet1", "attr": "in", "present": false})"));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("expected absent, found 5117"), std::string::npos) << r.err;
}

TEST(ScenarioFeatures, SyslogIsPrintedAndCountedSinceTheLastExpectationOfItsKey) {
  std::string const full = steps(aclOnEthernet1() + R"(,
    {"expectLog": "ACL_HW_RESOURCE_FULL", "count": 1},
    {"expectLog": "ACL_HW_RESOURCE_NORMAL", "count": 0},
    {"fault": "acl", "capacity": 64},
    {"set": "acl/config/config/ip/acl/web", "attr": "currCfg", "value": 2},
    {"expectLog": "ACL_HW_RESOURCE_NORMAL"},
    {"expectLog": "ACL_HW_RESOURCE_FULL", "count": 1})",
                                 R"({"capacity": {"acl": 1}})");
  Result const r = runText(full);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("%ACL-3-ACL_HW_RESOURCE_FULL: Hardware resources are insufficient"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("%ACL-5-ACL_HW_RESOURCE_NORMAL: "), std::string::npos) << r.out;
  // The first full message was counted by step 8; none came after.
  EXPECT_EQ(r.err, "step 13 (expectLog ACL_HW_RESOURCE_FULL): expected 1 message, found 0\n");
}

TEST(ScenarioFeatures, PathsListAttributesAndTheChip) {
  std::vector<std::string> const lines = Agent().pathListing();
  auto has = [&](std::string const& l) {
    return std::find(lines.begin(), lines.end(), l) != lines.end();
  };
  EXPECT_TRUE(has("vemo/common")) << "entities are still listed";
  EXPECT_TRUE(has("vemo/common portToLag[Nepo::IntfId]: Nepo::IntfId"));
  EXPECT_TRUE(has("hw writes"));
  EXPECT_TRUE(has("hw/lag/<key> hwId"));
  EXPECT_TRUE(has("hw/acl/units/<n>/in used"));
}

}  // namespace
}  // namespace vemo::agent
