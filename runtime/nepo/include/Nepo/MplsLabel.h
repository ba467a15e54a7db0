// MPLS labels: 20-bit values, printed in decimal.
#pragma once

#include <absl/hash/hash.h>

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Nepo {

class MplsLabel {
 public:
  static constexpr uint32_t max = (1u << 20) - 1;
  // Labels below 16 have fixed meanings.
  static constexpr uint32_t ipv4ExplicitNull = 0;
  static constexpr uint32_t routerAlert = 1;
  static constexpr uint32_t ipv6ExplicitNull = 2;
  static constexpr uint32_t implicitNull = 3;
  static constexpr uint32_t firstUnreserved = 16;

  // Label 0.
  constexpr MplsLabel() = default;
  // Throws Zol::RangeException naming the value if it is above max.
  explicit MplsLabel(uint32_t value);

  // Decimal 0..1048575: other text throws Zol::ParseError, numbers above max
  // Zol::RangeException, both naming the text.
  static MplsLabel fromString(std::string_view text);
  std::string stringValue() const { return std::to_string(value_); }

  constexpr uint32_t value() const { return value_; }
  constexpr bool isReserved() const { return value_ < firstUnreserved; }

  friend constexpr bool operator==(MplsLabel const&, MplsLabel const&) = default;
  friend constexpr auto operator<=>(MplsLabel const&, MplsLabel const&) = default;
  template <class H>
  friend H AbslHashValue(H h, MplsLabel const& v) {
    return H::combine(std::move(h), v.value_);
  }
  friend std::ostream& operator<<(std::ostream& os, MplsLabel const& v);

 private:
  uint32_t value_ = 0;
};

}  // namespace Nepo

template <>
struct std::hash<Nepo::MplsLabel> {
  size_t operator()(Nepo::MplsLabel const& v) const noexcept {
    return absl::Hash<Nepo::MplsLabel>()(v);
  }
};
