// The ACL SMs: configured access lists, and where they apply, become numbered hardware instances
// (one per ACL, type, direction and VLAN sharing) that the platform's ACL helper programs in apply
// cycles. A cycle runs its phases in a fixed order (uninstall, prepare, commit, unblock, done) so
// that an interface whose ACL is replaced is blocked rather than left unfiltered.
//
// The tree: AclSm at the root, one AclTypeConfigSm per ACL type with one AclConfigSm per ACL and
// one AclDirectionTypeConfigSm per direction, one AclSwitchportModeConfigSm per switched
// interface under each direction. Beside it: AclIntfSm per blocked interface, AclDataSm and
// AclDataStatusSm per instance, and the counters poller. The sub-SMs are the library's own
// (src/acl/AclSubSms.h); a chip agent sees the root and its factory only.
#pragma once

#include <absl/container/btree_map.h>
#include <absl/container/btree_set.h>
#include <absl/container/flat_hash_map.h>

#include <array>
#include <memory>
#include <optional>
#include <vector>

#include "Vemo/AclHelper.h"
#include "Vemo/AclTypes.h"
#include "Vemo/VemoCommon.h"
#include "ZolGen/Bridging.h"
#include "ZolGen/Errdisable.h"
#include "ZolGen/Interface.h"
#include "ZolGen/Lag.h"

namespace Vemo {

class AclSm;
class AclTypeConfigSm;
class AclConfigSm;
class AclDirectionTypeConfigSm;
class AclDataSm;
class AclIntfSm;
class AclCountersPoller;
class AclSwitchportModeConfigSm;

class AclSm : public VemoBaseSm {
 public:
  static constexpr Zol::U16 aclNumbersPerTypeDefault = 8192;
  // An ACL instance per VLAN interface, beyond the configured limit.
  static constexpr Zol::U32 aclNumbersPerVlan = 4094;

  // What the SM reads and writes, by name. The agent, the tests and the exported factory fill one
  // and the SM keeps it, so an input is added here and where it is used.
  struct Inputs {
    Zol::Ptr<VemoCommonSmData> commonData;
    Zol::Ptr<Acl::Config const> mainConfig;
    Zol::Ptr<Acl::ParamConfig const> aclParamConfig;
    Zol::Ptr<Acl::IntfConfigDir const> intfConfigDir;
    Zol::Ptr<Acl::IntfConfig const> intfConfigCli;
    Zol::Ptr<Acl::HwConfigDir const> hwConfigDir;
    Zol::Ptr<Acl::StatusDp> status;
    Zol::Ptr<Errdisable::CauseStatus> aclCauseStatus;
    Zol::Ptr<Lag::Input::Config const> lagInputConfig;
    Zol::Ptr<VemoHelper::AclHelper> aclHelper;
    // The loop the SM's timers run on.
    Zol::ActivityLoop* clock = nullptr;
    Zol::Ptr<Bridging::Config const> brConfig;
    Zol::Ptr<Interface::SubIntfStatusDir const> subIntfStatusDir;
    Zol::Ptr<Interface::SubIntfConfigDir const> subIntfConfigDir;
  };

  explicit AclSm(Inputs const& inputs);
  ~AclSm() override;
  std::string_view fwkType() const override { return "Vemo::AclSm"; }

  // Start: the helper's set-up, stale errdisables cleared, every type's first pass, one apply.
  void handleInitialized() override;

  // Set before the SM is destroyed for an agent restart: hardware, errdisables and counters are
  // left as they are for the next run.
  bool disableCleanupOnRestart() const { return disableCleanupOnRestart_; }
  void disableCleanupOnRestartIs(bool v) { disableCleanupOnRestart_ = v; }

