// The insight files' lock: bounded waiting, quick failure without a folder, no lost snapshots.
#include "core/insights/StoreLock.h"

#include "core/insights/GrowthTracker.h"
#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

namespace kestrel {
namespace {

using std::chrono::milliseconds;
using test::ScratchHome;

TEST(StoreLock, WaitsBoundedAndFailsFastWithoutFolder) {
  ScratchHome h;
  const fs::path url = h.path("store/file.json");
  struct Case {
    const char* name;
    bool heldElsewhere;
    bool folderBlocked;
    bool expectLock;
    milliseconds minWait, maxWait;
  };
  const Case cases[] = {
      {"free", false, false, true, milliseconds(0), milliseconds(500)},
      {"held elsewhere", true, false, false, milliseconds(150), milliseconds(2000)},
      {"a file where the folder must be", false, true, false, milliseconds(0), milliseconds(100)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<FileLock> other;
    if (c.heldElsewhere) other = FileLock::acquire(h.path("store/file.json.lock"));
    if (c.folderBlocked) h.text("blocked", "x");
    const fs::path target = c.folderBlocked ? h.path("blocked/file.json") : url;
    const auto start = std::chrono::steady_clock::now();
    auto lock = lockBeside(target, milliseconds(150));
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(lock != nullptr, c.expectLock);
    EXPECT_GE(waited, c.minWait);
    EXPECT_LT(waited, c.maxWait);
  }
  // Once released, the next caller gets it.
  auto first = lockBeside(url, milliseconds(0));
  ASSERT_TRUE(first);
  EXPECT_FALSE(lockBeside(url, milliseconds(0)));
  first.reset();
  EXPECT_TRUE(lockBeside(url, milliseconds(0)));
}

TEST(StoreLock, ConcurrentSnapshotsAreAllKept) {
  ScratchHome h;
  for (int i = 0; i < 20; ++i) h.file("Documents/f" + std::to_string(i) + "/data", 100);
  const Date now = Dates::fromUnixSeconds(1795000000);
  std::vector<std::thread> writers;
  for (int i = 0; i < 6; ++i) {
    writers.emplace_back([&, i] {
      GrowthTracker(h.paths()).takeSnapshot(now + std::chrono::hours(i), [] { return false; });
    });
  }
  for (auto& t : writers) t.join();
  EXPECT_EQ(GrowthTracker(h.paths()).snapshots().size(), 6u);
}

}  // namespace
}  // namespace kestrel
