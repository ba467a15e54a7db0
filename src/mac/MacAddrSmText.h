// How the MAC SM's traces print its keys and entries: "00:11:22:33:44:55 vlan 10".
#pragma once

#include <ostream>

#include "Vemo/MacEntryRank.h"
#include "Zol/Text.h"
#include "ZolGen/Bridging.h"
#include "ZolGen/Dot1x.h"
#include "ZolGen/L2Rib.h"
#include "ZolGen/VemoMac.h"
#include "ZolGen/VemoTunnel.h"
#include "ZolGen/VemoVxlan.h"

namespace Bridging {

inline std::ostream& operator<<(std::ostream& os, VlanId v) { return os << v.value(); }
inline std::ostream& operator<<(std::ostream& os, VlanIdOrNone v) { return os << v.value(); }
inline std::ostream& operator<<(std::ostream& os, MacVlanPair const& k) {
  return os << k.macAddr() << " vlan " << k.vlanId();
}
inline std::ostream& operator<<(std::ostream& os, EntryType t) { return os << Zol::enumName(t); }
inline std::ostream& operator<<(std::ostream& os, HostEntry const& e) {
  return os << "intf " << e.intf() << " type " << e.entryType() << " moves " << e.moves()
            << " lastMoveTime " << e.lastMoveTime();
}

}  // namespace Bridging

namespace L2Rib {

inline std::ostream& operator<<(std::ostream& os, ObjTuple const& t) {
  return os << Zol::enumName(t.objType()) << "/" << t.objId();
}
inline std::ostream& operator<<(std::ostream& os, DestType t) { return os << Zol::enumName(t); }

}  // namespace L2Rib

namespace Vemo {

inline std::ostream& operator<<(std::ostream& os, SwTunnelGroupId g) { return os << g.value(); }
inline std::ostream& operator<<(std::ostream& os, TunnelIpAddrList const& l) {
  char const* sep = "";
  for (auto const& [addr, on] : l.tunnelIpAddrAll()) {
    os << sep << addr;
    sep = " ";
  }
  return os;
}
inline std::ostream& operator<<(std::ostream& os, EntryEvaluationAction a) {
  return os << Zol::enumName(a);
}
inline std::ostream& operator<<(std::ostream& os, MacProgramStatus s) {
  return os << Zol::enumName(s);
}
inline std::ostream& operator<<(std::ostream& os, ModifyMacEntry const& u) {
  os << "intf " << u.intf() << " type " << u.entryType() << " moves " << u.moves() << " action "
     << u.action();
  if (!u.swTunnelGroupId().isEmpty()) os << " swTunnelGroupId " << u.swTunnelGroupId();
  return os;
}

namespace VXLAN {

inline std::ostream& operator<<(std::ostream& os, FlushReqKey const& k) {
  return os << "vlan " << k.vlanId().value() << " " << k.vtiIntfId();
}

}  // namespace VXLAN

}  // namespace Vemo

namespace VemoTypes {

inline std::ostream& operator<<(std::ostream& os, RemoteMacAddressTableEntry const& e) {
  os << "intf " << e.intf() << " type " << e.entryType() << " swTunnelGroupId "
     << e.swTunnelGroupId().value() << " l2RibObjTuple ";
  if (e.l2RibObjTupleSet()) {
    os << Zol::enumName(e.l2RibObjTuple().objType()) << "/" << e.l2RibObjTuple().objId();
  } else {
    os << "none";
  }
  return os << " moveCount " << e.moveCount().value() << " lastMoveTime " << e.lastMoveTime()
            << " preference " << unsigned{e.preference()} << " promote " << e.promote();
}

}  // namespace VemoTypes