  // Inputs and outputs.
  Inputs const& inputs() const { return in_; }
  Zol::Ptr<Acl::Config const> const& mainConfig() const { return in_.mainConfig; }
  Zol::Ptr<Acl::ParamConfig const> const& aclParamConfig() const { return in_.aclParamConfig; }
  Zol::Ptr<Acl::IntfConfigDir const> const& intfConfigDir() const { return in_.intfConfigDir; }
  Zol::Ptr<Acl::IntfConfig const> const& intfConfigCli() const { return in_.intfConfigCli; }
  Zol::Ptr<Acl::HwConfigDir const> const& hwConfigDir() const { return in_.hwConfigDir; }
  Zol::Ptr<Acl::StatusDp> const& status() const { return in_.status; }
  Zol::Ptr<Errdisable::CauseStatus> const& aclCauseStatus() const { return in_.aclCauseStatus; }
  Zol::Ptr<Lag::Input::Config const> const& lagInputConfig() const { return in_.lagInputConfig; }
  Zol::Ptr<VemoHelper::AclHelper> const& aclHelper() const { return in_.aclHelper; }
  Zol::ActivityLoop& clock() const { return *in_.clock; }
  Zol::Ptr<Bridging::Config const> const& brConfig() const { return in_.brConfig; }
  Zol::Ptr<Interface::SubIntfStatusDir const> const& subIntfStatusDir() const {
    return in_.subIntfStatusDir;
  }
  Zol::Ptr<Interface::SubIntfConfigDir const> const& subIntfConfigDir() const {
    return in_.subIntfConfigDir;
  }

  AclTypeConfigSm* typeSm(Acl::AclType type) const;
  absl::btree_map<Acl::AclType, std::unique_ptr<AclTypeConfigSm>> const& typeSms() const {
    return types_;
  }
  AclDirectionTypeConfigSm* directionSm(Acl::AclType type, Acl::AclDirection d) const;

  // Number ranges: each direction SM gets aclNumbersPerType numbers from aclNumbersUsed on.
  Zol::U16 aclNumbersUsed() const { return aclNumbersUsed_; }
  Zol::U16 aclNumbersPerType() const { return aclNumbersPerType_; }

  static bool isVlanIntf(Nepo::IntfId const& intf);
  static bool isSubIntf(Nepo::IntfId const& intf);

  // Apply cycles.
  AclApplyPhase applyPhase() const { return applyPhase_; }
  Zol::U16 dataOpsRequested() const { return dataOpsRequested_; }
  Zol::U16 dataOpsCompleted() const { return dataOpsCompleted_; }
  Zol::U32 applyCycles() const { return applyCycles_; }
  Zol::U32 deferredUpdates() const { return deferredUpdates_; }
  // How long after an instance failed for a reason that passes (the platform was busy) a cycle
  // runs again.
  static constexpr Zol::Seconds retryDelay = 1;
  void doApplyAcls(bool forceRecreateAll);
  // The blocking of intf while its instances are replaced; null when it was never blocked.
  AclIntfSm* aclIntfSm(Nepo::IntfId const& intf) const;

  void handleVerify(Zol::String const& request);

  // The ACL instance on intf, of any type, for the direction: a port-channel through one of its
  // active members. Null when there is none.
  AclConfigSm* findAclSmForIntf(Nepo::IntfId const& intf, Acl::AclDirection direction) const;

 private:
  // The sub-SMs' side of the root: what they ask of it while they run an apply cycle, and the
  // reactors' handlers. Nothing here is for a chip agent.
  friend class AclTypeConfigSm;
  friend class AclConfigSm;
  friend class AclDirectionTypeConfigSm;
  friend class AclSwitchportModeConfigSm;
  friend class AclDataSm;
  friend class AclDataStatusSm;
  friend class AclIntfSm;
  friend class AclCountersPoller;

  // Where a new direction SM's range starts; a direction SM made again gets its old range.
  Zol::U16 aclNumberRangeStartIs(AclTypeDir const& typeDir);
  // How many numbers a direction SM hands out.
  Zol::U32 aclNumberCount(Acl::AclType type) const;

