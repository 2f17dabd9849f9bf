// JSONStore: atomic, durable replace (torn files never appear, even when the writer is killed),
// reads that tell missing from damaged, and the one read-modify-write with its bounded wait.
#include "core/insights/GrowthTracker.h"
#include "core/store/JSONStore.h"
#include "core/system/fs/StoreFile.h"
#include "tests/support/Processes.h"
#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <thread>
#include <vector>

namespace kestrel {
namespace {

using test::ScratchHome;

TEST(JSONStore, SaveCreatesFolderAndLeavesNoTemporaryFiles) {
  ScratchHome h;
  const fs::path target = h.path("a/b/c/store.json");
  JSONStore::save(Json{{"k", "v/w"}}, target);
  JSONStore::save(Json{{"k", 2}}, target);
  EXPECT_EQ(test::readText(target), "{\n  \"k\" : 2\n}");
  const auto dir = fs::directory_iterator(target.parent_path());
  EXPECT_EQ(std::distance(fs::begin(dir), fs::end(dir)), 1);
}

TEST(JSONStore, SaveFailureKeepsOldFile) {
  ScratchHome h;
  const fs::path target = h.path("store.json");
  JSONStore::save(Json{{"k", 1}}, target);
  // A folder in the way of the rename: the save fails and the folder's content is untouched.
  const fs::path blocked = h.folder("dir.json");
  h.file("dir.json/inside", 1);
  EXPECT_THROW(JSONStore::save(Json{{"k", 2}}, blocked), std::system_error);
  EXPECT_TRUE(fs::exists(blocked / "inside"));
  EXPECT_THROW(JSONStore::save(Json{{"k", 2}}, h.path("store.json/x")), std::exception);
  EXPECT_EQ(test::readText(target), "{\n  \"k\" : 1\n}");
}

TEST(JSONStore, ReadTellsMissingFromDamaged) {
  ScratchHome h;
  h.text("bad.json", "{\"a\":");
  h.text("good.json", "{\"a\":\"\\/x\"}");
  h.link("link.json", h.path("good.json"));
  h.link("dangling.json", h.path("nowhere.json"));
  h.folder("folder.json");
  ASSERT_EQ(::mkfifo(h.path("fifo.json").c_str(), 0600), 0);
  h.file("big.json", 2048);
  using S = StoreFile::FileRead::Status;
  const size_t any = StoreFile::kMaxStoreBytes;
  const struct Case {
    const char* name;
    S status;
    size_t cap;
  } cases[] = {
      {"missing.json", S::missing, any}, {"good.json", S::ok, any},
      {"link.json", S::ok, any},  // read through the user's link
      {"dangling.json", S::damaged, any}, {"folder.json", S::damaged, any},
      {"fifo.json", S::damaged, any},  // answers at once, never blocks
      {"big.json", S::damaged, 1024},     {"big.json", S::ok, 2048},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto r = StoreFile::read(h.path(c.name), c.cap);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.reason.empty(), c.status != S::damaged);
  }
  EXPECT_EQ(JSONStore::loadJson(h.path("link.json"))->at("a"), "/x");
  EXPECT_FALSE(JSONStore::loadJson(h.path("bad.json")));
  const auto decode = [](const Json& j) -> int {
    return static_cast<int>(JsonDecode::int64(j, "a"));  // throws: "a" is text
  };
  const auto notDecoded = JSONStore::loadChecked<int>(h.path("good.json"), decode);
  EXPECT_TRUE(notDecoded.damaged());
  EXPECT_FALSE(notDecoded.value);
  EXPECT_TRUE(JSONStore::loadChecked<int>(h.path("bad.json"), decode).damaged());
  EXPECT_FALSE(JSONStore::loadChecked<int>(h.path("missing.json"), decode).damaged());
}

TEST(JSONStore, SaveThroughALinkReplacesItsTargetAndKeepsTheLink) {
  ScratchHome h;
  const fs::path real = h.outside("dotfiles") / "config.json";
  JSONStore::save(Json{{"k", 1}}, real);
  h.link("support/step.json", "../../outside/dotfiles/config.json");
  h.link("support/config.json", h.path("support/step.json"));  // a chain of two links
  ASSERT_EQ(test::readText(real), "{\n  \"k\" : 1\n}");
  JSONStore::save(Json{{"k", 2}}, h.path("support/config.json"));
  EXPECT_TRUE(fs::is_symlink(h.path("support/config.json")));
  EXPECT_TRUE(fs::is_symlink(h.path("support/step.json")));
  EXPECT_EQ(test::readText(real), "{\n  \"k\" : 2\n}");
  EXPECT_EQ(JSONStore::loadJson(h.path("support/config.json"))->at("k"), 2);
}

TEST(JSONStore, KilledWriterLeavesOldOrNewFile) {
  ScratchHome h;
  const fs::path target = h.path("state.json");
  const Json a{{"payload", std::string(300000, 'a')}};
  const Json b{{"payload", std::string(200000, 'b')}};
  const std::string textA = JsonText::pretty(a), textB = JsonText::pretty(b);
  JSONStore::save(a, target);
  std::mt19937 rng(42);
  for (int round = 0; round < 40; ++round) {
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      for (int i = 0;; ++i) JSONStore::save(i % 2 ? a : b, target);
    }
    std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution<int>(0, 20000)(rng)));
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    const std::string now = test::readText(target);
    ASSERT_TRUE(now == textA || now == textB) << "torn file of " << now.size() << " bytes in round " << round;
  }
}

