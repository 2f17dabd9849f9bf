// The safe remover: what it removes, what it refuses, links, depth, and a parent swapped mid-walk.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <random>
#include <thread>

#include "core/system/fs/SafeRemove.h"
#include "tests/support/ScratchHome.h"
#include "tests/support/ScratchVolume.h"

namespace kestrel {
namespace {

using test::lexists;
using test::ScratchHome;
using Status = RemoveResult::Status;

int openDescriptorCount() {
  int n = 0;
  if (DIR* d = ::opendir("/proc/self/fd")) {
    while (::readdir(d)) ++n;
    ::closedir(d);
  }
  return n;
}

void writeFile(const fs::path& p, const std::string& text) {
  fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary | std::ios::trunc) << text;
}

TEST(SafeRemove, RemovesFilesTreesAndLinksWithoutFollowingThem) {
  ScratchHome h;
  const fs::path outside = h.outside("keep");
  writeFile(outside / "precious", "data");
  h.file("Library/Caches/app/a.bin", 10);
  h.file("Library/Caches/app/deep/er/b.bin", 10);
  h.link("Library/Caches/app/toOutside", outside);
  h.link("Library/Caches/app/deep/fileLink", outside / "precious");
  h.link("Library/Caches/app/dangling", h.path("nowhere"));
  h.file("Library/Caches/single.log", 5);
  h.link("Library/Caches/dirLink", outside);

  const struct Case {
    const char* rel;
    Status status;
  } cases[] = {{"Library/Caches/app", Status::removed},     {"Library/Caches/single.log", Status::removed},
                        {"Library/Caches/dirLink", Status::removed}, {"Library/Caches/absent", Status::missing},
                        {"Library/Nothing/here/x", Status::missing}};
  SafeRemover remover(h.home());
  const int fdsBefore = openDescriptorCount();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.rel);
    RemoveResult r = remover.remove(h.path(c.rel));
    EXPECT_EQ(r.status, c.status) << r.message();
    EXPECT_TRUE(r.ok());
    EXPECT_FALSE(lexists(h.path(c.rel)));
  }
  EXPECT_EQ(openDescriptorCount(), fdsBefore);
  EXPECT_EQ(test::readText(outside / "precious"), "data");
  EXPECT_TRUE(fs::is_directory(h.path("Library/Caches")));
}

TEST(SafeRemove, RefusesProtectedFoldersByIdentityAndBadPaths) {
  ScratchHome h;
  for (const char* rel : {"Library/Caches/x", "Documents/d", "Downloads/f", "Desktop/e"})
    h.file(rel, 1);
  // A link inside the tree to a protected folder is only a link: it goes, the folder stays.
  h.link("Library/Caches/app/homeLink", h.home());
  h.link("Library/Caches/toDocuments", h.path("Documents"));

  const struct Case {
    fs::path path;
    Status status;
    std::errc error;
    std::errc alsoAccepted = std::errc::invalid_argument;
  } cases[] = {
      {h.path("Library/Caches"), Status::refused, std::errc::operation_not_permitted},
      {h.path("Documents"), Status::refused, std::errc::operation_not_permitted},
      {h.path("Library/Caches/x/"), Status::failed, std::errc::invalid_argument},
      {h.path("Library/Caches/../Caches/x"), Status::failed, std::errc::invalid_argument},
      {fs::path("relative/x"), Status::failed, std::errc::invalid_argument},
      // Reached through a link on the way: never resolved.
      {h.path("Library/Caches/toDocuments/d"), Status::failed, std::errc::not_a_directory,
       std::errc::too_many_symbolic_link_levels},
  };
  SafeRemover remover(h.home());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path.string());
    RemoveResult r = remover.remove(c.path);
    EXPECT_EQ(r.status, c.status) << r.message();
    EXPECT_TRUE(r.error == std::make_error_code(c.error) ||
                r.error == std::make_error_code(c.alsoAccepted))
        << r.message();
    EXPECT_THROW(r.throwIfFailed(), std::system_error);
  }
  // The home folder itself, and "/" from an anchor at "/", by identity.
  EXPECT_FALSE(remover.remove(Anchor::open("/"), h.home()).ok());
  EXPECT_TRUE(remover.isProtected(*identityOf("/")));
  EXPECT_TRUE(remover.isProtected(*identityOf(h.home())));
  EXPECT_TRUE(remover.remove(h.path("Library/Caches/app")).ok());
  for (const char* rel : {"Library/Caches/x", "Documents/d", "Downloads/f", "Desktop/e"}) EXPECT_TRUE(lexists(h.path(rel))) << rel;
}

