// The queue between MAC table changes and a chip whose MAC table is written through asynchronous
// indirect-access commands. A platform driver derives from VemoMacProgrammer and supplies
// writeToHw (and writeToHwShadow); the programmer decides when each command is written, keeps at
// most one live command per hardware key, polls the commands the chip is still executing, and
// parks the ones the table had no room for, retrying them with a back-off.
//
// A command goes pending (the FIFO pendingMacOp, and for an address command its key's entry in
// pendingAddrOp) -> in progress (inProgMacOp by transaction id, inProgAddrOp by key) -> finished;
// or -> overflow (overflowAddrOp) -> pending again; or back to pending on a retry. A newer command
// for the same key makes the older one out of date (valid false): it is then only dropped, so
// only the newest operation per key reaches the chip, and keys reach it in the order of their
// latest requests. Flushes are never coalesced.
//
// Three timers on the TimerWheel given at construction drive it: the write pass
// (updatePendingAddresses), the poll pass (pollInProgressCmds) and the overflow pass
// (updateOverflowAddresses). Each is cut after updateQuantum / pollReqQuantum seconds (the clock
// read every 128 commands) and resumes where it stopped.
//
// What the programmer settles for the driver:
//   - writeToHw answers success (done), inProgress (the answer comes through handleCmdResponse)
//     or busy (the pass ends and resumes updateDelay later with the same command first). Full,
//     failed and parity errors come back through handleCmdResponse; writeToHw answering them is
//     a programming error.
//   - A response of busy, flushInProgress or parityError retries the command (it goes back to
//     the tail of the pending queue as its key's pending command, unless a newer one came): the
//     chip did not do it, and doing it again is harmless. failed drops it: the request itself is
//     wrong and would fail again.
//   - full parks an address command in the overflow map; it is retried with the adaptive delay
//     (5 s, doubled while the pending queue is not empty, up to 30 s; back down by 1 s a pass once
//     it is empty). The first time the overflow map fills, MAC_PROGRAMMER_OVERFLOW is logged;
//     it is logged again only after the map has emptied.
//   - A command still in progress maxExecTime (1 s) after it was written is taken as lost and
//     retried like a busy one: adds and removes are idempotent, so a late answer of the first
//     write (then ignored as unknown) does no harm.
//   - writeToHwShadow is used instead of writeToHw for a command marked shadowOnly: the chip
//     already holds the entry (after a hitless restart), and only the driver's shadow of the
//     table is brought up to date. It answers as writeToHw does.
// Callers learn the fate of their commands from onCommandDone (finished: success, failed, or
// superseded by a newer command for the key) and onCommandOverflow (parked for want of room).
#pragma once

#include <absl/container/btree_map.h>
#include <absl/container/flat_hash_map.h>

#include <deque>

#include "Tolm/TimerWheel.h"
#include "Vemo/VemoCommon.h"
#include "ZolGen/VemoMac.h"

namespace Vemo {

// One indirect-access command: an address operation for one hardware key (add a host, add a
// multicast host, remove a host) or a flush. The driver reads what it needs to write it: the
// destination or the flushed interface, the entry's kind, and for a flush the VLAN in key.
class IndirectAccessMacCmd : public Zol::PtrInterface {
 public:
  IndirectAccessMacCmd(IndirectAccessMacCmdType addrOp, MacEntryKey const& key,
                       Nepo::IntfId const& intf = {},
                       Bridging::EntryType entryType = Bridging::EntryType::unknownMac,
                       bool staticEntry = false)
      : addrOp_(addrOp), key_(key), intf_(intf), entryType_(entryType), staticEntry_(staticEntry) {}

  IndirectAccessMacCmdType addrOp() const { return addrOp_; }
  // An address operation (add or remove a host), which is keyed; otherwise a flush.
  bool isAddrOp() const {
    return addrOp_ == IndirectAccessMacCmdType::addHost ||
           addrOp_ == IndirectAccessMacCmdType::addMcastHost ||
           addrOp_ == IndirectAccessMacCmdType::removeHost;
  }
  MacEntryKey const& key() const { return key_; }
  Nepo::IntfId const& intf() const { return intf_; }
  Bridging::EntryType entryType() const { return entryType_; }
  bool staticEntry() const { return staticEntry_; }
  Zol::U32 hwId() const { return hwId_; }
  void hwIdIs(Zol::U32 v) { hwId_ = v; }
  bool shadowOnly() const { return shadowOnly_; }
  void shadowOnlyIs(bool v) { shadowOnly_ = v; }

  // Set by the programmer.
  Zol::U64 transactionId() const { return transactionId_; }
  Zol::U32 tblIndex() const { return tblIndex_; }
  Zol::Seconds execStartTime() const { return execStartTime_; }
  bool valid() const { return valid_; }
  MacProgramStatus status() const { return status_; }

 private:
  friend class VemoMacProgrammer;
  IndirectAccessMacCmdType addrOp_;
  MacEntryKey key_;
  Nepo::IntfId intf_;
  Bridging::EntryType entryType_;
  bool staticEntry_;
  bool shadowOnly_ = false;
  Zol::U32 hwId_ = 0;
  Zol::U64 transactionId_ = 0;
  Zol::U32 tblIndex_ = 0;
  Zol::Seconds execStartTime_ = 0;
  bool valid_ = true;
  MacProgramStatus status_ = MacProgramStatus::macProgramInProgress;
};

class VemoMacProgrammer {
 public:
  using CmdPtr = Zol::Ptr<IndirectAccessMacCmd>;

  explicit VemoMacProgrammer(Tolm::TimerWheel& timerWheel);
  virtual ~VemoMacProgrammer();
  VemoMacProgrammer(VemoMacProgrammer const&) = delete;
  VemoMacProgrammer& operator=(VemoMacProgrammer const&) = delete;

