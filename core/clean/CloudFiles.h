// Cloud files: coordinated removal and eviction of local copies (the sync roots are the safety layer's).
#pragma once

#include "core/system/Paths.h"
#include "core/system/Services.h"

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrel {

namespace CloudFiles {

// True when the item's data is not on this machine (always false where there are no placeholders).
bool isDataless(const fs::path& url) noexcept;

// Removes the item and its ".<name>.icloud" placeholder, retrying up to `attempts` times with
// waits of 0.25 s, 0.5 s, 1 s … before the second, third, fourth attempt. Throws the last removal
// error, or a filesystem_error (directory_not_empty) when the item stayed without an error.
void remove(const fs::path& url, int attempts, const Services& services = {});

}  // namespace CloudFiles

namespace CloudEvictor {

class EvictError : public std::runtime_error {
 public:
  enum class Kind { failed, notInCloudFolder };
  static EvictError failed(const std::string& message);
  static EvictError notInCloudFolder();
  Kind kind() const { return kind_; }

 private:
  EvictError(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}
  Kind kind_;
};

// The iCloud root, then every existing folder inside "Library/CloudStorage" (sorted by name).
std::vector<fs::path> cloudRoots(const Paths& paths);
std::string provider(const std::string& path, const Paths& paths);
// Drops the local copy, keeping the cloud copy: "fileproviderctl evict <path>" for provider
// folders, the platform's eviction and then "brctl evict <path>" for iCloud Drive (60 s each).
// Throws EvictError; never deletes anything.
void evict(const fs::path& url, const Paths& paths, const Services& services = {});

}  // namespace CloudEvictor

}  // namespace kestrel
