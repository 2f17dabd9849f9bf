// Shredder records and stores: strict settings, the skip list, the rule summary, round trips, the
// history (tolerant JSON lines) and the review queue (cap, same path, vanished files).
#include "core/shredder/ShredHistory.h"
#include "core/shredder/ShredReviewQueue.h"
#include "core/shredder/ShredderStore.h"
#include "core/store/JSONStore.h"
#include "core/system/Uuid.h"
#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

#include <fstream>

namespace kestrel::test {
namespace {

ShredEvent event(int n, Date date, std::string rule = "Duplicate download") {
  return ShredEvent{Uuid::make(), date, "/h/Downloads/f" + std::to_string(n), std::move(rule), "r", 100 * n, false,
                    std::nullopt, std::nullopt};
}

TEST(ShredHistory, EventsKeepTheLastLinesOldestFirstAndSkipDamagedOnes) {
  ScratchHome h;
  ShredHistory history(h.paths());
  EXPECT_TRUE(history.events(5).empty());
  const Date t = Dates::fromUnixSeconds(1700000000);
  for (int i = 1; i <= 12; ++i) {
    history.append(event(i, t + std::chrono::seconds(i)));
    if (i == 10) {
      std::ofstream(h.paths().shredderHistoryFile(), std::ios::app) << "{\"torn\":\n";
    }
  }
  // Lines 8..12 are f8, f9, f10, the damaged line, f11 and f12: the last five lines.
  const auto last = history.events(5);
  ASSERT_EQ(last.size(), 4u);
  EXPECT_EQ(last.front().name(), "f9");
  EXPECT_EQ(last.back().name(), "f12");
  EXPECT_EQ(history.events().size(), 12u);
}

TEST(ShredHistory, StatsCountTheWindowAndFindTheBusiestDay) {
  ScratchHome h;
  ShredHistory history(h.paths());
  const Date now = Dates::fromUnixSeconds(1700000000);
  history.append(event(1, now - std::chrono::hours(24 * 40)));  // outside a 30-day window
  history.append(event(2, now - std::chrono::hours(24 * 3), "Trash"));
  history.append(event(3, now - std::chrono::hours(24 * 3) + std::chrono::minutes(1)));
  history.append(event(4, now - std::chrono::hours(1)));
  const ShredStats s = history.stats(30, now);
  EXPECT_EQ(s.count, 3);
  EXPECT_EQ(s.bytes, 900);
  EXPECT_EQ(s.byRule, (std::map<std::string, int64_t>{{"Duplicate download", 2}, {"Trash", 1}}));
  EXPECT_EQ(s.busiestDay, Dates::local(now - std::chrono::hours(24 * 3), "yyyy-MM-dd"));
  EXPECT_EQ(history.stats(30, now - std::chrono::hours(24 * 400)).busiestDay, std::nullopt);
}

TEST(ShredReviewQueue, NewestFirstVanishedDroppedSamePathKeptCapped) {
  ScratchHome h;
  ShredReviewQueue queue(h.paths());
  const Date t = Dates::fromUnixSeconds(1700000000);
  auto candidate = [&](int i) {
    const fs::path p = h.file("Downloads/c" + std::to_string(i) + ".mp4", 1);
    return ShredCandidate{p.string(), "/twin", 10, "Duplicate download", "r", t + std::chrono::seconds(i)};
  };
  queue.add(candidate(1));
  queue.add(candidate(2));
  auto all = queue.all();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all.front().path, candidate(2).path);

  // The user deleted the file: it is not offered any more.
  fs::remove(candidate(1).path);
  ASSERT_EQ(queue.all().size(), 1u);

  // The same path again changes nothing on disk.
  const std::string before = readText(h.paths().shredderReviewFile());
  ShredCandidate again = candidate(2);
  again.reason = "other";
  queue.add(again);
  EXPECT_EQ(readText(h.paths().shredderReviewFile()), before);

  queue.clear();
  for (int i = 10; i < 310; ++i) queue.add(candidate(i));
  queue.add(candidate(310));  // the 301st
  const auto stored = JSONStore::loadJson(h.paths().shredderReviewFile());
  ASSERT_TRUE(stored && stored->is_array());
  ASSERT_EQ(stored->size(), 300u);
  EXPECT_EQ((*stored)[0]["path"], candidate(11).path);
  EXPECT_EQ((*stored)[299]["path"], candidate(310).path);

