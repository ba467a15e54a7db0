#include "Wevl/Format.h"

#include <bit>
#include <cstdio>

namespace Wevl {

namespace detail {

void argumentTypeCannotBeRecorded() {}
void formatPlaceholderIsMalformed() {}
void formatPlaceholderDoesNotMatchArgumentType() {}
void formatHasMorePlaceholdersThanArguments() {}
void formatHasMoreArgumentsThanPlaceholders() {}

}  // namespace detail

double Arg::asDouble() const { return std::bit_cast<double>(bits); }

namespace {

// printf with a format built here from a parsed Placeholder, so the conversion always matches the
// value.
template <class T>
std::string printf1(std::string const& fmt, T value) {
  int const n = std::snprintf(nullptr, 0, fmt.c_str(), value);
  if (n <= 0) return {};
  std::string out(static_cast<size_t>(n), '\0');
  std::snprintf(out.data(), out.size() + 1, fmt.c_str(), value);
  return out;
}

// Only the flags that printf defines for the conversion: the others are undefined behaviour there.
std::string printfFormat(Placeholder const& s, std::string_view flags, bool precision,
                         char const* length, char conv) {
  std::string f = "%";
  if (s.left && flags.find('-') != flags.npos) f += '-';
  if (s.plus && flags.find('+') != flags.npos) f += '+';
  if (s.space && flags.find(' ') != flags.npos) f += ' ';
  if (s.alt && flags.find('#') != flags.npos) f += '#';
  if (s.zero && !s.left && flags.find('0') != flags.npos) f += '0';
  if (s.width >= 0) f += std::to_string(s.width);
  if (precision && s.precision >= 0) f += '.' + std::to_string(s.precision);
  f += length;
  f += conv;
  return f;
}

std::string hex(uint64_t v) { return printf1("0x%llx", static_cast<unsigned long long>(v)); }

std::string natural(Arg const& a) {
  switch (a.kind) {
    case Kind::Int:
      return std::to_string(a.asInt());
    case Kind::Uint:
      return std::to_string(a.asUint());
    case Kind::Double:
      return printf1("%g", a.asDouble());
    case Kind::Bool:
      return a.asBool() ? "true" : "false";
    case Kind::Char:
      return std::string(1, static_cast<char>(a.bits));
    case Kind::Str:
      return a.truncated ? a.str + "..." : a.str;
    case Kind::Ptr:
      return hex(a.bits);
    case Kind::None:
      break;
  }
  return "?";
}

// Cuts to the precision and pads to the width as %s would, but keeps embedded NULs.
std::string padded(Placeholder const& s, std::string text) {
  if (s.precision >= 0 && text.size() > static_cast<size_t>(s.precision)) text.resize(s.precision);
  if (s.width >= 0 && text.size() < static_cast<size_t>(s.width)) {
    std::string const pad(s.width - text.size(), ' ');
    text = s.left ? text + pad : pad + text;
  }
  return text;
}

std::string formatArg(Placeholder const& s, Arg const& a) {
  if (!accepts(s.conv, a.kind)) {
    Placeholder plain;
    return padded(plain, natural(a));
  }
  switch (s.conv) {
    case 'd':
    case 'i':
    case 'u':
      if (a.kind == Kind::Int) {
        return printf1(printfFormat(s, "-+ 0", true, "ll", 'd'), static_cast<long long>(a.asInt()));
      }
      return printf1(printfFormat(s, "-0", true, "ll", 'u'),
                     static_cast<unsigned long long>(a.asUint()));
    case 'x':
    case 'X':
      return printf1(printfFormat(s, "-#0", true, "ll", s.conv),
                     static_cast<unsigned long long>(a.asUint()));
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
      return printf1(printfFormat(s, "-+ #0", true, "", s.conv), a.asDouble());
    case 'c':
      return printf1(printfFormat(s, "-", false, "", 'c'), static_cast<int>(a.bits & 0xff));
    default:
      return padded(s, natural(a));
  }
}

// One record, one line: control characters (from strings or the format) are escaped.
std::string escaped(std::string const& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    auto const u = static_cast<unsigned char>(c);
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (u < 0x20 || u == 0x7f) {
      out += printf1("\\x%02x", static_cast<unsigned>(u));
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace

std::string formatMessage(std::string_view fmt, std::vector<Arg> const& args) {
  std::string out;
  size_t next = 0;
  for (size_t i = 0; i < fmt.size();) {
    if (fmt[i] != '%') {
      out += fmt[i++];
      continue;
    }
    Placeholder const s = parsePlaceholder(fmt, i);
    if (!s.valid) {
      // Shown as written, so the reader sees what the format said.
      out += fmt[i++];
      continue;
    }
    i = s.end;
    if (s.conv == '%') {
      out += '%';
    } else if (next < args.size()) {
      out += formatArg(s, args[next++]);
    } else {
      out += "<missing>";
    }
  }
  for (; next < args.size(); ++next) {
    out += ' ';
    out += natural(args[next]);
  }
  return escaped(out);
}

}  // namespace Wevl
