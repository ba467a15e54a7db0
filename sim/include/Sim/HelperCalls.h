// How often each operation of a simulated helper ran, by the operation's name: a helper lists
// its operations in an enumeration and their names in the same order.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace sim {

template <class Op, size_t N>
class HelperCalls {
 public:
  explicit constexpr HelperCalls(std::array<std::string_view, N> const& names) : names_(names) {}

  void count(Op op) { ++calls_[static_cast<size_t>(op)]; }
  std::string_view name(Op op) const { return names_[static_cast<size_t>(op)]; }
  // Every operation's name with its count, in the enumeration's order.
  template <class F>
  void forEach(F const& f) const {
    for (size_t i = 0; i < N; ++i) f(names_[i], calls_[i]);
  }
  // 0 for a name that is no operation's.
  uint64_t operator()(std::string_view op) const {
    for (size_t i = 0; i < N; ++i) {
      if (names_[i] == op) return calls_[i];
    }
    return 0;
  }

 private:
  std::array<std::string_view, N> names_;
  std::array<uint64_t, N> calls_{};
};

}  // namespace sim
