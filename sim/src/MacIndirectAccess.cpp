#include "Sim/MacIndirectAccess.h"

#include <algorithm>

#include "Zol/Trace.h"

ZOL_TRACE_MODULE("SimMacIndirectAccess")

namespace sim {

namespace {

Vemo::MacProgramStatus programStatus(Status s) {
  switch (s) {
    case Status::ok:
      return Vemo::MacProgramStatus::macProgramSuccess;
    case Status::busy:
      return Vemo::MacProgramStatus::macProgramBusy;
    case Status::full:
      return Vemo::MacProgramStatus::macProgramFull;
    case Status::failed:
      break;
  }
  return Vemo::MacProgramStatus::macProgramFailed;
}

}  // namespace

MacIndirectAccess::MacIndirectAccess(Tolm::TimerWheel& wheel, Chip& chip)
    : VemoMacProgrammer(wheel), chip_(chip), clock_(wheel, [this] { handleClock(); }) {}

void MacIndirectAccess::faultIs(Fault kind, uint32_t count) {
  faultKind_ = kind;
  faultCount_ = kind == Fault::none ? 0 : count;
}

bool MacIndirectAccess::busyWith(Vemo::MacEntryKey const& key) const {
  // A command superseded while the chip runs it needs no look: the chip runs commands in order,
  // so it has run by the time the one that superseded it leaves these.
  return pendingAddrOp(key) || inProgAddrOp(key);
}

Vemo::MacProgramStatus MacIndirectAccess::writeToHw(Vemo::IndirectAccessMacCmd& cmd) {
  Fault fault = Fault::none;
  if (faultCount_ > 0) {
    fault = faultKind_;
    if (--faultCount_ == 0) faultKind_ = Fault::none;
  }
  running_.push_back(
      {now() + execDelay_, cmd.transactionId(), Zol::Ptr<Vemo::IndirectAccessMacCmd>(&cmd), fault});
  armClock();
  return Vemo::MacProgramStatus::macProgramInProgress;
}

void MacIndirectAccess::armClock() {
  Zol::Seconds next = Tolm::TimerWheel::never;
  if (!running_.empty()) next = running_.front().due;
  if (!late_.empty()) next = std::min(next, late_.front().due);
  clock_.timeMinIs(next);
}

Status MacIndirectAccess::execute(Vemo::IndirectAccessMacCmd const& cmd) {
  ++commandsRun_;
  MacTable& table = chip_.macs();
  MacKey const key = MacKey::of(cmd.key().key());
  switch (cmd.addrOp()) {
    case Vemo::IndirectAccessMacCmdType::addHost:
    case Vemo::IndirectAccessMacCmdType::addMcastHost:
      return table.add(key, cmd.intf(), cmd.entryType(), !cmd.staticEntry());
    case Vemo::IndirectAccessMacCmdType::removeHost:
      return table.remove(key);
    case Vemo::IndirectAccessMacCmdType::flushAll:
      table.flush(0);
      return Status::ok;
    case Vemo::IndirectAccessMacCmdType::flushVlan:
      table.flush(key.vlan);
      return Status::ok;
    default:
      table.flushIntf(key.vlan, cmd.intf());
      return Status::ok;
  }
}

void MacIndirectAccess::handleClock() {
  // In the order the commands were started: the chip runs one at a time.
  while (!running_.empty() && running_.front().due <= now()) {
    Running const r = running_.front();
    running_.pop_front();
    if (r.fault == Fault::lost) {
      ZOL_TRACE(6, "command " << r.transactionId << " lost");
      continue;
    }
    if (r.fault == Fault::parity) {
      handleCmdResponse(r.transactionId, 0, Vemo::MacProgramStatus::macProgramParityError);
      continue;
    }
    Vemo::MacProgramStatus const status = programStatus(execute(*r.cmd));
    if (r.fault == Fault::late) {
      late_.push_back({now() + maxExecTime() * 2, r.transactionId, status});
    } else {
      handleCmdResponse(r.transactionId, 0, status);
    }
  }
  while (!late_.empty() && late_.front().due <= now()) {
    Answer const a = late_.front();
    late_.pop_front();
    handleCmdResponse(a.transactionId, 0, a.status);
  }
  armClock();
}

}  // namespace sim
