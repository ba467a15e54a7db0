// Reading a trace dump back as text, one line per record, oldest first:
//
//   <seconds> <module>/<level> <message>
//
// A dump is self-describing: little-endian throughout,
//   header      magic "WEVLDUMP", u16 version, u16 record size,
//               u32 descriptor count, u64 record count, u64 dropped, u64 capacity
//   descriptors u32 id, u32 level, u32 line, then module, format and file as (u32 length, bytes)
//   records     f64 time, u32 descriptor id, u32 kinds, 48 payload bytes
//   trailer     u32 CRC-32 of everything before it
// so it can be decoded on another machine, by another build, without the program that wrote it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace Wevl {

inline constexpr char kDumpMagic[8] = {'W', 'E', 'V', 'L', 'D', 'U', 'M', 'P'};
inline constexpr uint16_t kDumpVersion = 1;

// A dump that cannot be read: missing, truncated, damaged, or of another version.
class DecodeError : public std::runtime_error {
 public:
  explicit DecodeError(std::string const& what) : std::runtime_error(what) {}
};

// Both throw DecodeError, never anything worse, whatever the bytes.
std::vector<std::string> decode(std::filesystem::path const& path);
std::vector<std::string> decode(std::span<uint8_t const> bytes);

// The trailer's checksum (CRC-32, the zlib polynomial).
uint32_t crc32(std::span<uint8_t const> bytes);

}  // namespace Wevl
