#include "Vemo/MacStateStore.h"

#include <fcntl.h>
#include <rapidjson/document.h>
#include <rapidjson/encodedstream.h>
#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include "Zol/Json.h"

namespace Vemo {

namespace {

using Json = rapidjson::Value;

constexpr Zol::U16 kFirstVlan = 1;
constexpr Zol::U16 kLastVlan = 4094;
// Long enough for any reason naming one bad value; a megabyte of junk in a string is cut.
constexpr size_t kMaxReason = 300;

// Thrown inside parse; the text becomes the refusal.
struct Refusal : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Reasons end up in one log line: control characters are escaped.
std::string escaped(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (char c : s) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(c));
      out += hex;
    } else {
      out += c;
    }
  }
  return out;
}

// A megabyte of junk in one string must not make a megabyte of log: cut, without splitting a
// UTF-8 sequence.
std::string capped(std::string s) {
  if (s.size() <= kMaxReason) return s;
  size_t cut = kMaxReason;
  while (cut > 0 && (static_cast<unsigned char>(s[cut]) & 0xC0) == 0x80) --cut;
  s.resize(cut);
  return s + "...";
}

std::string oneLine(std::string_view s) { return capped(escaped(s)); }

// Escaped here: the exception's text is a C string, which would end at a NUL.
[[noreturn]] void refuse(std::string const& why) { throw Refusal(escaped(why)); }

// A value as a reason shows it: scalars as written, containers by kind only.
std::string shown(Json const& v) {
  if (v.IsArray() || v.IsObject()) return Zol::jsonTypeName(v);
  return Zol::jsonText(v);
}

std::string_view text(Json const& v) { return {v.GetString(), v.GetStringLength()}; }

bool keyLess(StoredMacEntry const* a, StoredMacEntry const* b) {
  if (a->key.vlanId() != b->key.vlanId()) return a->key.vlanId() < b->key.vlanId();
  return a->key.macAddr() < b->key.macAddr();
}

bool sameKey(StoredMacEntry const& a, StoredMacEntry const& b) {
  return a.key.vlanId() == b.key.vlanId() && a.key.macAddr() == b.key.macAddr();
}

std::string keyText(Bridging::MacVlanPair const& k) {
  return "VLAN " + std::to_string(k.vlanId().value()) + " MAC " + k.macAddr().stringValue();
}

// The entries in (VLAN, MAC) order; sorting pointers leaves the caller's snapshot as it is.
std::vector<StoredMacEntry const*> sortedView(MacStoreSnapshot const& s) {
  std::vector<StoredMacEntry const*> view;
  view.reserve(s.entries.size());
  for (auto const& e : s.entries) view.push_back(&e);
  if (!std::is_sorted(view.begin(), view.end(), keyLess)) {
    std::sort(view.begin(), view.end(), keyLess);
  }
  return view;
}

// --- Reading ---------------------------------------------------------------------------------

enum Field : unsigned { fVlan, fMac, fIntf, fType, fMoves, fLastMoveTime, fVteps, fNextHop };
constexpr std::string_view kFieldNames[] = {"vlan",  "mac",          "intf",  "type",
                                            "moves", "lastMoveTime", "vteps", "nextHop"};

Zol::U32 readU32(Json const& v, std::string_view what) {
  if (!v.IsUint()) {
    refuse(std::string(what) + " must be an integer from 0 to 4294967295, not " + shown(v));
  }
  return v.GetUint();
}

std::string_view readString(Json const& v, std::string_view what) {
  if (!v.IsString()) refuse(std::string(what) + " must be a string, not " + shown(v));
  std::string_view const t = text(v);
  // No name or address holds one, and the value parsers' messages are C strings that a NUL
  // would cut short.
  if (std::any_of(t.begin(), t.end(),
                  [](char c) { return static_cast<unsigned char>(c) < 0x20; })) {
    refuse(std::string(what) + " \"" + std::string(t) + "\" holds a control character");
  }
  return t;
}

