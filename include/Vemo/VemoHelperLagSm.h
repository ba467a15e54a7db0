// The port-channel platform contract: what a chip's port-channel block does for the port-channel
// SM. A platform derives from VemoHelper::VemoHelperLagSm and implements the operations its chip
// needs. It has no state attributes: everything the SM tells it is in the calls, and the
// membership it programs is readable in the common data's portToLag and lagToPort.
#pragma once

#include "ZolGen/Interface.h"
#include "ZolGen/VemoCommon.h"

namespace VemoHelper {

// The port-channel block of the chip, implemented by the platform. Every operation runs on the
// agent's thread and returns when the chip holds the change; a refusal is the platform's to
// record and retry, the SM does not see it. Operations the platform leaves alone trace "Call to
// unimplemented function" and do nothing.
class VemoHelperLagSm : public Vemo::VemoBaseHelper {
 public:
  explicit VemoHelperLagSm(Zol::Name const& name);
  std::string_view fwkType() const override { return "VemoHelper::VemoHelperLagSm"; }

  // Sets up the port-channel block. The SM calls it once, at start, before any other operation.
  virtual void hwInit();
  // LACP packets are trapped to the CPU (true) or forwarded as data (false, tap aggregation).
  virtual void lacpEnabledIs(bool enabled);
  // Creates the port-channel in hardware unless it exists. Called before every updateLag.
  virtual void maybeCreateLag(Nepo::IntfId const& lag);
  // Removes the port-channel, members and all, if it exists.
  virtual void maybeDestroyLag(Nepo::IntfId const& lag);
  // Adds or removes one member; members is the whole list after the change.
  virtual void updateLagMember(Nepo::IntfId const& lag, Nepo::IntfId const& member, bool add,
                               Vemo::VemoLagPortList const& members);
  // Programs the whole member list, with each member's collecting and distributing state; an
  // empty list leaves the port-channel in place without members.
  virtual void updateLag(Nepo::IntfId const& lag, Vemo::VemoLagPortList const& members);
  // True when isIntfManaged, not the common data's interface list, says which interfaces this
  // agent programs (a chip that serves only some of the switch's ports).
  virtual bool intfManagedCheckOverride() const;
  virtual bool isIntfManaged(Nepo::IntfId const& intf) const;
  // The members of the MLAG peer link start (share) or stop backing up the MLAG interface lag.
  virtual void maybeShareLagMembership(Nepo::IntfId const& peerLink, Nepo::IntfId const& lag,
                                       bool share);
  // Compares the chip with the common data's lagToPort and reports each difference through its
  // verification store. handleRetryVerify runs the same comparison again.
  virtual void handleVerify();
  virtual void handleRetryVerify();
};

}  // namespace VemoHelper
