// Names and list helpers shared by the port-channel SM tests.
#pragma once

#include <initializer_list>
#include <ostream>
#include <string>

#include "Vemo/LagSm.h"

namespace l2test {

inline Nepo::IntfId eth(uint32_t n) { return Nepo::IntfId(Nepo::IntfKind::Ethernet, {n}); }
inline Nepo::IntfId po(uint32_t n) { return Nepo::IntfId(Nepo::IntfKind::PortChannel, {n}); }

// Every member collecting and distributing, as the SM programs them.
inline Vemo::VemoLagPortList ports(std::initializer_list<Nepo::IntfId> members) {
  Vemo::VemoLagPortList list;
  for (auto const& m : members) list.portIs(m, Vemo::VemoLagPort(true, true));
  return list;
}

// "Ethernet1,Ethernet3", or "-" for no member.
inline std::string text(Vemo::VemoLagPortList const& list) {
  std::string out;
  for (auto const& [port, state] : list.portAll()) {
    out += (out.empty() ? "" : ",") + port.stringValue();
  }
  return out.empty() ? "-" : out;
}

}  // namespace l2test

namespace Vemo {
// Readable member lists in failure messages.
inline void PrintTo(VemoLagPortList const& list, std::ostream* os) { *os << l2test::text(list); }
}  // namespace Vemo
