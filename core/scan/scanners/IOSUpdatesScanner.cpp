// iOS firmware files: the device software updates and the configurator's firmware cache.
#include "core/scan/scanners/ChildScan.h"
#include "core/scan/scanners/Scanners.h"

namespace kestrel {

std::vector<ScanItem> IOSUpdatesScanner::scan(const ScanContext& context) const {
  if (context.paths.layout() != Layout::macos) return {};  // a macOS home's folder only
  struct Folder {
    const char* sub;
    const char* reason;
  };
  static constexpr Folder kFolders[] = {
      {"iTunes/iPhone Software Updates", "Firmware file; re-downloaded if ever needed"},
      {"iTunes/iPad Software Updates", "Firmware file; re-downloaded if ever needed"},
      {"iTunes/iPod Software Updates", "Firmware file; re-downloaded if ever needed"},
      {"Group Containers/K36BKF7T3D.group.com.apple.configurator/Library/Caches/Assets/TTU/com.apple.itunes.ipsw",
       "Cached firmware file"},
  };
  std::vector<ScanItem> items;
  for (const auto& folder : kFolders) {
    if (context.isCancelled()) break;
    scanners::forEachChild(context, category(), context.lib(folder.sub), [&](const scanners::Child& child) {
      if (!context.oldEnough(child.modified())) return;
      const int64_t size = scanners::measure(child, context.isCancelled);
      if (size < 1) return;
      items.push_back(scanners::makeItem(child, size, category(), Risk::safe, folder.reason, child.lastUsed()));
    });
  }
  return items;
}

}  // namespace kestrel
