// The MAC SM over the simulated chip, driven by random traffic, configuration, router MACs, aging,
// flushes and a chip that answers busy or full, against what must hold once the faults stop: the
// FDB status is the best source of every pair, the chip holds exactly what the SM programmed,
// and verification finds nothing.
#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <set>

#include "MacTestSupport.h"
#include "Sim/MacAddrHelper.h"
#include "Zol/Syslog.h"

namespace mactest {
namespace {

constexpr uint32_t kHosts = 24;
constexpr uint32_t kPorts = 6;
constexpr uint16_t kVlans[] = {10, 20};
constexpr Zol::U32 kAgingTime = 60;

class MacSmModelTest : public MacSmTest {
 protected:
  MacSmModelTest() {
    chipHelper = Zol::make<sim::MacAddrHelper>("macHelper", chip, cd, hwMacTable);
    chipHelper->programmedTableIs(macTable);
    for (uint32_t n = 1; n <= kPorts; ++n) {
      chip.macs().vlanMembershipIs(eth(n), sim::VlanMembership::trunkOf({kVlans[0], kVlans[1]}));
    }
    config->hostAgingTimeIs(kAgingTime);
  }
  ~MacSmModelTest() override { sm = {}; }

  void startOnChip() {
    helper = {};
    start(chipHelper);
  }

  uint32_t pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng); }
  MacVlanPair anyHost() { return host(1 + pick(kHosts), kVlans[pick(2)]); }

  // A host speaks on a port: the chip learns it there, unless a static entry holds it.
  void send(MacVlanPair const& key, IntfId const& port) {
    sim::Packet p;
    p.intf = port;
    p.vlan = key.vlanId().value();
    p.srcMac = key.macAddr();
    p.dstMac = Nepo::EthAddr::fromString("ff:ff:ff:ff:ff:ff");
    chip.classify(p);
  }

  void randomStep() {
    MacVlanPair const key = anyHost();
    IntfId const port = eth(1 + pick(kPorts));
    switch (pick(10)) {
      case 0:
      case 1:
      case 2:
        send(key, port);
        break;
      case 3:
        configure(key, port, EntryType::configuredStaticMac, loop.now());
        break;
      case 4:
        configure(key, port, EntryType::configuredDynamicMac, loop.now());
        break;
      case 5:
        if (config->fdbConfigHas(key.vlanId())) unconfigure(key);
        break;
      case 6:
        if (routerMacs->routerMacHas(key)) {
          routerMacs->routerMacDel(key);
        } else if (pick(3) == 0) {
          routerMacs->routerMacIs(key, true);
        }
        break;
      case 7: {
        static Zol::U32 id = 0;
        auto const dir = flushRequests->requestDirIs("model");
        dir->requestDelAll();
        Bridging::VlanIdOrNone const vlan(pick(2) ? key.vlanId().value() : 0);
        dir->requestIs(++id, Bridging::HostTableFlushRequest(vlan, pick(2) ? port : IntfId()));
        break;
      }
      case 8:
        chip.faultIs(sim::Table::mac, pick(2) ? sim::Status::busy : sim::Status::full, 1 + pick(3));
        break;
      default:
        loop.advanceBy(1 + pick(20));
        break;
    }
    loop.runUntilIdle();
  }

  // What the FDB status must hold: the router MAC, else a configured static entry, else what the
  // chip ages for the pair (learned, or a configured dynamic entry the SM programmed).
  std::map<MacVlanPair, std::string> expected() const {
    std::map<MacVlanPair, std::string> out;
    for (auto const& [key, on] : routerMacs->routerMacAll()) out[key] = "Cpu static";
    for (auto const& [fid, fdb] : config->fdbConfigAll()) {
      for (auto const& [mac, h] : fdb->configuredHostAll()) {
        MacVlanPair const key(mac, fid);
        if (h.entryType() == EntryType::configuredStaticMac && !out.contains(key)) {
          out[key] = h.intf().stringValue() + " static";
        }
      }
    }
    for (auto const& [key, e] : chip.macs().entries()) {
      if (e.aging && !out.contains(key.pair())) out[key.pair()] = e.intf.stringValue() + " dynamic";
    }
    return out;
  }
  std::map<MacVlanPair, std::string> published() const {
    std::map<MacVlanPair, std::string> out;
    for (auto const& [fid, s] : status->fdbStatusAll()) {
      for (auto const& [mac, h] : s->learnedHostAll()) {
        out[MacVlanPair(mac, fid)] =
            h.intf().stringValue() +
            (Vemo::MacAddrSm::agesInHardware(h.entryType()) ? " dynamic" : " static");
      }
    }
    return out;
  }
  std::map<MacVlanPair, std::string> chipStatics() const {
    std::map<MacVlanPair, std::string> out;
    for (auto const& [key, e] : chip.macs().entries()) {
      if (!e.aging) out[key.pair()] = e.intf.stringValue() + " static";
    }
    return out;
  }

  sim::Chip chip{sim::Chip::Config{1, 8}};
  // For a chip written through indirect-access commands; outlives the helper's timers.
  Tolm::TimerWheel wheel{loop};
  Zol::Ptr<sim::MacAddrHelper> chipHelper;
  std::mt19937 rng{20261125};
};

TEST_F(MacSmModelTest, ConvergesToTheBestSourceOfEveryPairAfterRandomChurnAndFaults) {
  startOnChip();
  for (int round = 0; round < 6; ++round) {
    for (int step = 0; step < 400; ++step) randomStep();
    // The faults stop; everything dynamic ages (a probe host at least), which frees the room
    // kept-aside entries wait for, and some hosts speak again.
    chip.faultIs(sim::Table::mac, sim::Status::ok, 0);
    send(host(500), eth(1));
    loop.advanceBy(kAgingTime + 2);
    for (int n = 0; n < 20; ++n) send(anyHost(), eth(1 + pick(kPorts)));
    loop.advanceBy(1);
    loop.runUntilIdle();

    SCOPED_TRACE("round " + std::to_string(round));
    EXPECT_EQ(sm->updateListSize(), 0u);
    EXPECT_EQ(sm->fullEntriesSize(), 0u);
    auto const want = expected();
    auto const have = published();
    EXPECT_EQ(have, want);
    std::map<MacVlanPair, std::string> statics;
    for (auto const& [key, what] : have) {
      if (what.ends_with(" static")) statics[key] = what;
    }
    EXPECT_EQ(chipStatics(), statics);
    EXPECT_EQ(verify("round" + std::to_string(round)), 0u);
  }
  // The churn did reach the chip, and the chip did refuse.
  EXPECT_GT(chip.macs().learns(), 100u);
  EXPECT_GT(chipHelper->calls("refused"), 50u);
}

