// Creating the rules of one ACL instance through the platform helper. An IP rule becomes subrules:
// every ECN value/mask pair, TCP-flags entry and combination of source-port, destination-port and
// IP-length ranges. Where the hardware runs out of range checkers the affected fields fall back to
// value/mask entries. Permits that match on L4 fields get a fragment permit, shared by identical
// source, destination and ECN through the instance's fragMap. The instance ends with the final
// rule.
#pragma once

#include "Vemo/AclHelper.h"
#include "Vemo/AclTypes.h"

namespace Vemo {

// The seven answers that say the hardware ran out of range checkers for some fields.
bool isRangeCheckerError(AclCreateError e);

// The fields of an IP subrule that can use range checkers.
enum AclRangeField : unsigned {
  aclRangeFieldSrcPort = 1,
  aclRangeFieldDstPort = 2,
  aclRangeFieldIpLen = 4,
};
// The fields a range-checker error names (a set of AclRangeField); 0 for any other answer.
unsigned aclRangeFieldsOf(AclCreateError e);

// Creates the subrules of one IP or IPv6 rule at index aclRule and its fragment permit, if any.
// Returns the first answer that is neither success nor a range-checker error; the subrules
// created before it stay.
AclCreateError createIpAclRule(VemoHelper::AclHelper& helper, AclData& data,
                               Acl::IpRuleConfig const& rule, Zol::U32 aclRule);

AclCreateError createMacAclRule(VemoHelper::AclHelper& helper, AclData& data,
                                Acl::MacRuleConfig const& rule, Zol::U32 aclRule);

// Every rule of the list, in sequence order, then the final rule; the rules of the instance's
// type only. Stops at the first error and returns it; numRules counts the rules created.
AclCreateError createAclRules(VemoHelper::AclHelper& helper, AclData& data,
                              Acl::AclConfig const& config);

}  // namespace Vemo
