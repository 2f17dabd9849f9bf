// Settings: AppConfig with its defaults, the disposal rule per category, and ConfigStore.
#pragma once

#include "core/scan/ScanModel.h"
#include "core/storage/JSONStore.h"
#include "core/storage/Json.h"
#include "core/storage/Paths.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kestrel {

struct AppConfig {
  int64_t quarantineRetentionDays = 7;
  bool quarantineEverything = false;
  std::map<std::string, Disposal> disposalOverrides;  // category raw value → disposal
  std::vector<std::string> protectedPaths;
  std::vector<std::string> developerRoots;
  int64_t staleProjectDays = 30;
  int64_t oldDownloadsDays = 180;
  int64_t largeFileMinMB = 500;
  int64_t largeFileAgeDays = 120;
  int64_t xcodeArchiveAgeDays = 180;
  int64_t logAgeDays = 3;
  int64_t minItemAgeHours = 1;
  bool hasCompletedOnboarding = false;
  bool queueAdminRemovals = true;

  // Docker is always deleted; then the user's override; then quarantineEverything (except the
  // Trash, which stays a deletion); then the category's built-in disposal.
  Disposal disposal(CleanCategory category) const;

  bool operator==(const AppConfig&) const = default;
};

Json toJson(const AppConfig& config);
// Every key optional (absent → default); a wrong type or an unknown disposal throws DecodeError.
AppConfig appConfigFromJson(const Json& j);

class ConfigStore {
 public:
  explicit ConfigStore(Paths paths) : paths_(std::move(paths)) {}
  // Never fails: a missing, unreadable or undecodable file gives the defaults.
  AppConfig load() const;
  // The same reading, telling a missing file (defaults, nothing to say) from one that exists but
  // cannot be read or decoded: removals must not run on defaults that lack the user's protections.
  JSONStore::Loaded<AppConfig> loadChecked() const;
  // "Settings file <path> is damaged (<reason>); nothing was removed. Fix it or delete it."
  std::string damagedMessage(const std::string& reason) const;
  // Writes every field atomically; throws the file system's error.
  void save(const AppConfig& config) const;

 private:
  Paths paths_;
};

}  // namespace kestrel
