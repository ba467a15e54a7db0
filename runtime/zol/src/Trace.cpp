#include "Zol/Trace.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "Zol/Types.h"

namespace Zol {

namespace {

struct Registry {
  std::vector<TraceHandle*> handles;
  std::vector<std::pair<std::string, uint32_t>> rules;  // module ("*" for all) -> level bits
  std::string setting;
  FILE* out = stderr;
  Trace::Capture* capture = nullptr;
  bool envRead = false;
};

Registry& registry() {
  static Registry r;
  return r;
}

uint32_t parseLevels(std::string_view s, std::string_view whole) {
  uint32_t bits = 0;
  auto bad = [&] { throw ParseError("invalid trace setting '" + std::string(whole) + "'"); };
  if (s.empty()) bad();
  for (size_t i = 0; i < s.size(); ++i) {
    char c = s[i];
    if (c < '0' || c > '9') bad();
    unsigned lo = c - '0', hi = lo;
    if (i + 2 < s.size() && s[i + 1] == '-') {
      char d = s[i + 2];
      if (d < '0' || d > '9' || d < c) bad();
      hi = d - '0';
      i += 2;
    } else if (i + 1 < s.size() && s[i + 1] == '-') {
      bad();
    }
    for (unsigned l = lo; l <= hi; ++l) bits |= 1u << l;
  }
  return bits;
}

uint32_t levelsFor(Registry const& r, std::string const& module) {
  uint32_t bits = 0;
  for (auto const& [m, b] : r.rules) {
    if (m == "*" || m == module) bits |= b;
  }
  return bits;
}

void readEnvOnce(Registry& r) {
  if (r.envRead) return;
  r.envRead = true;
  if (char const* env = std::getenv("ZOLTRACE")) {
    try {
      Trace::settingIs(env);
    } catch (ParseError const& e) {
      std::fprintf(stderr, "ZOLTRACE ignored: %s\n", e.what());
    }
  }
}

}  // namespace

TraceHandle::TraceHandle(std::string_view module) : module_(module) {
  Registry& r = registry();
  readEnvOnce(r);
  levels_ = levelsFor(r, module_);
  r.handles.push_back(this);
}

TraceHandle::~TraceHandle() { std::erase(registry().handles, this); }

void Trace::settingIs(std::string_view setting) {
  Registry& r = registry();
  r.envRead = true;
  std::vector<std::pair<std::string, uint32_t>> rules;
  size_t pos = 0;
  while (pos < setting.size()) {
    size_t end = setting.find(',', pos);
    if (end == std::string_view::npos) end = setting.size();
    std::string_view item = setting.substr(pos, end - pos);
    size_t slash = item.find('/');
    if (slash == std::string_view::npos || slash == 0) {
      throw ParseError("invalid trace setting '" + std::string(setting) + "'");
    }
    rules.emplace_back(std::string(item.substr(0, slash)),
                       parseLevels(item.substr(slash + 1), setting));
    pos = end + 1;
  }
  r.rules = std::move(rules);
  r.setting = std::string(setting);
  for (TraceHandle* h : r.handles) h->levels_ = levelsFor(r, h->module_);
}

std::string const& Trace::setting() { return registry().setting; }

void Trace::fileIs(std::string const& path) {
  Registry& r = registry();
  FILE* f = std::fopen(path.c_str(), "a");
  if (!f) throw ParseError("cannot open trace file '" + path + "'");
  if (r.out != stderr) std::fclose(r.out);
  r.out = f;
}

void Trace::write(TraceHandle const& h, unsigned level, std::string_view text) {
  Registry& r = registry();
  std::fprintf(r.out, "%s/%u %.*s\n", h.module().c_str(), level, static_cast<int>(text.size()),
               text.data());
  if (r.capture) r.capture->records_.push_back(TraceRecord{h.module(), level, std::string(text)});
}

Trace::Capture::Capture() : previous_(registry().capture) { registry().capture = this; }
Trace::Capture::~Capture() { registry().capture = previous_; }

bool Trace::Capture::contains(std::string_view text) const { return count(text) > 0; }

size_t Trace::Capture::count(std::string_view text) const {
  size_t n = 0;
  for (TraceRecord const& rec : records_) {
    if (rec.text.find(text) != std::string::npos) ++n;
  }
  return n;
}

}  // namespace Zol
