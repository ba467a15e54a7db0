// A 32-bit sequence number that wraps, compared in serial-number arithmetic.
//
// Which comparison does what:
//  - ==, != compare the raw value.
//  - <, <=, >, >= are serial: a < b iff (int32_t)(a - b) < 0, so 0xffffffff < 0 and the order
//    holds across the wrap for numbers less than 2^31 apart. It is not a total order: two numbers
//    exactly 2^31 apart are each less than the other (and each <=, >, >= the other too).
//  - std::less<Seqno32> (and Seqno32::RawLess) order by the raw value. That is a total order, so
//    ordered containers keyed by Seqno32 (std::map, std::set, absl::btree_map) stay well-formed
//    and iterate in raw numeric order, not in serial order.
//  - a - b is the signed serial distance from b to a.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

namespace Zol {
class TextParser;
}

namespace Tolm {

class Seqno32 {
 public:
  constexpr Seqno32() = default;
  constexpr explicit Seqno32(uint32_t v) : value_(v) {}

  constexpr uint32_t value() const { return value_; }

  constexpr Seqno32& operator++() {
    ++value_;
    return *this;
  }
  constexpr Seqno32 operator++(int) {
    Seqno32 const old = *this;
    ++value_;
    return old;
  }
  constexpr Seqno32& operator+=(uint32_t n) {
    value_ += n;
    return *this;
  }
  friend constexpr Seqno32 operator+(Seqno32 a, uint32_t n) { return a += n; }
  // Signed distance from b to a: positive when a is after b.
  friend constexpr int32_t operator-(Seqno32 a, Seqno32 b) {
    return static_cast<int32_t>(a.value_ - b.value_);
  }

  friend constexpr bool operator==(Seqno32 a, Seqno32 b) = default;
  friend constexpr bool operator<(Seqno32 a, Seqno32 b) { return a - b < 0; }
  friend constexpr bool operator>(Seqno32 a, Seqno32 b) { return b < a; }
  friend constexpr bool operator<=(Seqno32 a, Seqno32 b) { return a == b || a < b; }
  friend constexpr bool operator>=(Seqno32 a, Seqno32 b) { return b <= a; }

  // Total order on the raw value, for keys of ordered containers.
  struct RawLess {
    constexpr bool operator()(Seqno32 a, Seqno32 b) const { return a.value_ < b.value_; }
  };

  template <class H>
  friend H AbslHashValue(H h, Seqno32 s) {
    return H::combine(std::move(h), s.value_);
  }

  // Text form: the decimal number.
  void zolPrint(std::string& out) const;
  static Seqno32 zolParse(Zol::TextParser& p);

 private:
  uint32_t value_ = 0;
};

}  // namespace Tolm

template <>
struct std::less<Tolm::Seqno32> : Tolm::Seqno32::RawLess {};

template <>
struct std::hash<Tolm::Seqno32> {
  size_t operator()(Tolm::Seqno32 s) const noexcept { return std::hash<uint32_t>()(s.value()); }
};
