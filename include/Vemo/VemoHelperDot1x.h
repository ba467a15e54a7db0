// The 802.1X platform contract. The MAC SM holds it from creation; its operations (authorised
// hosts and host modes in the chip) come with the MAC table's 802.1X source.
#pragma once

#include "ZolGen/VemoCommon.h"

namespace VemoHelper {

class VemoHelperDot1x : public Vemo::VemoBaseHelper {
 public:
  using VemoBaseHelper::VemoBaseHelper;
  std::string_view fwkType() const override { return "VemoHelper::VemoHelperDot1x"; }
};

}  // namespace VemoHelper
