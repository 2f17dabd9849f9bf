// UTF-8 checks and the lossy display form of names.
#include "core/base/Text.h"

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
