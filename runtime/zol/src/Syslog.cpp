#include "Zol/Syslog.h"

#include <cstdio>

namespace Zol {

namespace {
Syslog::Capture* capture = nullptr;
}

void Syslog::emitf(SyslogMessage const* m, ...) {
  va_list args;
  va_start(args, m);
  vemit(*m, args);
  va_end(args);
}

void Syslog::vemit(SyslogMessage const& m, va_list args) {
  char buf[1024];
  std::vsnprintf(buf, sizeof buf, m.format, args);
  if (capture) {
    capture->records_.push_back(SyslogRecord{m.key, m.severity, buf});
    return;
  }
  ::syslog(m.severity, "%%%s: %s", m.key, buf);
}

Syslog::Capture::Capture() : previous_(capture) { capture = this; }
Syslog::Capture::~Capture() { capture = previous_; }

}  // namespace Zol
