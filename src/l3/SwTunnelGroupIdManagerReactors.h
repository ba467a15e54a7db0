// The tunnel-group manager's reactors: reference counts and verification requests.
#pragma once

#include "Vemo/SmReactor.h"
#include "Vemo/SwTunnelGroupIdManager.h"

namespace Vemo {

class SwTunnelGroupIdManager::RefcountReactor
    : public SmReactor<VXLAN::RefcountTable::NotifieeConst, SwTunnelGroupIdManager> {
 public:
  using SmReactor::SmReactor;
  void onRefcount(Zol::U64 value) override {
    if (sm().hasNotificationActive()) sm().handleSwTunnelGroupId(value);
  }
};

class SwTunnelGroupIdManager::VerifyReactor
    : public SmReactor<VerifyData::NotifieeConst, SwTunnelGroupIdManager> {
 public:
  using SmReactor::SmReactor;
  void onVerify(Zol::String const&) override {
    if (sm().hasNotificationActive()) sm().handleVerify();
  }
};

}  // namespace Vemo
