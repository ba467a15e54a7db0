#include "Nepo/IpAddr.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>
#include <ostream>

#include "Nepo/IpPrefix.h"
#include "Zol/Assert.h"
#include "Zol/Types.h"

namespace Nepo {

namespace {

std::optional<IpAddr> parseIpAddr(std::string_view text) {
  // inet_pton wants a terminated string; longer text is no address anyway.
  char buf[INET6_ADDRSTRLEN];
  if (text.empty() || text.size() >= sizeof buf) return std::nullopt;
  std::memcpy(buf, text.data(), text.size());
  buf[text.size()] = '\0';
  uint8_t bytes[16];
  bool v6 = text.find(':') != std::string_view::npos;
  if (inet_pton(v6 ? AF_INET6 : AF_INET, buf, bytes) != 1) return std::nullopt;
  return IpAddr::fromBytes(std::span<uint8_t const>(bytes, v6 ? 16 : 4));
}

}  // namespace

IpAddr IpAddr::fromBytes(std::span<uint8_t const> bytes) {
  if (bytes.size() != 4 && bytes.size() != 16) {
    throw Zol::RangeException("an IP address has 4 or 16 bytes, not " +
                              std::to_string(bytes.size()));
  }
  IpAddr a;
  a.v6_ = bytes.size() == 16;
  std::copy(bytes.begin(), bytes.end(), a.bytes_.begin());
  return a;
}

IpAddr IpAddr::fromString(std::string_view text) {
  if (auto a = parseIpAddr(text)) return *a;
  throw Zol::ParseError("'" + std::string(text) + "' is not an IP address");
}

std::string IpAddr::stringValue() const {
  char buf[INET6_ADDRSTRLEN];
  inet_ntop(v6_ ? AF_INET6 : AF_INET, bytes_.data(), buf, sizeof buf);
  return buf;
}

uint32_t IpAddr::v4HostOrder() const {
  ZOL_ASSERT(isV4());
  return uint32_t{bytes_[0]} << 24 | uint32_t{bytes_[1]} << 16 | uint32_t{bytes_[2]} << 8 |
         bytes_[3];
}

bool IpAddr::isZero() const {
  return std::all_of(bytes_.begin(), bytes_.end(), [](uint8_t b) { return b == 0; });
}

bool IpAddr::isLoopback() const {
  if (!v6_) return bytes_[0] == 127;
  return std::all_of(bytes_.begin(), bytes_.end() - 1, [](uint8_t b) { return b == 0; }) &&
         bytes_[15] == 1;
}

IpAddr IpAddr::masked(unsigned length) const {
  IpAddr a = *this;
  for (unsigned i = 0; i < 16; ++i) {
    unsigned bitsBefore = 8 * i;
    if (length <= bitsBefore) {
      a.bytes_[i] = 0;
    } else if (length < bitsBefore + 8) {
      a.bytes_[i] &= static_cast<uint8_t>(0xff00 >> (length - bitsBefore));
    }
  }
  return a;
}

std::ostream& operator<<(std::ostream& os, IpAddr const& v) { return os << v.stringValue(); }

IpPrefix::IpPrefix(IpAddr addr, unsigned length) {
  if (length > addr.bitLength()) {
    throw Zol::RangeException("prefix length " + std::to_string(length) + " of " +
                              addr.stringValue() + " is out of range 0.." +
                              std::to_string(addr.bitLength()));
  }
  addr_ = addr.masked(length);
  length_ = static_cast<uint8_t>(length);
}

IpPrefix IpPrefix::fromString(std::string_view text) {
  auto slash = text.find('/');
  std::optional<IpAddr> addr;
  unsigned length = 0;
  std::errc ec = std::errc::invalid_argument;
  if (slash != std::string_view::npos) {
    addr = parseIpAddr(text.substr(0, slash));
    auto lengthText = text.substr(slash + 1);
    auto [end, err] =
        std::from_chars(lengthText.data(), lengthText.data() + lengthText.size(), length);
    ec = end == lengthText.data() + lengthText.size() ? err : std::errc::invalid_argument;
  }
  if (!addr || ec == std::errc::invalid_argument) {
    throw Zol::ParseError("'" + std::string(text) + "' is not an IP prefix");
  }
  if (ec == std::errc::result_out_of_range || length > addr->bitLength()) {
    throw Zol::RangeException("'" + std::string(text) + "' has a prefix length out of range 0.." +
                              std::to_string(addr->bitLength()));
  }
  return IpPrefix(*addr, length);
}

std::string IpPrefix::stringValue() const {
  return addr_.stringValue() + "/" + std::to_string(length_);
}

std::ostream& operator<<(std::ostream& os, IpPrefix const& v) { return os << v.stringValue(); }

}  // namespace Nepo
