// Old downloads: files in the Download folder not opened for oldDownloadsDays (installers excluded).
#include "core/scan/scanners/Locations.h"
#include "core/scan/scanners/Scanners.h"

namespace kestrel {
namespace {

using scanners::Base, scanners::On, scanners::Shape;

constexpr scanners::Location kLocations[] = {
    {On::both, Base::downloads, "", Shape::children},
};

}  // namespace

std::vector<ScanItem> OldDownloadsScanner::scan(const ScanContext& context) const {
  const Date cutoff = context.daysAgo(context.config.oldDownloadsDays);
  const std::string reason = "Not opened in " + std::to_string(context.config.oldDownloadsDays) + "+ days";
  std::vector<ScanItem> items;
  scanners::forEachLocation(context, category(), kLocations, [&](const scanners::Found& found) {
    const auto& child = found.child;
    if (isInstaller(context.paths.layout(), child.lowerExtension())) return;
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
