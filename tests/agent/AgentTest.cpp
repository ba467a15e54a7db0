// The agent's scenario contract: what a malformed scenario is told, exit statuses, and output that
// is the same on every run.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "AgentTestSupport.h"

namespace vemo::agent {
namespace {

std::string steps(std::string const& body) { return R"({"steps": [)" + body + "]}"; }

TEST(Agent, MalformedScenarioIsRejectedWholeNamingStepPathAndProblem) {
  struct Case {
    std::string steps;
    std::string message;
  };
  Case const cases[] = {
      {R"({"set": "vemo/nowhere", "attr": "intf", "key": "Ethernet1", "value": true})",
       "step 2 (set vemo/nowhere intf[\"Ethernet1\"]): no entity at path 'vemo/nowhere'"},
      {R"({"set": "vemo/common", "attr": "intff", "key": "Ethernet1", "value": true})",
       "has no attribute 'intff'"},
      {R"({"set": "vemo/common", "attr": "intf", "key": "Ethernt1", "value": true})", "Ethernt1"},
      {R"({"set": "vemo/common", "attr": "intf", "key": "Ethernet1", "value": 3})",
       "expected true or false, found 3"},
      {R"({"set": "vemo/common", "attr": "intf", "value": true})", "needs a 'key'"},
      {R"({"set": "vemo/common", "attr": "minIntfs", "value": 70000})", "out of range"},
      {R"({"set": "vemo/common", "attr": "operationalMode", "value": "modeFast"})",
       "'modeFast' is not a value of Vemo::HwOperationalMode"},
      {R"({"set": "vemo/common", "attr": "wevlLevels", "value": {"vemoNoSuchSm": 1}})",
       "Vemo::WevlLevels has no field 'vemoNoSuchSm'"},
      {R"({"set": "vemo/common", "attr": "initialized", "value": true, "colour": 1})",
       "unexpected member 'colour'"},
      {R"({"del": "vemo/common", "attr": "minIntfs", "key": 1})", "is not a collection"},
      {R"({"expect": "vemo/common", "attr": "intf", "key": "Ethernet1"})", "needs a 'value'"},
      {R"({"show": "nothing"})", "unknown view 'nothing'"},
      {R"({"advance": -1})", "seconds must be a number >= 0"},
      {R"({"expect": "vemo/common/vlanStatus/5000", "attr": "vlanId", "value": 1})",
       "key '5000' in path"},
      {R"({"set": "vemo/common", "attr": "verifySm", "value": 1})", "cannot be written"},
  };
  for (Case const& c : cases) {
    // The first step would change state and print: a rejected scenario does neither.
    Result const r = runText(steps(R"({"show": "common"}, )" + c.steps));
    EXPECT_EQ(r.status, 2) << c.steps;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << c.steps << "\n" << r.err;
    EXPECT_EQ(r.out, "") << c.steps;
  }
  EXPECT_EQ(runText("{").status, 2);
  EXPECT_EQ(runText(R"({"steps": {}})").status, 2);
  EXPECT_NE(runText(R"({"steps": [], "extra": 1})").err.find("unexpected member 'extra'"),
            std::string::npos);
}

TEST(Agent, FailedExpectationStopsWithStatusOneAndSaysWhatDiffered) {
  Result const r = runText(steps(R"(
      {"set": "vemo/common", "attr": "portToLag", "key": "Ethernet1", "value": "Port-Channel1"},
      {"expect": "vemo/common", "attr": "portToLag", "key": "Ethernet1", "value": "Port-Channel2"},
      {"show": "common"})"));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("step 2 (expect vemo/common portToLag[\"Ethernet1\"]): expected "
                       "\"Port-Channel2\", found \"Port-Channel1\""),
            std::string::npos)
      << r.err;
  EXPECT_EQ(r.out, "") << "steps after a failed expectation do not run";

  // Absent entries compare with null, both ways.
  EXPECT_EQ(runText(steps(R"({"expect": "vemo/common", "attr": "intf", "key": "Ethernet9",
                              "value": null})"))
                .status,
            0);
  EXPECT_EQ(runText(steps(R"({"expect": "vemo/common", "attr": "intf", "key": "Ethernet9",
                              "value": false})"))
                .status,
            1);
  // A child that a scenario never created is a failure at run time, not a malformed scenario.
  EXPECT_EQ(runText(steps(R"({"expect": "vemo/common/vlanStatus/7", "attr": "vlanId",
                              "value": 7})"))
                .status,
            1);
}

TEST(Agent, ValuesAreComparedByMeaningNotSpelling) {
  // The same address in another spelling, an interface key given as a plain string.
  EXPECT_EQ(runText(steps(R"(
      {"set": "vemo/common", "attr": "peerRouterMac", "value": "0200.0000.0001"},
      {"expect": "vemo/common", "attr": "peerRouterMac", "value": "02:00:00:00:00:01"},
      {"set": "vemo/common", "attr": "vlanStatus", "key": "20"},
      {"expect": "vemo/common/vlanStatus/20", "attr": "vlanId", "value": 20})"))
                .status,
            0);
}

TEST(Agent, TimeAdvancesOnlyWhenAskedAndOutputIsRepeatable) {
  std::string const sc = steps(R"(
      {"set": "vemo/common", "attr": "intf", "key": "Ethernet2", "value": true},
      {"set": "vemo/common", "attr": "intf", "key": "Ethernet10", "value": true},
      {"set": "vemo/common", "attr": "intf", "key": "Ethernet1", "value": true},
      {"advance": 2.5},
      {"show": "common"})");
  Result const a = runText(sc), b = runText(sc);
  ASSERT_EQ(a.status, 0) << a.err;
  EXPECT_EQ(a.out, b.out);
  // Entries are listed in key order whatever the hash order.
  size_t const e1 = a.out.find("Ethernet1:"), e2 = a.out.find("Ethernet2:"),
               e10 = a.out.find("Ethernet10:");
  EXPECT_LT(e1, e2);
  EXPECT_LT(e2, e10);
  Result const j = runText(sc, true);
  EXPECT_NE(j.out.find("\"Ethernet10\": true"), std::string::npos) << j.out;

  Agent agent;
  agent.run(Scenario::parse(steps(R"({"advance": 2.5})")), std::cout, std::cerr);
  EXPECT_DOUBLE_EQ(agent.loop().now(), 2.5);
}

TEST(Agent, PathsListTheTree) {
  Agent agent;
  std::ostringstream out, err;
  ASSERT_EQ(agent.run(Scenario::parse(
                          steps(R"({"set": "vemo/common", "attr": "vlanStatus", "key": 30})")),
                      out, err),
            0);
  std::vector<std::string> const paths = agent.paths();
  EXPECT_TRUE(std::is_sorted(paths.begin(), paths.end()));
  EXPECT_NE(std::find(paths.begin(), paths.end(), "vemo/common"), paths.end());
  EXPECT_NE(std::find(paths.begin(), paths.end(), "interface/status/eth/lag"), paths.end());
  EXPECT_NE(std::find(paths.begin(), paths.end(), "vemo/common/verifyData"), paths.end());
  EXPECT_NE(std::find(paths.begin(), paths.end(), "vemo/common/vlanStatus/30"), paths.end());
}

TEST(Agent, PlatformFaultsAndChipPathsAreCheckedBeforeAnythingRuns) {
  auto withPlatform = [](std::string const& platform, std::string const& body) {
    return R"({"platform": )" + platform + R"(, "steps": [)" + body + "]}";
  };
  Result r = runText(withPlatform(R"({"units": 0})", R"({"show": "port-channel"})"));
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("'units' must be a number from 1 to 32, found 0"), std::string::npos);
  r = runText(withPlatform(R"({"capacity": {"tcam": 4}})", R"({"show": "port-channel"})"));
  EXPECT_NE(r.err.find("no chip table 'tcam'"), std::string::npos) << r.err;
  r = runText(steps(R"({"show": "port-channel"}, {"fault": "lag", "answer": "slow"})"));
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("step 2 (fault lag): 'answer' must be ok, busy, full or failed"),
            std::string::npos)
      << r.err;
  // A lost command is a fault of the MAC table's indirect access only.
  r = runText(steps(R"({"fault": "mac", "answer": "lost"})"));
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("'lost' is a fault of the MAC table's indirect access"), std::string::npos)
      << r.err;
  r = runText(withPlatform(R"({"macAsync": true})", R"({"fault": "lag", "answer": "late"})"));
  EXPECT_EQ(r.status, 2);
  r = runText(withPlatform(R"({"macAsync": true})", R"({"fault": "mac", "answer": "late"})"));
  EXPECT_EQ(r.status, 0) << r.err;
  r = runText(steps(R"({"fault": "lag", "capacity": 4, "count": 2})"));
  EXPECT_NE(r.err.find("'count' goes with 'answer'"), std::string::npos) << r.err;
  r = runText(steps(R"({"set": "hw/lag", "attr": "Port-Channel1", "value": {}})"));
  EXPECT_NE(r.err.find("the chip is read-only to scenarios"), std::string::npos) << r.err;

  // A chip expectation that fails names the step and what the chip holds.
  r = runText(withPlatform(R"({"units": 2, "portsPerUnit": 8})", R"(
    {"set": "interface/status/eth/lag", "attr": "intfStatus", "key": "Port-Channel1"},
    {"set": "interface/status/eth/lag/intfStatus/Port-Channel1", "attr": "member",
     "key": "Ethernet9", "value": true},
    {"expect": "hw/lag/Port-Channel1", "attr": "hwId", "value": 1},
    {"expect": "hw/units/1", "attr": "ports", "value": 8},
    {"expect": "hw/lag/Port-Channel1/members", "attr": "Ethernet9",
     "value": {"collecting": true, "distributing": false}})"));
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err,
            "step 5 (expect hw/lag/Port-Channel1/members Ethernet9): expected "
            "{\"collecting\":true,\"distributing\":false}, found "
            "{\"collecting\":true,\"distributing\":true}\n");
}

}  // namespace
}  // namespace vemo::agent
