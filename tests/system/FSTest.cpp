// FS: links are never followed, hidden Finder files are not children, sizes count regular files.
#include "core/system/fs/FS.h"

#include "tests/support/ScratchHome.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

namespace kestrel {
namespace {

using test::ScratchHome;

int64_t blocksOf(const fs::path& p) {
  struct stat st;
  EXPECT_EQ(::lstat(p.c_str(), &st), 0);
  return static_cast<int64_t>(st.st_blocks) * 512;
}

TEST(FS, KindsNeverFollowLinks) {
  ScratchHome h;
  h.file("f", 10);
  h.folder("d");
  h.link("dangling", h.path("nowhere"));
  h.link("dirlink", h.path("d"));
  const struct Case {
    const char* rel;
    bool exists, reachable, directory, symlink;
  } cases[] = {
      {"f", true, true, false, false},
      {"d", true, true, true, false},
      {"dangling", true, false, false, true},
      {"dirlink", true, true, false, true},
      {"missing", false, false, false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.rel);
    EXPECT_EQ(FS::exists(h.path(c.rel)), c.exists);
    EXPECT_EQ(FS::isReachable(h.path(c.rel)), c.reachable);
    EXPECT_EQ(FS::isDirectory(h.path(c.rel)), c.directory);
    EXPECT_EQ(FS::isSymlink(h.path(c.rel)), c.symlink);
  }
  EXPECT_EQ(FS::allocatedSize(h.path("dangling")), 0);
  EXPECT_EQ(FS::allocatedSize(h.path("dirlink")), 0);
  EXPECT_TRUE(FS::modificationDate(h.path("dangling")).has_value());
}

TEST(FS, ChildrenSkipFinderFilesAndUnreadableFolders) {
  ScratchHome h;
  h.file("only/.DS_Store", 1);
  h.file("only/.localized", 1);
  EXPECT_TRUE(FS::children(h.path("only")).empty());
  h.file("mixed/b", 1);
  h.file("mixed/a b", 1);
  h.file("mixed/.hidden", 1);
  h.file("mixed/.DS_Store", 1);
  const std::string odd = "x\ny\xff";
  h.file("mixed/" + odd, 1);
  const std::vector<fs::path> expected = {h.path("mixed/.hidden"), h.path("mixed/a b"), h.path("mixed/b"),
                                          h.path("mixed/" + odd)};
  EXPECT_EQ(FS::children(h.path("mixed")), expected);
  h.file("plainfile", 1);
  EXPECT_TRUE(FS::children(h.path("plainfile")).empty());
  EXPECT_TRUE(FS::children(h.path("missing")).empty());
  h.folder("linked");
  h.file("linked/x", 1);
  h.link("via", h.path("linked"));
  EXPECT_TRUE(FS::children(h.path("via")).empty());  // a link to a folder is not listed through
}

TEST(FS, ListingDoesNotUpdateAccessTime) {
  ScratchHome h;
  h.file("dir/a", 1);
  const Date now = test::kTestNow;
  h.age("dir", 30, now);
  // Make the access time older than the modification time, which relatime would refresh.
  struct timespec ts[2];
  ts[0].tv_sec = Dates::unixSeconds(now) - 60 * 86400;
  ts[0].tv_nsec = 0;
  ts[1].tv_nsec = UTIME_OMIT;
  ASSERT_EQ(::utimensat(AT_FDCWD, h.path("dir").c_str(), ts, 0), 0);
  struct stat st1, st2;
  ::lstat(h.path("dir").c_str(), &st1);
  (void)FS::children(h.path("dir"));
  (void)FS::allocatedSize(h.path("dir"));
  (void)FS::newestModification(h.path("dir"), 100);
  ::lstat(h.path("dir").c_str(), &st2);
  EXPECT_EQ(st1.st_atim.tv_sec, st2.st_atim.tv_sec);
  // Last used is the later of access and modification: here the modification, 30 days back.
  const auto lastUsed = FS::lastUsedDate(h.path("dir"));
  ASSERT_TRUE(lastUsed);
  EXPECT_NEAR(std::chrono::duration<double>(now - *lastUsed).count() / 86400, 30.0, 0.01);
}

TEST(FS, AllocatedSizeCountsRegularFilesOfAWideDeepTreeOnly) {
  ScratchHome h;
  int64_t expected = 0;
  for (int i = 0; i < 40; ++i) {
    for (int j = 0; j < 5; ++j) {
      const std::string rel = "tree/d" + std::to_string(i) + "/e" + std::to_string(j) + "/f";
      expected += blocksOf(h.file(rel, 100 * (i + j + 1)));
    }
  }
  std::string deep = "tree/deep";
  for (int i = 0; i < 300; ++i) deep += "/x";
  expected += blocksOf(h.file(deep + "/leaf", 4096));
  // Links, even to big files or folders, and special files add nothing.
  h.file("outside/big", 1000000);
  h.link("tree/d0/link", h.path("outside/big"));
  h.link("tree/dirlink", h.path("outside"));
  ASSERT_EQ(::mkfifo(h.path("tree/fifo").c_str(), 0600), 0);
  EXPECT_EQ(FS::allocatedSize(h.path("tree")), expected);
  EXPECT_EQ(FS::allocatedSize(h.path("tree/d1/e1/f")), blocksOf(h.path("tree/d1/e1/f")));
  EXPECT_EQ(FS::allocatedSize(h.path("missing")), 0);
  EXPECT_EQ(FS::allocatedSize(h.path("tree/fifo")), 0);
}

TEST(FS, AllocatedSizePollsCancelOnFirstEntryThenEvery2000) {
  ScratchHome h;
  for (int i = 0; i < 4500; ++i) h.file("many/f" + std::to_string(i), 1);
  std::atomic<int> calls{0};
  EXPECT_EQ(FS::allocatedSize(h.path("many"), [&] { return ++calls, false; }), 4500 * blocksOf(h.path("many/f0")));
  EXPECT_EQ(calls.load(), 3);  // entries 1, 2000 and 4000
  calls = 0;
  const int64_t cancelled = FS::allocatedSize(h.path("many"), [&] { return ++calls, true; });
  EXPECT_EQ(calls.load(), 1);
  EXPECT_LE(cancelled, blocksOf(h.path("many/f0")));
}

TEST(FS, NewestModificationHonoursLimit) {
  ScratchHome h;
  h.file("logs/old", 1);
  h.file("logs/sub/new", 1);
  const Date now = test::kTestNow;
  h.age("logs/old", 10, now);
  h.age("logs/sub/new", 1, now);
  h.age("logs/sub", 9, now);
  h.age("logs", 20, now);
  auto newest = FS::newestModification(h.path("logs"), 4000);
  ASSERT_TRUE(newest);
  EXPECT_NEAR(std::chrono::duration<double>(now - *newest).count() / 86400, 1.0, 0.01);
  auto limited = FS::newestModification(h.path("logs"), 0);
  ASSERT_TRUE(limited);
  EXPECT_NEAR(std::chrono::duration<double>(now - *limited).count() / 86400, 20.0, 0.01);
  EXPECT_FALSE(FS::newestModification(h.path("missing"), 10));
}

TEST(FS, VolumesAndSpace) {
  ScratchHome h;
  h.file("a", 1);
  EXPECT_TRUE(FS::sameVolume(h.path("a"), h.home()));
  EXPECT_FALSE(FS::sameVolume(h.path("a"), h.path("missing")));
  EXPECT_FALSE(FS::sameVolume(h.path("missing"), h.path("missing")));
  if (FS::volumeID("/proc") && FS::volumeID("/proc") != FS::volumeID(h.home())) {
    EXPECT_FALSE(FS::sameVolume("/proc", h.home()));
  }
  auto space = FS::volumeSpace(h.home());
  ASSERT_TRUE(space);
  EXPECT_GT(space->total, 0);
  EXPECT_GE(space->total, space->free);
  // Tests running beside this one write meanwhile, so the two readings agree only roughly.
  const auto free = FS::freeSpace(h.home());
  ASSERT_TRUE(free);
  EXPECT_NEAR(static_cast<double>(*free), static_cast<double>(space->free), 256.0 * 1024 * 1024);
  EXPECT_FALSE(FS::volumeSpace(h.path("missing")));
  EXPECT_FALSE(FS::isRemoteVolume(h.home()));
  // A volume reporting no size is all free, never a division by zero.
  EXPECT_DOUBLE_EQ((FS::VolumeSpace{0, 0}.freeFraction()), 1.0);
  EXPECT_DOUBLE_EQ((FS::VolumeSpace{100, 25}.freeFraction()), 0.25);
}

}  // namespace
}  // namespace kestrel
