// Cloud files: sync roots, provider names, retried removal with placeholders, and eviction.
#include "core/clean/CloudFiles.h"

#include "core/platform/CloudItem.h"
#include "core/storage/FS.h"
#include "core/storage/Shell.h"

#include <cmath>
#include <system_error>
#include <thread>

namespace kestrel {
namespace {

constexpr std::string_view kICloudRoot = "Library/Mobile Documents";
constexpr std::string_view kStorageRoot = "Library/CloudStorage";

bool atOrUnder(std::string_view path, std::string_view root) {
  if (path.size() < root.size() || path.compare(0, root.size(), root) != 0) return false;
  return path.size() == root.size() || path[root.size()] == '/';
}

std::string homeText(const fs::path& home) {
  std::string h = home.string();
  while (h.size() > 1 && h.back() == '/') h.pop_back();
  return h;
}

std::string join(const fs::path& home, std::string_view rel) {
  std::string h = homeText(home);
  if (h.empty() || h.back() != '/') h += '/';
  return h + std::string(rel);
}

}  // namespace

namespace CloudFiles {

std::vector<fs::path> syncRoots(const fs::path& home) {
  return {fs::path(join(home, kICloudRoot)), fs::path(join(home, kStorageRoot))};
}

bool isSynced(const std::string& path, const fs::path& home) {
  return atOrUnder(path, join(home, kICloudRoot)) || atOrUnder(path, join(home, kStorageRoot));
}

std::string providerName(const std::string& path, const fs::path& home) {
  if (atOrUnder(path, join(home, kICloudRoot))) return "iCloud Drive";
  const std::string storage = join(home, kStorageRoot);
  if (atOrUnder(path, storage) && path.size() > storage.size() + 1) {
    std::string account = path.substr(storage.size() + 1);
    account = account.substr(0, account.find('/'));
    // Provider folders are named "<Provider>-<account>"; the provider part is the display name.
    std::string name = account.substr(0, account.find('-'));
    while (!name.empty() && name.back() == ' ') name.pop_back();
    while (!name.empty() && name.front() == ' ') name.erase(0, 1);
    if (!name.empty()) return name;
  }
  return "your cloud drive";
}

bool isDataless(const fs::path& url) noexcept { return platform::isDataless(url); }

void remove(const fs::path& url, int attempts, const RemoveHooks& hooks) {
  const auto wait = hooks.wait ? hooks.wait : [](std::chrono::duration<double> d) { std::this_thread::sleep_for(d); };
  const auto removeItem = hooks.removeItem ? hooks.removeItem : [](const fs::path& p) { platform::coordinatedRemove(p); };
  const fs::path placeholder = url.parent_path() / ("." + url.filename().string() + ".icloud");
  std::optional<fs::filesystem_error> lastError;
  for (int n = 0; n < attempts; ++n) {
    if (n > 0) wait(std::chrono::duration<double>(0.25 * std::pow(2.0, n - 1)));
    try {
      if (FS::exists(url)) removeItem(url);
      if (FS::exists(placeholder)) removeItem(placeholder);
    } catch (const fs::filesystem_error& e) {
      lastError = e;
    }
    if (!FS::exists(url) && !FS::exists(placeholder)) return;
  }
  if (lastError) throw *lastError;
  throw fs::filesystem_error("Could not remove the cloud file", url,
                             std::make_error_code(std::errc::directory_not_empty));
}

}  // namespace CloudFiles

namespace CloudEvictor {

EvictError EvictError::failed(const std::string& message) {
  return EvictError(Kind::failed, "Could not remove local copy: " + message);
}

EvictError EvictError::notInCloudFolder() {
  return EvictError(Kind::notInCloudFolder, "Not inside iCloud Drive or a cloud storage folder");
}

std::vector<fs::path> cloudRoots(const Paths& paths) {
  std::vector<fs::path> roots{fs::path(join(paths.home(), kICloudRoot))};
  for (const auto& child : FS::children(fs::path(join(paths.home(), kStorageRoot))))
    if (FS::isDirectory(child)) roots.push_back(child);
  return roots;
}

std::string provider(const std::string& path, const Paths& paths) {
  return CloudFiles::providerName(path, paths.home());
}

void evict(const fs::path& url, const Paths& paths) {
  const std::string path = url.string();
  const auto roots = cloudRoots(paths);
  const fs::path* holder = nullptr;
  for (const auto& root : roots)
    if (atOrUnder(path, root.string())) {
      holder = &root;
      break;
    }
  if (!holder) throw EvictError::notInCloudFolder();
  if (holder != &roots.front()) {
    const auto r = Shell::run("fileproviderctl", {"evict", path}, 60);
    if (r.ok()) return;
    std::string message = r.stderr;
    while (!message.empty() && (message.back() == '\n' || message.back() == '\r')) message.pop_back();
    throw EvictError::failed(message.empty() ? "provider refused" : message);
  }
  const auto platformError = platform::evictUbiquitousItem(url);
  if (!platformError) return;
  const auto r = Shell::run("brctl", {"evict", path}, 60);
  if (r.ok()) return;
  throw EvictError::failed(*platformError);
}

}  // namespace CloudEvictor
}  // namespace kestrel
