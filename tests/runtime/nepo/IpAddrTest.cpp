#include <absl/hash/hash_testing.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "Nepo/IpAddr.h"
#include "Nepo/IpPrefix.h"
#include "Zol/Text.h"
#include "Zol/Types.h"

using Nepo::IpAddr;
using Nepo::IpPrefix;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::ThrowsMessage;

static_assert(Zol::StringLike<IpAddr> && Zol::StringLike<IpPrefix>);

TEST(IpAddr, ParsesPrintsConvertsAndOrders) {
  IpAddr v4 = IpAddr::fromString("10.1.2.3");
  EXPECT_TRUE(v4.isV4());
  EXPECT_EQ(v4.v4HostOrder(), 0x0a010203u);
  EXPECT_EQ(IpAddr::fromV4HostOrder(0x0a010203u), v4);
  EXPECT_THAT(v4.bytes(), ElementsAre(10, 1, 2, 3));
  EXPECT_EQ(v4.stringValue(), "10.1.2.3");
  EXPECT_EQ(IpAddr(), IpAddr::fromString("0.0.0.0"));

  IpAddr v6 = IpAddr::fromString("2001:DB8:0:0::1");
  EXPECT_TRUE(v6.isV6());
  EXPECT_EQ(v6.stringValue(), "2001:db8::1");
  EXPECT_EQ(IpAddr::fromBytes(v6.bytes()), v6);
  EXPECT_EQ(IpAddr::fromString("::ffff:1.2.3.4").stringValue(), "::ffff:1.2.3.4");
  EXPECT_THROW(IpAddr::fromBytes(std::vector<uint8_t>(5)), Zol::RangeException);

  for (char const* text :
       {"", "1.2.3", "256.1.1.1", "1.2.3.4.5", "1.2.3.4/8", " 1.2.3.4", "::g", "fe80::1%eth0",
        "1:2:3:4:5:6:7:8:9", "0000:0000:0000:0000:0000:0000:1"}) {
    EXPECT_THAT([&] { IpAddr::fromString(text); },
                ThrowsMessage<Zol::ParseError>(HasSubstr("'" + std::string(text) + "'")));
  }

  EXPECT_TRUE(IpAddr::fromString("239.1.1.1").isMulticast());
  EXPECT_FALSE(IpAddr::fromString("240.1.1.1").isMulticast());
  EXPECT_TRUE(IpAddr::fromString("::1").isLoopback());
  EXPECT_FALSE(IpAddr::fromString("::100").isLoopback());

  // Every IPv4 address first, then by bytes.
  std::vector<IpAddr> sorted;
  for (char const* text : {"0.0.0.0", "9.255.255.255", "10.0.0.0", "10.0.0.1", "255.255.255.255",
                           "::", "::1", "1::", "ff02::1"}) {
    sorted.push_back(IpAddr::fromString(text));
  }
  EXPECT_TRUE(std::is_sorted(sorted.begin(), sorted.end()));
  EXPECT_TRUE(std::adjacent_find(sorted.begin(), sorted.end()) == sorted.end());
  EXPECT_TRUE(absl::VerifyTypeImplementsAbslHashCorrectly(sorted));
}

TEST(IpPrefix, MasksParsesAndContains) {
  EXPECT_EQ(IpPrefix().stringValue(), "0.0.0.0/0");
  EXPECT_EQ(IpPrefix::fromString("10.1.2.3/8").stringValue(), "10.0.0.0/8");
  EXPECT_EQ(IpPrefix::fromString("10.255.0.0/9").stringValue(), "10.128.0.0/9");
  EXPECT_EQ(IpPrefix::fromString("2001:db8:ffff::1/33").stringValue(), "2001:db8:8000::/33");

  IpPrefix p = IpPrefix::fromString("10.128.0.0/9");
  EXPECT_TRUE(p.contains(IpAddr::fromString("10.200.1.1")));
  EXPECT_FALSE(p.contains(IpAddr::fromString("10.127.255.255")));
  EXPECT_FALSE(p.contains(IpAddr::fromString("::")));
  EXPECT_TRUE(IpPrefix().contains(IpAddr::fromString("255.1.1.1")));
  EXPECT_FALSE(IpPrefix().contains(IpAddr::fromString("::1")));
  EXPECT_TRUE(p.contains(IpPrefix::fromString("10.130.0.0/16")));
  EXPECT_FALSE(p.contains(IpPrefix::fromString("10.0.0.0/8")));

  for (char const* text : {"", "10.0.0.0", "10.0.0.0/", "10.0.0.0/x", "10.0.0.0/-1", "10.0.0.0/8 ",
                           "x/8", "10.0.0/8", "10.0.0.0/8/8"}) {
    EXPECT_THAT([&] { IpPrefix::fromString(text); },
                ThrowsMessage<Zol::ParseError>(HasSubstr("'" + std::string(text) + "'")));
  }
  for (char const* text : {"10.0.0.0/33", "::/129", "10.0.0.0/99999999999"}) {
    EXPECT_THAT([&] { IpPrefix::fromString(text); },
                ThrowsMessage<Zol::RangeException>(HasSubstr("'" + std::string(text) + "'")));
  }
  EXPECT_THROW(IpPrefix(IpAddr(), 33), Zol::RangeException);

  std::vector<IpPrefix> sorted;
  for (char const* text : {"0.0.0.0/0", "10.0.0.0/8", "10.0.0.0/16", "10.1.0.0/16", "::/0"}) {
    sorted.push_back(IpPrefix::fromString(text));
  }
  EXPECT_TRUE(std::is_sorted(sorted.begin(), sorted.end()));
  EXPECT_TRUE(absl::VerifyTypeImplementsAbslHashCorrectly(sorted));
}
