// The ACL helper of the simulated chip: writes the ACL SMs' rules into the TCAM of every unit, in
// the instance's direction, binds instances to interfaces, and answers what the chip refuses as
// the SMs expect it.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Sim/Chip.h"
#include "Vemo/AclHelper.h"
#include "Vemo/AclTypes.h"
#include "Zol/Activity.h"

namespace sim {

class AclHelper : public VemoHelper::AclHelper {
 public:
  static constexpr size_t logLimit = 1024;

  // Asynchronous answers come on loop, after asyncDelay of its time.
  AclHelper(Zol::Name const& name, Chip& chip, Zol::ActivityLoop& loop);
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
  bool macRuleExists(Vemo::AclData const& data, Zol::U32 aclRule) const override;
  // On every unit: the final deny, and the binding of the instance's type and direction.
  bool verifyDropAllRule(Vemo::AclData const& data) const override;
  bool verifyAclGeneral(Vemo::AclData const& data, Nepo::IntfId const& intf) const override;
  Zol::String intfLinecardName(Nepo::IntfId const& intf) const override;

  // Install. Entries are live from the moment they are written, so preparing only checks the
  // units and committing only records the instance. With asyncAclConfig, prepareToCommit,
  // removeAcl and blockIntf do their chip work at once and publish their answer asyncDelay later,
  // in the order they were called. The SM requests at most one of these operations per instance
  // and per interface at a time: answers for one key coalesce until the SM has seen them. An
  // answer equal to the one already there is notified all the same.
  Vemo::AclCreateError prepareToCommit(Vemo::AclData& data) override;
  Vemo::AclCreateError commitAcl(Vemo::AclData& data) override;
  Vemo::AclCreateError batchCommitAcls() override;
  Vemo::AclCreateError addIntfToAcl(Nepo::IntfId const& intf, Vemo::AclData const& data) override;
  void removeIntfFromAcl(Nepo::IntfId const& intf, Vemo::AclData const& data,
                         bool belongsToAnother) override;
  void blockIntf(Nepo::IntfId const& intf, bool block, Zol::U32 aclNum) override;
  void removeAcl(Vemo::AclData& data) override;
  void destroyAcl(Vemo::AclData& data) override;
  void aclStatusUpdateCallback(Vemo::AclKey const& key, Vemo::AclCreateError error) override;

  // Counters: the hits of every entry of the rule, summed over the units. Both variants share
  // one bookmark per rule, as one poller calls one of them.
  bool aclCountersAllocated(Vemo::AclData const& data) const override;
  Zol::U64 aclRuleCountersSinceLastPoll(Vemo::AclData const& data, Zol::U32 aclRule,
                                        Acl::UniqueId uniqueId) override;
  Zol::U64 aclRuleCounterPerChipSinceLastPoll(Vemo::AclData const& data, Zol::U32 aclRule,
                                              Acl::UniqueId uniqueId) override;
  void logAclUnsupportedHardware(Zol::Name const& aclName, Nepo::IntfId const& intf) override;

  Chip& chip() const { return chip_; }
  bool ready() const { return ready_; }
  // How long an asynchronous answer takes (default 0.001 s); for operations made from now on.
  Zol::Seconds asyncDelay() const { return asyncDelay_; }
  void asyncDelayIs(Zol::Seconds delay) { asyncDelay_ = delay; }
  // Every operation, oldest first, with its answer where it has one: "hwInit", "deleteAcl 3",
  // "createIpAclSubrule 3 0.1: aclCreateErrorNone", "addIntfToAcl Ethernet1 3: ...",
  // "blockIntf Ethernet1 on". Queries and counter polls are left out. Only the last logLimit are
  // kept.
  std::deque<std::string> const& log() const { return log_; }
  void logDelAll() { log_.clear(); }

 private:
  // One asynchronous answer, published at due.
  struct Completion {
    Zol::Seconds due = 0;
    std::function<void()> publish;
  };
  // Writes the entries on every unit, or, when one is refused, nothing: what was written is
  // removed again and the refusal is answered.
  Vemo::AclCreateError program(Acl::AclDirection dir, std::vector<AclEntry> const& entries);
  Vemo::AclCreateError logged(std::string text, Vemo::AclCreateError e);
  void note(std::string text);
  // Runs publish asyncDelay from now, but never ahead of an answer filed earlier.
  void later(std::function<void()> publish);
  void publishDue();
  void answerIs(Vemo::AclKey const& key, Vemo::AclCreateError status);
  void blockedAnswerIs(Nepo::IntfId const& intf, bool blocked);
  // Forgets the counter bookmarks of the instance, whose entries start again from zero.
  void countersDel(Zol::U32 aclNum);

  Chip& chip_;
  bool ready_ = false;
  std::deque<std::string> log_;
  // Instances by aclNumber: prepared and waiting for batchCommitAcls, and committed.
  std::set<Zol::U32> prepared_;
  std::set<Zol::U32> committed_;
  // The hit total each (aclNumber, aclRule) had at its last poll.
  std::map<std::pair<Zol::U32, Zol::U32>, Zol::U64> lastHits_;
  Zol::Seconds asyncDelay_ = 0.001;
  std::deque<Completion> pending_;
  Zol::Clock asyncClock_;
};

}  // namespace sim
