#include <algorithm>

#include "Vemo/VemoTypes.h"
#include "Zol/Trace.h"

ZOL_TRACE_MODULE("VemoNamedRangeBitmap")

namespace VemoTypes {

Zol::Ptr<NamedRangeBitmap> namedRangeBitmapFactory(Zol::U16 size,
                                                   NamedRangeBitmapStrictness strictness) {
  return Zol::make<NamedRangeBitmap>("namedRangeBitmap", size, strictness);
}

// A field named `name` of `width` bits fits at `offset` when the name is new, the width is not 0,
// the field ends inside the word and, in strict mode, it overlaps no other field.
bool NamedRangeBitmap::fieldFits(Zol::String const& name, Zol::U8 width, Zol::U16 offset) const {
  if (fieldByNameHas(name) || width == 0 || uint32_t{offset} + width > size()) return false;
  return strictness() != NamedRangeBitmapStrictness::strict ||
         isStrictlyCorrect(name, offset, width);
}

void NamedRangeBitmap::fieldIs(Zol::String const& name, Zol::U8 width, Zol::U16 offset) {
  NamedRangeBitFieldKey const key(name, offset);
  fieldByNameIs(name, key);
  fieldByKeyIs(key)->widthIs(width);
}

Zol::U16 NamedRangeBitmap::allocate(Zol::String const& name, Zol::U8 width) {
  return allocateAlignedMaxLostBits(name, width, NamedRangeAlignment::alignNone, 0);
}

Zol::U16 NamedRangeBitmap::allocateAligned(Zol::String const& name, Zol::U8 width,
                                           NamedRangeAlignment alignment) {
  return allocateAlignedMaxLostBits(name, width, alignment, 0);
}

Zol::U16 NamedRangeBitmap::allocateAlignedMaxLostBits(Zol::String const& name, Zol::U8 width,
                                                      NamedRangeAlignment alignment,
                                                      Zol::U16 maxLostBits) {
  ZOL_TRACE(8, name << " width " << unsigned{width} << " alignment "
                    << static_cast<unsigned>(alignment) << " nextFreeBit " << nextFreeBit());
  // The rounding compares maxLostBits with the remainder, not with the bits skipped, and stays
  // as the bump pointer even when the allocation then fails.
  uint32_t const granule = alignment == NamedRangeAlignment::align4Bits   ? 4
                           : alignment == NamedRangeAlignment::align8Bits ? 8
                                                                          : 1;
  uint32_t const rem = nextFreeBit() % granule;
  if (granule > 1 && maxLostBits < rem) {
    // Past the last bit of a 65535-bit word the pointer stops at the end instead of wrapping
    // back to bit 0, where it would hand out bits that are already taken.
    uint32_t const aligned = nextFreeBit() + granule - rem;
    nextFreeBitIs(static_cast<Zol::U16>(std::min<uint32_t>(aligned, invalidOffset)));
  }
  ZOL_TRACE(8, "after alignent nextFreeBit " << nextFreeBit());
  Zol::U16 const offset = nextFreeBit();
  if (!fieldFits(name, width, offset)) {
    ZOL_TRACE(5, "cannot allocate field:" << name << " width:" << unsigned{width});
    return invalidOffset;
  }
  nextFreeBitIs(static_cast<Zol::U16>(offset + width));
  fieldIs(name, width, offset);
  return offset;
}

Zol::U16 NamedRangeBitmap::allocateAt(Zol::String const& name, Zol::U8 width, Zol::U16 offset) {
  if (!fieldFits(name, width, offset)) {
    ZOL_TRACE(5, "cannot allocate field:" << name << " width: " << unsigned{width}
                                          << " offset: " << offset);
    return invalidOffset;
  }
  fieldIs(name, width, offset);
  return offset;
}

Zol::U16 NamedRangeBitmap::offsetOf(Zol::String const& name) const {
  return fieldByNameHas(name) ? fieldByName(name).offset() : invalidOffset;
}

Zol::U8 NamedRangeBitmap::widthOf(Zol::String const& name) const {
  if (!fieldByNameHas(name)) return 0;
  return fieldByKey(fieldByName(name))->width();
}

bool NamedRangeBitmap::isStrictlyCorrect(Zol::String const& name, Zol::U16 offset,
                                         Zol::U8 width) const {
  for (auto const& [key, field] : fieldByKeyAll()) {
    uint32_t const o = key.offset(), w = field->width();
    bool const overlaps =
        (offset <= o && o < uint32_t{offset} + width) || (o < offset && offset < o + w);
    if (overlaps) {
      ZOL_TRACE(5, "strictess check failed for field:" << name << " and " << key.name());
      return false;
    }
  }
  return true;
}

}  // namespace VemoTypes
