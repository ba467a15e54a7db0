// The text form of values: "Value('Ns::Type', ** {'field': v, ...})" for value types, and the
// forms of their fields (numbers, True/False, quoted strings and names, [lists], {maps}). Every
// form parses back to the value it was printed from.
#pragma once

#include <absl/container/btree_map.h>

#include <array>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

#include "Zol/Ptr.h"
#include "Zol/Types.h"

namespace Zol {

class TextParser {
 public:
  explicit TextParser(std::string_view text) : text_(text) {}
  void skipSpace();
  bool atEnd() {
    skipSpace();
    return pos_ == text_.size();
  }
  char peek() {
    skipSpace();
    return pos_ < text_.size() ? text_[pos_] : '\0';
  }
  bool consume(std::string_view token);
  void expect(std::string_view token);
  std::string quoted();
  std::string_view numberToken();
  std::string_view word();
  // Throws ParseError naming the whole text, the place and what was expected.
  [[noreturn]] void fail(std::string_view expected) const;
  // Rethrows the error of one value inside the text (a number, an enumerator, an address) naming
  // the whole text as well, unless it already does.
  [[noreturn]] void failWithin(ParseError const& e) const;
  std::string_view text() const { return text_; }

 private:
  std::string_view text_;
  size_t pos_ = 0;
};

// Value types generated from the schema print and parse themselves.
template <class T>
concept GeneratedValue = requires(T const& t, std::string& out, TextParser& p) {
  t.zolPrint(out);
  { T::zolParse(p) } -> std::same_as<T>;
};

// Network types (interface names, addresses) have one text form of their own.
template <class T>
concept StringLike = requires(T const& t, std::string_view s) {
  { t.stringValue() } -> std::convertible_to<std::string>;
  { T::fromString(s) } -> std::same_as<T>;
};

// Enumerations generated from the schema specialise this with their names in value order.
template <class E>
struct EnumTraits;

template <class E>
concept GeneratedEnum = std::is_enum_v<E> && requires {
  EnumTraits<E>::names;
};

template <class E>
requires GeneratedEnum<E> std::string_view enumName(E e) {
  auto const& names = EnumTraits<E>::names;
  auto i = static_cast<size_t>(e);
  return i < std::size(names) ? names[i] : std::string_view("<invalid>");
}

template <class E>
requires GeneratedEnum<E> E enumFromName(std::string_view s) {
  auto const& names = EnumTraits<E>::names;
  for (size_t i = 0; i < std::size(names); ++i) {
    if (names[i] == s) return static_cast<E>(i);
  }
  throw ParseError("'" + std::string(s) + "' is not a value of " +
                   std::string(EnumTraits<E>::typeName));
}

void printQuoted(std::string& out, std::string_view s);
void printDouble(std::string& out, double d);

template <class T>
T parseInteger(std::string_view s) {
  T v{};
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec == std::errc::result_out_of_range) {
    throw RangeException("'" + std::string(s) + "' is out of range");
  }
  if (ec != std::errc() || end != s.data() + s.size()) {
    throw ParseError("'" + std::string(s) + "' is not a number");
  }
  return v;
}
double parseDouble(std::string_view s);

template <class T>
struct TextTraits;
// JSON forms (Zol/Json.h); declared here so that generated classes can befriend them.
template <class T>
struct JsonTraits;

template <class T>
void textPrint(std::string& out, T const& v) {
  TextTraits<T>::print(out, v);
}
template <class T>
T textParse(TextParser& p) {
  return TextTraits<T>::parse(p);
}
template <class T>
std::string stringValue(T const& v) {
  std::string s;
  textPrint(s, v);
  return s;
}
// Parses the whole text; trailing text is an error.
template <class T>
T valueFromString(std::string_view s) {
  TextParser p(s);
  try {
    T v = textParse<T>(p);
    if (!p.atEnd()) p.fail("end of text");
    return v;
  } catch (ParseError const& e) {
    p.failWithin(e);
  }
}

