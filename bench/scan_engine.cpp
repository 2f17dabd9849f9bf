// Times ScanEngine.scan over the default categories of a home folder, with the minimum item age
// set to zero so that a freshly built synthetic home is measured in full.
// Usage: scan_engine HOME [RUNS]
#include "core/scan/ScanEngine.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

int main(int argc, char** argv) {
  using namespace kestrel;
  if (argc < 2) {
    std::fprintf(stderr, "usage: scan_engine HOME [RUNS]\n");
    return 2;
  }
  const int runs = argc > 2 ? std::atoi(argv[2]) : 5;
  AppConfig config;
  config.minItemAgeHours = 0;
  std::set<CleanCategory> categories;
  for (CleanCategory c : allCategories())
    if (selectedByDefault(c)) categories.insert(c);
  const ScanEngine engine(Paths(argv[1]), config);
  std::vector<double> times;
  int64_t total = 0;
  size_t items = 0;
  for (int i = 0; i < runs + 1; ++i) {  // the first run warms the cache and is not counted
    const auto t0 = std::chrono::steady_clock::now();
    const auto results = engine.scan(categories);
    const auto t1 = std::chrono::steady_clock::now();
    if (i == 0) continue;
    times.push_back(std::chrono::duration<double>(t1 - t0).count());
    total = 0;
    items = 0;
    for (const auto& r : results) {
      total += r.totalSize();
      items += r.items.size();
    }
  }
  std::sort(times.begin(), times.end());
  std::printf("scan_engine: %zu items, %lld bytes, median %.3f s over %d runs\n", items,
              static_cast<long long>(total), times[times.size() / 2], runs);
  return 0;
}
