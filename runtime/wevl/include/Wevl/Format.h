// Argument kinds and message formats of the binary trace. A format is printf-like with typed
// placeholders; WEVL_PUT checks them against the argument types at compile time, and the decoder
// applies them to the recorded values long after the event.
//
//   %d %i %u %x %X   integer or enum (recorded as its underlying value)
//   %f %F %e %E %g %G  floating point
//   %b               bool (true/false)
//   %c               char
//   %p               pointer
//   %s               string, or any argument in its natural form
//   %%               a percent sign
// Flags "-+ #0", a width and a precision may come between '%' and the conversion, as in printf.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Wevl {

// How one argument is stored in a record. The values are part of the dump format: never renumber.
enum class Kind : uint8_t {
  None = 0,
  Int = 1,     // signed integers and enums with a signed underlying type
  Uint = 2,    // unsigned integers and the other enums
  Double = 3,  // any floating point type
  Bool = 4,
  Char = 5,
  Str = 6,  // copied into the record, truncated to what fits
  Ptr = 7,  // the address only
};
inline constexpr uint8_t kLastKind = 7;

// One recorded argument, read back from a record.
struct Arg {
  Kind kind = Kind::None;
  uint64_t bits = 0;       // Int (two's complement), Uint, Double (IEEE-754 bits), Bool, Char, Ptr
  std::string str;         // Str
  bool truncated = false;  // Str did not fit whole

  int64_t asInt() const { return static_cast<int64_t>(bits); }
  uint64_t asUint() const { return bits; }
  double asDouble() const;
  bool asBool() const { return bits != 0; }
};

// One placeholder: '%' [flags] [width] ['.' precision] conversion.
struct Placeholder {
  bool valid = false;
  bool left = false, plus = false, space = false, alt = false, zero = false;
  int width = -1;
  int precision = -1;
  char conv = 0;   // '%' for "%%"
  size_t end = 0;  // index just past the placeholder
};

// Widths and precisions beyond this are refused, so that a hostile dump cannot make the decoder
// build huge strings.
inline constexpr int kMaxWidth = 255;

// Parses the placeholder that starts at fmt[pos] (a '%').
constexpr Placeholder parsePlaceholder(std::string_view fmt, size_t pos) {
  Placeholder s;
  size_t i = pos + 1;
  for (; i < fmt.size(); ++i) {
    char const c = fmt[i];
    if (c == '-') {
      s.left = true;
    } else if (c == '+') {
      s.plus = true;
    } else if (c == ' ') {
      s.space = true;
    } else if (c == '#') {
      s.alt = true;
    } else if (c == '0') {
      s.zero = true;
    } else {
      break;
    }
  }
  auto number = [&](int& out) {
    if (i >= fmt.size() || fmt[i] < '0' || fmt[i] > '9') return true;
    out = 0;
    while (i < fmt.size() && fmt[i] >= '0' && fmt[i] <= '9') {
      out = out * 10 + (fmt[i++] - '0');
      if (out > kMaxWidth) return false;
    }
    return true;
  };
  if (!number(s.width)) return s;
  if (i < fmt.size() && fmt[i] == '.') {
    ++i;
    s.precision = 0;
    if (!number(s.precision)) return s;
  }
  if (i >= fmt.size()) return s;
  s.conv = fmt[i];
  s.end = i + 1;
  // "%%" only bare; the conversions are those of the table at the top.
  s.valid = s.conv == '%'
                ? s.end == pos + 2
                : std::string_view("diuxXfFeEgGbcps").find(s.conv) != std::string_view::npos;
  return s;
}

// Whether a conversion may format an argument of the kind.
constexpr bool accepts(char conv, Kind kind) {
  if (std::string_view("diuxX").find(conv) != std::string_view::npos) {
    return kind == Kind::Int || kind == Kind::Uint;
  }
  if (std::string_view("fFeEgG").find(conv) != std::string_view::npos) return kind == Kind::Double;
  switch (conv) {
    case 'b':
      return kind == Kind::Bool;
    case 'c':
      return kind == Kind::Char;
    case 'p':
      return kind == Kind::Ptr;
    case 's':
      return kind != Kind::None;
    default:
      return false;
  }
}

enum class FormatProblem {
  None,
  UnrecordableType,
  BadPlaceholder,
  WrongType,
  TooFewArguments,
  TooManyArguments
};