TEST_F(MacSmModelTest, AnAsynchronousChipsRefusalTakesTheEntryOutUntilItIsWritten) {
  chipHelper->indirectAccessIs(wheel);
  startOnChip();
  Zol::Syslog::Capture syslog;
  configure(host(1), eth(1));
  loop.advanceBy(0.2);
  EXPECT_EQ(fdb(host(1)), "Ethernet1 configuredStaticMac moves 0");
  // No room for a second entry: accepted at first, then refused by the chip.
  chip.capacityIs(sim::Table::mac, 1);
  configure(host(2), eth(2));
  loop.runUntilIdle();
  EXPECT_EQ(fdb(host(2)), "Ethernet2 configuredStaticMac moves 0");
  loop.advanceBy(0.2);
  EXPECT_EQ(fdb(host(2)), "none");
  EXPECT_EQ(sm->fullEntriesSize(), 1u);
  ASSERT_EQ(syslog.records().size(), 2u);
  EXPECT_EQ(syslog.records()[0].key, "MAC_PROGRAMMER_OVERFLOW");
  EXPECT_EQ(syslog.records()[1].key, "MAC_HOST_TABLE_FULL");
  EXPECT_EQ(verify("while full"), 0u);
  // Room again: the programmer's retry writes it, and the SM publishes it.
  chip.capacityIs(sim::Table::mac, 100);
  loop.advanceBy(6);
  EXPECT_EQ(fdb(host(2)), "Ethernet2 configuredStaticMac moves 0");
  EXPECT_EQ(sm->fullEntriesSize(), 0u);
  EXPECT_EQ(chipStatics().size(), 2u);
  EXPECT_EQ(verify("after"), 0u);
}

}  // namespace
}  // namespace mactest

// Every source of the SM, with a VXLAN tunnel interface (VLAN 10; VLAN 20 is carried by none) and
// an MLAG peer, over the recording helper and a model of the chip's one entry a pair (the
// simulated chip stands for the local part elsewhere). After every random step: each pair holds
// what a reference chooser written from the SM's rules picks, the references recount from the
// remote host status table, the chip holds what the FDB status says; every few steps the SM's
// own verification finds nothing.
namespace mactest {
namespace {

using Vemo::MacCandidate;
using Vemo::SwTunnelGroupId;

IntfId vxlan1() { return IntfId(Nepo::IntfKind::Vxlan, {1}); }
// A port of the MLAG peer's own, not an MLAG interface: its hosts are behind the peer link here.
IntfId peerOnlyPort() { return eth(20); }
Nepo::IpAddr ip(char const* text) { return Nepo::IpAddr::fromString(text); }
constexpr char const* kVteps[] = {"10.0.0.2", "10.0.0.3", "10.0.0.4"};
L2Rib::ObjTuple ribObject(uint32_t n) {
  return L2Rib::ObjTuple(L2Rib::ObjType::vxlanTunnelObj, 41 + n);
}
constexpr uint32_t kMacs = 12;
constexpr int kSteps = 800;
constexpr int kVerifyEvery = 25;

// The chip behind the recording helper: one entry a pair, whoever wrote it. Its aging local
// entries are in the driver's table, as a chip driver reports them: a learn, a move or a
// configured dynamic write puts one there; any other write over the pair, a removal, an age or a
// flush takes it out. Nothing is learned over a static entry, except over a host another switch
// reported, which a learn on another port moves.
class ModelChip : public RecordingHelper {
 public:
  struct Local {
    IntfId intf;
    EntryType type;
    bool aging;
  };

  explicit ModelChip(Zol::Ptr<VemoTypes::MacTable> const& driver) : driver_(driver) {}

  MacProgramStatus addHost(MacVlanPair const& key, IntfId const& intf, Zol::U16 moves,
                           bool staticEntry, EntryType type) override {
    MacProgramStatus const s = RecordingHelper::addHost(key, intf, moves, staticEntry, type);
    if (s != MacProgramStatus::macProgramSuccess) return s;
    remote.erase(key);
    remoteKind_.erase(key);
    local[key] = Local{intf, type, !staticEntry};
    if (staticEntry) {
      unreport(key);
    } else {
      report(key, intf);
      echoes.insert(key);
    }
    return s;
  }
  MacProgramStatus addRemoteHost(MacVlanPair const& key, IntfId const& intf, Zol::U32 nextHop,
                                 Zol::U16 moves, bool staticEntry, EntryType type,
                                 bool replacesLocal) override {
    MacProgramStatus const s =
        RecordingHelper::addRemoteHost(key, intf, nextHop, moves, staticEntry, type, replacesLocal);
    if (s != MacProgramStatus::macProgramSuccess) return s;
    local.erase(key);
    remoteKind_[key] = Kind{type, !staticEntry};
    unreport(key);
    return s;
  }
  MacProgramStatus addLearntLocalAndRemoveRemoteHost(MacVlanPair const& key, IntfId const& intf,
                                                     EntryType type) override {
    MacProgramStatus const s = RecordingHelper::addLearntLocalAndRemoveRemoteHost(key, intf, type);
    if (s == MacProgramStatus::macProgramSuccess) remoteKind_.erase(key);
    return s;
  }
  MacProgramStatus removeHost(MacVlanPair const& key, EntryType type) override {
    MacProgramStatus const s = RecordingHelper::removeHost(key, type);
    if (s != MacProgramStatus::macProgramSuccess) return s;
    local.erase(key);
    remoteKind_.erase(key);
    unreport(key);
    return s;
  }
  void flushVlanPort(int vlan, IntfId const& intf) override {
    RecordingHelper::flushVlanPort(vlan, intf);
    std::vector<MacVlanPair> gone;
    for (auto const& [key, e] : driver_->entryAll()) {
      if (e.intf() == intf && (vlan == 0 || key.vlanId().value() == vlan)) gone.push_back(key);
    }
    for (MacVlanPair const& key : gone) age(key);
  }

