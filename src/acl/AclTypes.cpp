// The text form of an AclKey (name-type-direction(std=...,vlanId=...,aclGroup=...)) and the
// ranges a port match (PortSpec) stands for.
#include "Vemo/AclTypes.h"

#include <algorithm>
#include <ostream>

#include "Zol/Text.h"

namespace Vemo {

std::ostream& operator<<(std::ostream& os, AclL4Mask const& f) {
  if (f.mask != 0) return os << f.start << "/0x" << std::hex << f.mask << std::dec;
  return os << f.start << "-" << f.end;
}

namespace {

// \s and \d of the pattern, as the C locale classifies characters.
bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Takes word off the front of s.
bool take(std::string_view& s, std::string_view word) {
  if (!s.starts_with(word)) return false;
  s.remove_prefix(word.size());
  return true;
}

// The first of the words that s starts with followed by next (the alternatives of one group
// never share such a prefix, so the first one that fits is the only one).
std::optional<std::string_view> takeOneOf(std::string_view& s,
                                          std::initializer_list<std::string_view> words,
                                          std::string_view next) {
  for (std::string_view w : words) {
    if (s.starts_with(w) && s.substr(w.size()).starts_with(next)) {
      s.remove_prefix(w.size() + next.size());
      return w;
    }
  }
  return std::nullopt;
}

// Everything after the name. run ends at the first whitespace and lastParen is the last ')' in
// it: aclGroup, a greedy \S+, runs up to that one.
std::optional<AclKeyTextMatch> matchAfterName(std::string_view s, size_t runEnd, size_t lastParen) {
  AclKeyTextMatch m;
  if (!take(s, "-")) return std::nullopt;
  auto type = takeOneOf(s, {"ip", "ipv6", "mac"}, "-");
  if (!type) return std::nullopt;
  auto direction = takeOneOf(s, {"in", "out"}, "(std=");
  if (!direction) return std::nullopt;
  auto standard = takeOneOf(s, {"false", "true"}, ",vlanId=");
  if (!standard) return std::nullopt;
  size_t digits = 0;
  while (digits < s.size() && isDigit(s[digits])) ++digits;
  if (digits == 0) return std::nullopt;
  m.vlanId = s.substr(0, digits);
  s.remove_prefix(digits);
  if (!take(s, ",aclGroup=")) return std::nullopt;
  // s now starts at the group: the offset of s in the run is runEnd - s.size().
  size_t const groupStart = runEnd - s.size();
  if (lastParen == std::string_view::npos || lastParen < groupStart + 1) return std::nullopt;
  m.type = *type;
  m.direction = *direction;
  m.standard = *standard;
  m.aclGroup = s.substr(0, lastParen - groupStart);
  return m;
}

}  // namespace

std::optional<AclKeyTextMatch> matchAclKeyText(std::string_view text) {
  // No part of the pattern matches whitespace, so a match lies in the first run without any.
  size_t runEnd = 0;
  while (runEnd < text.size() && !isSpace(text[runEnd])) ++runEnd;
  std::string_view const run = text.substr(0, runEnd);
  size_t const lastParen = run.rfind(')');
  // The name is greedy: the longest one that the rest of the pattern can follow.
  for (size_t p = runEnd; p-- > 1;) {
    if (run[p] != '-') continue;
    if (auto m = matchAfterName(run.substr(p), runEnd, lastParen)) {
      m->name = run.substr(0, p);
      return m;
    }
  }
  return std::nullopt;
}

std::string AclKey::text() const {
  std::string out = name_;
  out += '-';
  out += Zol::enumName(type_);
  out += '-';
  out += Zol::enumName(direction_);
  out += standard_ ? "(std=true" : "(std=false";
  out += ",vlanId=";
  out += std::to_string(vlanId_.value());
  out += ",aclGroup=";
  out += aclGroup_;
  out += ')';
  return out;
}

AclKey AclKey::fromText(std::string_view text) {
  auto const m = matchAclKeyText(text);
  if (!m) throw Zol::ParseError("Invalid AclKey");
  AclKey k;
  k.name_ = m->name;
  k.type_ = Zol::enumFromName<Acl::AclType>(m->type);
  k.direction_ = Zol::enumFromName<Acl::AclDirection>(m->direction);
  k.standard_ = m->standard == "true";
  // Saturate, so that any number of digits above the limit gets the VLAN's own range error.
  Zol::U32 vlan = 0;
  for (char c : m->vlanId)
    vlan = std::min<Zol::U32>(vlan * 10 + static_cast<Zol::U32>(c - '0'), 65535);
  k.vlanId_ = AclVlanIdOrNone(static_cast<Zol::U16>(vlan));
  k.aclGroup_ = m->aclGroup;
  return k;
}

}  // namespace Vemo

namespace Acl {

std::optional<MatchRangeList> PortSpec::ranges() const {
  if (oper_ == PortOper::portAny) return MatchRangeList();
  constexpr Zol::U16 top = 0xFFFF;
  std::array<Zol::U16, maxValues> v{};
  std::copy_n(value_.begin(), count_, v.begin());
  auto const first = v.begin();
  auto const last = v.begin() + count_;
  MatchRangeList out;
  switch (oper_) {
    case PortOper::portAny:
      return out;
    case PortOper::portLt:
      if (count_ != 1 || v[0] == 0) return std::nullopt;
      out.add(MatchRange(0, static_cast<Zol::U16>(v[0] - 1)));
      return out;
    case PortOper::portGt:
      if (count_ != 1 || v[0] == top) return std::nullopt;
      out.add(MatchRange(static_cast<Zol::U16>(v[0] + 1), top));
      return out;
    case PortOper::portRange:
      if (count_ != 2 || v[0] > v[1]) return std::nullopt;
      out.add(MatchRange(v[0], v[1]));
      return out;
    case PortOper::portEq: {
      if (count_ == 0) return std::nullopt;
      std::sort(first, last);
      // Neighbouring values make one range: eq 80 81 82 is 80..82.
      for (auto it = first; it != last;) {
        Zol::U16 const low = *it;
        Zol::U16 high = low;
        for (++it; it != last && (*it == high || *it == high + 1); ++it) high = *it;
        out.add(MatchRange(low, high));
      }
      return out;
    }
    case PortOper::portNeq: {
      if (count_ == 0) return std::nullopt;
      std::sort(first, last);
      // The gaps between the excluded values; at most maxValues + 1 of them.
      Zol::U32 next = 0;
      for (auto it = first; it != last; ++it) {
        if (*it > next)
          out.add(MatchRange(static_cast<Zol::U16>(next), static_cast<Zol::U16>(*it - 1)));
        next = std::max<Zol::U32>(next, Zol::U32{*it} + 1);
      }
      if (next <= top) out.add(MatchRange(static_cast<Zol::U16>(next), top));
      if (out.isEmpty()) return std::nullopt;
      return out;
    }
  }
  return std::nullopt;
}

}  // namespace Acl