  queue.remove(candidate(310).path);
  EXPECT_EQ(queue.all().size(), 299u);
}

TEST(ShredderSettings, EveryKeyIsRequiredAndAMissingOneMeansAllDefaults) {
  ShredderSettings custom;
  custom.approved = true;
  custom.enabled = true;
  custom.settleSeconds = 9;
  custom.folders = {"/elsewhere"};
  const Json full = toJson(custom);
  ASSERT_EQ(full.size(), 15u);
  EXPECT_EQ(shredderSettingsFromJson(full), custom);

  ScratchHome h;
  const ShredderStore store(h.paths());
  for (const auto& [key, _] : full.items()) {
    SCOPED_TRACE(key);
    Json partial = full;
    partial.erase(key);
    JSONStore::save(partial, h.paths().shredderSettingsFile());
    EXPECT_EQ(store.load(), ShredderSettings{});
  }
  struct Case {
    const char* key;
    Json value;
  } wrongTypes[] = {{"approved", "yes"}, {"settleSeconds", 1.5}, {"folders", "~/Downloads"}, {"ignoredPaths", {1}}};
  for (const auto& c : wrongTypes) {
    SCOPED_TRACE(c.key);
    Json bad = full;
    bad[c.key] = c.value;
    EXPECT_THROW(shredderSettingsFromJson(bad), DecodeError);
  }
  store.save(custom);
  EXPECT_EQ(store.load(), custom);
}

TEST(ShredderSettings, SkipListComparesLowerCasedWholeExtensions) {
  ShredderSettings s;
  struct Case {
    const char* file;
    bool skipped;
  } cases[] = {{"photo.MP4", true}, {"page.Html", true}, {"README", false}, {"archive.mp4.zip", false},
               {".mp4", false},     {"cut.mp", false},   {"x.DOCX", true}};
  for (const auto& c : cases) EXPECT_EQ(s.isSkipped(fs::path("/d") / c.file), c.skipped) << c.file;
  s.skipExtensions = {"ZIP"};
  EXPECT_TRUE(s.isSkipped("/d/a.zip"));
}

TEST(ShredderSettings, RuleSummaryListsTheRulesThatAreOn) {
  ShredderSettings s;
  EXPECT_EQ(s.ruleSummary(), (std::vector<std::string>{"Duplicate downloads, the moment they land",
                                                       "Installers older than 14 days", "Trash older than 30 days"}));
  s.dedupeDownloads = false;
  s.shredInstallersAfterDays = 0;
  s.emptyTrashAfterDays = -1;
  s.tidyScreenshotsAfterDays = 7;
  EXPECT_EQ(s.ruleSummary(), (std::vector<std::string>{"Screenshots older than 7 days"}));
}

TEST(ShredRecords, RoundTripThroughJson) {
  const Date when = Dates::fromUnixSeconds(1700000000);
  ShredEvent e{"0A1B2C3D-0000-4000-8000-000000000001", when, "/h/Downloads/a (1).zip", "Duplicate download",
               "Byte-identical to a.zip, which you already had", 5000, true, "20231114-221320-ABCDEF",
               "/h/Downloads/a.zip"};
  EXPECT_EQ(shredEventFromJson(toJson(e)), e);
  EXPECT_EQ(e.name(), "a (1).zip");
  EXPECT_EQ(toJson(e)["date"], "2023-11-14T22:13:20Z");
  e.quarantineSession.reset();
  e.twinPath.reset();
  EXPECT_FALSE(toJson(e).contains("twinPath"));
  EXPECT_EQ(shredEventFromJson(toJson(e)), e);
  const ShredCandidate c{"/h/Downloads/m (1).mp4", "/h/Downloads/m.mp4", 9000, "Duplicate download", "r", when};
  EXPECT_EQ(shredCandidateFromJson(toJson(c)), c);
  EXPECT_THROW(shredEventFromJson(Json{{"id", "nope"}}), DecodeError);
}

}  // namespace
}  // namespace kestrel::test
