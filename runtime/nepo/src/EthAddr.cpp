#include "Nepo/EthAddr.h"

#include <optional>
#include <ostream>

#include "Nepo/EthAddrWithMask.h"
#include "Zol/Types.h"

namespace Nepo {

namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Hex digits in groups of `groupDigits`, the groups separated by `sep`, 12 digits in all.
std::optional<EthAddr> parseGroups(std::string_view text, size_t groupDigits, char sep) {
  uint64_t v = 0;
  size_t pos = 0;
  for (size_t group = 0; group < 12 / groupDigits; ++group) {
    if (group > 0 && (pos >= text.size() || text[pos++] != sep)) return std::nullopt;
    for (size_t i = 0; i < groupDigits; ++i) {
      int d = pos < text.size() ? hexDigit(text[pos++]) : -1;
      if (d < 0) return std::nullopt;
      v = (v << 4) | static_cast<uint64_t>(d);
    }
  }
  if (pos != text.size()) return std::nullopt;
  return EthAddr::fromValue(v);
}

std::optional<EthAddr> parseEthAddr(std::string_view text) {
  if (text.size() == 17) return parseGroups(text, 2, ':');
  if (text.size() == 14) return parseGroups(text, 4, '.');
  return std::nullopt;
}

}  // namespace

EthAddr EthAddr::fromValue(uint64_t value) {
  if (value >> 48) {
    throw Zol::RangeException("Ethernet address value " + std::to_string(value) +
                              " does not fit in 48 bits");
  }
  Bytes b;
  for (int i = 5; i >= 0; --i, value >>= 8) b[static_cast<size_t>(i)] = value & 0xff;
  return EthAddr(b);
}

EthAddr EthAddr::fromString(std::string_view text) {
  if (auto a = parseEthAddr(text)) return *a;
  throw Zol::ParseError("'" + std::string(text) + "' is not an Ethernet address");
}

std::string EthAddr::stringValue() const {
  static constexpr char digits[] = "0123456789abcdef";
  std::string out(17, ':');
  for (size_t i = 0; i < 6; ++i) {
    out[3 * i] = digits[bytes_[i] >> 4];
    out[3 * i + 1] = digits[bytes_[i] & 0xf];
  }
  return out;
}

std::ostream& operator<<(std::ostream& os, EthAddr const& v) { return os << v.stringValue(); }

EthAddrWithMask EthAddrWithMask::fromString(std::string_view text) {
  auto slash = text.find('/');
  if (slash != std::string_view::npos) {
    auto addr = parseEthAddr(text.substr(0, slash));
    auto mask = parseEthAddr(text.substr(slash + 1));
    if (addr && mask) return EthAddrWithMask(*addr, *mask);
  }
  throw Zol::ParseError("'" + std::string(text) + "' is not an Ethernet address with mask");
}

std::string EthAddrWithMask::stringValue() const {
  return addr_.stringValue() + "/" + mask_.stringValue();
}

std::ostream& operator<<(std::ostream& os, EthAddrWithMask const& v) {
  return os << v.stringValue();
}

}  // namespace Nepo
