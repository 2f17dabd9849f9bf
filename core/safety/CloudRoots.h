// Cloud sync roots: the folders of the home folder that a cloud service keeps in sync.
#pragma once

#include "core/system/Paths.h"

#include <string>
#include <vector>

namespace kestrel::CloudRoots {

// The two sync roots: "Library/Mobile Documents" (iCloud Drive) and "Library/CloudStorage" (one
// sub-folder per account of other providers).
std::vector<fs::path> syncRoots(const fs::path& home);
// True when `path` equals a sync root or lies below one (textual test; the path is taken as given).
bool isSynced(const std::string& path, const fs::path& home);
// "iCloud Drive" inside the iCloud root; the provider's name from its account folder inside the
// other root ("GoogleDrive-me@example.com" gives "GoogleDrive"); "your cloud drive" otherwise.
std::string providerName(const std::string& path, const fs::path& home);

}  // namespace kestrel::CloudRoots
