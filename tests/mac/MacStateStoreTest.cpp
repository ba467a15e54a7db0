#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Vemo/MacStateStore.h"

namespace {

using Bridging::EntryType;
using Store = Vemo::MacStateStore;
using Vemo::MacStoreSnapshot;
using Vemo::StoredMacEntry;
namespace fs = std::filesystem;

StoredMacEntry local(uint16_t vlan, char const* mac, char const* intf, EntryType type,
                     Zol::U32 moves = 0, double time = 0) {
  return {Bridging::MacVlanPair(Nepo::EthAddr::fromString(mac), Bridging::VlanId(vlan)),
          Nepo::IntfId::fromString(intf),
          type,
          moves,
          time,
          {},
          Vemo::VemoNextHopId::invalid()};
}

StoredMacEntry remote(uint16_t vlan, char const* mac, std::vector<char const*> const& vteps,
                      Zol::U32 nextHop) {
  StoredMacEntry e = local(vlan, mac, "Vxlan1", EntryType::receivedRemoteMac);
  for (char const* v : vteps) e.tunnelIps.tunnelIpAddrIs(Nepo::IpAddr::fromString(v), true);
  e.nextHopId = Vemo::VemoNextHopId(nextHop);
  return e;
}

MacStoreSnapshot parsed(std::string const& text) {
  auto r = Store::parse(text);
  if (auto* why = std::get_if<std::string>(&r)) ADD_FAILURE() << *why << "\n  text: " << text;
  auto* s = std::get_if<MacStoreSnapshot>(&r);
  return s ? *s : MacStoreSnapshot{};
}

TEST(MacStateStore, RoundTripsEveryKindOfEntry) {
  MacStoreSnapshot s;
  s.entries = {
      local(1, "00:00:00:00:00:00", "Cpu", EntryType::routerMac),
      local(10, "02:00:00:00:00:01", "Ethernet3/1/4", EntryType::configuredStaticMac, 0xFFFFFFFF),
      // Times a reader that is not exact gets wrong in the last bit.
      local(10, "02:00:00:00:00:02", "Port-Channel10", EntryType::peerStaticMac, 3, 0.1 + 0.2),
      local(10, "02:00:00:00:00:03", "Ethernet1/2.100", EntryType::nonAgingMac, 1, 4.9e-324),
      local(11, "02:00:00:00:00:03", "PeerPort-Channel5", EntryType::peerDynamicMac, 2, -1.7e308),
      local(12, "02:00:00:00:00:03", "Ethernet2", EntryType::learnedDynamicMac, 2, 1718000000.123),
      remote(20, "02:00:00:00:00:08", {"2001:db8::2", "10.0.0.3", "10.0.0.2", "2001:db8::1"}, 0),
      remote(20, "02:00:00:00:00:09", {"10.0.0.2"}, 7),
  };
  for (size_t t = 1; t < std::size(Zol::EnumTraits<EntryType>::names); ++t) {
    s.entries.push_back(local(100, "02:00:00:00:00:00", "Ethernet1", EntryType(t), Zol::U32(t)));
    s.entries.back().key.macAddrIs(Nepo::EthAddr::fromValue(0x020000000100 + t));
  }
  s.entries.push_back(
      remote(4094, "ff:ff:ff:ff:ff:fe", {"fe80::1"}, Vemo::VemoNextHopId::unprogrammedValue));
  ASSERT_EQ(Store::check(s), std::nullopt);

  std::string const text = Store::serialize(s);
  EXPECT_EQ(parsed(text), s);
  // One state, one file, whatever order its entries came in.
  MacStoreSnapshot reversed = s;
  std::reverse(reversed.entries.begin(), reversed.entries.end());
  EXPECT_EQ(Store::serialize(reversed), text);
  EXPECT_EQ(parsed(Store::serialize({})), MacStoreSnapshot{});
}

TEST(MacStateStore, ReadsAndWritesTheDocumentedFormat) {
  // Another writer's file: entries and members in any order, spacing, the dotted MAC form, and a
  // zero the exact reader of RapidJSON 1.1 mishandles.
  MacStoreSnapshot const s = parsed(R"( {"entries": [
      {"nextHop": 7, "vteps": ["2001:db8::2", "10.0.0.2"], "lastMoveTime": -0e-30, "moves": 0,
       "type": "receivedRemoteMac", "intf": "Vxlan1", "mac": "0200.0000.0002", "vlan": 10},
      {"vlan": 10, "mac": "02:00:00:00:00:01", "intf": "Ethernet1",
       "type": "configuredStaticMac", "moves": 3, "lastMoveTime": 12.5}],
    "version": 1 } )");
  MacStoreSnapshot want;
  want.entries = {
      local(10, "02:00:00:00:00:01", "Ethernet1", EntryType::configuredStaticMac, 3, 12.5),
      remote(10, "02:00:00:00:00:02", {"10.0.0.2", "2001:db8::2"}, 7)};
  EXPECT_EQ(s, want);
  EXPECT_EQ(Store::serialize(want),
            R"({"version":1,"entries":[{"vlan":10,"mac":"02:00:00:00:00:01","intf":"Ethernet1",)"
            R"("type":"configuredStaticMac","moves":3,"lastMoveTime":12.5},{"vlan":10,)"
            R"("mac":"02:00:00:00:00:02","intf":"Vxlan1","type":"receivedRemoteMac","moves":0,)"
            R"("lastMoveTime":0.0,"vteps":["10.0.0.2","2001:db8::2"],"nextHop":7}]})");
}

