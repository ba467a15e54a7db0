// Port sets over chip units, next-hop slot sets, named bit-field allocation and port lists.
#pragma once

#include "ZolGen/VemoCommon.h"
#include "ZolGen/VemoTypes.h"

namespace VemoTypes {

// Iterates the set slots of a copy of a via bitmap in increasing order.
class ViaBitmapIter {
 public:
  explicit ViaBitmapIter(ViaBitmap const& bitmap);
  bool inRange() const { return position_.value() != ViaBitmap::null; }
  // The current slot; asserts inRange().
  Zol::U32 key() const;
  ViaBitmapIter& operator++();

 private:
  ViaBitmap bitmap_;
  ViaBitmapRange position_{ViaBitmap::null};
};

// Builds an allocator of named fields in a hardware word of size bits (1 to 65535); a size of 0
// raises the range error.
Zol::Ptr<NamedRangeBitmap> namedRangeBitmapFactory(Zol::U16 size,
                                                   NamedRangeBitmapStrictness strictness);

}  // namespace VemoTypes
