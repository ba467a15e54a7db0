// The tunnel-group manager's consistency check: every numbered group is multi-member, valid and
// mapped both ways, and the two maps hold as many entries.
#include <string>

#include "Vemo/SwTunnelGroupIdManager.h"

ZOL_TRACE_MODULE("SwTunnelGroupIdManager")

namespace Vemo {

void SwTunnelGroupIdManager::reportMismatch(Zol::String const& text) const {
  ZOL_TRACE(8, "mismatch " << text);
  commonData()->verifyData()->reportMismatch("SwTunnelGroupIdManager", text);
}

void SwTunnelGroupIdManager::traceMaps() const {
  ZOL_TRACE(1,
            "swTunnelGroupIdToAddrs: " << Zol::stringValue(data_->swTunnelGroupIdToAddrAll())
                                       << " tunnelIpAddrListToTunnelIds: "
                                       << Zol::stringValue(data_->tunnelIpAddrListToTunnelIdAll()));
}

void SwTunnelGroupIdManager::handleVerify() {
  ZOL_TRACE(8, "void Vemo::SwTunnelGroupIdManager::handleVerify()");
  SwTunnelGroupIdData const& d = *data_;
  bool mismatch = false;
  auto const report = [&](Zol::String const& text) {
    mismatch = true;
    reportMismatch(text);
  };
  if (d.swTunnelGroupIdToAddrSize() != d.tunnelIpAddrListToTunnelIdSize()) {
    report("swTunnelGroupIdToAddrs " + std::to_string(d.swTunnelGroupIdToAddrSize()) +
           ", tunnelIpAddrListToTunnelIds " + std::to_string(d.tunnelIpAddrListToTunnelIdSize()));
  }
  // Identifier order, so that reports come in the same order on every run.
  for (auto const& [id, list] : d.swTunnelGroupIdToAddrAll()) {
    ZOL_TRACE(8, "Verify SwTunnelGroupId " << id.value());
    if (!isSwTunnelGroupIdValid(id)) report("isSwTunnelGroupIdValid( iter.key() )");
    if (!id.isMultiMemberGroup()) {
      report("Incorrect type " + std::to_string(static_cast<uint32_t>(id.tunnelGroupType())) +
             " expected " +
             std::to_string(static_cast<uint32_t>(SwTunnelGroupType::multiMemberGroup)));
    }
    if (!d.tunnelIpAddrListToTunnelIdHas(list)) {
      report("tunnelIpList " + list.stringValue() + " is not present");
    } else if (SwTunnelGroupId const back = d.tunnelIpAddrListToTunnelId(list); back != id) {
      report("swTunnelGroupId " + back.stringValue() + " expected " + id.stringValue());
    }
  }
  if (mismatch) traceMaps();
}

}  // namespace Vemo
