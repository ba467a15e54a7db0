// What the simulated chip's and helpers' tests share: names for ports, hosts and port-channel
// members, and a helper's verification as the texts it reported.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Sim/Chip.h"
#include "Vemo/VemoCommon.h"

namespace simtest {

using Nepo::EthAddr;
using Nepo::IntfId;
using sim::Status;
using sim::Table;
using testing::ElementsAre;
using testing::IsEmpty;

inline IntfId intf(std::string_view name) { return IntfId::fromString(name); }
// Host n: 02:00:00:00:00:0n.
inline EthAddr mac(uint64_t n) { return EthAddr::fromValue(0x020000000000 + n); }

inline Vemo::VemoLagPortList membersOf(std::initializer_list<std::string_view> names) {
  Vemo::VemoLagPortList list;
  for (auto name : names) list.portIs(intf(name), Vemo::VemoLagPort(true, true));
  return list;
}

// Clears the verification store, runs the helper's handleVerify and returns what it reported.
template <class Helper>
std::vector<std::string> verifyTexts(Vemo::VemoCommonSmData const& cd, Helper& helper) {
  cd.verifyData()->mismatchDelAll();
  helper.handleVerify();
  std::vector<std::string> texts;
  for (auto const& [seq, m] : cd.verifyData()->mismatchAll()) texts.push_back(m.text());
  return texts;
}

}  // namespace simtest