// The value parsers of the network and generated types throw on bad text; their message names
// the text and what was expected.
template <class F>
auto parsedValue(std::string_view what, F&& parse) {
  try {
    return parse();
  } catch (Zol::ParseError const& e) {
    refuse(std::string(what) + ": " + e.what());
  } catch (Zol::RangeException const& e) {
    refuse(std::string(what) + ": " + e.what());
  }
}

Bridging::EntryType readType(Json const& v) {
  std::string_view const name = readString(v, "type");
  auto const t = parsedValue("type", [&] { return Zol::enumFromName<Bridging::EntryType>(name); });
  if (t == Bridging::EntryType::unknownMac) refuse("type unknownMac is no programmed entry");
  return t;
}

TunnelIpAddrList readVteps(Json const& v) {
  if (!v.IsArray() || v.Empty()) {
    refuse("vteps must be a list of at least one address, not " +
           (v.IsArray() ? std::string("an empty list") : shown(v)));
  }
  TunnelIpAddrList list;
  for (auto const& a : v.GetArray()) {
    std::string_view const t = readString(a, "vteps");
    auto const ip = parsedValue("vteps", [&] { return Nepo::IpAddr::fromString(t); });
    if (list.tunnelIpAddrHas(ip)) refuse("vteps holds " + ip.stringValue() + " twice");
    list.tunnelIpAddrIs(ip, true);
  }
  return list;
}

void readField(Field f, Json const& v, StoredMacEntry& e) {
  switch (f) {
    case fVlan: {
      if (!v.IsUint() || v.GetUint() < kFirstVlan || v.GetUint() > kLastVlan) {
        refuse("vlan must be an integer from 1 to 4094, not " + shown(v));
      }
      e.key.vlanIdIs(Bridging::VlanId(static_cast<Zol::U16>(v.GetUint())));
      break;
    }
    case fMac: {
      std::string_view const t = readString(v, "mac");
      e.key.macAddrIs(parsedValue("mac", [&] { return Nepo::EthAddr::fromString(t); }));
      break;
    }
    case fIntf: {
      std::string_view const t = readString(v, "intf");
      e.intf = parsedValue("intf", [&] { return Nepo::IntfId::fromString(t); });
      if (e.intf.isEmpty()) refuse("intf must name an interface");
      break;
    }
    case fType:
      e.entryType = readType(v);
      break;
    case fMoves:
      e.moves = readU32(v, "moves");
      break;
    case fLastMoveTime:
      // No JSON number reads as NaN or infinity (out-of-range ones are refused above); the check
      // keeps it so whatever reader comes next.
      if (!v.IsNumber() || !std::isfinite(v.GetDouble())) {
        refuse("lastMoveTime must be a finite number, not " + shown(v));
      }
      e.lastMoveTime = v.GetDouble();
      break;
    case fVteps:
      e.tunnelIps = readVteps(v);
      break;
    case fNextHop:
      e.nextHopId = VemoNextHopId(readU32(v, "nextHop"));
      break;
  }
}

StoredMacEntry readEntry(Json const& v) {
  if (!v.IsObject()) refuse("is " + shown(v) + ", not an object");
  StoredMacEntry e;
  unsigned seen = 0;
  for (auto const& m : v.GetObject()) {
    std::string_view const name = text(m.name);
    auto const it = std::find(std::begin(kFieldNames), std::end(kFieldNames), name);
    if (it == std::end(kFieldNames)) refuse("unknown member \"" + std::string(name) + "\"");
    auto const f = static_cast<Field>(it - std::begin(kFieldNames));
    if (seen & (1u << f)) refuse("member \"" + std::string(name) + "\" given twice");
    seen |= 1u << f;
    readField(f, m.value, e);
  }
  // Every member before vteps is required.
  for (unsigned f = 0; f < fVteps; ++f) {
    if (!(seen & (1u << f))) refuse("no member \"" + std::string(kFieldNames[f]) + "\"");
  }
  return e;
}

