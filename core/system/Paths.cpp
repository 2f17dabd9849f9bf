// Paths: data locations under one home folder, legacy migration and the support folders.
#include "core/system/Paths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace kestrel {

fs::path standardizedPath(const fs::path& p) {
  const std::string text = p.string();
  const bool absolute = !text.empty() && text[0] == '/';
  std::vector<std::string> parts;
  size_t i = 0;
  while (i <= text.size()) {
    size_t j = text.find('/', i);
    if (j == std::string::npos) j = text.size();
    std::string comp = text.substr(i, j - i);
    if (comp.empty() || comp == ".") {
    } else if (comp == "..") {
      if (!parts.empty() && parts.back() != "..") parts.pop_back();
      else if (!absolute) parts.push_back(comp);
    } else {
      parts.push_back(comp);
    }
    i = j + 1;
  }
  std::string out = absolute ? "/" : "";
  for (size_t k = 0; k < parts.size(); ++k) {
    if (k) out += '/';
    out += parts[k];
  }
  return out.empty() ? fs::path(".") : fs::path(out);
}

fs::path realFolderPath(const fs::path& p) {
  const fs::path standard = standardizedPath(p);
  char* real = ::realpath(standard.c_str(), nullptr);
  if (!real) return standard;
  fs::path out(real);
  std::free(real);
  return out;
}

Paths::Paths(const fs::path& home) : home_(realFolderPath(home)) {}

Paths Paths::fromEnvironment() {
  const char* env = std::getenv("HOME");
  if (env && env[0] == '/') return Paths(env);
  // No usable HOME: ask the password database, as login shells do.
  std::vector<char> buf(16384);
  struct passwd pw {};
  struct passwd* result = nullptr;
  if (getpwuid_r(getuid(), &pw, buf.data(), buf.size(), &result) == 0 && result && result->pw_dir)
    return Paths(result->pw_dir);
  return Paths("/");
}

void Paths::migrateLegacySupportDir() const noexcept {
  std::error_code ec;
  const fs::path legacy = legacySupportDir();
  if (!fs::exists(fs::symlink_status(legacy, ec))) return;
  if (fs::exists(fs::symlink_status(supportDir(), ec))) return;
  fs::create_directories(supportDir().parent_path(), ec);  // failure shows up in the rename
  fs::rename(legacy, supportDir(), ec);                    // a failure leaves both where they were
}

void Paths::ensureSupportDirs() const {
  migrateLegacySupportDir();
  fs::create_directories(quarantineDir());
  fs::create_directories(agentLogFile().parent_path());
}

}  // namespace kestrel
