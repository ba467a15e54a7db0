// Keyed syslog messages: each declared once with its key, format, explanation, recommended action
// and severity; emitted through syslog(3) and, in tests, a capture.
#pragma once

#include <syslog.h>

#include <cstdarg>
#include <string>
#include <vector>

namespace Zol {

struct SyslogMessage {
  char const* key;
  int severity;  // LOG_ERR, LOG_WARNING, ...
  char const* format;
  char const* explanation;
  char const* recommendedAction;
};

struct SyslogRecord {
  std::string key;
  int severity;
  std::string text;
};

class Syslog {
 public:
  // Formats the message's printf-style format with the arguments and sends it.
  template <class... Args>
  static void emit(SyslogMessage const& m, Args... args) {
    emitf(&m, args...);
  }
  static void emitf(SyslogMessage const* m, ...);
  static void vemit(SyslogMessage const& m, va_list args);

  class Capture {
   public:
    Capture();
    ~Capture();
    Capture(Capture const&) = delete;
    Capture& operator=(Capture const&) = delete;
    std::vector<SyslogRecord> const& records() const { return records_; }

   private:
    friend class Syslog;
    std::vector<SyslogRecord> records_;
    Capture* previous_;
  };
};

}  // namespace Zol
