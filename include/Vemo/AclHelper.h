// The ACL platform contract: what a chip's ACL block does for the ACL SMs. A platform derives
// from VemoHelper::AclHelper, sets its capabilities before the SMs start, implements the
// operations its chip needs and answers through the state attributes.
//
// Threading: every operation is called on the agent's loop thread, and every attribute is
// written there too (a driver thread hands its completions to the loop with post()).
//
// Unimplemented operations: an operation marked "required" that the platform leaves alone stops
// the agent with "Call to unimplemented function " and its name, rather than leave an ACL
// half-programmed. "Optional" ones have a default that is right for most chips.
#pragma once

#include "Vemo/AclTypes.h"
#include "ZolGen/VemoAcl.h"

namespace VemoHelper {

// The attributes (generated as AclHelperState) and who writes them.
//
// Written by the platform, once, before the SMs start (capabilities and modes), and read by the
// SMs:
//   asyncAclConfig           prepareToCommit, removeAcl and blockIntf answer later, through
//                            aclHelperCallbackData and aclIntfBlockedStatus; the apply cycle
//                            waits for every answer before its next phase.
//   deferredOperationsSupported  configuration changes are gathered for 0.1 s before one apply
//                            cycle runs (otherwise the cycle is scheduled at once).
//   aclBatchCommitSupported  one batchCommitAcls commits every prepared instance, instead of one
//                            commitAcl each.
//   permitDuringAclUpdate    the chip keeps the old instance on a port until the new one is
//                            committed, so no port is blocked while its ACL is replaced.
//   ignorePermitDuringAclUpdate  blocking follows the configuration only, whatever the chip says.
//   aclCountersSupported     the rules count packets; the counters poller reads them.
//   countersPerChipEnabled   counters are read per chip (aclRuleCounterPerChipSinceLastPoll).
//   installImplicitIcmp6Rules  IPv6 instances get the neighbour-discovery permits ahead of
//                            their final deny.
//   ingressRaclSharingSupported, egressRaclSharingSupported
//                            VLAN interfaces with the same ACL in that direction share one
//                            instance (otherwise one instance per VLAN); egress sharing is also
//                            what lets an outbound IP ACL onto a sub-interface.
//   routedPortAclSharingDefaultUnshared  routed ports get an instance of their own unless the
//                            configuration shares them.
//   subIntfAclSupported      ACLs may be applied to sub-interfaces.
//   establishedSupported     the chip matches established TCP sessions itself (tcpFlags 255).
//   aclEcnSupported          rules may match the two ECN bits (otherwise ECN selectors match any).
//
// Written by the platform and not read by any SM yet; a platform's own rule creation answers
// aclCreateErrorUnsupportedFeature (or UnsupportedRule) for what it cannot hold:
//   verifyHwInit, revertIncompleteAclSupported, aclRollbackSupported,
//   supportedTcpFlags, supportedTcpFlagsDefault, allTcpFlags (nine bits, NS = 0x100; 511 all),
//   configurableImplicitIcmp6RulesSupported, nonContiguousIpMaskSupported,
//   dpIp6AclFullMaskSupported, routerAclExcludeMlagPeerLink, sharedAclDataForVlansSupported,
//   mirroringAclSupported, aclLoggingSupported, routerAclSupported, ip6AclSupported,
//   macAclSupported, aclIpLenMatchSupported.
//
// Written by the platform while running (answers):
//   aclHelperCallbackData[key]  with asyncAclConfig, the result of prepareToCommit or removeAcl
//                            for the instance key; the SM reads it and deletes nothing.
//   aclIntfBlockedStatus[intf]  with asyncAclConfig, the interface's blocking as the chip holds it.
//   unitError[unit], publishUnitError[unit]  a unit's (chip's) resource error and whether the SM
//                            should raise its syslog message.
//
// Written by the SMs (a platform may read them):
//   dirty                    an instance changed since the last apply cycle.
//   needsDeferredUpdate      an apply cycle is scheduled.
//   cliWaiting               cleared when an apply cycle ends, for a command that waits on it.
//   tapAggMode               the switch is in tap-aggregation mode.
//   deepInspSkipL2, deepInspSkipL4  the configured deep-inspection offsets.
class AclHelper : public AclHelperState {
 public:
  explicit AclHelper(Zol::Name const& name) : AclHelperState(name) {}
  std::string_view fwkType() const override { return "VemoHelper::AclHelper"; }

