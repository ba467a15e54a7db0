#include "Vemo/VemoHelperMacAddrSm.h"

#include "Vemo/VemoHelperDot1x.h"

#include "Zol/Trace.h"

ZOL_TRACE_MODULE("VemoHelperMacAddrSm")

namespace VemoHelper {

namespace {
void unimplemented(char const* operation) {
  ZOL_TRACE(0, "Call to unimplemented function VemoHelperMacAddrSm::" << operation);
}
using Vemo::MacProgramStatus;
}  // namespace

VemoHelperMacAddrSm::VemoHelperMacAddrSm(Zol::Name const& name) : VemoHelperMacAddrSmState(name) {}

void VemoHelperMacAddrSm::hwInit() { unimplemented("hwInit"); }
MacProgramStatus VemoHelperMacAddrSm::addHost(Bridging::MacVlanPair const&, Nepo::IntfId const&,
                                              Zol::U16, bool, Bridging::EntryType) {
  unimplemented("addHost");
  return MacProgramStatus::macProgramFailed;
}
MacProgramStatus VemoHelperMacAddrSm::addRemoteHost(Bridging::MacVlanPair const&,
                                                    Nepo::IntfId const&, Zol::U32, Zol::U16, bool,
                                                    Bridging::EntryType, bool) {
  unimplemented("addRemoteHost");
  return MacProgramStatus::macProgramFailed;
}
MacProgramStatus VemoHelperMacAddrSm::addLearntLocalAndRemoveRemoteHost(
    Bridging::MacVlanPair const&, Nepo::IntfId const&, Bridging::EntryType) {
  unimplemented("addLearntLocalAndRemoveRemoteHost");
  return MacProgramStatus::macProgramFailed;
}
MacProgramStatus VemoHelperMacAddrSm::removeHost(Bridging::MacVlanPair const&,
                                                 Bridging::EntryType) {
  unimplemented("removeHost");
  return MacProgramStatus::macProgramFailed;
}
void VemoHelperMacAddrSm::removeLag(Nepo::IntfId const&) { unimplemented("removeLag"); }
bool VemoHelperMacAddrSm::lastFullIsHashCollision() const {
  unimplemented("lastFullIsHashCollision");
  return false;
}
void VemoHelperMacAddrSm::flushAll() { unimplemented("flushAll"); }
void VemoHelperMacAddrSm::flushVlan(Zol::U16) { unimplemented("flushVlan"); }
void VemoHelperMacAddrSm::flushVlanPort(int, Nepo::IntfId const&) {
  unimplemented("flushVlanPort");
}
void VemoHelperMacAddrSm::flushVlanLag(int, Nepo::IntfId const&) { unimplemented("flushVlanLag"); }
void VemoHelperMacAddrSm::configureAgingTime(int) { unimplemented("configureAgingTime"); }
void VemoHelperMacAddrSm::enableLearning(Nepo::IntfId const&, bool) {
  unimplemented("enableLearning");
}
void VemoHelperMacAddrSm::enableLearningOnVlan(Bridging::VlanId, bool) {
  unimplemented("enableLearningOnVlan");
}
void VemoHelperMacAddrSm::configureSourceCheckCPUMac(bool) {
  unimplemented("configureSourceCheckCPUMac");
}
void VemoHelperMacAddrSm::configureSourceMacInvalid(bool) {
  unimplemented("configureSourceMacInvalid");
}
Zol::U32 VemoHelperMacAddrSm::getMaxRemoteMacs() {
  unimplemented("getMaxRemoteMacs");
  return 0;
}
void VemoHelperMacAddrSm::handleVlanDelete(Bridging::VlanId) { unimplemented("handleVlanDelete"); }
void VemoHelperMacAddrSm::handleLinkStateAtInit() { unimplemented("handleLinkStateAtInit"); }
void VemoHelperMacAddrSm::handleParityEvent(Vemo::ParityEventKey const&) {
  unimplemented("handleParityEvent");
}
void VemoHelperMacAddrSm::handleVerify() { unimplemented("handleVerify"); }
bool VemoHelperMacAddrSm::verifyLearning(Nepo::IntfId const&, bool) {
  unimplemented("verifyLearning");
  return true;
}
bool VemoHelperMacAddrSm::verifyLearningOnVlan(Bridging::VlanId, bool) {
  unimplemented("verifyLearningOnVlan");
  return true;
}
bool VemoHelperMacAddrSm::verifyNumRemoteHost(Zol::U16) {
  unimplemented("verifyNumRemoteHost");
  return true;
}
bool VemoHelperMacAddrSm::verifyRemoteHost(Bridging::MacVlanPair const&, Zol::U32) {
  unimplemented("verifyRemoteHost");
  return true;
}
std::string VemoHelperMacAddrSm::persistentStorePath() { return {}; }
bool VemoHelperMacAddrSm::skipVemoVxlanRmacHandling() {
  unimplemented("skipVemoVxlanRmacHandling");
  return false;
}

}  // namespace VemoHelper

namespace VemoHelper {

void VemoHelperDot1x::setHostMode(Nepo::IntfId const&, Dot1x::HostMode) {
  ZOL_TRACE(0, "Call to unimplemented function VemoHelperDot1x::setHostMode");
}

}  // namespace VemoHelper
