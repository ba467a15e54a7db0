#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <random>

#include "MacTestSupport.h"
#include "Vemo/VemoMacProgrammer.h"
#include "Zol/Syslog.h"

namespace mactest {
namespace {

using Cmd = Vemo::IndirectAccessMacCmd;
using CmdType = Vemo::IndirectAccessMacCmdType;
using testing::ElementsAre;
using testing::IsEmpty;

Vemo::MacEntryKey hwKey(uint32_t n) {
  return Vemo::MacEntryKey(host(n), Vemo::MacHwType::macHwKeyBridge);
}
Zol::Ptr<Cmd> add(uint32_t n, uint32_t port = 1) {
  return Zol::make<Cmd>(CmdType::addHost, hwKey(n), eth(port), EntryType::configuredStaticMac,
                        true);
}
Zol::Ptr<Cmd> remove(uint32_t n) { return Zol::make<Cmd>(CmdType::removeHost, hwKey(n)); }
Zol::Ptr<Cmd> flushVlan(uint16_t vlan) {
  return Zol::make<Cmd>(CmdType::flushVlan, Vemo::MacEntryKey(host(0, vlan), {}));
}

// A chip driver whose answers the test scripts: write answers come from writes (inProgress once it
// is empty), and the chip runs a command when it is written, unless the script loses it.
class ScriptedDriver : public Vemo::VemoMacProgrammer {
 public:
  using VemoMacProgrammer::VemoMacProgrammer;

  Vemo::MacProgramStatus writeToHw(Cmd& cmd) override {
    Vemo::MacProgramStatus const s = next(writes, MacProgramStatus::macProgramInProgress);
    log.push_back(std::string(Zol::enumName(cmd.addrOp())) + " " +
                  std::to_string(cmd.key().key().macAddr().stringValue().back() - '0') + " " +
                  std::string(Zol::enumName(s)));
    if (s != MacProgramStatus::macProgramBusy) written.push_back(cmd.transactionId());
    return s;
  }
  void onCommandDone(Cmd const& cmd) override { ++done; }
  void onCommandOverflow(Cmd const& cmd) override { ++overflowed; }

  std::deque<MacProgramStatus> writes;
  std::vector<std::string> log;
  std::vector<Zol::U64> written;
  int done = 0, overflowed = 0;