  // --- Set-up ---

  // Required. Readies the ACL block; called once, before any other operation.
  virtual void hwInit();
  // Required. Whether intf (a port, VLAN interface or sub-interface) can hold ACLs; an ACL
  // configured on one that cannot is logged (ACL_UNSUPPORTED_HARDWARE) and not applied there.
  virtual bool intfSupportsAcl(Nepo::IntfId const& intf) const;
  // Required. Where intf's ACLs are programmed, for status and log texts ("Linecard3", "unit0").
  virtual Zol::String intfLinecardName(Nepo::IntfId const& intf) const;

  // --- Rule creation: an instance's rules are created in order, rule aclRule by rule, each IP
  // rule as one or more subrules. Each returns aclCreateErrorNone or the reason it could not. ---

  // Required. One subrule of IP rule aclRule (a 0-based index into the instance's rules) of the
  // instance data; subRuleNum counts the rule's subrules from 0. A subrule matches everything the
  // rule's filter says (the platform reads addresses, protocol, DSCP, ICMP, fragments, TTL and
  // the action from rule) and, in addition, one value of each field below:
  //   srcL4Port/srcL4PortMask, dstL4Port/dstL4PortMask, ipLen/ipLenMask: a ternary entry
  //     (match (v & mask) == value) when the mask is not 0; otherwise the field is a range;
  //   srcPortLow..srcPortHigh, dstPortLow..dstPortHigh, ipLenLow..ipLenHigh: the range, for a
  //     hardware range checker, when the mask is 0 (with a mask they repeat the entry's first and
  //     last value). A field the rule leaves open arrives as value, mask, low and high all 0.
  //   tcpFlags: the low eight flags the subrule requires set, which are the rule's own flags with
  //     the ACK or RST that established sessions add; the platform takes NS (0x100) and the flag
  //     mask from rule. It matches the nine flags so: the rule's flags set, the other bits of the
  //     rule's mask clear, and every bit of tcpFlags outside the rule's flags set. tcpFlags 255 on
  //     an established TCP rule with neither flags nor mask of its own asks, where
  //     establishedSupported, for ACK or RST set.
  //   l4Rule: the subrule matches L4 fields (ports, ICMP or TCP flags).
  //   ecnData/ecnMask: the two ECN bits, matched as (ecn & ecnMask) == ecnData.
  // A chip out of range checkers answers one of the range-checker errors (naming the fields that
  // ran out); the SM then asks again with those fields as ternary entries, one call per entry.
  // Any other error ends the rule's creation, and the instance's.
  virtual Vemo::AclCreateError createIpAclSubrule(
      Acl::AclType aclType, Acl::IpRuleConfig const& rule, Acl::UniqueId uniqueId,
      Vemo::AclData& data, Zol::U32 aclRule, Zol::U32 subRuleNum, Zol::U16 srcL4Port,
      Zol::U16 srcL4PortMask, Zol::U16 dstL4Port, Zol::U16 dstL4PortMask, Zol::U16 srcPortLow,
      Zol::U16 srcPortHigh, Zol::U16 dstPortLow, Zol::U16 dstPortHigh, Zol::U16 ipLen,
      Zol::U16 ipLenMask, Zol::U16 ipLenLow, Zol::U16 ipLenHigh, Zol::U8 tcpFlags, bool l4Rule,
      Zol::U8 ecnData, Zol::U8 ecnMask);
  // Required. A permit, at rule aclRule's place, for the non-initial fragments from the rule's
  // source to its destination with its ECN selector, whatever their protocol: they carry no L4
  // header to match. Called once per distinct (source, destination, ECN) of an instance.
  virtual Vemo::AclCreateError createIpFragRule(Vemo::AclData& data, Acl::IpRuleConfig const& rule,
                                                Acl::UniqueId uniqueId, Zol::U32 aclRule,
                                                Zol::U32 subRuleNum);
  // Required where macAclSupported. MAC rule aclRule of the instance.
  virtual Vemo::AclCreateError createMacAclRule(Acl::MacRuleConfig const& rule,
                                                Acl::UniqueId uniqueId, Vemo::AclData& data,
                                                Zol::U32 aclRule);
  // Required. The rule after the last configured one (index aclRule): deny everything else.
  virtual Vemo::AclCreateError createFinalAclRule(Acl::AclType type, Vemo::AclData& data,
                                                  Zol::U32 aclRule);
  // Required. Drops every rule created for instance aclNum so far, before they are created again.
  virtual void deleteAcl(Zol::U32 aclNum);

