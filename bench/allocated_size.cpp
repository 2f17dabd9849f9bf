// Benchmark: FS::allocatedSize over a folder, median wall time of several runs and peak RSS.
// Usage: allocated_size <folder> [runs]
#include "core/system/fs/FS.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <folder> [runs]\n", argv[0]);
    return 2;
  }
  const int runs = argc > 2 ? std::atoi(argv[2]) : 5;
  std::vector<double> times;
  int64_t bytes = 0;
  uint64_t polls = 0;
  for (int i = 0; i < runs; ++i) {
    polls = 0;
    const auto start = std::chrono::steady_clock::now();
    bytes = kestrel::FS::allocatedSize(argv[1], [&] { return ++polls, false; });
    times.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  std::sort(times.begin(), times.end());
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  std::printf("allocatedSize bytes=%lld median_s=%.3f min_s=%.3f max_s=%.3f cancel_polls=%llu peak_rss_kb=%ld\n",
              static_cast<long long>(bytes), times[times.size() / 2], times.front(), times.back(),
              static_cast<unsigned long long>(polls), ru.ru_maxrss);
  return 0;
}
