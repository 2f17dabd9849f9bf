// Cloud placeholders: the dataless flag, the platform's own eviction and coordinated removal.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

namespace kestrel::platform {

// True when the item's data is not on this machine (only its cloud placeholder is); always false
// on a system without such files.
bool isDataless(const std::filesystem::path& path) noexcept;

// The platform's cloud service refused or could not be reached; the text describes its error.
class CloudServiceError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Asks the platform's cloud service to drop the local copy of the item. Throws CloudServiceError.
void evictUbiquitousItem(const std::filesystem::path& path);

// Removes the item (a link as a link, a folder with its contents) through the safe remover, the
// way a coordinated removal reaches the sync service. Throws std::filesystem::filesystem_error.
void coordinatedRemove(const std::filesystem::path& path);

}  // namespace kestrel::platform
