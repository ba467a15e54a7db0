// The simulated chip's 802.1X: a port in single-host or restricted-host mode becomes a secure
// port of the MAC table (only the hosts programmed on it pass, and it learns nothing).
#pragma once

#include "Sim/Chip.h"
#include "Vemo/VemoHelperDot1x.h"

namespace sim {

class Dot1xHelper : public VemoHelper::VemoHelperDot1x {
 public:
  Dot1xHelper(Zol::Name const& name, Chip& chip) : VemoHelperDot1x(name), chip_(chip) {}
  std::string_view fwkType() const override { return "sim::Dot1xHelper"; }

  void setHostMode(Nepo::IntfId const& intf, Dot1x::HostMode mode) override {
    chip_.macs().secureIs(
        intf, mode == Dot1x::HostMode::singleHost || mode == Dot1x::HostMode::restrictedHost);
  }

 private:
  Chip& chip_;
};

}  // namespace sim
