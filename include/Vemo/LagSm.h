// The port-channel SM: turns the published port-channel status into the agent-wide membership
// maps (portToLag, lagToPort) and into calls on the chip driver's port-channel block.
#pragma once

#include <absl/container/btree_map.h>
#include <absl/container/btree_set.h>
#include <absl/container/flat_hash_map.h>

#include <memory>
#include <vector>

#include "Vemo/VemoCommon.h"
#include "Vemo/VemoHelperLagSm.h"
#include "ZolGen/Interface.h"
#include "ZolGen/Lag.h"
#include "ZolGen/Mlag.h"
#include "ZolGen/VemoL2.h"

namespace Vemo {

// One reactor per port-channel status, created when the port-channel appears and initialized
// once the SM is; before that it programs nothing.
class LagSm : public VemoBaseSm {
 public:
  class ZolStatus;

  // What the SM reads and writes, by name; the exported factory fills one.
  struct Inputs {
    Zol::Ptr<VemoCommonSmData> commonData;
    Zol::Ptr<Interface::EthLagIntfStatusDir const> ethLagIntfStatusDir;
    Zol::Ptr<Lag::Input::IntfDeviceNameDir> lagInputIntfDeviceNameDir;
    Zol::Ptr<VemoHelper::VemoHelperLagSm> helper;
  };

  explicit LagSm(Inputs const& inputs);
  ~LagSm() override;
  std::string_view fwkType() const override { return "Vemo::LagSm"; }

  // Start: the helper's set-up, LACP for the operational mode, the MLAG status mount, then every
  // port-channel's first full pass. Once started, coming back (initialized true again, or
  // delivery back on) re-syncs every port-channel from its status instead; going to false
  // touches nothing, and nothing is acted on until it is true again.
  void handleInitialized() override;

  Zol::Ptr<Interface::EthLagIntfStatusDir const> const& ethLagIntfStatusDir() const {
    return in_.ethLagIntfStatusDir;
  }
  Zol::Ptr<Lag::Input::IntfDeviceNameDir> const& lagInputIntfDeviceNameDir() const {
    return in_.lagInputIntfDeviceNameDir;
  }
  Zol::Ptr<VemoHelper::VemoHelperLagSm> const& helper() const { return in_.helper; }
  Zol::Ptr<VerifyData> const& verifyData() const { return commonData()->verifyData(); }

  // The platform's mounter of the MLAG status; set before start. Without one, MLAG status comes
  // only through mlagStatusIs.
  Zol::Ptr<LagMounter> const& lagMounter() const { return lagMounter_; }
  void lagMounterIs(Zol::Ptr<LagMounter> const& mounter);
  Zol::Ptr<Mlag::Status const> const& mlagStatus() const { return mlagStatus_; }
  void mlagStatusIs(Zol::Ptr<Mlag::Status const> const& status);

  ZolStatus* status(Nepo::IntfId const& lag) const;
  size_t statusSize() const { return status_.size(); }
  VemoLagPortList const& localMember(Nepo::IntfId const& lag) const;
  bool sharePeerLinkWithLag(Nepo::IntfId const& lag) const {
    return sharePeerLinkWithLag_.contains(lag);
  }
  absl::btree_map<Nepo::IntfId, bool> const& sharePeerLinkWithLagAll() const {
    return sharePeerLinkWithLag_;
  }
  Nepo::IntfId const& currentPeerLink() const { return currentPeerLink_; }
  // Ports that a port-channel which lost them may take back (the reclaim bookkeeping).
  size_t contestedPortSize() const { return contested_.size(); }
  // Set when the agent restarts hitlessly: removals then leave hardware and maps as they are.
  bool disableCleanupOnRestart() const { return disableCleanupOnRestart_; }
  void disableCleanupOnRestartIs(bool v) { disableCleanupOnRestart_ = v; }

  bool isIntfManaged(Nepo::IntfId const& intf) const;
  void handleOperationalMode();
  void handleVerify(Zol::String const& request);
  void handleRetryVerify(Zol::String const& request);

  // MLAG peer-link sharing.
  void maybeSharePeerLinkWithLag(Nepo::IntfId const& lag, VemoLagPortList const& members);
  void addOrRemovePeerLink(Nepo::IntfId const& lag, Nepo::IntfId const& peerLink,
                           VemoLagPortList const& peerLinkMembers, bool forceUpdate);
  void handleMlagStateOrPeerLinkIntf();
  void handleMlagFastMacRedirection();
  void handleMlagIntfStatus(Nepo::IntfId const& lag);

 private:
  friend class ZolStatus;
  class DirReactor;
  class CommonReactor;
  class VerifyReactor;
  class MlagReactor;
  class MounterReactor;

