// The categories people name on kestrel's command line, and the scan both "scan" and "clean" run.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "core/model/AppConfig.h"
#include "core/model/ScanModel.h"
#include "host/Host.h"

namespace kestrel::host {

// The categories named by `words` (an id such as "userCaches", in any letter case, or a display
// name such as "User Caches"); UsageError naming the ids for a word that is neither.
std::set<CleanCategory> namedCategories(const std::vector<std::string>& words);

// Why a category has nothing to offer before it is even scanned: "not on Linux" for one that
// cannot exist on this system, "no scanner yet" for one nothing looks for; empty otherwise.
std::string unavailable(CleanCategory c, Layout layout);

// The settings a removal may rely on: CommandError with the clean's own line when the settings
// file exists but is damaged (the defaults lack the user's protected paths).
AppConfig settingsForRemoval(const HostContext& ctx);
// The settings a scan shows results with: the defaults when the file is damaged, which is said on
// standard error (and makes the exit status 1).
struct ScanSettings {
  AppConfig config;
  bool damaged = false;
};
ScanSettings settingsForScan(const HostContext& ctx);

// Scans `categories` (those that can hold anything here), showing progress on a terminal's
// standard error: the category being scanned and where.
std::vector<CategoryResult> scanWithProgress(const HostContext& ctx, const AppConfig& config,
                                             const std::set<CleanCategory>& categories);

}  // namespace kestrel::host
