// The ACL SM's sub-SMs, private to the library: what each configured list, direction,
// instance and blocked interface keeps, and what the root asks of them in an apply cycle.
#pragma once

#include "Vemo/AclSm.h"

namespace Vemo {

// The status text of an instance whose installation ended with e; units names where it failed.
Zol::String aclCreateErrorText(AclCreateError e, Zol::String const& units);

class AclDataSm;

// The platform's side of one instance: what hardware holds of it (the ports it is applied to and
// those it keeps blocked), the platform's answers, and the status the end of a cycle writes.
class AclDataStatusSm {
 public:
  AclDataStatusSm(AclDataSm* dataSm, AclKey const& key);

  Zol::Ptr<AclDataStatus> const& status() const { return status_; }
  // The answer to prepareToCommit (or a batch commit); answers to removeAcl carry nothing.
  void handleCallbackData(AclCreateError status);
  // Status text, errdisable and syslog, once a cycle that touched the instance is done.
  void doSettle();

 private:
  AclDataSm* dataSm_;
  Zol::Ptr<AclDataStatus> status_;
};

// One hardware instance: its data and its part of each apply phase.
class AclDataSm {
 public:
  AclDataSm(AclConfigSm* configSm, AclKey const& key);
  ~AclDataSm();

  AclKey const& key() const { return data_->key(); }
  Zol::Ptr<AclData> const& data() const { return data_; }
  Zol::Ptr<AclDataStatus> const& status() const { return statusSm_.status(); }
  AclDataStatusSm& statusSm() { return statusSm_; }
  // The last interface left: removed from hardware in the next cycle's uninstall phase.
  bool deleting() const { return deleting_; }
  void deletingIs(bool v) { deleting_ = v; }
  // Rules of the instance are in hardware (installed or failed half-way).
  bool hwPresent() const { return hwPresent_; }
  bool installed() const { return data_->aclDataState() == AclDataState::adInstalled; }

  // The rules in hardware: those in force when the instance was last created, null while it has
  // none. Counters and verification read these, not a newer configuration.
  Zol::Ptr<Acl::AclConfig const> const& installedRules() const { return installedRules_; }

  // Phases, called by the root in order. Before uninstall: ports that another instance holds in
  // hardware and this one takes over are blocked until this one is applied to them.
  void doBlockTakeovers();
  void doUninstall();
  void doPrepare();
  void doCommit();
  // The hardware ports the instance must be applied to: its interfaces, a port-channel by its
  // configured members.
  absl::btree_set<Nepo::IntfId> wantedPorts() const;
  void doUpdatePorts();
  void doDestroy();
  // Out of hardware with error e; it tries again in the next cycle. Ports it was filtering stay
  // blocked until it (or what replaces it) is applied again, and stay bound where e passes.
  void failed(AclCreateError e);
  // This cycle touched the instance: done settles it.
  bool touched() const { return touched_; }
  void touchedIs(bool v) { touched_ = v; }
  AclSm* root() const;
  VemoHelper::AclHelper& helper() const;

 private:
  // Takes the instance off every port; with release, the blocks it holds go too.
  void unbindAll(bool release);
  void bindingIs(Nepo::IntfId const& port, bool bound);
  void wantToBlockIs(Nepo::IntfId const& port);
  void releaseBlocks();
  // The rules left hardware.
  void outOfHardware();
  AclDirectionTypeConfigSm* dirSm() const;

  AclConfigSm* configSm_;
  Zol::Ptr<AclData> data_;
  Zol::Ptr<Acl::AclConfig const> installedRules_;
  AclDataStatusSm statusSm_;
  bool deleting_ = false;
  bool hwPresent_ = false;
  // Set when this cycle touched the instance, so that done settles it.
  bool touched_ = false;
  // Committed anew: every port is applied again.
  bool rebind_ = false;
};

// One configured ACL: its instances, by key.
class AclConfigSm {
 public:
  AclConfigSm(AclTypeConfigSm* typeSm, Zol::Ptr<Acl::AclConfig const> const& config);
  ~AclConfigSm();

