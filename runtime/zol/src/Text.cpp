#include "Zol/Text.h"

#include <cctype>
#include <cmath>
#include <cstdlib>

namespace Zol {

void TextParser::skipSpace() {
  while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\t' || text_[pos_] == '\n' ||
                                 text_[pos_] == '\r')) {
    ++pos_;
  }
}

bool TextParser::consume(std::string_view token) {
  skipSpace();
  if (text_.substr(pos_, token.size()) != token) return false;
  pos_ += token.size();
  return true;
}

void TextParser::expect(std::string_view token) {
  if (!consume(token)) fail("'" + std::string(token) + "'");
}

std::string TextParser::quoted() {
  skipSpace();
  if (pos_ >= text_.size() || (text_[pos_] != '\'' && text_[pos_] != '"')) fail("a quoted string");
  char const q = text_[pos_++];
  std::string s;
  while (pos_ < text_.size() && text_[pos_] != q) {
    char c = text_[pos_++];
    if (c == '\\') {
      if (pos_ >= text_.size()) break;
      c = text_[pos_++];
      if (c == 'n') c = '\n';
      if (c == 't') c = '\t';
    }
    s += c;
  }
  if (pos_ >= text_.size()) fail("the closing quote");
  ++pos_;
  return s;
}

std::string_view TextParser::numberToken() {
  skipSpace();
  size_t const start = pos_;
  while (pos_ < text_.size()) {
    char c = text_[pos_];
    bool const numeric = (c >= '0' && c <= '9') || c == '-' || c == '+' || c == '.' || c == 'e' ||
                         c == 'E' || c == 'x' || (c >= 'a' && c <= 'f') || c == 'i' || c == 'n';
    if (!numeric) break;
    ++pos_;
  }
  if (pos_ == start) fail("a number");
  return text_.substr(start, pos_ - start);
}

std::string_view TextParser::word() {
  skipSpace();
  size_t const start = pos_;
  while (pos_ < text_.size() && (std::isalnum(static_cast<unsigned char>(text_[pos_])) ||
                                 text_[pos_] == '_' || text_[pos_] == ':')) {
    ++pos_;
  }
  if (pos_ == start) fail("a word");
  return text_.substr(start, pos_ - start);
}

void TextParser::fail(std::string_view expected) const {
  throw ParseError("cannot parse '" + std::string(text_) + "': expected " + std::string(expected) +
                   " at offset " + std::to_string(pos_));
}

void TextParser::failWithin(ParseError const& e) const {
  std::string const prefix = "cannot parse '" + std::string(text_) + "'";
  std::string_view const what = e.what();
  if (what.starts_with(prefix)) throw e;
  throw ParseError(prefix + ": " + std::string(what));
}

bool TextTraits<bool>::parse(TextParser& p) {
  if (p.consume("True")) return true;
  if (p.consume("False")) return false;
  p.fail("True or False");
}

void printQuoted(std::string& out, std::string_view s) {
  out += '\'';
  for (char c : s) {
    if (c == '\'' || c == '\\') out += '\\';
    out += c;
  }
  out += '\'';
}

void printDouble(std::string& out, double d) {
  char buf[32];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, d);
  out.append(buf, end);
}

double parseDouble(std::string_view s) {
  std::string const text(s);
  char* end = nullptr;
  double const v = std::strtod(text.c_str(), &end);
  if (text.empty() || end != text.c_str() + text.size()) {
    throw ParseError("'" + text + "' is not a number");
  }
  return v;
}

}  // namespace Zol