// RapidJSON 1.1's exact number conversion hands a zero to its normaliser (undefined behaviour)
// for a zero with a large negative exponent, "0e-30", and its fast one is not exact. So the
// reader passes numbers through as text and std::from_chars, which rounds correctly, converts
// them: a time reads back as the very double it was written from.
class ExactNumbers {
 public:
  using Ch = char;
  explicit ExactNumbers(rapidjson::Document& d) : d_(d) {}
  std::string const& error() const { return error_; }

  bool RawNumber(char const* s, rapidjson::SizeType n, bool) {
    char const* const end = s + n;
    if (std::find_if(s, end, [](char c) { return c == '.' || c == 'e' || c == 'E'; }) == end) {
      // An integer; past 64 bits it becomes a double, as RapidJSON's own reader makes it.
      if (*s == '-') {
        int64_t v = 0;
        if (std::from_chars(s, end, v).ec == std::errc()) return d_.Int64(v);
      } else {
        uint64_t v = 0;
        if (std::from_chars(s, end, v).ec == std::errc()) return d_.Uint64(v);
      }
    }
    double v = 0;
    auto const [stop, ec] = std::from_chars(s, end, v);
    if (ec != std::errc() || stop != end) {
      error_ = "number " + std::string(s, n) + " is out of range";
      return false;
    }
    return d_.Double(v);
  }
  bool Null() { return d_.Null(); }
  bool Bool(bool b) { return d_.Bool(b); }
  bool Int(int i) { return d_.Int(i); }
  bool Uint(unsigned u) { return d_.Uint(u); }
  bool Int64(int64_t i) { return d_.Int64(i); }
  bool Uint64(uint64_t u) { return d_.Uint64(u); }
  bool Double(double v) { return d_.Double(v); }
  bool String(char const* s, rapidjson::SizeType n, bool copy) { return d_.String(s, n, copy); }
  bool StartObject() { return d_.StartObject(); }
  bool Key(char const* s, rapidjson::SizeType n, bool copy) { return d_.Key(s, n, copy); }
  bool EndObject(rapidjson::SizeType n) { return d_.EndObject(n); }
  bool StartArray() { return d_.StartArray(); }
  bool EndArray(rapidjson::SizeType n) { return d_.EndArray(n); }

 private:
  rapidjson::Document& d_;
  std::string error_;
};

MacStoreSnapshot readSnapshot(std::string_view input) {
  rapidjson::Document doc;
  rapidjson::ParseResult result;
  std::string numberError;
  auto generate = [&](rapidjson::Document& d) {
    ExactNumbers handler(d);
    rapidjson::MemoryStream bytes(input.data(), input.size());
    rapidjson::EncodedInputStream<rapidjson::UTF8<>, rapidjson::MemoryStream> in(bytes);
    rapidjson::Reader reader;
    // Iterative, so that deep nesting cannot exhaust the stack.
    result = reader.Parse<rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseIterativeFlag>(
        in, handler);
    numberError = handler.error();
    return !result.IsError();
  };
  doc.Populate(generate);
  if (result.IsError()) {
    std::string_view message = rapidjson::GetParseError_En(result.Code());
    if (message.ends_with('.')) message.remove_suffix(1);
    std::string const where = " at offset " + std::to_string(result.Offset());
    if (!numberError.empty()) refuse(numberError + where);
    refuse("not JSON: " + std::string(message) + where);
  }
  Json const& root = doc;  // const: the mutable member iterators compare ambiguously in C++20
  if (!root.IsObject()) refuse("the file holds " + shown(root) + ", not an object");
  Json const* version = nullptr;
  Json const* entries = nullptr;
  for (auto const& m : root.GetObject()) {
    std::string_view const name = text(m.name);
    Json const** slot = name == "version" ? &version : name == "entries" ? &entries : nullptr;
    if (!slot) refuse("unknown member \"" + std::string(name) + "\"");
    if (*slot) refuse("member \"" + std::string(name) + "\" given twice");
    *slot = &m.value;
  }
  // The version first: another release's entries may not read as this one's.
  if (!version) refuse("no version");
  if (!version->IsInt() || version->GetInt() != MacStateStore::kVersion) {
    refuse("version " + shown(*version) + ", this release reads version " +
           std::to_string(MacStateStore::kVersion));
  }
  if (!entries) refuse("no entries");
  if (!entries->IsArray()) refuse("entries must be a list, not " + shown(*entries));

  MacStoreSnapshot s;
  s.entries.reserve(entries->Size());
  for (rapidjson::SizeType i = 0; i < entries->Size(); ++i) {
    try {
      s.entries.push_back(readEntry((*entries)[i]));
    } catch (Refusal const& r) {
      refuse("entries[" + std::to_string(i) + "]: " + r.what());
    }
  }
  auto less = [](StoredMacEntry const& a, StoredMacEntry const& b) { return keyLess(&a, &b); };
  if (!std::is_sorted(s.entries.begin(), s.entries.end(), less)) {
    std::sort(s.entries.begin(), s.entries.end(), less);
  }
  auto const dup = std::adjacent_find(s.entries.begin(), s.entries.end(), sameKey);
  if (dup != s.entries.end()) refuse("two entries for " + keyText(dup->key));
  return s;
}