  AclTypeConfigSm* typeSm() const { return typeSm_; }
  AclSm* root() const;
  Zol::Ptr<Acl::AclConfig const> const& config() const { return config_; }
  // The rules in force: those the configuration held when its currCfg last changed. Rules
  // written since are not installed, counted or verified until the next change.
  Zol::Ptr<Acl::AclConfig const> rules() const { return rules_; }
  Zol::Name const& name() const { return config_->aclName(); }
  absl::btree_map<AclKey, std::unique_ptr<AclDataSm>> const& dataSms() const { return data_; }
  AclDataSm* dataSm(AclKey const& key) const;
  // The instance of key, created when missing ("Added first ... instantiating...").
  AclDataSm* dataSmIs(AclKey const& key, bool vlanIntf);
  void dataSmDel(AclKey const& key);
  // The configuration entity of the name was replaced.
  void configIs(Zol::Ptr<Acl::AclConfig const> const& config);
  // Deleted from the configuration; kept until its instances have left hardware.
  bool removed() const { return removed_; }
  void removedIs(bool v);
  void markDirty();

  void handleCurrCfg();
  void handleCounterUpdateRequestTime();
  void handleTime();

 private:
  class Reactor;
  void rulesIs();
  void ruleHitsDel();
  AclTypeConfigSm* typeSm_;
  Zol::Ptr<Acl::AclConfig const> config_;
  Zol::Ptr<Acl::AclConfig> rules_;
  absl::btree_map<AclKey, std::unique_ptr<AclDataSm>> data_;
  bool removed_ = false;
  Zol::Clock clock_;
  std::unique_ptr<Reactor> reactor_;
};

// Re-applies the ACL of one switched interface when its switchport mode changes.
class AclSwitchportModeConfigSm : public Bridging::SwitchIntfConfig::NotifieeConst {
 public:
  AclSwitchportModeConfigSm(AclDirectionTypeConfigSm* dirSm,
                            Zol::Ptr<Bridging::SwitchIntfConfig const> const& config);
  void onSwitchportModeAndNativeVlan() override { handleSwitchportModeAndNativeVlan(); }
  void handleSwitchportModeAndNativeVlan();

 private:
  AclDirectionTypeConfigSm* dirSm_;
  Bridging::SwitchportMode mode_;
};

// Where interfaces take their ACLs of one type and direction from.
class AclDirectionTypeConfigSm {
 public:
  AclDirectionTypeConfigSm(AclTypeConfigSm* typeSm, Acl::AclDirection direction,
                           Zol::U16 aclNumberStart);
  ~AclDirectionTypeConfigSm();

  AclTypeConfigSm* typeSm() const { return typeSm_; }
  AclSm* root() const;
  Acl::AclType type() const;
  Acl::AclDirection direction() const { return direction_; }
  Zol::U16 aclNumberStart() const { return aclNumberStart_; }
  size_t freeAclSize() const { return freeAcl_.size(); }

  // Fills the free number stack; the first pass over the interfaces.
  void handleInitialized();
  // Takes a number for the instance unless it has one; aclCreateErrorTooManyAcls when none is
  // left.
  AclCreateError allocateAclNumber(AclData& data);
  void freeAclNumber(AclData& data);

  // The ACL named for intf changed, in some configuration source.
  void handleIntf(Nepo::IntfId const& intf);
  // Every interface of one configuration source, which came or went.
  void handleIntfSource(Acl::AclIntf const* source);
  // The ACL of that name came or went.
  void handleAclName(Zol::Name const& name);
  void handleSwitchIntfConfig(Nepo::IntfId const& intf);
  // The instance intf is on, if any.
  std::optional<AclKey> intfKey(Nepo::IntfId const& intf) const;
  absl::btree_map<Nepo::IntfId, AclKey> const& intfKeys() const { return intfKey_; }
  // The instance that filters a hardware port: its port-channel's while it is a member of one
  // with an ACL, else its own. One owner per port.
  std::optional<AclKey> portKey(Nepo::IntfId const& port) const;
  // The instance a port is bound to in hardware, as the instances recorded their bindings.
  std::optional<AclKey> boundKey(Nepo::IntfId const& port) const;
  void boundKeyIs(Nepo::IntfId const& port, AclKey const& key, bool bound);
  // The owner of intf's ports may have changed: the instances involved apply their ports again.
  // True when some instance was marked.
  bool portOwnerChanged(Nepo::IntfId const& intf);
  // The configured ACL name of intf, empty for none; the command line first, then the other
  // sources by name.
  Zol::Name configuredAclName(Nepo::IntfId const& intf) const;
  void watchSources();

 private:
  class SourceReactor;
  class BrReactor;
  std::optional<AclKey> wantedKey(Nepo::IntfId const& intf, Zol::Name const& name) const;
  void intfKeyIs(Nepo::IntfId const& intf, std::optional<AclKey> const& key);