template <class T>
requires std::is_integral_v<T> &&(!std::is_same_v<T, bool>)struct TextTraits<T> {
  static void print(std::string& out, T v) { out += std::to_string(v); }
  static T parse(TextParser& p) { return parseInteger<T>(p.numberToken()); }
};

template <>
struct TextTraits<bool> {
  static void print(std::string& out, bool v) { out += v ? "True" : "False"; }
  static bool parse(TextParser& p);
};

template <>
struct TextTraits<double> {
  static void print(std::string& out, double v) { printDouble(out, v); }
  static double parse(TextParser& p) { return parseDouble(p.numberToken()); }
};

template <>
struct TextTraits<std::string> {
  static void print(std::string& out, std::string const& v) { printQuoted(out, v); }
  static std::string parse(TextParser& p) { return p.quoted(); }
};

template <StringLike T>
struct TextTraits<T> {
  static void print(std::string& out, T const& v) { printQuoted(out, v.stringValue()); }
  static T parse(TextParser& p) { return T::fromString(p.quoted()); }
};

template <GeneratedEnum E>
struct TextTraits<E> {
  static void print(std::string& out, E v) { printQuoted(out, enumName(v)); }
  static E parse(TextParser& p) { return enumFromName<E>(p.quoted()); }
};

template <GeneratedValue T>
struct TextTraits<T> {
  static void print(std::string& out, T const& v) { v.zolPrint(out); }
  static T parse(TextParser& p) { return T::zolParse(p); }
};

template <class T, size_t N>
struct TextTraits<std::array<T, N>> {
  static void print(std::string& out, std::array<T, N> const& v) {
    out += '[';
    for (size_t i = 0; i < N; ++i) {
      if (i) out += ", ";
      textPrint(out, v[i]);
    }
    out += ']';
  }
  static std::array<T, N> parse(TextParser& p) {
    std::array<T, N> v{};
    p.expect("[");
    for (size_t i = 0; i < N; ++i) {
      if (i) p.expect(",");
      v[i] = textParse<T>(p);
    }
    p.expect("]");
    return v;
  }
};

template <class K, class V>
struct TextTraits<absl::btree_map<K, V>> {
  static void print(std::string& out, absl::btree_map<K, V> const& m) {
    out += '{';
    bool first = true;
    for (auto const& [k, v] : m) {
      if (!first) out += ", ";
      first = false;
      textPrint(out, k);
      out += ": ";
      textPrint(out, v);
    }
    out += '}';
  }
  static absl::btree_map<K, V> parse(TextParser& p) {
    absl::btree_map<K, V> m;
    p.expect("{");
    if (p.consume("}")) return m;
    do {
      K k = textParse<K>(p);
      p.expect(":");
      m.insert_or_assign(std::move(k), textParse<V>(p));
    } while (p.consume(","));
    p.expect("}");
    return m;
  }
};

// References to entities print their name; they are not parsed back.
template <class T>
struct TextTraits<Ptr<T>> {
  static void print(std::string& out, Ptr<T> const& v) {
    if (!v) {
      out += "None";
    } else if constexpr (requires { v->name(); }) {
      printQuoted(out, v->name());
    } else {
      out += "'<object>'";
    }
  }
};

// Keys as they stand in a path segment ("Ethernet1", "10", "modeTapAgg"): bare, not quoted.
template <class T>
std::string keyText(T const& k) {
  if constexpr (std::is_same_v<T, std::string>) {
    return k;
  } else if constexpr (StringLike<T>) {
    return k.stringValue();
  } else if constexpr (GeneratedEnum<T>) {
    return std::string(enumName(k));
  } else {
    return stringValue(k);
  }
}

template <class T>
T keyFromText(std::string_view s) {
  if constexpr (std::is_same_v<T, std::string>) {
    return std::string(s);
  } else if constexpr (StringLike<T>) {
    return T::fromString(s);
  } else if constexpr (GeneratedEnum<T>) {
    return enumFromName<T>(s);
  } else if constexpr (std::is_integral_v<T> && !std::is_same_v<T, bool>) {
    return parseInteger<T>(s);
  } else {
    return valueFromString<T>(s);
  }
}

}  // namespace Zol