// A file whose first entry has the given members set to JSON values (added if new, dropped if
// null); its second entry is valid.
std::string fileWith(std::vector<std::pair<std::string, char const*>> const& changes) {
  std::map<std::string, std::string> members = {
      {"vlan", "10"}, {"mac", R"("02:00:00:00:00:01")"}, {"intf", R"("Vxlan1")"},
      {"moves", "3"}, {"type", R"("learnedRemoteMac")"}, {"lastMoveTime", "1.5"}};
  for (auto const& [name, value] : changes) {
    if (value) {
      members[name] = value;
    } else {
      members.erase(name);
    }
  }
  std::string entry;
  for (auto const& [n, v] : members) entry += (entry.empty() ? "\"" : ", \"") + n + "\": " + v;
  return R"({"version": 1, "entries": [{)" + entry +
         R"(}, {"vlan": 5, "mac": "02:00:00:00:00:05", "intf": "Ethernet5",
         "type": "learnedDynamicMac", "moves": 0, "lastMoveTime": 0}]})";
}

TEST(MacStateStore, RefusesTheWholeTextOnAnyFault) {
  ASSERT_EQ(parsed(fileWith({{"vteps", R"(["10.0.0.1", "2001:db8::1"])"}})).entries.size(), 2u);
  std::vector<std::pair<std::string, char const*>> const cases = {
      {"", "not JSON"},
      {std::string(1000000, '[') + std::string(1000000, ']'), "not an object"},
      {R"({"version": 1, "entries": []} x)", "not JSON"},
      {R"({"entries": []})", "no version"},
      {R"({"version": 2, "entries": []})", "version 2"},
      {R"({"version": 1.0, "entries": []})", "version 1.0"},
      {R"({"version": 1})", "no entries"},
      {R"({"version": 1, "entries": {}})", "entries must be a list"},
      {R"({"version": 1, "entries": [], "a\nb": 1})", R"(unknown member "a\x0ab")"},
      {R"({"version": 1, "version": 1, "entries": []})", "given twice"},
      {R"({"version": 1, "entries": [7]})", "entries[0]: is 7, not an object"},
      {fileWith({{"type", nullptr}}), R"(no member "type")"},
      {fileWith({{"colour", "1"}}), R"(unknown member "colour")"},
      {fileWith({{"vlan", "0"}}), "vlan must be"},
      {fileWith({{"vlan", "4095"}}), "vlan must be"},
      {fileWith({{"vlan", "10.0"}}), "vlan must be"},
      {fileWith({{"mac", R"("02:00:00:00:00")"}}), "not an Ethernet address"},
      {fileWith({{"mac", R"("02:00:00:00:00:01\u0000")"}}), R"(01\x00" holds a control character)"},
      {fileWith({{"mac", "2"}}), "mac must be a string"},
      {fileWith({{"intf", R"("Bogus1")"}}), "intf"},
      {fileWith({{"intf", R"("")"}}), "intf"},
      {fileWith({{"type", R"("fooMac")"}}), "'fooMac' is not a value"},
      {fileWith({{"type", R"("unknownMac")"}}), "unknownMac"},
      {fileWith({{"moves", "4294967296"}}), "moves must be"},
      {fileWith({{"lastMoveTime", R"("1")"}}), "lastMoveTime must be"},
      {fileWith({{"lastMoveTime", "NaN"}}), "not JSON"},
      {fileWith({{"lastMoveTime", "1e400"}}), "not JSON"},
      {fileWith({{"lastMoveTime", "1.7976931348623159e308"}}), "is out of range"},
      {fileWith({{"vteps", R"("10.0.0.1")"}}), "vteps must be a list"},
      {fileWith({{"vteps", "[]"}}), "empty list"},
      {fileWith({{"vteps", R"(["10.0.0.300"])"}}), "vteps"},
      {fileWith({{"vteps", R"(["2001:db8::1", "10.0.0.1", "2001:DB8:0::1"])"}}), "twice"},
      {fileWith({{"nextHop", "-1"}}), "nextHop must be"},
      // Same VLAN and MAC as the second entry, written the other way.
      {fileWith({{"vlan", "5"}, {"mac", R"("0200.0000.0005")"}}),
       "two entries for VLAN 5 MAC 02:00:00:00:00:05"},
  };
  for (auto const& [text, part] : cases) {
    auto r = Store::parse(text);
    ASSERT_TRUE(std::holds_alternative<std::string>(r)) << text.substr(0, 300);
    std::string const& why = std::get<std::string>(r);
    EXPECT_NE(why.find(part), std::string::npos) << why << "\n  text: " << text.substr(0, 300);
    EXPECT_EQ(why.find('\n'), std::string::npos) << why;
    EXPECT_LE(why.size(), 310u) << why;
  }
  // Every cut of a valid file is refused: only its last byte closes the object.
  std::string const full = fileWith({{"vteps", R"(["10.0.0.1"])"}});
  for (size_t cut = 0; cut < full.size(); ++cut) {
    EXPECT_TRUE(std::holds_alternative<std::string>(Store::parse(full.substr(0, cut)))) << cut;
  }
  std::string const junk = '"' + std::string(100000, 'x') + '"';
  auto const huge = Store::parse(fileWith({{"mac", junk.c_str()}}));
  EXPECT_LE(std::get<std::string>(huge).size(), 310u);
}

