// Plain explanations of removal failures, shared by the uninstaller and the admin queue.
#include "core/clean/Explain.h"

#include "core/base/Text.h"

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
  // At most 160 characters, never cut inside a UTF-8 sequence.
  return std::string(Utf8::prefix(output, 160));
}

}  // namespace kestrel::Explain
