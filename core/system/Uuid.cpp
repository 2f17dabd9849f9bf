// UUID text: generation from the system's random source and strict parsing.
#include "core/system/Uuid.h"

#include <cstdint>

#include "core/system/fs/SafeFiles.h"

namespace kestrel::Uuid {
namespace {

constexpr char kHex[] = "0123456789ABCDEF";

bool isDashPosition(size_t i) { return i == 8 || i == 13 || i == 18 || i == 23; }

}  // namespace

std::string make() {
  uint8_t b[16];
  platform::randomBytes(b, sizeof b);
  b[6] = static_cast<uint8_t>((b[6] & 0x0F) | 0x40);  // version 4
  b[8] = static_cast<uint8_t>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
  std::string out;
  out.reserve(36);
  for (int i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
    out.push_back(kHex[b[i] >> 4]);
    out.push_back(kHex[b[i] & 0x0F]);
  }
  return out;
}

std::optional<std::string> parse(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  std::string out(text);
  for (size_t i = 0; i < out.size(); ++i) {
    char& c = out[i];
    if (isDashPosition(i)) {
      if (c != '-') return std::nullopt;
    } else if (c >= 'a' && c <= 'f') {
      c = static_cast<char>(c - 'a' + 'A');
    } else if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) {
      return std::nullopt;
    }
  }
  return out;
}

std::string fromJson(const Json& j) {
  if (!j.is_string()) throw DecodeError("Expected a UUID string");
  auto id = parse(j.get<std::string>());
  if (!id) throw DecodeError("Attempted to decode UUID from invalid UUID string.");
  return *id;
}

}  // namespace kestrel::Uuid
