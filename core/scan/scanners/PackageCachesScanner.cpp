// Package-manager caches: the download and build caches of developer tools, one fixed table.
#include "core/scan/scanners/Locations.h"
#include "core/scan/scanners/Scanners.h"

#include <algorithm>

namespace kestrel {
namespace {

using scanners::Base, scanners::On, scanners::Shape;

struct CacheEntry {
  scanners::Location where;
  std::string_view title;
  Risk risk;
};

constexpr CacheEntry cache(On on, Base base, std::string_view path, std::string_view title, Risk risk) {
  return {{on, base, path, Shape::self}, title, risk};
}

constexpr CacheEntry kEntries[] = {
    cache(On::both, Base::home, ".npm/_cacache", "npm cache", Risk::safe),
    cache(On::macos, Base::library, "Caches/Yarn", "Yarn cache", Risk::safe),
    cache(On::linux, Base::cache, "yarn", "Yarn cache", Risk::safe),
    cache(On::both, Base::home, ".yarn/berry/cache", "Yarn Berry cache", Risk::safe),
    cache(On::macos, Base::library, "pnpm/store", "pnpm store", Risk::safe),
    cache(On::linux, Base::data, "pnpm/store", "pnpm store", Risk::safe),
    cache(On::both, Base::home, ".pnpm-store", "pnpm store", Risk::safe),
    cache(On::both, Base::home, ".bun/install/cache", "Bun cache", Risk::safe),
    cache(On::macos, Base::library, "Caches/pnpm", "pnpm cache", Risk::safe),
    cache(On::linux, Base::cache, "pnpm", "pnpm cache", Risk::safe),
    cache(On::macos, Base::library, "Caches/pip", "pip cache", Risk::safe),
    cache(On::macos, Base::home, ".cache/pip", "pip cache", Risk::safe),
    cache(On::linux, Base::cache, "pip", "pip cache", Risk::safe),
    cache(On::macos, Base::library, "Caches/pypoetry", "Poetry cache", Risk::safe),
    cache(On::linux, Base::cache, "pypoetry", "Poetry cache", Risk::safe),
    cache(On::macos, Base::home, ".cache/uv", "uv cache", Risk::safe),
    cache(On::linux, Base::cache, "uv", "uv cache", Risk::safe),
    cache(On::macos, Base::library, "Caches/Homebrew", "Homebrew downloads", Risk::safe),
    cache(On::linux, Base::cache, "Homebrew", "Homebrew downloads", Risk::safe),
    cache(On::macos, Base::library, "Caches/CocoaPods", "CocoaPods cache", Risk::safe),
    cache(On::macos, Base::library, "Caches/org.swift.swiftpm", "SwiftPM cache", Risk::safe),
    cache(On::linux, Base::cache, "org.swift.swiftpm", "SwiftPM cache", Risk::safe),
    cache(On::both, Base::home, ".cargo/registry/cache", "Cargo crate cache", Risk::safe),
    cache(On::both, Base::home, ".cargo/git/checkouts", "Cargo git checkouts", Risk::safe),
    cache(On::both, Base::home, "go/pkg/mod/cache/download", "Go module download cache", Risk::safe),
    cache(On::macos, Base::library, "Caches/go-build", "Go build cache", Risk::safe),
    cache(On::linux, Base::cache, "go-build", "Go build cache", Risk::safe),
    cache(On::both, Base::home, ".gradle/caches", "Gradle caches", Risk::safe),
    cache(On::both, Base::home, ".gradle/wrapper/dists", "Gradle wrapper distributions", Risk::review),
    cache(On::both, Base::home, ".m2/repository", "Maven repository", Risk::review),
    cache(On::macos, Base::library, "Caches/ms-playwright", "Playwright browsers", Risk::review),
    cache(On::linux, Base::cache, "ms-playwright", "Playwright browsers", Risk::review),
    cache(On::macos, Base::home, ".cache/huggingface", "Hugging Face models/datasets", Risk::caution),
    cache(On::linux, Base::cache, "huggingface", "Hugging Face models/datasets", Risk::caution),
    cache(On::macos, Base::library, "Caches/JetBrains", "JetBrains IDE caches", Risk::safe),
    cache(On::linux, Base::cache, "JetBrains", "JetBrains IDE caches", Risk::safe),
    cache(On::both, Base::home, ".android/cache", "Android SDK cache", Risk::safe),
    cache(On::both, Base::home, ".expo", "Expo cache", Risk::review),
    cache(On::linux, Base::cache, "composer", "Composer cache", Risk::safe),
    cache(On::linux, Base::cache, "bazel", "Bazel cache", Risk::safe),
    cache(On::linux, Base::cache, "node-gyp", "node-gyp headers", Risk::safe),
    cache(On::linux, Base::home, ".conda/pkgs", "Conda package cache", Risk::safe),
    cache(On::linux, Base::home, ".nuget/packages", "NuGet packages", Risk::review),
};

constexpr int64_t kMinimumSize = 1048576;

}  // namespace

std::vector<ScanItem> PackageCachesScanner::scan(const ScanContext& context) const {
  std::vector<ScanItem> items;
  for (const auto& entry : kEntries) {
    // Cancellation only stops new items; the rest of the table is still walked (cheaply).
    if (context.isCancelled()) continue;
    scanners::forEachLocation(context, category(), std::span(&entry.where, 1), [&](const scanners::Found& found) {
      const auto& child = found.child;
      if (!context.oldEnough(child.modified())) return;
      const int64_t size = scanners::measure(child, context.isCancelled);
      if (size < kMinimumSize) return;
      ScanItem item = scanners::makeItem(child, size, category(), entry.risk,
                                         entry.risk == Risk::safe ? "Re-downloaded on demand by the tool"
                                                                  : "Re-downloadable, but may be large to fetch again",
                                         child.lastUsed());
      item.title = std::string(entry.title);
      items.push_back(std::move(item));
    });
  }
  std::stable_sort(items.begin(), items.end(), [](const ScanItem& a, const ScanItem& b) { return a.size > b.size; });
  return items;
}

std::vector<std::string_view> linuxPackageCacheFolders() {
  std::vector<std::string_view> out;
  for (const auto& entry : kEntries)
    if (entry.where.on == On::linux && entry.where.base == Base::cache) out.push_back(entry.where.pattern);
  return out;
}

}  // namespace kestrel
