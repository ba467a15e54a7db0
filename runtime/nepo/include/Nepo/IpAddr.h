// IPv4 and IPv6 addresses in one type: "10.0.0.1", "2001:db8::1".
#pragma once

#include <absl/hash/hash.h>

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <span>
#include <string>
#include <string_view>

namespace Nepo {

class IpAddr {
 public:
  // 0.0.0.0.
  constexpr IpAddr() = default;
  // The IPv4 address whose value, most significant byte first, is `addr`: 0x0a000001 is
  // 10.0.0.1.
  static constexpr IpAddr fromV4HostOrder(uint32_t addr) {
    IpAddr a;
    for (size_t i = 0; i < 4; ++i) a.bytes_[i] = static_cast<uint8_t>(addr >> (24 - 8 * i));
    return a;
  }
  // Network-order bytes: 4 make an IPv4 address, 16 an IPv6 one; other sizes throw
  // Zol::RangeException.
  static IpAddr fromBytes(std::span<uint8_t const> bytes);

  // Dotted-quad IPv4 or any IPv6 text form; anything else throws Zol::ParseError naming the text.
  static IpAddr fromString(std::string_view text);
  // The standard form: dotted quad, or compressed lower-case IPv6.
  std::string stringValue() const;

  constexpr bool isV4() const { return !v6_; }
  constexpr bool isV6() const { return v6_; }
  // 32 or 128.
  constexpr unsigned bitLength() const { return v6_ ? 128 : 32; }
  // Only for IPv4 addresses (asserted).
  uint32_t v4HostOrder() const;
  // The address in network order: 4 or 16 bytes.
  std::span<uint8_t const> bytes() const { return {bytes_.data(), v6_ ? 16u : 4u}; }

  bool isZero() const;
  // 224.0.0.0/4 or ff00::/8.
  bool isMulticast() const { return v6_ ? bytes_[0] == 0xff : (bytes_[0] & 0xf0) == 0xe0; }
  // 127.0.0.0/8 or ::1.
  bool isLoopback() const;

  // The address with every bit after the first `length` cleared; lengths beyond the address
  // size leave it whole.
  IpAddr masked(unsigned length) const;

  // The family first (every IPv4 address before every IPv6 one), then the bytes.
  friend constexpr bool operator==(IpAddr const&, IpAddr const&) = default;
  friend constexpr auto operator<=>(IpAddr const&, IpAddr const&) = default;
  template <class H>
  friend H AbslHashValue(H h, IpAddr const& v) {
    return H::combine(std::move(h), v.v6_, v.bytes_);
  }
  friend std::ostream& operator<<(std::ostream& os, IpAddr const& v);

 private:
  // Member order is comparison order. An IPv4 address fills the first 4 bytes, the rest stay 0.
  bool v6_ = false;
  std::array<uint8_t, 16> bytes_{};
};

}  // namespace Nepo

template <>
struct std::hash<Nepo::IpAddr> {
  size_t operator()(Nepo::IpAddr const& v) const noexcept { return absl::Hash<Nepo::IpAddr>()(v); }
};
