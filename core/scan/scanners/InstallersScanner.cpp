// Leftover installers: disk images and packages in the Download folder and on the Desktop.
#include "core/scan/scanners/Locations.h"
#include "core/scan/scanners/Scanners.h"

#include <algorithm>

namespace kestrel {
namespace {

using scanners::Base, scanners::On, scanners::Shape;

constexpr scanners::Location kLocations[] = {
    {On::both, Base::downloads, "", Shape::children},
    {On::both, Base::desktop, "", Shape::children},
};

}  // namespace

bool isInstaller(Layout layout, std::string_view lowerExtension) {
  const auto& macos = kInstallerExtensions;
  if (std::find(macos.begin(), macos.end(), lowerExtension) != macos.end()) return true;
  const auto& linux = kLinuxInstallerExtensions;
  return layout == Layout::linux && std::find(linux.begin(), linux.end(), lowerExtension) != linux.end();
}

std::vector<ScanItem> InstallersScanner::scan(const ScanContext& context) const {
  std::vector<ScanItem> items;
  scanners::forEachLocation(context, category(), kLocations, [&](const scanners::Found& found) {
    const auto& child = found.child;
    if (!isInstaller(context.paths.layout(), child.lowerExtension())) return;
    if (!context.oldEnough(child.modified())) return;
    const int64_t size = scanners::measure(child, context.isCancelled);
    if (size <= 0) return;
    items.push_back(scanners::makeItem(child, size, category(), Risk::review,
                                       "Installer disk image or package; the app is usually already installed",
                                       child.lastUsed()));
  });
  return items;
}

}  // namespace kestrel
