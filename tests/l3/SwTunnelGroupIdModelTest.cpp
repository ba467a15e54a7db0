// The tunnel-group manager against a plain model of its rules, under random references.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <vector>

#include "Vemo/SwTunnelGroupIdManager.h"

namespace {

using Nepo::IpAddr;
using Vemo::SwTunnelGroupId;
using Vemo::TunnelIpAddrList;
using Zol::U32;
using Zol::U64;

// The rules, without notifications: a group is released at the next loop run after a change of
// its count left it without one.
struct Model {
  std::map<TunnelIpAddrList, U64> listToId;
  std::map<U64, TunnelIpAddrList> idToList;
  std::map<U64, U32> counts;
  std::set<U64> touched;
  U64 lastIdx = 0;
  size_t released = 0;

  U64 get(TunnelIpAddrList const& list) {
    auto const& addrs = list.tunnelIpAddrAll();
    if (addrs.size() == 1 && addrs.begin()->first.isV4()) {
      return U64{addrs.begin()->first.v4HostOrder()} << 1;
    }
    if (auto it = listToId.find(list); it != listToId.end()) return it->second;
    U64 const id = (++lastIdx << 1) | 1;
    listToId[list] = id;
    idToList[id] = list;
    return id;
  }
  void inc(U64 id) {
    if (id == 0) return;
    ++counts[id];
    touched.insert(id);
  }
  void dec(U64 id) {
    if (id == 0 || ((id & 1) && !idToList.contains(id))) return;
    if (--counts[id] == 0) counts.erase(id);
    touched.insert(id);
  }
  void runLoop() {
    for (U64 id : touched) {
      if (counts.contains(id) || !idToList.contains(id)) continue;
      listToId.erase(idToList[id]);
      idToList.erase(id);
      ++released;
    }
    touched.clear();
  }
};

class Harness {
 public:
  explicit Harness(unsigned seed) : rng_(seed) {}

  // The id of up to three addresses; a lone IPv6 one is numbered like a group.
  SwTunnelGroupId get() {
    static constexpr char const* pool[] = {"10.0.0.1", "10.0.0.2",    "10.0.0.3",   "10.0.0.4",
                                           "10.0.0.5", "2001:db8::1", "2001:db8::2"};
    TunnelIpAddrList list;
    for (size_t n = 1 + rng_() % 3; n > 0; --n) {
      list.tunnelIpAddrIs(IpAddr::fromString(pool[rng_() % std::size(pool)]), true);
    }
    SwTunnelGroupId const id = mgr->getSwTunnelGroupIdForTunnelIpList(list);
    EXPECT_EQ(id.value(), model.get(list)) << list.stringValue();
    return id;
  }

  // A reference taken (4 in 10), dropped (2), moved to another list's id (2), a loop run (1),
  // or an id nobody takes a reference to (1).
  void step() {
    unsigned const kind = rng_() % 10;
    if (kind < 4) {
      held_.push_back(get());
      mgr->incSwTunnelGroupIdRefcount(held_.back());
      model.inc(held_.back().value());
    } else if (kind < 6 && !held_.empty()) {
      std::swap(held_[rng_() % held_.size()], held_.back());
      mgr->decSwTunnelGroupIdRefcount(held_.back());
      model.dec(held_.back().value());
      held_.pop_back();
    } else if (kind >= 6 && kind < 8) {
      SwTunnelGroupId const newId = get();
      if (held_.empty()) held_.emplace_back();
      SwTunnelGroupId& old = held_[rng_() % held_.size()];
      mgr->updateSwTunnelGroupIdRefcount(newId, old);
      if (newId != old) {
        model.inc(newId.value());
        model.dec(old.value());
      }
      old = newId;
    } else if (kind == 8) {
      loop.runUntilIdle();
      model.runLoop();
    } else if (kind == 9) {
      get();
    }
  }

  void expectAgreement() {
    auto const& d = *mgr->data();
    std::map<U64, TunnelIpAddrList> idToList;
    for (auto const& [id, list] : d.swTunnelGroupIdToAddrAll()) idToList[id.value()] = list;
    std::map<TunnelIpAddrList, U64> listToId;
    for (auto const& [list, id] : d.tunnelIpAddrListToTunnelIdAll()) listToId[list] = id.value();
    std::map<U64, U32> counts;
    for (auto const& [index, val] : mgr->refcountTable()->refcountAll())
      counts[index] = val.count();
    ASSERT_EQ(idToList, model.idToList);
    ASSERT_EQ(listToId, model.listToId);
    ASSERT_EQ(counts, model.counts);
    ASSERT_EQ(mgr->currentIdx(), model.lastIdx);
  }

  Zol::ActivityLoop loop{Zol::ActivityLoop::TimeMode::simulated};
  Zol::Ptr<Vemo::VemoCommonSmData> cd = Vemo::vemoCommonSmDataFactory("cd");
  Zol::Ptr<Vemo::SwTunnelGroupIdManager> mgr = Vemo::swTunnelGroupIdManagerFactory(cd);
  Model model;

 private:
  std::mt19937 rng_;
  std::vector<SwTunnelGroupId> held_;
};

TEST(SwTunnelGroupIdManager, RandomReferencesKeepMapsAndCountsAsTheModelSays) {
  for (unsigned seed : {1u, 2u, 3u, 4u}) {
    SCOPED_TRACE(seed);
    Harness h(seed);
    for (int i = 0; i < 3000; ++i) {
      h.step();
      ASSERT_NO_FATAL_FAILURE(h.expectAgreement()) << "step " << i;
    }
    h.loop.runUntilIdle();
    h.model.runLoop();
    ASSERT_NO_FATAL_FAILURE(h.expectAgreement());
    EXPECT_GT(h.model.released, 10u) << "groups were numbered and released";

    h.cd->verifyData()->requestVerify("vr");
    h.loop.runUntilIdle();
    EXPECT_TRUE(h.cd->verifyData()->completedHas("vr"));
    EXPECT_EQ(h.cd->verifyData()->mismatchesOf("vr"), 0u);
  }
}

}  // namespace
