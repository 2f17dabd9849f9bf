// Benchmark: Cleaner::clean quarantining small log folders against the same clean deleting them.
//
//   clean_quarantine make HOME N    makes N log folders HOME/Library/Logs/app-<i>/x.log, dated
//                                   30 days back so the logs scanner offers them
//   clean_quarantine clean HOME     scans the logs category (not timed), then cleans every item it
//                                   offers with one Cleaner::clean by the disposal config.json
//                                   gives logs; prints items, failures and seconds
//   clean_quarantine bytes HOME N   makes N log folders in HOME (which must not exist yet),
//                                   quarantines them in one session and prints the bytes written
//                                   to its manifest and journal (counted by the kernel's write
//                                   counter around the store's calls) and the final file sizes
#include <fcntl.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "core/clean/Cleaner.h"
#include "core/scan/ScanEngine.h"
#include "core/model/AppConfig.h"
#include "core/store/ConfigStore.h"

using namespace kestrel;

namespace {

using Clock = std::chrono::steady_clock;

void makeLogs(const fs::path& home, long n) {
  const auto old = std::chrono::system_clock::now() - std::chrono::hours(24 * 30);
  const auto secs =
      std::chrono::duration_cast<std::chrono::seconds>(old.time_since_epoch()).count();
  const timespec times[2] = {{static_cast<time_t>(secs), 0}, {static_cast<time_t>(secs), 0}};
  for (long i = 0; i < n; ++i) {
    const fs::path dir = home / "Library/Logs" / ("app-" + std::to_string(i));
    fs::create_directories(dir);
    std::ofstream(dir / "x.log") << "log line " << i << " of a small application log\n";
    ::utimensat(AT_FDCWD, (dir / "x.log").c_str(), times, AT_SYMLINK_NOFOLLOW);
    ::utimensat(AT_FDCWD, dir.c_str(), times, AT_SYMLINK_NOFOLLOW);
  }
}

// Bytes this process has handed to write() so far (Linux /proc/self/io "wchar").
long long bytesWritten() {
  std::ifstream io("/proc/self/io");
  for (std::string key; io >> key;) {
    long long value = 0;
    io >> value;
    if (key == "wchar:") return value;
  }
  return -1;
}

long long sizeOf(const fs::path& p) {
  struct stat st;
  return ::lstat(p.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : 0;
}

int usage() {
  std::fprintf(stderr, "usage: clean_quarantine make HOME N | clean HOME | bytes HOME N\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return usage();
  const std::string mode = argv[1];
  const fs::path home = fs::absolute(argv[2]);
  const Paths paths(home);

  if (mode == "make" && argc == 4) {
    makeLogs(home, std::atol(argv[3]));
    return 0;
  }

  if (mode == "clean" && argc == 3) {
    const AppConfig config = ConfigStore(paths).load();
    std::vector<ScanItem> items;
    for (const auto& result : ScanEngine(paths, config).scan({CleanCategory::logs}))
      for (const auto& item : result.items) items.push_back(item);
    // Nothing here needs administrator rights; a prompt would be a fault, so it always declines.
    Services services;
    services.adminPrompt = [](const std::string&, const std::string&, double) {
      return Shell::Result{1, "", "declined by the benchmark"};
    };
    PrivilegedSession session(paths, services);
    AdminQueue queue(paths);
    const auto start = Clock::now();
    Cleaner cleaner(paths, config, services, &session, &queue);
    const CleanReport report = cleaner.clean(items, TriggerSource::manual(), false, std::nullopt);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf(
        "disposal=%s items=%zu processed=%lld quarantined=%lld freed=%lld failures=%zu "
        "seconds=%.3f\n",
        std::string(rawValue(config.disposal(CleanCategory::logs))).c_str(), items.size(),
        static_cast<long long>(report.itemsProcessed),
        static_cast<long long>(report.quarantinedBytes), static_cast<long long>(report.freedBytes),
        report.failures.size(), seconds);
    for (size_t i = 0; i < report.failures.size() && i < 5; ++i)
      std::fprintf(stderr, "failure: %s: %s\n", report.failures[i].itemID.c_str(),
                   report.failures[i].message.c_str());
    return report.failures.empty() && report.itemsProcessed > 0 ? 0 : 1;
  }

  if (mode == "bytes" && argc == 4) {
    if (fs::exists(home)) {
      std::fprintf(stderr, "%s exists; give a new folder\n", home.c_str());
      return 2;
    }
    const long n = std::atol(argv[3]);
    makeLogs(home, n);
    Quarantine q(paths);
    const Date now = std::chrono::system_clock::now();
    const long long before = bytesWritten();
    QuarantineSession s = q.beginSession(TriggerSource::manual(), 7, now);
    const fs::path dir = paths.quarantineDir() / s.id;
    for (long i = 0; i < n; ++i)
      q.add(home / "Library/Logs" / ("app-" + std::to_string(i)), 4096, CleanCategory::logs, s);
    const long long journal = sizeOf(dir / "journal.jsonl");
    q.close(s);
    const long long written = bytesWritten() - before;
    std::printf("items=%ld entries=%zu written=%lld journal=%lld manifest=%lld\n", n,
                s.entries.size(), written, journal, sizeOf(dir / "manifest.json"));
    return s.entries.size() == static_cast<size_t>(n) ? 0 : 1;
  }
  return usage();
}
