#include <bit>

#include "Vemo/VemoTypes.h"
#include "Zol/Assert.h"

namespace VemoTypes {

namespace {
constexpr uint32_t kCountedWords = 64;  // word 64 exists but holds no valid slot
}

void ViaBitmap::bitListIs(ViaBitmapIndex i, Zol::U32 word) {
  bitList_[i.value()] = word;
  ++modCount_;
}

Zol::U32 ViaBitmap::bitListDel(ViaBitmapIndex i) {
  ++modCount_;
  return std::exchange(bitList_[i.value()], 0);
}

void ViaBitmap::bitListDelAll() {
  bitList_.fill(0);
  bitCounter_ = 0;
  ++modCount_;
}

void ViaBitmap::updateBitCount() {
  Zol::U32 n = 0;
  for (uint32_t w = 0; w < kCountedWords; ++w) n += std::popcount(bitList_[w]);
  bitCounter_ = n;
}

void ViaBitmap::bitmapOr(ViaBitmap const& other) {
  for (uint32_t w = 0; w < kCountedWords; ++w) bitList_[w] |= other.bitList_[w];
  ++modCount_;
  updateBitCount();
}

void ViaBitmap::bitmapAnd(ViaBitmap const& other) {
  for (uint32_t w = 0; w < kCountedWords; ++w) bitList_[w] &= other.bitList_[w];
  ++modCount_;
  updateBitCount();
}

void ViaBitmap::bitSet(uint32_t bit) {
  ViaBitmapRange const r(bit);
  ViaBitmapIndex const w(r.value() / 32);
  bitListIs(w, bitList_[w.value()] | (Zol::U32{1} << (bit % 32)));
  updateBitCount();
}

bool ViaBitmap::bitTest(uint32_t bit) const {
  ViaBitmapIndex const w(ViaBitmapRange(bit).value() / 32);
  return bitList_[w.value()] & (Zol::U32{1} << (bit % 32));
}

ViaBitmapRange ViaBitmap::nextbitset(ViaBitmapRange from) const {
  uint32_t word = 0;
  Zol::U32 bits;
  if (from.value() == null) {
    bits = bitList_[0];
  } else {
    word = ViaBitmapIndex(from.value() / 32).value();
    uint32_t const shift = from.value() % 32 + 1;
    bits = shift == 32 ? 0 : bitList_[word] & (~Zol::U32{0} << shift);
  }
  for (;;) {
    if (bits) return ViaBitmapRange(32 * word + std::countr_zero(bits));
    // Word 64 holds no slot: a bit there would name a position past null.
    if (++word >= kCountedWords) return ViaBitmapRange(null);
    bits = bitList_[word];
  }
}

ViaBitmapIter::ViaBitmapIter(ViaBitmap const& bitmap) : bitmap_(bitmap) { ++*this; }

Zol::U32 ViaBitmapIter::key() const {
  ZOL_ASSERT(inRange());
  return position_.value();
}

ViaBitmapIter& ViaBitmapIter::operator++() {
  position_ = bitmap_.nextbitset(position_);
  return *this;
}

}  // namespace VemoTypes
