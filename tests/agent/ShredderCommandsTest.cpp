// The shredder commands in-process: the off switch, one sweep's lines and the history listing.
#include "core/shredder/ShredHistory.h"
#include "core/shredder/ShredderStore.h"
#include "core/system/Uuid.h"
#include "tests/agent/RunInProcess.h"

#include <gtest/gtest.h>

namespace kestrel::test {
namespace {

TEST(ShredderCommands, WatchExitsWhenOffAndNowSweepsWhateverTheSwitches) {
  ScratchHome h;
  ShredderSettings s;
  s.approved = true;  // approved but not enabled
  ShredderStore(h.paths()).save(s);
  const auto watch = run(h, {"shred-watch"});
  EXPECT_EQ(watch.status, 0);
  EXPECT_EQ(watch.out.substr(watch.out.find(' ') + 1), "Shredder is off; exiting.\n");

  const auto nothing = run(h, {"shred-now"});
  EXPECT_EQ(nothing.status, 0);
  EXPECT_EQ(nothing.out, "Nothing to shred.\n");

  s.enabled = true;
  s.settleSeconds = 0;
  ShredderStore(h.paths()).save(s);
  h.aged("Downloads/a.zip", 6000, 2, kTestNow);
  h.aged("Downloads/a (1).zip", 6000, 1, kTestNow);
  h.aged("Downloads/setup.dmg", 7000, 30, kTestNow);
  // Damaged settings lack the user's protected paths: nothing is disposed of on the defaults.
  h.text("Library/Application Support/orvo Kestrel/config.json", "{\"protectedPaths\": [");
  for (const char* command : {"shred-now", "shred-watch"}) {
    const auto refused = run(h, {command});
    EXPECT_EQ(refused.status, 1) << command;
    EXPECT_NE(refused.out.find("is damaged"), std::string::npos) << refused.out;
  }
  EXPECT_TRUE(fs::exists(h.path("Downloads/a (1).zip")));
  fs::remove(h.paths().configFile());
  const auto swept = run(h, {"shred-now"});
  EXPECT_EQ(swept.out,
            "a (1).zip — Byte-identical to a.zip, which you already had (6 KB)\n"
            "setup.dmg — Installer sitting unused for 14+ days (8 KB)\n");
}

TEST(ShredderCommands, HistoryListsTheLastFortyEvents) {
  ScratchHome h;
  ShredHistory history(h.paths());
  for (int i = 0; i < 45; ++i) {
    history.append({Uuid::make(), Dates::fromUnixSeconds(1700000000 + i), "/h/Downloads/f" + std::to_string(i),
                     "Old installer", "r", 2000, true, std::nullopt, std::nullopt});
  }
  const auto listed = run(h, {"shred-history"});
  EXPECT_EQ(listed.status, 0);
  EXPECT_EQ(std::count(listed.out.begin(), listed.out.end(), '\n'), 40);
  EXPECT_EQ(listed.out.substr(0, listed.out.find('\n')), "2023-11-14 22:13:25 +0000 2 KB\tOld installer\tf5");
}

}  // namespace
}  // namespace kestrel::test
