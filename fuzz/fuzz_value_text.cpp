// Feeds arbitrary text to the text parsers of generated value types and of the network types.
// Whatever parses must print to a text that parses back to an equal value.
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::string_view const text(reinterpret_cast<char const*>(data), size);
  // Generated values all start with "Value(" and the network types never do, so each group only
  // sees the texts it could accept; the others would fail at the first character.
  size_t const start = text.find_first_not_of(" \t\r\n");
  if (start != std::string_view::npos && text.substr(start).starts_with("Value(")) {
    valueRoundTrip<Vemo::WevlLevels>("Vemo::WevlLevels", text);
    valueRoundTrip<Vemo::AsyncOperationResult>("Vemo::AsyncOperationResult", text);
    valueRoundTrip<VemoTypes::Bitmap>("VemoTypes::Bitmap", text);
    valueRoundTrip<VemoTypes::BitmapPosition>("VemoTypes::BitmapPosition", text);
    valueRoundTrip<Vemo::VemoLagPortList>("Vemo::VemoLagPortList", text);
  } else {
    nepoRoundTrip<Nepo::IntfId>("Nepo::IntfId", text);
    nepoRoundTrip<Nepo::EthAddr>("Nepo::EthAddr", text);
    nepoRoundTrip<Nepo::IpAddr>("Nepo::IpAddr", text);
    nepoRoundTrip<Nepo::IpPrefix>("Nepo::IpPrefix", text);
  }
  return 0;
}