  // Started once, and initialized false since: statuses are picked up by the next resync.
  bool stopped() const { return started_ && !initialized(); }
  void resync();
  void newStatus(Nepo::IntfId const& lag);
  void statusDel(Nepo::IntfId const& lag);
  // A port-channel that goes takes back nothing any more.
  void forgetContested(Nepo::IntfId const& lag);
  // Verification requests that came before start are asked again, and released, once started.
  void answerPendingVerify();
  void handleIntfManaged(Nepo::IntfId const& intf);
  // Every LAG except lag that holds port loses it.
  void doScrubMember(Nepo::IntfId const& lag, Nepo::IntfId const& port);
  // A port-channel left behind by a hitless restart (maps, no status) gives up port.
  void scrubOrphan(Nepo::IntfId const& lag, Nepo::IntfId const& port);
  // Membership updates nest (a scrub updates the losing port-channel); ports they release are
  // offered back, once the outermost update is done, to the port-channels that lost them.
  class UpdateScope;
  void portReleased(Nepo::IntfId const& port) { released_.push_back(port); }
  void reclaimReleased();
  void localMemberIs(Nepo::IntfId const& lag, VemoLagPortList const& members);
  void localMemberDel(Nepo::IntfId const& lag) { localMember_.erase(lag); }
  void currentPeerLinkIs(Nepo::IntfId const& peerLink) { currentPeerLink_ = peerLink; }
  bool mlagStateValid() const;
  bool peerLinkValid() const;
  // The full MLAG pass; peerLinkMembers is the peer link's list as it is about to be programmed.
  void sharePeerLinkWithAll(VemoLagPortList const& peerLinkMembers, bool forceUpdate);
  void stopSharingPeerLink(Nepo::IntfId const& peerLink);
  VemoLagPortList const& lagToPortOrEmpty(Nepo::IntfId const& lag) const;
  void verifyMaps();

  Inputs const in_;
  Zol::Ptr<LagMounter> lagMounter_;
  Zol::Ptr<Mlag::Status const> mlagStatus_;
  // Key order, so that passes over every port-channel trace and program deterministically.
  absl::btree_map<Nepo::IntfId, std::unique_ptr<ZolStatus>> status_;
  absl::flat_hash_map<Nepo::IntfId, VemoLagPortList> localMember_;
  absl::btree_map<Nepo::IntfId, bool> sharePeerLinkWithLag_;
  Nepo::IntfId currentPeerLink_;
  bool disableCleanupOnRestart_ = false;
  // Port-channels whose status still lists a port another one took from them, latest last.
  absl::flat_hash_map<Nepo::IntfId, std::vector<Nepo::IntfId>> contested_;
  std::vector<Nepo::IntfId> released_;
  int updateDepth_ = 0;
  bool started_ = false;
  // Verification requests that arrived before start, held open in verifyData until answered.
  absl::btree_set<Zol::String> pendingVerify_;
  std::unique_ptr<DirReactor> dirReactor_;
  std::unique_ptr<CommonReactor> commonReactor_;
  std::unique_ptr<VerifyReactor> verifyReactor_;
  std::unique_ptr<MlagReactor> mlagReactor_;
  std::unique_ptr<MounterReactor> mounterReactor_;
};

// The reactor on one port-channel's status.
class LagSm::ZolStatus : public Interface::EthLagIntfStatus::NotifieeConst {
 public:
  ZolStatus(LagSm* sm, Zol::Ptr<Interface::EthLagIntfStatus const> const& status);

  Nepo::IntfId const& intf() const { return intf_; }
  bool initialized() const { return initialized_; }
  // Started, and the SM is initialized: changes are acted on.
  bool active() const;
  // Per-port-channel start; does nothing until the SM is initialized.
  void handleInitialized();
  // After a time nothing was acted on: the device name and the member list from the status.
  void resync();
  // Full resync from the status's member list.
  void handleIntf();
  // One member changed.
  void handleIntf(Nepo::IntfId const& member);
  void doUpdateMember(Nepo::IntfId const& member, bool add);
  void doUpdatePortList(VemoLagPortList const& newList);
  void doCleanupLag();
  // The status disappeared.
  void handleDel();

  void onMember(Nepo::IntfId const& member) override;
  void onDeviceName() override;

  // Whether the status this reactor watches is still the one in the directory.
  bool statusExists() const;

 private:
  // Writes the status's device name, or withdraws it when the status has none.
  void writeDeviceName();

  LagSm* sm_;
  Nepo::IntfId intf_;
  bool initialized_ = false;
};

Zol::Ptr<LagSm> lagSmFactory(
    Zol::Ptr<VemoCommonSmData> const& commonData,
    Zol::Ptr<Interface::EthLagIntfStatusDir const> const& ethLagIntfStatusDir,
    Zol::Ptr<Lag::Input::IntfDeviceNameDir> const& lagInputIntfDeviceNameDir,
    Zol::Ptr<VemoHelper::VemoHelperLagSm> const& helper);

}  // namespace Vemo
