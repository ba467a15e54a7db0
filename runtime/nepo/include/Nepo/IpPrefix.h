// IP prefixes: "10.0.0.0/8", "2001:db8::/32".
#pragma once

#include <absl/hash/hash.h>

#include <compare>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "Nepo/IpAddr.h"

namespace Nepo {

class IpPrefix {
 public:
  // 0.0.0.0/0.
  constexpr IpPrefix() = default;
  // The address is masked to the length, so 10.1.2.3/8 is 10.0.0.0/8; a length beyond the
  // address size throws Zol::RangeException.
  IpPrefix(IpAddr addr, unsigned length);

  // "address/length". Text that is not a prefix throws Zol::ParseError; a length beyond the
  // address size throws Zol::RangeException. Both name the text.
  static IpPrefix fromString(std::string_view text);
  std::string stringValue() const;

  IpAddr addr() const { return addr_; }
  unsigned length() const { return length_; }
  bool isV4() const { return addr_.isV4(); }
  bool isV6() const { return addr_.isV6(); }

  // Addresses and prefixes of the other family are never contained.
  bool contains(IpAddr a) const { return a.isV6() == addr_.isV6() && a.masked(length_) == addr_; }
  bool contains(IpPrefix const& p) const { return p.length_ >= length_ && contains(p.addr_); }

  // By address (so by family first), then length: 10.0.0.0/8 < 10.0.0.0/16 < 10.1.0.0/16.
  friend constexpr bool operator==(IpPrefix const&, IpPrefix const&) = default;
  friend constexpr auto operator<=>(IpPrefix const&, IpPrefix const&) = default;
  template <class H>
  friend H AbslHashValue(H h, IpPrefix const& v) {
    return H::combine(std::move(h), v.addr_, v.length_);
  }
  friend std::ostream& operator<<(std::ostream& os, IpPrefix const& v);

 private:
  IpAddr addr_;
  uint8_t length_ = 0;
};

}  // namespace Nepo

template <>
struct std::hash<Nepo::IpPrefix> {
  size_t operator()(Nepo::IpPrefix const& v) const noexcept {
    return absl::Hash<Nepo::IpPrefix>()(v);
  }
};
