#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "LagTestUtil.h"
#include "Sim/LagHelper.h"

namespace {

using l2test::eth;
using l2test::po;
using l2test::text;
using Nepo::IntfId;
using Zol::ActivityLoop;

constexpr uint32_t kChipPorts = 24;
constexpr uint32_t kLags = 8;

// Random membership churn on the port-channel statuses, delivered in random batches, against the
// simulated chip. Ports past the chip's and peer ports are listed too, and must never be
// programmed.
class Churn {
 public:
  Churn(uint32_t seed, bool listTwice) : rng_(seed), listTwice_(listTwice) {
    for (uint32_t n = 1; n <= kChipPorts + 3; ++n) pool_.push_back(eth(n));
    pool_.push_back(IntfId::fromString("PeerEthernet1"));
    sm_->initializedIs(true);
  }

  // One random write: a port-channel created (or joined by a few ports) or deleted, a port
  // joining or leaving one, or moving between two (in either write order). Without listTwice no
  // port is ever listed by two statuses.
  void write() {
    std::vector<IntfId> live;
    for (uint32_t n = 1; n <= kLags; ++n) {
      if (dir_->intfStatusHas(po(n))) live.push_back(po(n));
    }
    uint32_t const kind = pick(10);
    if (kind == 0 || live.size() < 2) {
      auto const s = dir_->intfStatusIs(po(1 + pick(kLags)));
      for (uint32_t i = pick(4); i > 0; --i) join(s);
      return;
    }
    auto const a = dir_->intfStatus(live[pick(live.size())]);
    auto const b = dir_->intfStatus(live[pick(live.size())]);
    if (kind == 1) {
      dir_->intfStatusDel(a->intfId());
      return;
    }
    if (kind <= 4 || a->memberSize() == 0) {
      join(a);
      return;
    }
    IntfId const p = std::next(a->memberAll().begin(), pick(a->memberSize()))->first;
    bool const move = kind >= 7, joinFirst = pick(2);
    if (move && joinFirst) b->memberIs(p, true);
    a->memberDel(p);
    if (move && !joinFirst) b->memberIs(p, true);
  }

  // The first way the maps or the chip disagree with the statuses, or "".
  std::string violation() const {
    auto const& cd = *cd_;
    size_t held = 0;
    for (IntfId const& p : pool_) {
      std::vector<IntfId> listing, holding;
      for (auto const& [lag, s] : dir_->intfStatusAll()) {
        if (s->memberHas(p)) listing.push_back(lag);
      }
      for (auto const& [lag, members] : cd.lagToPortAll()) {
        if (members.portHas(p)) holding.push_back(lag);
      }
      std::string const where = p.stringValue() + ": ";
      if (holding.size() > 1) return where + "in two lagToPort entries";
      IntfId const owner = holding.empty() ? IntfId() : holding[0];
      held += holding.size();
      if (cd.portToLag(p) != owner) return where + "portToLag disagrees with lagToPort";
      bool const local = p.isEthernet() && p.number(0) <= kChipPorts;
      if (!local || listing.empty()) {
        if (!owner.isEmpty()) return where + "held by " + owner.stringValue() + ", listed nowhere";
      } else if (owner.isEmpty()) {
        return where + "listed by " + listing[0].stringValue() + ", held by none";
      } else if (std::find(listing.begin(), listing.end(), owner) == listing.end()) {
        return where + "held by " + owner.stringValue() + ", which does not list it";
      }
    }
    if (cd.portToLagSize() != held) return "portToLag holds ports no lagToPort lists";
    if (chip_.lags().entries().size() != cd.lagToPortSize())
      return "chip and lagToPort differ in size";
    for (auto const& [lag, members] : cd.lagToPortAll()) {
      if (!dir_->intfStatusHas(lag)) return lag.stringValue() + ": in lagToPort without status";
      auto const* hw = chip_.lags().entry(lag);
      if (!hw || !(hw->members == members)) {
        return lag.stringValue() + ": chip " + (hw ? text(hw->members) : "none") + ", lagToPort " +
               text(members);
      }
    }
    return chip_.errors().empty() ? "" : "chip refused " + chip_.errors().front();
  }

  size_t verify(std::string const& request) {
    cd_->verifyData()->requestVerify(request);
    loop.runUntilIdle();
    EXPECT_TRUE(cd_->verifyData()->completedHas(request));
    return cd_->verifyData()->mismatchesOf(request);
  }

  uint32_t pick(size_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng_); }

  ActivityLoop loop{ActivityLoop::TimeMode::simulated};
  sim::Chip chip_{sim::Chip::Config{1, kChipPorts}};
  Zol::Ptr<Vemo::VemoCommonSmData> cd_ = Vemo::vemoCommonSmDataFactory("vemo");
  Zol::Ptr<Interface::EthLagIntfStatusDir> dir_ =
      Zol::make<Interface::EthLagIntfStatusDir>("lagStatus");
  Zol::Ptr<sim::LagHelper> helper_ = Zol::make<sim::LagHelper>("lagHelper", chip_, cd_);
  Zol::Ptr<Vemo::LagSm> sm_ = Vemo::lagSmFactory(
      cd_, dir_, Zol::make<Lag::Input::IntfDeviceNameDir>("deviceNames"), helper_);

 private:
  // A random port of the pool; without listTwice only one that no status lists.
  void join(Zol::Ptr<Interface::EthLagIntfStatus> const& s) {
    IntfId const p = pool_[pick(pool_.size())];
    for (auto const& [lag, other] : dir_->intfStatusAll()) {
      if (!listTwice_ && other != s && other->memberHas(p)) return;
    }
    s->memberIs(p, true);
  }

  std::mt19937 rng_;
  bool listTwice_;
  std::vector<IntfId> pool_;
};

void churn(uint32_t seed, bool listTwice) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  Churn c(seed, listTwice);
  for (int batch = 0; batch < 1500; ++batch) {
    for (uint32_t i = 1 + c.pick(8); i > 0; --i) c.write();
    c.loop.runUntilIdle();
    std::string const v = c.violation();
    ASSERT_EQ(v, "") << "after batch " << batch;
    if (batch % 100 == 0) {
      ASSERT_EQ(c.verify("churn"), 0u) << "after batch " << batch;
    }
  }
  // Every kind of change went through the chip.
  for (auto op : {"maybeCreateLag", "maybeDestroyLag", "updateLag"}) {
    EXPECT_GT(c.helper_->calls(op), 100u) << op;
  }

  // A member's portToLag entry pointed elsewhere by hand: both maps' sides are reported.
  ASSERT_GT(c.cd_->portToLagSize(), 0u);
  auto const [port, owner] = *c.cd_->portToLagAll().begin();
  c.cd_->portToLagIs(port, po(kLags + 1));
  EXPECT_EQ(c.verify("corrupt"), 2u);
  c.cd_->portToLagIs(port, owner);  // the SM's clean-up at destruction asserts consistency
}

TEST(LagSmChurn, MapsAndChipFollowTheStatusesThroughRandomChurn) {
  for (uint32_t seed : {1, 2, 3}) churn(seed, false);
}

TEST(LagSmChurn, PortListedByTwoStatusesIsHeldByOneOfThem) {
  for (uint32_t seed : {4, 5, 6}) churn(seed, true);
}

}  // namespace
