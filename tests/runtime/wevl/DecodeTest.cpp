#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "Wevl/Wevl.h"

namespace Wevl {
namespace {

using Bytes = std::vector<uint8_t>;

// Header: magic 8, version 2, record size 2, descriptors 4, records 8, dropped 8, capacity 8.
constexpr size_t kVersionAt = 8;
constexpr size_t kDescCountAt = 12;
constexpr size_t kRecordCountAt = 16;
constexpr size_t kCapacityAt = 32;

// What decoding a dump (its bytes or its file) throws.
template <class Dump = Bytes>
std::string errorOf(Dump const& dump) {
  try {
    decode(dump);
  } catch (DecodeError const& e) {
    return e.what();
  }
  return "no error";
}

void putLE(Bytes& b, size_t at, uint64_t v, size_t n) {
  for (size_t i = 0; i < n; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

// Rewrites the trailer, so that a fault behind it reaches the structural checks.
Bytes resealed(Bytes b) {
  putLE(b, b.size() - 4, crc32(std::span(b.data(), b.size() - 4)), 4);
  return b;
}

// Offset of record i of n, counted from the end of the dump.
size_t recordAt(Bytes const& b, size_t i, size_t n) { return b.size() - 4 - (n - i) * 64; }

class WevlDecode : public ::testing::Test {
 protected:
  WevlDecode() : ring_(4), desc_("LagSm", 2, "member %s speed %u") {
    ring_.putAt(1, desc_, "Ethernet1", 10u);
    ring_.putAt(2, desc_, "Ethernet2", 25u);
    good_ = ring_.dump();
  }
  Ring ring_;
  MsgDesc desc_;
  Bytes good_;
};

TEST_F(WevlDecode, RejectsTruncatedAndDamagedDumps) {
  ASSERT_EQ(decode(good_),
            (std::vector<std::string>{"1.000000 LagSm/2 member Ethernet1 speed 10",
                                      "2.000000 LagSm/2 member Ethernet2 speed 25"}));
  for (size_t n = 0; n < good_.size(); ++n) {
    EXPECT_THROW(decode(std::span(good_.data(), n)), DecodeError) << "prefix of " << n;
  }
  for (size_t i = 0; i < good_.size(); ++i) {
    Bytes b = good_;
    b[i] ^= 0x5a;
    EXPECT_THROW(decode(b), DecodeError) << "byte " << i;
  }

  EXPECT_EQ(errorOf({}), "truncated dump (header)");
  EXPECT_EQ(errorOf(Bytes(good_.begin(), good_.begin() + 20)), "truncated dump (header)");
  EXPECT_EQ(errorOf(Bytes(good_.begin(), good_.end() - 70)), "truncated dump (records)");
  EXPECT_EQ(errorOf({'W', 'E', 'V', 'X'}), "not a Wevl trace dump (bad magic)");
  Bytes b = good_;
  putLE(b, kVersionAt, 2, 2);
  EXPECT_EQ(errorOf(b), "unsupported dump version 2 (expected 1)");
  b = good_;
  b.push_back(0);
  EXPECT_EQ(errorOf(b), "corrupt dump: 1 bytes after the end");
  b = good_;
  b[recordAt(b, 1, 2) + 20] ^= 1;  // inside a string
  EXPECT_EQ(errorOf(b), "corrupt dump: checksum mismatch");
}

TEST_F(WevlDecode, RejectsInconsistentDumpsWithAValidChecksum) {
  Bytes b = good_;
  putLE(b, recordAt(b, 1, 2) + 8, 999999, 4);
  EXPECT_EQ(errorOf(resealed(b)),
            "corrupt dump: record 1 names descriptor 999999, which is not in the table");

  // Kinds: an unknown kind, a kind after the end of the list, a string running past the payload.
  for (uint32_t kinds : {0xfu, 0x106u}) {
    b = good_;
    putLE(b, recordAt(b, 0, 2) + 12, kinds, 4);
    EXPECT_EQ(errorOf(resealed(b)), "corrupt dump: record 0 has malformed arguments") << kinds;
  }
  b = good_;
  b[recordAt(b, 0, 2) + 16] = 0x7f;
  EXPECT_EQ(errorOf(resealed(b)), "corrupt dump: record 0 has malformed arguments");

  // Huge counts are refused before anything is allocated for them.
  b = good_;
  putLE(b, kDescCountAt, 0xffffffffu, 4);
  EXPECT_EQ(errorOf(resealed(b)), "truncated dump (descriptor table)");
  b = good_;
  putLE(b, kRecordCountAt, uint64_t{1} << 60, 8);
  putLE(b, kCapacityAt, uint64_t{1} << 60, 8);
  EXPECT_EQ(errorOf(resealed(b)), "truncated dump (records)");
  b = good_;
  putLE(b, kCapacityAt, 1, 8);
  EXPECT_EQ(errorOf(resealed(b)), "corrupt dump: more records than the ring holds");

  // Random bytes behind a good header and checksum: an error or lines, never a crash.
  std::mt19937 rng(7);
  for (int round = 0; round < 2000; ++round) {
    b = good_;
    int const flips = 1 + round % 8;
    for (int f = 0; f < flips; ++f) b[12 + rng() % (b.size() - 16)] = static_cast<uint8_t>(rng());
    try {
      decode(resealed(b));
    } catch (DecodeError const&) {
    }
  }
}

TEST_F(WevlDecode, ReportsUnreadableFilesByName) {
  std::filesystem::path const missing = ::testing::TempDir() + "wevl_no_such.dump";
  EXPECT_EQ(errorOf(missing), missing.string() + ": cannot open: No such file or directory");
  EXPECT_NE(errorOf(std::filesystem::path(::testing::TempDir())), "no error");

  std::filesystem::path const path = ::testing::TempDir() + "wevl_short.dump";
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<char const*>(good_.data()), 30);
  EXPECT_EQ(errorOf(path), path.string() + ": truncated dump (header)");
  std::filesystem::remove(path);
  EXPECT_THROW(ring_.dumpTo(::testing::TempDir() + "no_such_dir/x.dump"), std::runtime_error);
}

}  // namespace
}  // namespace Wevl