  // A host speaks on port: whether the chip learned it there (or moved it).
  bool learn(MacVlanPair const& key, IntfId const& port) {
    if (auto const it = local.find(key); it != local.end()) {
      if (!it->second.aging && !movedByLearns(it->second.type)) return false;
      if (it->second.intf == port) return false;
    }
    if (auto const it = remoteKind_.find(key);
        it != remoteKind_.end() && !it->second.aging && !movedByLearns(it->second.type)) {
      return false;
    }
    if (driver_->entryHas(key) && driver_->entry(key).intf() == port) return false;
    local.erase(key);
    programmed.erase(key);
    remote.erase(key);
    remoteKind_.erase(key);
    echoes.erase(key);
    report(key, port);
    return true;
  }
  // The host fell silent: its aging entry goes.
  void age(MacVlanPair const& key) {
    if (auto const it = local.find(key); it != local.end() && it->second.aging) {
      local.erase(it);
      programmed.erase(key);
    }
    echoes.erase(key);
    unreport(key);
  }

  std::map<MacVlanPair, Local> local;
  // Aging entries the SM wrote (configured dynamic hosts) rather than the chip learned.
  std::set<MacVlanPair> echoes;

 private:
  struct Kind {
    EntryType type;
    bool aging;
  };
  static bool movedByLearns(EntryType t) {
    return t == EntryType::peerDynamicMac || t == EntryType::peerDynamicRemoteMac ||
           t == EntryType::evpnDynamicRemoteMac || t == EntryType::evpnIntfDynamicMac;
  }

  void report(MacVlanPair const& key, IntfId const& intf) {
    driver_->entryIs(key, VemoTypes::MacAddressTableEntry(key, intf, EntryType::learnedDynamicMac));
  }
  void unreport(MacVlanPair const& key) {
    echoes.erase(key);
    if (driver_->entryHas(key)) driver_->entryDel(key);
  }

  Zol::Ptr<VemoTypes::MacTable> driver_;
  std::map<MacVlanPair, Kind> remoteKind_;
};

class MacSmAllSourcesModelTest : public MacSmTest, public testing::WithParamInterface<uint32_t> {
 protected:
  MacSmAllSourcesModelTest() {
    remoteMacInfo->vniInfo()->validVlanVniMapIs(
        Bridging::VlanId(10),
        Vemo::VXLAN::VniEntry(Vxlan::VniExtOrNone(10010), Bridging::VlanId(10), vxlan1()));
    vxlanConfig->vxlanConfigIs(vxlan1());
    cd->lagToPortIs(po(1), Vemo::VemoLagPortList());
    mlag->peerLinkIntfIs(eth(8));
    po1Is(Mlag::IntfState::intfStateUp);
    dot1xStatus->enabledIs(true);
    dot1xStatus->intfStatusIs(eth(3), Dot1x::IntfStatus(Dot1x::HostMode::multiHost, true));
    nextHopIs(0, nextId_++);
  }
  ~MacSmAllSourcesModelTest() override { sm = {}; }

  struct Learn {
    bool remote = false;
    double time = 0;
    SwTunnelGroupId group;
  };

  // -- Inputs.

  uint32_t pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng_); }
  double now() const { return loop.now(); }
  SwTunnelGroupId group(Nepo::IpAddr const& addr) const {
    return groups->getSwTunnelGroupIdForTunnelIp(addr);
  }
  SwTunnelGroupId vtepGroup(uint32_t n) const { return group(ip(kVteps[n])); }
  void nextHopIs(uint32_t vtep, uint32_t id) {
    auto s = vtepStatus->vtepStatus(vxlan1());
    if (!s) s = vtepStatus->vtepStatusIs(vxlan1());
    s->hwVtepInfoIs(vtepGroup(vtep),
                    Vemo::VXLAN::HwVtepInfo(vtepGroup(vtep), Vemo::VemoTunnelId(1 + vtep),
                                            Vemo::VemoNextHopId(id)));
  }
  void po1Is(Mlag::IntfState local) {
    mlag->intfStatusIs(po(1), Mlag::IntfStatus(local, Mlag::IntfState::intfStateUp));
  }
  bool mlagActive() const { return mlag->state() == Mlag::State::statePrimary; }
  bool po1LocalUp() const {
    return mlag->intfStatus(po(1)).localState() == Mlag::IntfState::intfStateUp;
  }
  bool singleHost(IntfId const& port) const {
    auto const it = dot1xHelper->modes.find(port);
    return it != dot1xHelper->modes.end() && it->second == Dot1x::HostMode::singleHost;
  }
  bool configured(MacVlanPair const& key) const {
    auto const fdb = config->fdbConfig(key.vlanId());
    return fdb && fdb->configuredHostHas(key.macAddr());
  }
  // A move count later than any the pair was given or published with, as a protocol peer that
  // saw them would announce a new move.
  uint32_t freshMoves(MacVlanPair const& key) {
    uint32_t m = seq_[key];
    if (l2RibIn->hostHas(key)) m = std::max(m, l2RibIn->host(key).moveCount());
    if (auto const s = status->fdbStatus(key.vlanId()); s && s->learnedHostHas(key.macAddr())) {
      m = std::max(m, s->learnedHost(key.macAddr()).moves());
    }
    return seq_[key] = m + 1;
  }
  // When a source that follows hosts by time saw the move it reports: now, or a little before, as
  // a report can come after a learn that happened since.
  double reportTime() { return now() - 2.5 * pick(5); }
  // -- The reference: which source the pair should be programmed from.

  static MacCandidate candidate(MacVlanPair const& key, IntfId const& intf, EntryType type,
                                SwTunnelGroupId group, uint32_t moves, double time,
                                uint32_t preference = 0,
                                std::optional<L2Rib::ObjTuple> tuple = std::nullopt) {
    return MacCandidate(key, intf, type, group, Tolm::Seqno32(moves), time,
                        static_cast<Zol::U8>(preference), false, tuple.value_or(L2Rib::ObjTuple()),
                        tuple.has_value());
  }
  // Sources that follow a host as it moves: against the chip's (or the data plane's) learn of
  // the host, the more recent move wins.
  static bool followsHost(EntryType t) {
    return t == EntryType::configuredDynamicMac || t == EntryType::peerDynamicMac ||
           t == EntryType::peerDynamicRemoteMac || t == EntryType::evpnDynamicRemoteMac ||
           t == EntryType::receivedRemoteMac || t == EntryType::evpnIntfDynamicMac;
  }

