// Times one scan of the developer categories (Xcode, simulators, project build products, Docker)
// of a home folder read as a macOS home, or of the project search alone, with the minimum item age
// set to zero so a freshly built synthetic home is measured in full.
// Usage: developer_scan HOME [all|projects|all-stale]   (prints seconds, items and bytes of one run;
// all-stale sets staleProjectDays to 0, the worst case where every project's folders are measured)
#include "core/scan/ScanEngine.h"

#include <chrono>
#include <cstdio>
#include <string>

int main(int argc, char** argv) {
  using namespace kestrel;
  if (argc < 2) {
    std::fprintf(stderr, "usage: developer_scan HOME [all|projects|all-stale]\n");
    return 2;
  }
  const bool projectsOnly = argc > 2 && std::string(argv[2]) == "projects";
  AppConfig config;
  config.minItemAgeHours = 0;
  if (argc > 2 && std::string(argv[2]) == "all-stale") config.staleProjectDays = 0;
  std::set<CleanCategory> categories = {CleanCategory::projectArtifacts};
  if (!projectsOnly) categories.insert({CleanCategory::xcode, CleanCategory::simulators, CleanCategory::docker});
  const ScanEngine engine(Paths(argv[1], Layout::macos), config);
  const auto t0 = std::chrono::steady_clock::now();
  const auto results = engine.scan(categories);
  const auto t1 = std::chrono::steady_clock::now();
  int64_t total = 0;
  size_t items = 0;
  for (const auto& r : results) {
    total += r.totalSize();
    items += r.items.size();
  }
  std::printf("%.3f %zu %lld\n", std::chrono::duration<double>(t1 - t0).count(), items,
              static_cast<long long>(total));
  return 0;
}
