// What the MAC SM keeps across a restart of the agent while the chip keeps forwarding: the entries
// it programmed (configured, static and remote ones) and the move counts of learned hosts, so
// that a restarted SM neither reprograms what the chip already holds nor forgets how often a host
// moved.
//
// The file is one JSON object:
//
//   {"version":1,"entries":[
//     {"vlan":10,"mac":"02:00:00:00:00:01","intf":"Ethernet1","type":"configuredStaticMac",
//      "moves":3,"lastMoveTime":12.5},
//     {"vlan":10,"mac":"02:00:00:00:00:02","intf":"Vxlan1","type":"receivedRemoteMac",
//      "moves":0,"lastMoveTime":0.0,"vteps":["10.0.0.2","2001:db8::2"],"nextHop":7}]}
//
//   version       1; any other value refuses the file (it was written by another release).
//   vlan          an integer from 1 to 4094: the chip holds no MAC entry in VLAN 0 or 4095.
//   mac           an Ethernet address ("02:00:00:00:00:01"; "0200.0000.0001" is read too).
//   intf          an interface name, not empty: a port, port-channel, Cpu or the VXLAN interface.
//   type          a Bridging::EntryType name other than unknownMac.
//   moves         an integer from 0 to 4294967295.
//   lastMoveTime  a finite number of seconds, written in the shortest form that reads back to the
//                 same double.
//   vteps         remote entries only: the tunnel endpoint addresses (IPv4 or IPv6), at least
//                 one, each once. Addresses, not the SwTunnelGroupId: a restarted tunnel-group
//                 manager numbers its multi-address groups afresh.
//   nextHop       only when the entry has one: its hardware next hop, an integer.
//
// Every member but vteps and nextHop is required. A member that is unknown, given twice or of the
// wrong JSON type, two entries for one MAC and VLAN, anything after the object, or any fault of
// the JSON itself refuses the whole file: a restarted SM must never act on half a state.
// Entries are written sorted by (vlan, mac) so that one state has one file; they are read in any
// order and returned sorted.
//
// The file describes the chip as this boot left it: keep it where a reboot clears it (/run, not
// /var). That is also why save does not fsync: a crash that loses unsynced data resets the chip.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "ZolGen/Bridging.h"
#include "ZolGen/VemoTunnel.h"

namespace Vemo {

// One MAC entry as the store keeps it.
struct StoredMacEntry {
  Bridging::MacVlanPair key;
  Nepo::IntfId intf;  // port, port-channel, Cpu, or the VXLAN tunnel interface
  Bridging::EntryType entryType = Bridging::EntryType::unknownMac;
  Zol::U32 moves = 0;
  double lastMoveTime = 0;
  TunnelIpAddrList tunnelIps;  // empty for a local entry
  VemoNextHopId nextHopId = VemoNextHopId::invalid();
  bool operator==(StoredMacEntry const&) const = default;
};

struct MacStoreSnapshot {
  std::vector<StoredMacEntry> entries;
  bool operator==(MacStoreSnapshot const&) const = default;
};

class MacStateStore {
 public:
  static constexpr int kVersion = 1;

  // The text of s, entries sorted by (VLAN, MAC). It is written as given: a snapshot that check
  // refuses gives a text that parse refuses (a NaN time is written as NaN, which is not JSON).
  static std::string serialize(MacStoreSnapshot const& s);
  // The snapshot the text holds, entries sorted by (VLAN, MAC), or the reason it is refused, in
  // one line.
  static std::variant<MacStoreSnapshot, std::string> parse(std::string_view text);
  // Why the text of s would not read back as s (sorted), or nothing: VLAN 0 or 4095, no
  // interface, unknownMac or a type out of range, a time that is not finite, a tunnel address
  // marked false, or two entries for one MAC and VLAN.
  static std::optional<std::string> check(MacStoreSnapshot const& s);

  struct Loaded {
    enum class Kind { absent, loaded, refused } kind = Kind::absent;
    MacStoreSnapshot snapshot;  // empty unless loaded
    std::string reason;         // set when refused
  };
  // No file at path is normal after a reboot: absent. A file that cannot be read or parsed is
  // refused, with the reason.
  static Loaded load(std::string const& path);
  // Writes path + ".tmp" and renames it over path, so that a crash mid-save leaves the old file
  // whole. Refuses a snapshot check refuses, so that nothing is saved that would not load. On
  // failure returns false, sets *reason (when given) and leaves any old file as it was.
  static bool save(std::string const& path, MacStoreSnapshot const& s, std::string* reason);
};

}  // namespace Vemo
