#include "Nepo/RangeToMask.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

using Nepo::prefixMask;
using Nepo::rangeToMasks;
using VM16 = Nepo::ValueMask<uint16_t>;

TEST(RangeToMask, KnownRanges) {
  std::vector<VM16> const from1024 = {{1024, 0xFC00}, {2048, 0xF800},  {4096, 0xF000},
                                      {8192, 0xE000}, {16384, 0xC000}, {32768, 0x8000}};
  EXPECT_EQ(rangeToMasks<uint16_t>(1024, 65535), from1024);
  EXPECT_EQ(rangeToMasks<uint16_t>(80, 80), (std::vector<VM16>{{80, 0xFFFF}}));
  EXPECT_EQ(rangeToMasks<uint16_t>(1, 65534).size(), 30u);
  EXPECT_EQ(rangeToMasks<uint16_t>(0, 65535), (std::vector<VM16>{{0, 0}}));
  EXPECT_TRUE(rangeToMasks<uint16_t>(5, 4).empty());
  EXPECT_EQ(rangeToMasks<uint16_t>(65535, 65535), (std::vector<VM16>{{65535, 0xFFFF}}));

  constexpr uint64_t max64 = std::numeric_limits<uint64_t>::max();
  EXPECT_EQ(rangeToMasks<uint64_t>(0, max64), (std::vector<Nepo::ValueMask<uint64_t>>{{0, 0}}));
  auto all = rangeToMasks<uint64_t>(1, max64);
  ASSERT_EQ(all.size(), 64u);
  EXPECT_EQ(all.back().value, uint64_t{1} << 63);
  EXPECT_EQ(all.back().last(), max64);

  EXPECT_EQ(prefixMask<uint16_t>(0), 0);
  EXPECT_EQ(prefixMask<uint16_t>(6), 0xFC00);
  EXPECT_EQ(prefixMask<uint8_t>(8), 0xFF);
  EXPECT_EQ(prefixMask<uint64_t>(64), std::numeric_limits<uint64_t>::max());
  EXPECT_DEATH(prefixMask<uint16_t>(17), "mask <= 8 \\* sizeof\\( T \\)");
}

// Every 8-bit range: the entries cover it exactly, in order, and no cover has fewer blocks.
TEST(RangeToMask, EveryByteRangeIsCoveredExactlyAndMinimally) {
  // fewest[lo][hi]: the fewest aligned blocks that tile [lo, hi], by trying every first block.
  static int fewest[257][257];
  for (int hi = 0; hi < 256; ++hi) {
    for (int lo = hi; lo >= 0; --lo) {
      int best = 1 << 20;
      for (int size = 1; lo % size == 0 && lo + size - 1 <= hi; size *= 2) {
        best = std::min(best, 1 + (lo + size > hi ? 0 : fewest[lo + size][hi]));
      }
      fewest[lo][hi] = best;
    }
  }
  for (int lo = 0; lo < 256; ++lo) {
    for (int hi = lo; hi < 256; ++hi) {
      auto masks = rangeToMasks<uint8_t>(static_cast<uint8_t>(lo), static_cast<uint8_t>(hi));
      ASSERT_EQ(static_cast<int>(masks.size()), fewest[lo][hi]) << lo << ".." << hi;
      int next = lo;
      for (auto const& m : masks) {
        ASSERT_EQ(m.value, next) << lo << ".." << hi;
        ASSERT_EQ(m.value & ~m.mask & 0xFF, 0);
        for (int v = 0; v < 256; ++v) {
          ASSERT_EQ(m.matches(static_cast<uint8_t>(v)), v >= m.value && v <= m.last());
        }
        next = m.last() + 1;
      }
      ASSERT_EQ(next, hi + 1);
    }
  }
}
