// User caches: the app caches in the user's cache folder of at least 64 KiB.
#include "core/scan/scanners/ChildScan.h"
#include "core/scan/scanners/Scanners.h"

#include <algorithm>

namespace kestrel {

std::vector<ScanItem> UserCachesScanner::scan(const ScanContext& context) const {
  constexpr int64_t kMinimumSize = 65536;  // smaller caches are not worth listing
  std::vector<ScanItem> items;
  scanners::forEachChild(context, category(), context.lib("Caches"), [&](const scanners::Child& child) {
    if (std::find(kCacheExclusions.begin(), kCacheExclusions.end(), child.name) != kCacheExclusions.end()) return;
    if (!context.oldEnough(child.modified())) return;
    const int64_t size = scanners::measure(child, context.isCancelled);
    if (size < kMinimumSize) return;
    items.push_back(scanners::makeItem(child, size, category(), Risk::safe,
                                       "App cache; rebuilt automatically when needed", child.lastUsed()));
  });
  return items;
}

}  // namespace kestrel
