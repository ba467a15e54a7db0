#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "LagTestUtil.h"

namespace {

using l2test::eth;
using l2test::po;
using l2test::ports;
using l2test::text;
using Log = std::vector<std::string>;
using Mlag::IntfState;
using Nepo::IntfId;
using testing::_;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::NiceMock;
using testing::Not;
using testing::Return;
using Vemo::HwOperationalMode;
using Vemo::VemoLagPortList;
using Zol::ActivityLoop;

class MockLagHelper : public VemoHelper::VemoHelperLagSm {
 public:
  MockLagHelper() : VemoHelperLagSm("mockLagHelper") {}
  MOCK_METHOD(void, hwInit, (), (override));
  MOCK_METHOD(void, lacpEnabledIs, (bool), (override));
  MOCK_METHOD(void, maybeCreateLag, (IntfId const&), (override));
  MOCK_METHOD(void, maybeDestroyLag, (IntfId const&), (override));
  MOCK_METHOD(void, updateLag, (IntfId const&, VemoLagPortList const&), (override));
  MOCK_METHOD(bool, intfManagedCheckOverride, (), (const, override));
  MOCK_METHOD(bool, isIntfManaged, (IntfId const&), (const, override));
  MOCK_METHOD(void, maybeShareLagMembership, (IntfId const&, IntfId const&, bool), (override));
  MOCK_METHOD(void, handleVerify, (), (override));
};

class MockMounter : public Vemo::LagMounter {
 public:
  MockMounter() : LagMounter("mounter") {}
  MOCK_METHOD(void, doMount, (Zol::Name const&), (override));
};

// Logs the membership map writes as they happen, so that they fall between the helper calls.
class MapWrites : public Vemo::VemoCommonSmData::NotifieeConst {
 public:
  MapWrites(Zol::Ptr<Vemo::VemoCommonSmData> const& cd, Log& log) : log_(log) { notifierIs(cd); }
  void onLagToPortzolImmediate(IntfId const& lag) override {
    bool const has = notifier()->lagToPortHas(lag);
    log_.push_back("lagToPort " + lag.stringValue() + " " +
                   (has ? text(notifier()->lagToPort(lag)) : "del"));
  }
  void onPortToLagzolImmediate(IntfId const& port) override {
    bool const has = notifier()->portToLagHas(port);
    log_.push_back("portToLag " + port.stringValue() + " " +
                   (has ? notifier()->portToLag(port).stringValue() : "del"));
  }

 private:
  Log& log_;
};

// Trace levels are global: switched off again whatever the test asserts.
struct TraceOn {
  explicit TraceOn(std::string_view setting) { Zol::Trace::settingIs(setting); }
  ~TraceOn() { Zol::Trace::settingIs(""); }
  Zol::Trace::Capture capture;
};

Mlag::IntfStatus const upUp(IntfState::intfStateUp, IntfState::intfStateUp);

// An established peering whose listed port-channels are up on both sides.
Zol::Ptr<Mlag::Status> mlagStatus(IntfId const& peerLink, std::initializer_list<IntfId> up) {
  auto const s = Zol::make<Mlag::Status>("mlag");
  s->stateIs(Mlag::State::statePrimary);
  s->peerLinkIntfIs(peerLink);
  s->fastMacRedirectionIs(true);
  for (auto const& lag : up) s->intfStatusIs(lag, upUp);
  return s;
}

class LagSmOrderTest : public testing::Test {
 protected:
  LagSmOrderTest() {
    for (uint32_t n = 1; n <= 20; ++n) cd->intfIs(eth(n), true);
    auto const note = [this](std::string const& what) {
      return [this, what](IntfId const& lag) { log.push_back(what + " " + lag.stringValue()); };
    };
    ON_CALL(*helper, hwInit()).WillByDefault([this] { log.push_back("hwInit"); });
    ON_CALL(*helper, lacpEnabledIs).WillByDefault([this](bool on) {
      log.push_back(on ? "lacp on" : "lacp off");
    });
    ON_CALL(*helper, maybeCreateLag).WillByDefault(note("create"));
    ON_CALL(*helper, maybeDestroyLag).WillByDefault(note("destroy"));
    // "over" is what lagToPort holds while the chip is programmed.
    ON_CALL(*helper, updateLag).WillByDefault([this](IntfId const& l, VemoLagPortList const& m) {
      log.push_back("update " + l.stringValue() + " " + text(m) + " over " +
                    text(cd->lagToPort(l)));
    });
    ON_CALL(*helper, maybeShareLagMembership)
        .WillByDefault([this](IntfId const& peerLink, IntfId const& l, bool share) {
          log.push_back((share ? "share " : "unshare ") + peerLink.stringValue() + " " +
                        l.stringValue());
        });
  }
  // The SM's own clean-up at destruction is not what these tests check.
  ~LagSmOrderTest() override { testing::Mock::VerifyAndClearExpectations(helper.ptr()); }