  // The members of a port-channel as configured; empty for any other interface.
  absl::btree_set<Nepo::IntfId> const& lagMembers(Nepo::IntfId const& lag) const;
  // The port-channel a port is configured in, if any.
  std::optional<Nepo::IntfId> lagOf(Nepo::IntfId const& port) const;

  // Apply cycles.
  // Configuration changed: a cycle runs from the timer, at once or, for platforms that defer
  // operations, a little later so that changes batch up.
  void scheduleApply();
  // An instance failed for a reason that passes (the platform was busy): a cycle runs again
  // after retryDelay, and every failed instance tries again in it.
  void retryIs();
  void doApplyAclsPhase(AclApplyPhase phase);
  void handleAclDataOpsCompleted();
  // An asynchronous helper operation was requested for key or intf; its answer completes it.
  void dataOpRequested(AclKey const& key);
  void blockOpRequested(Nepo::IntfId const& intf);
  void handleCallbackData(AclKey const& key);
  void handleIntfBlockedStatus(Nepo::IntfId const& intf);
  void blockOpCompleted(Nepo::IntfId const& intf);
  bool unblockAcls() const;
  void handleTime();

  // Blocking and errdisable.
  bool permitDuringAclUpdate() const;
  AclIntfSm* aclIntfSmIs(Nepo::IntfId const& intf);
  absl::btree_map<Nepo::IntfId, std::unique_ptr<AclIntfSm>> const& aclIntfSms() const {
    return intfSms_;
  }
  void doErrdisable(Nepo::IntfId const& intf, bool errdisable);
  // Lifts intf's errdisable unless a failed instance other than except still names it.
  void releaseErrdisable(Nepo::IntfId const& intf, AclDataSm const* except);
  void doRemoveAllErrdisables();

  // Syslog bookkeeping: one FULL until the matching NORMAL.
  void instanceFailed(AclDataSm const& inst, AclCreateError e);
  void syslogUnitError(Zol::String const& unit);
  void syslogResourceNormal();

  void handleConfig(Acl::AclType type);
  void handleDeepInspSkip();
  void handleIntf(Nepo::IntfId const& intf);
  void handleOperationalMode();
  void handlePhyIntf(Nepo::IntfId const& port);
  void handleSubIntfInternalVlanId(Nepo::IntfId const& intf);
  void handleSubIntfCfgVlanId(Nepo::IntfId const& intf);
  void handleIntfConfigSource(Zol::Name const& source);
  // Every interface configuration source with an entry for the type, command line first.
  std::vector<Zol::Ptr<Acl::IntfTypeConfig const>> intfTypeConfigs(Acl::AclType type) const;

  AclCountersPoller& countersPoller() { return *poller_; }

  // Every instance, in key order within ACL and type.
  template <class F>
  void forEachInstance(F&& f) const;

  // The apply phases: each returns the phase that follows at once, or nothing while it waits
  // for an asynchronous platform's answers.
  std::optional<AclApplyPhase> uninstallPhase();
  std::optional<AclApplyPhase> preparePhase();
  std::optional<AclApplyPhase> commitPhase();
  std::optional<AclApplyPhase> unblockPhase();
  void donePhase();
  bool waitingForHelper() const;

  class ConfigReactor;
  class ParamReactor;
  class CommonReactor;
  class LagReactor;
  class SubIntfReactor;
  class HelperReactor;
  class VerifyReactor;
  class SourceDirReactor;
  class IntfConfigReactor;
  class SubIntfStatusDirReactor;
  class SubIntfConfigDirReactor;

  // The interface configuration sources: the command line first, then the others by name.
  void watchIntfConfigSources();
  void subIntfWatch(Nepo::IntfId const& intf);

  void verifyInstance(AclConfigSm const& acl, AclDataSm const& inst, VerifyData& report) const;
  void verifyDirection(AclDirectionTypeConfigSm const& dir, VerifyData& report) const;
  // The instance is applied to exactly its ports, in the SM's record and in hardware.
  void verifyPorts(AclDataSm const& inst, VerifyData& report) const;
  // Every subrule of every rule in force, and the final rule, are in hardware.
  void verifyRules(AclDataSm const& inst, VerifyData& report) const;