  AclTypeConfigSm* typeSm_;
  Acl::AclDirection direction_;
  Zol::U16 aclNumberStart_;
  std::vector<Zol::U16> freeAcl_;
  absl::btree_map<Nepo::IntfId, AclKey> intfKey_;
  absl::flat_hash_map<Nepo::IntfId, AclKey> boundKey_;
  absl::btree_map<Zol::Name, absl::btree_set<Nepo::IntfId>> intfsByName_;
  std::vector<std::unique_ptr<SourceReactor>> sources_;
  absl::btree_map<Nepo::IntfId, std::unique_ptr<AclSwitchportModeConfigSm>> switchport_;
  std::unique_ptr<BrReactor> brReactor_;
};

// The ACLs of one type, and their two directions.
class AclTypeConfigSm {
 public:
  AclTypeConfigSm(AclSm* root, Zol::Ptr<Acl::AclTypeConfig const> const& config);
  ~AclTypeConfigSm();

  AclSm* root() const { return root_; }
  Acl::AclType type() const { return config_->type(); }
  Zol::Ptr<Acl::AclTypeConfig const> const& config() const { return config_; }
  AclConfigSm* configSm(Zol::Name const& name) const;
  absl::btree_map<Zol::Name, std::unique_ptr<AclConfigSm>> const& configSms() const { return acl_; }
  AclDirectionTypeConfigSm* directionSm(Acl::AclDirection d) const {
    return direction_[static_cast<size_t>(d)].get();
  }

  void handleInitialized();
  void handleAcl(Zol::Name const& name);
  // One configuration source's interfaces of this type, in one direction.
  void handleIntf(Acl::AclDirection direction);
  // Watches each configuration source's interfaces of this type.
  void watchSources();
  // ACLs deleted from the configuration whose last instance has left hardware.
  void eraseRemovedAcls();

 private:
  class Reactor;
  class IntfTypeReactor;
  AclSm* root_;
  Zol::Ptr<Acl::AclTypeConfig const> config_;
  absl::btree_map<Zol::Name, std::unique_ptr<AclConfigSm>> acl_;
  std::array<std::unique_ptr<AclDirectionTypeConfigSm>, 2> direction_;
  std::unique_ptr<Reactor> reactor_;
  std::vector<std::unique_ptr<IntfTypeReactor>> intfTypeReactors_;
};

// One interface's blocking while its ACL instances are replaced.
class AclIntfSm {
 public:
  AclIntfSm(AclSm* root, Nepo::IntfId const& intf);
  ~AclIntfSm();

  Nepo::IntfId const& intf() const { return intf_->intf(); }
  Zol::Ptr<AclIntf> const& aclIntf() const { return intf_; }
  Zol::Ptr<AclIntfStatus> const& status() const { return status_; }
  AclIntfState state() const { return status_->aclIntfState(); }
  void wantToBlockIs(AclKey const& key, bool want);
  // Blocks when some instance wants it and it is not blocked yet.
  void handleWantToBlock();
  // Unblocks once no instance wants it.
  void doUnblock();
  bool needsUnblock() const;
  // Hardware answered.
  void handleBlocked();

 private:
  class Reactor;
  AclSm* root_;
  Zol::Ptr<AclIntf> intf_;
  Zol::Ptr<AclIntfStatus> status_;
  std::unique_ptr<Reactor> reactor_;
};

// Reads rule counters into the status's hits, a burst of rules at a time.
class AclCountersPoller {
 public:
  static constexpr Zol::Seconds period = 8;
  static constexpr size_t burstSize = 100;

  explicit AclCountersPoller(AclSm* root);
  void handleInitialized();
  // One burst, from the bookmark.
  void handleTime();
  // Every rule of one ACL, now.
  void pollAcl(AclConfigSm& acl);
  // The hits of an instance whose rules are about to leave hardware, so that none are lost.
  void pollBeforeRemoval(AclConfigSm& acl, AclDataSm& inst);
  AclCountersPollingBookmark const& bookmark() const { return bookmark_; }

 private:
  // Polls the instance's rules from seq on; stops after budget rules. Returns the rules polled
  // and sets *next to the sequence to resume at (none when the instance is done).
  size_t pollInstance(AclConfigSm& acl, AclDataSm& inst, Zol::U32 seq, size_t budget,
                      std::optional<Zol::U32>* next);

  AclSm* root_;
  AclCountersPollingBookmark bookmark_;
  Zol::Clock clock_;
};

template <class F>
void AclSm::forEachInstance(F&& f) const {
  for (auto const& [type, typeSm] : types_) {
    for (auto const& [name, acl] : typeSm->configSms()) {
      for (auto const& [key, inst] : acl->dataSms()) f(*acl, *inst);
    }
  }
}

}  // namespace Vemo
