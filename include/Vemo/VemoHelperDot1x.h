// The 802.1X platform contract: how a port treats hosts 802.1X has not authorised.
//
// In multi-host mode (802.1X off, or the port's mode) the port learns and forwards every host once
// it is authorised. In single-host and restricted-host modes only the authorised hosts pass: the
// platform keeps the chip from learning other sources on the port and drops their packets, and the
// MAC SM programs each authorised host on its port and ignores learn events of any other host
// there.
#pragma once

#include "ZolGen/Dot1x.h"
#include "ZolGen/VemoCommon.h"

namespace VemoHelper {

class VemoHelperDot1x : public Vemo::VemoBaseHelper {
 public:
  using VemoBaseHelper::VemoBaseHelper;
  std::string_view fwkType() const override { return "VemoHelper::VemoHelperDot1x"; }

  // The MAC SM calls it for every port 802.1X reports, at start and on every change.
  virtual void setHostMode(Nepo::IntfId const& intf, Dot1x::HostMode mode);
};

}  // namespace VemoHelper
