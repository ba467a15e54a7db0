#include <cstdlib>

#include "Vemo/VemoCommon.h"
#include "Vemo/VemoTypes.h"

namespace VemoTypes {

void IntfToBitmapPosition::zolConstructed() {
  forTestingIs(std::getenv("SIMULATION_VMID") != nullptr);
}

// Units receive indices in order of first appearance; an index is never reused.
void IntfToBitmapPosition::assignBmpIndex(AssignedBitmapIndex& a) {
  a.bmpIndexIs(BitmapIndex(nextBmpIndex()));
  nextBmpIndexIs(nextBmpIndex() + 1);
}

void IntfToBitmapPosition::checkUnitDelete(Zol::U32) {
  if (!forTesting()) Vemo::vemoAssert("shall never delete a unitIdToBmpIndex member");
}

BitmapPosition IntfToBitmapPosition::intfToBitmapPosition(Nepo::IntfId const&) const {
  return BitmapPosition(BitmapIndex(0), 0, false);
}

}  // namespace VemoTypes
