// The ACL helper's operations as a platform that does not implement them answers: it stops, naming
// the operation, rather than leave an ACL half-programmed.
#include "Vemo/AclHelper.h"
#include "Vemo/VemoCommon.h"

namespace VemoHelper {

namespace {
[[noreturn]] void unimplemented(char const* operation) {
  Vemo::vemoAssert(Zol::String("Call to unimplemented function ") + operation);
}
}  // namespace

void AclHelper::hwInit() { unimplemented("AclHelper::hwInit"); }

bool AclHelper::intfSupportsAcl(Nepo::IntfId const&) const {
  unimplemented("AclHelper::intfSupportsAcl");
}

// Named after the SM that calls it, as platforms have always seen it.
Vemo::AclCreateError AclHelper::createIpAclSubrule(Acl::AclType, Acl::IpRuleConfig const&,
                                                   Acl::UniqueId, Vemo::AclData&, Zol::U32,
                                                   Zol::U32, Zol::U16, Zol::U16, Zol::U16, Zol::U16,
                                                   Zol::U16, Zol::U16, Zol::U16, Zol::U16, Zol::U16,
                                                   Zol::U16, Zol::U16, Zol::U16, Zol::U8, bool,
                                                   Zol::U8, Zol::U8) {
  unimplemented("AclSm::createIpAclSubrule");
}

Vemo::AclCreateError AclHelper::createIpFragRule(Vemo::AclData&, Acl::IpRuleConfig const&,
                                                 Acl::UniqueId, Zol::U32, Zol::U32) {
  unimplemented("AclHelper::createIpFragRule");
}

Vemo::AclCreateError AclHelper::createMacAclRule(Acl::MacRuleConfig const&, Acl::UniqueId,
                                                 Vemo::AclData&, Zol::U32) {
  unimplemented("AclHelper::createMacAclRule");
}

Vemo::AclCreateError AclHelper::createFinalAclRule(Acl::AclType, Vemo::AclData&, Zol::U32) {
  unimplemented("AclHelper::createFinalAclRule");
}

void AclHelper::deleteAcl(Zol::U32) { unimplemented("AclHelper::deleteAcl"); }

bool AclHelper::ipSubruleExists(Vemo::AclData const&, Zol::U32, Zol::U32) const {
  unimplemented("AclHelper::ipSubruleExists");
}

bool AclHelper::macRuleExists(Vemo::AclData const&, Zol::U32) const {
  unimplemented("AclHelper::macRuleExists");
}

bool AclHelper::verifyDropAllRule(Vemo::AclData const&) const {
  unimplemented("AclHelper::verifyDropAllRule");
}

bool AclHelper::verifyAclGeneral(Vemo::AclData const&, Nepo::IntfId const&) const {
  unimplemented("AclHelper::verifyAclGeneral");
}

Zol::String AclHelper::intfLinecardName(Nepo::IntfId const&) const {
  unimplemented("AclHelper::intfLinecardName");
}

Vemo::AclCreateError AclHelper::prepareToCommit(Vemo::AclData&) {
  unimplemented("AclHelper::prepareToCommit");
}

Vemo::AclCreateError AclHelper::commitAcl(Vemo::AclData&) { unimplemented("AclHelper::commitAcl"); }

Vemo::AclCreateError AclHelper::batchCommitAcls() { unimplemented("AclHelper::batchCommitAcls"); }

Vemo::AclCreateError AclHelper::addIntfToAcl(Nepo::IntfId const&, Vemo::AclData const&) {
  unimplemented("AclHelper::addIntfToAcl");
}

void AclHelper::removeIntfFromAcl(Nepo::IntfId const&, Vemo::AclData const&, bool) {
  unimplemented("AclHelper::removeIntfFromAcl");
}

void AclHelper::blockIntf(Nepo::IntfId const&, bool, Zol::U32) {
  unimplemented("AclHelper::blockIntf");
}

void AclHelper::removeAcl(Vemo::AclData&) { unimplemented("AclHelper::removeAcl"); }

void AclHelper::destroyAcl(Vemo::AclData&) { unimplemented("AclHelper::destroyAcl"); }

// Optional: most platforms learn nothing from it.
void AclHelper::aclStatusUpdateCallback(Vemo::AclKey const&, Vemo::AclCreateError) {}

bool AclHelper::aclCountersAllocated(Vemo::AclData const&) const { return false; }

Zol::U64 AclHelper::aclRuleCountersSinceLastPoll(Vemo::AclData const&, Zol::U32, Acl::UniqueId) {
  unimplemented("AclHelper::aclRuleCountersSinceLastPoll");
}

Zol::U64 AclHelper::aclRuleCounterPerChipSinceLastPoll(Vemo::AclData const&, Zol::U32,
                                                       Acl::UniqueId) {
  unimplemented("AclHelper::aclRuleCounterPerChipSinceLastPoll");
}

// Optional: the SM raises the syslog message itself.
void AclHelper::logAclUnsupportedHardware(Zol::Name const&, Nepo::IntfId const&) {}

}  // namespace VemoHelper
