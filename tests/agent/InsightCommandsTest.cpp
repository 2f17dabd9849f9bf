// "forecast" and "growth" in process: exact lines from crafted histories, day parsing, snapshots.
#include "agent/Commands.h"

#include "core/insights/GrowthTracker.h"
#include "core/insights/SpaceHistory.h"
#include "core/store/JSONStore.h"
#include "tests/support/ScratchHome.h"
#include "tests/agent/RunInProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

namespace kestrel::agent {
namespace {

using std::chrono::hours;
using test::ScratchHome;

using test::Run;
using test::run;

// The agent reads the real clock: histories are laid out back from the current whole second.
Date wholeSecondNow() {
  return Dates::fromUnixSeconds(Dates::unixSeconds(std::chrono::system_clock::now()));
}

void writeSamples(const ScratchHome& h, const std::vector<SpaceSample>& samples) {
  Json j = Json::array();
  for (const auto& s : samples) j.push_back(toJson(s));
  JSONStore::save(j, SpaceHistory(h.paths()).url());
}

// One sample a day for eleven days, ending now, free space moving by `perDay` bytes a day to
// `lastFree`.
std::vector<SpaceSample> daily(int64_t lastFree, int64_t perDay) {
  const Date now = wholeSecondNow();
  std::vector<SpaceSample> out;
  for (int64_t ago = 10; ago >= 0; --ago)
    out.push_back({now - hours(24 * ago), lastFree + ago * perDay, 0});
  return out;
}

// The line after "Free: …", which depends on the machine's disk.
std::string afterFreeLine(const std::string& out) {
  EXPECT_EQ(out.rfind("Free: ", 0), 0u) << out;
  EXPECT_NE(out.find(" of "), std::string::npos) << out;
  const auto nl = out.find('\n');
  return nl == std::string::npos ? out : out.substr(nl + 1);
}

TEST(InsightCommands, ForecastLines) {
  struct Case {
    const char* name;
    std::optional<std::vector<SpaceSample>> samples;  // nothing: no file (a damaged one reads as none)
    const char* expected;
  };
  const Case cases[] = {
      {"no history", std::nullopt, "Not enough history yet (needs ~2 days of samples).\n"},
      {"losing 1 GB a day", daily(100000000000, 1000000000),
       "Trend: 1 GB/day over 10 days\nPredicted full in 100 days\n"},
      {"losing 2.5 GB a day", daily(30000000000, 2500000000),
       "Trend: 2.5 GB/day over 10 days\nPredicted full in 12 days\n"},
      {"losing 40 MB a day", daily(100000000000, 40000000),
       "Trend: 40 MB/day over 10 days\nNot filling up\n"},
      {"gaining 2 GB a day", daily(100000000000, -2000000000),
       "Trend: -2 GB/day over 10 days\nNot filling up\n"},
      {"steady", daily(100000000000, 0),
       "Trend: Zero KB/day over 10 days\nNot filling up\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchHome h;
    if (c.samples) writeSamples(h, *c.samples);
    const auto r = run(h, {"forecast"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(afterFreeLine(r.out), c.expected);
  }
}

TEST(InsightCommands, ParseDayCount) {
  struct Case {
    const char* text;
    std::optional<int64_t> expected;
  };
  const Case cases[] = {
      {"7", 7}, {"0", 0}, {"30", 30}, {"+3", 3}, {"-2", -2}, {"007", 7},
      {"9223372036854775807", INT64_MAX}, {"-9223372036854775808", INT64_MIN},
      {"9223372036854775808", std::nullopt}, {"", std::nullopt}, {"+", std::nullopt},
      {"-", std::nullopt}, {"3x", std::nullopt}, {" 3", std::nullopt}, {"3.0", std::nullopt},
      {"--snapshot", std::nullopt}, {"٣", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(parseDayCount(c.text), c.expected);
  }
}

class GrowthCommand : public ::testing::Test {
 protected:
  // Four snapshots ending now: 14 days, 7 days and 1 day back, and now. A marker folder grows
  // by 100 MB between them, so each pick shows a different change.
  void SetUp() override {
    const Date now = wholeSecondNow();
    const std::string marker = h.path("Downloads/marker").string();
    const std::string cache = h.path("Library/Caches/com.example").string();
    std::vector<FolderSnapshot> list = {
        {now - hours(24 * 14), {{marker, 100000000}, {cache, 900000000}}},
        {now - hours(24 * 7),
         {{marker, 200000000}, {cache, 900000000}, {"/elsewhere/data", 50000000}}},
        {now - hours(24), {{marker, 300000000}, {cache, 900000000}}},
        {now, {{marker, 400000000}, {cache, 880000000}}},
    };
    Json j = Json::array();
    for (const auto& s : list) j.push_back(toJson(s));
    JSONStore::save(j, GrowthTracker(h.paths()).url());
  }

  ScratchHome h;
};

TEST_F(GrowthCommand, PrintsSignedChangesWithTildePaths) {
  struct Case {
    std::vector<std::string> args;
    const char* expected;
  };
  // Against the snapshot a week back; a day count that does not parse means a week. (Which
  // snapshot a day count picks is the growth tracker's own test.)
  const char* week = "+200 MB\t~/Downloads/marker\n-20 MB\t~/Library/Caches/com.example\n"
                     "-50 MB\t/elsewhere/data\n";
  const Case cases[] = {
      {{"growth"}, week},
      {{"growth", "week"}, week},
      {{"growth", "14"}, "+300 MB\t~/Downloads/marker\n-20 MB\t~/Library/Caches/com.example\n"},
      {{"growth", "0"}, "+100 MB\t~/Downloads/marker\n-20 MB\t~/Library/Caches/com.example\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.back());
    const auto r = run(h, c.args);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, c.expected);
  }
  EXPECT_EQ(GrowthTracker(h.paths()).snapshots().size(), 4u);  // reports alone take no snapshot
}

TEST_F(GrowthCommand, SnapshotFlagMeasuresFirstAndKeepsDefaultDays) {
  h.file("Downloads/fresh/file", 4096);
  const auto r = run(h, {"growth", "--snapshot"});
  EXPECT_EQ(r.status, 0);
  // The new snapshot has no marker: compared with the one a week back (7 days, not a parse error).
  EXPECT_NE(r.out.find("-200 MB\t~/Downloads/marker\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("-900 MB\t~/Library/Caches/com.example\n"), std::string::npos) << r.out;
  const auto list = GrowthTracker(h.paths()).snapshots();
  ASSERT_EQ(list.size(), 5u);
  EXPECT_TRUE(list.back().sizes.count(h.path("Downloads/fresh").string()));
}

TEST(InsightCommands, GrowthNeedsTwoSnapshots) {
  ScratchHome h;
  h.file("Documents/a", 100);
  // A damaged snapshot file counts as none.
  h.text("Library/Application Support/orvo Kestrel/growth-snapshots.json", "[{\"sizes\":{}}]");
  auto r = run(h, {"growth"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "Need two snapshots; run again tomorrow.\n");
  // The first run replaced it with a snapshot; a second plain run does not take another.
  auto list = GrowthTracker(h.paths()).snapshots();
  ASSERT_EQ(list.size(), 1u);
  EXPECT_GT(list[0].sizes.at(h.path("Documents").string()), 0);
  r = run(h, {"growth", "3"});
  EXPECT_EQ(r.out, "Need two snapshots; run again tomorrow.\n");
  EXPECT_EQ(GrowthTracker(h.paths()).snapshots().size(), 1u);
  // With --snapshot there are two; nothing changed by 10 MB, so the report is empty.
  r = run(h, {"growth", "--snapshot"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(GrowthTracker(h.paths()).snapshots().size(), 2u);
}

TEST(InsightCommands, GrowthListsAtMost25) {
  ScratchHome h;
  const Date now = wholeSecondNow();
  FolderSnapshot older{now - hours(24 * 7), {}}, newer{now, {}};
  for (int i = 0; i < 30; ++i)
    newer.sizes["/data/f" + std::to_string(100 + i)] = int64_t{20000000} + i;
  JSONStore::save(Json::array({toJson(older), toJson(newer)}), GrowthTracker(h.paths()).url());
  const auto r = run(h, {"growth"});
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 25);
  EXPECT_EQ(r.out.rfind("+20 MB\t/data/f129\n", 0), 0u) << r.out;
}

}  // namespace
}  // namespace kestrel::agent
