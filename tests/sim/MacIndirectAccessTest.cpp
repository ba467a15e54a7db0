#include <gtest/gtest.h>

#include "Sim/MacAddrHelper.h"

namespace {

using Bridging::EntryType;
using Bridging::MacVlanPair;
using Nepo::IntfId;
using sim::MacIndirectAccess;
using Fault = sim::MacIndirectAccess::Fault;

MacVlanPair pair(uint64_t n) {
  return MacVlanPair(Nepo::EthAddr::fromValue(0x020000000000 + n), Bridging::VlanId(10));
}
IntfId eth(uint32_t n) { return IntfId(Nepo::IntfKind::Ethernet, {n}); }

struct IndirectBench {
  IndirectBench() {
    helper->hwInit();
    helper->indirectAccessIs(wheel);
  }
  MacIndirectAccess& chipIo() { return *helper->indirectAccess(); }
  // Where the chip has the host, or none.
  IntfId at(uint64_t n) const {
    auto const* e = chip.macs().entry(sim::MacKey::of(pair(n)));
    return e ? e->intf : IntfId();
  }
  bool idle() { return chipIo().pendingSize() + chipIo().inProgressSize() == 0; }

  Zol::ActivityLoop loop{Zol::ActivityLoop::TimeMode::simulated};
  Tolm::TimerWheel wheel{loop};
  sim::Chip chip{sim::Chip::Config{1, 8}};
  Zol::Ptr<Vemo::VemoCommonSmData> cd = Vemo::vemoCommonSmDataFactory("cd", loop);
  Zol::Ptr<sim::MacAddrHelper> helper = Zol::make<sim::MacAddrHelper>(
      "macHelper", chip, cd, Zol::make<VemoTypes::MacTable>("driver"));
};

TEST(SimMacIndirectAccess, CommandsRunLaterInOrderAndSurviveLostLateAndRefusedAnswers) {
  IndirectBench b;
  auto& h = *b.helper;
  // Accepted at once, held by the chip once the command has run.
  EXPECT_EQ(h.addHost(pair(1), eth(1), 0, true, EntryType::configuredStaticMac),
            Vemo::MacProgramStatus::macProgramSuccess);
  EXPECT_EQ(b.at(1), IntfId());
  b.loop.advanceBy(0.01);
  EXPECT_EQ(b.at(1), eth(1));
  // Two writes of one key in flight: they run in the order they were started.
  h.addHost(pair(1), eth(2), 0, true, EntryType::configuredStaticMac);
  b.loop.runUntilIdle();
  h.addHost(pair(1), eth(3), 0, true, EntryType::configuredStaticMac);
  b.loop.advanceBy(0.2);
  EXPECT_EQ(b.at(1), eth(3));
  EXPECT_TRUE(b.idle());

  // A lost command is written again after the time-out; a late answer is not waited for; a
  // parity error is retried.
  b.chipIo().faultIs(Fault::lost, 1);
  h.addHost(pair(2), eth(4), 0, true, EntryType::configuredStaticMac);
  b.loop.advanceBy(0.5);
  EXPECT_EQ(b.at(2), IntfId());
  b.loop.advanceBy(1.0);
  EXPECT_EQ(b.at(2), eth(4));
  b.chipIo().faultIs(Fault::late, 1);
  h.removeHost(pair(2), EntryType::configuredStaticMac);
  b.loop.advanceBy(0.01);
  EXPECT_EQ(b.at(2), IntfId());
  b.chipIo().faultIs(Fault::parity, 1);
  h.addHost(pair(3), eth(5), 0, true, EntryType::configuredStaticMac);
  b.loop.advanceBy(5);
  EXPECT_EQ(b.at(3), eth(5));
  EXPECT_TRUE(b.idle());

  // No room: the command waits in overflow and goes in once there is room.
  b.chip.capacityIs(sim::Table::mac, b.chip.macs().size());
  h.addHost(pair(4), eth(6), 0, true, EntryType::configuredStaticMac);
  b.loop.advanceBy(1);
  EXPECT_EQ(b.chipIo().overflowSize(), 1u);
  b.chip.capacityIs(sim::Table::mac, 1000);
  b.loop.advanceBy(b.chipIo().updateOverflowAddressDelay() + 1);
  EXPECT_EQ(b.at(4), eth(6));
  EXPECT_TRUE(b.idle());
  EXPECT_EQ(b.chipIo().overflowSize(), 0u);
}

TEST(SimMacIndirectAccess, ARemoteWriteWaitsForTheCommandsOfItsKeySoThatNoneUndoesIt) {
  IndirectBench b;
  auto& h = *b.helper;
  IntfId const vti(Nepo::IntfKind::Vxlan, {1});
  auto remote = [&](uint64_t n) {
    return h.addRemoteHost(pair(n), vti, 7, 0, true, EntryType::configuredRemoteMac, false);
  };
  h.addHost(pair(1), eth(1), 0, true, EntryType::configuredStaticMac);
  EXPECT_EQ(remote(1), Vemo::MacProgramStatus::macProgramBusy);
  EXPECT_EQ(remote(2), Vemo::MacProgramStatus::macProgramSuccess);  // another key goes at once
  // Run, but in progress until the programmer polls it.
  b.loop.advanceBy(0.01);
  EXPECT_EQ(b.at(1), eth(1));
  EXPECT_EQ(remote(1), Vemo::MacProgramStatus::macProgramBusy);
  b.loop.advanceBy(0.2);
  EXPECT_EQ(remote(1), Vemo::MacProgramStatus::macProgramSuccess);
  b.loop.advanceBy(2);
  EXPECT_EQ(b.at(1), vti);

  // A local write parked for room is withdrawn, so that it cannot land over the remote entry.
  b.chip.capacityIs(sim::Table::mac, b.chip.macs().size());
  h.addHost(pair(3), eth(3), 0, true, EntryType::configuredStaticMac);
  b.loop.advanceBy(1);
  ASSERT_EQ(b.chipIo().overflowSize(), 1u);
  EXPECT_EQ(remote(3), Vemo::MacProgramStatus::macProgramBusy);
  EXPECT_EQ(b.chipIo().overflowSize(), 0u);
  b.chip.capacityIs(sim::Table::mac, 1000);
  b.loop.advanceBy(0.2);
  EXPECT_EQ(remote(3), Vemo::MacProgramStatus::macProgramSuccess);
  b.loop.advanceBy(b.chipIo().updateOverflowAddressDelay() + 1);
  EXPECT_EQ(b.at(3), vti);

  // Coming home goes through the commands, like any local write.
  EXPECT_EQ(h.addLearntLocalAndRemoveRemoteHost(pair(3), eth(4), EntryType::learnedDynamicMac),
            Vemo::MacProgramStatus::macProgramSuccess);
  EXPECT_EQ(b.at(3), vti);
  b.loop.advanceBy(0.2);
  EXPECT_EQ(b.at(3), eth(4));
  EXPECT_TRUE(b.idle());
}

}  // namespace