TEST(MacStateStore, CheckRefusesWhatWouldNotReadBack) {
  std::vector<std::pair<void (*)(StoredMacEntry&), char const*>> const cases = {
      {[](StoredMacEntry& e) { e.key.vlanIdIs(Bridging::VlanId(4095)); }, "VLAN out of"},
      {[](StoredMacEntry& e) { e.intf = Nepo::IntfId(); }, "no interface"},
      {[](StoredMacEntry& e) { e.entryType = EntryType::unknownMac; }, "unknownMac"},
      {[](StoredMacEntry& e) { e.lastMoveTime = std::numeric_limits<double>::quiet_NaN(); },
       "not finite"},
      {[](StoredMacEntry& e) { e.tunnelIps.tunnelIpAddrIs(Nepo::IpAddr(), false); }, "false"},
      {[](StoredMacEntry& e) { e.key.macAddrIs(Nepo::EthAddr::fromString("02:00:00:00:00:09")); },
       "two entries"},
  };
  for (auto const& [spoil, part] : cases) {
    MacStoreSnapshot s;
    s.entries = {local(9, "02:00:00:00:00:09", "Ethernet9", EntryType::learnedDynamicMac),
                 local(9, "02:00:00:00:00:01", "Ethernet1", EntryType::learnedDynamicMac)};
    spoil(s.entries[1]);
    auto const why = Store::check(s);
    ASSERT_TRUE(why.has_value()) << part;
    EXPECT_NE(why->find(part), std::string::npos) << *why;
    auto const back = Store::parse(Store::serialize(s));
    auto const* read = std::get_if<MacStoreSnapshot>(&back);
    EXPECT_TRUE(!read || *read != s) << part;
  }
}

