// An Ethernet address with a mask of the bits that matter, as in ACL and filter rules:
// "02:00:00:00:00:00/ff:ff:ff:00:00:00".
#pragma once

#include <absl/hash/hash.h>

#include <compare>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "Nepo/EthAddr.h"

namespace Nepo {

class EthAddrWithMask {
 public:
  // Address zero with every bit significant.
  constexpr EthAddrWithMask() = default;
  // The address is kept as given, bits outside the mask included, so that a rule prints back the
  // way it was written; matches() ignores those bits.
  constexpr explicit EthAddrWithMask(EthAddr addr, EthAddr mask = EthAddr::broadcast())
      : addr_(addr), mask_(mask) {}

  // "address/mask", each part in either EthAddr form; throws Zol::ParseError naming the text.
  static EthAddrWithMask fromString(std::string_view text);
  std::string stringValue() const;

  constexpr EthAddr addr() const { return addr_; }
  constexpr EthAddr mask() const { return mask_; }

  // Whether `a` agrees with the address on every bit the mask sets.
  constexpr bool matches(EthAddr a) const {
    return ((a.value() ^ addr_.value()) & mask_.value()) == 0;
  }

  // By address, then mask.
  friend constexpr bool operator==(EthAddrWithMask const&, EthAddrWithMask const&) = default;
  friend constexpr auto operator<=>(EthAddrWithMask const&, EthAddrWithMask const&) = default;
  template <class H>
  friend H AbslHashValue(H h, EthAddrWithMask const& v) {
    return H::combine(std::move(h), v.addr_.value(), v.mask_.value());
  }
  friend std::ostream& operator<<(std::ostream& os, EthAddrWithMask const& v);

 private:
  EthAddr addr_;
  EthAddr mask_ = EthAddr::broadcast();
};

}  // namespace Nepo

template <>
struct std::hash<Nepo::EthAddrWithMask> {
  size_t operator()(Nepo::EthAddrWithMask const& v) const noexcept {
    return absl::Hash<Nepo::EthAddrWithMask>()(v);
  }
};
