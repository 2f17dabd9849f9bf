// Benchmark: lifetimeFreed over a long audit log (time and peak memory), against decoding every
// line.
//
//   audit_lifetime generate HOME N   writes N records to HOME's audit log
//   audit_lifetime stream HOME       AuditLog::lifetimeFreed (streams the file)
//   audit_lifetime naive HOME        reads the whole file and fully decodes every line
// Each measuring mode prints: mode, total, seconds, peak RSS in KiB.
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/store/AuditLog.h"
#include "core/system/fs/StoreFile.h"
#include "core/store/JSONStore.h"

using namespace kestrel;

namespace {

long peakRssKiB() {
  struct rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_maxrss;
}

void generate(const Paths& paths, long n) {
  AuditLog log(paths);
  static const AuditAction kActions[] = {AuditAction::delete_, AuditAction::trash,   AuditAction::quarantine,
                                        AuditAction::purge,   AuditAction::restore, AuditAction::command,
                                        AuditAction::delete_, AuditAction::trash};
  const Date base = Dates::fromUnixSeconds(1700000000);
  std::vector<AuditEntry> batch;
  for (long i = 0; i < n; ++i) {
    const AuditAction action = kActions[i % 8];
    TriggerSource trigger = i % 3 == 0   ? TriggerSource::schedule("Weekly deep clean")
                            : i % 3 == 1 ? TriggerSource::manual()
                                         : TriggerSource::uninstall("Photo Tool");
    batch.push_back(
        AuditEntry::of(action,
                       "/Users/someone/Library/Caches/com.example.app" + std::to_string(i % 97) +
                           "/Cache Data/é-file " + std::to_string(i),
                       base + std::chrono::seconds(i))
            .bytes(1000 + (i % 5000) * 4096)
            .in(CleanCategory::userCaches)
            .by(trigger)
            .outcome(i % 11 != 0, i % 11 == 0
                                      ? std::optional<std::string>("Operation not permitted")
                                      : std::nullopt));
    if (batch.size() == 5000) {
      log.append(batch);
      batch.clear();
    }
  }
  log.append(batch);
}

int64_t naive(const Paths& paths) {
  auto text = StoreFile::readFile(paths.auditFile());
  if (!text) return 0;
  int64_t total = 0;
  size_t start = 0;
  while (start < text->size()) {
    size_t nl = text->find('\n', start);
    if (nl == std::string::npos) nl = text->size();
    auto e = decodeAuditLine(std::string_view(*text).substr(start, nl - start));
    if (e && e->success &&
        (e->action == AuditAction::delete_ || e->action == AuditAction::trash ||
         e->action == AuditAction::command || e->action == AuditAction::purge)) {
      __builtin_add_overflow(total, e->size, &total);
    }
    start = nl + 1;
  }
  return total;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s generate|stream|naive HOME [N]\n", argv[0]);
    return 2;
  }
  const std::string mode = argv[1];
  const Paths paths{std::filesystem::path(argv[2])};
  if (mode == "generate") {
    generate(paths, argc > 3 ? std::atol(argv[3]) : 1000000);
    return 0;
  }
  const auto start = std::chrono::steady_clock::now();
  int64_t total = 0;
  if (mode == "stream") {
    total = AuditLog(paths).lifetimeFreed();
  } else if (mode == "naive") {
    total = naive(paths);
  } else {
    return 2;
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("%s total=%lld seconds=%.3f peakRssKiB=%ld\n", mode.c_str(),
              static_cast<long long>(total), seconds, peakRssKiB());
  return 0;
}
