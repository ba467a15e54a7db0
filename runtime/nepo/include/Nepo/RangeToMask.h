// Value ranges as value/mask pairs, for hardware that matches masks rather than ranges (TCAM
// rules on ports, VLAN ids, lengths).
#pragma once

#include <concepts>
#include <cstdint>
#include <vector>

#include "Zol/Assert.h"

namespace Nepo {

// The values v with (v & mask) == value.
template <std::unsigned_integral T>
struct ValueMask {
  T value{};
  T mask{};

  // The highest value covered.
  constexpr T last() const { return static_cast<T>(value | static_cast<T>(~mask)); }
  constexpr bool matches(T v) const { return static_cast<T>(v & mask) == value; }
  friend constexpr bool operator==(ValueMask const&, ValueMask const&) = default;
};

// The mask with the top `bits` bits of T set: prefixMask<uint16_t>(6) is 0xfc00.
template <std::unsigned_integral T>
constexpr T prefixMask(unsigned bits) {
  constexpr unsigned width = 8 * sizeof(T);
  ZOL_ASSERT_MSG(bits <= width, "mask <= 8 * sizeof( T )");
  // Shift a 64-bit word so that no shift reaches its width.
  return bits == 0 ? T{0} : static_cast<T>(~uint64_t{0} << (width - bits));
}

// The fewest aligned power-of-two blocks that cover [low, high] exactly, lowest first: from each
// block's start, the largest block it is aligned to that does not pass high. Empty if low > high.
template <std::unsigned_integral T>
std::vector<ValueMask<T>> rangeToMasks(T low, T high) {
  constexpr unsigned width = 8 * sizeof(T);
  std::vector<ValueMask<T>> out;
  if (low > high) return out;
  for (T cur = low;;) {
    unsigned n = 0;
    // Grow the block while cur stays aligned to it and it stays within high.
    while (n < width && ((static_cast<uint64_t>(cur) >> n) & 1) == 0) {
      uint64_t span = n + 1 == 64 ? ~uint64_t{0} : (uint64_t{1} << (n + 1)) - 1;
      if (span > static_cast<uint64_t>(high - cur)) break;
      ++n;
    }
    ValueMask<T> vm{cur, prefixMask<T>(width - n)};
    out.push_back(vm);
    if (vm.last() == high) return out;
    cur = static_cast<T>(vm.last() + 1);
  }
}

}  // namespace Nepo
