// The ACL helper of the simulated chip: writes the ACL SMs' rules into the TCAM of every unit, in
// the instance's direction, and answers what the chip refuses as the SMs expect it.
#pragma once

#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "Sim/Chip.h"
#include "Vemo/AclTypes.h"

namespace sim {

class AclHelper : public VemoHelper::AclHelper {
 public:
  static constexpr size_t logLimit = 1024;

  AclHelper(Zol::Name const& name, Chip& chip);
  std::string_view fwkType() const override { return "sim::AclHelper"; }

  void hwInit() override;
  bool intfSupportsAcl(Nepo::IntfId const& intf) const override;
  Vemo::AclCreateError createIpAclSubrule(Acl::AclType aclType, Acl::IpRuleConfig const& rule,
                                          Acl::UniqueId uniqueId, Vemo::AclData& data,
                                          Zol::U32 aclRule, Zol::U32 subRuleNum, Zol::U16 srcL4Port,
                                          Zol::U16 srcL4PortMask, Zol::U16 dstL4Port,
                                          Zol::U16 dstL4PortMask, Zol::U16 srcPortLow,
                                          Zol::U16 srcPortHigh, Zol::U16 dstPortLow,
                                          Zol::U16 dstPortHigh, Zol::U16 ipLen, Zol::U16 ipLenMask,
                                          Zol::U16 ipLenLow, Zol::U16 ipLenHigh, Zol::U8 tcpFlags,
                                          bool l4Rule, Zol::U8 ecnData, Zol::U8 ecnMask) override;
  Vemo::AclCreateError createIpFragRule(Vemo::AclData& data, Acl::IpRuleConfig const& rule,
                                        Acl::UniqueId uniqueId, Zol::U32 aclRule,
                                        Zol::U32 subRuleNum) override;
  Vemo::AclCreateError createMacAclRule(Acl::MacRuleConfig const& rule, Acl::UniqueId uniqueId,
                                        Vemo::AclData& data, Zol::U32 aclRule) override;
  Vemo::AclCreateError createFinalAclRule(Acl::AclType type, Vemo::AclData& data,
                                          Zol::U32 aclRule) override;
  void deleteAcl(Zol::U32 aclNum) override;
  bool ipSubruleExists(Vemo::AclData const& data, Zol::U32 aclRule,
                       Zol::U32 subRuleNum) const override;

  Chip& chip() const { return chip_; }
  bool ready() const { return ready_; }
  // Every operation, oldest first, with its answer: "hwInit", "deleteAcl 3",
  // "createIpAclSubrule 3 0.1: aclCreateErrorNone", "createFinalAclRule 3 2: ...". Only the last
  // logLimit are kept.
  std::deque<std::string> const& log() const { return log_; }
  void logDelAll() { log_.clear(); }

 private:
  // Writes the entries on every unit, or, when one is refused, nothing: what was written is
  // removed again and the refusal is answered.
  Vemo::AclCreateError program(Acl::AclDirection dir, std::vector<AclEntry> const& entries);
  Vemo::AclCreateError logged(std::string text, Vemo::AclCreateError e);
  void note(std::string text);

  Chip& chip_;
  bool ready_ = false;
  std::deque<std::string> log_;
};

}  // namespace sim
