// Crash reports: the diagnostic reports in the user's log folder, and the crash dumps apps have
// already uploaded; on Linux also the reports the system's crash handler wrote for the user.
#include "core/scan/scanners/Locations.h"
#include "core/scan/scanners/Scanners.h"

#include <unistd.h>

namespace kestrel {
namespace {

using scanners::Base, scanners::On, scanners::Shape;

// The crash handler's folder is shared by every user: only plain ".crash" files of this user's
// programs, or of root's (which need administrator rights), are theirs to remove.
bool ownCrashReport(const scanners::Child& child) {
  const uid_t owner = child.status.st_uid;
  return child.hasStatus && S_ISREG(child.status.st_mode) && (owner == ::geteuid() || owner == 0) &&
         child.name.front() != '.' && child.name.size() > 6 && child.name.ends_with(".crash");
}

constexpr scanners::Location kLocations[] = {
    {On::macos, Base::library, "Logs/DiagnosticReports", Shape::children},
    // Chromium-based apps move a dump to "completed" once it was sent.
    {On::linux, Base::config, "*/Crashpad/completed", Shape::children},
    {On::linux, Base::systemCrash, "", Shape::children, {}, ownCrashReport},
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