  // --- Install ---

  // Required. Every rule of the instance is created; the chip readies it for commit. With
  // asyncAclConfig the answer comes later, in aclHelperCallbackData[data.key()], and the returned
  // value is ignored.
  virtual Vemo::AclCreateError prepareToCommit(Vemo::AclData& data);
  // Required unless aclBatchCommitSupported. Makes a prepared instance usable by interfaces.
  virtual Vemo::AclCreateError commitAcl(Vemo::AclData& data);
  // Required where aclBatchCommitSupported: commits every prepared instance at once.
  virtual Vemo::AclCreateError batchCommitAcls();
  // Required. Applies the committed instance to one hardware port or VLAN interface (a
  // port-channel's members are passed one by one).
  virtual Vemo::AclCreateError addIntfToAcl(Nepo::IntfId const& intf, Vemo::AclData const& data);
  // Required. Takes the instance off intf; belongsToAnother: another instance of the same type
  // and direction takes intf over at once, so the chip may swap rather than leave it unfiltered.
  virtual void removeIntfFromAcl(Nepo::IntfId const& intf, Vemo::AclData const& data,
                                 bool belongsToAnother);
  // Required unless permitDuringAclUpdate. Drops (block true) or passes again every packet of
  // intf while its instance aclNum is replaced. With asyncAclConfig the answer comes later, in
  // aclIntfBlockedStatus[intf]; until then the SM keeps intf out of the new instance.
  virtual void blockIntf(Nepo::IntfId const& intf, bool block, Zol::U32 aclNum);

  // --- Removal ---

  // Required. Takes every rule of the instance out of hardware; the instance keeps its number
  // and is created again. With asyncAclConfig the answer comes later, in aclHelperCallbackData.
  virtual void removeAcl(Vemo::AclData& data);
  // Required. The instance is gone for good; its number returns to the SM.
  virtual void destroyAcl(Vemo::AclData& data);

  // --- Status back to the platform ---

  // Optional (default: nothing). The SM's last word on the instance after an apply cycle.
  virtual void aclStatusUpdateCallback(Vemo::AclKey const& key, Vemo::AclCreateError error);
  // Optional (default: nothing; the SM raises the syslog message itself).
  // ACL_UNSUPPORTED_HARDWARE: intf's device cannot hold ACL aclName.
  virtual void logAclUnsupportedHardware(Zol::Name const& aclName, Nepo::IntfId const& intf);

  // --- Counters (where aclCountersSupported) ---

  // Optional (default: false). Whether the instance's rules have counters yet; for the
  // platform's own views, no SM asks.
  virtual bool aclCountersAllocated(Vemo::AclData const& data) const;
  // Required where aclCountersSupported. The packets rule aclRule (with uniqueId) of the
  // instance matched since the last call for it; the per-chip form where countersPerChipEnabled.
  virtual Zol::U64 aclRuleCountersSinceLastPoll(Vemo::AclData const& data, Zol::U32 aclRule,
                                                Acl::UniqueId uniqueId);
  virtual Zol::U64 aclRuleCounterPerChipSinceLastPoll(Vemo::AclData const& data, Zol::U32 aclRule,
                                                      Acl::UniqueId uniqueId);

  // --- Verification: read-only questions about what the chip holds ---

  // Required. Subrule subRuleNum of rule aclRule of the instance is in hardware.
  virtual bool ipSubruleExists(Vemo::AclData const& data, Zol::U32 aclRule,
                               Zol::U32 subRuleNum) const;
  // Required where macAclSupported. MAC rule aclRule of the instance is in hardware.
  virtual bool macRuleExists(Vemo::AclData const& data, Zol::U32 aclRule) const;
  // Required. The instance's final deny is in hardware.
  virtual bool verifyDropAllRule(Vemo::AclData const& data) const;
  // Required. The instance is applied to the hardware port or VLAN interface intf.
  virtual bool verifyAclGeneral(Vemo::AclData const& data, Nepo::IntfId const& intf) const;
};

}  // namespace VemoHelper
