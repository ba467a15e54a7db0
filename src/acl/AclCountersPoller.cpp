// Rule counters: every period a burst of rules is read from the platform and added to the
// status's hits, resuming where the previous burst stopped.
#include "AclSmReactors.h"

ZOL_TRACE_MODULE("AclSm")

namespace Vemo {

AclCountersPoller::AclCountersPoller(AclSm* root)
    : root_(root), clock_(root->clock(), [this] { handleTime(); }) {}

void AclCountersPoller::handleInitialized() {
  if (!root_->aclHelper()->aclCountersSupported()) {
    ZOL_TRACE(5, "Acl counters not supported");
    return;
  }
  clock_.timeMinIs(root_->clock().now() + period);
}

namespace {

// Instances whose counters are read: installed ingress instances of ACLs that count.
bool counted(AclConfigSm const& acl, AclDataSm const& inst) {
  if (!acl.config()->countersEnabled()) return false;
  if (!inst.installed() || inst.key().direction() != Acl::AclDirection::in) {
    ZOL_TRACE(8, inst.key().text() << " not installed or egress ACL, skip");
    return false;
  }
  return true;
}

}  // namespace

void AclCountersPoller::handleTime() {
  size_t budget = burstSize;
  AclCountersPollingBookmark const from = bookmark_;
  bookmark_ = AclCountersPollingBookmark();
  for (auto const& [type, typeSm] : root_->typeSms()) {
    if (from.valid() && type < from.aclType()) continue;
    bool const sameType = from.valid() && type == from.aclType();
    for (auto const& [name, acl] : typeSm->configSms()) {
      if (sameType && name < from.aclName()) continue;
      bool const sameAcl = sameType && name == from.aclName();
      for (auto const& [key, inst] : acl->dataSms()) {
        if (sameAcl && key < from.key()) continue;
        if (!counted(*acl, *inst)) continue;
        Zol::U32 const seq = sameAcl && key == from.key() ? from.seqId() : 0;
        std::optional<Zol::U32> next;
        budget -= pollInstance(*acl, *inst, seq, budget, &next);
        if (next) {
          bookmark_ = AclCountersPollingBookmark(true, type, name, key, *next);
          ZOL_TRACE(8, "Yielding at: " << key.text() << " sequence " << *next);
          clock_.timeMinIs(root_->clock().now() + period);
          return;
        }
      }
    }
  }
  clock_.timeMinIs(root_->clock().now() + period);
}

void AclCountersPoller::pollBeforeRemoval(AclConfigSm& acl, AclDataSm& inst) {
  // A deleted list's counts went with it.
  if (acl.removed() || !root_->aclHelper()->aclCountersSupported() || !counted(acl, inst)) return;
  std::optional<Zol::U32> next;
  pollInstance(acl, inst, 0, SIZE_MAX, &next);
}

void AclCountersPoller::pollAcl(AclConfigSm& acl) {
  if (!root_->aclHelper()->aclCountersSupported()) return;
  for (auto const& [key, inst] : acl.dataSms()) {
    if (!counted(acl, *inst)) continue;
    std::optional<Zol::U32> next;
    pollInstance(acl, *inst, 0, SIZE_MAX, &next);
  }
}

size_t AclCountersPoller::pollInstance(AclConfigSm& acl, AclDataSm& inst, Zol::U32 seq,
                                       size_t budget, std::optional<Zol::U32>* next) {
  VemoHelper::AclHelper& helper = *root_->aclHelper();
  AclData const& data = *inst.data();
  Zol::Ptr<Acl::AclRuleHits> hits;
  size_t polled = 0;
  // Rule indexes count every rule of the list in sequence order, as creation numbered them.
  auto const poll = [&](auto const& rules) {
    Zol::U32 aclRule = 0;
    for (auto it = rules.begin(); it != rules.end(); ++it, ++aclRule) {
      if (it->first < seq) continue;
      if (polled == budget) {
        *next = it->first;
        return;
      }
      Acl::UniqueId const id = it->second.uniqueId();
      Zol::U64 const delta = helper.countersPerChipEnabled()
                                 ? helper.aclRuleCounterPerChipSinceLastPoll(data, aclRule, id)
                                 : helper.aclRuleCountersSinceLastPoll(data, aclRule, id);
      ++polled;
      if (delta == 0) continue;
      if (!hits) hits = root_->status()->ruleHitsIs(data.key().type())->aclIs(acl.name());
      hits->hitsIs(id, hits->hits(id) + delta);
    }
  };
  // The rules the instance was created with: a newer configuration numbers them differently.
  Zol::Ptr<Acl::AclConfig const> const rules = inst.installedRules();
  if (!rules) return polled;
  if (data.key().type() == Acl::AclType::mac) {
    poll(rules->macRuleBySequenceAll());
  } else {
    poll(rules->ipRuleBySequenceAll());
  }
  return polled;
}

}  // namespace Vemo
