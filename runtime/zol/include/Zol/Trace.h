// Text trace: numbered levels 0 to 9 per module, switched on by the ZOLTRACE environment variable
// ("MacAddrSm/0-9,LagSm/5", "*/0-3"), written to stderr or a file. When a level is off, the
// arguments of ZOL_TRACE are never evaluated.
#pragma once

#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace Zol {

class TraceHandle {
 public:
  explicit TraceHandle(std::string_view module);
  // Leaves the registry, so that later settings do not write into freed memory.
  ~TraceHandle();
  TraceHandle(TraceHandle const&) = delete;
  TraceHandle& operator=(TraceHandle const&) = delete;

  std::string const& module() const { return module_; }
  bool enabled(unsigned level) const { return (levels_ >> level) & 1u; }
  uint32_t levels() const { return levels_; }

 private:
  friend class Trace;
  std::string module_;
  uint32_t levels_ = 0;
};

struct TraceRecord {
  std::string module;
  unsigned level;
  std::string text;
};

class Trace {
 public:
  // Parses a setting such as "LagSm/5,MacAddrSm/0-9,*/0" and applies it to every handle, present
  // and future. Throws ParseError for a malformed setting.
  static void settingIs(std::string_view setting);
  static std::string const& setting();
  // Lines go to stderr (default) or appended to the file.
  static void fileIs(std::string const& path);
  static void write(TraceHandle const& h, unsigned level, std::string_view text);

  // While alive, lines also go to the capture (tests assert on the system's own texts).
  class Capture {
   public:
    Capture();
    ~Capture();
    Capture(Capture const&) = delete;
    Capture& operator=(Capture const&) = delete;
    std::vector<TraceRecord> const& records() const { return records_; }
    bool contains(std::string_view text) const;
    size_t count(std::string_view text) const;
    void clear() { records_.clear(); }

   private:
    friend class Trace;
    std::vector<TraceRecord> records_;
    Capture* previous_;
  };
};

// Builds one trace line with operator<<.
class TraceLine {
 public:
  TraceLine(TraceHandle const& h, unsigned level) : handle_(h), level_(level) {}
  ~TraceLine() { Trace::write(handle_, level_, out_.str()); }
  template <class T>
  TraceLine& operator<<(T const& v) {
    out_ << v;
    return *this;
  }

 private:
  TraceHandle const& handle_;
  unsigned level_;
  std::ostringstream out_;
};

}  // namespace Zol

// Declares the module's trace handle in a source file: _defaultTraceHandle().
#define ZOL_TRACE_MODULE(name)                      \
  namespace {                                       \
  ::Zol::TraceHandle const& _defaultTraceHandle() { \
    static ::Zol::TraceHandle const handle{name};   \
    return handle;                                  \
  }                                                 \
  }

#define ZOL_TRACE_H(handle, level, ...)               \
  do {                                                \
    if ((handle).enabled(level)) [[unlikely]] {       \
      ::Zol::TraceLine(handle, level) << __VA_ARGS__; \
    }                                                 \
  } while (0)

// Traces through the source file's module handle.
#define ZOL_TRACE(level, ...) ZOL_TRACE_H(_defaultTraceHandle(), level, __VA_ARGS__)
