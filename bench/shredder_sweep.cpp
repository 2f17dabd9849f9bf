// Shredder sweep benchmark: a first sweep of a home's Download folder, then a second one of the
// unchanged folder by a fresh engine (as a new process would run it) and by the same engine.
// Prints the wall times, the events and the bytes of content read.
// Usage: shredder_sweep <home>
#include "core/shredder/ShredderEngine.h"

#include <chrono>
#include <cstdio>

using namespace kestrel;

namespace {

double seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: shredder_sweep <home>\n");
    return 2;
  }
  const Paths paths(argv[1]);
  ShredderSettings s;
  s.approved = true;
  s.enabled = true;
  s.folders = {"~/Downloads"};
  s.settleSeconds = 0;
  s.emptyTrashAfterDays = 0;
  const Date now = std::chrono::system_clock::now();

  auto t = std::chrono::steady_clock::now();
  ShredderEngine first(paths, {}, s);
  const auto events = first.sweep(now).events;
  const double firstSeconds = seconds(t);
  const auto c1 = first.counters();

  t = std::chrono::steady_clock::now();
  ShredderEngine fresh(paths, {}, s);
  const auto again = fresh.sweep(now).events;
  const double freshSeconds = seconds(t);

  t = std::chrono::steady_clock::now();
  const auto third = first.sweep(now).events;
  const double sameSeconds = seconds(t);

  std::printf("first=%.3f events=%zu filesRead=%llu bytesRead=%llu second=%.4f secondEvents=%zu secondBytesRead=%llu "
              "sameEngine=%.4f sameEngineBytesRead=%llu\n",
              firstSeconds, events.size(), static_cast<unsigned long long>(c1.filesHashed),
              static_cast<unsigned long long>(c1.bytesHashed), freshSeconds, again.size(),
              static_cast<unsigned long long>(fresh.counters().bytesHashed), sameSeconds,
              static_cast<unsigned long long>(first.counters().bytesHashed - c1.bytesHashed));
  return third.empty() ? 0 : 1;
}
