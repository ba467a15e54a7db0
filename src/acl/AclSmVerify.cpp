// The ACL SMs' consistency check: every interface is on the instance its configuration names,
// every installed instance is applied to exactly its ports, and the platform holds its rules.
// Also the lookup of the instance an interface is on.
#include <cstdarg>
#include <cstdio>

#include "AclSmReactors.h"
#include "Vemo/AclRules.h"

ZOL_TRACE_MODULE("AclSm")

namespace Vemo {

namespace {

Zol::String format(char const* f, ...) __attribute__((format(printf, 1, 2)));

Zol::String format(char const* f, ...) {
  va_list args;
  va_start(args, f);
  char buf[512];
  int const n = std::vsnprintf(buf, sizeof buf, f, args);
  va_end(args);
  return Zol::String(buf, static_cast<size_t>(std::max(0, std::min<int>(n, sizeof buf - 1))));
}

}  // namespace

void AclSm::handleVerify(Zol::String const& request) {
  if (!initialized()) return;
  ZOL_TRACE(8, "AclSm::handleVerify " << request);
  Zol::Seconds const start = clock().now();
  VerifyData& report = *commonData()->verifyData();
  for (auto const& [type, typeSm] : types_) {
    if (type != Acl::AclType::ip && type != Acl::AclType::ipv6 && type != Acl::AclType::mac) {
      report.reportMismatch("AclSm", format("ACL Type State machine doesn't recognize type %d",
                                            static_cast<int>(type)));
      continue;
    }
    for (auto const d : {Acl::AclDirection::in, Acl::AclDirection::out}) {
      AclDirectionTypeConfigSm const* const dir = typeSm->directionSm(d);
      if (!dir || dir->direction() != d) {
        report.reportMismatch("AclSm",
                              format("ACL Direction State machine doesn't recognize direction %d",
                                     static_cast<int>(d)));
        continue;
      }
      verifyDirection(*dir, report);
    }
  }
  forEachInstance(
      [&](AclConfigSm const& acl, AclDataSm const& inst) { verifyInstance(acl, inst, report); });
  for (auto const& [intf, sm] : intfSms_) {
    if (sm->state() != AclIntfState::aclIntfUnblocked) {
      ZOL_TRACE(5, "Ports are blocked");
      break;
    }
  }
  ZOL_TRACE(5, "Verify took " << clock().now() - start << " seconds.");
}

void AclSm::verifyDirection(AclDirectionTypeConfigSm const& dir, VerifyData& report) const {
  AclTypeConfigSm const& typeSm = *dir.typeSm();
  absl::btree_map<Zol::Name, absl::btree_set<AclKey>> portInstances;
  for (auto const& [intf, key] : dir.intfKeys()) {
    Zol::String const intfName = intf.stringValue();
    if (!key.vlanId().isRacl()) portInstances[key.name()].insert(key);
    AclConfigSm const* const acl = typeSm.configSm(key.name());
    AclDataSm const* const inst = acl ? acl->dataSm(key) : nullptr;
    if (!inst) {
      report.reportMismatch(
          "AclSm", intf.isVlan() ? format("ACL %s is on VLAN %d but has noAclData for it.",
                                          key.name().c_str(), key.vlanId().value())
                                 : format("Missing aclData(0) for ACL %s", key.name().c_str()));
      continue;
    }
    Zol::Name const configured = dir.configuredAclName(intf);
    if (configured != key.name()) {
      report.reportMismatch("AclSm",
                            format("ACL %s has data for intf %s but intf is configured "
                                   "for \"%s\"",
                                   key.name().c_str(), intfName.c_str(), configured.c_str()));
    }
  }
  // The ports of one ACL in one direction share one instance.
  for (auto const& [name, keys] : portInstances) {
    if (keys.size() > 1) {
      report.reportMismatch("AclSm", format("Should be one aclData for ACL %s", name.c_str()));
    }
  }
}

void AclSm::verifyPorts(AclDataSm const& inst, VerifyData& report) const {
  AclData const& data = *inst.data();
  char const* const name = data.key().name().c_str();
  VemoHelper::AclHelper const& helper = *in_.aclHelper;
  absl::btree_set<Nepo::IntfId> const wanted = inst.wantedPorts();
  for (Nepo::IntfId const& port : wanted) {
    if (inst.status()->intfStateHas(port) && helper.verifyAclGeneral(data, port)) continue;
    report.reportMismatch(
        "AclSm", port.isVlan() ? format("ACL %s on VLAN %d is missing intf", name, port.number(0))
                               : format("Intf %s belongs to ACL %s but the port is not active.",
                                        port.stringValue().c_str(), name));
  }
  for (auto const& [port, bound] : inst.status()->intfStateAll()) {
    if (wanted.contains(port)) continue;
    report.reportMismatch(
        "AclSm",
        port.isVlan()
            ? format("ACL %s on VLAN %d should not be active", name, port.number(0))
            : format("Intf %s is active and belongs to ACL %s but the port should not be active.",
                     port.stringValue().c_str(), name));
  }
  // A member's own ACL yields to its port-channel's: hardware must not filter it by both.
  for (auto const& [intf, active] : data.activeIntfAll()) {
    std::optional<Nepo::IntfId> const lag = lagOf(intf);
    if (!lag || wanted.contains(intf) || !helper.verifyAclGeneral(data, intf)) continue;
    report.reportMismatch("AclSm",
                          format("ACL %s has data for LAG %s", name, lag->stringValue().c_str()));
  }
}

void AclSm::verifyRules(AclDataSm const& inst, VerifyData& report) const {
  AclData const& data = *inst.data();
  char const* const name = data.key().name().c_str();
  VemoHelper::AclHelper const& helper = *in_.aclHelper;
  Zol::Ptr<Acl::AclConfig const> const rules = inst.installedRules();
  if (!rules) return;
  Zol::U32 aclRule = 0;
  auto const missingRule = [&](Zol::U32 seq) {
    report.reportMismatch("AclSm",
                          format("ACL %s sequence %u rule %u doesn't exist", name, seq, aclRule));
  };
  if (data.key().type() == Acl::AclType::mac) {
    for (auto const& [seq, rule] : rules->macRuleBySequenceAll()) {
      if (!helper.macRuleExists(data, aclRule)) missingRule(seq);
      ++aclRule;
    }
  } else {
    AclIpRuleCreateData scratch;
    for (auto const& [seq, rule] : rules->ipRuleBySequenceAll()) {
      if (!data.subruleCountHas(aclRule)) {
        // A rule no packet can match was given no entries.
        if (createIpAclRuleData(rule.filter(), scratch, helper.aclEcnSupported(),
                                helper.establishedSupported())) {
          missingRule(seq);
        }
      }
      Zol::U32 const subrules = data.subruleCountHas(aclRule) ? data.subruleCount(aclRule) : 0;
      for (Zol::U32 sub = 0; sub < subrules; ++sub) {
        if (helper.ipSubruleExists(data, aclRule, sub)) continue;
        report.reportMismatch("AclSm", format("ACL %s sequence %u rule %u subrule %u doesn't exist",
                                              name, seq, aclRule, sub));
      }
      ++aclRule;
    }
  }
  // The final rule has no sequence of its own: it is reported as sequence 0.
  if (!helper.verifyDropAllRule(data)) missingRule(0);
}

void AclSm::verifyInstance(AclConfigSm const& acl, AclDataSm const& inst,
                           VerifyData& report) const {
  AclData const& data = *inst.data();
  Zol::String const name = data.key().name();
  if (data.dirty()) {
    ZOL_TRACE(5, data.key().text() << " ( Skipping ACL as it is dirty. )");
    return;
  }
  if (data.aclDataState() == AclDataState::adFinalRuleStatusPending) {
    ZOL_TRACE(5, data.key().text() << " is in pending state.");
    return;
  }
  if (inst.deleting()) {
    report.reportMismatch("AclSm",
                          format("ACL %s set to destroying but still exists", name.c_str()));
    return;
  }
  if (!inst.installed()) return;
  verifyPorts(inst, report);
  if (data.key().vlanId().isRacl() && data.key().vlanId() != AclVlanIdOrNone::sharing() &&
      data.activeIntfSize() > 1) {
    report.reportMismatch("AclSm", format("ACL %s on VLAN %d has multipleactive intfs.",
                                          name.c_str(), data.key().vlanId().value()));
  }
  verifyRules(inst, report);
}

AclConfigSm* AclSm::findAclSmForIntf(Nepo::IntfId const& intf, Acl::AclDirection direction) const {
  Nepo::IntfId port = intf;
  if (intf.isPortChannel()) {
    if (!commonData()->lagToPortHas(intf)) {
      ZOL_TRACE(5, "findAclSmForIntf called on empty LAG " << intf);
      return nullptr;
    }
    VemoLagPortList const& members = commonData()->lagToPort(intf);
    std::optional<Nepo::IntfId> active;
    for (auto const& [member, state] : members.portAll()) {
      if (state.distributing()) {
        active = member;
        break;
      }
    }
    if (!active) {
      ZOL_TRACE(5, "No active ports found for port-channel " << intf);
      return nullptr;
    }
    port = *active;
  } else if (!commonData()->intfHas(port) && !port.isVlan() && !port.isSubIntf()) {
    ZOL_TRACE(5, "findAclSmForIntf called with non-existent interface " << intf);
    return nullptr;
  }
  for (auto const& [type, typeSm] : types_) {
    std::optional<AclKey> const key = typeSm->directionSm(direction)->portKey(port);
    if (!key) continue;
    AclConfigSm* const acl = typeSm->configSm(key->name());
    AclDataSm const* const inst = acl ? acl->dataSm(*key) : nullptr;
    if (inst && inst->status()->intfStateHas(port)) return acl;
  }
  ZOL_TRACE(5, "findAclSmForIntf found no active ACL for intf " << intf);
  return nullptr;
}

}  // namespace Vemo
