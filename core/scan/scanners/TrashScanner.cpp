// Trash: everything in the user's Trash, whatever its age or size.
#include "core/scan/scanners/ChildScan.h"
#include "core/scan/scanners/Scanners.h"

namespace kestrel {

std::vector<ScanItem> TrashScanner::scan(const ScanContext& context) const {
  std::vector<ScanItem> items;
  // The user put these here on purpose, so no age test or size floor applies; the last-used date
  // is the modification date.
  scanners::forEachChild(context, category(), context.home() / ".Trash", [&](const scanners::Child& child) {
    const int64_t size = scanners::measure(child, context.isCancelled);
    items.push_back(scanners::makeItem(child, size, category(), Risk::review, "Already in the Trash", child.modified()));
  });
  return items;
}

}  // namespace kestrel
