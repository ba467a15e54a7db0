// Other JSON forms of integers, for the fields of values that people write by hand.
#pragma once

#include <charconv>
#include <span>
#include <string_view>
#include <utility>

#include "Zol/Json.h"

namespace Zol {

// An integer that people may also write by name ("tcp"), as a list of bit names (bit i is
// bits[i]) or, with hex, as "0x" text; any other text or list is a BindError.
template <class T>
T numberFromJson(Json const& j, std::span<std::pair<std::string_view, T> const> names,
                 std::span<std::string_view const> bits, bool hex) {
  if (j.IsString()) {
    std::string_view const s(j.GetString(), j.GetStringLength());
    for (auto const& [name, v] : names) {
      if (name == s) return v;
    }
    if (hex && s.size() > 2 && s.starts_with("0x")) {
      T v{};
      auto const [end, ec] = std::from_chars(s.data() + 2, s.data() + s.size(), v, 16);
      if (ec == std::errc() && end == s.data() + s.size()) return v;
    }
    jsonTypeError(j, "a number");
  }
  if (j.IsArray() && bits.size() != 0) {
    T v{};
    for (auto const& e : j.GetArray()) {
      size_t bit = 0;
      for (auto const b : bits) {
        if (e.IsString() && b == std::string_view(e.GetString(), e.GetStringLength())) break;
        ++bit;
      }
      if (bit == bits.size()) jsonTypeError(e, "a bit name");
      v = static_cast<T>(v | (T{1} << bit));
    }
    return v;
  }
  return fromJson<T>(j);
}

}  // namespace Zol
