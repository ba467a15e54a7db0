#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "Vemo/SwTunnelGroupIdManager.h"

namespace {

using Nepo::IpAddr;
using Vemo::SwTunnelGroupId;
using Vemo::SwTunnelGroupType;
using Vemo::TunnelIpAddrList;
using Zol::ActivityLoop;

// Trace levels are global: switched off again whatever the test asserts.
struct TraceOn {
  explicit TraceOn(std::string_view setting) { Zol::Trace::settingIs(setting); }
  ~TraceOn() { Zol::Trace::settingIs(""); }
  Zol::Trace::Capture capture;
};

IpAddr ip(char const* text) { return IpAddr::fromString(text); }

struct Manager {
  ActivityLoop loop{ActivityLoop::TimeMode::simulated};
  Zol::Ptr<Vemo::VemoCommonSmData> cd = Vemo::vemoCommonSmDataFactory("cd");
  Zol::Ptr<Vemo::SwTunnelGroupIdManager> mgr = Vemo::swTunnelGroupIdManagerFactory(cd);
  TunnelIpAddrList const listA{ip("10.0.0.1"), ip("10.0.0.2")};
  TunnelIpAddrList const listB{ip("10.0.0.3"), ip("2001:db8::3")};

  std::vector<std::string> verify() {
    cd->verifyData()->requestVerify("vr");
    loop.runUntilIdle();
    std::vector<std::string> texts;
    for (auto const& [seq, m] : cd->verifyData()->mismatchAll()) {
      if (m.request() == "vr" && m.sm() == "SwTunnelGroupIdManager") texts.push_back(m.text());
    }
    return texts;
  }
};

// Sees every refcount change as it is written: (index, count, 0 once gone).
struct CountWatcher : Vemo::VXLAN::RefcountTable::NotifieeConst {
  std::vector<std::pair<Zol::U64, Zol::U32>> seen;
  void onRefcountzolImmediate(Zol::U64 index) override {
    auto const& t = *notifier();
    seen.emplace_back(index, t.refcountHas(index) ? t.refcount(index).count() : 0);
  }
};

TEST(TunnelIpAddrList, OneSetHasOneFormWhateverTheOrderItWasBuiltIn) {
  TunnelIpAddrList const a{ip("2001:db8::1"), ip("10.0.0.9"), ip("10.0.0.1"), ip("10.0.0.9")};
  TunnelIpAddrList b;
  for (char const* s : {"10.0.0.1", "2001:db8::1", "10.0.0.9"}) b.tunnelIpAddrIs(ip(s), true);
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(), b.hash());
  EXPECT_EQ(a.stringValue(),
            "Value('Vemo::TunnelIpAddrList', ** {'tunnelIpAddr': {'10.0.0.1': True, "
            "'10.0.0.9': True, '2001:db8::1': True}})");
  EXPECT_EQ(Zol::valueFromString<TunnelIpAddrList>(a.stringValue()), a);
}

// Numbering, sharing, counting and release are the model test's; these are the edges it misses.
TEST(SwTunnelGroupIdManagerDeathTest, SingleMemberIdsNameTheirAddressAndTheEmptyIdIsNeverCounted) {
  Manager m;
  SwTunnelGroupId const id = m.mgr->getSwTunnelGroupIdForTunnelIpList({ip("10.0.0.1")});
  EXPECT_EQ(m.mgr->getTunnelIpFromSwTunnelGroupId(id), ip("10.0.0.1"));
  EXPECT_EQ(m.mgr->getTunnelIpListFromSwTunnelGroupId(id), TunnelIpAddrList{ip("10.0.0.1")});
  // The whole 32-bit address fits: the top address keeps its top bit.
  EXPECT_EQ(m.mgr->getSwTunnelGroupIdForTunnelIp(ip("255.255.255.255")).value(), 0x1fffffffeu);
  EXPECT_TRUE(m.mgr->getSwTunnelGroupIdForTunnelIpList({}).isEmpty());
  m.mgr->incSwTunnelGroupIdRefcount(SwTunnelGroupId());
  EXPECT_EQ(m.mgr->refcountTable()->refcountSize(), 0u);
  // A lone IPv6 endpoint cannot name itself in 63 bits: it is numbered, and found by its number.
  EXPECT_EQ(m.mgr->getTunnelIpListFromSwTunnelGroupId(
                m.mgr->getSwTunnelGroupIdForTunnelIpList(TunnelIpAddrList{ip("2001:db8::7")})),
            TunnelIpAddrList{ip("2001:db8::7")});

  EXPECT_DEATH(Vemo::convertToSwTunnelGroupId(SwTunnelGroupType::singleMemberGroup, 1ULL << 63),
               "!\\( index & \\( 1ULL << 63 \\) \\)");
  EXPECT_DEATH(m.mgr->getTunnelIpFromSwTunnelGroupId(SwTunnelGroupId(3)),
               "swTunnelGroupId.tunnelGroupType\\(\\) == "
               "SwTunnelGroupType::singleMemberGroup_");
}

