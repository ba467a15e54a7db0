#include <absl/hash/hash_testing.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Nepo/EthAddr.h"
#include "Nepo/EthAddrWithMask.h"
#include "Zol/Text.h"
#include "Zol/Types.h"

using Nepo::EthAddr;
using Nepo::EthAddrWithMask;
using testing::HasSubstr;
using testing::ThrowsMessage;

static_assert(Zol::StringLike<EthAddr> && Zol::StringLike<EthAddrWithMask>);

TEST(EthAddr, ParsesPrintsClassifiesAndOrders) {
  EthAddr a = EthAddr::fromString("02:00:00:0A:bC:01");
  EXPECT_EQ(a, EthAddr::fromString("0200.000A.bc01"));
  EXPECT_EQ(a, EthAddr(0x02, 0x00, 0x00, 0x0a, 0xbc, 0x01));
  EXPECT_EQ(a.stringValue(), "02:00:00:0a:bc:01");
  EXPECT_EQ(a.value(), 0x0200000abc01u);
  EXPECT_EQ(EthAddr::fromValue(a.value()), a);
  EXPECT_EQ(EthAddr().stringValue(), "00:00:00:00:00:00");
  EXPECT_THROW(EthAddr::fromValue(uint64_t{1} << 48), Zol::RangeException);

  for (char const* text : {"", "02:00:00:00:00", "02:00:00:00:00:01:02", "02:00:00:00:00:1",
                           "0:02:00:00:00:001", "02-00-00-00-00-01", "0g:00:00:00:00:01",
                           "0200.0000.001", "0200:0000:0001", "0200.0000.0001 "}) {
    EXPECT_THAT([&] { EthAddr::fromString(text); },
                ThrowsMessage<Zol::ParseError>(HasSubstr("'" + std::string(text) + "'")));
  }

  EXPECT_TRUE(EthAddr::broadcast().isMulticast());
  EXPECT_TRUE(EthAddr::fromString("01:00:5e:00:00:01").isMulticast());
  EXPECT_FALSE(EthAddr::fromString("01:00:5e:00:00:01").isBroadcast());
  EXPECT_TRUE(EthAddr::fromString("02:00:00:00:00:01").isUnicast());
  std::vector<EthAddr> sorted = {EthAddr(), EthAddr::fromString("00:00:00:00:00:ff"),
                                 EthAddr::fromString("00:00:00:00:01:00"),
                                 EthAddr::fromString("01:00:00:00:00:00"), EthAddr::broadcast()};
  EXPECT_TRUE(std::is_sorted(sorted.begin(), sorted.end()));
  EXPECT_TRUE(absl::VerifyTypeImplementsAbslHashCorrectly(sorted));
}

TEST(EthAddrWithMask, ParsesMatchesAndKeepsTheAddress) {
  EXPECT_EQ(EthAddrWithMask().stringValue(), "00:00:00:00:00:00/ff:ff:ff:ff:ff:ff");
  auto m = EthAddrWithMask::fromString("02:00:00:12:34:56/ffff.ff00.0000");
  EXPECT_EQ(m.stringValue(), "02:00:00:12:34:56/ff:ff:ff:00:00:00");
  EXPECT_EQ(EthAddrWithMask::fromString(m.stringValue()), m);
  EXPECT_TRUE(m.matches(EthAddr::fromString("02:00:00:00:00:00")));
  EXPECT_TRUE(m.matches(EthAddr::fromString("02:00:00:ff:ff:ff")));
  EXPECT_FALSE(m.matches(EthAddr::fromString("00:1c:74:00:00:00")));
  EXPECT_TRUE(EthAddrWithMask(EthAddr(), EthAddr()).matches(EthAddr::broadcast()));
  EXPECT_FALSE(EthAddrWithMask().matches(EthAddr::broadcast()));
  EXPECT_NE(m, EthAddrWithMask(EthAddr::fromString("02:00:00:00:00:00"), m.mask()));

  for (char const* text : {"", "02:00:00:00:00:01", "02:00:00:00:00:01/", "/ff:ff:ff:ff:ff:ff",
                           "02:00:00:00:00:01/ff:ff:ff:ff:ff:ff/00:00:00:00:00:00"}) {
    EXPECT_THAT([&] { EthAddrWithMask::fromString(text); },
                ThrowsMessage<Zol::ParseError>(HasSubstr("'" + std::string(text) + "'")));
  }
  std::vector<EthAddrWithMask> values = {EthAddrWithMask(), m,
                                         EthAddrWithMask(m.addr(), EthAddr::broadcast())};
  EXPECT_TRUE(absl::VerifyTypeImplementsAbslHashCorrectly(values));
}