  // Every source's candidate for the pair, in the order they are weighed (the later of two equal
  // candidates wins).
  std::vector<MacCandidate> sources(MacVlanPair const& key) const {
    std::vector<MacCandidate> out;
    bool const tunnelled = key.vlanId().value() == 10;
    IntfId const cpuPort = cpu();
    if (l2RibOut->hostHas(key)) {
      L2Rib::HostOutputEntry const& h = l2RibOut->host(key);
      if (h.destType() == L2Rib::DestType::destIntf) {
        out.push_back(candidate(key, h.intf(), EntryType::evpnIntfDynamicMac, {}, h.moveCount(),
                                h.lastMoveTime()));
      } else if (tunnelled) {
        out.push_back(candidate(key, vxlan1(), EntryType::evpnDynamicRemoteMac, {}, h.moveCount(),
                                h.lastMoveTime(), 0, h.objTuple()));
      }
    }
    if (tunnelled && evpnMacs->remoteMacHas(key)) {
      Bridging::RemoteMacEntry const& e = evpnMacs->remoteMac(key);
      out.push_back(candidate(key, vxlan1(), EntryType::evpnDynamicRemoteMac, group(e.vtepAddr()),
                              e.moveCount(), e.lastMoveTime()));
    }
    auto const& received = remoteMacInfo->receivedHostTable()->receivedEntryAll();
    if (auto const it = received.find(key);
        tunnelled && remoteMacInfo->useReceivedHostTable() && it != received.end()) {
      out.push_back(candidate(key, vxlan1(), EntryType::receivedRemoteMac,
                              group(it->second.tunnelIpAddr()), it->second.moveCount().value(),
                              it->second.lastMoveTime(), it->second.preference()));
    }
    if (configured(key)) {
      Bridging::HostEntry const& h = config->fdbConfig(key.vlanId())->configuredHost(key.macAddr());
      // A configured dynamic host that aged stays out until it is configured again.
      if (h.entryType() != EntryType::configuredDynamicMac ||
          !agedConfiguredDynamic_.contains(key)) {
        out.push_back(candidate(key, h.intf(), h.entryType(), {}, h.moves(), h.lastMoveTime()));
      }
    }
    auto const vxlan = vxlanConfig->vxlanConfig(vxlan1());
    if (tunnelled && vxlan->remoteMacHas(key)) {
      out.push_back(candidate(key, vxlan1(), EntryType::configuredRemoteMac,
                              group(vxlan->remoteMac(key)), 0, 0));
    }
    if (routerMacs->routerMacHas(key)) {
      out.push_back(candidate(key, cpuPort, EntryType::routerMac, {}, 0, 0, 1));
    }
    if (mlagActive() && mlagHosts->hostEntryHas(key)) {
      Mlag::HostEntry const& h = mlagHosts->hostEntry(key);
      IntfId const local = h.intf() == po(1) && po1LocalUp() ? po(1) : eth(8);
      if (h.entryType() == EntryType::learnedDynamicMac) {
        out.push_back(
            candidate(key, local, EntryType::peerDynamicMac, {}, h.moves(), h.lastMoveTime()));
      } else if (h.entryType() == EntryType::configuredStaticMac) {
        out.push_back(
            candidate(key, local, EntryType::peerStaticMac, {}, h.moves(), h.lastMoveTime()));
      } else if (tunnelled) {
        out.push_back(candidate(key, vxlan1(), EntryType::peerDynamicRemoteMac,
                                group(h.tunnelIpAddr()), h.moves(), h.lastMoveTime()));
      }
    }
    if (dot1xHosts->hostHas(key)) {
      out.push_back(
          candidate(key, dot1xHosts->host(key).intf(), EntryType::dot1xAuthorizedMac, {}, 0, 0));
    }
    // A non-aging host stays where the chip last learned it.
    if (nonAging->hostHas(key) && nonAgingPort_.contains(key)) {
      out.push_back(candidate(key, nonAgingPort_.at(key), EntryType::nonAgingMac, {}, 0, 0));
    }
    if (fsf->failedServerHas(key)) {
      out.push_back(candidate(key, cpuPort, EntryType::fsfFailedServerMac, {}, 0, 0, 1));
    }
    return out;
  }

  // The latest learn of the pair, by the chip on a port or by the data plane behind the tunnel,
  // while it stands.
  Learn const* latestLearn(MacVlanPair const& key) const {
    Learn const* local = nullptr;
    Learn const* remote = nullptr;
    if (auto const it = learns_.find({key, false});
        it != learns_.end() && hwMacTable->entryHas(key) && !chip->echoes.contains(key)) {
      local = &it->second;
    }
    // The controller is the authority on remote hosts while it is used.
    if (auto const it = learns_.find({key, true});
        it != learns_.end() && remoteMacInfo->hostTable()->entryAll().contains(key) &&
        !remoteMacInfo->useReceivedHostTable()) {
      remote = &it->second;
    }
    if (local && remote) return local->time > remote->time ? local : remote;
    return local ? local : remote;
  }
  std::optional<MacCandidate> learned(MacVlanPair const& key) const {
    Learn const* l = latestLearn(key);
    if (!l) return std::nullopt;
    if (l->remote)
      return candidate(key, vxlan1(), EntryType::learnedRemoteMac, l->group, 0, l->time);
    return candidate(key, hwMacTable->entry(key).intf(), EntryType::learnedDynamicMac, {}, 0,
                     l->time);
  }

  bool resolvable(MacCandidate const& c) const {
    if (!c.intf().isVxlan()) return true;
    if (c.l2RibObjTupleSet()) return hwIds->hwIdHas(c.l2RibObjTuple());
    auto const s = vtepStatus->vtepStatus(vxlan1());
    return s && s->hwVtepInfoHas(c.swTunnelGroupId());
  }

  struct Choice {
    std::vector<MacCandidate> sources;
    std::optional<MacCandidate> best;  // of the sources
    std::optional<MacCandidate> learn;
    std::optional<MacCandidate> winner;
    bool waits = false;  // for its next hop
  };
  // The best source as the SM ranks them, unless the latest learn is at least as recent as a
  // best source that follows hosts (a tie goes to the host this switch sees itself).
  Choice choose(MacVlanPair const& key) const {
    Choice c;
    c.sources = sources(key);
    for (MacCandidate const& s : c.sources) {
      if (Vemo::betterEntry(s, c.best ? &*c.best : nullptr, *groups)) c.best = s;
    }
    c.learn = learned(key);
    c.winner = c.best;
    // A data-plane learn where the best source has the host already is no move.
    bool const samePlace =
        c.learn && c.best && c.learn->intf().isVxlan() && c.learn->intf() == c.best->intf() &&
        c.learn->swTunnelGroupId() == c.best->swTunnelGroupId() && !c.best->l2RibObjTupleSet();
    if (c.learn && !samePlace &&
        (!c.best ||
         (followsHost(c.best->entryType()) && c.learn->lastMoveTime() >= c.best->lastMoveTime()))) {
      c.winner = c.learn;
    }
    c.waits = c.winner && !resolvable(*c.winner);
    return c;
  }
  static std::string place(IntfId const& intf, EntryType type, SwTunnelGroupId group) {
    std::string out = intf.stringValue() + " " + std::string(Zol::enumName(type));
    if (intf.isVxlan()) out += " group " + std::to_string(group.value());
    return out;
  }
  static std::string place(MacCandidate const& c) {
    return place(c.intf(), c.entryType(), c.swTunnelGroupId());
  }
  // What the FDB status says the pair is programmed from.
  std::string published(MacVlanPair const& key) const {
    auto const s = status->fdbStatus(key.vlanId());
    if (!s || !s->learnedHostHas(key.macAddr())) return "none";
    Bridging::HostEntry const& h = s->learnedHost(key.macAddr());
    return place(h.intf(), h.entryType(),
                 remoteMacInfo->hostStatusTable()->statusEntry(key).swTunnelGroupId());
  }