// --- Writing ---------------------------------------------------------------------------------

// NaN and infinity are written as the non-JSON tokens NaN and Infinity rather than leaving a
// broken text; parse refuses them either way.
using Writer = rapidjson::Writer<rapidjson::StringBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>,
                                 rapidjson::CrtAllocator, rapidjson::kWriteNanAndInfFlag>;

void writeString(Writer& w, std::string const& s) {
  w.String(s.data(), static_cast<rapidjson::SizeType>(s.size()));
}

std::string textOf(std::vector<StoredMacEntry const*> const& view) {
  rapidjson::StringBuffer buf;
  // About what one local entry takes; saves the buffer's regrowth on large tables.
  buf.Reserve(64 + view.size() * 128);
  Writer w(buf);
  w.StartObject();
  w.Key("version");
  w.Int(MacStateStore::kVersion);
  w.Key("entries");
  w.StartArray();
  for (StoredMacEntry const* e : view) {
    w.StartObject();
    w.Key("vlan");
    w.Uint(e->key.vlanId().value());
    w.Key("mac");
    writeString(w, e->key.macAddr().stringValue());
    w.Key("intf");
    writeString(w, e->intf.stringValue());
    w.Key("type");
    std::string_view const type = Zol::enumName(e->entryType);
    w.String(type.data(), static_cast<rapidjson::SizeType>(type.size()));
    w.Key("moves");
    w.Uint(e->moves);
    w.Key("lastMoveTime");
    w.Double(e->lastMoveTime);
    if (e->tunnelIps.tunnelIpAddrSize() != 0) {
      w.Key("vteps");
      w.StartArray();
      for (auto const& [ip, member] : e->tunnelIps.tunnelIpAddrAll()) {
        writeString(w, ip.stringValue());
      }
      w.EndArray();
    }
    if (e->nextHopId != VemoNextHopId::invalid()) {
      w.Key("nextHop");
      w.Uint(e->nextHopId.value());
    }
    w.EndObject();
  }
  w.EndArray();
  w.EndObject();
  return std::string(buf.GetString(), buf.GetSize());
}

