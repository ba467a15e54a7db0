// The MAC table platform contract: what a chip's layer-2 table does for the MAC SM. A platform
// derives from VemoHelper::VemoHelperMacAddrSm and implements the operations its chip needs.
//
// Who learns: the chip learns and ages on its own, and the chip driver reports each change in its
// VemoTypes::MacTable (an entry appears on a learn or a move, goes when it ages or a flush removes
// it). The SM never programs a learned entry the chip already holds; it programs what the chip
// cannot learn (configured, router, non-aging entries) and removes what must go. Flushes remove
// learned (dynamic) entries only, and the driver reports each one it removed.
//
// Results: the programming operations return a Vemo::MacProgramStatus when the chip holds the
// change (macProgramSuccess) or refused it:
//   macProgramBusy    the chip cannot take the write now; the SM keeps it queued and retries it on
//                     its next drain, in order.
//   macProgramFull    no room; the SM leaves the entry out of the FDB status, logs it once, and
//                     programs it again when room is freed (an entry aged, removed or flushed).
//                     lastFullIsHashCollision() then tells a full bucket from a full table: the
//                     status has no value of its own for it, as a chip's SDK answers both as "no
//                     room" and only the driver knows which.
//   macProgramFailed  the request itself is wrong; the SM drops it until the next change.
// A platform whose chip is written through asynchronous commands (one built on
// Vemo::VemoMacProgrammer) answers macProgramSuccess once the command is queued; the chip holds the
// entry once the command has run. When the chip then refuses it, the platform says so in
// refusedHost (macProgramFull: no room, it keeps retrying; macProgramFailed: it gave up): the SM
// takes the entry out of the FDB status, keeping a full one aside and logging it as if the write
// had answered full. When the entry is written after all, the platform deletes it from
// refusedHost and the SM decides the pair again.
// Operations the platform leaves alone trace "Call to unimplemented function" and do nothing (a
// programming operation then answers macProgramFailed).
#pragma once

#include "ZolGen/Bridging.h"
#include "ZolGen/VemoCommon.h"
#include "ZolGen/VemoMac.h"

namespace VemoHelper {

class VemoHelperMacAddrSm : public VemoHelperMacAddrSmState {
 public:
  explicit VemoHelperMacAddrSm(Zol::Name const& name);
  std::string_view fwkType() const override { return "VemoHelper::VemoHelperMacAddrSm"; }

  // Sets up the layer-2 table. The SM calls it once, at start, before any other operation.
  virtual void hwInit();

  // Programs a local entry: the host key is behind intf (a port, a port-channel, or the CPU for
  // router and failed-server entries). moves: how often the host moved (clipped to 65535), for
  // chips that damp moving hosts. staticEntry: the entry must not age in hardware (every kind but
  // configured-dynamic and learned ones, which the SM programs only when it replaces what the chip
  // holds). Replaces whatever the chip holds for key. A host another switch reported (the MLAG
  // peer's, EVPN's: peerDynamicMac, peerDynamicRemoteMac, evpnDynamicRemoteMac,
  // evpnIntfDynamicMac) is static, but a learn of it on another port moves it as it would a
  // learned entry and is reported like one: the SM then decides which is the more recent.
  virtual Vemo::MacProgramStatus addHost(Bridging::MacVlanPair const& key, Nepo::IntfId const& intf,
                                         Zol::U16 moves, bool staticEntry,
                                         Bridging::EntryType entryType);
  // Programs a remote entry: key is behind the tunnel interface intf, through the next hop
  // nextHopId. moves and staticEntry as for addHost; replacesLocal: a local entry is being
  // replaced (the host moved behind a tunnel).
  virtual Vemo::MacProgramStatus addRemoteHost(Bridging::MacVlanPair const& key,
                                               Nepo::IntfId const& intf, Zol::U32 nextHopId,
                                               Zol::U16 moves, bool staticEntry,
                                               Bridging::EntryType entryType, bool replacesLocal);
  // The host moved from behind a tunnel to the local intf: the remote entry is replaced in one
  // write, so that no packet for it is flooded in between.
  virtual Vemo::MacProgramStatus addLearntLocalAndRemoveRemoteHost(Bridging::MacVlanPair const& key,
                                                                   Nepo::IntfId const& intf,
                                                                   Bridging::EntryType entryType);
  // Removes the entry for key, of whatever kind entryType says the SM programmed; removing an
  // entry the chip does not hold succeeds.
  virtual Vemo::MacProgramStatus removeHost(Bridging::MacVlanPair const& key,
                                            Bridging::EntryType entryType);
  // The port-channel intf is gone: entries behind it are removed (learned ones reported).
  virtual void removeLag(Nepo::IntfId const& intf);
  // After a macProgramFull answer: true when the entry's hash bucket was full while the table
  // had room (the chip cannot hold this address until a bucket neighbour goes).
  virtual bool lastFullIsHashCollision() const;

  // Flushes remove learned entries: all of them, one VLAN's, one port's or one port-channel's in
  // one VLAN (vlan 0: in every VLAN). The driver reports each removed entry.
  virtual void flushAll();
  virtual void flushVlan(Zol::U16 vlan);
  virtual void flushVlanPort(int vlan, Nepo::IntfId const& intf);
  virtual void flushVlanLag(int vlan, Nepo::IntfId const& intf);

  // Learned entries age after seconds without traffic; 0 turns aging off.
  virtual void configureAgingTime(int seconds);
  // Learning on one port or port-channel, and in one VLAN; a source is learned only where both
  // are on. The SM calls each at start and on every change.
  virtual void enableLearning(Nepo::IntfId const& intf, bool enable);
  virtual void enableLearningOnVlan(Bridging::VlanId vlan, bool enable);
  // Packets whose source is the CPU's MAC, or an invalid (multicast) source MAC, are dropped.
  virtual void configureSourceCheckCPUMac(bool enable);
  virtual void configureSourceMacInvalid(bool enable);
  // How many remote (tunnel) entries the chip holds at most.
  virtual Zol::U32 getMaxRemoteMacs();
  // The VLAN was removed: the chip drops its entries (learned ones reported).
  virtual void handleVlanDelete(Bridging::VlanId vlan);
  // At start, after hwInit: learned entries of ports whose link is down are flushed.
  virtual void handleLinkStateAtInit();
  // A parity error was reported in the layer-2 table.
  virtual void handleParityEvent(Vemo::ParityEventKey const& key);

  // Verification. handleVerify compares the chip's table with what the SM programmed and reports
  // each difference through the common data's verification store; the others answer whether the
  // chip agrees (true) with what the SM set, and the SM reports a disagreement.
  virtual void handleVerify();
  virtual bool verifyLearning(Nepo::IntfId const& intf, bool enable);
  virtual bool verifyLearningOnVlan(Bridging::VlanId vlan, bool enable);
  virtual bool verifyNumRemoteHost(Zol::U16 count);
  virtual bool verifyRemoteHost(Bridging::MacVlanPair const& key, Zol::U32 nextHopId);

  // True when the platform programs VXLAN remote MACs itself and the SM leaves them alone.
  virtual bool skipVemoVxlanRmacHandling();

  // Where the SM keeps what the chip holds across a restart of the agent (Vemo/MacStateStore.h),
  // or empty for no store (the default: every start is then a cold one for the SM). Keep it where
  // a reboot clears it: it describes the chip as this boot left it.
  virtual std::string persistentStorePath();
};

}  // namespace VemoHelper
