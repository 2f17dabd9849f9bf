// Xcode build data: derived data, old archives, device symbols of older systems and Xcode's cache.
#include "core/scan/scanners/ChildScan.h"
#include "core/scan/scanners/Scanners.h"

#include <algorithm>
#include <chrono>
#include <cctype>
#include <sstream>

namespace kestrel {
namespace {

// The system version a device-symbols folder is named after ("17.2 (21C62)", "iPhone15,2 18.1
// (22B83)", "16.4.1 (20E252) arm64e"): the first word made only of digits and dots.
std::optional<std::vector<int>> deviceSupportVersion(const std::string& name) {
  std::istringstream words(name);
  std::string word;
  while (words >> word) {
    if (word.empty() || !std::isdigit(static_cast<unsigned char>(word[0]))) continue;
    std::vector<int> parts;
    int value = 0;
    bool ok = true;
    for (char c : word) {
      if (c == '.') {
        parts.push_back(value);
        value = 0;
      } else if (std::isdigit(static_cast<unsigned char>(c)) && value < 100000) {
        value = value * 10 + (c - '0');
      } else {
        ok = false;
        break;
      }
    }
    if (!ok || word.back() == '.') continue;
    parts.push_back(value);
    return parts;
  }
  return std::nullopt;
}

int64_t wholeDays(Date from, Date to) {
  return std::chrono::duration_cast<std::chrono::hours>(to - from).count() / 24;
}

}  // namespace

std::vector<ScanItem> XcodeScanner::scan(const ScanContext& context) const {
  std::vector<ScanItem> items;
  if (context.paths.layout() != Layout::macos) return items;
  const auto offer = [&](const scanners::Child& child, Risk risk, const std::string& reason) {
    if (!context.oldEnough(child.modified())) return;
    const int64_t size = scanners::measure(child, context.isCancelled);
    if (size < 1) return;
    items.push_back(scanners::makeItem(child, size, category(), risk, reason, child.lastUsed()));
  };

  scanners::forEachChild(context, category(), context.paths.xcodeDerivedDataDir(), [&](const scanners::Child& child) {
    if (child.isDirectory()) offer(child, Risk::safe, "Xcode build data; rebuilt by the next build");
  });

  const Date archiveCutoff = context.daysAgo(context.config.xcodeArchiveAgeDays);
  scanners::forEachChild(context, category(), context.paths.xcodeArchivesDir(), [&](const scanners::Child& day) {
    if (!day.isDirectory()) return;
    scanners::forEachChild(context, category(), day.path, [&](const scanners::Child& archive) {
      if (!archive.isDirectory() || archive.lowerExtension() != "xcarchive") return;
      const auto modified = archive.modified();
      if (!modified || *modified > archiveCutoff) return;
      offer(archive, Risk::review,
            "App archive made " + std::to_string(wholeDays(*modified, context.now)) +
                " days ago; needed to resubmit that build or read its crash reports");
    });
  });

  for (const char* platform : {"iOS", "watchOS"}) {
    // A first listing finds the newest version; the second measures the older ones.
    std::vector<std::vector<int>> versions;
    const fs::path folder = context.paths.xcodeDeviceSupportDir(platform);
    scanners::forEachChild(context, category(), folder, [&](const scanners::Child& child) {
      if (!child.isDirectory()) return;
      if (auto v = deviceSupportVersion(child.name)) versions.push_back(std::move(*v));
    });
    if (versions.size() < 2) continue;
    const std::vector<int> newest = *std::max_element(versions.begin(), versions.end());
    scanners::forEachChild(context, category(), folder, [&](const scanners::Child& child) {
      if (!child.isDirectory()) return;
      const auto v = deviceSupportVersion(child.name);
      if (!v || *v >= newest) return;
      offer(child, Risk::review,
            std::string("Debug symbols for an older ") + platform +
                " version; copied again from a device running it when one is connected");
    });
  }

  scanners::forFolder(context, category(), context.paths.xcodeCacheDir(), [&](const scanners::Child& child) {
    if (child.isDirectory()) offer(child, Risk::safe, "Xcode's cache; rebuilt when Xcode needs it");
  });
  return items;
}

}  // namespace kestrel
