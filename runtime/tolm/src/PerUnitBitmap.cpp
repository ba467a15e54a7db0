#include "ZolGen/Tolm.h"

namespace Tolm {

bool PerUnitBitmap::isZero() const {
  for (Zol::U32 w : word_) {
    if (w) return false;
  }
  return true;
}

}  // namespace Tolm
