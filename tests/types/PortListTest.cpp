#include <gtest/gtest.h>

#include "Vemo/VemoCommon.h"

namespace {

using Nepo::IntfId;
using Vemo::VemoLagPort;

TEST(PortLists, CompareAndHashByContentAndPrintTheirMembers) {
  IntfId const eth1 = IntfId::fromString("Ethernet1"), eth2 = IntfId::fromString("Ethernet2/1");
  Vemo::VemoPortList a, b;
  a.portIs(eth1, true);
  a.portIs(eth2, true);
  b.portIs(eth2, true);
  b.portIs(eth1, true);
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(), b.hash());
  b.portIs(eth2, false);
  EXPECT_NE(a, b);

  Vemo::VemoLagPortList x, y;
  x.portIs(eth1, VemoLagPort(true, false));
  x.portIs(eth2, VemoLagPort(true, true));
  y.portIs(eth2, VemoLagPort(true, true));
  y.portIs(eth1, VemoLagPort(true, false));
  EXPECT_EQ(x, y);
  EXPECT_EQ(x.hash(), y.hash());
  y.portIs(eth1, VemoLagPort(true, true));
  EXPECT_NE(x, y);
  EXPECT_NE(x.hash(), y.hash());

  EXPECT_EQ(VemoLagPort(true, false).stringValue(),
            "Value('Vemo::VemoLagPort', ** {'collecting': True, 'distributing': False})");
  EXPECT_EQ(Zol::valueFromString<Vemo::VemoLagPortList>(x.stringValue()), x);
  EXPECT_EQ(Zol::valueFromString<Vemo::VemoPortList>(a.stringValue()), a);
}

}  // namespace