using test::ScratchHome;

using Counts = std::vector<int64_t>;

Counts countsFromJson(const Json& j) {
  if (!j.is_array()) throw DecodeError("Expected an array");
  Counts out;
  for (const auto& e : j) out.push_back(JsonDecode::int64(e));
  return out;
}

Json countsToJson(const Counts& c) { return Json(c); }

Counts addOne(const fs::path& file, bool replaceDamaged = true,
             std::chrono::milliseconds wait = JSONStore::kUpdateWait) {
  return JSONStore::update<Counts>(
      file, countsFromJson, countsToJson, [] { return Counts{}; },
      [](Counts& c) {
        c.push_back(static_cast<int64_t>(c.size()));
        return true;
      },
      replaceDamaged, wait);
}

TEST(JSONStoreUpdate, WaitsForAnotherWriterThenGivesUp) {
  ScratchHome h;
  const fs::path file = h.path("store/counts.json");
  auto other = FileLock::acquire(Paths::lockFileFor(file));
  ASSERT_TRUE(other);
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    other.lock.reset();
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(addOne(file), (Counts{0}));  // got it once the other writer let go
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
  release.join();
  // A writer that never lets go makes the update fail, never write unlocked.
  auto stuck = FileLock::acquire(Paths::lockFileFor(file));
  try {
    addOne(file, true, std::chrono::milliseconds(200));
    ADD_FAILURE() << "updated while another writer held the store";
  } catch (const JSONStore::StoreError& e) {
    EXPECT_EQ(e.kind(), JSONStore::StoreError::Kind::busy);
  }
  EXPECT_EQ(JSONStore::load<Counts>(file, countsFromJson), (Counts{0}));
}

TEST(JSONStoreUpdate, ADamagedFileIsReplacedOnlyWhenAsked) {
  ScratchHome h;
  const fs::path file = h.text("counts.json", "[1, 2,");
  EXPECT_THROW(addOne(file, /*replaceDamaged=*/false), JSONStore::StoreError);
  EXPECT_EQ(test::readText(file), "[1, 2,");
  EXPECT_EQ(addOne(file, /*replaceDamaged=*/true), (Counts{0}));
  // A change that answers false writes nothing.
  const auto before = test::readText(file);
  JSONStore::update<Counts>(file, countsFromJson, countsToJson, [] { return Counts{}; },
                            [](Counts& c) {
                              c.clear();
                              return false;
                            },
                            true);
  EXPECT_EQ(test::readText(file), before);
}

TEST(JSONStoreUpdate, ConcurrentWritersLoseNothing) {
  ScratchHome h;
  const fs::path file = h.path("counts.json");
  constexpr int kProcesses = 4, kEach = 20;
  EXPECT_EQ(test::inChildProcesses(kProcesses,
                                   [&](int) {
                                     for (int i = 0; i < kEach; ++i) addOne(file);
                                   }),
            kProcesses);
  EXPECT_EQ(JSONStore::load<Counts>(file, countsFromJson)->size(), static_cast<size_t>(kProcesses * kEach));
  // The same through a store that uses it: six snapshots taken at once are all kept.
  for (int i = 0; i < 20; ++i) h.file("Documents/f" + std::to_string(i) + "/data", 100);
  const Date now = Dates::fromUnixSeconds(1795000000);
  std::vector<std::thread> writers;
  for (int i = 0; i < 6; ++i) {
    writers.emplace_back(
        [&, i] { GrowthTracker(h.paths()).takeSnapshot(now + std::chrono::hours(i), [] { return false; }); });
  }
  for (auto& t : writers) t.join();
  EXPECT_EQ(GrowthTracker(h.paths()).snapshots().size(), 6u);
}

}  // namespace
}  // namespace kestrel
