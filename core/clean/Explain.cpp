// Plain explanations of removal failures, shared by the uninstaller and the admin queue.
#include "core/clean/Explain.h"

#include <cctype>

namespace kestrel::Explain {

std::string removalFailure(std::string_view path, std::string_view output) {
  std::string lower(output);
  for (auto& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  auto has = [&](std::string_view s) { return lower.find(s) != std::string::npos; };
  if (has("user canceled") || has("user cancelled") || has("-128")) return "You cancelled the password prompt";
  if (has("operation not permitted"))
    return "macOS blocks this path (System Integrity Protection or Full Disk Access missing)";
  if (has("resource busy") || has("in use")) return "File is in use — quit the app and retry";
  if (has("read-only")) return "Read-only volume";
  if (output.empty()) return "Still present after removal (" + std::string(path) + ")";
  // Cut at 160 characters, never inside a UTF-8 sequence.
  size_t n = 0, chars = 0;
  while (n < output.size() && chars < 160) {
    const auto c = static_cast<unsigned char>(output[n]);
    n += c < 0x80 ? 1 : (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 1;
    ++chars;
  }
  return std::string(output.substr(0, std::min(n, output.size())));
}

}  // namespace kestrel::Explain
