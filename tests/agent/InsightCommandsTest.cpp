// "forecast" and "growth" in process at a fixed now: exact lines from crafted histories, day
// parsing and which snapshot a report compares with.
#include "agent/Commands.h"

#include "core/insights/GrowthTracker.h"
#include "core/insights/SpaceHistory.h"
#include "core/store/JSONStore.h"
#include "tests/agent/RunInProcess.h"

#include <gtest/gtest.h>

namespace kestrel::test {
namespace {

using std::chrono::hours;

// One sample a day for eleven days up to now, free space falling by `perDay` to `lastFree`.
std::vector<SpaceSample> daily(int64_t lastFree, int64_t perDay) {
  std::vector<SpaceSample> out;
  for (int64_t ago = 10; ago >= 0; --ago) out.push_back({kTestNow - hours(24 * ago), lastFree + ago * perDay, 0});
  return out;
}

TEST(InsightCommands, ForecastLines) {
  const struct Case {
    const char* name;
    std::vector<SpaceSample> samples;  // none: no file
    const char* expected;
  } cases[] = {
      {"no history", {}, "Not enough history yet (needs ~2 days of samples).\n"},
      {"losing 2.5 GB a day", daily(30000000000, 2500000000), "Trend: 2.5 GB/day over 10 days\nPredicted full in 12 days\n"},
      {"losing 40 MB a day", daily(100000000000, 40000000), "Trend: 40 MB/day over 10 days\nNot filling up\n"},
      {"gaining 2 GB a day", daily(100000000000, -2000000000), "Trend: -2 GB/day over 10 days\nNot filling up\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchHome h;
    if (!c.samples.empty()) JSONStore::save(toJsonArray(c.samples), SpaceHistory(h.paths()).url());
    const auto r = run(h, {"forecast"});
    EXPECT_EQ(r.status, 0);
    ASSERT_EQ(r.out.rfind("Free: ", 0), 0u) << r.out;  // then the machine's own disk
    EXPECT_EQ(r.out.substr(r.out.find('\n') + 1), c.expected);
  }
}

TEST(InsightCommands, ParseDayCount) {
  const std::pair<const char*, std::optional<int64_t>> cases[] = {
      {"7", 7}, {"+3", 3}, {"-2", -2}, {"007", 7}, {"9223372036854775807", INT64_MAX},
      {"-9223372036854775808", INT64_MIN}, {"9223372036854775808", std::nullopt}, {"", std::nullopt},
      {"-", std::nullopt}, {"3x", std::nullopt}, {" 3", std::nullopt}, {"--snapshot", std::nullopt},
      {"٣", std::nullopt},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(agent::parseDayCount(text), expected) << text;
}

TEST(InsightCommands, GrowthComparesWithTheSnapshotItsDaysPick) {
  ScratchHome h;
  // Snapshots 14, 7 and 1 day back and now; a marker folder grows by 100 MB between each.
  const std::string marker = h.path("Downloads/marker").string(), cache = h.path("Library/Caches/c").string();
  std::vector<FolderSnapshot> list = {
      {kTestNow - hours(24 * 14), {{marker, 100000000}, {cache, 900000000}}},
      {kTestNow - hours(24 * 7), {{marker, 200000000}, {cache, 900000000}, {"/elsewhere/data", 50000000}}},
      {kTestNow - hours(24), {{marker, 300000000}, {cache, 900000000}}},
      {kTestNow, {{marker, 400000000}, {cache, 880000000}}},
  };
  for (int i = 0; i < 30; ++i) list.front().sizes["/data/f" + std::to_string(100 + i)] = 20000000 + i;
  Json j = Json::array();
  for (const auto& s : list) j.push_back(toJson(s));
  JSONStore::save(j, GrowthTracker(h.paths()).url());
  const std::string week = "+200 MB\t~/Downloads/marker\n-20 MB\t~/Library/Caches/c\n-50 MB\t/elsewhere/data\n";
  const struct Case {
    std::vector<std::string> args;
    std::string start;
    long lines;
  } cases[] = {
      {{"growth"}, week, 3}, {{"growth", "week"}, week, 3},  // a count that does not parse means a week
      {{"growth", "14"}, "+300 MB\t~/Downloads/marker\n", 25},  // 32 changes, at most 25 lines
      {{"growth", "0"}, "+100 MB\t~/Downloads/marker\n-20 MB\t~/Library/Caches/c\n", 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.back());
    const auto r = run(h, c.args);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind(c.start, 0), 0u) << r.out;
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), c.lines);
  }
  EXPECT_EQ(GrowthTracker(h.paths()).snapshots().size(), 4u);  // reports alone take no snapshot
}

TEST(InsightCommands, GrowthNeedsTwoSnapshotsAndOnlySnapshotTakesOne) {
  ScratchHome h;
  h.file("Documents/a", 100);
  // A damaged snapshot file counts as none; the first run replaces it with a snapshot.
  h.text("Library/Application Support/orvo Kestrel/growth-snapshots.json", "[{\"sizes\":{}}]");
  EXPECT_EQ(run(h, {"growth"}).out, "Need two snapshots; run again tomorrow.\n");
  EXPECT_EQ(run(h, {"growth", "3"}).out, "Need two snapshots; run again tomorrow.\n");
  ASSERT_EQ(GrowthTracker(h.paths()).snapshots().size(), 1u);
  // With --snapshot there are two; nothing changed by 10 MB, so the report is empty.
  Services later;
  later.now = [] { return kTestNow + hours(24); };
  const auto r = run(h, {"growth", "--snapshot"}, later);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(GrowthTracker(h.paths()).snapshots().size(), 2u);
}

}  // namespace
}  // namespace kestrel::test