TEST(SafeRemove, ProtectedFolderInsideTheTreeStopsOnlyThatBranch) {
  ScratchHome h;
  // A home inside a scratch folder, removed from an anchor above it: the home survives.
  const fs::path root = h.root();
  h.file("Documents/keep.txt", 3);
  writeFile(root / "sibling" / "junk", "x");
  SafeRemover remover(h.home());
  RemoveResult r = remover.remove(Anchor::open(root.parent_path()), root);
  EXPECT_EQ(r.status, Status::refused) << r.message();
  EXPECT_EQ(r.where, h.home());
  EXPECT_FALSE(lexists(root / "sibling"));
  EXPECT_TRUE(lexists(h.path("Documents/keep.txt")));
}

TEST(SafeRemove, ParentHandleBindsTheOpenedFolder) {
  ScratchHome h;
  h.file("Library/Caches/app/item", 4);
  const Anchor home = Anchor::open(h.home());
  ParentDir parent = SafeFS::openParent(home, h.path("Library/Caches/app/item"));
  EXPECT_EQ(parent.name, "item");
  EXPECT_EQ(parent.path, h.path("Library/Caches/app"));
  EXPECT_EQ(parent.realPath(), h.path("Library/Caches/app"));
  // Renaming the folder away after opening moves the real path with it; removal follows the object.
  fs::rename(h.path("Library/Caches/app"), h.path("Library/Caches/moved"));
  EXPECT_EQ(parent.realPath(), h.path("Library/Caches/moved"));
  SafeRemover remover(h.home());
  EXPECT_EQ(remover.removeEntry(parent).status, Status::removed);
  EXPECT_FALSE(lexists(h.path("Library/Caches/moved/item")));

  // No-replace renames between two opened parents.
  h.file("a/one", 1);
  h.file("b/one", 2);
  ParentDir from = SafeFS::openParent(home, h.path("a/one"));
  ParentDir to = SafeFS::openParent(home, h.path("b/one"));
  EXPECT_EQ(SafeFS::renameNoReplace(from, to), std::errc::file_exists);
  ParentDir fresh = SafeFS::openParent(home, h.path("c/new/two"), /*createMissing=*/true);
  EXPECT_FALSE(SafeFS::renameNoReplace(from, fresh));
  EXPECT_EQ(fs::file_size(h.path("c/new/two")), 1u);
  EXPECT_EQ(fs::file_size(h.path("b/one")), 2u);
}

TEST(SafeRemove, NeverCrossesOntoAnotherDevice) {
  ScratchHome h;
  h.file("Library/Caches/app/junk", 3);
  const test::ScratchVolume mount(h.path("Library/Caches/app/mnt"));
  if (!mount.mounted()) GTEST_SKIP() << "cannot mount a scratch file system here";
  writeFile(h.path("Library/Caches/app/mnt/other-volume"), "keep");
  SafeRemover remover(h.home());
  for (const char* rel : {"Library/Caches/app", "Library/Caches/app/mnt"}) {
    SCOPED_TRACE(rel);
    RemoveResult r = remover.remove(h.path(rel));
    EXPECT_EQ(r.status, Status::refused) << r.message();
    EXPECT_EQ(r.error, std::make_error_code(std::errc::cross_device_link));
    EXPECT_EQ(r.where, h.path("Library/Caches/app/mnt"));
    EXPECT_EQ(test::readText(h.path("Library/Caches/app/mnt/other-volume")), "keep");
  }
  EXPECT_FALSE(lexists(h.path("Library/Caches/app/junk")));
}

