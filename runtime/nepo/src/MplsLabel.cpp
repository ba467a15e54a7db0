#include "Nepo/MplsLabel.h"

#include <charconv>
#include <ostream>

#include "Zol/Types.h"

namespace Nepo {

namespace {

[[noreturn]] void outOfRange(std::string_view value) {
  throw Zol::RangeException("MPLS label " + std::string(value) + " is out of range 0.." +
                            std::to_string(MplsLabel::max));
}

}  // namespace

MplsLabel::MplsLabel(uint32_t value) : value_(value) {
  if (value > max) outOfRange(std::to_string(value));
}

MplsLabel MplsLabel::fromString(std::string_view text) {
  uint32_t v = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (ec == std::errc::invalid_argument || end != text.data() + text.size()) {
    throw Zol::ParseError("'" + std::string(text) + "' is not an MPLS label");
  }
  if (ec == std::errc::result_out_of_range || v > max) outOfRange("'" + std::string(text) + "'");
  return MplsLabel(v);
}

std::ostream& operator<<(std::ostream& os, MplsLabel const& v) { return os << v.value(); }

}  // namespace Nepo
