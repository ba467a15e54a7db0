// Feeds arbitrary text to the ACL instance key parser. It must accept exactly what the key's
// pattern accepts, with the same groups (checked against std::regex on short texts, where its
// recursion is safe), refuse everything else with "Invalid AclKey" or the VLAN's range error,
// and every key it accepts must print back to a text that parses to the same key.
#include <cstddef>
#include <cstdint>
#include <regex>
#include <string>
#include <string_view>

#include "Vemo/AclTypes.h"

namespace {

std::regex const& pattern() {
  static std::regex const re(
      R"(^(\S+)-(ip|ipv6|mac)-(in|out)\(std=(false|true),vlanId=(\d+),aclGroup=(\S+)\))");
  return re;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string const text(reinterpret_cast<char const*>(data), size);
  auto const m = Vemo::matchAclKeyText(text);
  if (size <= 256) {
    std::smatch want;
    bool const found = std::regex_search(text, want, pattern());
    if (found != m.has_value()) __builtin_trap();
    if (found && (want[1].str() != m->name || want[2].str() != m->type ||
                  want[3].str() != m->direction || want[4].str() != m->standard ||
                  want[5].str() != m->vlanId || want[6].str() != m->aclGroup)) {
      __builtin_trap();
    }
  }
  try {
    Vemo::AclKey const key = Vemo::AclKey::fromText(text);
    if (!m || Vemo::AclKey::fromText(key.text()) != key) __builtin_trap();
  } catch (Zol::ParseError const& e) {
    if (m || std::string_view(e.what()) != "Invalid AclKey") __builtin_trap();
  } catch (Zol::RangeException const&) {
    if (!m) __builtin_trap();
  }
  return 0;
}
