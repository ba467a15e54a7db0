// 48-bit Ethernet (MAC) addresses, printed "02:00:00:00:00:01".
#pragma once

#include <absl/hash/hash.h>

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Nepo {

class EthAddr {
 public:
  using Bytes = std::array<uint8_t, 6>;

  // 00:00:00:00:00:00.
  constexpr EthAddr() = default;
  constexpr explicit EthAddr(Bytes const& bytes) : bytes_(bytes) {}
  constexpr EthAddr(uint8_t b0, uint8_t b1, uint8_t b2, uint8_t b3, uint8_t b4, uint8_t b5)
      : bytes_{b0, b1, b2, b3, b4, b5} {}
  // The address whose bytes, first byte most significant, make up `value`; throws
  // Zol::RangeException if it needs more than 48 bits.
  static EthAddr fromValue(uint64_t value);
  static constexpr EthAddr broadcast() { return EthAddr(0xff, 0xff, 0xff, 0xff, 0xff, 0xff); }

  // "02:00:00:00:00:01" or "0200.0000.0001", either case; anything else throws Zol::ParseError.
  static EthAddr fromString(std::string_view text);
  // Lower-case colon form.
  std::string stringValue() const;

  constexpr Bytes const& bytes() const { return bytes_; }
  constexpr uint8_t byte(size_t i) const { return bytes_[i]; }
  // The inverse of fromValue().
  constexpr uint64_t value() const {
    uint64_t v = 0;
    for (uint8_t b : bytes_) v = (v << 8) | b;
    return v;
  }

  // The group bit of the first byte; broadcast is multicast too.
  constexpr bool isMulticast() const { return (bytes_[0] & 1) != 0; }
  constexpr bool isUnicast() const { return !isMulticast(); }
  constexpr bool isBroadcast() const { return value() == 0xffff'ffff'ffffu; }
  constexpr bool isZero() const { return value() == 0; }

  // Bytes compare in order, so addresses sort as their values do. As values: a defaulted
  // comparison of the byte array becomes a call to memcmp, which dominated every hash lookup of
  // a MAC table.
  friend constexpr bool operator==(EthAddr const& a, EthAddr const& b) {
    return a.value() == b.value();
  }
  friend constexpr std::strong_ordering operator<=>(EthAddr const& a, EthAddr const& b) {
    return a.value() <=> b.value();
  }
  template <class H>
  friend H AbslHashValue(H h, EthAddr const& v) {
    return H::combine(std::move(h), v.value());
  }
  friend std::ostream& operator<<(std::ostream& os, EthAddr const& v);

 private:
  Bytes bytes_{};
};

}  // namespace Nepo

template <>
struct std::hash<Nepo::EthAddr> {
  size_t operator()(Nepo::EthAddr const& v) const noexcept {
    return absl::Hash<Nepo::EthAddr>()(v);
  }
};
