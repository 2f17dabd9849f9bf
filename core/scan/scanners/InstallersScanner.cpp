// Leftover installers: disk images and packages in Downloads and on the Desktop.
#include "core/scan/scanners/ChildScan.h"
#include "core/scan/scanners/Scanners.h"

#include <algorithm>

namespace kestrel {

std::vector<ScanItem> InstallersScanner::scan(const ScanContext& context) const {
  std::vector<ScanItem> items;
  for (const char* folder : {"Downloads", "Desktop"}) {
    if (context.isCancelled()) break;
    scanners::forEachChild(context, category(), context.home() / folder, [&](const scanners::Child& child) {
      const std::string ext = child.lowerExtension();
      if (std::find(kInstallerExtensions.begin(), kInstallerExtensions.end(), ext) == kInstallerExtensions.end())
        return;
      if (!context.oldEnough(child.modified())) return;
      const int64_t size = scanners::measure(child, context.isCancelled);
      if (size <= 0) return;
      items.push_back(scanners::makeItem(child, size, category(), Risk::review,
                                         "Installer disk image or package; the app is usually already installed",
                                         child.lastUsed()));
    });
  }
  return items;
}

}  // namespace kestrel
