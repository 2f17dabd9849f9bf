// UTF-8 checks and the lossy display form of names.
#include "core/base/Text.h"

#include <locale.h>
#include <wctype.h>

#include <cstdint>

namespace kestrel::Utf8 {

bool isValid(std::string_view s) noexcept {
  for (size_t i = 0; i < s.size();) {
    const Sequence q = sequenceAt(s, i);
    if (!q.valid) return false;
    i += q.length;
  }
  return true;
}

std::string_view prefix(std::string_view s, size_t characters) noexcept {
  size_t i = 0;
  for (size_t n = 0; n < characters && i < s.size(); ++n) i += sequenceAt(s, i).length;
  return s.substr(0, i);
}

size_t length(std::string_view s) noexcept {
  size_t n = 0;
  for (size_t i = 0; i < s.size(); ++n) i += sequenceAt(s, i).length;
  return n;
}

std::string displayText(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size();) {
    const Sequence q = sequenceAt(s, i);
    if (q.valid) {
      out.append(s, i, q.length);
    } else {
      out += "\xEF\xBF\xBD";
    }
    i += q.length;
  }
  return out;
}

namespace {

// The code point of a well-formed sequence; an ill-formed byte maps past U+10FFFF so it never
// equals a character.
char32_t codePoint(std::string_view s, size_t i, Sequence seq) {
  const auto b = [&](size_t k) { return static_cast<char32_t>(static_cast<unsigned char>(s[i + k])); };
  if (!seq.valid) return 0x110000 + b(0);
  switch (seq.length) {
    case 1: return b(0);
    case 2: return ((b(0) & 0x1F) << 6) | (b(1) & 0x3F);
    case 3: return ((b(0) & 0x0F) << 12) | ((b(1) & 0x3F) << 6) | (b(2) & 0x3F);
    default: return ((b(0) & 0x07) << 18) | ((b(1) & 0x3F) << 12) | ((b(2) & 0x3F) << 6) | (b(3) & 0x3F);
  }
}

char32_t lower(char32_t c) {
  // A UTF-8 C locale of its own, so the process's locale (often plain "C") does not matter.
  static const locale_t utf8 = [] {
    locale_t l = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
    return l ? l : ::newlocale(LC_CTYPE_MASK, "en_US.UTF-8", static_cast<locale_t>(0));
  }();
  if (c < 0x80) return (c >= 'A' && c <= 'Z') ? c + 32 : c;
  if (!utf8 || c > 0x10FFFF) return c;
  return static_cast<char32_t>(::towlower_l(static_cast<wint_t>(c), utf8));
}

}  // namespace

bool equalsIgnoringCase(std::string_view a, std::string_view b) noexcept {
  size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    const Sequence sa = sequenceAt(a, i), sb = sequenceAt(b, j);
    if (lower(codePoint(a, i, sa)) != lower(codePoint(b, j, sb))) return false;
    i += sa.length;
    j += sb.length;
  }
  return i == a.size() && j == b.size();
}

}  // namespace kestrel::Utf8

namespace kestrel::Text {

std::string shellQuote(std::string_view s) {
  std::string out = "'";
  for (char c : s) {
    if (c == '\'') out += "'\\''";
    else out += c;
  }
  return out + "'";
}

std::string scriptQuote(std::string_view s) {
  std::string out = "\"";
  for (char c : s) {
    if (c == '\\' || c == '"') out += '\\';
    out += c;
  }
  return out + "\"";
}

std::string base64(std::string_view s) {
  static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((s.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < s.size(); i += 3) {
    const uint32_t n = (static_cast<uint8_t>(s[i]) << 16) | (static_cast<uint8_t>(s[i + 1]) << 8) | static_cast<uint8_t>(s[i + 2]);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  if (i + 1 == s.size()) {
    const uint32_t n = static_cast<uint8_t>(s[i]) << 16;
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += "==";
  } else if (i + 2 == s.size()) {
    const uint32_t n = (static_cast<uint8_t>(s[i]) << 16) | (static_cast<uint8_t>(s[i + 1]) << 8);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += '=';
  }
  return out;
}

}  // namespace kestrel::Text
