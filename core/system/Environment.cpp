// The environment read once at start-up.
#include "core/system/Environment.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>
#include <vector>

namespace kestrel::Environment {
namespace {

fs::path variable(const char* name) {
  const char* v = std::getenv(name);
  return v ? fs::path(v) : fs::path();
}

// An absolute path from the environment, else `fallback`.
fs::path absoluteOr(const char* name, const fs::path& fallback) {
  const fs::path p = variable(name);
  return p.is_absolute() ? p : fallback;
}

Layout layout() {
  // The other system's table, on request: for tests, and to try a copied home.
  const std::string chosen = variable("KESTREL_LAYOUT").string();
  if (chosen == "macos") return Layout::macos;
  if (chosen == "linux") return Layout::linux;
  return hostLayout();
}

fs::path home() {
  if (const fs::path h = variable("HOME"); h.is_absolute()) return h;
  // No usable HOME: ask the password database, as login shells do.
  std::vector<char> buf(16384);
  struct passwd pw {};
  struct passwd* result = nullptr;
  if (getpwuid_r(getuid(), &pw, buf.data(), buf.size(), &result) == 0 && result && result->pw_dir)
    return result->pw_dir;
  return "/";
}

// Seconds from a test knob, else `fallback`; only positive numbers count.
std::chrono::duration<double> seconds(const char* name, std::chrono::duration<double> fallback) {
  const char* text = std::getenv(name);
  if (!text || !*text) return fallback;
  char* end = nullptr;
  const double value = std::strtod(text, &end);
  return end && *end == '\0' && value > 0 && value < 1e7 ? std::chrono::duration<double>(value) : fallback;
}

}  // namespace

Paths paths() {
  XdgDirs xdg{variable("XDG_CONFIG_HOME"), variable("XDG_CACHE_HOME"), variable("XDG_DATA_HOME"),
              variable("XDG_STATE_HOME")};
  return Paths(home(), layout(), xdg)
      .withSystemRoot(absoluteOr("KESTREL_SYSTEM_ROOT", "/"))
      .withVolumesRoot(absoluteOr("KESTREL_VOLUMES_ROOT", "/"));
}

Services services() {
  Services s = Services{}.withDefaults();
  s.shredderDebounce = seconds("KESTREL_SHRED_DEBOUNCE_SECONDS", s.shredderDebounce);
  s.shredderTick = seconds("KESTREL_SHRED_TICK_SECONDS", s.shredderTick);
  return s;
}

}  // namespace kestrel::Environment
