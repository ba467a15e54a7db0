// The chip answers each write at once, so the helper keeps nothing pending: the SM retries busy
// writes and keeps full ones aside. What the helper keeps is the driver's view, mirrored from
// the chip's reports as they happen: local entries only.
#include "Sim/MacAddrHelper.h"

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Zol/Text.h"
#include "Zol/Trace.h"

ZOL_TRACE_MODULE("SimMacAddrHelper")

namespace sim {

namespace {

constexpr auto kOpNames = std::to_array<std::string_view>({
    "hwInit",
    "addHost",
    "removeHost",
    "removeLag",
    "lastFullIsHashCollision",
    "flushAll",
    "flushVlan",
    "flushVlanPort",
    "flushVlanLag",
    "configureAgingTime",
    "enableLearning",
    "enableLearningOnVlan",
    "handleVlanDelete",
    "handleLinkStateAtInit",
    "handleVerify",
    "verifyLearning",
    "verifyLearningOnVlan",
    "skipVemoVxlanRmacHandling",
    "addRemoteHost",
    "addLearntLocalAndRemoveRemoteHost",
    "getMaxRemoteMacs",
    "verifyNumRemoteHost",
    "verifyRemoteHost",
    "refused",
    "aging",
    "beforeHwInit",
});

// The SM's VLAN numbers are ints; anything below 1 means every VLAN.
uint16_t flushVlanOf(int vlan) { return static_cast<uint16_t>(std::clamp(vlan, 0, 4095)); }

std::string placed(Nepo::IntfId const& intf, Bridging::EntryType type) {
  return intf.stringValue() + " (" + std::string(Zol::enumName(type)) + ")";
}

}  // namespace

MacAddrHelper::MacAddrHelper(Zol::Name const& name, Chip& chip,
                             Zol::Ptr<Vemo::VemoCommonSmData> const& commonData,
                             Zol::Ptr<VemoTypes::MacTable> const& driverTable)
    : VemoHelper::VemoHelperMacAddrSm(name),
      chip_(chip),
      commonData_(commonData),
      driverTable_(driverTable),
      agingClock_(commonData->loop(), [this] { handleAging(); }),
      calls_(kOpNames) {
  Zol::ActivityLoop* const loop = &commonData->loop();
  chip_.timeSourceIs([loop] { return loop->now(); });
  chip_.macs().listenerIs([this](MacKey const& key, MacEntry const* e) { mirror(key, e); }, this);
  publishAll();
}

MacAddrHelper::~MacAddrHelper() {
  // A newer helper may have taken the chip over already.
  if (chip_.macs().listenerOwner() != this) return;
  chip_.macs().listenerIs({}, nullptr);
  // Time stands still until the next helper brings a loop.
  chip_.timeSourceIs([t = chip_.now()] { return t; });
}

uint64_t MacAddrHelper::calls(std::string_view op) const { return calls_(op); }

void MacAddrHelper::programming(Op op) {
  count(op);
  if (ready_) return;
  count(Op::beforeHwInit);
  ZOL_TRACE(0, calls_.name(op) << " before hwInit");
}

Vemo::MacProgramStatus MacAddrHelper::answer(Status s) {
  switch (s) {
    case Status::ok:
      return Vemo::MacProgramStatus::macProgramSuccess;
    case Status::busy:
      count(Op::refused);
      return Vemo::MacProgramStatus::macProgramBusy;
    case Status::full:
      count(Op::refused);
      return Vemo::MacProgramStatus::macProgramFull;
    case Status::failed:
      break;
  }
  count(Op::refused);
  return Vemo::MacProgramStatus::macProgramFailed;
}

void MacAddrHelper::mirror(MacKey const& key, MacEntry const* entry) {
  Bridging::MacVlanPair const pair = key.pair();
  if (!entry) {
    driverTable_->entryDel(pair);
    return;
  }
  // An aging remote entry replacing a local one takes it out of the driver's table, and ages too.
  if (entry->remote()) {
    driverTable_->entryDel(pair);
  } else {
    driverTable_->entryIs(pair, VemoTypes::MacAddressTableEntry(pair, entry->intf, entry->type));
  }
  // A new entry is due after every other one, so a clock already armed stays right.
  if (!agingClock_.armed()) agingClockSet();
}

void MacAddrHelper::publishAll() {
  std::vector<Bridging::MacVlanPair> gone;
  for (auto const& [pair, e] : driverTable_->entryAll()) {
    MacEntry const* const hw = chip_.macs().entry(MacKey::of(pair));
    if (!hw || !hw->aging || hw->remote()) gone.push_back(pair);
  }
  for (Bridging::MacVlanPair const& pair : gone) driverTable_->entryDel(pair);
  for (auto const& [key, e] : chip_.macs().entries()) {
    if (e.aging) mirror(key, &e);
  }
}

void MacAddrHelper::agingClockSet() {
  std::optional<Zol::Seconds> const oldest = chip_.macs().oldestSeen();
  if (agingTime_ <= 0 || !oldest) {
    agingClock_.timeMinIs(Zol::Clock::never);
    return;
  }
  agingClock_.timeMinIs(std::max(*oldest + agingTime_, agingClock_.loop().now()));
}

void MacAddrHelper::handleAging() {
  count(Op::aging);
  size_t const n = chip_.macs().age(agingClock_.loop().now(), agingTime_);
  ZOL_TRACE(8, "aging: " << n << " entries aged");
  agingClockSet();
}

void MacAddrHelper::hwInit() {
  count(Op::hwInit);
  ZOL_TRACE(5, "hwInit");
  ready_ = true;
}

Vemo::MacProgramStatus MacAddrHelper::addHost(Bridging::MacVlanPair const& key,
                                              Nepo::IntfId const& intf, Zol::U16, bool staticEntry,
                                              Bridging::EntryType entryType) {
  programming(Op::addHost);
  ZOL_TRACE(8, "addHost " << MacKey::of(key).text() << " " << placed(intf, entryType)
                          << (staticEntry ? " static" : ""));
  return writeLocal(key, intf, staticEntry, entryType);
}

Vemo::MacProgramStatus MacAddrHelper::writeLocal(Bridging::MacVlanPair const& key,
                                                 Nepo::IntfId const& intf, bool staticEntry,
                                                 Bridging::EntryType entryType) {
  if (indirect_) {
    refusedHostDel(key);
    indirect_->handleAddrOp(Zol::make<Vemo::IndirectAccessMacCmd>(
        Vemo::IndirectAccessMacCmdType::addHost,
        Vemo::MacEntryKey(key, Vemo::MacHwType::macHwKeyBridge), intf, entryType, staticEntry));
    return Vemo::MacProgramStatus::macProgramSuccess;
  }
  return answer(chip_.macs().add(MacKey::of(key), intf, entryType, !staticEntry));
}

Vemo::MacProgramStatus MacAddrHelper::addRemoteHost(Bridging::MacVlanPair const& key,
                                                    Nepo::IntfId const& intf, Zol::U32 nextHopId,
                                                    Zol::U16, bool staticEntry,
                                                    Bridging::EntryType entryType, bool) {
  programming(Op::addRemoteHost);
  MacKey const k = MacKey::of(key);
  ZOL_TRACE(8, "addRemoteHost " << k.text() << " " << placed(intf, entryType) << " next hop "
                                << nextHopId << (staticEntry ? " static" : ""));
  if (indirect_) {
    Vemo::MacEntryKey const hwKey(key, Vemo::MacHwType::macHwKeyBridge);
    if (indirect_->overflowAddrOp(hwKey)) {
      indirect_->handleAddrOp(
          Zol::make<Vemo::IndirectAccessMacCmd>(Vemo::IndirectAccessMacCmdType::removeHost, hwKey));
    }
    if (indirect_->busyWith(hwKey)) return answer(Status::busy);
    // This write's own answer replaces what an earlier command for the key was refused.
    refusedHostDel(key);
  }
  return answer(chip_.macs().addRemote(k, intf, nextHopId, entryType, !staticEntry));
}

Vemo::MacProgramStatus MacAddrHelper::addLearntLocalAndRemoveRemoteHost(
    Bridging::MacVlanPair const& key, Nepo::IntfId const& intf, Bridging::EntryType entryType) {
  programming(Op::addLearntLocalAndRemoveRemoteHost);
  MacKey const k = MacKey::of(key);
  ZOL_TRACE(8, "addLearntLocalAndRemoveRemoteHost " << k.text() << " " << placed(intf, entryType));
  MacEntry const* const held = chip_.macs().entry(k);
  bool const outstanding =
      indirect_ && indirect_->busyWith(Vemo::MacEntryKey(key, Vemo::MacHwType::macHwKeyBridge));
  if (held && !held->remote() && held->aging && held->intf == intf && held->type == entryType &&
      !outstanding) {
    return Vemo::MacProgramStatus::macProgramSuccess;
  }
  return writeLocal(key, intf, false, entryType);
}

Vemo::MacProgramStatus MacAddrHelper::removeHost(Bridging::MacVlanPair const& key,
                                                 Bridging::EntryType) {
  programming(Op::removeHost);
  MacKey const k = MacKey::of(key);
  ZOL_TRACE(8, "removeHost " << k.text());
  if (indirect_) {
    refusedHostDel(key);
    indirect_->handleAddrOp(Zol::make<Vemo::IndirectAccessMacCmd>(
        Vemo::IndirectAccessMacCmdType::removeHost,
        Vemo::MacEntryKey(key, Vemo::MacHwType::macHwKeyBridge)));
    return Vemo::MacProgramStatus::macProgramSuccess;
  }
  return answer(chip_.macs().remove(k));
}

void MacAddrHelper::indirectAccessIs(Tolm::TimerWheel& wheel) {
  indirect_ = std::make_unique<MacIndirectAccess>(wheel, chip_);
  // What the SM was told succeeded and the chip refused, until it is written after all.
  indirect_->listenerIs([this](Vemo::IndirectAccessMacCmd const& cmd, bool overflow) {
    Bridging::MacVlanPair const& key = cmd.key().key();
    if (overflow) {
      refusedHostIs(key, Vemo::MacProgramStatus::macProgramFull);
    } else if (cmd.status() == Vemo::MacProgramStatus::macProgramFailed) {
      refusedHostIs(key, Vemo::MacProgramStatus::macProgramFailed);
    } else {
      refusedHostDel(key);
    }
  });
}

void MacAddrHelper::removeLag(Nepo::IntfId const& intf) {
  programming(Op::removeLag);
  ZOL_TRACE(8, "removeLag " << intf);
  chip_.macs().removeIntf(intf);
}

bool MacAddrHelper::lastFullIsHashCollision() const {
  count(Op::lastFullIsHashCollision);
  return chip_.macs().lastFullWasCollision();
}

void MacAddrHelper::flushAll() {
  programming(Op::flushAll);
  size_t const n = chip_.macs().flush(0);
  ZOL_TRACE(8, "flushAll: " << n << " flushed");
}

void MacAddrHelper::flushVlan(Zol::U16 vlan) {
  programming(Op::flushVlan);
  size_t const n = chip_.macs().flush(vlan);
  ZOL_TRACE(8, "flushVlan " << vlan << ": " << n << " flushed");
}

void MacAddrHelper::flushVlanPort(int vlan, Nepo::IntfId const& intf) {
  programming(Op::flushVlanPort);
  size_t const n = chip_.macs().flushIntf(flushVlanOf(vlan), intf);
  ZOL_TRACE(8, "flushVlanPort " << vlan << " " << intf << ": " << n << " flushed");
}

void MacAddrHelper::flushVlanLag(int vlan, Nepo::IntfId const& intf) {
  programming(Op::flushVlanLag);
  size_t const n = chip_.macs().flushIntf(flushVlanOf(vlan), intf);
  ZOL_TRACE(8, "flushVlanLag " << vlan << " " << intf << ": " << n << " flushed");
}

void MacAddrHelper::configureAgingTime(int seconds) {
  programming(Op::configureAgingTime);
  ZOL_TRACE(5, "configureAgingTime " << seconds);
  agingTime_ = std::max(seconds, 0);
  agingClockSet();
}

void MacAddrHelper::enableLearning(Nepo::IntfId const& intf, bool enable) {
  programming(Op::enableLearning);
  ZOL_TRACE(8, "enableLearning " << intf << " " << enable);
  chip_.macs().learningIs(intf, enable);
}

void MacAddrHelper::enableLearningOnVlan(Bridging::VlanId vlan, bool enable) {
  programming(Op::enableLearningOnVlan);
  ZOL_TRACE(8, "enableLearningOnVlan " << vlan.value() << " " << enable);
  chip_.macs().vlanLearningIs(vlan.value(), enable);
}

void MacAddrHelper::handleVlanDelete(Bridging::VlanId vlan) {
  programming(Op::handleVlanDelete);
  ZOL_TRACE(8, "handleVlanDelete " << vlan.value());
  chip_.macs().removeVlan(vlan.value());
}

void MacAddrHelper::handleLinkStateAtInit() {
  programming(Op::handleLinkStateAtInit);
  // A copy: flushing does not change the links, but the set is the chip's.
  std::set<Nepo::IntfId> const down = chip_.macs().linksDown();
  for (Nepo::IntfId const& port : down) chip_.macs().flushIntf(0, port);
}

bool MacAddrHelper::verifyLearning(Nepo::IntfId const& intf, bool enable) {
  count(Op::verifyLearning);
  return chip_.macs().learning(intf) == enable;
}

bool MacAddrHelper::verifyLearningOnVlan(Bridging::VlanId vlan, bool enable) {
  count(Op::verifyLearningOnVlan);
  return chip_.macs().vlanLearning(vlan.value()) == enable;
}

bool MacAddrHelper::verifyNumRemoteHost(Zol::U16 expected) {
  count(Op::verifyNumRemoteHost);
  return static_cast<Zol::U16>(chip_.macs().remoteSize()) == expected;
}

bool MacAddrHelper::verifyRemoteHost(Bridging::MacVlanPair const& key, Zol::U32 nextHopId) {
  count(Op::verifyRemoteHost);
  MacEntry const* const hw = chip_.macs().entry(MacKey::of(key));
  return hw && hw->nextHop == nextHopId;
}

Zol::U32 MacAddrHelper::getMaxRemoteMacs() {
  count(Op::getMaxRemoteMacs);
  return static_cast<Zol::U32>(chip_.macs().remoteCapacity());
}

void MacAddrHelper::maxRemoteMacsIs(Zol::U32 max) { chip_.macs().remoteCapacityIs(max); }

bool MacAddrHelper::skipVemoVxlanRmacHandling() {
  count(Op::skipVemoVxlanRmacHandling);
  return false;
}

void MacAddrHelper::handleVerify() {
  count(Op::handleVerify);
  if (!programmed_) return;
  Vemo::VerifyData& verifyData = *commonData_->verifyData();
  auto const report = [&](MacKey const& key, std::string const& what) {
    verifyData.reportMismatch("sim::MacAddrHelper", key.text() + ": " + what);
  };
  // In key order, so that the reports read the same on every run.
  std::map<MacKey, VemoTypes::MacAddressTableEntry const*> want;
  for (auto const& [pair, e] : programmed_->entryAll()) want.emplace(MacKey::of(pair), &e);
  for (auto const& [key, e] : want) {
    std::string const programmed = "programmed behind " + placed(e->intf(), e->entryType());
    MacEntry const* const hw = chip_.macs().entry(key);
    if (!hw) {
      report(key, programmed + ", not in hardware");
    } else if (hw->intf != e->intf() || hw->type != e->entryType()) {
      report(key, programmed + ", hardware has " + placed(hw->intf, hw->type));
    }
  }
  // Only the SM writes static entries: one it does not know of was left behind. Remote entries
  // are checked against the SM's remote table, through verifyRemoteHost.
  for (auto const& [key, e] : chip_.macs().entries()) {
    if (e.aging || e.remote() || want.contains(key)) continue;
    report(key, "static in hardware behind " + placed(e.intf, e.type) + ", not programmed");
  }
}

}  // namespace sim
