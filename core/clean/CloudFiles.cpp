// Cloud files: retried removal with placeholders, and eviction.
#include "core/clean/CloudFiles.h"

#include "core/safety/CloudRoots.h"
#include "core/safety/SafetyPolicy.h"
#include "core/system/fs/CloudItem.h"
#include "core/system/fs/FS.h"
#include "core/system/process/Shell.h"

#include <cmath>
#include <system_error>
#include <thread>

namespace kestrel {

namespace CloudFiles {

bool isDataless(const fs::path& url) noexcept { return platform::isDataless(url); }

void remove(const fs::path& url, int attempts, const Services& given) {
  const Services services = given.withDefaults();
  const auto& wait = services.sleep;
  const auto& removeItem = services.removeCloudItem;
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
  const auto sync = CloudRoots::syncRoots(paths.home());  // iCloud Drive first, then the providers'
  std::vector<fs::path> roots{sync.front()};
  for (const auto& child : FS::children(sync.back()))
    if (FS::isDirectory(child)) roots.push_back(child);
  return roots;
}

std::string provider(const std::string& path, const Paths& paths) {
  return CloudRoots::providerName(path, paths.home());
}

void evict(const fs::path& url, const Paths& paths, const Services& given) {
  const Services services = given.withDefaults();
  const std::string path = url.string();
  const auto roots = cloudRoots(paths);
  const fs::path* holder = nullptr;
  for (const auto& root : roots)
    if (isAtOrUnder(path, root.string())) {
      holder = &root;
      break;
    }
  if (!holder) throw EvictError::notInCloudFolder();
  if (holder != &roots.front()) {
    const auto r = services.run("fileproviderctl", {"evict", path}, 60);
    if (r.ok()) return;
    std::string message = r.stderr;
    while (!message.empty() && (message.back() == '\n' || message.back() == '\r')) message.pop_back();
    throw EvictError::failed(message.empty() ? "provider refused" : message);
  }
  std::string platformError;
  try {
    platform::evictUbiquitousItem(url);
    return;
  } catch (const platform::CloudServiceError& e) {
    platformError = e.what();
  }
  const auto r = services.run("brctl", {"evict", path}, 60);
  if (r.ok()) return;
  throw EvictError::failed(platformError);
}

}  // namespace CloudEvictor
}  // namespace kestrel
