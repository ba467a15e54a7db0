// Feeds arbitrary text to the text parsers of generated value types and of the network types.
// Whatever parses must print to a text that parses back to an equal value, and a parsed bitmap
// must hold the unit count its writers would give it.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

#include "Nepo/EthAddr.h"
#include "Nepo/IntfId.h"
#include "Nepo/IpAddr.h"
#include "Nepo/IpPrefix.h"
#include "Zol/Text.h"
#include "Zol/Types.h"
#include "ZolGen/VemoCommon.h"
#include "ZolGen/VemoTypes.h"

namespace {

[[noreturn]] void mismatch(char const* type, std::string_view input, std::string const& printed,
                           std::string const& reprinted) {
  std::fprintf(stderr, "%s: round trip changed the value\n  input:    %.*s\n  printed:  %s\n", type,
               static_cast<int>(input.size()), input.data(), printed.c_str());
  std::fprintf(stderr, "  reparsed: %s\n", reprinted.c_str());
  __builtin_trap();
}

// Parse, print, parse again: the second value must equal the first and print the same. Parse
// errors are the expected answer to most inputs; any other exception escapes and the fuzzer
// reports it.
// Most values have no invariant beyond what the round trip shows.
template <class T>
bool consistent(T const&) {
  return true;
}

// A bitmap rebuilt unit by unit through its writers must come out equal, count included: a
// count that hides units (or claims empty ones) would not.
bool consistent(VemoTypes::Bitmap const& b) {
  VemoTypes::Bitmap rebuilt;
  for (Zol::U32 i = 0; i < 32; ++i) {
    VemoTypes::BitmapIndex const u(i);
    if (!b.unitBitmap(u).isZero()) rebuilt.unitBitmapIs(u, b.unitBitmap(u));
  }
  return rebuilt == b && rebuilt.unitBmpQuantity() == b.unitBmpQuantity();
}

template <class T, class Parse>
void roundTrip(char const* type, std::string_view text, Parse parse) {
  T first;
  try {
    first = parse(text);
  } catch (Zol::ParseError const&) {
    return;
  } catch (Zol::RangeException const&) {
    return;
  } catch (Zol::BindError const&) {
    return;
  }
  std::string const printed = first.stringValue();
  if (!consistent(first)) mismatch(type, text, printed, "(not rebuilt by its writers)");
  T second;
  try {
    second = parse(printed);
  } catch (std::exception const& e) {
    // A printed value that does not parse is as wrong as one that parses differently.
    mismatch(type, text, printed, std::string("exception: ") + e.what());
  }
  std::string const reprinted = second.stringValue();
  if (!(first == second) || reprinted != printed) mismatch(type, text, printed, reprinted);
}

template <class T>
void valueRoundTrip(char const* type, std::string_view text) {
  roundTrip<T>(type, text, [](std::string_view s) { return Zol::valueFromString<T>(s); });
}

template <class T>
void nepoRoundTrip(char const* type, std::string_view text) {
  roundTrip<T>(type, text, [](std::string_view s) { return T::fromString(s); });
}

// The type a generated value's text names, or "" when it names none. A value parser refuses
// every other name at once, so only the named type's parser has anything to explore.
std::string namedType(std::string_view text) {
  Zol::TextParser p(text);
  if (!p.consume("Value(") || p.peek() != '\'') return "";
  try {
    return p.quoted();
  } catch (Zol::ParseError const&) {
    return "";
  }
}

void valueRoundTrips(std::string_view text) {
  std::string const type = namedType(text);
  if (type == "Vemo::AsyncOperationResult") {
    valueRoundTrip<Vemo::AsyncOperationResult>("Vemo::AsyncOperationResult", text);
  } else if (type == "VemoTypes::Bitmap") {
    valueRoundTrip<VemoTypes::Bitmap>("VemoTypes::Bitmap", text);
  } else if (type == "VemoTypes::BitmapPosition") {
    valueRoundTrip<VemoTypes::BitmapPosition>("VemoTypes::BitmapPosition", text);
  } else if (type == "Vemo::VemoLagPortList") {
    valueRoundTrip<Vemo::VemoLagPortList>("Vemo::VemoLagPortList", text);
  } else {
    // Its own name, or a malformed or unknown one: the prefix parsing is the same for all.
    valueRoundTrip<Vemo::WevlLevels>("Vemo::WevlLevels", text);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string_view const text(reinterpret_cast<char const*>(data), size);
  // Generated values all start with "Value(" and the network types never do, so each group only
  // sees the texts it could accept; the others would fail at the first character.
  size_t const start = text.find_first_not_of(" \t\r\n");
  if (start != std::string_view::npos && text.substr(start).starts_with("Value(")) {
    valueRoundTrips(text);
  } else {
    nepoRoundTrip<Nepo::IntfId>("Nepo::IntfId", text);
    nepoRoundTrip<Nepo::EthAddr>("Nepo::EthAddr", text);
    nepoRoundTrip<Nepo::IpAddr>("Nepo::IpAddr", text);
    nepoRoundTrip<Nepo::IpPrefix>("Nepo::IpPrefix", text);
  }
  return 0;
}