  Zol::Ptr<Interface::EthLagIntfStatus> status(uint32_t lag, std::initializer_list<IntfId> members,
                                               std::string const& name = "") {
    auto const s = dir->intfStatusIs(po(lag));
    for (auto const& m : members) s->memberIs(m, true);
    s->deviceNameIs(name);
    return s;
  }
  void start() {
    sm->initializedIs(true);
    run();
  }
  Log run() {
    loop.runUntilIdle();
    return std::exchange(log, {});
  }

  Log log;  // first, so that it outlives the SM's clean-up at destruction
  ActivityLoop loop{ActivityLoop::TimeMode::simulated};
  Zol::Ptr<Vemo::VemoCommonSmData> cd = Vemo::vemoCommonSmDataFactory("vemo");
  Zol::Ptr<Interface::EthLagIntfStatusDir> dir =
      Zol::make<Interface::EthLagIntfStatusDir>("lagStatus");
  Zol::Ptr<Lag::Input::IntfDeviceNameDir> names =
      Zol::make<Lag::Input::IntfDeviceNameDir>("deviceNames");
  Zol::Ptr<NiceMock<MockLagHelper>> helper = Zol::make<NiceMock<MockLagHelper>>();
  Zol::Ptr<Vemo::LagSm> sm = Vemo::lagSmFactory(cd, dir, names, helper);
};
using LagSmOrderDeathTest = LagSmOrderTest;

TEST_F(LagSmOrderTest, StartSetsUpMountsThenProgramsAndNothingHappensBefore) {
  auto const mounter = Zol::make<NiceMock<MockMounter>>();
  auto const mlag = mlagStatus(po(2), {po(1)});
  sm->lagMounterIs(mounter);
  cd->operationalModeIs(HwOperationalMode::modeTapAgg);
  auto const s1 = status(1, {eth(1)}, "po1");
  status(2, {eth(2)});
  EXPECT_THAT(run(), IsEmpty());
  s1->memberIs(eth(3), true);
  EXPECT_THAT(run(), IsEmpty());
  EXPECT_EQ(cd->portToLagSize() + cd->lagToPortSize() + names->deviceNameSize(), 0u);
  EXPECT_FALSE(names->containsLocalDevices());

  EXPECT_CALL(*mounter, doMount("Mlag::Status")).WillOnce([&](Zol::Name const&) {
    log.push_back("mount");
    mounter->mlagStatusIs(mlag);
  });
  // Whoever is told that local devices are in finds their names there already.
  struct LocalDevices : Lag::Input::IntfDeviceNameDir::NotifieeConst {
    bool named = false;
    void onContainsLocalDeviceszolImmediate() override { named = notifier()->deviceNameHas(po(1)); }
  } local;
  local.notifierIs(names);
  sm->initializedIs(true);
  EXPECT_TRUE(names->containsLocalDevices() && local.named);
  // The mounted status arrives by notification, after the first passes.
  EXPECT_EQ(run(),
            (Log{"hwInit", "lacp off", "mount", "create Port-Channel1",
                 "update Port-Channel1 Ethernet1,Ethernet3 over -", "create Port-Channel2",
                 "update Port-Channel2 Ethernet2 over -", "share Port-Channel2 Port-Channel1"}));
  EXPECT_EQ(cd->portToLag(eth(3)), po(1));
  EXPECT_EQ(cd->portToLag(eth(2)), po(2));
  EXPECT_EQ(names->deviceName(po(1)), "po1");

  s1->deviceNameIs("");
  run();
  EXPECT_FALSE(names->deviceNameHas(po(1))) << "a cleared name is withdrawn";
}

TEST_F(LagSmOrderTest, VerifyRequestedBeforeStartIsAnsweredAfterItWithTheCheck) {
  status(1, {eth(1)});
  cd->portToLagIs(eth(9), po(5));  // a stray entry the check must find
  Zol::Ptr<Vemo::VerifyData> const verify = cd->verifyData();
  EXPECT_CALL(*helper, handleVerify()).Times(0);
  verify->requestVerify("early");
  run();
  EXPECT_FALSE(verify->completedHas("early"));
  testing::Mock::VerifyAndClearExpectations(helper.ptr());

  EXPECT_CALL(*helper, handleVerify());
  start();
  EXPECT_EQ(verify->completed("early"), verify->verify("early"));
  EXPECT_EQ(verify->mismatchesOf("early"), 1u);
}

TEST_F(LagSmOrderTest, OperationalModeSwitchesLacp) {
  cd->operationalModeIs(HwOperationalMode::modeTapAgg);
  start();
  using Step = std::pair<HwOperationalMode, char const*>;
  for (auto [mode, lacp] : {Step{HwOperationalMode::modeMacPhyConc, "lacp on"},
                            {HwOperationalMode::modeTapAgg, "lacp off"},
                            {HwOperationalMode::modeNotConfigured, "lacp on"},
                            {HwOperationalMode::modeTapAgg, "lacp off"},
                            {HwOperationalMode::modeNormal, "lacp on"}}) {
    cd->operationalModeIs(mode);
    EXPECT_EQ(run(), Log{lacp});
  }
}

TEST_F(LagSmOrderTest, UpdateScrubsOtherLagsThenProgramsThenWritesTheMaps) {
  cd->intfDel(eth(5));
  status(1, {eth(1), eth(2)}, "po1");
  auto const s2 = status(2, {eth(3), eth(5)}, "po2");
  start();
  MapWrites mapWrites(cd, log);
  TraceOn trace("LagSm/5");
  // Ethernet1 joins Port-Channel2 while Port-Channel1 still lists it; a new name comes with it.
  s2->memberIs(eth(1), true);
  s2->deviceNameIs("po2b");
  EXPECT_EQ(
      run(),
      (Log{"create Port-Channel1", "update Port-Channel1 Ethernet2 over Ethernet1,Ethernet2",
           "lagToPort Port-Channel1 Ethernet2", "portToLag Ethernet1 del", "create Port-Channel2",
           "update Port-Channel2 Ethernet1,Ethernet3 over Ethernet3",
           "lagToPort Port-Channel2 Ethernet1,Ethernet3", "portToLag Ethernet1 Port-Channel2"}));
  EXPECT_EQ(names->deviceName(po(2)), "po2b");
  EXPECT_TRUE(trace.capture.contains(" duplicate lag found "));

  // One full pass drops Ethernet3 and adds Ethernet5: deletions before additions.
  cd->intfDel(eth(3));
  cd->intfIs(eth(5), true);
  Log const pass = run();
  ASSERT_GE(pass.size(), 5u);
  EXPECT_EQ(Log(pass.begin(), pass.begin() + 5),
            (Log{"create Port-Channel2",
                 "update Port-Channel2 Ethernet1,Ethernet5 over Ethernet1,Ethernet3",
                 "lagToPort Port-Channel2 Ethernet1,Ethernet5", "portToLag Ethernet3 del",
                 "portToLag Ethernet5 Port-Channel2"}));
}

// That the port returns when the winner lets go is the churn test's.
TEST_F(LagSmOrderTest, PortListedTwiceEndsInTheLastUpdatedLagAndIsForgottenWithTheLoser) {
  status(1, {eth(1)});
  auto const s2 = status(2, {eth(2)});
  start();
  s2->memberIs(eth(1), true);
  run();
  EXPECT_EQ(cd->lagToPort(po(1)), ports({}));
  EXPECT_EQ(cd->lagToPort(po(2)), ports({eth(1), eth(2)}));
  EXPECT_EQ(cd->portToLag(eth(1)), po(2));
  EXPECT_EQ(sm->contestedPortSize(), 1u);
  dir->intfStatusDel(po(1));
  run();
  EXPECT_EQ(sm->contestedPortSize(), 0u);
}

TEST_F(LagSmOrderTest, FullPassKeepsOnlyManagedLocalMembers) {
  IntfId const peer = IntfId::fromString("PeerEthernet1");
  cd->intfDel(eth(9));
  status(1, {eth(1), eth(9), peer});
  start();
  EXPECT_EQ(cd->lagToPort(po(1)), ports({eth(1)}));

  // With the override the helper alone says what is managed, whatever the common data holds;
  // peer interfaces never count.
  ON_CALL(*helper, intfManagedCheckOverride()).WillByDefault(Return(true));
  ON_CALL(*helper, isIntfManaged(_)).WillByDefault([](IntfId const& i) { return i != eth(1); });
  auto const s2 = status(2, {eth(1), eth(9), peer});
  status(3, {eth(1), peer});
  Log const passes = run();
  s2->memberIs(IntfId::fromString("PeerEthernet2"), true);
  run();
  EXPECT_EQ(cd->lagToPort(po(2)), ports({eth(9)}));
  EXPECT_EQ(cd->portToLag(eth(1)), po(1));
  // Nothing left to program: cleaned up, never created.
  EXPECT_FALSE(cd->lagToPortHas(po(3)));
  EXPECT_THAT(passes, Contains("destroy Port-Channel3"));
  EXPECT_THAT(passes, Not(Contains(HasSubstr("Port-Channel3 Ethernet"))));
}

TEST_F(LagSmOrderTest, EmptyLagStaysWhileItsStatusExists) {
  auto const s1 = status(1, {eth(1)}, "po1");
  auto const s2 = status(2, {eth(2)}, "po2");
  start();
  s1->memberDel(eth(1));
  EXPECT_EQ(run(), (Log{"create Port-Channel1", "update Port-Channel1 - over Ethernet1"}));
  EXPECT_TRUE(cd->lagToPortHas(po(1)));
  EXPECT_FALSE(cd->portToLagHas(eth(1)));
  dir->intfStatusDel(po(1));
  EXPECT_EQ(run(), Log{"destroy Port-Channel1"});
  EXPECT_FALSE(cd->lagToPortHas(po(1)) || names->deviceNameHas(po(1)));

  // The last member and the status go together: clean-up only, no empty update.
  s2->memberDel(eth(2));
  dir->intfStatusDel(po(2));
  Log const gone = run();
  EXPECT_THAT(gone, Contains("destroy Port-Channel2"));
  EXPECT_THAT(gone, Not(Contains(HasSubstr("update"))));
  EXPECT_EQ(cd->portToLagSize() + cd->lagToPortSize() + names->deviceNameSize(), 0u);
}

TEST_F(LagSmOrderTest, RemovalWithCleanupDisabledLeavesAllUntilTheLagIsBackEmpty) {
  status(1, {eth(1)}, "po1");
  start();
  TraceOn trace("LagSm/5");
  sm->disableCleanupOnRestartIs(true);
  dir->intfStatusDel(po(1));
  EXPECT_THAT(run(), IsEmpty());
  EXPECT_TRUE(trace.capture.contains("Disabling Vemo cleanup in case of restart"));
  EXPECT_EQ(cd->lagToPort(po(1)), ports({eth(1)}));
  EXPECT_EQ(cd->portToLag(eth(1)), po(1));
  EXPECT_EQ(names->deviceName(po(1)), "po1");

  // Ethernet1 moves on while Port-Channel1's entries stay behind; then Port-Channel1 is back empty.
  status(2, {eth(1)});
  run();
  status(1, {});
  run();
  EXPECT_FALSE(cd->lagToPortHas(po(1)));
  EXPECT_EQ(cd->lagToPort(po(2)), ports({eth(1)}));
  EXPECT_EQ(cd->portToLag(eth(1)), po(2));
}

TEST_F(LagSmOrderDeathTest, CleanupOfAnInconsistentLagAsserts) {
  status(1, {eth(1)});
  start();
  cd->portToLagIs(eth(1), po(9));
  dir->intfStatusDel(po(1));
  EXPECT_DEATH(loop.runUntilIdle(), "vcsd\\(\\)->portToLag\\( i.key\\(\\) \\) == intf\\(\\)");
  cd->portToLagIs(eth(1), po(1));  // so that this process's own clean-up passes
  run();
}

TEST_F(LagSmOrderTest, LagSharesThePeerLinkWhileEveryConditionHolds) {
  // "share Port-Channel<link> Port-Channel<lag>" for each lag in turn.
  auto sharing = [](std::string const& verb, uint32_t link, std::initializer_list<uint32_t> lags) {
    Log out;
    for (uint32_t n : lags)
      out.push_back(verb + " " + po(link).stringValue() + " " + po(n).stringValue());
    return out;
  };
  auto then = [](Log a, Log const& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  };
  for (uint32_t n : {1, 2, 10, 20}) status(n, {eth(n)});
  start();
  auto const mlag = mlagStatus(po(10), {po(1)});
  mlag->intfStatusIs(po(2), Mlag::IntfStatus(IntfState::intfStateUp, IntfState::intfStateDown));
  sm->mlagStatusIs(mlag);
  EXPECT_EQ(run(), Log{"share Port-Channel10 Port-Channel1"});
  // A new MLAG interface is shared before it is created.
  mlag->intfStatusIs(po(3), upUp);
  status(3, {eth(3)});
  EXPECT_EQ(run(), (Log{"share Port-Channel10 Port-Channel3", "create Port-Channel3",
                        "update Port-Channel3 Ethernet3 over -"}));
  mlag->intfStatusIs(po(2), upUp);
  EXPECT_EQ(run(), sharing("share", 10, {2}));

  mlag->fastMacRedirectionIs(false);
  EXPECT_EQ(run(), sharing("unshare", 10, {1, 2, 3}));
  mlag->fastMacRedirectionIs(true);
  EXPECT_EQ(run(), sharing("share", 10, {1, 2, 3}));
  mlag->intfStatusIs(po(1), Mlag::IntfStatus(IntfState::intfStateDown, IntfState::intfStateUp));
  mlag->intfStatusDel(po(2));
  EXPECT_EQ(run(), sharing("unshare", 10, {1, 2}));
  mlag->stateIs(Mlag::State::stateInactive);
  EXPECT_EQ(run(), sharing("unshare", 10, {3}));
  mlag->stateIs(Mlag::State::stateSecondary);
  mlag->intfStatusIs(po(1), upUp);
  mlag->intfStatusIs(po(2), upUp);
  EXPECT_EQ(run(), sharing("share", 10, {1, 2, 3}));

  // A new peer link: every port-channel stops sharing the old one before any shares the new.
  mlag->peerLinkIntfIs(po(20));
  EXPECT_EQ(run(), then(sharing("unshare", 10, {1, 2, 3}), sharing("share", 20, {1, 2, 3})));
  mlag->peerLinkIntfIs(eth(20));
  EXPECT_EQ(run(), sharing("unshare", 20, {1, 2, 3}));

  // A peer link is one only while its status exists.
  mlag->peerLinkIntfIs(po(30));
  EXPECT_THAT(run(), IsEmpty());
  status(30, {});
  EXPECT_EQ(run(), then({"destroy Port-Channel30"}, sharing("share", 30, {1, 2, 3})));
  dir->intfStatusDel(po(30));
  EXPECT_EQ(run(), then(sharing("unshare", 30, {1, 2, 3}), {"destroy Port-Channel30"}));
  status(30, {eth(19)});
  EXPECT_THAT(run(), Contains("share Port-Channel30 Port-Channel1"));
}

// Paused, stopped or dying, the SM acts on nothing; back on, it catches up with what changed.
TEST_F(LagSmOrderTest, SwitchedOffSmActsOnNothingAndResyncsWhenBackOn) {
  auto const s1 = status(1, {eth(1)}, "po1");
  start();
  EXPECT_CALL(*helper, hwInit()).Times(0);
  using Switch = std::function<void(bool)>;
  std::vector<std::pair<std::string, Switch>> const switches{
      {"delivery", [&](bool on) { sm->hasNotificationActiveIs(on); }},
      {"initialized", [&](bool on) { sm->initializedIs(on); }},
      {"zombie", [&](bool on) { sm->zolDoZombieReactors(!on); }}};
  uint32_t n = 1;
  for (auto const& [name, turn] : switches) {
    SCOPED_TRACE(name);
    ++n;
    status(10 + n, {eth(10 + n)}, "gone");
    run();
    turn(false);
    s1->memberIs(eth(n), true);
    s1->deviceNameIs(n % 2 ? "po1" : "");
    dir->intfStatusDel(po(10 + n));
    // The removed port-channel's port goes to the one that lists it now.
    status(20, {eth(20)}, "po20")->memberIs(eth(10 + n), true);
    cd->operationalModeIs(n % 2 ? HwOperationalMode::modeNormal : HwOperationalMode::modeTapAgg);
    EXPECT_THAT(run(), IsEmpty());
    EXPECT_FALSE(cd->portToLagHas(eth(n)));
    EXPECT_TRUE(cd->lagToPortHas(po(10 + n)));

    turn(true);
    Log const back = run();
    EXPECT_THAT(back, Contains(n % 2 ? "lacp on" : "lacp off"));
    EXPECT_THAT(back, Contains("destroy Port-Channel" + std::to_string(10 + n)));
    EXPECT_EQ(cd->portToLag(eth(n)), po(1));
    EXPECT_EQ(cd->portToLag(eth(10 + n)), po(20));
    EXPECT_FALSE(cd->lagToPortHas(po(10 + n)) || names->deviceNameHas(po(10 + n)));
    EXPECT_EQ(names->deviceNameHas(po(1)), n % 2 == 1);
    EXPECT_EQ(names->deviceName(po(20)), "po20");
  }
}

}  // namespace
