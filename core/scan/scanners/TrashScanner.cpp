// Trash: everything in the user's Trash folders, whatever its age or size.
#include "core/scan/scanners/Locations.h"
#include "core/scan/scanners/Scanners.h"
#include "core/system/fs/Trash.h"

namespace kestrel {
namespace {

using scanners::Base, scanners::On, scanners::Shape;

constexpr scanners::Location kLocations[] = {
    {On::macos, Base::home, ".Trash", Shape::children},
    {On::linux, Base::homeTrash, "files", Shape::children},
};

}  // namespace

std::vector<ScanItem> TrashScanner::scan(const ScanContext& context) const {
  std::vector<ScanItem> items;
  const bool freedesktop = context.paths.layout() == Layout::linux;
  // The user put these here on purpose, so no age test or size floor applies. The last-used date
  // is when the item was trashed where the Trash records it, else its modification date.
  auto add = [&](const scanners::Child& child) {
    const int64_t size = scanners::measure(child, context.isCancelled);
    std::optional<Date> date = freedesktop ? platform::trashDeletionDate(child.path) : std::nullopt;
    if (!date) date = child.modified();
    items.push_back(scanners::makeItem(child, size, category(), Risk::review, "Already in the Trash", date));
  };
  scanners::forEachLocation(context, category(), kLocations, [&](const scanners::Found& f) { add(f.child); });
  if (freedesktop && !context.isCancelled()) {
    // The Trash folders of the user's other volumes: what was trashed there stays there.
    for (const auto& files : platform::otherVolumeTrashes(context.paths))
      scanners::forEachChild(context, category(), files, add);
  }
  return items;
}

}  // namespace kestrel
