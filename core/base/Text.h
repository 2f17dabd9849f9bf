// UTF-8 well-formedness: which bytes of a name are text and which are only bytes.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kestrel::Utf8 {

// The sequence that starts at `s[i]` (i < s.size()): its length and whether it is well-formed
// UTF-8 (no overlong forms, no surrogates, nothing past U+10FFFF). An ill-formed sequence is its
// maximal subpart: a possible lead byte and the continuation bytes that still fit it, at least 1.
struct Sequence {
  size_t length = 1;
  bool valid = true;
};

inline Sequence sequenceAt(std::string_view s, size_t i) noexcept {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(s[i + k]); };
  const unsigned char c = byte(0);
  if (c < 0x80) return {1, true};
  size_t n;
  unsigned char lo = 0x80, hi = 0xBF;  // the range of the second byte
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
    if (c == 0xE0) lo = 0xA0;  // overlong
    if (c == 0xED) hi = 0x9F;  // surrogates
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
    if (c == 0xF0) lo = 0x90;  // overlong
    if (c == 0xF4) hi = 0x8F;  // past U+10FFFF
  } else {
    return {1, false};
  }
  const size_t avail = s.size() - i;
  if (avail < 2 || byte(1) < lo || byte(1) > hi) return {1, false};
  for (size_t k = 2; k < n; ++k) {
    if (k >= avail || byte(k) < 0x80 || byte(k) > 0xBF) return {k, false};
  }
  return {n, true};
}

// Whether all of `s` is well-formed UTF-8.
bool isValid(std::string_view s) noexcept;
// The first `characters` characters of `s` (each well-formed sequence, or ill-formed subpart, is
// one), never cut inside a sequence.
std::string_view prefix(std::string_view s, size_t characters) noexcept;
// How many characters `s` holds, counted the same way.
size_t length(std::string_view s) noexcept;

// `s` for reading: each ill-formed sequence becomes one U+FFFD. Lossy, so never for a name the
// program acts on later.
std::string displayText(std::string_view s);

// Whether `a` and `b` are the same text ignoring letter case ("Weekly" and "WEEKLY", "Ärger" and
// "ärger"): each character compared by its lower-case form, ill-formed bytes as themselves.
bool equalsIgnoringCase(std::string_view a, std::string_view b) noexcept;

}  // namespace kestrel::Utf8

namespace kestrel::Text {

// `s` in single quotes for a POSIX shell ('\'' for each quote inside); safe for every byte.
std::string shellQuote(std::string_view s);
// `s` as a double-quoted string literal of the system's script language (backslashes doubled,
// double quotes escaped).
std::string scriptQuote(std::string_view s);
// Standard Base64 of the bytes of `s`.
std::string base64(std::string_view s);

}  // namespace kestrel::Text
