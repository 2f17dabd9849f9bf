// Settings: AppConfig with its defaults and the disposal rule per category.
#pragma once

#include "core/model/ScanModel.h"
#include "core/base/Json.h"
#include "core/system/Paths.h"

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
  // A folder every scheduled tick writes "kestrel.prom" (the metrics) into; empty: none.
  std::string metricsTextfileDir;

  // Docker is always deleted; then the user's override; then quarantineEverything (except the
  // Trash, which stays a deletion); then the category's built-in disposal.
  Disposal disposal(CleanCategory category) const;

  bool operator==(const AppConfig&) const = default;
};

Json toJson(const AppConfig& config);
// Every key optional (absent → default); a wrong type or an unknown disposal throws DecodeError.
AppConfig appConfigFromJson(const Json& j);

}  // namespace kestrel