// Builds `depth` nested folders "d" under `dir` without ever holding more than two descriptors.
void buildDeepChain(const fs::path& dir, int depth) {
  UniqueFd cur(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int i = 0; i < depth; ++i) {
    ASSERT_EQ(::mkdirat(cur.get(), "d", 0755), 0);
    cur.reset(::openat(cur.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(cur);
  }
  UniqueFd file(::openat(cur.get(), "leaf", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
}

// Removes such a chain bottom up, climbing with ".." (the test's own cleanup, nobody racing it):
// the scratch folder's recursive removal would need a stack frame per level.
void dismantleDeepChain(const fs::path& dir) {
  UniqueFd cur(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  int depth = 0;
  for (;;) {
    UniqueFd next(::openat(cur.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!next) break;
    cur = std::move(next);
    ++depth;
  }
  ::unlinkat(cur.get(), "leaf", 0);
  for (; depth > 0; --depth) {
    UniqueFd up(::openat(cur.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(::unlinkat(up.get(), "d", AT_REMOVEDIR), 0);
    cur = std::move(up);
  }
}

TEST(SafeRemove, VeryDeepTreeFailsCleanlyWithBoundedDescriptors) {
  ScratchHome h;
  const fs::path base = h.folder("Library/Caches/deep");
  buildDeepChain(base, 100000);
  SafeRemover remover(h.home());
  const int fdsBefore = openDescriptorCount();
  RemoveResult r = remover.remove(base / "d");
  EXPECT_EQ(r.status, Status::failed);
  EXPECT_EQ(r.error, std::make_error_code(std::errc::filename_too_long));
  EXPECT_EQ(openDescriptorCount(), fdsBefore);
  dismantleDeepChain(base);
  EXPECT_FALSE(lexists(base / "d"));

  // Within the bound the same shape goes completely.
  buildDeepChain(base, static_cast<int>(SafeRemover::kMaxDepth) - 2);
  EXPECT_EQ(remover.remove(base / "d").status, Status::removed);
}

// ---- Race: a parent of the tree swapped for a link out of the home folder, over and over ----

struct RaceFixture {
  ScratchHome h;
  fs::path app, blob, outside;
  static constexpr int kFiles = 100;

  RaceFixture() {
    app = h.path("Library/Caches/app");
    blob = app / "blob";
    outside = h.outside("O");
    restoreCanaries();
  }

  void populate() {
    for (int i = 0; i < kFiles; ++i) writeFile(blob / ("f" + std::to_string(i)), "victim");
    writeFile(blob / "sub" / "inner", "victim");
  }

  // Puts the swapped names back the way they belong after the attacker stopped.
  void settle() {
    for (const fs::path& p : {blob / "sub", app}) {
      fs::path moved = p;
      moved += ".x";
      if (fs::is_symlink(p)) fs::remove(p);
      if (lexists(moved) && !lexists(p)) fs::rename(moved, p);
    }
  }

  bool canariesIntact() const {
    for (int i = 0; i < kFiles; ++i) {
      if (test::readText(outside / "blob" / ("f" + std::to_string(i))) !=
          "canary " + std::to_string(i))
        return false;
    }
    return test::readText(outside / ".ssh" / "id") == "secret key";
  }

  void restoreCanaries() {
    for (int i = 0; i < kFiles; ++i)
      writeFile(outside / "blob" / ("f" + std::to_string(i)), "canary " + std::to_string(i));
    writeFile(outside / ".ssh" / "id", "secret key");
  }

  // One round: the attacker swaps while `remove` runs; true when anything outside was touched.
  template <class Remove>
  bool round(std::mt19937& rng, Remove remove) {
    populate();
    std::atomic<bool> stop{false};
    std::atomic<int> cycles{0};
    const unsigned seed = static_cast<unsigned>(rng());
    std::thread attacker([&, seed] {
      std::mt19937 local(seed);
      const fs::path appMoved = fs::path(app) += ".x";
      const fs::path sub = blob / "sub", subMoved = fs::path(blob / "sub") += ".x";
      for (int loop = 0; !stop.load(std::memory_order_relaxed); ++loop) {
        const bool inner = loop % 7 == 6;
        const fs::path& victim = inner ? sub : app;
        const fs::path& moved = inner ? subMoved : appMoved;
        if (::rename(victim.c_str(), moved.c_str()) != 0) {
          std::this_thread::yield();
          continue;
        }
        (void)::symlink(outside.c_str(), victim.c_str());
        std::this_thread::sleep_for(std::chrono::microseconds(local() % 100));
        ::unlink(victim.c_str());
        (void)::rename(moved.c_str(), victim.c_str());
        cycles.fetch_add(1, std::memory_order_relaxed);
        // Quiet spells too, so on a slow machine some removals still finish between swaps.
        std::this_thread::sleep_for(std::chrono::microseconds(local() % 400));
      }
    });
    // Start only once the attacker is swapping, so every round is a real race.
    while (cycles.load(std::memory_order_relaxed) == 0) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 200));
    remove();
    stop = true;
    attacker.join();
    settle();
    const bool breached = !canariesIntact();
    if (breached) restoreCanaries();
    fs::remove_all(app);  // the test's own scratch tree, settled and with no links left in it
    return breached;
  }
};

int raceIterations() {
  const char* env = std::getenv("KESTREL_RACE_ITERATIONS");
  return env ? std::max(1, std::atoi(env)) : 1000;
}

TEST(SafeRemove, ParentSwappedForALinkNeverReachesOutside) {
  RaceFixture f;
  SafeRemover remover(f.h.home());
  const Anchor home = Anchor::open(f.h.home());
  std::mt19937 rng(12345);
  const int iterations = raceIterations();
  int breaches = 0, removed = 0, refused = 0;
  for (int i = 0; i < iterations; ++i) {
    RemoveResult result;
    breaches += f.round(rng, [&] { result = remover.remove(home, f.blob); });
    if (result.status == Status::removed) ++removed;
    if (result.status == Status::failed || result.status == Status::refused) ++refused;
  }
  EXPECT_EQ(breaches, 0);
  // The race must be real for that count to mean anything: some runs removed, some hit a link.
  EXPECT_GT(removed, 0);
  EXPECT_GT(refused, 0) << "the attacker never got a link in place; the harness is not racing";
}

}  // namespace
}  // namespace kestrel