 private:
  static MacProgramStatus next(std::deque<MacProgramStatus>& q, MacProgramStatus d) {
    if (q.empty()) return d;
    MacProgramStatus const s = q.front();
    q.pop_front();
    return s;
  }
};

class ProgrammerTest : public testing::Test {
 protected:
  Zol::ActivityLoop loop{Zol::ActivityLoop::TimeMode::simulated, 100};
  Tolm::TimerWheel wheel{loop};
  ScriptedDriver driver{wheel};
};

TEST_F(ProgrammerTest, OnlyTheNewestOperationOfAKeyIsWrittenAndBusyStopsThePass) {
  driver.handleAddrOp(add(1));
  loop.runUntilIdle();
  EXPECT_THAT(driver.log, ElementsAre("addHost 1 macProgramInProgress"));
  Zol::U64 const first = driver.written.back();
  // Remove, then add again, while the first add runs: the remove is skipped when reached.
  driver.handleAddrOp(remove(1));
  driver.handleAddrOp(add(1, 2));
  EXPECT_FALSE(driver.inProgAddrOp(hwKey(1)));
  loop.runUntilIdle();
  EXPECT_THAT(driver.log,
              ElementsAre("addHost 1 macProgramInProgress", "addHost 1 macProgramInProgress"));
  EXPECT_EQ(driver.inProgAddrOp(hwKey(1))->intf(), eth(2));
  // The superseded command's answer is still awaited, then it goes.
  EXPECT_EQ(driver.inProgressSize(), 2u);
  driver.handleCmdResponse(first, 7, MacProgramStatus::macProgramSuccess);
  driver.handleCmdResponse(driver.written.back(), 8, MacProgramStatus::macProgramSuccess);
  // An answer nobody waits for changes nothing.
  driver.handleCmdResponse(999, 1, MacProgramStatus::macProgramFull);
  loop.advanceBy(driver.pollReqFreq());
  EXPECT_EQ(driver.inProgressSize(), 0u);
  EXPECT_EQ(driver.overflowSize(), 0u);

  // A busy head: nothing behind it is written in that pass, and it is tried again first.
  driver.log.clear();
  driver.writes = {MacProgramStatus::macProgramBusy};
  driver.handleAddrOp(add(2));
  driver.handleAddrOp(add(3));
  driver.handleFlushOp(flushVlan(20));
  loop.runUntilIdle();
  EXPECT_THAT(driver.log, ElementsAre("addHost 2 macProgramBusy"));
  loop.advanceBy(driver.updateDelay());
  EXPECT_THAT(driver.log,
              ElementsAre("addHost 2 macProgramBusy", "addHost 2 macProgramInProgress",
                          "addHost 3 macProgramInProgress", "flushVlan 0 macProgramInProgress"));
}

TEST_F(ProgrammerTest, RetriesRefusalsTimesOutLostCommandsAndBacksOffWhileFull) {
  Zol::Syslog::Capture syslog;
  driver.handleAddrOp(add(1));
  driver.handleAddrOp(add(2));
  driver.handleAddrOp(add(3));
  driver.handleAddrOp(add(4));
  loop.runUntilIdle();
  ASSERT_EQ(driver.written.size(), 4u);
  driver.handleCmdResponse(driver.written[0], 1, MacProgramStatus::macProgramParityError);
  driver.handleCmdResponse(driver.written[1], 2, MacProgramStatus::macProgramFailed);
  driver.handleCmdResponse(driver.written[2], 3, MacProgramStatus::macProgramFull);
  // The fourth is lost: no answer ever.
  driver.log.clear();
  loop.advanceBy(driver.pollReqFreq());
  // The parity error is written again; the failure is dropped; the full one waits.
  EXPECT_THAT(driver.log, ElementsAre("addHost 1 macProgramInProgress"));
  EXPECT_EQ(driver.overflowSize(), 1u);
  EXPECT_EQ(driver.overflowed, 1);
  ASSERT_EQ(syslog.records().size(), 1u);
  EXPECT_EQ(syslog.records()[0].key, "MAC_PROGRAMMER_OVERFLOW");
  driver.handleCmdResponse(driver.written.back(), 1, MacProgramStatus::macProgramSuccess);
  // The lost one times out and is written again.
  loop.advanceBy(driver.maxExecTime());
  EXPECT_THAT(driver.log,
              ElementsAre("addHost 1 macProgramInProgress", "addHost 4 macProgramInProgress"));
  driver.handleCmdResponse(driver.written.back(), 4, MacProgramStatus::macProgramSuccess);
}

TEST_F(ProgrammerTest, TheOverflowRetryBacksOffWhileThePendingQueueIsBusy) {
  // Eight commands answered full; each overflow pass then moves one back.
  driver.updateQuantumIs(0);
  driver.updateQuantumofTimesIs(1);
  for (uint32_t n = 1; n <= 8; ++n) driver.handleAddrOp(add(n));
  loop.runUntilIdle();
  for (Zol::U64 id : driver.written) {
    driver.handleCmdResponse(id, 0, MacProgramStatus::macProgramFull);
  }
  loop.advanceBy(driver.pollReqFreq());
  ASSERT_EQ(driver.overflowSize(), 8u);
  // A busy chip holds another command in the pending queue.
  driver.writes.assign(100000, MacProgramStatus::macProgramBusy);
  driver.handleAddrOp(add(9));
  loop.runUntilIdle();
  // The time between two overflow passes, in whole seconds.
  auto nextPass = [&] {
    size_t const before = driver.overflowSize();
    double const start = loop.now();
    while (driver.overflowSize() == before && loop.now() - start < 60) loop.advanceBy(0.5);
    return std::lround(loop.now() - start);
  };
  std::vector<long> gaps;
  for (int i = 0; i < 5; ++i) gaps.push_back(nextPass());
  EXPECT_THAT(gaps, ElementsAre(5, 10, 20, 30, 30));
  // The chip takes everything now: the queue empties and the wait falls back a second a pass.
  driver.writes.assign(100, MacProgramStatus::macProgramSuccess);
  EXPECT_EQ(nextPass(), 30);
  EXPECT_EQ(driver.updateOverflowAddressDelay(), 29);
  EXPECT_EQ(nextPass(), 29);
  EXPECT_EQ(driver.updateOverflowAddressDelay(), 28);
}

// A chip that runs commands as a real one does under faults: busy (not run), success (run),
// in progress then answered later: done, full or a parity error (not run), late (run, answered
// after the time-out) or lost (not run, never answered).
class FaultyChip : public Vemo::VemoMacProgrammer {
 public:
  FaultyChip(Tolm::TimerWheel& wheel, uint32_t seed) : VemoMacProgrammer(wheel), rng_(seed) {}

