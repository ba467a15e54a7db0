// The MAC SM under test: every input it is built on, a recording helper whose answers a test
// scripts, and short names for keys and ports.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <deque>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "Vemo/MacAddrSm.h"

namespace mactest {

using Bridging::EntryType;
using Bridging::MacVlanPair;
using Nepo::IntfId;
using Vemo::MacProgramStatus;

inline IntfId eth(uint32_t n) { return IntfId(Nepo::IntfKind::Ethernet, {n}); }
inline IntfId po(uint32_t n) { return IntfId(Nepo::IntfKind::PortChannel, {n}); }
inline IntfId cpu() { return IntfId(Nepo::IntfKind::Cpu, {}); }
// Host n in VLAN vlan: 00:00:00:00:hh:ll.
inline MacVlanPair host(uint32_t n, uint16_t vlan = 10) {
  char mac[18];
  std::snprintf(mac, sizeof mac, "00:00:00:00:%02x:%02x", n >> 8 & 0xff, n & 0xff);
  return MacVlanPair(Nepo::EthAddr::fromString(mac), Bridging::VlanId(vlan));
}
inline std::string text(MacVlanPair const& k) {
  std::ostringstream os;
  os << k.macAddr() << "/" << k.vlanId().value();
  return os.str();
}

// Records each call as a line ("add 00:00:00:00:00:01/10 Ethernet1 configuredStaticMac static")
// and answers programming calls from answers (success once it is empty).
class RecordingHelper : public VemoHelper::VemoHelperMacAddrSm {
 public:
  RecordingHelper() : VemoHelperMacAddrSm("recordingHelper") {}

  MacProgramStatus addHost(MacVlanPair const& key, IntfId const& intf, Zol::U16 moves,
                           bool staticEntry, EntryType type) override {
    calls.push_back("add " + text(key) + " " + intf.stringValue() + " " +
                    std::string(Zol::enumName(type)) + (staticEntry ? " static" : " dynamic"));
    MacProgramStatus const s = answer();
    if (s == MacProgramStatus::macProgramSuccess) programmed[key] = intf;
    return s;
  }
  MacProgramStatus addRemoteHost(MacVlanPair const& key, IntfId const& intf, Zol::U32 nextHop,
                                 Zol::U16 moves, bool staticEntry, EntryType type,
                                 bool replacesLocal) override {
    calls.push_back("addRemote " + text(key) + " " + intf.stringValue() + " nh " +
                    std::to_string(nextHop) + " " + std::string(Zol::enumName(type)) +
                    (staticEntry ? " static" : " dynamic") +
                    (replacesLocal ? " replacesLocal" : ""));
    MacProgramStatus const s = answer();
    if (s == MacProgramStatus::macProgramSuccess) {
      programmed.erase(key);
      remote[key] = nextHop;
    }
    return s;
  }
  MacProgramStatus addLearntLocalAndRemoveRemoteHost(MacVlanPair const& key, IntfId const& intf,
                                                     EntryType type) override {
    calls.push_back("localForRemote " + text(key) + " " + intf.stringValue());
    MacProgramStatus const s = answer();
    if (s == MacProgramStatus::macProgramSuccess) remote.erase(key);
    return s;
  }
  Zol::U32 getMaxRemoteMacs() override { return maxRemote; }
  bool verifyRemoteHost(MacVlanPair const& key, Zol::U32 nextHop) override {
    return remote.contains(key) && remote[key] == nextHop;
  }
  bool verifyNumRemoteHost(Zol::U16 count) override { return remote.size() == count; }
  bool skipVemoVxlanRmacHandling() override { return false; }
  std::string persistentStorePath() override { return storePath; }
  MacProgramStatus removeHost(MacVlanPair const& key, EntryType type) override {
    calls.push_back("remove " + text(key) + " " + std::string(Zol::enumName(type)));
    MacProgramStatus const s = answer();
    if (s == MacProgramStatus::macProgramSuccess) {
      programmed.erase(key);
      remote.erase(key);
    }
    return s;
  }
  bool lastFullIsHashCollision() const override { return collision; }
  void flushAll() override { calls.push_back("flushAll"); }
  void flushVlan(Zol::U16 vlan) override { calls.push_back("flushVlan " + std::to_string(vlan)); }
  void flushVlanPort(int vlan, IntfId const& intf) override {
    calls.push_back("flushVlanPort " + std::to_string(vlan) + " " + intf.stringValue());
  }
  void flushVlanLag(int vlan, IntfId const& intf) override {
    calls.push_back("flushVlanLag " + std::to_string(vlan) + " " + intf.stringValue());
  }
  void configureAgingTime(int seconds) override {
    calls.push_back("agingTime " + std::to_string(seconds));
  }
  void enableLearning(IntfId const& intf, bool enable) override {
    calls.push_back("learning " + intf.stringValue() + (enable ? " on" : " off"));
    learning[intf] = enable;
  }
  void enableLearningOnVlan(Bridging::VlanId vlan, bool enable) override {
    calls.push_back("learning vlan " + std::to_string(vlan.value()) + (enable ? " on" : " off"));
    vlanLearning[vlan.value()] = enable;
  }
  bool verifyLearning(IntfId const& intf, bool enable) override {
    return learning.contains(intf) && learning[intf] == enable;
  }
  bool verifyLearningOnVlan(Bridging::VlanId vlan, bool enable) override {
    return vlanLearning.contains(vlan.value()) && vlanLearning[vlan.value()] == enable;
  }
  void hwInit() override {}
  void handleLinkStateAtInit() override {}
  void handleVerify() override {}

