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
  explicit Harness(unsigned seed) : rng_(seed) {
    for (char const* s : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4", "10.0.0.5", "2001:db8::1",
                          "2001:db8::2"}) {
      pool_.push_back(IpAddr::fromString(s));
    }
  }

  // Up to three addresses; a lone IPv6 one is numbered like a group.
  TunnelIpAddrList randomList() {
    TunnelIpAddrList list;
    size_t const n = 1 + rng_() % 3;
    for (size_t i = 0; i < n; ++i) list.tunnelIpAddrIs(pool_[rng_() % pool_.size()], true);
    return list;
  }

  SwTunnelGroupId get() {
    TunnelIpAddrList const list = randomList();
    SwTunnelGroupId const id = mgr->getSwTunnelGroupIdForTunnelIpList(list);
    EXPECT_EQ(id.value(), model.get(list)) << list.stringValue();
    return id;
  }

  size_t pickHeld() { return rng_() % held_.size(); }

  void step() {
    switch (rng_() % 10) {
      case 0:
      case 1:
      case 2:
      case 3: {
        SwTunnelGroupId const id = get();
        mgr->incSwTunnelGroupIdRefcount(id);
        model.inc(id.value());
        held_.push_back(id);
        break;
      }
      case 4:
      case 5:
        if (held_.empty()) break;
        std::swap(held_[pickHeld()], held_.back());
        mgr->decSwTunnelGroupIdRefcount(held_.back());
        model.dec(held_.back().value());
        held_.pop_back();
        break;
      case 6:
      case 7: {
        SwTunnelGroupId const newId = get();
        SwTunnelGroupId* const old = held_.empty() ? nullptr : &held_[pickHeld()];
        SwTunnelGroupId const oldId = old ? *old : SwTunnelGroupId();
        mgr->updateSwTunnelGroupIdRefcount(newId, oldId);
        if (newId != oldId) {
          model.inc(newId.value());
          model.dec(oldId.value());
        }
        if (old) {
          *old = newId;
        } else {
          held_.push_back(newId);
        }
        break;
      }
      case 8:
        loop.runUntilIdle();
        model.runLoop();
        break;
      default:
        get();  // an id nobody takes a reference to
        break;
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
  std::vector<IpAddr> pool_;
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

    Zol::Trace::settingIs("SwTunnelGroupIdManager/8");
    Zol::Trace::Capture capture;
    h.cd->verifyData()->requestVerify("vr");
    h.loop.runUntilIdle();
    Zol::Trace::settingIs("");
    EXPECT_EQ(capture.count("void Vemo::SwTunnelGroupIdManager::handleVerify()"), 1u);
    EXPECT_EQ(h.cd->verifyData()->mismatchesOf("vr"), 0u);
  }
}

}  // namespace
