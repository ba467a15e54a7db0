// Feeds arbitrary text to the ACL instance key parser. It must accept exactly what the key's
// pattern accepts, with the same groups, refuse everything else with "Invalid AclKey" or the
// VLAN's range error, and every key it accepts must print back to a text that parses to the
// same key.
//
// The groups are checked against a plain backtracking reading of the pattern
//   ^(\S+)-(ip|ipv6|mac)-(in|out)\(std=(false|true),vlanId=(\d+),aclGroup=(\S+)\)
// that knows nothing of the parser's shortcuts (first whitespace run, last parenthesis): it
// tries alternatives in order and quantifiers longest first, as a regex search does. It is
// quadratic at worst, so it only sees texts up to kReferenceMax bytes.
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Vemo/AclTypes.h"

namespace {

constexpr size_t kReferenceMax = 1024;

enum class Kind { literal, nonSpaces, digits, oneOf };

struct Node {
  Kind kind;
  std::vector<std::string_view> words;  // the literal, or the alternatives
  int group;                            // 0 for an uncaptured literal
};

std::array<Node, 12> const kPattern{{
    {Kind::nonSpaces, {}, 1},
    {Kind::literal, {"-"}, 0},
    {Kind::oneOf, {"ip", "ipv6", "mac"}, 2},
    {Kind::literal, {"-"}, 0},
    {Kind::oneOf, {"in", "out"}, 3},
    {Kind::literal, {"(std="}, 0},
    {Kind::oneOf, {"false", "true"}, 4},
    {Kind::literal, {",vlanId="}, 0},
    {Kind::digits, {}, 5},
    {Kind::literal, {",aclGroup="}, 0},
    {Kind::nonSpaces, {}, 6},
    {Kind::literal, {")"}, 0},
}};

bool classMember(Kind kind, char c) {
  if (kind == Kind::digits) return c >= '0' && c <= '9';
  return !(c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r');
}

using Groups = std::array<std::string_view, 7>;

bool matchFrom(std::string_view text, size_t node, size_t pos, Groups& groups) {
  if (node == kPattern.size()) return true;
  Node const& n = kPattern[node];
  std::string_view const rest = text.substr(pos);
  if (n.kind == Kind::literal || n.kind == Kind::oneOf) {
    for (std::string_view w : n.words) {
      if (!rest.starts_with(w)) continue;
      if (n.group) groups[n.group] = rest.substr(0, w.size());
      if (matchFrom(text, node + 1, pos + w.size(), groups)) return true;
    }
    return false;
  }
  size_t most = 0;
  while (most < rest.size() && classMember(n.kind, rest[most])) ++most;
  for (size_t len = most; len > 0; --len) {
    groups[n.group] = rest.substr(0, len);
    if (matchFrom(text, node + 1, pos + len, groups)) return true;
  }
  return false;
}

void checkAgainstReference(std::string_view text, std::optional<Vemo::AclKeyTextMatch> const& m) {
  Groups want;
  bool const found = matchFrom(text, 0, 0, want);
  if (found != m.has_value()) __builtin_trap();
  if (found && (want[1] != m->name || want[2] != m->type || want[3] != m->direction ||
                want[4] != m->standard || want[5] != m->vlanId || want[6] != m->aclGroup)) {
    __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string_view const text(reinterpret_cast<char const*>(data), size);
  auto const m = Vemo::matchAclKeyText(text);
  if (size <= kReferenceMax) checkAgainstReference(text, m);
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
