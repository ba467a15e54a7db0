// The MAC table helper of the simulated chip: programs the chip's layer-2 table for the MAC SM,
// ages it on the loop, and publishes what a chip driver publishes: every aging entry the chip
// holds, in the driver's MAC table.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string_view>

#include "Sim/Chip.h"
#include "Sim/HelperCalls.h"
#include "Sim/MacIndirectAccess.h"
#include "Vemo/VemoHelperMacAddrSm.h"

namespace sim {

class MacAddrHelper : public VemoHelper::VemoHelperMacAddrSm {
 public:
  // Takes the chip's listener and gives the chip the loop's time. The driver table is brought to
  // the chip's aging entries at once, as a driver starting over a running chip finds them, and
  // then follows every learn, move, aging, flush and removal: an aging entry appears with its
  // interface and type (learnedDynamicMac when learned) and goes when the chip drops it or a
  // static entry replaces it. Static entries never appear.
  MacAddrHelper(Zol::Name const& name, Chip& chip,
                Zol::Ptr<Vemo::VemoCommonSmData> const& commonData,
                Zol::Ptr<VemoTypes::MacTable> const& driverTable);
  ~MacAddrHelper() override;
  std::string_view fwkType() const override { return "sim::MacAddrHelper"; }

  void hwInit() override;
  // moves is not used: the chip does not damp moving hosts.
  Vemo::MacProgramStatus addHost(Bridging::MacVlanPair const& key, Nepo::IntfId const& intf,
                                 Zol::U16 moves, bool staticEntry,
                                 Bridging::EntryType entryType) override;
  Vemo::MacProgramStatus removeHost(Bridging::MacVlanPair const& key,
                                    Bridging::EntryType entryType) override;
  void removeLag(Nepo::IntfId const& intf) override;
  bool lastFullIsHashCollision() const override;
  void flushAll() override;
  void flushVlan(Zol::U16 vlan) override;
  void flushVlanPort(int vlan, Nepo::IntfId const& intf) override;
  void flushVlanLag(int vlan, Nepo::IntfId const& intf) override;
  void configureAgingTime(int seconds) override;
  void enableLearning(Nepo::IntfId const& intf, bool enable) override;
  void enableLearningOnVlan(Bridging::VlanId vlan, bool enable) override;
  void handleVlanDelete(Bridging::VlanId vlan) override;
  void handleLinkStateAtInit() override;
  void handleVerify() override;
  bool verifyLearning(Nepo::IntfId const& intf, bool enable) override;
  bool verifyLearningOnVlan(Bridging::VlanId vlan, bool enable) override;
  bool skipVemoVxlanRmacHandling() override;

  // The SM's table of the local entries it programmed: handleVerify reports each one the chip
  // does not hold as programmed, and each static entry the chip holds that is not in it. Without
  // one, nothing is compared.
  void programmedTableIs(Zol::Ptr<VemoTypes::MacTable const> const& table) { programmed_ = table; }
  // Host writes go through the chip's indirect-access interface, driven by wheel: addHost and
  // removeHost answer success once the command is queued, and the chip holds the entry when the
  // command has run. Until this is called, writes are direct.
  void indirectAccessIs(Tolm::TimerWheel& wheel);
  MacIndirectAccess* indirectAccess() const { return indirect_.get(); }

  Chip& chip() const { return chip_; }
  Zol::Ptr<VemoTypes::MacTable> const& driverTable() const { return driverTable_; }
  bool ready() const { return ready_; }
  int agingTime() const { return agingTime_; }
  // How often each operation ran, by its name ("addHost", "flushVlanPort", ...), plus "refused"
  // (any answer but ok), "aging" (one run of the aging clock) and "beforeHwInit" (a programming
  // call before hwInit).
  uint64_t calls(std::string_view op) const;

 private:
  enum class Op : uint8_t {
    hwInit,
    addHost,
    removeHost,
    removeLag,
    lastFullIsHashCollision,
    flushAll,
    flushVlan,
    flushVlanPort,
    flushVlanLag,
    configureAgingTime,
    enableLearning,
    enableLearningOnVlan,
    handleVlanDelete,
    handleLinkStateAtInit,
    handleVerify,
    verifyLearning,
    verifyLearningOnVlan,
    skipVemoVxlanRmacHandling,
    refused,
    aging,
    beforeHwInit,
  };
  static constexpr size_t kOpCount = static_cast<size_t>(Op::beforeHwInit) + 1;

  void count(Op op) const { calls_.count(op); }
  // Counts a programming call and flags one that comes before hwInit.
  void programming(Op op);
  Vemo::MacProgramStatus answer(Status s);
  void mirror(MacKey const& key, MacEntry const* entry);
  // Brings the driver table to the chip's aging entries.
  void publishAll();
  // The aging clock runs when the oldest aging entry is due, and not at all while aging is off
  // or no entry ages, so that an idle table keeps no timer armed.
  void agingClockSet();
  void handleAging();

  Chip& chip_;
  Zol::Ptr<Vemo::VemoCommonSmData> commonData_;
  Zol::Ptr<VemoTypes::MacTable> driverTable_;
  Zol::Ptr<VemoTypes::MacTable const> programmed_;
  bool ready_ = false;
  int agingTime_ = 0;
  Zol::Clock agingClock_;
  std::unique_ptr<MacIndirectAccess> indirect_;
  mutable HelperCalls<Op, kOpCount> calls_;
};

}  // namespace sim
