#include "Nepo/IntfId.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <ostream>

#include "Zol/Types.h"

namespace Nepo {

namespace {

struct KindInfo {
  std::string_view name;
  unsigned minNumbers;
  unsigned maxNumbers;
  uint32_t minFirst;
  uint32_t maxFirst;
  bool hasSubIntfs;
};

constexpr uint32_t anyFirst = IntfId::maxFirstNumber;

// Indexed by the kind stored in the word (never a sub-interface kind).
constexpr std::array<KindInfo, 12> kinds{{
    {"", 0, 0, 0, 0, false},
    {"Ethernet", 1, 3, 0, anyFirst, true},
    {"Port-Channel", 1, 1, 1, anyFirst, true},
    {"Vlan", 1, 1, 1, 4094, false},
    {"Vxlan", 1, 1, 0, anyFirst, false},
    {"Tunnel", 1, 1, 0, anyFirst, false},
    {"Pseudowire", 1, 1, 0, anyFirst, false},
    {"Loopback", 1, 1, 0, anyFirst, false},
    {"Management", 1, 2, 0, anyFirst, false},
    {"Cpu", 0, 0, 0, 0, false},
    {"PeerEthernet", 1, 3, 0, anyFirst, false},
    {"PeerPort-Channel", 1, 1, 1, anyFirst, false},
}};
static_assert(kinds.size() == static_cast<size_t>(IntfKind::EthernetSubIntf));
static_assert(kinds[static_cast<size_t>(IntfKind::Cpu)].name == "Cpu");
static_assert(kinds[static_cast<size_t>(IntfKind::PeerPortChannel)].name == "PeerPort-Channel");

std::string displayName(unsigned kind) {
  if (kind == 0) return "the empty identifier";
  if (kind < kinds.size()) return std::string(kinds[kind].name);
  return "a sub-interface kind";
}

std::string firstRange(KindInfo const& k) {
  return std::string(k.name) + " numbers are " + std::to_string(k.minFirst) + ".." +
         std::to_string(k.maxFirst);
}

// The word for a name's parts, or the reason there is none.
struct Encoded {
  uint64_t word = 0;
  std::string error;
};

Encoded encode(unsigned kind, uint32_t const* numbers, unsigned count, bool isSubIntf,
               uint32_t subIntfId) {
  KindInfo const& k = kinds[kind];
  if (count < k.minNumbers || count > k.maxNumbers) {
    if (k.maxNumbers == 0) return {0, displayName(kind) + " takes no numbers"};
    return {0, displayName(kind) + " takes " + std::to_string(k.minNumbers) +
                   (k.minNumbers == k.maxNumbers ? "" : " to " + std::to_string(k.maxNumbers)) +
                   (k.maxNumbers == 1 ? " number" : " numbers")};
  }
  // The layout is described in IntfId.h.
  uint64_t word = uint64_t{kind} << 60;
  if (count > 0) {
    if (numbers[0] < k.minFirst || numbers[0] > k.maxFirst) return {0, firstRange(k)};
    word |= uint64_t{numbers[0]} << 40;
  }
  for (unsigned i = 1; i < count; ++i) {
    if (numbers[i] > IntfId::maxOtherNumber) {
      return {0, "numbers after the first are 0.." + std::to_string(IntfId::maxOtherNumber)};
    }
    word |= uint64_t{numbers[i] + 1} << (i == 1 ? 30 : 20);
  }
  if (isSubIntf) {
    if (!k.hasSubIntfs) return {0, std::string(k.name) + " interfaces have no sub-interfaces"};
    if (subIntfId < 1 || subIntfId > IntfId::maxSubIntfId) {
      return {0, "sub-interface ids are 1.." + std::to_string(IntfId::maxSubIntfId)};
    }
    word |= subIntfId;
  }
  return {word, {}};
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Digits from text[pos], without leading zeros; values too big for a uint32 come back as the
// largest one, which no limit admits.
bool parseNumber(std::string_view text, size_t& pos, uint32_t& value) {
  size_t start = pos;
  uint64_t v = 0;
  while (pos < text.size() && isDigit(text[pos])) {
    v = std::min<uint64_t>(v * 10 + static_cast<uint64_t>(text[pos] - '0'), UINT32_MAX);
    ++pos;
  }
  if (pos == start || (text[start] == '0' && pos - start > 1)) return false;
  value = static_cast<uint32_t>(v);
  return true;
}

void appendNumber(std::string& out, uint64_t v) {
  char buf[24];
  auto end = std::to_chars(buf, buf + sizeof buf, v).ptr;
  out.append(buf, end);
}

}  // namespace

IntfId::IntfId(IntfKind kind, std::initializer_list<uint32_t> numbers) {
  auto index = static_cast<unsigned>(kind);
  std::string error;
  if (index >= kinds.size()) {
    error = "sub-interfaces are made with subIntf()";
  } else if (numbers.size() > 3) {
    error = "names have at most 3 numbers";
  } else {
    Encoded e = encode(index, numbers.begin(), static_cast<unsigned>(numbers.size()), false, 0);
    word_ = e.word;
    error = std::move(e.error);
  }
  if (!error.empty()) {
    std::string list;
    for (uint32_t n : numbers) {
      if (!list.empty()) list += ", ";
      list += std::to_string(n);
    }
    throw Zol::RangeException(displayName(index) + " {" + list + "} is not an interface: " + error);
  }
}

IntfId IntfId::fromString(std::string_view text) {
  if (text.empty()) return IntfId();
  auto fail = [text](std::string const& why) {
    throw Zol::ParseError("'" + std::string(text) + "' is not an interface name" +
                          (why.empty() ? "" : ": " + why));
  };
  size_t pos = 0;
  while (pos < text.size() && !isDigit(text[pos])) ++pos;
  std::string_view name = text.substr(0, pos);
  unsigned kind = 1;
  while (kind < kinds.size() && kinds[kind].name != name) ++kind;
  if (kind == kinds.size()) fail("");

  uint32_t numbers[3] = {};
  unsigned count = 0;
  bool isSubIntf = false;
  uint32_t subIntfId = 0;
  while (pos < text.size()) {
    if (count == 3) fail("names have at most 3 numbers");
    if (!parseNumber(text, pos, numbers[count++])) fail("");
    if (pos == text.size()) break;
    char sep = text[pos++];
    if (sep == '.') {
      isSubIntf = true;
      if (!parseNumber(text, pos, subIntfId) || pos != text.size()) fail("");
    } else if (sep != '/' || pos == text.size()) {
      fail("");
    }
  }
  Encoded e = encode(kind, numbers, count, isSubIntf, subIntfId);
  if (!e.error.empty()) fail(e.error);
  return IntfId(e.word);
}

std::string IntfId::stringValue() const {
  std::string out(kinds[word_ >> kindShift].name);
  for (unsigned i = 0, n = numberCount(); i < n; ++i) {
    if (i) out += '/';
    appendNumber(out, number(i));
  }
  if (isSubIntf()) {
    out += '.';
    appendNumber(out, subIntfId());
  }
  return out;
}

IntfId IntfId::subIntf(uint32_t id) const {
  if (isSubIntf() || (!isEthernet() && !isPortChannel())) {
    throw Zol::RangeException("'" + stringValue() + "' has no sub-interfaces");
  }
  if (id < 1 || id > maxSubIntfId) {
    throw Zol::RangeException("sub-interface " + std::to_string(id) + " of '" + stringValue() +
                              "' is out of range: ids are 1.." + std::to_string(maxSubIntfId));
  }
  return IntfId(word_ | id);
}

unsigned IntfId::numberCount() const {
  if ((word_ >> thirdShift) & 0x3ff) return 3;
  if ((word_ >> secondShift) & 0x3ff) return 2;
  return kinds[word_ >> kindShift].minNumbers;
}

uint32_t IntfId::number(unsigned i) const {
  if (i >= numberCount()) return 0;
  switch (i) {
    case 0:
      return static_cast<uint32_t>((word_ >> firstShift) & maxFirstNumber);
    case 1:
      return static_cast<uint32_t>((word_ >> secondShift) & 0x3ff) - 1;
    default:
      return static_cast<uint32_t>((word_ >> thirdShift) & 0x3ff) - 1;
  }
}

std::ostream& operator<<(std::ostream& os, IntfId const& v) { return os << v.stringValue(); }

}  // namespace Nepo
