#include <absl/hash/hash_testing.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Nepo/MplsLabel.h"
#include "Zol/Text.h"
#include "Zol/Types.h"

using Nepo::MplsLabel;
using testing::HasSubstr;
using testing::ThrowsMessage;

static_assert(Zol::StringLike<MplsLabel>);

TEST(MplsLabel, ParsesTwentyBitValues) {
  EXPECT_EQ(MplsLabel::fromString("1048575"), MplsLabel(MplsLabel::max));
  EXPECT_EQ(MplsLabel(16).stringValue(), "16");
  EXPECT_TRUE(MplsLabel(15).isReserved());
  EXPECT_FALSE(MplsLabel(16).isReserved());
  EXPECT_LT(MplsLabel(9), MplsLabel(10));
  EXPECT_THAT([] { MplsLabel(1048576); }, ThrowsMessage<Zol::RangeException>(HasSubstr("1048576")));
  for (char const* text : {"1048576", "4294967296"}) {
    EXPECT_THAT([&] { MplsLabel::fromString(text); },
                ThrowsMessage<Zol::RangeException>(HasSubstr("'" + std::string(text) + "'")));
  }
  for (char const* text : {"", "-1", "+1", "12a", "0x10", " 1"}) {
    EXPECT_THAT([&] { MplsLabel::fromString(text); },
                ThrowsMessage<Zol::ParseError>(HasSubstr("'" + std::string(text) + "'")));
  }
  EXPECT_TRUE(
      absl::VerifyTypeImplementsAbslHashCorrectly({MplsLabel(), MplsLabel(3), MplsLabel(1000)}));
}