constexpr FormatProblem checkFormat(std::string_view fmt, Kind const* kinds, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    if (kinds[i] == Kind::None) return FormatProblem::UnrecordableType;
  }
  size_t arg = 0;
  for (size_t i = 0; i < fmt.size();) {
    if (fmt[i] != '%') {
      ++i;
      continue;
    }
    Placeholder const s = parsePlaceholder(fmt, i);
    if (!s.valid) return FormatProblem::BadPlaceholder;
    i = s.end;
    if (s.conv == '%') continue;
    if (arg >= count) return FormatProblem::TooFewArguments;
    if (!accepts(s.conv, kinds[arg])) return FormatProblem::WrongType;
    ++arg;
  }
  return arg == count ? FormatProblem::None : FormatProblem::TooManyArguments;
}

// Formats a message the way the decoder does. Placeholders without an argument show as
// "<missing>", arguments without a placeholder are appended, and an argument its placeholder does
// not accept is shown in its natural form: a descriptor and its records may disagree when a dump
// is hand-made or damaged, and the decoder must still say something useful.
std::string formatMessage(std::string_view fmt, std::vector<Arg> const& args);

namespace detail {

template <class T>
concept HasWevlValue = requires(T const& v) {
  wevlValue(v);
};

template <class T>
inline constexpr bool isCharType =
    std::is_same_v<T, char> || std::is_same_v<T, wchar_t> || std::is_same_v<T, char8_t> ||
    std::is_same_v<T, char16_t> || std::is_same_v<T, char32_t>;

}  // namespace detail

// The kind a C++ type is recorded as; Kind::None for types that cannot be recorded. A type of the
// program (an interface id, an address) is recorded through a function wevlValue(T const&) found by
// argument-dependent lookup, returning a scalar, a std::string_view or a char const*.
template <class T>
constexpr Kind kindOf() {
  using U = std::remove_cvref_t<T>;
  if constexpr (detail::HasWevlValue<U>) {
    return kindOf<decltype(wevlValue(std::declval<U const&>()))>();
  } else if constexpr (std::is_same_v<U, bool>) {
    return Kind::Bool;
  } else if constexpr (std::is_same_v<U, char>) {
    return Kind::Char;
  } else if constexpr (std::is_enum_v<U>) {
    return std::is_signed_v<std::underlying_type_t<U>> ? Kind::Int : Kind::Uint;
  } else if constexpr (detail::isCharType<U>) {
    return Kind::None;
  } else if constexpr (std::is_integral_v<U>) {
    return std::is_signed_v<U> ? Kind::Int : Kind::Uint;
  } else if constexpr (std::is_floating_point_v<U>) {
    return Kind::Double;
  } else if constexpr (std::is_null_pointer_v<U>) {
    // Before strings: a bare nullptr converts to std::string_view too.
    return Kind::Ptr;
  } else if constexpr (std::is_convertible_v<U const&, std::string_view>) {
    return Kind::Str;
  } else if constexpr (std::is_pointer_v<U> && !std::is_function_v<std::remove_pointer_t<U>>) {
    return Kind::Ptr;
  } else {
    return Kind::None;
  }
}

template <class... Args>
constexpr FormatProblem checkFormat(std::string_view fmt) {
  constexpr Kind kinds[] = {kindOf<Args>()..., Kind::None};
  return checkFormat(fmt, kinds, sizeof...(Args));
}

namespace detail {

// Not constexpr on purpose: reaching one of these in a constant evaluation fails the build, and the
// compiler's message names the problem.
void argumentTypeCannotBeRecorded();
void formatPlaceholderIsMalformed();
void formatPlaceholderDoesNotMatchArgumentType();
void formatHasMorePlaceholdersThanArguments();
void formatHasMoreArgumentsThanPlaceholders();

}  // namespace detail

// A format string checked at compile time against the argument types, like std::format_string.
template <class... Args>
class FormatString {
 public:
  template <class S>
  requires std::convertible_to<S const&, std::string_view>
  consteval FormatString(S const& s) : text_(s) {
    switch (checkFormat<Args...>(text_)) {
      case FormatProblem::None:
        break;
      case FormatProblem::UnrecordableType:
        detail::argumentTypeCannotBeRecorded();
        break;
      case FormatProblem::BadPlaceholder:
        detail::formatPlaceholderIsMalformed();
        break;
      case FormatProblem::WrongType:
        detail::formatPlaceholderDoesNotMatchArgumentType();
        break;
      case FormatProblem::TooFewArguments:
        detail::formatHasMorePlaceholdersThanArguments();
        break;
      case FormatProblem::TooManyArguments:
        detail::formatHasMoreArgumentsThanPlaceholders();
        break;
    }
  }
  std::string_view text() const { return text_; }

 private:
  std::string_view text_;
};

}  // namespace Wevl
