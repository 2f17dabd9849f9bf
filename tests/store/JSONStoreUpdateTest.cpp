// The one read-modify-write of every store: bounded waiting for another writer, damaged files left
// alone when asked, and no lost change between processes or threads.
#include "core/store/JSONStore.h"

#include "core/insights/GrowthTracker.h"
#include "tests/support/Processes.h"
#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

namespace kestrel {
namespace {

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
    other.reset();
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
