// The shredder's history (tolerant JSON lines) and review queue (cap, same path, vanished files).
#include "core/shredder/ShredHistory.h"
#include "core/shredder/ShredReviewQueue.h"
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

}  // namespace
}  // namespace kestrel::test
