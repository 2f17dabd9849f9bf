// Folder growth: which folders a snapshot measures, the 26-snapshot cap, diff, report, cancel.
#include "core/insights/GrowthTracker.h"

#include "core/store/JSONStore.h"
#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

namespace kestrel {
namespace {

using std::chrono::hours;
using test::ScratchHome;

const Date kNow = Dates::fromUnixSeconds(1795000000);  // 2026-11-18T11:06:40Z

Date day(int n) { return kNow + hours(24 * n); }

std::vector<std::string> paths(const std::vector<GrowthEntry>& entries) {
  std::vector<std::string> out;
  for (const auto& e : entries) out.push_back(e.path);
  return out;
}

void store(const GrowthTracker& tracker, const std::vector<FolderSnapshot>& list) {
  Json j = Json::array();
  for (const auto& s : list) j.push_back(toJson(s));
  JSONStore::save(j, tracker.url());
}

TEST(GrowthTracker, DiffKeepsChangesOfTenMillionBytesAndMore) {
  const FolderSnapshot older{day(0), {{"/h/gone", 50000000}, {"/h/grew", 1000}, {"/h/exact", 0},
                                      {"/h/under", 0}, {"/h/shrankExact", 10000000},
                                      {"/h/same", 70000000}}};
  const FolderSnapshot newer{day(1), {{"/h/new", 30000000}, {"/h/grew", 30001000},
                                      {"/h/exact", 10000000}, {"/h/under", 9999999},
                                      {"/h/shrankExact", 0}, {"/h/same", 70000000}}};
  const auto entries = GrowthTracker::diff(older, newer, 25);
  // Equal growth keeps path order ("/h/grew" before "/h/new"); shrinkage comes last.
  EXPECT_EQ(paths(entries), (std::vector<std::string>{"/h/grew", "/h/new", "/h/exact",
                                                      "/h/shrankExact", "/h/gone"}));
  struct Case {
    const char* path;
    int64_t before, after, delta;
  };
  const Case cases[] = {
      {"/h/grew", 1000, 30001000, 30000000}, {"/h/new", 0, 30000000, 30000000},
      {"/h/exact", 0, 10000000, 10000000},   {"/h/shrankExact", 10000000, 0, -10000000},
      {"/h/gone", 50000000, 0, -50000000},
  };
  ASSERT_EQ(entries.size(), std::size(cases));
  for (size_t i = 0; i < entries.size(); ++i) {
    SCOPED_TRACE(cases[i].path);
    EXPECT_EQ(entries[i].before, cases[i].before);
    EXPECT_EQ(entries[i].after, cases[i].after);
    EXPECT_EQ(entries[i].delta(), cases[i].delta);
  }
  EXPECT_EQ(paths(GrowthTracker::diff(older, newer, 2)),
            (std::vector<std::string>{"/h/grew", "/h/new"}));
  EXPECT_TRUE(GrowthTracker::diff(older, newer, 0).empty());
  // Sizes no disk has do not overflow the difference.
  const FolderSnapshot huge{day(2), {{"/h/x", INT64_MAX}}};
  const FolderSnapshot negative{day(3), {{"/h/x", -5}}};
  EXPECT_EQ(GrowthTracker::diff(negative, huge, 5).at(0).delta(), INT64_MAX);
  EXPECT_EQ(GrowthTracker::diff(huge, negative, 5).at(0).delta(), INT64_MIN);
}

TEST(GrowthTracker, ReportPicksSnapshotClosestToTarget) {
  struct Case {
    const char* name;
    std::vector<int> days;  // snapshot days, oldest first; the last one is the newer snapshot
    int64_t reportDays;
    int expectedFrom;
  };
  const Case cases[] = {
      {"a week: day 0", {0, 1, 7}, 7, 0},
      {"three days: day 4 is closer to day 1", {0, 1, 7}, 3, 1},
      {"tie goes to the earlier", {0, 2, 4}, 3, 0},
      {"zero days: the one before the last", {0, 1, 7}, 0, 1},
      {"far back: the oldest", {0, 1, 7}, 100000, 0},
      {"negative days: the newest but one", {0, 1, 7}, -3, 1},
      {"absurd day count", {0, 1, 7}, INT64_MAX, 0},
      {"two snapshots", {5, 6}, 7, 5},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchHome h;
    GrowthTracker tracker(h.paths());
    std::vector<FolderSnapshot> list;
    for (int d : c.days) list.push_back({day(d), {{"/h/a", int64_t{d} * 100000000}}});
    store(tracker, list);
    const auto report = tracker.report(c.reportDays, 25);
    ASSERT_TRUE(report);
    EXPECT_EQ(report->from, day(c.expectedFrom));
    EXPECT_EQ(report->to, day(c.days.back()));
    ASSERT_EQ(report->entries.size(), 1u);
    EXPECT_EQ(report->entries[0].before, int64_t{c.expectedFrom} * 100000000);
    EXPECT_EQ(report->entries[0].after, int64_t{c.days.back()} * 100000000);
  }
}

TEST(GrowthTracker, SnapshotMeasuresChildrenOfWatchedFolders) {
  ScratchHome h;
  h.file("Documents/report.pdf", 40000);
  h.file("Library/Logs/app.log", 9000);
  h.file("Library/Caches/com.example/blob", 120000);
  h.file("Library/Application Support/Example/data", 5000);
  h.folder("Library/Containers/com.example.sandboxed");
  h.file("Library/Group Containers/group.example/db", 7000);
  h.file("Developer/project/src/main.c", 3000);
  h.file("Downloads/archive/part", 64000);
  h.file("Downloads/loose.zip", 1000);  // a file, not a folder
  h.file("notes.txt", 10);
  h.file("outside/big", 300000);
  h.link("Downloads/linked", h.path("outside"));         // a link to a folder is not measured
  h.link("Library/Caches/dangling", h.path("missing"));  // nor a dangling link
  h.link("Developer/self", h.path("Developer"));

  GrowthTracker tracker(h.paths());
  const auto snapshot = tracker.takeSnapshot(kNow, [] { return false; });
  EXPECT_EQ(snapshot.date, kNow);

  const std::vector<std::string> measured = {
      "Developer/project",
      "Documents",
      "Downloads/archive",
      "Library/Application Support/Example",
      "Library/Caches/com.example",
      "Library/Containers/com.example.sandboxed",
      "Library/Group Containers/group.example",
      "Library/Logs",
      "outside",
  };
  std::map<std::string, int64_t> expected;
  for (const auto& rel : measured) expected[h.path(rel).string()] = FS::allocatedSize(h.path(rel));
  EXPECT_EQ(snapshot.sizes, expected);
  EXPECT_GT(snapshot.sizes.at(h.path("Library/Caches/com.example").string()), 0);

  EXPECT_EQ(tracker.snapshots(), (std::vector<FolderSnapshot>{snapshot}));
  // The agent's own support folder now exists and is measured next time like any other.
  const auto second = tracker.takeSnapshot(kNow + hours(24), [] { return false; });
  EXPECT_TRUE(second.sizes.count(h.paths().supportDir().string()));
  EXPECT_EQ(tracker.snapshots().size(), 2u);
}

TEST(GrowthTracker, NoReportUntilTwoAndAStoreElsewhereLeavesHomeUntouched) {
  ScratchHome h;
  // A Downloads folder that is a link to another disk is measured where it lives.
  h.file("../outside/dl/video/part", 4096);
  h.link("Downloads", h.outside("dl"));
  const fs::path store = h.outside("store") / "growth-snapshots.json";
  GrowthTracker tracker(h.paths(), store);
  EXPECT_FALSE(tracker.lastSnapshotDate());
  const auto snapshot = tracker.takeSnapshot(kNow, nullptr);
  EXPECT_EQ(snapshot.sizes, (std::map<std::string, int64_t>{{h.path("Downloads/video").string(), FS::allocatedSize(h.outside("dl") / "video")}}));
  EXPECT_EQ(GrowthTracker(h.paths(), store).snapshots(), (std::vector<FolderSnapshot>{snapshot}));
  EXPECT_EQ(tracker.lastSnapshotDate(), kNow);
  EXPECT_FALSE(tracker.report(7, 25));
  EXPECT_FALSE(fs::exists(h.paths().library()));
}

TEST(GrowthTracker, KeepsNewest26Snapshots) {
  ScratchHome h;
  GrowthTracker tracker(h.paths());
  std::vector<FolderSnapshot> list;
  for (int d = 0; d < 26; ++d) list.push_back({day(d), {}});
  store(tracker, list);
  tracker.takeSnapshot(day(26), [] { return false; });
  const auto kept = tracker.snapshots();
  ASSERT_EQ(kept.size(), 26u);
  EXPECT_EQ(kept.front().date, day(1));
  EXPECT_EQ(kept.back().date, day(26));
}

TEST(GrowthTracker, CancelStopsWithinTwoThousandEntriesAndStoresNothing) {
  ScratchHome h;
  for (int f = 0; f < 3; ++f) {
    for (int i = 0; i < 2500; ++i)
      h.file("Downloads/set" + std::to_string(f) + "/f" + std::to_string(i), 1);
  }
  GrowthTracker tracker(h.paths());
  store(tracker, {{day(-1), {{"/h/a", 1}}}});
  const auto before = test::readText(tracker.url());

  std::atomic<int> polls{0};
  const auto snapshot = tracker.takeSnapshot(kNow, [&] { return ++polls >= 2; });
  // The walk of the first set stops at its second poll, within 2000 entries; nothing else is
  // measured.
  EXPECT_EQ(polls.load(), 2);
  EXPECT_LE(snapshot.sizes.size(), 1u);
  int64_t measured = 0;
  for (const auto& [path, bytes] : snapshot.sizes) measured += bytes;
  EXPECT_LT(measured, FS::allocatedSize(h.path("Downloads/set0")));
  EXPECT_EQ(test::readText(tracker.url()), before);
}

TEST(GrowthTracker, DamagedFileCountsAsEmptyAndIsReplaced) {
  const char* bad[] = {
      "{}",
      "[{\"date\":\"2026-11-18T11:06:40Z\"}]",
      "[{\"date\":\"2026-11-18T11:06:40Z\",\"sizes\":[]}]",
      "[{\"date\":\"2026-11-18T11:06:40Z\",\"sizes\":{\"\\/h\\/a\":\"12\"}}]",
      "[{\"date\":\"2026-11-18T11:06:40Z\",\"sizes\":{\"\\/h\\/a\":1.5}}]",
      "[{\"date\":\"yesterday\",\"sizes\":{}}]",
      "[{\"date\":\"2026-11-18T11:06:40Z\",\"sizes\":{}},",
  };
  for (const char* text : bad) {
    SCOPED_TRACE(text);
    ScratchHome h;
    GrowthTracker tracker(h.paths());
    h.text("Library/Application Support/orvo Kestrel/growth-snapshots.json", text);
    EXPECT_TRUE(tracker.snapshots().empty());
    EXPECT_FALSE(tracker.report(7, 25));
    tracker.takeSnapshot(kNow, [] { return false; });
    ASSERT_EQ(tracker.snapshots().size(), 1u);
    EXPECT_EQ(tracker.snapshots()[0].date, kNow);
  }
}

}  // namespace
}  // namespace kestrel
