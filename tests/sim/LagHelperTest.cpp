#include "Sim/LagHelper.h"
#include "SimTestSupport.h"

namespace {

using namespace simtest;

struct Bench {
  Zol::ActivityLoop loop{Zol::ActivityLoop::TimeMode::simulated};
  sim::Chip chip{sim::Chip::Config{1, 8}};
  Zol::Ptr<Vemo::VemoCommonSmData> cd = Vemo::vemoCommonSmDataFactory("cd");
  Zol::Ptr<sim::LagHelper> helper = Zol::make<sim::LagHelper>("lagHelper", chip, cd);

  Vemo::VemoLagPortList const* hwMembers(std::string_view lag) const {
    auto const* entry = chip.lags().entry(intf(lag));
    return entry ? &entry->members : nullptr;
  }
  std::vector<std::string> verify() { return verifyTexts(*cd, *helper); }
};

TEST(SimLagHelper, ProgramsTheChipAndRetriesWhatItRefuses) {
  Bench b;
  auto& h = *b.helper;
  h.lacpEnabledIs(false);
  EXPECT_EQ(h.calls("beforeHwInit"), 1u);
  h.hwInit();
  EXPECT_FALSE(b.chip.lags().lacpEnabled());
  EXPECT_TRUE(h.isIntfManaged(intf("Ethernet8")));
  EXPECT_FALSE(h.isIntfManaged(intf("Ethernet9")));

  // Busy twice: the create and the update that follows it are both refused; one retry 0.2 s
  // later programs the whole list.
  b.chip.faultIs(Table::lag, Status::busy, 2);
  h.maybeCreateLag(intf("Port-Channel1"));
  h.updateLag(intf("Port-Channel1"), membersOf({"Ethernet1", "Ethernet2"}));
  EXPECT_EQ(h.retryPending(), 1u);
  b.loop.advanceBy(0.15);
  EXPECT_EQ(b.hwMembers("Port-Channel1"), nullptr);
  b.loop.advanceBy(0.1);
  ASSERT_NE(b.hwMembers("Port-Channel1"), nullptr);
  EXPECT_EQ(*b.hwMembers("Port-Channel1"), membersOf({"Ethernet1", "Ethernet2"}));
  EXPECT_EQ(h.retryPending(), 0u);
  EXPECT_EQ(h.calls("retry"), 1u);
  EXPECT_EQ(h.calls("refused"), 2u);

  // Full: retried every 0.2 s while the table has no room, then programmed with the freed id.
  b.chip.capacityIs(Table::lag, 1);
  h.maybeCreateLag(intf("Port-Channel2"));
  h.updateLag(intf("Port-Channel2"), membersOf({"Ethernet3"}));
  b.loop.advanceBy(0.9);
  EXPECT_EQ(h.retryPending(), 1u);
  EXPECT_EQ(h.calls("retry"), 5u);
  h.maybeDestroyLag(intf("Port-Channel1"));
  b.loop.advanceBy(0.2);
  EXPECT_EQ(h.retryPending(), 0u);
  EXPECT_EQ(b.chip.lags().entry(intf("Port-Channel2"))->hwId, 1u);
  EXPECT_EQ(*b.hwMembers("Port-Channel2"), membersOf({"Ethernet3"}));
  EXPECT_EQ(b.loop.armedTimers(), 0u);

  // Failed waits for the next request of that port-channel, which programs everything asked.
  h.updateLagMember(intf("Port-Channel2"), intf("Ethernet1/1"), true,
                    membersOf({"Ethernet3", "Ethernet1/1"}));
  b.loop.advanceBy(1);
  EXPECT_EQ(h.retryPending(), 0u);
  EXPECT_EQ(h.calls("retry"), 6u);
  h.maybeShareLagMembership(intf("Port-Channel9"), intf("Port-Channel2"), true);
  EXPECT_EQ(b.chip.lags().entry(intf("Port-Channel2"))->sharedPeerLink, IntfId());
  h.updateLagMember(intf("Port-Channel2"), intf("Ethernet1/1"), false, membersOf({"Ethernet3"}));
  h.updateLagMember(intf("Port-Channel2"), intf("Ethernet4"), true,
                    membersOf({"Ethernet3", "Ethernet4"}));
  EXPECT_EQ(*b.hwMembers("Port-Channel2"), membersOf({"Ethernet3", "Ethernet4"}));
  EXPECT_EQ(b.chip.lags().entry(intf("Port-Channel2"))->sharedPeerLink, intf("Port-Channel9"));

  // A refused destroy and unshare are retried too, and the port-channel goes.
  b.chip.faultIs(Table::lag, Status::busy, 2);
  h.maybeShareLagMembership(intf("Port-Channel9"), intf("Port-Channel2"), false);
  h.maybeDestroyLag(intf("Port-Channel2"));
  EXPECT_NE(b.chip.lags().entry(intf("Port-Channel2")), nullptr);
  b.loop.advanceBy(0.2);
  EXPECT_THAT(b.chip.lags().entries(), IsEmpty());
  EXPECT_EQ(h.retryPending(), 0u);
  EXPECT_EQ(h.calls("beforeHwInit"), 1u);
}

TEST(SimLagHelper, VerifyReportsEachDifferenceAndNothingWhenTheyAgree) {
  Bench b;
  auto& h = *b.helper;
  h.hwInit();
  auto program = [&](std::string_view lag, Vemo::VemoLagPortList const& members) {
    h.maybeCreateLag(intf(lag));
    h.updateLag(intf(lag), members);
    b.cd->lagToPortIs(intf(lag), members);
  };
  program("Port-Channel1", membersOf({"Ethernet1", "Ethernet2"}));
  program("Port-Channel2", membersOf({"Ethernet3"}));
  program("Port-Channel3", {});
  EXPECT_THAT(b.verify(), IsEmpty());

  ASSERT_EQ(b.chip.lags().memberIs(intf("Port-Channel1"), intf("Ethernet2"), false, {}),
            Status::ok);
  ASSERT_EQ(b.chip.lags().memberIs(intf("Port-Channel2"), intf("Ethernet3"), true, {true, false}),
            Status::ok);
  ASSERT_EQ(b.chip.lags().create(intf("Port-Channel5")), Status::ok);
  b.cd->lagToPortIs(intf("Port-Channel6"), membersOf({"Ethernet6"}));
  b.chip.faultIs(Table::lag, Status::busy, 2);
  program("Port-Channel7", membersOf({"Ethernet7"}));
  EXPECT_THAT(b.verify(),
              ElementsAre("Port-Channel1: hardware members Ethernet1, expected Ethernet1 Ethernet2",
                          "Port-Channel2: Ethernet3 hardware collecting yes distributing no, "
                          "expected collecting yes distributing yes",
                          "Port-Channel5: in hardware, not in lagToPort",
                          "Port-Channel6: in lagToPort, not in hardware",
                          "Port-Channel7: in lagToPort, not in hardware (pending retry, the chip "
                          "answered busy)"));
  b.cd->verifyData()->mismatchDelAll();
  h.handleRetryVerify();
  EXPECT_EQ(b.cd->verifyData()->mismatchSize(), 5u);

  // Once the retry has run and the stray entries are gone, they agree again.
  b.loop.advanceBy(0.2);
  b.chip.lags().membersIs(intf("Port-Channel1"), membersOf({"Ethernet1", "Ethernet2"}));
  b.chip.lags().membersIs(intf("Port-Channel2"), membersOf({"Ethernet3"}));
  b.chip.lags().destroy(intf("Port-Channel5"));
  b.cd->lagToPortDel(intf("Port-Channel6"));
  EXPECT_THAT(b.verify(), IsEmpty());

  // A refusal the maps cannot show is reported on its own.
  b.chip.faultIs(Table::lag, Status::busy, 1);
  h.maybeShareLagMembership(intf("Port-Channel3"), intf("Port-Channel1"), true);
  EXPECT_THAT(
      b.verify(),
      ElementsAre("Port-Channel1: hardware programming pending retry, the chip answered busy"));
}

TEST(SimLagHelper, VerifyComparesPeerLinkSharingWithTheSm) {
  Bench b;
  auto const dir = Zol::make<Interface::EthLagIntfStatusDir>("lagStatus");
  for (auto [lag, member] : {std::pair{"Port-Channel1", "Ethernet1"},
                             {"Port-Channel2", "Ethernet2"},
                             {"Port-Channel8", "Ethernet8"}}) {
    dir->intfStatusIs(intf(lag))->memberIs(intf(member), true);
  }
  auto const sm = Vemo::lagSmFactory(
      b.cd, dir, Zol::make<Lag::Input::IntfDeviceNameDir>("deviceNames"), b.helper);
  b.helper->lagSmIs(sm.ptr());
  sm->initializedIs(true);
  auto const mlag = Zol::make<Mlag::Status>("mlag");
  mlag->stateIs(Mlag::State::statePrimary);
  mlag->peerLinkIntfIs(intf("Port-Channel8"));
  mlag->fastMacRedirectionIs(true);
  mlag->intfStatusIs(intf("Port-Channel1"),
                     Mlag::IntfStatus(Mlag::IntfState::intfStateUp, Mlag::IntfState::intfStateUp));
  sm->mlagStatusIs(mlag);
  b.loop.runUntilIdle();
  ASSERT_EQ(b.chip.lags().entry(intf("Port-Channel1"))->sharedPeerLink, intf("Port-Channel8"));
  EXPECT_THAT(b.verify(), IsEmpty());

  // The chip keeps a share the SM does not hold, and loses one it does.
  ASSERT_EQ(b.chip.lags().shareIs(intf("Port-Channel2"), intf("Port-Channel8"), true), Status::ok);
  ASSERT_EQ(b.chip.lags().shareIs(intf("Port-Channel1"), intf("Port-Channel8"), false), Status::ok);
  EXPECT_THAT(b.verify(), ElementsAre("Port-Channel1: peer link shared in hardware none, in "
                                      "sharePeerLinkWithLag Port-Channel8",
                                      "Port-Channel2: peer link shared in hardware Port-Channel8, "
                                      "in sharePeerLinkWithLag none"));
  b.helper->lagSmIs(nullptr);
}

}  // namespace