TEST(SwTunnelGroupIdManager, UpdateTakesTheNewReferenceFirstAndSameIdsChangeNothing) {
  TraceOn trace("SwTunnelGroupIdManager/8");
  Manager m;
  SwTunnelGroupId const a = m.mgr->getSwTunnelGroupIdForTunnelIpList(m.listA);
  SwTunnelGroupId const b = m.mgr->getSwTunnelGroupIdForTunnelIpList(m.listB);
  EXPECT_EQ(m.mgr->getSwTunnelGroupIdForTunnelIpList(m.listA), a);
  EXPECT_EQ(trace.capture.count(" tunnelIpAddrList already assigned a SwTunnelGroupId"), 1u);
  m.mgr->incSwTunnelGroupIdRefcount(a);
  CountWatcher watcher;
  watcher.notifierIs(m.mgr->refcountTable());

  m.mgr->updateSwTunnelGroupIdRefcount(a, a);
  EXPECT_TRUE(watcher.seen.empty());
  m.loop.runUntilIdle();
  EXPECT_TRUE(m.mgr->isSwTunnelGroupIdValid(a));
  EXPECT_EQ(m.mgr->refcountTable()->refcount(a.value()).count(), 1u);

  m.mgr->updateSwTunnelGroupIdRefcount(b, a);
  EXPECT_EQ(watcher.seen, (std::vector<std::pair<Zol::U64, Zol::U32>>{{5, 1}, {3, 0}}));
  m.loop.runUntilIdle();
  EXPECT_FALSE(m.mgr->isSwTunnelGroupIdValid(a));
  EXPECT_TRUE(m.mgr->isSwTunnelGroupIdValid(b));
  EXPECT_TRUE(trace.capture.contains("releaseSwTunnelGroupId SwTunnelGroupId: 3"));

  // From nothing and to nothing: the empty id takes no count.
  watcher.seen.clear();
  m.mgr->updateSwTunnelGroupIdRefcount(SwTunnelGroupId(), b);
  m.mgr->updateSwTunnelGroupIdRefcount(b, SwTunnelGroupId());
  EXPECT_EQ(watcher.seen, (std::vector<std::pair<Zol::U64, Zol::U32>>{{5, 0}, {5, 1}}));
  m.loop.runUntilIdle();
  EXPECT_TRUE(m.mgr->isSwTunnelGroupIdValid(b));
}

TEST(SwTunnelGroupIdManager, SequenceNumbersStopBeforeTheTopBit) {
  Manager m;
  m.mgr->currentIdxIs(Vemo::SwTunnelGroupIdManager::maxIdx - 1);
  EXPECT_EQ(m.mgr->getSwTunnelGroupIdForTunnelIpList(m.listA).value(), ~Zol::U64{0});
  EXPECT_THAT([&] { m.mgr->getSwTunnelGroupIdForTunnelIpList(m.listB); },
              testing::ThrowsMessage<Zol::RangeException>(testing::StrEq(
                  "SwTunnelGroupIdManager::currentIdx < SwTunnelGroupIdManager::minIdx "
                  "or > SwTunnelGroupIdManager::maxIdx not allowed")));
  EXPECT_EQ(m.mgr->currentIdx(), Vemo::SwTunnelGroupIdManager::maxIdx);
  EXPECT_FALSE(m.mgr->data()->tunnelIpAddrListToTunnelIdHas(m.listB));
}

TEST(SwTunnelGroupIdManager, VerifyReportsMapsThatDoNotMirrorEachOther) {
  TraceOn trace("SwTunnelGroupIdManager/1");
  Manager m;
  SwTunnelGroupId const a = m.mgr->getSwTunnelGroupIdForTunnelIpList(m.listA);
  SwTunnelGroupId const b = m.mgr->getSwTunnelGroupIdForTunnelIpList(m.listB);
  EXPECT_TRUE(m.verify().empty());
  EXPECT_FALSE(trace.capture.contains("swTunnelGroupIdToAddrs: "));

  auto const data = m.mgr->data();
  data->tunnelIpAddrListToTunnelIdDel(m.listA);
  data->tunnelIpAddrListToTunnelIdIs(m.listB, a);
  data->swTunnelGroupIdToAddrIs(SwTunnelGroupId(8), TunnelIpAddrList{ip("10.0.0.8")});
  EXPECT_EQ(m.verify(), (std::vector<std::string>{
                            "swTunnelGroupIdToAddrs 3, tunnelIpAddrListToTunnelIds 1",
                            "tunnelIpList " + m.listA.stringValue() + " is not present",
                            "swTunnelGroupId " + a.stringValue() + " expected " + b.stringValue(),
                            "Incorrect type 0 expected 1",
                            "tunnelIpList " + TunnelIpAddrList{ip("10.0.0.8")}.stringValue() +
                                " is not present",
                        }));
  EXPECT_EQ(trace.capture.count("swTunnelGroupIdToAddrs: "), 1u);
  EXPECT_EQ(trace.capture.count(" tunnelIpAddrListToTunnelIds: "), 1u);
}

}  // namespace
