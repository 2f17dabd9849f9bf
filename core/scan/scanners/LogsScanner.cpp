// Logs: log folders and files in the user's log folder untouched for logAgeDays.
#include "core/scan/scanners/ChildScan.h"
#include "core/scan/scanners/Scanners.h"

namespace kestrel {

std::vector<ScanItem> LogsScanner::scan(const ScanContext& context) const {
  constexpr int kNewestLimit = 4000;
  std::vector<ScanItem> items;
  const Date cutoff = context.daysAgo(context.config.logAgeDays);
  const std::string reason = "Log files untouched for " + std::to_string(context.config.logAgeDays) + "+ days";
  scanners::forEachChild(context, category(), context.lib("Logs"), [&](const scanners::Child& child) {
    // Crash reports are their own category; the system's own log folder is never offered.
    if (child.name == "DiagnosticReports" || child.name == "orvo Kestrel") return;
    if (!context.oldEnough(child.modified())) return;
    const auto newest = FS::newestModification(child.path, kNewestLimit);
    if (!newest || *newest >= cutoff) return;  // gone, or written to recently
    const int64_t size = scanners::measure(child, context.isCancelled);
    if (size < 1) return;
    items.push_back(scanners::makeItem(child, size, category(), Risk::safe, reason, child.lastUsed()));
  });
  return items;
}

}  // namespace kestrel
