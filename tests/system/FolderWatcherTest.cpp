// FolderWatcher: the platform's watcher reports changes in watched folders only, until stopped.
#include "core/system/fs/FolderWatcher.h"
#include "tests/support/ScratchHome.h"
#include "tests/support/Wait.h"

#include <gtest/gtest.h>

#include <mutex>
#include <set>

namespace kestrel::test {
namespace {

TEST(FolderWatcher, ReportsChangesOfWatchedFoldersUntilStopped) {
  ScratchHome h;
  const fs::path a = h.folder("A"), b = h.folder("B"), other = h.folder("Other");
  auto watcher = platform::makeFolderWatcher();
  std::mutex lock;
  std::set<fs::path> seen;
  EXPECT_EQ(watcher->watch({a, b, h.path("Missing")}, [&](const FolderWatcher::Change& c) {
    std::lock_guard<std::mutex> guard(lock);
    seen.insert(c.folder);
  }), 2u);
  h.file("Other/x", 1);
  h.file("B/y", 1);
  auto has = [&](const fs::path& p) {
    std::lock_guard<std::mutex> guard(lock);
    return seen.count(p) > 0;
  };
  EXPECT_TRUE(waitFor([&] { return has(b); }, 5));
  fs::rename(h.path("B/y"), h.path("A/y"));
  EXPECT_TRUE(waitFor([&] { return has(a); }, 5));
  EXPECT_FALSE(has(other));
  watcher->stop();
  {
    std::lock_guard<std::mutex> guard(lock);
    seen.clear();
  }
  h.file("A/z", 1);
  EXPECT_FALSE(waitFor([&] { return has(a); }, 0.3));
}

}  // namespace
}  // namespace kestrel::test
