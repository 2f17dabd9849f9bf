// Package-manager caches: the download and build caches of developer tools, one fixed table.
#include "core/system/FileStat.h"
#include "core/scan/scanners/ChildScan.h"
#include "core/scan/scanners/Scanners.h"

#include <fcntl.h>

#include <algorithm>

namespace kestrel {
namespace {

struct CacheEntry {
  std::string_view path;  // below the home folder
  std::string_view title;
  Risk risk;
};

constexpr CacheEntry kEntries[] = {
    {".npm/_cacache", "npm cache", Risk::safe},
    {"Library/Caches/Yarn", "Yarn cache", Risk::safe},
    {".yarn/berry/cache", "Yarn Berry cache", Risk::safe},
    {"Library/pnpm/store", "pnpm store", Risk::safe},
    {".pnpm-store", "pnpm store", Risk::safe},
    {".bun/install/cache", "Bun cache", Risk::safe},
    {"Library/Caches/pnpm", "pnpm cache", Risk::safe},
    {"Library/Caches/pip", "pip cache", Risk::safe},
    {".cache/pip", "pip cache", Risk::safe},
    {"Library/Caches/pypoetry", "Poetry cache", Risk::safe},
    {".cache/uv", "uv cache", Risk::safe},
    {"Library/Caches/Homebrew", "Homebrew downloads", Risk::safe},
    {"Library/Caches/CocoaPods", "CocoaPods cache", Risk::safe},
    {"Library/Caches/org.swift.swiftpm", "SwiftPM cache", Risk::safe},
    {".cargo/registry/cache", "Cargo crate cache", Risk::safe},
    {".cargo/git/checkouts", "Cargo git checkouts", Risk::safe},
    {"go/pkg/mod/cache/download", "Go module download cache", Risk::safe},
    {"Library/Caches/go-build", "Go build cache", Risk::safe},
    {".gradle/caches", "Gradle caches", Risk::safe},
    {".gradle/wrapper/dists", "Gradle wrapper distributions", Risk::review},
    {".m2/repository", "Maven repository", Risk::review},
    {"Library/Caches/ms-playwright", "Playwright browsers", Risk::review},
    {".cache/huggingface", "Hugging Face models/datasets", Risk::caution},
    {"Library/Caches/JetBrains", "JetBrains IDE caches", Risk::safe},
    {".android/cache", "Android SDK cache", Risk::safe},
    {".expo", "Expo cache", Risk::review},
};

constexpr int64_t kMinimumSize = 1048576;

}  // namespace

std::vector<ScanItem> PackageCachesScanner::scan(const ScanContext& context) const {
  std::vector<ScanItem> items;
  for (const auto& entry : kEntries) {
    // Cancellation only stops new items; the rest of the table is still walked (cheaply).
    if (context.isCancelled()) continue;
    const fs::path relative(entry.path);
    const fs::path folder = context.home() / relative;
    context.report(category(), folder.string());
    fs::path realParent;
    UniqueFd parent = context.openFolder(folder.parent_path(), &realParent);
    if (!parent) continue;
    scanners::Child child;
    child.name = relative.filename().string();
    child.path = folder;
    child.realPath = realParent / child.name;
    child.parentFd = parent.get();
    child.hasStatus = ::fstatat(parent.get(), child.name.c_str(), &child.status, AT_SYMLINK_NOFOLLOW) == 0;
    if (!child.hasStatus) continue;  // missing or unreadable: nothing to offer
    if (!context.oldEnough(child.modified())) continue;
    const int64_t size = scanners::measure(child, context.isCancelled);
    if (size < kMinimumSize) continue;
    ScanItem item = scanners::makeItem(child, size, category(), entry.risk,
                                       entry.risk == Risk::safe ? "Re-downloaded on demand by the tool"
                                                                : "Re-downloadable, but may be large to fetch again",
                                       child.lastUsed());
    item.title = std::string(entry.title);
    items.push_back(std::move(item));
  }
  std::stable_sort(items.begin(), items.end(), [](const ScanItem& a, const ScanItem& b) { return a.size > b.size; });
  return items;
}

}  // namespace kestrel
