#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string_view>
#include <unordered_map>

#include "Wevl/Decode.h"
#include "Wevl/Ring.h"

namespace Wevl {

namespace {

constexpr size_t kMinDescBytes = 4 * 3 + 4 * 3;
constexpr size_t kDumpRecordBytes = 8 + 4 + 4 + kPayloadBytes;
static_assert(kDumpRecordBytes == kRecordBytes);
constexpr std::string_view kGone = "(descriptor gone)";

constexpr std::array<uint32_t, 256> makeCrcTable() {
  std::array<uint32_t, 256> t{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t c = i;
    for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xedb88320u ^ (c >> 1) : c >> 1;
    t[i] = c;
  }
  return t;
}
constexpr auto kCrcTable = makeCrcTable();

class Writer {
 public:
  void le(uint64_t v, size_t bytes) {
    size_t const at = out_.size();
    out_.resize(at + bytes);
    detail::storeLE(out_.data() + at, v, bytes);
  }
  void bytes(void const* p, size_t n) {
    auto const* b = static_cast<uint8_t const*>(p);
    out_.insert(out_.end(), b, b + n);
  }
  void str(std::string_view s) {
    le(s.size(), 4);
    bytes(s.data(), s.size());
  }
  std::vector<uint8_t>& out() { return out_; }

 private:
  std::vector<uint8_t> out_;
};

class Reader {
 public:
  explicit Reader(std::span<uint8_t const> b) : b_(b) {}
  size_t left() const { return b_.size() - pos_; }
  void need(size_t n, char const* what) const {
    if (left() < n) truncated(what);
  }
  [[noreturn]] static void truncated(char const* what) {
    throw DecodeError(std::string("truncated dump (") + what + ")");
  }
  uint64_t le(size_t bytes, char const* what) {
    need(bytes, what);
    uint64_t const v = detail::loadLE(b_.data() + pos_, bytes);
    pos_ += bytes;
    return v;
  }
  std::string str(char const* what) {
    size_t const n = le(4, what);
    need(n, what);
    std::string s(reinterpret_cast<char const*>(b_.data() + pos_), n);
    pos_ += n;
    return s;
  }
  uint8_t const* take(size_t n, char const* what) {
    need(n, what);
    uint8_t const* p = b_.data() + pos_;
    pos_ += n;
    return p;
  }
  size_t pos() const { return pos_; }

 private:
  std::span<uint8_t const> b_;
  size_t pos_ = 0;
};

std::string formatLine(double time, std::string_view module, unsigned level,
                       std::string_view format, std::vector<Arg> const& args) {
  char stamp[64];
  std::snprintf(stamp, sizeof stamp, "%.6f", time);
  std::string line = stamp;
  line += ' ';
  // The module comes from the dump too; keep the line one line.
  for (char c : module) line += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
  line += '/';
  line += std::to_string(level);
  line += ' ';
  line += formatMessage(format, args);
  return line;
}

struct Desc {
  std::string module;
  unsigned level;
  std::string format;
};

}  // namespace

uint32_t crc32(std::span<uint8_t const> bytes) {
  uint32_t c = 0xffffffffu;
  for (uint8_t b : bytes) c = kCrcTable[(c ^ b) & 0xff] ^ (c >> 8);
  return c ^ 0xffffffffu;
}

std::vector<uint8_t> Ring::dump() const {
  std::vector<uint32_t> ids;
  for (Record const& r : *this) ids.push_back(r.descId());
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());

  Writer w;
  w.bytes(kDumpMagic, sizeof kDumpMagic);
  w.le(kDumpVersion, 2);
  w.le(kRecordBytes, 2);
  w.le(ids.size(), 4);
  w.le(size_, 8);
  w.le(dropped_, 8);
  w.le(capacity(), 8);
  for (uint32_t id : ids) {
    MsgDesc const* d = MsgDesc::byId(id);
    w.le(id, 4);
    w.le(d ? d->level() : 0, 4);
    w.le(d ? d->line() : 0, 4);
    w.str(d ? std::string_view(d->module()) : "?");
    w.str(d ? std::string_view(d->format()) : kGone);
    w.str(d ? std::string_view(d->file()) : "");
  }
  for (Record const& r : *this) {
    w.le(std::bit_cast<uint64_t>(r.time()), 8);
    w.le(r.descId(), 4);
    w.le(r.kinds(), 4);
    w.bytes(r.payload(), kPayloadBytes);
  }
  w.le(crc32(w.out()), 4);
  return std::move(w.out());
}

void Ring::dumpTo(std::filesystem::path const& path) const {
  std::vector<uint8_t> const bytes = dump();
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<char const*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  out.close();
  if (!out) {
    throw std::runtime_error(path.string() +
                             ": cannot write the trace dump: " + std::strerror(errno));
  }
}

