// The MAC programmer's passes: write, poll, and retry what overflowed.
#include "Vemo/VemoMacProgrammer.h"

#include <algorithm>

#include "Zol/Syslog.h"
#include "Zol/Text.h"
#include "Zol/Trace.h"

ZOL_TRACE_MODULE("VemoMacProgrammer")

namespace Vemo {

namespace {

Zol::SyslogMessage const macProgrammerOverflow{
    "MAC_PROGRAMMER_OVERFLOW", LOG_WARNING,
    "MAC table full: address commands wait for room and are retried every %d seconds or more",
    "The switching ASIC refused MAC table entries for want of room; they are kept and written "
    "again as room is freed.",
    "Clear dynamic mac table entries, or reduce the number of static entries."};

// Statuses after which the chip did not do the command and doing it again is harmless.
bool retried(MacProgramStatus s) {
  return s == MacProgramStatus::macProgramBusy ||
         s == MacProgramStatus::macProgramFlushInProgress ||
         s == MacProgramStatus::macProgramParityError;
}

}  // namespace

// "cmd 12 addHost 02:00:00:00:00:01 vlan 10 Ethernet1", for the traces.
static std::ostream& operator<<(std::ostream& os, IndirectAccessMacCmd const& cmd) {
  os << "cmd " << cmd.transactionId() << " " << Zol::enumName(cmd.addrOp()) << " "
     << cmd.key().key().macAddr() << " vlan " << cmd.key().key().vlanId().value();
  if (!cmd.intf().isEmpty()) os << " " << cmd.intf();
  return os;
}

VemoMacProgrammer::VemoMacProgrammer(Tolm::TimerWheel& timerWheel)
    : wheel_(timerWheel),
      updatePendingAddressClock_(timerWheel, [this] { updatePendingAddresses(); }),
      pollReqClock_(timerWheel, [this] { pollInProgressCmds(); }),
      updateOverflowAddressClock_(timerWheel, [this] { updateOverflowAddresses(); }) {
  handleInitialized();
}

VemoMacProgrammer::~VemoMacProgrammer() = default;

MacProgramStatus VemoMacProgrammer::writeToHw(IndirectAccessMacCmd&) {
  ZOL_TRACE(0, "Call to unimplemented function writeToHw");
  return MacProgramStatus::macProgramFailed;
}

MacProgramStatus VemoMacProgrammer::writeToHwShadow(IndirectAccessMacCmd&) {
  ZOL_TRACE(0, "Call to unimplemented function writeToHwShadow");
  return MacProgramStatus::macProgramFailed;
}

VemoMacProgrammer::CmdPtr VemoMacProgrammer::pendingAddrOp(MacEntryKey const& key) const {
  auto const it = pendingAddrOp_.find(key);
  return it == pendingAddrOp_.end() ? CmdPtr() : it->second;
}
VemoMacProgrammer::CmdPtr VemoMacProgrammer::inProgAddrOp(MacEntryKey const& key) const {
  auto const it = inProgAddrOp_.find(key);
  return it == inProgAddrOp_.end() ? CmdPtr() : it->second;
}
VemoMacProgrammer::CmdPtr VemoMacProgrammer::overflowAddrOp(MacEntryKey const& key) const {
  auto const it = overflowAddrOp_.find(key);
  return it == overflowAddrOp_.end() ? CmdPtr() : it->second;
}

void VemoMacProgrammer::armUpdate(Zol::Seconds at) {
  if (suspendPending_) return;
  if (!updatePendingAddressClock_.armed() || updatePendingAddressClock_.timeMin() > at) {
    updatePendingAddressClock_.timeMinIs(at);
  }
}

void VemoMacProgrammer::armPoll() {
  if (suspendInProgress_ || inProgMacOp_.empty()) return;
  Zol::Seconds const at = now() + pollReqFreq_;
  if (!pollReqClock_.armed() || pollReqClock_.timeMin() > at) {
    ZOL_TRACE(8, "In-progress cmd exists. Schedule review.");
    pollReqClock_.timeMinIs(at);
  }
}

void VemoMacProgrammer::suspendPendingIs(bool v) {
  suspendPending_ = v;
  if (v) {
    updatePendingAddressClock_.timeMinIs(Tolm::TimerWheel::never);
  } else if (!pendingMacOp_.empty()) {
    armUpdate(now());
  }
}

void VemoMacProgrammer::suspendInProgressIs(bool v) {
  suspendInProgress_ = v;
  if (v) {
    pollReqClock_.timeMinIs(Tolm::TimerWheel::never);
  } else {
    armPoll();
  }
}

void VemoMacProgrammer::supersede(CmdPtr const& old) {
  old->valid_ = false;
  onCommandDone(*old);
}

void VemoMacProgrammer::handleAddrOp(CmdPtr const& cmd) {
  if (!cmd->isAddrOp()) vemoAssert("cmd->addrOp()");
  cmd->transactionId_ = nextTransactionId_++;
  ZOL_TRACE(9, "virtual void Vemo::VemoMacProgrammer::handleAddrOp(CmdPtr const&) " << *cmd);
  MacEntryKey const& key = cmd->key();
  if (auto const it = overflowAddrOp_.find(key); it != overflowAddrOp_.end()) {
    ZOL_TRACE(8, *it->second << " with same key in overflow queue, remove it");
    CmdPtr const old = it->second;
    overflowAddrOp_.erase(it);
    supersede(old);
  }
  if (auto const it = inProgAddrOp_.find(key); it != inProgAddrOp_.end()) {
    ZOL_TRACE(8, *it->second << " with same key in in-progress queue, mark it out-of-date");
    CmdPtr const old = it->second;
    inProgAddrOp_.erase(it);
    supersede(old);
  }
  if (auto const it = pendingAddrOp_.find(key); it != pendingAddrOp_.end()) {
    ZOL_TRACE(8, *it->second << " with same key in in-progress queue, mark it out-of-date");
    CmdPtr const old = it->second;
    pendingAddrOp_.erase(it);
    supersede(old);
  }
  queue(cmd);
}

void VemoMacProgrammer::handleFlushOp(CmdPtr const& cmd) {
  if (cmd->isAddrOp()) vemoAssert("!( cmd->addrOp() )");
  cmd->transactionId_ = nextTransactionId_++;
  ZOL_TRACE(9, "virtual void Vemo::VemoMacProgrammer::handleFlushOp(CmdPtr const&) " << *cmd);
  queue(cmd);
}

void VemoMacProgrammer::queue(CmdPtr const& cmd) {
  cmd->valid_ = true;
  cmd->status_ = MacProgramStatus::macProgramInProgress;
  if (cmd->isAddrOp()) {
    // One live command per key: whatever was there was superseded or taken out first.
    if (pendingAddrOp_.contains(cmd->key())) vemoAssert("!pendingAddrOpHas( key )");
    if (overflowAddrOp_.contains(cmd->key())) vemoAssert("!overflowAddrOpHas( key )");
    pendingAddrOp_.insert_or_assign(cmd->key(), cmd);
  } else {
    pendingFlushOp_.insert_or_assign(cmd->transactionId(), cmd);
  }
  pendingMacOp_.push_back(cmd);
  armUpdate(now());
}

void VemoMacProgrammer::finish(CmdPtr const& cmd) {
  inProgMacOp_.erase(cmd->transactionId());
  if (cmd->isAddrOp()) {
    auto const it = inProgAddrOp_.find(cmd->key());
    if (it != inProgAddrOp_.end() && it->second == cmd) inProgAddrOp_.erase(it);
  }
  if (cmd->valid_) onCommandDone(*cmd);
}

void VemoMacProgrammer::updatePendingAddresses() {
  ZOL_TRACE(9, "void Vemo::VemoMacProgrammer::updatePendingAddresses()");
  if (suspendPending_) return;
  Zol::Seconds const deadline = now() + updateQuantum_;
  Zol::U32 written = 0;
  while (!pendingMacOp_.empty()) {
    CmdPtr const cmd = pendingMacOp_.front();
    if (!cmd->valid_) {
      ZOL_TRACE(8, *cmd << " is out-of-date, skip it");
      pendingMacOp_.pop_front();
      continue;
    }
    cmd->execStartTime_ = now();
    inProgMacOp_.insert_or_assign(cmd->transactionId(), cmd);
    MacProgramStatus const status = cmd->shadowOnly() ? writeToHwShadow(*cmd) : writeToHw(*cmd);
    ZOL_TRACE(8, *cmd << " write to hardware result : " << Zol::enumName(status));
    if (status == MacProgramStatus::macProgramBusy) {
      inProgMacOp_.erase(cmd->transactionId());
      updatePendingAddressClock_.timeMinIs(now() + updateDelay_);
      armPoll();
      return;
    }
    pendingMacOp_.pop_front();
    if (cmd->isAddrOp()) {
      auto const it = pendingAddrOp_.find(cmd->key());
      if (it == pendingAddrOp_.end() || it->second != cmd) {
        vemoAssert("pendingAddrOpHas( cmd->key() )");
      }
      pendingAddrOp_.erase(it);
    } else {
      pendingFlushOp_.erase(cmd->transactionId());
    }
    if (status == MacProgramStatus::macProgramInProgress) {
      if (cmd->isAddrOp()) inProgAddrOp_.insert_or_assign(cmd->key(), cmd);
    } else if (status == MacProgramStatus::macProgramSuccess) {
      cmd->status_ = status;
      finish(cmd);
    } else {
      vemoAssert("writeToHw answered " + std::string(Zol::enumName(status)) +
                 ": only success, inProgress and busy are answers at write time");
    }
    if (++written % updateQuantumofTimes_ == 0 && now() >= deadline) {
      ZOL_TRACE(8, "Schedule review for pending items");
      updatePendingAddressClock_.timeMinIs(now());
      armPoll();
      return;
    }
  }
  ZOL_TRACE(8, "Nothing is pending. Stop");
  armPoll();
}

void VemoMacProgrammer::handleCmdResponse(Zol::U64 transactionId, Zol::U32 tblIndex,
                                          MacProgramStatus status) {
  auto const it = inProgMacOp_.find(transactionId);
  if (it == inProgMacOp_.end()) {
    ZOL_TRACE(5, "handleCmdResponse: Can't find in progress command for transaction id: "
                     << transactionId);
    return;
  }
  it->second->status_ = status;
  it->second->tblIndex_ = tblIndex;
}

void VemoMacProgrammer::overflow(CmdPtr const& cmd) {
  inProgMacOp_.erase(cmd->transactionId());
  inProgAddrOp_.erase(cmd->key());
  overflowAddrOp_.insert_or_assign(cmd->key(), cmd);
  onCommandOverflow(*cmd);
  if (!overflowLogged_) {
    overflowLogged_ = true;
    Zol::Syslog::emit(macProgrammerOverflow, static_cast<int>(updateOverflowAddressDelay_));
  }
  if (!updateOverflowAddressClock_.armed()) {
    updateOverflowAddressClock_.timeMinIs(now() + updateOverflowAddressDelay_);
  }
}

void VemoMacProgrammer::pollInProgressCmds() {
  ZOL_TRACE(9, "void Vemo::VemoMacProgrammer::pollInProgressCmds()");
  if (suspendInProgress_) return;
  Zol::Seconds const start = now();
  Zol::Seconds const deadline = start + pollReqQuantum_;
  Zol::U32 polled = 0;
  // Handling a command may take it out of the map, which moves the others: the walk goes by
  // transaction id.
  for (auto it = inProgMacOp_.lower_bound(inProgMacOpBookmark_); it != inProgMacOp_.end();
       it = inProgMacOp_.upper_bound(inProgMacOpBookmark_)) {
    CmdPtr const cmd = it->second;
    inProgMacOpBookmark_ = it->first;
    MacProgramStatus const status = cmd->status_;
    bool const timedOut = status == MacProgramStatus::macProgramInProgress &&
                          start - cmd->execStartTime_ > maxExecTime_;
    if (!cmd->valid_) {
      // Superseded: only its answer was awaited, and not for ever.
      if (status != MacProgramStatus::macProgramInProgress || timedOut) finish(cmd);
    } else if (status == MacProgramStatus::macProgramSuccess ||
               status == MacProgramStatus::macProgramFailed) {
      if (status == MacProgramStatus::macProgramFailed) ZOL_TRACE(5, *cmd << " failed");
      finish(cmd);
    } else if (cmd->isAddrOp() && !inProgAddrOp_.contains(cmd->key())) {
      vemoAssert("inProgAddrOpHas( key )");
    } else if (status == MacProgramStatus::macProgramFull && cmd->isAddrOp()) {
      overflow(cmd);
    } else if (retried(status) || timedOut) {
      if (status == MacProgramStatus::macProgramInProgress) {
        ZOL_TRACE(5, *cmd << " poll .. Time out");
        ZOL_TRACE(5, *cmd << " had stalled");
      }
      inProgMacOp_.erase(cmd->transactionId());
      inProgAddrOp_.erase(cmd->key());
      // A new transaction: an answer to the old one is no longer awaited.
      cmd->transactionId_ = nextTransactionId_++;
      queue(cmd);
    } else if (status != MacProgramStatus::macProgramInProgress) {
      ZOL_TRACE(0, *cmd << " unexpected mac program status " << Zol::enumName(status));
      finish(cmd);
    }
    if (++polled % pollReqQuantumofTimes_ == 0 && now() >= deadline) {
      // Resumes after the last command handled.
      ++inProgMacOpBookmark_;
      pollReqClock_.timeMinIs(now());
      return;
    }
  }
  inProgMacOpBookmark_ = 0;
  armPoll();
}

void VemoMacProgrammer::updateOverflowAddresses() {
  ZOL_TRACE(9, "void Vemo::VemoMacProgrammer::updateOverflowAddresses()");
  updateOverflowAddressDelay_ =
      pendingMacOp_.empty()
          ? std::max(updateOverflowAddressDelay_ - 1, updateOverflowAddressMinDelay_)
          : std::min(2 * updateOverflowAddressDelay_, updateOverflowAddressMaxDelay_);
  Zol::Seconds const deadline = now() + updateQuantum_;
  Zol::U32 moved = 0;
  auto it = overflowAddrOp_.lower_bound(overflowAddrOpBookmark_);
  while (it != overflowAddrOp_.end()) {
    CmdPtr const cmd = it->second;
    it = overflowAddrOp_.erase(it);
    cmd->transactionId_ = nextTransactionId_++;
    queue(cmd);
    if (++moved % updateQuantumofTimes_ == 0 && now() >= deadline) break;
  }
  overflowAddrOpBookmark_ = it == overflowAddrOp_.end() ? MacEntryKey() : it->first;
  if (overflowAddrOp_.empty()) {
    overflowLogged_ = false;
    return;
  }
  ZOL_TRACE(6, "Overflow address exists, schedule review with delay: "
                   << updateOverflowAddressDelay_
                   << " updateOverflowAddressDelay:" << updateOverflowAddressDelay_);
  updateOverflowAddressClock_.timeMinIs(now() + updateOverflowAddressDelay_);
}

}  // namespace Vemo
