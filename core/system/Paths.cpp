// Paths: data locations under one home folder, legacy migration and the support folders.
#include "core/system/Paths.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <vector>

#include "core/system/fs/StoreFile.h"

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

Layout hostLayout() {
#ifdef __APPLE__
  return Layout::macos;
#else
  return Layout::linux;
#endif
}

std::vector<fs::path> Paths::defaultDeveloperRoots() const {
  std::vector<fs::path> out;
  for (const char* rel : {"Developer", "Projects", "projects", "src", "code", "Code", "git", "repos", "work",
                          "workspace", "Documents/GitHub"})
    out.push_back(home_ / rel);
  return out;
}

std::optional<fs::path> userDirFromText(std::string_view text, std::string_view key, const fs::path& home) {
  size_t pos = 0;
  std::optional<fs::path> found;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(pos, end - pos);
    pos = end + 1;
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
    if (line.substr(0, key.size()) != key || line.substr(key.size(), 1) != "=") continue;
    std::string_view value = line.substr(key.size() + 1);
    while (!value.empty() && (value.back() == ' ' || value.back() == '\t' || value.back() == '\r'))
      value.remove_suffix(1);
    // The file's form: "$HOME/<relative>" or "/<absolute>", double-quoted, backslash escapes.
    if (value.size() < 2 || value.front() != '"' || value.back() != '"') continue;
    value = value.substr(1, value.size() - 2);
    std::string out;
    if (value.substr(0, 5) == "$HOME") {
      value.remove_prefix(5);
      out = home.string();
    } else if (value.empty() || value.front() != '/') {
      continue;
    }
    for (size_t i = 0; i < value.size(); ++i) {
      if (value[i] == '\\' && i + 1 < value.size()) ++i;
      out += value[i];
    }
    const fs::path folder = standardizedPath(out);
    found = folder == standardizedPath(home) ? std::nullopt : std::optional<fs::path>(folder);
  }
  return found;  // the last assignment wins, as when the shell sources the file
}

namespace {

fs::path xdgOr(const fs::path& value, const fs::path& fallback) {
  return value.is_absolute() ? standardizedPath(value) : fallback;
}

fs::path insideHome(const fs::path& value, const fs::path& home, const fs::path& fallback) {
  if (!value.is_absolute()) return fallback;
  const fs::path real = realFolderPath(value);
  return real.string().rfind(home.string() + "/", 0) == 0 ? real : fallback;
}

fs::path userDir(const fs::path& configHome, std::string_view key, const fs::path& home,
                 std::string_view fallback) {
  // Read like a store: a FIFO or a huge file in its place never holds up a command.
  const std::string text = StoreFile::readFile(configHome / "user-dirs.dirs").value_or("");
  if (auto dir = userDirFromText(text, key, home)) return *dir;
  return home / fallback;
}

}  // namespace

Paths::Paths(const fs::path& home, Layout layout, const XdgDirs& xdg)
    : home_(realFolderPath(home)), layout_(layout) {
  xdg_.config = xdgOr(xdg.config, home_ / ".config");
  // The folders things are removed from (caches, the Trash, the quarantine) must lie inside the
  // real home folder, where every walk and removal is anchored: reached through a link they are
  // used where they really are; outside the home the default under it is used instead.
  xdg_.cache = insideHome(xdg.cache, home_, home_ / ".cache");
  xdg_.data = insideHome(xdg.data, home_, home_ / ".local/share");
  xdg_.state = xdgOr(xdg.state, home_ / ".local/state");
  if (layout_ == Layout::linux) {
    downloads_ = userDir(xdg_.config, "XDG_DOWNLOAD_DIR", home_, "Downloads");
    desktop_ = userDir(xdg_.config, "XDG_DESKTOP_DIR", home_, "Desktop");
  } else {
    downloads_ = home_ / "Downloads";
    desktop_ = home_ / "Desktop";
  }
}

fs::path Paths::launchAgentFile(std::string_view label, std::string_view extension) const {
  std::string name(label);
  name += extension;
  return launchAgentsDir() / name;
}

Paths Paths::withSystemRoot(const fs::path& root) const {
  Paths copy = *this;
  copy.systemRoot_ = standardizedPath(root);
  return copy;
}

Paths Paths::withVolumesRoot(const fs::path& root) const {
  Paths copy = *this;
  copy.volumesRoot_ = root.empty() ? root : standardizedPath(root);
  return copy;
}

namespace {

// Moves `names` from `from` into `to`, which is made only for them: an existing `to` is never
// merged into. Returns false when `to` existed.
void moveInto(const fs::path& from, const fs::path& to, std::initializer_list<std::string_view> names) {
  std::error_code ec;
  if (fs::exists(fs::symlink_status(to, ec))) return;
  bool any = false;
  for (auto name : names) any = any || fs::exists(fs::symlink_status(from / name, ec));
  if (!any) return;
  fs::create_directories(to, ec);
  if (ec) return;
  // Each rename either happens whole or not at all (another file system: the file stays).
  for (auto name : names) fs::rename(from / name, to / name, ec);
}

}  // namespace

void Paths::migrateLegacySupportDir() const noexcept {
  std::error_code ec;
  if (!isMac()) {
    const fs::path old = supportDir();
    // Once: the config folder existing means this ran (or a new build started afresh).
    if (!fs::is_directory(fs::symlink_status(old, ec)) || fs::exists(fs::symlink_status(configDir(), ec))) return;
    moveInto(old, configDir(), {"config.json", "rules.json", "shredder.json"});
    moveInto(old, stateDir(),
             {"audit.jsonl", "agent-state.json", "space-history.json", "growth-snapshots.json",
              "persistence-baseline.json", "shredder-review.json", "shredder-history.jsonl",
              "shredder-index.json"});
    moveInto(old, dataDir(), {"Quarantine"});
    return;
  }
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