class MacStateStoreFile : public testing::Test {
 protected:
  void SetUp() override {
    std::string tmpl = testing::TempDir() + "mac_state_store.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
    dir_ = tmpl;
    path_ = (dir_ / "mac.json").string();
  }
  void TearDown() override { fs::remove_all(dir_); }
  static MacStoreSnapshot some(Zol::U32 moves) {
    MacStoreSnapshot s;
    s.entries = {local(10, "02:00:00:00:00:01", "Ethernet1", EntryType::learnedDynamicMac, moves),
                 remote(20, "02:00:00:00:00:02", {"10.0.0.2", "2001:db8::2"}, 7)};
    return s;
  }

  fs::path dir_;
  std::string path_;
};

TEST_F(MacStateStoreFile, SavesLoadsAndRefusesWhatItCannotRead) {
  using Kind = Store::Loaded::Kind;
  EXPECT_EQ(Store::load(path_).kind, Kind::absent);
  std::string why;
  ASSERT_TRUE(Store::save(path_, some(1), &why)) << why;
  // A .tmp left by a save that crashed neither loads nor stops the next save.
  std::ofstream(path_ + ".tmp") << "{\"version\": 1, \"ent";
  ASSERT_TRUE(Store::save(path_, some(2), &why)) << why;
  auto const loaded = Store::load(path_);
  ASSERT_EQ(loaded.kind, Kind::loaded) << loaded.reason;
  EXPECT_EQ(loaded.snapshot, some(2));
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 1);

  std::ofstream(path_) << "{\"version\": 1, \"entries\": [";
  auto const cut = Store::load(path_);
  EXPECT_EQ(cut.kind, Kind::refused);
  EXPECT_NE(cut.reason.find(path_ + ": not JSON"), std::string::npos) << cut.reason;
  EXPECT_TRUE(cut.snapshot.entries.empty());
  EXPECT_EQ(Store::load(dir_.string()).kind, Kind::refused);
  // A path through a file is a broken set-up, not a first start.
  EXPECT_EQ(Store::load(path_ + "/mac.json").kind, Kind::refused);
}

TEST_F(MacStateStoreFile, FailedSaveKeepsTheOldFile) {
  std::string why;
  ASSERT_TRUE(Store::save(path_, some(1), &why)) << why;
  auto const kept = [&] { return Store::load(path_).snapshot == some(1); };

  // Root writes anywhere, so a directory stands in the way of the temporary file.
  fs::create_directories(path_ + ".tmp/busy");
  EXPECT_FALSE(Store::save(path_, some(2), &why));
  EXPECT_NE(why.find("cannot create " + path_ + ".tmp"), std::string::npos) << why;
  EXPECT_TRUE(kept());
  fs::remove_all(path_ + ".tmp");
  // A snapshot that would not load is not written.
  MacStoreSnapshot bad = some(2);
  bad.entries[0].lastMoveTime = std::numeric_limits<double>::quiet_NaN();
  EXPECT_FALSE(Store::save(path_, bad, &why));
  EXPECT_NE(why.find("not finite"), std::string::npos) << why;
  EXPECT_TRUE(kept());
  EXPECT_FALSE(fs::exists(path_ + ".tmp"));

  // The rename fails: the path is a directory. Nothing is left behind.
  fs::create_directories(dir_ / "state/inside");
  EXPECT_FALSE(Store::save((dir_ / "state").string(), some(2), &why));
  EXPECT_NE(why.find("cannot rename"), std::string::npos) << why;
  EXPECT_TRUE(fs::is_directory(dir_ / "state/inside"));
  EXPECT_FALSE(fs::exists(dir_ / "state.tmp"));
}

}  // namespace