  // -- The checks.

  // The FDB status against the reference. A winner that waits for its next hop leaves nothing
  // programmed, or what a source that still stands had programmed before it came.
  void checkChoices(std::vector<std::string>& faults) {
    for (uint32_t n = 1; n <= kMacs; ++n) {
      for (uint16_t vlan : {10, 20}) {
        MacVlanPair const key = host(n, vlan);
        Choice const c = choose(key);
        std::string const have = published(key);
        uint32_t moves = 0;
        if (auto const s = status->fdbStatus(key.vlanId()); s && s->learnedHostHas(key.macAddr())) {
          published_.insert(s->learnedHost(key.macAddr()).entryType());
          moves = s->learnedHost(key.macAddr()).moves();
        }
        // A learn taking the pair from another port or VTEP counts a move from there.
        auto const where = [](std::string const& p) {
          std::string const group =
              p.find(" group ") == std::string::npos ? std::string() : p.substr(p.find(" group "));
          return p.substr(0, p.find(' ')) + group;
        };
        auto const [was, wasMoves] = before_[key];
        before_[key] = {have, moves};
        if (c.learn && have == place(*c.learn) && where(was) != where(have) && was != "none" &&
            !was.empty() && moves < wasMoves + 1) {
          faults.push_back(text(key) + ": a move from " + was + " was not counted");
          suspects_.insert(key);
        }
        if (std::string& was = lastPublished_[key]; have != "none") {
          tunnelPortMoves_ += !was.empty() && was.starts_with("Vxlan") != have.starts_with("Vxlan");
          was = have;
        }
        waited_ += c.waits;
        std::set<std::string> want;
        if (!c.winner || c.waits) want.insert("none");
        if (c.winner && !c.waits) want.insert(place(*c.winner));
        if (c.waits) {
          for (MacCandidate const& s : c.sources) {
            if (resolvable(s)) want.insert(place(s));
          }
          if (c.learn && resolvable(*c.learn)) want.insert(place(*c.learn));
        }
        if (!want.contains(have)) {
          std::string w;
          for (std::string const& p : want) w += (w.empty() ? "" : " | ") + p;
          faults.push_back(text(key) + ": published " + have + ", expected " + w);
          suspects_.insert(key);
        }
        // A learn the chip lost to an entry programmed over it is gone; the data plane keeps
        // what it learned until it ages.
        if (c.learn && c.winner && !c.waits && place(*c.winner) != place(*c.learn) &&
            !latestLearn(key)->remote) {
          learns_.erase({key, false});
        }
      }
    }
  }

  // The references the SM holds, recounted from the remote host status table.
  void checkReferences(std::vector<std::string>& faults) const {
    std::map<uint64_t, uint32_t> nextHops, vlans, tunnelGroups;
    for (auto const& [key, e] : remoteMacInfo->hostStatusTable()->statusEntryAll()) {
      if (e.nextHopId().isValid()) ++nextHops[e.nextHopId().value()];
      ++vlans[key.vlanId().value()];
      if (!e.swTunnelGroupId().isEmpty()) ++tunnelGroups[e.swTunnelGroupId().value()];
    }
    auto const held = [](Zol::Ptr<Vemo::VXLAN::RefcountTable> const& t) {
      std::map<uint64_t, uint32_t> out;
      for (auto const& [index, v] : t->refcountAll()) out[index] = v.count();
      return out;
    };
    if (held(remoteMacInfo->nextHopIdRefcountTable()) != nextHops) {
      faults.push_back("next hop references differ from the remote host status table");
    }
    if (held(remoteMacInfo->vlanRefcountTable()) != vlans) {
      faults.push_back("VLAN references differ from the remote host status table");
    }
    if (held(groups->data()->refcountTable()) != tunnelGroups) {
      faults.push_back("tunnel group references differ from the remote host status table");
    }
  }

  // The next hop a programmed remote MAC must be behind: its tunnel group's, or its RIB object's.
  std::optional<uint32_t> nextHopOf(MacVlanPair const& key) const {
    Vemo::VXLAN::StatusEntry const e = remoteMacInfo->hostStatusTable()->statusEntry(key);
    if (e.swTunnelGroupId().isEmpty()) {
      if (!l2RibOut->hostHas(key) || !hwIds->hwIdHas(l2RibOut->host(key).objTuple())) {
        return std::nullopt;
      }
      return hwIds->hwId(l2RibOut->host(key).objTuple());
    }
    auto const s = vtepStatus->vtepStatus(vxlan1());
    if (!s || !s->hwVtepInfoHas(e.swTunnelGroupId())) return std::nullopt;
    return s->hwVtepInfo(e.swTunnelGroupId()).nextHopId().value();
  }

