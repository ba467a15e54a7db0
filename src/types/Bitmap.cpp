#include "Vemo/VemoTypes.h"

namespace VemoTypes {

namespace {

// Raises the word-index range error for a bit beyond the 288 of a unit.
Tolm::PerUnitBitmapWordIndex wordOf(BitmapPosition const& pos) {
  return Tolm::PerUnitBitmapWordIndex(pos.bitPos() / 32);
}

Zol::U32 maskOf(BitmapPosition const& pos) { return Zol::U32{1} << (pos.bitPos() % 32); }

}  // namespace

void Bitmap::bitSet(BitmapPosition const& pos) {
  Tolm::PerUnitBitmapWordIndex const w = wordOf(pos);
  Tolm::PerUnitBitmap& unit = unitBitmap_[pos.bmpIndex().value()];
  Zol::U32 const word = unit.word(w);
  if (word & maskOf(pos)) return;
  unit.wordIs(w, word | maskOf(pos));
  if (pos.bmpIndex().value() + 1 > unitBmpQuantity_) {
    unitBmpQuantity_ = unitBmpQuantityCheck(pos.bmpIndex().value() + 1);
  }
}

void Bitmap::bitClear(BitmapPosition const& pos) {
  Tolm::PerUnitBitmapWordIndex const w = wordOf(pos);
  Tolm::PerUnitBitmap& unit = unitBitmap_[pos.bmpIndex().value()];
  Zol::U32 const word = unit.word(w);
  if (!(word & maskOf(pos))) return;
  unit.wordIs(w, word & ~maskOf(pos));
  handleUnitBitmap(pos.bmpIndex());
}

bool Bitmap::bitTest(BitmapPosition const& pos) const {
  Tolm::PerUnitBitmapWordIndex const w = wordOf(pos);
  return unitBitmap_[pos.bmpIndex().value()].word(w) & maskOf(pos);
}

void Bitmap::unitBitmapIs(BitmapIndex i, Tolm::PerUnitBitmap const& unit) {
  unitBitmap_[i.value()] = unit;
  handleUnitBitmap(i);
}

void Bitmap::unitBitmapDel(BitmapIndex i) {
  unitBitmap_[i.value()] = Tolm::PerUnitBitmap();
  handleUnitBitmap(i);
}

// Re-establishes unitBmpQuantity after unit i changed.
void Bitmap::handleUnitBitmap(BitmapIndex i) {
  uint32_t const idx = i.value();
  if (idx + 1 < unitBmpQuantity_) return;
  if (!unitBitmap_[idx].isZero()) {
    unitBmpQuantity_ = unitBmpQuantityCheck(idx + 1);
    return;
  }
  recount(idx);
}

// Sets the count to one more than the highest non-zero unit below `from`, or 0.
void Bitmap::recount(uint32_t from) {
  uint32_t n = from;
  while (n > 0 && unitBitmap_[n - 1].isZero()) --n;
  unitBmpQuantity_ = n;
}

// A parsed bitmap must keep the count every writer keeps: bitTest reads all units, while
// equality, hashing and printing read only the counted ones.
char const* Bitmap::zolCheck() const {
  for (size_t u = unitBmpQuantity_; u < unitBitmap_.size(); ++u) {
    if (!unitBitmap_[u].isZero()) return "no non-empty unit at or above 'unitBmpQuantity'";
  }
  if (unitBmpQuantity_ > 0 && unitBitmap_[unitBmpQuantity_ - 1].isZero()) {
    return "a non-empty last unit below 'unitBmpQuantity'";
  }
  return nullptr;
}

void Bitmap::bitmapOr(Bitmap const& other) {
  for (uint32_t u = 0; u < other.unitBmpQuantity_; ++u) {
    Tolm::PerUnitBitmap& mine = unitBitmap_[u];
    for (uint32_t w = 0; w < 9; ++w) {
      Tolm::PerUnitBitmapWordIndex const wi(w);
      mine.wordIs(wi, mine.word(wi) | other.unitBitmap_[u].word(wi));
    }
  }
  unitBmpQuantity_ = std::max(unitBmpQuantity_, other.unitBmpQuantity_);
}

void Bitmap::bitmapAnd(Bitmap const& other) {
  if (unitBmpQuantity_ == 0) return;
  for (uint32_t u = 0; u < unitBmpQuantity_; ++u) {
    for (uint32_t w = 0; w < 9; ++w) {
      Tolm::PerUnitBitmapWordIndex const wi(w);
      unitBitmap_[u].wordIs(wi, unitBitmap_[u].word(wi) & other.unitBitmap_[u].word(wi));
    }
  }
  recount(unitBmpQuantity_);
}

void Bitmap::bitmapAndNot(Bitmap const& other) {
  if (unitBmpQuantity_ == 0 || other.unitBmpQuantity_ == 0) return;
  for (uint32_t u = 0; u < unitBmpQuantity_; ++u) {
    for (uint32_t w = 0; w < 9; ++w) {
      Tolm::PerUnitBitmapWordIndex const wi(w);
      unitBitmap_[u].wordIs(wi, unitBitmap_[u].word(wi) & ~other.unitBitmap_[u].word(wi));
    }
  }
  recount(unitBmpQuantity_);
}

}  // namespace VemoTypes
