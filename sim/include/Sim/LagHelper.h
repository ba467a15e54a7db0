// The port-channel helper of the simulated chip: programs the chip's LAG table for the LAG SM,
// retries what the chip refuses for the moment, and compares the chip with the common data.
#pragma once

#include <absl/container/btree_map.h>
#include <absl/container/btree_set.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Sim/Chip.h"
#include "Sim/HelperCalls.h"
#include "Vemo/LagSm.h"

namespace sim {

class LagHelper : public VemoHelper::VemoHelperLagSm {
 public:
  // How long a port-channel the chip answered busy or full waits before it is programmed again.
  static constexpr Zol::Seconds retryDelay = 0.2;

  LagHelper(Zol::Name const& name, Chip& chip, Zol::Ptr<Vemo::VemoCommonSmData> const& commonData);
  std::string_view fwkType() const override { return "sim::LagHelper"; }

  void hwInit() override;
  void lacpEnabledIs(bool enabled) override;
  void maybeCreateLag(Nepo::IntfId const& lag) override;
  void maybeDestroyLag(Nepo::IntfId const& lag) override;
  void updateLagMember(Nepo::IntfId const& lag, Nepo::IntfId const& member, bool add,
                       Vemo::VemoLagPortList const& members) override;
  void updateLag(Nepo::IntfId const& lag, Vemo::VemoLagPortList const& members) override;
  bool intfManagedCheckOverride() const override;
  bool isIntfManaged(Nepo::IntfId const& intf) const override;
  void maybeShareLagMembership(Nepo::IntfId const& peerLink, Nepo::IntfId const& lag,
                               bool share) override;
  void handleVerify() override;
  void handleRetryVerify() override;

  // The SM this helper serves: verification compares the chip's peer-link sharing with its
  // sharePeerLinkWithLag. Not counted, as the SM holds the helper: whoever drops the SM clears it
  // first. Without one, sharing is not checked.
  void lagSmIs(Vemo::LagSm const* sm) { lagSm_ = sm; }

  // Whether the chip, rather than the common data's interface list, says which interfaces are
  // programmed (default true).
  void managedCheckOverrideIs(bool v) { managedCheckOverride_ = v; }
  bool ready() const { return ready_; }
  Chip& chip() const { return chip_; }
  // Port-channels waiting for the retry clock.
  size_t retryPending() const { return retry_.size(); }
  // How often each operation ran, by its name ("updateLag", "handleVerify", ...), plus "retry"
  // (one port-channel programmed again by the clock), "refused" (any answer but ok) and
  // "beforeHwInit" (a programming call before hwInit).
  uint64_t calls(std::string_view op) const;

 private:
  enum class Op : uint8_t {
    hwInit,
    lacpEnabledIs,
    maybeCreateLag,
    maybeDestroyLag,
    updateLagMember,
    updateLag,
    intfManagedCheckOverride,
    isIntfManaged,
    maybeShareLagMembership,
    handleVerify,
    handleRetryVerify,
    retry,
    refused,
    beforeHwInit,
  };
  static constexpr size_t kOpCount = static_cast<size_t>(Op::beforeHwInit) + 1;

  // What the SM last asked for one port-channel; the chip is brought to it after a refusal.
  struct Desired {
    bool exists = false;
    Vemo::VemoLagPortList members;
    Nepo::IntfId sharedPeerLink;
  };

  void count(Op op) const { calls_.count(op); }
  // Counts a programming call and flags one that comes before hwInit.
  void programming(Op op);
  // Runs the chip operation for lag, or, when an earlier change to lag was refused, programs the
  // whole desired state instead so that nothing older is skipped.
  template <class Operation>
  void program(Nepo::IntfId const& lag, Op op, Operation const& operation);
  // Brings the chip's entry for lag to the desired state, skipping what already matches.
  Status reconcile(Nepo::IntfId const& lag);
  // Files lag under the chip's answer: done, waiting for the retry clock, or failed.
  void settle(Nepo::IntfId const& lag, Op op, Status s);
  void handleRetry();
  void verify();
  // Each port-channel whose peer-link sharing differs between the chip and the SM, in key order.
  std::vector<std::pair<Nepo::IntfId, std::string>> sharingDifferences() const;

  Chip& chip_;
  Zol::Ptr<Vemo::VemoCommonSmData> commonData_;
  Vemo::LagSm const* lagSm_ = nullptr;
  bool ready_ = false;
  bool managedCheckOverride_ = true;
  absl::btree_map<Nepo::IntfId, Desired> desired_;
  // Refused port-channels, by the chip's last answer: busy and full are retried by the clock,
  // failed waits for the next request.
  absl::btree_map<Nepo::IntfId, Status> retry_;
  absl::btree_set<Nepo::IntfId> failed_;
  Zol::Clock retryClock_;
  mutable HelperCalls<Op, kOpCount> calls_;
};

}  // namespace sim
