// Benchmark: GrowthTracker.takeSnapshot against GNU du -s over the same folders; cancel latency.
#include "core/insights/GrowthTracker.h"
#include "core/system/process/Shell.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

using namespace kestrel;
using Clock = std::chrono::steady_clock;

namespace {

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

}  // namespace

// growth_snapshot <home> <store-folder> [runs]: the home is only read; snapshots go to the store
// folder.
int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: growth_snapshot <home> <store-folder> [runs]\n");
    return 2;
  }
  const Paths paths{std::filesystem::path(argv[1])};
  const std::filesystem::path store = std::filesystem::path(argv[2]) / "growth-snapshots.json";
  const int runs = argc > 3 ? std::atoi(argv[3]) : 5;
  GrowthTracker tracker(paths, store);

  // du gets exactly the folders a snapshot measures.
  const auto first = tracker.takeSnapshot(std::chrono::system_clock::now(), nullptr);
  std::vector<std::string> duArgs = {"-s", "--"};
  for (const auto& [path, bytes] : first.sizes) duArgs.push_back(path);
  const auto duPath = Shell::which("du");
  if (!duPath) {
    std::fprintf(stderr, "du not found\n");
    return 1;
  }
  Shell::run(*duPath, duArgs, 600);  // warm-up of the baseline too

  std::vector<double> ours, du;
  for (int i = 0; i < runs; ++i) {
    auto start = Clock::now();
    const auto r = Shell::run(*duPath, duArgs, 600);
    du.push_back(secondsSince(start));
    if (!r.ok()) std::fprintf(stderr, "du exited with %d: %s\n", r.status, r.stderr.c_str());
    start = Clock::now();
    tracker.takeSnapshot(std::chrono::system_clock::now(), [] { return false; });
    ours.push_back(secondsSince(start));
    std::printf("run %d: takeSnapshot %.3f s, du -s %.3f s\n", i + 1, ours.back(), du.back());
  }

  // Cancel latency: raise the flag 100 ms into a snapshot and time how long the walk takes to stop.
  std::vector<double> stops;
  for (int i = 0; i < runs; ++i) {
    std::atomic<bool> flag{false};
    Clock::time_point raised;
    std::thread raiser([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      raised = Clock::now();
      flag.store(true);
    });
    tracker.takeSnapshot(std::chrono::system_clock::now(), [&] { return flag.load(); });
    const auto stopped = Clock::now();
    raiser.join();
    stops.push_back(std::chrono::duration<double>(stopped - raised).count());
  }

  std::printf("folders measured: %zu\n", first.sizes.size());
  std::printf("median takeSnapshot: %.3f s\n", median(ours));
  std::printf("median du -s:        %.3f s\n", median(du));
  std::printf("ratio:               %.2f\n", median(ours) / median(du));
  std::printf("median cancel stop:  %.1f ms\n", median(stops) * 1000);
  return 0;
}
