#include "Tolm/Seqno32.h"

#include "Zol/Text.h"

namespace Tolm {

void Seqno32::zolPrint(std::string& out) const { out += std::to_string(value_); }

Seqno32 Seqno32::zolParse(Zol::TextParser& p) {
  return Seqno32(Zol::parseInteger<uint32_t>(p.numberToken()));
}

}  // namespace Tolm
