// Benchmark: JsonText::parse against the library parser it replaced, on two typical store files.
//
//   json_parse [runs]   builds a ~2 MB growth-snapshot file and a 1,000-entry quarantine manifest
//                       in memory, then times both parsers on each, alternating, and prints the
//                       median milliseconds per parse.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/clean/Quarantine.h"
#include "core/insights/GrowthTracker.h"
#include "core/base/Json.h"

using namespace kestrel;
using Clock = std::chrono::steady_clock;

namespace {

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// The reader before this one: a bracket pre-scan against deep nesting, then the library parser.
std::optional<Json> libraryParse(std::string_view text) {
  int depth = 0;
  bool inString = false, escaped = false;
  for (char c : text) {
    if (inString) {
      if (escaped)
        escaped = false;
      else if (c == '\\')
        escaped = true;
      else if (c == '"')
        inString = false;
      continue;
    }
    if (c == '"')
      inString = true;
    else if (c == '[' || c == '{') {
      if (++depth > 512) return std::nullopt;
    } else if (c == ']' || c == '}')
      --depth;
  }
  try {
    return Json::parse(text.begin(), text.end());
  } catch (const Json::exception&) {
    return std::nullopt;
  }
}

std::string growthFile() {
  const Date start = Dates::fromUnixSeconds(1772357400);
  Json list = Json::array();
  for (int s = 0; s < 26; ++s) {
    FolderSnapshot snap{start + std::chrono::hours(24 * s), {}};
    for (int f = 0; f < 1150; ++f) {
      const std::string parent = f % 3 == 0   ? "/Users/someone/Library/Caches/com.example.app"
                                 : f % 3 == 1 ? "/Users/someone/Library/Application Support/Tool "
                                              : "/Users/someone/Downloads/é project ";
      snap.sizes[parent + std::to_string(f)] = int64_t{4096} * (f * 7919 + s * 104729) % 900000000;
    }
    list.push_back(toJson(snap));
  }
  return JsonText::pretty(list);
}

std::string manifestFile() {
  const Date now = Dates::fromUnixSeconds(1772357400);
  QuarantineSession session;
  session.id = "20260301-093000-A1B2C3";
  session.createdAt = now;
  session.expiresAt = now + std::chrono::hours(24 * 7);
  session.trigger = TriggerSource::schedule("Weekly deep clean");
  for (int i = 0; i < 1000; ++i) {
    QuarantineEntry e;
    e.originalPath =
        "/Users/someone/Library/Caches/com.example.app" + std::to_string(i) + "/Cache Data";
    e.storedName = std::to_string(i) + "-Cache Data";
    e.size = int64_t{4096} * (i + 1);
    e.restored = i % 10 == 0;
    e.identity = FileIdentity{2049, static_cast<ino_t>(1000000 + i)};
    session.entries.push_back(e);
  }
  return JsonText::pretty(toJson(session));
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::atoi(argv[1]) : 21;
  const std::pair<const char*, std::string> files[] = {{"growth snapshots", growthFile()},
                                                       {"manifest, 1000 entries", manifestFile()}};
  for (const auto& [name, text] : files) {
    if (!(JsonText::parse(text) == libraryParse(text))) {
      std::fprintf(stderr, "%s: the parsers disagree\n", name);
      return 1;
    }
    std::vector<double> ours, library;
    for (int r = 0; r < runs; ++r) {
      for (int which = 0; which < 2; ++which) {
        const bool oursFirst = r % 2 == 0;
        const bool timeOurs = (which == 0) == oursFirst;
        const auto t0 = Clock::now();
        const auto parsed = timeOurs ? JsonText::parse(text) : libraryParse(text);
        const double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
        if (!parsed) return 1;
        (timeOurs ? ours : library).push_back(ms);
      }
    }
    std::printf("%-24s %8zu bytes  ours %7.2f ms  library %7.2f ms  ratio %.2f\n", name,
                text.size(), median(ours), median(library), median(ours) / median(library));
  }
  return 0;
}
