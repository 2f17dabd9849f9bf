// Old downloads: files in Downloads not opened for oldDownloadsDays (installers excluded).
#include "core/scan/scanners/ChildScan.h"
#include "core/scan/scanners/Scanners.h"

#include <algorithm>

namespace kestrel {

std::vector<ScanItem> OldDownloadsScanner::scan(const ScanContext& context) const {
  const Date cutoff = context.daysAgo(context.config.oldDownloadsDays);
  const std::string reason = "Not opened in " + std::to_string(context.config.oldDownloadsDays) + "+ days";
  std::vector<ScanItem> items;
  scanners::forEachChild(context, category(), context.home() / "Downloads", [&](const scanners::Child& child) {
    const std::string ext = child.lowerExtension();
    if (std::find(kInstallerExtensions.begin(), kInstallerExtensions.end(), ext) != kInstallerExtensions.end())
      return;
    const auto lastUsed = child.lastUsed();
    if (!lastUsed || *lastUsed >= cutoff) return;  // an unknown date never counts as old
    if (!context.oldEnough(child.modified())) return;
    const int64_t size = scanners::measure(child, context.isCancelled);
    if (size <= 0) return;
    items.push_back(scanners::makeItem(child, size, category(), Risk::review, reason, lastUsed));
  });
  return items;
}

}  // namespace kestrel
