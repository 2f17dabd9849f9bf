// Scanner registry: which scanner serves which category.
#include "core/scan/ScanEngine.h"
#include "core/scan/scanners/Scanners.h"

namespace kestrel::ScannerRegistry {
namespace {

std::unique_ptr<JunkScanner> make(CleanCategory c) {
  switch (c) {
    case CleanCategory::userCaches: return std::make_unique<UserCachesScanner>();
    case CleanCategory::logs: return std::make_unique<LogsScanner>();
    case CleanCategory::crashReports: return std::make_unique<CrashReportsScanner>();
    case CleanCategory::trash: return std::make_unique<TrashScanner>();
    case CleanCategory::savedAppState: return std::make_unique<SavedStateScanner>();
    case CleanCategory::mailDownloads: return std::make_unique<MailDownloadsScanner>();
    case CleanCategory::iosBackups: return std::make_unique<IOSBackupsScanner>();
    case CleanCategory::iosUpdates: return std::make_unique<IOSUpdatesScanner>();
    case CleanCategory::oldDownloads: return std::make_unique<OldDownloadsScanner>();
    case CleanCategory::installers: return std::make_unique<InstallersScanner>();
    case CleanCategory::packageCaches: return std::make_unique<PackageCachesScanner>();
    // The remaining categories have no scanner in this build: they yield no result at all.
    case CleanCategory::largeOldFiles:
    case CleanCategory::xcode:
    case CleanCategory::simulators:
    case CleanCategory::projectArtifacts:
    case CleanCategory::docker:
    case CleanCategory::duplicates:
    case CleanCategory::similarPhotos:
    case CleanCategory::cloudLocalCopies:
    case CleanCategory::securityThreats:
    case CleanCategory::appBundle:
    case CleanCategory::appLeftovers:
    case CleanCategory::orphanedLeftovers: return nullptr;
  }
  return nullptr;
}

}  // namespace

std::vector<std::unique_ptr<JunkScanner>> scanners(const std::set<CleanCategory>& categories) {
  std::vector<std::unique_ptr<JunkScanner>> out;
  for (CleanCategory c : categories)
    if (auto s = make(c)) out.push_back(std::move(s));
  return out;
}

std::set<CleanCategory> scannable() {
  std::set<CleanCategory> out;
  for (CleanCategory c : allCategories())
    if (make(c)) out.insert(c);
  return out;
}

}  // namespace kestrel::ScannerRegistry