  // The calls since the last take.
  std::vector<std::string> take() { return std::exchange(calls, {}); }

  std::vector<std::string> calls;
  std::deque<MacProgramStatus> answers;
  bool collision = false;
  std::map<MacVlanPair, IntfId> programmed;
  std::map<MacVlanPair, Zol::U32> remote;
  Zol::U32 maxRemote = 1000;
  std::string storePath;
  std::map<IntfId, bool> learning;
  std::map<uint16_t, bool> vlanLearning;

 private:
  MacProgramStatus answer() {
    if (answers.empty()) return MacProgramStatus::macProgramSuccess;
    MacProgramStatus const s = answers.front();
    answers.pop_front();
    return s;
  }
};

// Records the host modes 802.1X sets.
class RecordingDot1xHelper : public VemoHelper::VemoHelperDot1x {
 public:
  RecordingDot1xHelper() : VemoHelperDot1x("dot1xHelper") {}
  void setHostMode(IntfId const& intf, Dot1x::HostMode mode) override { modes[intf] = mode; }
  std::map<IntfId, Dot1x::HostMode> modes;
};

// Every input of the SM, Ethernet1 to Ethernet8 up and switched, and the SM once start() runs.
class MacSmTest : public testing::Test {
 protected:
  MacSmTest() {
    for (uint32_t n = 1; n <= 8; ++n) {
      config->switchIntfConfigIs(eth(n));
      intfStatus->intfStatusIs(eth(n))->linkStatusIs(Interface::LinkStatus::linkUp);
    }
  }
  ~MacSmTest() override { sm = {}; }

  // The SM over the recording helper, or over chip when given.
  void start(Zol::Ptr<VemoHelper::VemoHelperMacAddrSm> const& chip = {}) {
    sm = Vemo::macAddrSmFactory(
        cd, Zol::make<Vemo::VemoCommonMulticastData>("mcast"), macTable, hwMacTable, status,
        flushRequests, flushReplies, config, Zol::make<Interface::AllEthPhyIntfConfigDir>("ethCfg"),
        intfStatus, Zol::make<Vemo::VlanHelper>("vlanHelper"), mlagHosts, mlag,
        chip ? chip : Zol::Ptr<VemoHelper::VemoHelperMacAddrSm>(helper), fsf, vxlanConfig,
        remoteMacInfo, evpnMacs, dot1xHosts, dot1xStatus, dot1xHelper, l2RibIn, l2RibOut, groups,
        hwIds, routerMacs, nonAging, {}, vtepStatus, vtepGroupStatus);
    sm->initializedIs(true);
    loop.runUntilIdle();
  }

  // The chip driver's reports.
  void learn(MacVlanPair const& key, IntfId const& intf) {
    hwMacTable->entryIs(key,
                        VemoTypes::MacAddressTableEntry(key, intf, EntryType::learnedDynamicMac));
  }
  void age(MacVlanPair const& key) { hwMacTable->entryDel(key); }

  void configure(MacVlanPair const& key, IntfId const& intf,
                 EntryType type = EntryType::configuredStaticMac, double time = 0) {
    auto fdb = config->fdbConfig(key.vlanId());
    if (!fdb) fdb = config->fdbConfigIs(key.vlanId());
    fdb->configuredHostIs(key.macAddr(), Bridging::HostEntry(intf, type, 0, time));
  }
  void unconfigure(MacVlanPair const& key) {
    config->fdbConfig(key.vlanId())->configuredHostDel(key.macAddr());
  }