  // The chip holds what the FDB status says, remote MACs behind the right next hop.
  void checkHardware(std::vector<std::string>& faults) const {
    size_t locals = 0, remotes = 0;
    for (auto const& [fid, s] : status->fdbStatusAll()) {
      for (auto const& [mac, h] : s->learnedHostAll()) {
        MacVlanPair const key(mac, fid);
        std::string const what = text(key) + " " + place(h.intf(), h.entryType(), {});
        if (h.intf().isVxlan()) {
          ++remotes;
          std::optional<uint32_t> const nh = nextHopOf(key);
          if (!chip->remote.contains(key) || !nh || chip->remote.at(key) != *nh) {
            faults.push_back(what + " is not in the chip behind its next hop");
          }
        } else if (h.entryType() == EntryType::learnedDynamicMac) {
          if (!hwMacTable->entryHas(key) || hwMacTable->entry(key).intf() != h.intf() ||
              chip->echoes.contains(key) || chip->local.contains(key)) {
            faults.push_back(what + " is not learned so in the chip");
          }
        } else {
          ++locals;
          auto const it = chip->local.find(key);
          if (it == chip->local.end() || it->second.intf != h.intf() ||
              it->second.type != h.entryType()) {
            faults.push_back(what + " is not so in the chip");
          }
        }
      }
    }
    if (chip->local.size() != locals || chip->remote.size() != remotes) {
      faults.push_back("the chip holds " + std::to_string(chip->local.size()) + " local and " +
                       std::to_string(chip->remote.size()) + " remote entries, the FDB status " +
                       std::to_string(locals) + " and " + std::to_string(remotes));
    }
  }

  // -- The random operations, a quarter of a second apart so that no two moves tie (a source
  // that follows hosts by time may report a move from a little before; see reportTime).
  void learnOp(MacVlanPair const& key, IntfId const& port) {
    if (singleHost(port)) return;
    if (!chip->learn(key, port)) return;
    learns_[{key, false}] = Learn{false, now(), {}};
    if (nonAging->hostHas(key)) nonAgingPort_[key] = port;
    log("learn " + text(key) + " " + port.stringValue());
  }
  bool hasNextHop(uint32_t vtep) const {
    return vtepStatus->vtepStatus(vxlan1())->hwVtepInfoHas(vtepGroup(vtep));
  }
  // Each source names a few pairs only, drawn per seed, so that pairs do not all fill up with
  // every source (the chip then learns little) while every two sources still meet on some.
  enum Source : uint32_t {
    kConfig,
    kRouter,
    kNonAging,
    kFsf,
    kDot1x,
    kPeer,
    kEvpn,
    kReceived,
    kConfiguredRemote,
    kDataPlane,
    kRib,
    kSources
  };
  static constexpr uint32_t kPairsASource = 6;
  void drawSources() {
    for (uint32_t s = 0; s < kSources; ++s) {
      bool const tunnelOnly = s == kConfiguredRemote || s == kDataPlane;
      std::set<MacVlanPair> pairs;
      while (pairs.size() < kPairsASource) {
        pairs.insert(host(1 + pick(kMacs), tunnelOnly || pick(2) ? 10 : 20));
      }
      for (MacVlanPair const& key : pairs) allowed_[key].insert(s);
    }
  }
  // One of the pairs source s names.
  MacVlanPair pairOf(Source s) {
    std::vector<MacVlanPair> pairs;
    for (auto const& [key, sources] : allowed_) {
      if (sources.contains(s)) pairs.push_back(key);
    }
    return pairs[pick(static_cast<uint32_t>(pairs.size()))];
  }

