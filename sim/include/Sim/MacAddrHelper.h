// The MAC table helper of the simulated chip: programs the chip's layer-2 table for the MAC SM,
// local and remote (VXLAN) entries, ages it on the loop, and publishes what a chip driver
// publishes: every local aging entry the chip holds, in the driver's MAC table.
#pragma once

#include <utility>
#include <vector>

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
  // static entry replaces it. Static entries never appear, nor do remote ones, aging or not: the
  // SM learns remote hosts from the VXLAN agent's tables, and a remote entry in this table would
  // read as a local learn. A local learn that replaces an aging remote entry appears as any
  // learn.
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
  // Remote entries are written to the chip at once, also when host writes go through the
  // indirect interface, whose commands carry no next hop. A remote write then answers busy while
  // a command for its key is queued or running, which would undo it when it ran; a command parked
  // for want of room is withdrawn first (a remove is queued in its place). The entry ages unless
  // staticEntry; moves and replacesLocal are not used (the write replaces whatever the chip holds).
  Vemo::MacProgramStatus addRemoteHost(Bridging::MacVlanPair const& key, Nepo::IntfId const& intf,
                                       Zol::U32 nextHopId, Zol::U16 moves, bool staticEntry,
                                       Bridging::EntryType entryType, bool replacesLocal) override;
  // A local aging entry behind intf replaces the remote one in one write, made as addHost makes
  // it. Nothing is written when the chip already holds that local aging entry (it learned the
  // move itself) and no command for the key is outstanding.
  Vemo::MacProgramStatus addLearntLocalAndRemoveRemoteHost(Bridging::MacVlanPair const& key,
                                                           Nepo::IntfId const& intf,
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
  // The chip's remote entry count modulo 65536: the SM's count reaches the U16 truncated, as a
  // C++ conversion does, so that a table above 65535 entries still compares.
  bool verifyNumRemoteHost(Zol::U16 count) override;
  // The chip holds a remote entry for key through nextHopId.
  bool verifyRemoteHost(Bridging::MacVlanPair const& key, Zol::U32 nextHopId) override;
  // The chip's limit of remote entries (MacTable::remoteCapacity), which maxRemoteMacsIs sets.
  Zol::U32 getMaxRemoteMacs() override;
  void maxRemoteMacsIs(Zol::U32 max);
  bool skipVemoVxlanRmacHandling() override;
  // Where the MAC SM keeps its state across a restart of the agent; empty (the default) for none.
  std::string persistentStorePath() override { return storePath_; }
  void persistentStorePathIs(std::string path) { storePath_ = std::move(path); }

  // The SM's table of the local entries it programmed: handleVerify reports each one the chip
  // does not hold as programmed, and each static local entry the chip holds that is not in it.
  // Without one, nothing is compared. Remote entries are not compared here: the SM keeps its own
  // table of them and asks verifyRemoteHost and verifyNumRemoteHost.
  void programmedTableIs(Zol::Ptr<VemoTypes::MacTable const> const& table) { programmed_ = table; }
  // Host writes go through the chip's indirect-access interface, driven by wheel: addHost,
  // addLearntLocalAndRemoveRemoteHost and removeHost answer success once the command is queued,
  // and the chip holds the entry when the command has run. Until this is called, writes are
  // direct.
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
  // Every operation with how often it ran since this helper started.
  std::vector<std::pair<std::string_view, uint64_t>> allCalls() const {
    std::vector<std::pair<std::string_view, uint64_t>> out;
    calls_.forEach([&](std::string_view name, uint64_t n) { out.emplace_back(name, n); });
    return out;
  }

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
    addRemoteHost,
    addLearntLocalAndRemoveRemoteHost,
    getMaxRemoteMacs,
    verifyNumRemoteHost,
    verifyRemoteHost,
    refused,
    aging,
    beforeHwInit,
  };
  static constexpr size_t kOpCount = static_cast<size_t>(Op::beforeHwInit) + 1;

  void count(Op op) const { calls_.count(op); }
  // Counts a programming call and flags one that comes before hwInit.
  void programming(Op op);
  Vemo::MacProgramStatus answer(Status s);
  // A local entry, directly or through the indirect interface.
  Vemo::MacProgramStatus writeLocal(Bridging::MacVlanPair const& key, Nepo::IntfId const& intf,
                                    bool staticEntry, Bridging::EntryType entryType);
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
  std::string storePath_;
};

}  // namespace sim
