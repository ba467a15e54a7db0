#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Vemo/VemoCommon.h"
#include "Vemo/VxlanTypes.h"
#include "ZolGen/VemoVxlanJson.h"

namespace {

using Bridging::MacVlanPair;
using Nepo::EthAddr;
using Nepo::IntfId;
using Vemo::VXLAN::RefcountTable;
using Vemo::VXLAN::RefcountVal;
using Zol::ActivityLoop;

constexpr Zol::U32 allOnes = 4294967295u;

// Trace levels are global: switched off again whatever the test asserts.
struct TraceOn {
  explicit TraceOn(std::string_view setting) { Zol::Trace::settingIs(setting); }
  ~TraceOn() { Zol::Trace::settingIs(""); }
  std::vector<std::string> texts() const {
    std::vector<std::string> out;
    for (auto const& r : capture.records()) out.push_back(r.text);
    return out;
  }
  Zol::Trace::Capture capture;
};

MacVlanPair mac(char const* addr, Zol::U16 vlan) {
  return MacVlanPair(EthAddr::fromString(addr), Bridging::VlanId(vlan));
}

TEST(RefcountTableDeathTest, CountsUpAndDownAndRestartsASaturatedCountAtOne) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated);
  TraceOn trace("VemoVxlanTypes/8");
  auto const t = Zol::make<RefcountTable>("t");
  EXPECT_EQ(t->incRefcount(7), 1u);
  EXPECT_EQ(t->incRefcount(7), 2u);
  t->decRefcount(7);
  EXPECT_EQ(t->refcount(7), RefcountVal(1));
  t->decRefcount(7);
  EXPECT_FALSE(t->refcountHas(7));
  EXPECT_EQ(trace.texts(),
            (std::vector<std::string>{
                "U32 Vemo::VXLAN::RefcountTable::incRefcount(U32) index 7 val 4294967295",
                "U32 Vemo::VXLAN::RefcountTable::incRefcount(U32) index 7 val 1",
                "void Vemo::VXLAN::RefcountTable::decRefcount(U32) index 7 val 2",
                "void Vemo::VXLAN::RefcountTable::decRefcount(U32) index 7 val 1"}));
  EXPECT_EQ(t->refcount(7).count(), allOnes) << "an absent index reads as all ones";

  // Indices are 64-bit: one above 2^32 is not index 3.
  Zol::U64 const wide = (Zol::U64{1} << 40) | 3;
  t->incRefcount(3);
  EXPECT_EQ(t->incRefcount(wide), 1u);
  EXPECT_EQ(t->refcount(3), RefcountVal(1));

  t->refcountIs(9, RefcountVal(allOnes - 1));
  EXPECT_EQ(t->incRefcount(9), allOnes);
  EXPECT_EQ(t->incRefcount(9), 1u);
  EXPECT_EQ(t->refcount(9), RefcountVal(1));

  // Many references in one write: the sum, the entry gone at none, past all ones back to one.
  EXPECT_EQ(t->addRefcount(11, 3), 3u);
  EXPECT_EQ(t->addRefcount(11, -1), 2u);
  EXPECT_EQ(t->addRefcount(11, -2), 0u);
  EXPECT_FALSE(t->refcountHas(11));
  t->refcountIs(12, RefcountVal(allOnes - 1));
  EXPECT_EQ(t->addRefcount(12, 2), 1u);
  EXPECT_DEATH(t->addRefcount(13, -1), "!!refcount\\( index \\)");

  EXPECT_DEATH(t->decRefcount(5), "!!refcount\\( index \\)");
  t->refcountIs(9, RefcountVal(allOnes));
  EXPECT_DEATH(t->decRefcount(9), "!!refcount\\( index \\)");
}

TEST(VxlanTables, MissingMacsReadAsTheirKeyWithNothingBehindThem) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated);
  auto const hosts = Zol::make<Vemo::VXLAN::HostTable>("h");
  auto const status = Zol::make<Vemo::VXLAN::HostStatusTable>("s");
  MacVlanPair const known = mac("00:00:00:00:00:01", 10);
  MacVlanPair const unknown = mac("00:00:00:00:00:02", 20);
  Vemo::VXLAN::HostEntry stored;
  stored.keyIs(known);
  stored.intfIs(IntfId::fromString("Vxlan1"));
  hosts->entryIs(known, stored);
  EXPECT_EQ(hosts->entry(known), stored);

  Vemo::VXLAN::HostEntry host;
  host.keyIs(unknown);
  EXPECT_EQ(hosts->entry(unknown), host);
  EXPECT_FALSE(hosts->entry(unknown).hwState().inHw());
  EXPECT_FALSE(hosts->entryHas(unknown)) << "reading creates nothing";
  EXPECT_EQ(status->statusEntry(unknown).key(), unknown);
}

TEST(VxlanTypes, ReceivedEntriesOrderTotallyAndKeepTheirMoveCountInJson) {
  // Move counts 2^31 apart are each serially before the other; entries still order totally.
  Vemo::VXLAN::ReceivedEntry a;
  a.moveCountIs(Tolm::Seqno32(0));
  Vemo::VXLAN::ReceivedEntry b = a;
  b.moveCountIs(Tolm::Seqno32(0x80000000u));
  EXPECT_NE(a < b, b < a);

  b.moveCountIs(Tolm::Seqno32(allOnes));
  b.tunnelIpAddrIs(Nepo::IpAddr::fromString("2001:db8::1"));
  rapidjson::Document doc;
  EXPECT_EQ(Zol::fromJson<Vemo::VXLAN::ReceivedEntry>(Zol::toJson(b, doc.GetAllocator())), b);
}

TEST(RemoteMacInfoDir, HostIndicesAppearWithTheirFirstMacAndGoWithTheLast) {
  ActivityLoop loop(ActivityLoop::TimeMode::simulated);
  auto const dir = Zol::make<Vemo::VXLAN::RemoteMacInfoDir>("rmac");
  EthAddr const m1 = EthAddr::fromString("00:00:00:00:00:01");
  EthAddr const m2 = EthAddr::fromString("00:00:00:00:00:02");

  dir->addMlagHostTableIndex(3, m1);
  dir->addMlagHostTableIndex(3, m2);
  dir->addMlagHostTableIndex(3, m2);
  ASSERT_TRUE(dir->mlagHostTableIndex(3));
  EXPECT_EQ(dir->mlagHostTableIndex(3)->macAddrListSize(), 2u);
  EXPECT_EQ(dir->vlanBasedHostTableIndexSize(), 0u) << "the indices are separate";
  dir->delMlagHostTableIndex(3, m1);
  ASSERT_TRUE(dir->mlagHostTableIndex(3));
  EXPECT_FALSE(dir->mlagHostTableIndex(3)->macAddrListHas(m1));
  dir->delMlagHostTableIndex(3, m1);
  dir->delMlagHostTableIndex(4, m1);
  EXPECT_EQ(dir->mlagHostTableIndexSize(), 1u);
  dir->delMlagHostTableIndex(3, m2);
  EXPECT_EQ(dir->mlagHostTableIndexSize(), 0u);

  dir->addMacToVlanBasedHostIndex(10, m1);
  dir->addMacToVlanBasedHostIndex(20, m1);
  dir->delMacFromVlanBasedHostIndex(10, m1);
  EXPECT_FALSE(dir->vlanBasedHostTableIndexHas(10));
  ASSERT_TRUE(dir->vlanBasedHostTableIndex(20));
  EXPECT_TRUE(dir->vlanBasedHostTableIndex(20)->macAddrListHas(m1));
}

}  // namespace
