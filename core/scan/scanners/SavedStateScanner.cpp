// Saved window state: per-app saved state not used for 14 days.
#include "core/scan/scanners/ChildScan.h"
#include "core/scan/scanners/Scanners.h"

namespace kestrel {

std::vector<ScanItem> SavedStateScanner::scan(const ScanContext& context) const {
  if (context.paths.layout() != Layout::macos) return {};  // a macOS home's folder only
  const Date cutoff = context.now - std::chrono::seconds(1209600);
  std::vector<ScanItem> items;
  scanners::forEachChild(context, category(), context.lib("Saved Application State"), [&](const scanners::Child& child) {
    const auto lastUsed = child.lastUsed();
    if (lastUsed && *lastUsed >= cutoff) return;
    if (!context.oldEnough(child.modified())) return;
    const int64_t size = scanners::measure(child, context.isCancelled);
    if (size <= 0) return;
    items.push_back(scanners::makeItem(child, size, category(), Risk::safe,
                                       "Window positions restored at launch; apps recreate it", lastUsed));
  });
  return items;
}

}  // namespace kestrel