  enum class Fate { busy, success, done, full, parity, late, lost };
  Vemo::MacProgramStatus writeToHw(Cmd& cmd) override {
    Fate const f = faults ? static_cast<Fate>(pick(7)) : pollOnly ? Fate::done : Fate::success;
    if (f == Fate::busy) return MacProgramStatus::macProgramBusy;
    ++writes;
    bool const runs = f == Fate::success || f == Fate::done || f == Fate::late;
    if (runs) run(cmd);
    if (f == Fate::success) return MacProgramStatus::macProgramSuccess;
    double const after = f == Fate::late ? maxExecTime() + 1 : 0.01 * (1 + pick(20));
    MacProgramStatus const answer = f == Fate::full     ? MacProgramStatus::macProgramFull
                                    : f == Fate::parity ? MacProgramStatus::macProgramParityError
                                                        : MacProgramStatus::macProgramSuccess;
    if (f != Fate::lost) answers.push_back({now() + after, cmd.transactionId(), answer});
    return MacProgramStatus::macProgramInProgress;
  }
  void onCommandDone(Cmd const&) override { ++done; }

  // Delivers the answers that are due, as the driver's completion events do.
  void deliver() {
    std::vector<Answer> due;
    std::erase_if(answers, [&](Answer const& a) {
      if (a.at > now()) return false;
      due.push_back(a);
      return true;
    });
    for (Answer const& a : due) handleCmdResponse(a.id, 0, a.status);
  }
  uint32_t pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng_); }

  struct Answer {
    double at;
    Zol::U64 id;
    MacProgramStatus status;
  };
  std::vector<Answer> answers;
  std::map<Vemo::MacEntryKey, IntfId> table;
  bool faults = true;
  bool pollOnly = false;
  uint64_t writes = 0, done = 0;

 private:
  void run(Cmd const& cmd) {
    if (cmd.addrOp() == CmdType::addHost) table[cmd.key()] = cmd.intf();
    if (cmd.addrOp() == CmdType::removeHost) table.erase(cmd.key());
  }
  std::mt19937 rng_;
};

TEST(ProgrammerModel, EveryKeyEndsWithItsLastRequestedOperationThroughFaultsAndThePollPath) {
  constexpr uint32_t kKeys = 300;
  for (bool pollOnly : {false, true}) {
    SCOPED_TRACE(pollOnly ? "answered through responses" : "answered at once");
    Zol::ActivityLoop loop{Zol::ActivityLoop::TimeMode::simulated};
    Tolm::TimerWheel wheel{loop};
    FaultyChip chip(wheel, pollOnly ? 7 : 11);
    chip.pollOnly = pollOnly;
    std::map<Vemo::MacEntryKey, IntfId> want;
    uint64_t submitted = 0;
    for (int step = 0; step < 4000; ++step) {
      uint32_t const n = 1 + chip.pick(kKeys);
      uint32_t const what = chip.pick(10);
      if (what < 6) {
        IntfId const port = eth(1 + chip.pick(8));
        chip.handleAddrOp(add(n, port.stringValue().back() - '0'));
        want[hwKey(n)] = eth(port.stringValue().back() - '0');
      } else if (what < 9) {
        chip.handleAddrOp(remove(n));
        want.erase(hwKey(n));
      } else {
        // Flushes of a VLAN no host is in: they queue and run, but leave the table alone.
        chip.handleFlushOp(flushVlan(99));
      }
      ++submitted;
      loop.advanceBy(0.001 * chip.pick(50));
      chip.deliver();
      // One live command per key, after every step.
      for (uint32_t k = 1; k <= kKeys; ++k) {
        int const live = !!chip.pendingAddrOp(hwKey(k)) + !!chip.inProgAddrOp(hwKey(k)) +
                         !!chip.overflowAddrOp(hwKey(k));
        ASSERT_LE(live, 1) << "key " << k << " at step " << step;
      }
    }
    chip.faults = false;
    for (int s = 0; s < 1200; ++s) {
      loop.advanceBy(0.1);
      chip.deliver();
    }
    EXPECT_EQ(chip.pendingSize(), 0u);
    EXPECT_EQ(chip.inProgressSize(), 0u);
    EXPECT_EQ(chip.overflowSize(), 0u);
    EXPECT_EQ(chip.table, want);
    // Every command ended once: done, or superseded by a newer one of its key.
    EXPECT_EQ(chip.done, submitted);
    EXPECT_GT(chip.writes, submitted);
  }
}

}  // namespace
}  // namespace mactest
