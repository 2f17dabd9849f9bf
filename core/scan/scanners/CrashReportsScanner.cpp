// Crash reports: the diagnostic reports in the user's log folder.
#include "core/scan/scanners/ChildScan.h"
#include "core/scan/scanners/Scanners.h"

namespace kestrel {

std::vector<ScanItem> CrashReportsScanner::scan(const ScanContext& context) const {
  std::vector<ScanItem> items;
  scanners::forEachChild(context, category(), context.lib("Logs/DiagnosticReports"), [&](const scanners::Child& child) {
    if (!context.oldEnough(child.modified())) return;
    const int64_t size = scanners::measure(child, context.isCancelled);
    if (size < 1) return;
    items.push_back(scanners::makeItem(child, size, category(), Risk::safe,
                                       "Crash/diagnostic report already sent (or never needed)", child.lastUsed()));
  });
  return items;
}

}  // namespace kestrel