  // Accepts an address command: an older command for its key leaves the overflow map, or is
  // marked out of date where it is pending or in progress; the new one is queued.
  virtual void handleAddrOp(CmdPtr const& cmd);
  // Accepts a flush command, queued behind everything before it.
  virtual void handleFlushOp(CmdPtr const& cmd);
  // The driver's answer for a command it said was in progress; an unknown id is ignored.
  void handleCmdResponse(Zol::U64 transactionId, Zol::U32 tblIndex, MacProgramStatus status);
  // Called at the end of construction.
  virtual void handleInitialized() {}

  // Tuning, with the defaults of a chip that answers within milliseconds.
  void updateQuantumIs(Zol::Seconds v) { updateQuantum_ = v; }
  void updateQuantumofTimesIs(Zol::U32 v) { updateQuantumofTimes_ = v ? v : 1; }
  void updateDelayIs(Zol::Seconds v) { updateDelay_ = v; }
  void pollReqQuantumIs(Zol::Seconds v) { pollReqQuantum_ = v; }
  void pollReqQuantumofTimesIs(Zol::U32 v) { pollReqQuantumofTimes_ = v ? v : 1; }
  void pollReqFreqIs(Zol::Seconds v) { pollReqFreq_ = v; }
  void maxExecTimeIs(Zol::Seconds v) { maxExecTime_ = v; }
  void updateOverflowAddressMinDelayIs(Zol::Seconds v) { updateOverflowAddressMinDelay_ = v; }
  void updateOverflowAddressMaxDelayIs(Zol::Seconds v) { updateOverflowAddressMaxDelay_ = v; }
  // Stops (true) or resumes the write passes and the poll passes; nothing queued is lost.
  void suspendPendingIs(bool v);
  void suspendInProgressIs(bool v);

  Zol::Seconds updateQuantum() const { return updateQuantum_; }
  Zol::Seconds updateDelay() const { return updateDelay_; }
  Zol::Seconds pollReqFreq() const { return pollReqFreq_; }
  Zol::Seconds maxExecTime() const { return maxExecTime_; }
  Zol::Seconds updateOverflowAddressDelay() const { return updateOverflowAddressDelay_; }
  bool suspendPending() const { return suspendPending_; }
  bool suspendInProgress() const { return suspendInProgress_; }
  bool overflowLogged() const { return overflowLogged_; }

  // The queues, for views and tests.
  size_t pendingSize() const { return pendingMacOp_.size(); }
  size_t inProgressSize() const { return inProgMacOp_.size(); }
  size_t overflowSize() const { return overflowAddrOp_.size(); }
  CmdPtr pendingAddrOp(MacEntryKey const& key) const;
  CmdPtr inProgAddrOp(MacEntryKey const& key) const;
  CmdPtr overflowAddrOp(MacEntryKey const& key) const;
  Tolm::TimerWheel& timerWheel() const { return wheel_; }

 protected:
  // Starts one command on the chip (see the header's comment for the answers it may give).
  virtual MacProgramStatus writeToHw(IndirectAccessMacCmd& cmd);
  virtual MacProgramStatus writeToHwShadow(IndirectAccessMacCmd& cmd);
  // A command left the programmer: written and done, refused for good, or superseded.
  virtual void onCommandDone(IndirectAccessMacCmd const& cmd) {}
  // An address command was parked for want of room; it is retried later.
  virtual void onCommandOverflow(IndirectAccessMacCmd const& cmd) {}

  Zol::Seconds now() const { return wheel_.loop().now(); }

 private:
  void updatePendingAddresses();
  void pollInProgressCmds();
  void updateOverflowAddresses();
  // Makes cmd its key's pending command at the tail of the queue.
  void queue(CmdPtr const& cmd);
  void supersede(CmdPtr const& old);
  void finish(CmdPtr const& cmd);
  void overflow(CmdPtr const& cmd);
  void armUpdate(Zol::Seconds at);
  void armPoll();

  Tolm::TimerWheel& wheel_;
  std::deque<CmdPtr> pendingMacOp_;
  absl::flat_hash_map<MacEntryKey, CmdPtr> pendingAddrOp_;
  absl::flat_hash_map<Zol::U64, CmdPtr> pendingFlushOp_;
  Tolm::TimerWheel::Timer updatePendingAddressClock_;
  Zol::Seconds updateQuantum_ = 0.01;
  Zol::U32 updateQuantumofTimes_ = 128;
  Zol::Seconds updateDelay_ = 0.2;
  absl::btree_map<Zol::U64, CmdPtr> inProgMacOp_;
  absl::flat_hash_map<MacEntryKey, CmdPtr> inProgAddrOp_;
  Zol::U64 inProgMacOpBookmark_ = 0;
  Tolm::TimerWheel::Timer pollReqClock_;
  Zol::Seconds pollReqQuantum_ = 0.01;
  Zol::U32 pollReqQuantumofTimes_ = 128;
  Zol::Seconds pollReqFreq_ = 0.1;
  Zol::Seconds maxExecTime_ = 1.0;
  absl::btree_map<MacEntryKey, CmdPtr> overflowAddrOp_;
  MacEntryKey overflowAddrOpBookmark_;
  Tolm::TimerWheel::Timer updateOverflowAddressClock_;
  Zol::Seconds updateOverflowAddressMinDelay_ = 5.0;
  Zol::Seconds updateOverflowAddressDelay_ = 5.0;
  Zol::Seconds updateOverflowAddressMaxDelay_ = 30.0;
  bool suspendPending_ = false;
  bool suspendInProgress_ = false;
  bool overflowLogged_ = false;
  Zol::U64 nextTransactionId_ = 1;
};

}  // namespace Vemo
