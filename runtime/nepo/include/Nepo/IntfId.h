// Interface identifiers: "Ethernet3/1/4", "Port-Channel10.200", "Vlan10", "Cpu", ...
//
// An IntfId is one 64-bit word, so that it hashes and compares as an integer; the name is
// rebuilt only when it is printed. From the most significant bit down:
//
//   [63:60] kind        the interface kind (a sub-interface holds its parent's kind here)
//   [59:40] first       first number, 0..1048575
//   [39:30] second + 1  second number, 0..1022 (0 in the field: no second number)
//   [29:20] third + 1   third number, 0..1022 (0 in the field: no third number)
//   [19:0]  subIntf     number after the dot, 1..1048575 (0: not a sub-interface)
//
// Names and the numbers they take:
//   Ethernet, PeerEthernet   1 to 3 numbers ("Ethernet1", "Ethernet1/2", "Ethernet3/1/4")
//   Management               1 or 2 numbers ("Management1", "Management1/1")
//   Port-Channel, PeerPort-Channel, Vxlan, Tunnel, Pseudowire, Loopback   1 number
//   Vlan                     1 number, 1..4094
//   Cpu                      no number
// Port-Channel numbers start at 1; the others may be 0. Ethernet and Port-Channel interfaces
// have sub-interfaces ("Ethernet1/2.100", "Port-Channel1.100"). Numbers are plain decimal,
// without leading zeros, so that every interface has exactly one name.
//
// Ordering is the order of the words: by kind, then number by number (Ethernet2 < Ethernet10,
// Ethernet1 < Ethernet1/1 < Ethernet2), with sub-interfaces right after their parent.
#pragma once

#include <absl/hash/hash.h>

#include <compare>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Nepo {

// The enumerator order is the sort order of the kinds.
enum class IntfKind : uint8_t {
  Empty,
  Ethernet,
  PortChannel,
  Vlan,
  Vxlan,
  Tunnel,
  Pseudowire,
  Loopback,
  Management,
  Cpu,
  PeerEthernet,  // an interface of the MLAG peer switch
  PeerPortChannel,
  EthernetSubIntf,
  PortChannelSubIntf,
};

class IntfId {
 public:
  static constexpr uint32_t maxFirstNumber = (1u << 20) - 1;
  static constexpr uint32_t maxOtherNumber = (1u << 10) - 2;
  static constexpr uint32_t maxSubIntfId = (1u << 20) - 1;

  // The empty identifier: no interface, printed as "".
  constexpr IntfId() = default;
  // An interface of a kind that is not a sub-interface, from its numbers:
  // IntfId(IntfKind::Ethernet, {3, 1, 4}). Throws Zol::RangeException if the numbers do not suit
  // the kind. Use subIntf() for sub-interfaces.
  IntfId(IntfKind kind, std::initializer_list<uint32_t> numbers);

  // Throws Zol::ParseError naming the text if it is not an interface name.
  static IntfId fromString(std::string_view text);
  std::string stringValue() const;

  // The sub-interface `id` of this Ethernet or Port-Channel interface; throws
  // Zol::RangeException for other interfaces and ids outside 1..maxSubIntfId.
  IntfId subIntf(uint32_t id) const;

  IntfKind kind() const {
    auto k = static_cast<IntfKind>(word_ >> kindShift);
    if (!(word_ & subIntfMask)) return k;
    return k == IntfKind::Ethernet ? IntfKind::EthernetSubIntf : IntfKind::PortChannelSubIntf;
  }
  bool isEmpty() const { return word_ == 0; }
  // Front-panel ports only, not their sub-interfaces.
  bool isEthernet() const { return kind() == IntfKind::Ethernet; }
  bool isPortChannel() const { return kind() == IntfKind::PortChannel; }
  bool isVlan() const { return kind() == IntfKind::Vlan; }
  bool isVxlan() const { return kind() == IntfKind::Vxlan; }
  bool isTunnel() const { return kind() == IntfKind::Tunnel; }
  bool isPseudowire() const { return kind() == IntfKind::Pseudowire; }
  bool isLoopback() const { return kind() == IntfKind::Loopback; }
  bool isManagement() const { return kind() == IntfKind::Management; }
  bool isCpu() const { return kind() == IntfKind::Cpu; }
  bool isPeerEthernet() const { return kind() == IntfKind::PeerEthernet; }
  bool isPeerPortChannel() const { return kind() == IntfKind::PeerPortChannel; }
  bool isPeer() const { return isPeerEthernet() || isPeerPortChannel(); }
  bool isSubIntf() const { return (word_ & subIntfMask) != 0; }

  // The numbers of the name before any dot: 3 for Ethernet3/1/4, 0 for Cpu.
  unsigned numberCount() const;
  // Number i (from 0) of the name: for Ethernet3/1/4, number(2) is 4; 0 past numberCount().
  uint32_t number(unsigned i) const;
  // The interface a sub-interface belongs to; the empty identifier for other interfaces.
  IntfId parent() const { return isSubIntf() ? IntfId(word_ & ~subIntfMask) : IntfId(); }
  // The number after the dot; 0 for interfaces that are not sub-interfaces.
  uint32_t subIntfId() const { return static_cast<uint32_t>(word_ & subIntfMask); }

  // The encoded word, for diagnostics and hashing.
  uint64_t raw() const { return word_; }

  friend bool operator==(IntfId const&, IntfId const&) = default;
  friend auto operator<=>(IntfId const&, IntfId const&) = default;
  template <class H>
  friend H AbslHashValue(H h, IntfId const& v) {
    return H::combine(std::move(h), v.word_);
  }
  friend std::ostream& operator<<(std::ostream& os, IntfId const& v);

 private:
  static constexpr unsigned kindShift = 60;
  static constexpr unsigned firstShift = 40;
  static constexpr unsigned secondShift = 30;
  static constexpr unsigned thirdShift = 20;
  static constexpr uint64_t subIntfMask = (uint64_t{1} << 20) - 1;

  explicit constexpr IntfId(uint64_t word) : word_(word) {}

  uint64_t word_ = 0;
};

}  // namespace Nepo

template <>
struct std::hash<Nepo::IntfId> {
  size_t operator()(Nepo::IntfId const& v) const noexcept { return absl::Hash<Nepo::IntfId>()(v); }
};
