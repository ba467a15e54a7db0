// What the simulated helpers' tests share: a helper's verification, as the texts it reported.
#pragma once

#include <string>
#include <vector>

#include "Vemo/VemoCommon.h"

namespace simtest {

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
