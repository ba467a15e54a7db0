#include "Vemo/LagSm.h"

ZOL_TRACE_MODULE("VemoHelperLagSm")

namespace VemoHelper {

namespace {
void unimplemented(char const* operation) {
  ZOL_TRACE(0, "Call to unimplemented function " << operation);
}
}  // namespace

VemoHelperLagSm::VemoHelperLagSm(Zol::Name const& name) : Vemo::VemoBaseHelper(name) {}

void VemoHelperLagSm::hwInit() { unimplemented("hwInit"); }
void VemoHelperLagSm::lacpEnabledIs(bool) { unimplemented("lacpEnabledIs"); }
void VemoHelperLagSm::maybeCreateLag(Nepo::IntfId const&) { unimplemented("maybeCreateLag"); }
void VemoHelperLagSm::maybeDestroyLag(Nepo::IntfId const&) { unimplemented("maybeDestroyLag"); }
void VemoHelperLagSm::updateLagMember(Nepo::IntfId const&, Nepo::IntfId const&, bool,
                                      Vemo::VemoLagPortList const&) {
  unimplemented("updateLagMember");
}
void VemoHelperLagSm::updateLag(Nepo::IntfId const&, Vemo::VemoLagPortList const&) {
  unimplemented("updateLag");
}
bool VemoHelperLagSm::intfManagedCheckOverride() const {
  unimplemented("intfManagedCheckOverride");
  return false;
}
bool VemoHelperLagSm::isIntfManaged(Nepo::IntfId const&) const {
  unimplemented("isIntfManaged");
  return false;
}
void VemoHelperLagSm::maybeShareLagMembership(Nepo::IntfId const&, Nepo::IntfId const&, bool) {
  unimplemented("maybeShareLagMembership");
}
void VemoHelperLagSm::handleVerify() { unimplemented("handleVerify"); }
void VemoHelperLagSm::handleRetryVerify() { unimplemented("handleRetryVerify"); }

}  // namespace VemoHelper
