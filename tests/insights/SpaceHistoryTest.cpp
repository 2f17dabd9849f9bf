// Space history: hourly recording, the 2900-sample cap, strict reading and the disk-full forecast.
#include "core/insights/SpaceHistory.h"

#include "core/store/JSONStore.h"
#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

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
  struct Case {
    const char* name;
    std::vector<SpaceSample> samples;
    bool expectForecast;
    double basedOnDays = 0;
    std::optional<double> bytesPerDay = std::nullopt;  // nothing: only the samples fit matter
    std::optional<double> daysUntilFull = std::nullopt;
  };
  const Case cases[] = {
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

TEST(SpaceHistory, DamagedFilesReadEmptyAndAreReplaced) {
  const char* bad[] = {
      "",
      "{\"date\":\"2026-11-18T11:06:40Z\",\"free\":1,\"total\":2}",
      "[{\"date\":\"2026-11-18T11:06:40Z\",\"free\":\"1\",\"total\":2}]",
      "[{\"date\":\"2026-11-18T11:06:40Z\",\"free\":1}]",
      "[{\"date\":815000000,\"free\":1,\"total\":2}]",
      "[{\"date\":\"2026-11-18T11:06:40.5Z\",\"free\":1,\"total\":2}]",
      // One bad sample spoils the file: the good one before it is not kept either.
      "[{\"date\":\"2026-11-18T11:06:40Z\",\"free\":1,\"total\":2},{\"free\":1,\"total\":2}]",
  };
  for (const char* text : bad) {
    SCOPED_TRACE(text);
    ScratchHome h;
    SpaceHistory history(h.paths());
    h.text("Library/Application Support/orvo Kestrel/space-history.json", text);
    EXPECT_TRUE(history.samples().empty());
    EXPECT_FALSE(history.forecast(kNow));
    history.record({10, 5}, kNow);
    EXPECT_EQ(history.samples(), (std::vector<SpaceSample>{{kNow, 5, 10}}));
  }
  ScratchHome h;
  h.text("Library/Application Support/orvo Kestrel/space-history.json",
         "[{\"date\":\"2026-11-18T13:06:40+02:00\",\"free\":1,\"total\":2,\"extra\":true}]");
  EXPECT_EQ(SpaceHistory(h.paths()).samples(), (std::vector<SpaceSample>{{kNow, 1, 2}}));
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

}  // namespace
}  // namespace kestrel