  Inputs const in_;
  // A simulation host (SIMULATION_VMID set when the SM was created) applies a changed
  // operational mode at once.
  bool const simulation_;
  bool disableCleanupOnRestart_ = false;

  absl::btree_map<Acl::AclType, std::unique_ptr<AclTypeConfigSm>> types_;
  absl::flat_hash_map<AclTypeDir, Zol::U16> rangeStart_;
  Zol::U16 aclNumbersUsed_ = 0;
  Zol::U16 aclNumbersPerType_ = aclNumbersPerTypeDefault;
  absl::btree_map<Nepo::IntfId, absl::btree_set<Nepo::IntfId>> lagMembers_;
  absl::btree_map<Nepo::IntfId, std::unique_ptr<AclIntfSm>> intfSms_;

  AclApplyPhase applyPhase_ = AclApplyPhase::aclApplyPhaseDone;
  Zol::U16 dataOpsRequested_ = 0;
  Zol::U16 dataOpsCompleted_ = 0;
  absl::btree_set<AclKey> pendingData_;
  absl::btree_set<Nepo::IntfId> pendingBlock_;
  bool forceRecreatePending_ = false;
  Zol::U32 applyCycles_ = 0;
  Zol::U32 deferredUpdates_ = 0;
  Zol::Seconds applyStart_ = 0;
  Zol::Clock timer_;
  Zol::Clock retryTimer_;

  bool resourceFullLogged_ = false;
  bool computationFailedLogged_ = false;
  absl::btree_set<Zol::String> unitFullLogged_;
  Zol::String failedUnits_;

  std::unique_ptr<AclCountersPoller> poller_;
  std::unique_ptr<ConfigReactor> configReactor_;
  std::unique_ptr<ParamReactor> paramReactor_;
  std::unique_ptr<CommonReactor> commonReactor_;
  std::unique_ptr<LagReactor> lagReactor_;
  std::unique_ptr<HelperReactor> helperReactor_;
  std::unique_ptr<VerifyReactor> verifyReactor_;
  std::unique_ptr<SourceDirReactor> sourceDirReactor_;
  std::vector<std::unique_ptr<IntfConfigReactor>> intfConfigReactors_;
  std::unique_ptr<SubIntfStatusDirReactor> subIntfStatusDirReactor_;
  std::unique_ptr<SubIntfConfigDirReactor> subIntfConfigDirReactor_;
  absl::flat_hash_map<Nepo::IntfId, std::unique_ptr<SubIntfReactor>> subIntfReactors_;
};

// The chip agent's form; the one below takes the inputs by name.
Zol::Ptr<AclSm> aclSmFactory(Zol::Ptr<VemoCommonSmData> const& commonData,
                             Zol::Ptr<Acl::Config const> const& mainConfig,
                             Zol::Ptr<Acl::ParamConfig const> const& aclParamConfig,
                             Zol::Ptr<Acl::IntfConfigDir const> const& intfConfigDir,
                             Zol::Ptr<Acl::IntfConfig const> const& intfConfigCli,
                             Zol::Ptr<Acl::HwConfigDir const> const& hwConfigDir,
                             Zol::Ptr<Acl::StatusDp> const& status,
                             Zol::Ptr<Errdisable::CauseStatus> const& aclCauseStatus,
                             Zol::Ptr<Lag::Input::Config const> const& lagInputConfig,
                             Zol::Ptr<VemoHelper::AclHelper> const& aclHelper,
                             Zol::ActivityLoop& clock,
                             Zol::Ptr<Bridging::Config const> const& brConfig,
                             Zol::Ptr<Interface::SubIntfStatusDir const> const& subIntfStatusDir,
                             Zol::Ptr<Interface::SubIntfConfigDir const> const& subIntfConfigDir);
Zol::Ptr<AclSm> aclSmFactory(AclSm::Inputs const& inputs);

}  // namespace Vemo