std::optional<std::string> checkView(std::vector<StoredMacEntry const*> const& view) {
  for (size_t i = 0; i < view.size(); ++i) {
    StoredMacEntry const& e = *view[i];
    auto bad = [&](std::string const& why) { return keyText(e.key) + ": " + why; };
    Zol::U16 const vlan = e.key.vlanId().value();
    if (vlan < kFirstVlan || vlan > kLastVlan) return bad("VLAN out of 1..4094");
    if (e.intf.isEmpty()) return bad("no interface");
    auto const type = static_cast<size_t>(e.entryType);
    if (e.entryType == Bridging::EntryType::unknownMac ||
        type >= std::size(Zol::EnumTraits<Bridging::EntryType>::names)) {
      return bad("type " + std::string(Zol::enumName(e.entryType)) + " is no programmed entry");
    }
    if (!std::isfinite(e.lastMoveTime)) {
      return bad("lastMoveTime " + std::to_string(e.lastMoveTime) + " is not finite");
    }
    for (auto const& [ip, member] : e.tunnelIps.tunnelIpAddrAll()) {
      if (!member) return bad("tunnel address " + ip.stringValue() + " marked false");
    }
    if (i > 0 && sameKey(*view[i - 1], e)) return bad("two entries");
  }
  return std::nullopt;
}

std::string errnoText(int err) { return std::system_category().message(err); }

}  // namespace

std::string MacStateStore::serialize(MacStoreSnapshot const& s) { return textOf(sortedView(s)); }

std::variant<MacStoreSnapshot, std::string> MacStateStore::parse(std::string_view input) {
  try {
    return readSnapshot(input);
  } catch (Refusal const& r) {
    return capped(r.what());
  }
}

std::optional<std::string> MacStateStore::check(MacStoreSnapshot const& s) {
  auto const why = checkView(sortedView(s));
  if (why) return oneLine(*why);
  return std::nullopt;
}

MacStateStore::Loaded MacStateStore::load(std::string const& path) {
  Loaded out;
  auto refused = [&](std::string const& why) {
    out.kind = Loaded::Kind::refused;
    out.reason = oneLine(path + ": " + why);
    return out;
  };
  int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    // Only a missing file is the normal start; a path that cannot even be looked at is not.
    int const err = errno;
    if (err == ENOENT) return out;
    return refused("cannot open: " + errnoText(err));
  }
  std::string data;
  struct stat st {};
  if (::fstat(fd, &st) == 0 && st.st_size > 0) data.reserve(static_cast<size_t>(st.st_size));
  char chunk[1 << 16];
  for (;;) {
    ssize_t const n = ::read(fd, chunk, sizeof chunk);
    if (n > 0) {
      data.append(chunk, static_cast<size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      int const err = errno;
      ::close(fd);
      return refused("cannot read: " + errnoText(err));
    }
  }
  ::close(fd);
  try {
    out.snapshot = readSnapshot(data);
  } catch (Refusal const& r) {
    return refused(r.what());
  }
  out.kind = Loaded::Kind::loaded;
  return out;
}

bool MacStateStore::save(std::string const& path, MacStoreSnapshot const& s, std::string* reason) {
  auto fail = [&](std::string const& why) {
    if (reason) *reason = oneLine(why);
    return false;
  };
  auto const view = sortedView(s);
  if (auto why = checkView(view)) return fail(path + ": not saved: " + *why);
  std::string const data = textOf(view);
  std::string const tmp = path + ".tmp";
  // O_TRUNC: a .tmp left by a save that crashed is simply overwritten.
  int const fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    int const err = errno;
    return fail("cannot create " + tmp + ": " + errnoText(err));
  }
  auto abandon = [&](std::string const& what, int err) {
    ::unlink(tmp.c_str());
    return fail(what + ": " + errnoText(err));
  };
  size_t done = 0;
  while (done < data.size()) {
    ssize_t const n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      int const err = errno;
      ::close(fd);
      return abandon("cannot write " + tmp, err);
    }
    done += static_cast<size_t>(n);
  }
  // close reports write errors some file systems defer.
  if (::close(fd) != 0) {
    int const err = errno;
    return abandon("cannot write " + tmp, err);
  }
  if (::rename(tmp.c_str(), path.c_str()) != 0) {
    int const err = errno;
    return abandon("cannot rename " + tmp + " to " + path, err);
  }
  return true;
}

}  // namespace Vemo