  // The FDB status entry as "Ethernet1 learnedDynamicMac moves 0", or "none".
  std::string fdb(MacVlanPair const& key) const {
    auto const s = status->fdbStatus(key.vlanId());
    if (!s || !s->learnedHostHas(key.macAddr())) return "none";
    Bridging::HostEntry const& h = s->learnedHost(key.macAddr());
    return h.intf().stringValue() + " " + std::string(Zol::enumName(h.entryType())) + " moves " +
           std::to_string(h.moves());
  }
  size_t verify(std::string const& request) {
    cd->verifyData()->requestVerify(request);
    loop.runUntilIdle();
    return cd->verifyData()->mismatchesOf(request);
  }

  Zol::ActivityLoop loop{Zol::ActivityLoop::TimeMode::simulated, 1000};
  Zol::Ptr<Vemo::VemoCommonSmData> cd = Vemo::vemoCommonSmDataFactory("vemo", loop);
  Zol::Ptr<VemoTypes::MacTable> macTable = Zol::make<VemoTypes::MacTable>("macTable");
  Zol::Ptr<VemoTypes::MacTable> hwMacTable = Zol::make<VemoTypes::MacTable>("hwMacTable");
  Zol::Ptr<Bridging::Status> status = Zol::make<Bridging::Status>("bridgingStatus");
  Zol::Ptr<Bridging::AllHostTableFlushRequestDir> flushRequests =
      Zol::make<Bridging::AllHostTableFlushRequestDir>("flushRequests");
  Zol::Ptr<Bridging::HostTableFlushReplyDir> flushReplies =
      Zol::make<Bridging::HostTableFlushReplyDir>("flushReplies");
  Zol::Ptr<Bridging::Config> config = Zol::make<Bridging::Config>("bridgingConfig");
  Zol::Ptr<Interface::AllEthPhyIntfStatusDir> intfStatus =
      Zol::make<Interface::AllEthPhyIntfStatusDir>("ethStatus");
  Zol::Ptr<Mlag::Status> mlag = Zol::make<Mlag::Status>("mlag");
  Zol::Ptr<Bridging::RouterMacTable> routerMacs = Zol::make<Bridging::RouterMacTable>("routerMacs");
  Zol::Ptr<Bridging::NonAgingMacStatus> nonAging =
      Zol::make<Bridging::NonAgingMacStatus>("nonAging");
  Zol::Ptr<Mlag::HostTable> mlagHosts = Zol::make<Mlag::HostTable>("mlagHosts");
  Zol::Ptr<FastServerFailover::Status> fsf = Zol::make<FastServerFailover::Status>("fsf");
  Zol::Ptr<Vxlan::VxlanConfigDir> vxlanConfig = Zol::make<Vxlan::VxlanConfigDir>("vxlan");
  Zol::Ptr<Vemo::VXLAN::RemoteMacInfoDir> remoteMacInfo =
      Zol::make<Vemo::VXLAN::RemoteMacInfoDir>("remoteMacInfo");
  Zol::Ptr<Bridging::RemoteMacTable> evpnMacs = Zol::make<Bridging::RemoteMacTable>("evpnMacs");
  Zol::Ptr<Dot1x::HostTable> dot1xHosts = Zol::make<Dot1x::HostTable>("dot1x");
  Zol::Ptr<Dot1x::Status> dot1xStatus = Zol::make<Dot1x::Status>("dot1xStatus");
  Zol::Ptr<RecordingDot1xHelper> dot1xHelper = Zol::make<RecordingDot1xHelper>();
  Zol::Ptr<L2Rib::HostInput> l2RibIn = Zol::make<L2Rib::HostInput>("l2RibIn");
  Zol::Ptr<L2Rib::HostOutput> l2RibOut = Zol::make<L2Rib::HostOutput>("l2RibOut");
  Zol::Ptr<Vemo::SwTunnelGroupIdManager> groups = Vemo::swTunnelGroupIdManagerFactory(cd);
  Zol::Ptr<Vemo::ObjTupleToHwId> hwIds = Zol::make<Vemo::ObjTupleToHwId>("hwIds");
  Zol::Ptr<Vemo::VXLAN::VtepStatusDir> vtepStatus =
      Zol::make<Vemo::VXLAN::VtepStatusDir>("vtepStatus");
  Zol::Ptr<Vemo::VXLAN::VtepGroupStatusDir> vtepGroupStatus =
      Zol::make<Vemo::VXLAN::VtepGroupStatusDir>("vtepGroupStatus");
  Zol::Ptr<RecordingHelper> helper = Zol::make<RecordingHelper>();
  Zol::Ptr<Vemo::MacAddrSm> sm;
};

// Trace levels are global: switched off again whatever the test asserts.
struct TraceOn {
  explicit TraceOn(std::string_view setting) { Zol::Trace::settingIs(setting); }
  ~TraceOn() { Zol::Trace::settingIs(""); }
  Zol::Trace::Capture capture;
};

}  // namespace mactest