std::vector<std::string> Ring::lines() const {
  std::vector<std::string> lines;
  lines.reserve(size_);
  for (Record const& r : *this) {
    MsgDesc const* d = r.desc();
    auto const args = r.args();
    lines.push_back(d ? formatLine(r.time(), d->module(), d->level(), d->format(), args)
                      : formatLine(r.time(), "?", 0, kGone, args));
  }
  return lines;
}

std::vector<std::string> decode(std::span<uint8_t const> bytes) {
  size_t const magicSeen = std::min(bytes.size(), sizeof kDumpMagic);
  if (!std::equal(bytes.begin(), bytes.begin() + magicSeen, kDumpMagic)) {
    throw DecodeError("not a Wevl trace dump (bad magic)");
  }
  Reader in(bytes);
  in.take(sizeof kDumpMagic, "header");
  auto const version = in.le(2, "header");
  if (version != kDumpVersion) {
    throw DecodeError("unsupported dump version " + std::to_string(version) + " (expected " +
                      std::to_string(kDumpVersion) + ")");
  }
  auto const recordBytes = in.le(2, "header");
  if (recordBytes != kDumpRecordBytes) {
    throw DecodeError("corrupt dump: record size " + std::to_string(recordBytes));
  }
  auto const descCount = in.le(4, "header");
  auto const recordCount = in.le(8, "header");
  in.le(8, "header");  // dropped: not shown in the lines
  auto const capacity = in.le(8, "header");
  if (recordCount > capacity) throw DecodeError("corrupt dump: more records than the ring holds");

  // Counts are checked against the bytes left before anything is allocated for them.
  if (descCount > in.left() / kMinDescBytes) Reader::truncated("descriptor table");
  std::unordered_map<uint32_t, Desc> descs;
  for (uint64_t i = 0; i < descCount; ++i) {
    auto const id = static_cast<uint32_t>(in.le(4, "descriptor table"));
    Desc d;
    d.level = static_cast<unsigned>(in.le(4, "descriptor table"));
    in.le(4, "descriptor table");  // line
    d.module = in.str("descriptor table");
    d.format = in.str("descriptor table");
    in.str("descriptor table");  // file
    if (!descs.emplace(id, std::move(d)).second) {
      throw DecodeError("corrupt dump: descriptor " + std::to_string(id) + " appears twice");
    }
  }

  if (recordCount > in.left() / kDumpRecordBytes) Reader::truncated("records");
  uint8_t const* records = in.take(recordCount * kDumpRecordBytes, "records");
  size_t const trailerAt = in.pos();
  auto const crc = static_cast<uint32_t>(in.le(4, "trailer"));
  if (in.left() != 0) {
    throw DecodeError("corrupt dump: " + std::to_string(in.left()) + " bytes after the end");
  }
  if (crc != crc32(bytes.first(trailerAt))) throw DecodeError("corrupt dump: checksum mismatch");

  std::vector<std::string> lines;
  lines.reserve(recordCount);
  std::vector<Arg> args;
  for (uint64_t i = 0; i < recordCount; ++i) {
    uint8_t const* r = records + i * kDumpRecordBytes;
    double const time = std::bit_cast<double>(detail::loadLE(r, 8));
    auto const id = static_cast<uint32_t>(detail::loadLE(r + 8, 4));
    auto const kinds = static_cast<uint32_t>(detail::loadLE(r + 12, 4));
    auto const d = descs.find(id);
    if (d == descs.end()) {
      throw DecodeError("corrupt dump: record " + std::to_string(i) + " names descriptor " +
                        std::to_string(id) + ", which is not in the table");
    }
    if (!detail::decodeArgs(kinds, r + 16, args)) {
      throw DecodeError("corrupt dump: record " + std::to_string(i) + " has malformed arguments");
    }
    lines.push_back(formatLine(time, d->second.module, d->second.level, d->second.format, args));
  }
  return lines;
}

std::vector<std::string> decode(std::filesystem::path const& path) {
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec))
    throw DecodeError(path.string() + ": is a directory");
  std::ifstream in(path, std::ios::binary);
  if (!in) throw DecodeError(path.string() + ": cannot open: " + std::strerror(errno));
  std::vector<uint8_t> const bytes((std::istreambuf_iterator<char>(in)),
                                   std::istreambuf_iterator<char>());
  if (in.bad()) throw DecodeError(path.string() + ": cannot read: " + std::strerror(errno));
  try {
    return decode(std::span<uint8_t const>(bytes));
  } catch (DecodeError const& e) {
    throw DecodeError(path.string() + ": " + e.what());
  }
}

}  // namespace Wevl
