// The MAC SM over the simulated chip, driven by random traffic, configuration, router MACs, aging,
// flushes and a chip that answers busy or full, against what must hold once the faults stop: the
// FDB status is the best source of every pair, the chip holds exactly what the SM programmed,
// and verification finds nothing.
#include <gtest/gtest.h>

#include <random>

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
