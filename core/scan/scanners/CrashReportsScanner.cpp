// Crash reports: the diagnostic reports in the user's log folder, and the crash dumps apps have
// already uploaded.
#include "core/scan/scanners/Locations.h"
#include "core/scan/scanners/Scanners.h"

namespace kestrel {
namespace {

using scanners::Base, scanners::On, scanners::Shape;

constexpr scanners::Location kLocations[] = {
    {On::macos, Base::library, "Logs/DiagnosticReports", Shape::children},
    // Chromium-based apps move a dump to "completed" once it was sent.
    {On::linux, Base::config, "*/Crashpad/completed", Shape::children},
};

}  // namespace

std::vector<ScanItem> CrashReportsScanner::scan(const ScanContext& context) const {
  std::vector<ScanItem> items;
  scanners::forEachLocation(context, category(), kLocations, [&](const scanners::Found& found) {
    const auto& child = found.child;
    if (!context.oldEnough(child.modified())) return;
    const int64_t size = scanners::measure(child, context.isCancelled);
    if (size < 1) return;
    items.push_back(scanners::makeItem(child, size, category(), Risk::safe,
                                       "Crash/diagnostic report already sent (or never needed)", child.lastUsed()));
  });
  return items;
}

}  // namespace kestrel
