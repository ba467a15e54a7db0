// A platform agent's first lines: the common data, a reactor on it, the activity loop.
#include <cstdio>

#include "Vemo/VemoCommon.h"
#include "Vemo/VemoTypes.h"

namespace {
struct ModeWatcher : Vemo::VemoCommonSmData::NotifieeConst {
  int changes = 0;
  void onOperationalMode() override { ++changes; }
};
}  // namespace

int main() {
  Zol::ActivityLoop loop(Zol::ActivityLoop::TimeMode::simulated);
  auto data = Vemo::vemoCommonSmDataFactory("agent");
  ModeWatcher watcher;
  watcher.notifierIs(data);
  data->operationalModeIs(Vemo::HwOperationalMode::modeTapAgg);
  loop.runUntilIdle();
  VemoTypes::Bitmap ports;
  ports.bitSet(VemoTypes::BitmapPosition(VemoTypes::BitmapIndex(1), 5, false));
  bool const ok = data->initialized() && watcher.changes == 1 && ports.unitBmpQuantity() == 2;
  std::printf("%s\n", ok ? "consumer ok" : "consumer FAILED");
  watcher.notifierIs(nullptr);
  return ok ? 0 : 1;
}
