// The simulated chip's MAC table written through indirect-access commands, as some chips' tables
// are: the driver (a Vemo::VemoMacProgrammer) starts a command, the chip runs it execDelay later,
// in the order the commands were started, and answers through handleCmdResponse. The table's own
// faults (busy, full, failed) answer when the command runs; these add the ways an indirect
// interface goes wrong: a parity error (the command did not run), a late answer (it ran; its
// answer comes after the programmer's time-out), a lost command (it did not run and never
// answers).
#pragma once

#include <cstdint>
#include <deque>
#include <functional>

#include "Sim/Chip.h"
#include "Vemo/VemoMacProgrammer.h"

namespace sim {

class MacIndirectAccess : public Vemo::VemoMacProgrammer {
 public:
  enum class Fault : uint8_t { none, parity, late, lost };

  MacIndirectAccess(Tolm::TimerWheel& wheel, Chip& chip);

  // The next count commands go wrong as kind says; none clears what is pending.
  void faultIs(Fault kind, uint32_t count);
  void execDelayIs(Zol::Seconds v) { execDelay_ = v; }
  Zol::Seconds execDelay() const { return execDelay_; }
  // How each address command ended: written (done, status success), refused for good (done,
  // failed), or parked for want of room (overflow); superseded commands are not reported.
  using Listener = std::function<void(Vemo::IndirectAccessMacCmd const& cmd, bool overflow)>;
  void listenerIs(Listener l) { listener_ = std::move(l); }
  // Commands started and not yet run.
  size_t running() const { return running_.size(); }
  // Whether a command for key is pending or in progress: a write made past this interface must
  // wait for it, or the command would undo the write when it runs.
  bool busyWith(Vemo::MacEntryKey const& key) const;
  uint64_t commandsRun() const { return commandsRun_; }

 protected:
  Vemo::MacProgramStatus writeToHw(Vemo::IndirectAccessMacCmd& cmd) override;
  void onCommandDone(Vemo::IndirectAccessMacCmd const& cmd) override {
    if (listener_ && cmd.valid() && cmd.isAddrOp()) listener_(cmd, false);
  }
  void onCommandOverflow(Vemo::IndirectAccessMacCmd const& cmd) override {
    if (listener_) listener_(cmd, true);
  }

 private:
  struct Running {
    Zol::Seconds due;
    Zol::U64 transactionId;
    Zol::Ptr<Vemo::IndirectAccessMacCmd> cmd;
    Fault fault;
  };
  struct Answer {
    Zol::Seconds due;
    Zol::U64 transactionId;
    Vemo::MacProgramStatus status;
  };
  void handleClock();
  void armClock();
  Status execute(Vemo::IndirectAccessMacCmd const& cmd);

  Chip& chip_;
  Zol::Seconds execDelay_ = 0.001;
  Fault faultKind_ = Fault::none;
  uint32_t faultCount_ = 0;
  std::deque<Running> running_;
  // Late answers, in the order they are due.
  std::deque<Answer> late_;
  Tolm::TimerWheel::Timer clock_;
  Listener listener_;
  uint64_t commandsRun_ = 0;
};

}  // namespace sim
