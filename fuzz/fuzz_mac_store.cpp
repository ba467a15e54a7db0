// Feeds arbitrary bytes to the MAC state store's reader. Whatever it accepts must be a snapshot
// the store would save, and must write to a text that reads back to an equal snapshot and writes
// out the same again: a restarted agent reads exactly the state its predecessor saved.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <variant>

#include "Vemo/MacStateStore.h"

namespace {

[[noreturn]] void mismatch(char const* what, std::string_view input, std::string const& detail) {
  std::fprintf(stderr, "mac store: %s\n  input:  %.*s\n  detail: %s\n", what,
               static_cast<int>(input.size()), input.data(), detail.c_str());
  __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  using Vemo::MacStateStore;
  std::string_view const text(reinterpret_cast<char const*>(data), size);
  auto first = MacStateStore::parse(text);
  if (auto const* why = std::get_if<std::string>(&first)) {
    if (why->empty()) mismatch("refused without a reason", text, "");
    if (why->find('\n') != std::string::npos) mismatch("reason of several lines", text, *why);
    return 0;
  }
  auto const& snapshot = std::get<Vemo::MacStoreSnapshot>(first);
  if (auto why = MacStateStore::check(snapshot)) mismatch("read what save refuses", text, *why);
  std::string const written = MacStateStore::serialize(snapshot);
  auto second = MacStateStore::parse(written);
  if (auto const* why = std::get_if<std::string>(&second)) {
    mismatch("its own text refused", text, written + "\n  reason: " + *why);
  }
  if (!(std::get<Vemo::MacStoreSnapshot>(second) == snapshot)) {
    mismatch("read back different", text, written);
  }
  std::string const rewritten = MacStateStore::serialize(std::get<Vemo::MacStoreSnapshot>(second));
  if (rewritten != written)
    mismatch("written differently", text, written + "\n  then:   " + rewritten);
  return 0;
}