  void randomStep() {
    loop.advanceBy(0.25);
    uint32_t const vtep = pick(3);
    char const* const vtepText = kVteps[vtep];
    bool const withdraw = pick(2) == 0;
    // A source of one of the pairs it names: withdrawn (or changed, when it can be) if present,
    // set if not.
    auto const churn = [&](Source s, bool changes, auto&& has, auto&& del, auto&& set) {
      MacVlanPair const key = pairOf(s);
      std::string const k = text(key);
      if (!has(key)) {
        set(key, k);
      } else if (withdraw || !changes) {
        del(key, k);
      } else {
        set(key, k);
      }
    };
    switch (pick(24)) {
      case 0:
      case 1:
      case 2:
      case 3: {
        // Half the time where a source that follows hosts has a say.
        Source const near[] = {kConfig, kPeer, kEvpn, kReceived, kRib};
        MacVlanPair const key =
            pick(2) ? pairOf(near[pick(5)]) : host(1 + pick(kMacs), pick(2) ? 10 : 20);
        learnOp(key, eth(1 + pick(4)));
        break;
      }
      case 4:
      case 5: {
        MacVlanPair const key = host(1 + pick(kMacs), pick(2) ? 10 : 20);
        if (!hwMacTable->entryHas(key)) break;
        if (chip->echoes.contains(key)) agedConfiguredDynamic_.insert(key);
        chip->age(key);
        before_[key] = {"none", 0};  // the host is gone: a learn after it counts afresh
        log("age " + text(key));
        break;
      }
      case 6:
        churn(
            kConfig, true, [&](MacVlanPair const& key) { return configured(key); },
            [&](MacVlanPair const& key, std::string const& k) {
              unconfigure(key);
              agedConfiguredDynamic_.erase(key);
              log("unconfigure " + k);
            },
            [&](MacVlanPair const& key, std::string const& k) {
              EntryType const type =
                  pick(2) ? EntryType::configuredStaticMac : EntryType::configuredDynamicMac;
              IntfId const port = eth(1 + pick(4));
              Bridging::HostEntry const entry(port, type, 0, reportTime());
              // The same configuration again is no change.
              if (configured(key) &&
                  config->fdbConfig(key.vlanId())->configuredHost(key.macAddr()) == entry) {
                return;
              }
              configure(key, port, type, entry.lastMoveTime());
              agedConfiguredDynamic_.erase(key);
              log("configure " + k + " " + port.stringValue() + " " +
                  std::string(Zol::enumName(type)));
            });
        break;
      case 7:
        churn(
            kRouter, false, [&](MacVlanPair const& key) { return routerMacs->routerMacHas(key); },
            [&](MacVlanPair const& key, std::string const& k) {
              routerMacs->routerMacDel(key);
              log("router del " + k);
            },
            [&](MacVlanPair const& key, std::string const& k) {
              routerMacs->routerMacIs(key, true);
              log("router " + k);
            });
        break;
      case 8:
        churn(
            kNonAging, false, [&](MacVlanPair const& key) { return nonAging->hostHas(key); },
            [&](MacVlanPair const& key, std::string const& k) {
              nonAging->hostDel(key);
              nonAgingPort_.erase(key);
              log("nonAging del " + k);
            },
            [&](MacVlanPair const& key, std::string const& k) {
              // It stays where the chip holds its learn, if it does.
              if (hwMacTable->entryHas(key) && !chip->echoes.contains(key)) {
                nonAgingPort_[key] = hwMacTable->entry(key).intf();
              }
              nonAging->hostIs(key, true);
              log("nonAging " + k);
            });
        break;
      case 9:
        churn(
            kFsf, false, [&](MacVlanPair const& key) { return fsf->failedServerHas(key); },
            [&](MacVlanPair const& key, std::string const& k) {
              fsf->failedServerDel(key);
              log("fsf del " + k);
            },
            [&](MacVlanPair const& key, std::string const& k) {
              fsf->failedServerIs(key, eth(1));
              log("fsf " + k);
            });
        break;
      case 10:
        churn(
            kDot1x, false, [&](MacVlanPair const& key) { return dot1xHosts->hostHas(key); },
            [&](MacVlanPair const& key, std::string const& k) {
              dot1xHosts->hostDel(key);
              log("dot1x del " + k);
            },
            [&](MacVlanPair const& key, std::string const& k) {
              IntfId const port = eth(3 + pick(2));
              dot1xHosts->hostIs(key, Dot1x::HostEntry(port));
              log("dot1x " + k + " " + port.stringValue());
            });
        break;
      case 11: {
        Dot1x::HostMode const mode =
            singleHost(eth(3)) ? Dot1x::HostMode::multiHost : Dot1x::HostMode::singleHost;
        dot1xStatus->intfStatusIs(eth(3), Dot1x::IntfStatus(mode, true));
        log("dot1x mode Ethernet3 " + std::string(Zol::enumName(mode)));
        break;
      }
      case 12: {
        // Its own learn, its own static entry, or (in VLAN 10) a remote MAC.
        uint32_t const kind = pick(3);
        churn(
            kPeer, true, [&](MacVlanPair const& key) { return mlagHosts->hostEntryHas(key); },
            [&](MacVlanPair const& key, std::string const& k) {
              mlagHosts->hostEntryDel(key);
              log("peer del " + k);
            },
            [&](MacVlanPair const& key, std::string const& k) {
              bool const remote = kind == 2;
              if (remote && key.vlanId().value() != 10) return;
              EntryType const type = kind == 0   ? EntryType::learnedDynamicMac
                                     : kind == 1 ? EntryType::configuredStaticMac
                                                 : EntryType::evpnDynamicRemoteMac;
              IntfId const intf = remote ? vxlan1() : pick(3) ? po(1) : peerOnlyPort();
              mlagHosts->hostEntryIs(key, Mlag::HostEntry(intf, type, freshMoves(key), reportTime(),
                                                          remote ? ip(vtepText) : Nepo::IpAddr()));
              log("peer " + k + " " + intf.stringValue() + " " + std::string(Zol::enumName(type)) +
                  (remote ? std::string(" ") + vtepText : ""));
            });
        break;
      }
      case 13:
        mlag->stateIs(mlagActive() ? Mlag::State::stateInactive : Mlag::State::statePrimary);
        log("mlag " + std::string(Zol::enumName(mlag->state())));
        break;
      case 14:
        po1Is(po1LocalUp() ? Mlag::IntfState::intfStateDown : Mlag::IntfState::intfStateUp);
        log(std::string("Port-Channel1 ") + (po1LocalUp() ? "up" : "down"));
        break;
      case 15:
        churn(
            kEvpn, true, [&](MacVlanPair const& key) { return evpnMacs->remoteMacHas(key); },
            [&](MacVlanPair const& key, std::string const& k) {
              evpnMacs->remoteMacDel(key);
              log("evpn del " + k);
            },
            [&](MacVlanPair const& key, std::string const& k) {
              uint32_t const moves = freshMoves(key);
              evpnMacs->remoteMacIs(
                  key, Bridging::RemoteMacEntry(ip(vtepText), EntryType::evpnDynamicRemoteMac,
                                                moves, now()));
              log("evpn " + k + " " + vtepText + " moves " + std::to_string(moves));
            });
        break;
      case 16: {
        auto const table = remoteMacInfo->receivedHostTable();
        churn(
            kReceived, true, [&](MacVlanPair const& key) { return table->receivedEntryHas(key); },
            [&](MacVlanPair const& key, std::string const& k) {
              table->receivedEntryDel(key);
              log("received del " + k);
            },
            [&](MacVlanPair const& key, std::string const& k) {
              uint32_t const preference = pick(4) == 0 ? 2 : 0;
              table->receivedEntryIs(
                  key, Vemo::VXLAN::ReceivedEntry(key, IntfId(), EntryType::receivedRemoteMac,
                                                  ip(vtepText), Tolm::Seqno32(freshMoves(key)),
                                                  now(), preference, false));
              log("received " + k + " " + vtepText + " preference " + std::to_string(preference));
            });
        break;
      }
      case 17: {
        bool const on = remoteMacInfo->useReceivedHostTable();
        auto const received = remoteMacInfo->receivedHostTable();
        remoteMacInfo->useReceivedHostTableIs(!on);
        log(std::string("useReceivedHostTable ") + (on ? "off" : "on"));
        break;
      }
      case 18: {
        auto const vxlan = vxlanConfig->vxlanConfig(vxlan1());
        churn(
            kConfiguredRemote, true,  // VLAN 10: the one a tunnel carries
            [&](MacVlanPair const& key) { return vxlan->remoteMacHas(key); },
            [&](MacVlanPair const& key, std::string const& k) {
              vxlan->remoteMacDel(key);
              log("configured remote del " + k);
            },
            [&](MacVlanPair const& key, std::string const& k) {
              vxlan->remoteMacIs(key, ip(vtepText));
              log("configured remote " + k + " " + vtepText);
            });
        break;
      }
      case 19: {
        auto const table = remoteMacInfo->hostTable();
        churn(
            kDataPlane, true,
            [&](MacVlanPair const& key) { return table->entryAll().contains(key); },
            [&](MacVlanPair const& key, std::string const& k) {
              table->entryDel(key);
              learns_.erase({key, true});
              log("data-plane age " + k);
            },
            [&](MacVlanPair const& key, std::string const& k) {
              // Seen behind the VTEP it was learned behind already, the host did not move.
              double time = now();
              if (auto const it = table->entryAll().find(key);
                  it != table->entryAll().end() &&
                  it->second.swTunnelGroupId() == vtepGroup(vtep)) {
                time = it->second.lastMoveTime();
              }
              table->entryIs(key, Vemo::VXLAN::HostEntry(key, vxlan1(), vtepGroup(vtep),
                                                         EntryType::learnedRemoteMac, time, 0,
                                                         Vemo::VXLAN::HostEntryHwState(),
                                                         Vemo::VXLAN::HostEntryOper::add));
              learns_[{key, true}] = Learn{true, time, vtepGroup(vtep)};
              log("data-plane learn " + k + " " + vtepText);
            });
        break;
      }
      case 20: {
        // Behind RIB object 0 or 1, or on a port.
        uint32_t const kind = pick(3);
        churn(
            kRib, true, [&](MacVlanPair const& key) { return l2RibOut->hostHas(key); },
            [&](MacVlanPair const& key, std::string const& k) {
              l2RibOut->hostDel(key);
              log("rib del " + k);
            },
            [&](MacVlanPair const& key, std::string const& k) {
              IntfId const port = pick(2) ? eth(1 + pick(4)) : po(1);
              l2RibOut->hostIs(
                  key, kind < 2 ? L2Rib::HostOutputEntry(L2Rib::Source::sourceBgp,
                                                         L2Rib::DestType::destVxlan, IntfId(),
                                                         ribObject(kind), freshMoves(key), now())
                                : L2Rib::HostOutputEntry(
                                      L2Rib::Source::sourceBgp, L2Rib::DestType::destIntf, port,
                                      L2Rib::ObjTuple(), freshMoves(key), reportTime()));
              log("rib " + k + " " +
                  (kind < 2 ? "object " + std::to_string(kind) : port.stringValue()));
            });
        break;
      }
      case 21: {
        L2Rib::ObjTuple const t = ribObject(pick(2));
        if (hwIds->hwIdHas(t) && withdraw) {
          hwIds->hwIdDel(t);
          log("rib object " + std::to_string(t.objId()) + " gone");
        } else if (!withdraw) {
          hwIds->hwIdIs(t, nextId_);
          log("rib object " + std::to_string(t.objId()) + " hwId " + std::to_string(nextId_++));
        }
        break;
      }
      case 22: {
        // A next hop still referenced is the platform's to keep: only an unused one goes.
        auto const s = vtepStatus->vtepStatus(vxlan1());
        if (hasNextHop(vtep) && withdraw) {
          Zol::U32 const id = s->hwVtepInfo(vtepGroup(vtep)).nextHopId().value();
          if (remoteMacInfo->nextHopIdRefcountTable()->refcountHas(id)) break;
          s->hwVtepInfoDel(vtepGroup(vtep));
          log(std::string("next hop of ") + vtepText + " gone");
        } else if (!withdraw) {
          nextHopIs(vtep, nextId_);
          log(std::string("next hop of ") + vtepText + " " + std::to_string(nextId_++));
        }
        break;
      }
      default:
        if (pick(2)) {
          for (uint32_t n = 1 + pick(3); n > 0; --n) {
            chip->answers.push_back(MacProgramStatus::macProgramBusy);
          }
          log("busy");
        } else {
          loop.advanceBy(1 + pick(5));
        }
        break;
    }
    settle();
  }

