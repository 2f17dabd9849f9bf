// Space insights: hourly space samples with the disk-full forecast, folder growth snapshots with
// their diff and report, and damaged stores of both.
#include "core/insights/GrowthTracker.h"
#include "core/insights/SpaceHistory.h"
#include "core/store/JSONStore.h"
#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>

namespace kestrel {
namespace {

using std::chrono::hours;
using std::chrono::seconds;
using test::ScratchHome;

const Date kNow = Dates::fromUnixSeconds(1795000000);  // 2026-11-18, a whole second
constexpr double kDay = 86400;

Date daysAgo(double days) {
  return kNow -
         std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(days * kDay));
}

// `count` samples evenly spaced from `fromDaysAgo` up to `toDaysAgo`, free = f(days ago).
std::vector<SpaceSample> series(double fromDaysAgo, double toDaysAgo, int count,
                                const std::function<double(double)>& freeAt,
                                int64_t total = 500000000000) {
  std::vector<SpaceSample> out;
  for (int i = 0; i < count; ++i) {
    const double ago =
        count == 1 ? fromDaysAgo : fromDaysAgo - (fromDaysAgo - toDaysAgo) * i / (count - 1);
    out.push_back({daysAgo(ago), static_cast<int64_t>(freeAt(ago)), total});
  }
  return out;
}

std::vector<SpaceSample> join(std::vector<SpaceSample> a, const std::vector<SpaceSample>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Twenty-one samples twelve hours apart losing 2 GB a day; from the fourteenth on, free space
// is `jump` bytes higher (so it rises by jump − 1 GB at that step).
std::vector<SpaceSample> stepSeries(int64_t jump) {
  std::vector<SpaceSample> out;
  for (int64_t i = 0; i <= 20; ++i) {
    const int64_t free = 100000000000 - i * 1000000000 + (i >= 14 ? jump : 0);
    out.push_back({kNow - hours(12 * (20 - i)), free, 500000000000});
  }
  return out;
}

TEST(SpaceHistory, ForecastOverSeries) {
  // Free space 100 GB now, losing 1 GB a day.
  auto steady = [](double ago) { return 100e9 + ago * 1e9; };
  // Losing 2 GB a day until a 5 GB cleanup three days ago, 1 GB a day since.
  auto beforeCleanup = series(10, 3.01, 40, [](double ago) { return 50e9 + ago * 2e9; });
  auto afterCleanup = [](int count) {
    return series(3, 0, count, [](double ago) { return 58e9 + ago * 1e9; });
  };
  const struct Case {
    const char* name;
    std::vector<SpaceSample> samples;
    bool expectForecast;
    double basedOnDays = 0;
    std::optional<double> bytesPerDay = std::nullopt;  // nothing: only the samples fit matter
    std::optional<double> daysUntilFull = std::nullopt;
  } cases[] = {
      {"steady loss of 1 GB a day", series(10, 0, 41, steady), true, 10, 1e9, 100},
      {"hourly samples over 1.9 days", series(1.9, 0, 46, steady), false},
      {"one recent sample", series(0, 0, 1, steady), false},
      {"six samples at one moment", std::vector<SpaceSample>(6, SpaceSample{kNow, 1, 2}), false},
      {"cleanup three days ago, ten samples since", join(beforeCleanup, afterCleanup(10)), true, 3,
       1e9, 58},
      // Five samples after the cleanup are too few: the fit runs over everything, jump included.
      {"cleanup three days ago, five samples since", join(beforeCleanup, afterCleanup(5)), true,
       10},
      {"cleanup one day ago",
       join(series(10, 1.01, 40, [](double ago) { return 50e9 + ago * 2e9; }),
            series(1, 0, 10, [](double ago) { return 60e9 + ago * 1e9; })),
       true, 10},
      {"rise of exactly 1e9 is no cleanup", stepSeries(2000000000), true, 10},
      {"rise of 1e9 + 1 is a cleanup", stepSeries(2000000001), true, 3, 2e9, 82000000001.0 / 2e9},
      {"loss of 40 MB a day", series(10, 0, 41, [](double ago) { return 100e9 + ago * 40e6; }),
       true, 10, 40e6},
      {"free space growing", series(10, 0, 41, [](double ago) { return 100e9 - ago * 1e9; }), true,
       10, -1e9},
      // Samples older than 45 days are left out, even with a steeper loss.
      {"old samples ignored",
       join(series(60, 46, 15, [](double ago) { return 300e9 + ago * 9e9; }),
            series(45, 0, 46, steady)),
       true, 45, 1e9, 100},
      {"volume of total 0, nothing free", series(10, 0, 41, [](double) { return 0; }, 0), true,
       10, 0},
      {"volume of total 0, losing", series(10, 0, 41, steady, 0), true, 10, 1e9, 100},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto f = SpaceHistory::forecast(c.samples, kNow);
    ASSERT_EQ(f.has_value(), c.expectForecast);
    if (!f) continue;
    EXPECT_NEAR(f->basedOnDays, c.basedOnDays, 1e-6);
    EXPECT_EQ(f->predictedFullDate.has_value(), f->daysUntilFull.has_value());
    if (!c.bytesPerDay) continue;
    EXPECT_NEAR(f->bytesPerDay, *c.bytesPerDay, std::abs(*c.bytesPerDay) * 1e-6 + 1e-3);
    ASSERT_EQ(f->daysUntilFull.has_value(), c.daysUntilFull.has_value());
    if (!c.daysUntilFull) continue;
    EXPECT_NEAR(*f->daysUntilFull, *c.daysUntilFull, 1e-3);
    const double predicted =
        std::chrono::duration<double>(*f->predictedFullDate - kNow).count() / kDay;
    EXPECT_NEAR(predicted, *c.daysUntilFull, 1e-3);
  }
}

TEST(SpaceHistory, ForecastWindowEdgesAndFloor) {
  // A sample exactly 45 days old still counts; one a second older does not.
  auto steady = [](double ago) { return 100e9 + ago * 1e9; };
  auto withEdge = series(45, 0, 46, steady);
  auto f = SpaceHistory::forecast(withEdge, kNow);
  ASSERT_TRUE(f);
  EXPECT_DOUBLE_EQ(f->basedOnDays, 45);
  withEdge.front().date -= seconds(1);
  f = SpaceHistory::forecast(withEdge, kNow);
  ASSERT_TRUE(f);
  EXPECT_DOUBLE_EQ(f->basedOnDays, 44);

  // Just above the 50 MB floor predicts a day; just below does not.
  f = SpaceHistory::forecast(series(10, 0, 11, [](double ago) { return 1e12 + ago * 51e6; }), kNow);
  ASSERT_TRUE(f && f->daysUntilFull);
  EXPECT_NEAR(*f->daysUntilFull, 1e12 / 51e6, 1e-3);
  f = SpaceHistory::forecast(series(10, 0, 11, [](double ago) { return 1e12 + ago * 49e6; }), kNow);
  ASSERT_TRUE(f);
  EXPECT_FALSE(f->daysUntilFull);
  EXPECT_FALSE(f->predictedFullDate);

  // A prediction centuries away stays a valid date instead of overflowing the clock.
  f = SpaceHistory::forecast(series(10, 0, 11, [](double ago) { return 9e18 + ago * 51e6; }), kNow);
  ASSERT_TRUE(f && f->predictedFullDate);
  EXPECT_GT(*f->predictedFullDate, kNow);

  // Damaged histories (dates read from a file are held at the clock's ends): samples centuries
  // apart fit nothing, and a "full" day centuries back is held at the clock's first second.
  const Date first = Dates::fromUnixSeconds(INT64_MIN);
  EXPECT_FALSE(SpaceHistory::forecast({{kNow, 30000000000, 250000000000},
                                       {kNow + hours(1), 29000000000, 250000000000},
                                       {first, 29000000000, 250000000000}},
                                      first));
  std::vector<SpaceSample> early;
  for (int64_t i = 0; i < 11; ++i)
    early.push_back({first + hours(24 * i), -1000000000000000 + (10 - i) * 1000000000, 1});
  f = SpaceHistory::forecast(early, early.back().date);
  ASSERT_TRUE(f && f->predictedFullDate);
  EXPECT_EQ(*f->predictedFullDate, Date::min());
}

TEST(SpaceHistory, RecordAtMostHourly) {
  ScratchHome h;
  SpaceHistory history(h.paths());
  const Date later = kNow + std::chrono::minutes(60);
  history.record({1000, 400}, kNow);
  history.record({1000, 300}, kNow + std::chrono::minutes(59));  // too soon: dropped
  history.record({1000, 200}, later);  // an hour after the last sample kept
  EXPECT_EQ(history.samples(), (std::vector<SpaceSample>{{kNow, 400, 1000}, {later, 200, 1000}}));
}

TEST(SpaceHistory, KeepsNewest2900Samples) {
  ScratchHome h;
  SpaceHistory history(h.paths());
  Json j = Json::array();
  for (int i = 0; i < 2900; ++i) j.push_back(toJson(SpaceSample{kNow - hours(2900 - i), i, 5000}));
  JSONStore::save(j, history.url());
  history.record({5000, 9999}, kNow);
  const auto samples = history.samples();
  ASSERT_EQ(samples.size(), 2900u);
  EXPECT_EQ(samples.front().free, 1);  // the oldest (free 0) was dropped
  EXPECT_EQ(samples.back(), (SpaceSample{kNow, 9999, 5000}));
}

TEST(SpaceHistory, SaveErrorsAreDropped) {
  ScratchHome h;
  // A file where the support folder must go: nothing can be written, and nothing throws.
  h.text("Library/Application Support/orvo Kestrel", "in the way");
  SpaceHistory history(h.paths());
  const auto start = std::chrono::steady_clock::now();
  history.record({10, 5}, kNow);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  EXPECT_TRUE(history.samples().empty());
  EXPECT_EQ(test::readText(h.path("Library/Application Support/orvo Kestrel")), "in the way");
}

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
  const struct Case {
    const char* path;
    int64_t before, after, delta;
  } cases[] = {
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
  const struct Case {
    const char* name;
    std::vector<int> days;  // snapshot days, oldest first; the last one is the newer snapshot
    int64_t reportDays;
    int expectedFrom;
  } cases[] = {
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

TEST(InsightStores, DamagedFilesReadEmptyAndAreReplaced) {
  const std::string day = "{\"date\":\"2026-11-18T11:06:40Z\"";
  const struct Case {
    const char* file;
    std::string text;
  } cases[] = {
      {"space-history.json", ""},
      {"space-history.json", day + ",\"free\":1,\"total\":2}"},
      {"space-history.json", "[" + day + ",\"free\":\"1\",\"total\":2}]"},
      {"space-history.json", "[" + day + ",\"free\":1}]"},
      {"space-history.json", "[{\"date\":815000000,\"free\":1,\"total\":2}]"},
      {"space-history.json", "[{\"date\":\"2026-11-18T11:06:40.5Z\",\"free\":1,\"total\":2}]"},
      // One bad sample spoils the file: the good one before it is not kept either.
      {"space-history.json", "[" + day + ",\"free\":1,\"total\":2},{\"free\":1,\"total\":2}]"},
      {"growth-snapshots.json", "{}"},
      {"growth-snapshots.json", "[" + day + "}]"},
      {"growth-snapshots.json", "[" + day + ",\"sizes\":[]}]"},
      {"growth-snapshots.json", "[" + day + ",\"sizes\":{\"\\/h\\/a\":\"12\"}}]"},
      {"growth-snapshots.json", "[" + day + ",\"sizes\":{\"\\/h\\/a\":1.5}}]"},
      {"growth-snapshots.json", "[{\"date\":\"yesterday\",\"sizes\":{}}]"},
      {"growth-snapshots.json", "[" + day + ",\"sizes\":{}},"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    ScratchHome h;
    h.text("Library/Application Support/orvo Kestrel/" + std::string(c.file), c.text);
    SpaceHistory history(h.paths());
    GrowthTracker tracker(h.paths());
    EXPECT_TRUE(history.samples().empty() && tracker.snapshots().empty());
    EXPECT_FALSE(history.forecast(kNow) || tracker.report(7, 25));
    history.record({10, 5}, kNow);
    tracker.takeSnapshot(kNow, [] { return false; });
    EXPECT_EQ(history.samples(), (std::vector<SpaceSample>{{kNow, 5, 10}}));
    ASSERT_EQ(tracker.snapshots().size(), 1u);
    EXPECT_EQ(tracker.snapshots()[0].date, kNow);
  }
  ScratchHome h;  // another zone, and keys this version does not know
  h.text("Library/Application Support/orvo Kestrel/space-history.json",
         "[{\"date\":\"2026-11-18T13:06:40+02:00\",\"free\":1,\"total\":2,\"extra\":true}]");
  EXPECT_EQ(SpaceHistory(h.paths()).samples(), (std::vector<SpaceSample>{{kNow, 1, 2}}));
}

}  // namespace
}  // namespace kestrel