  // Runs until the SM is idle, a busy chip's retries included.
  void settle() {
    loop.runUntilIdle();
    for (int i = 0; i < 100 && sm->updateListSize() > 0; ++i) {
      loop.advanceBy(Vemo::MacAddrSm::kBusyRetryDelay);
    }
  }
  void log(std::string what) {
    char t[16];
    std::snprintf(t, sizeof t, "%8.2f ", now());
    log_.push_back(t + what);
  }
  // What led to the faults: every operation on the suspect pairs, and the last few of all.
  std::string story() const {
    std::string out;
    for (size_t i = 0; i < log_.size(); ++i) {
      bool mine = i + 12 >= log_.size();
      for (MacVlanPair const& key : suspects_) {
        if (log_[i].find(text(key)) != std::string::npos) mine = true;
      }
      if (mine) out += log_[i] + "\n";
    }
    return out;
  }

  Zol::Ptr<ModelChip> chip = Zol::make<ModelChip>(hwMacTable);
  std::mt19937 rng_{GetParam()};
  uint32_t nextId_ = 100;
  std::map<MacVlanPair, uint32_t> seq_;
  // The chip's latest learn of each pair (false) and the data plane's (true).
  std::map<std::pair<MacVlanPair, bool>, Learn> learns_;
  // Where the chip last learned each host.
  // Where the chip last learned each non-aging host, since it was made non-aging.
  std::map<MacVlanPair, IntfId> nonAgingPort_;
  std::set<MacVlanPair> agedConfiguredDynamic_;
  std::vector<std::string> log_;
  std::map<MacVlanPair, std::set<uint32_t>> allowed_;
  // What the run reached.
  std::set<EntryType> published_;
  std::map<MacVlanPair, std::string> lastPublished_;
  std::map<MacVlanPair, std::pair<std::string, uint32_t>> before_;  // the last step's place, moves
  size_t waited_ = 0;
  size_t tunnelPortMoves_ = 0;
  std::set<MacVlanPair> suspects_;
};

TEST_P(MacSmAllSourcesModelTest, EveryPairIsProgrammedFromItsBestSourceThroughRandomChurn) {
  drawSources();
  start(chip);
  for (int step = 1; step <= kSteps; ++step) {
    randomStep();
    std::vector<std::string> faults;
    if (sm->updateListSize() != 0 || sm->fullEntriesSize() != 0) faults.push_back("SM not idle");
    checkChoices(faults);
    checkReferences(faults);
    checkHardware(faults);
    if (step % kVerifyEvery == 0 || step == kSteps) {
      std::string const request = "step " + std::to_string(step);
      if (verify(request) != 0) {
        for (auto const& [seq, m] : cd->verifyData()->mismatchAll()) {
          if (m.request() == request) {
            faults.push_back("verification: " + m.text());
          }
        }
      }
    }
    if (!faults.empty()) {
      std::string all;
      for (std::string const& f : faults) all += "  " + f + "\n";
      FAIL() << "seed " << GetParam() << " step " << step << ":\n" << all << story();
    }
  }
  // The churn reached what it is for: local, configured, announced and CPU-bound entries in
  // hardware (the rarer kinds vary with the seed), winners waiting for their next hop, and hosts
  // moving between the tunnel and the ports.
  for (EntryType t :
       {EntryType::learnedDynamicMac, EntryType::configuredStaticMac,
        EntryType::evpnDynamicRemoteMac, EntryType::configuredRemoteMac, EntryType::routerMac,
        EntryType::fsfFailedServerMac, EntryType::dot1xAuthorizedMac}) {
    EXPECT_TRUE(published_.contains(t)) << Zol::enumName(t);
  }
  EXPECT_GT(waited_, 0u);
  EXPECT_GT(tunnelPortMoves_, 0u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, MacSmAllSourcesModelTest, testing::Range(1u, 21u));

}  // namespace
}  // namespace mactest
