// The "clean" and "quarantine" commands in process: usage, the risk limit, the administrator
// queue's line, and quarantine ids and listings that never touch anything they should not.
#include <gtest/gtest.h>

#include <fstream>

#include "core/clean/AdminQueue.h"
#include "core/clean/Quarantine.h"
#include "core/store/ConfigStore.h"
#include "tests/agent/RunInProcess.h"
#include "tests/support/Immutable.h"

namespace kestrel::test {
namespace {

TEST(CleanCommand, UsageErrorsListTheCategories) {
  ScratchHome h;
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"clean"}, {"clean", "--category", "appBundles"}, {"clean", "--dry-run", "--category"}}) {
    SCOPED_TRACE(args.back());
    const auto r = run(h, args);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out.rfind("Categories: userCaches, logs, crashReports, trash, ", 0), 0u) << r.out;
  }
}

TEST(CleanCommand, ItemsNeedingAdministratorRightsWaitInTheQueueAndSaySo) {
  ScratchHome h;
  h.aged("Library/Caches/com.example.a/blob", 70000, 2, kTestNow);
  h.aged("Library/Caches/com.example.b/data/x", 90000, 2, kTestNow);
  // Its folder refuses even root: the deletion needs rights the user does not have.
  Immutable lock(h.path("Library/Caches/com.example.b/data"));
  if (!lock.ok()) GTEST_SKIP() << "cannot make a folder immutable here (chattr +i failed)";
  const auto r = run(h, {"clean", "--category", "userCaches"});
  ASSERT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("\n1 item(s) need administrator rights; run `kestrel admin run` to remove them with one "
                       "password prompt.\n"),
            std::string::npos)
      << r.out;
  EXPECT_FALSE(fs::exists(h.path("Library/Caches/com.example.a")));
  const auto queued = AdminQueue(h.paths()).items();  // a file: the next process finds it there
  ASSERT_EQ(queued.size(), 1u);
  EXPECT_EQ(queued[0].path(), h.path("Library/Caches/com.example.b").string());
}

TEST(CleanCommand, RiskLimitNeverWidensAndTrashStaysADeletion) {
  ScratchHome h;
  h.aged(".Trash/old.txt", 5000, 2, kTestNow);
  AppConfig config;
  config.quarantineEverything = true;
  ConfigStore(h.paths()).save(config);
  // Trash items are "review": an unknown limit (wrong case, missing) means "safe".
  EXPECT_EQ(run(h, {"clean", "--category", "trash", "--max-risk", "REVIEW"}).out, "Nothing to clean\n");
  EXPECT_EQ(run(h, {"clean", "--category", "trash", "--max-risk"}).out, "Nothing to clean\n");
  EXPECT_EQ(run(h, {"clean", "--category", "trash", "--max-risk", "review"}).out.rfind("Freed ", 0), 0u);
  EXPECT_FALSE(fs::exists(h.path(".Trash/old.txt")));
  EXPECT_TRUE(Quarantine(h.paths()).sessions().empty());  // deleted, not quarantined
}

TEST(QuarantineCommand, IdsThatAreNoSessionTouchNothing) {
  ScratchHome h;
  h.file("Documents/keep", 3);
  const fs::path lock = h.text("Library/Application Support/orvo Kestrel/Quarantine/.lock", "");
  const struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;  // empty: any non-empty text
  } cases[] = {
      {{"quarantine", "restore"}, 2, "usage: quarantine restore <id>\n"},
      {{"quarantine", "purge"}, 2, "usage: quarantine purge <id>\n"},
      {{"quarantine", "restore", "20260101-000000-ABCDEF"}, 1, ""},
      {{"quarantine", "purge", "20260101-000000-ABCDEF"}, 1, ""},
      {{"quarantine", "purge", "../../Documents"}, 2, "Not a quarantine session: ../../Documents\n"},
      {{"quarantine", "purge", ".lock"}, 2, "Not a quarantine session: .lock\n"},
      {{"quarantine", "restore", ".lock"}, 2, "Not a quarantine session: .lock\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.back());
    const auto r = run(h, c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_TRUE(c.out.empty() ? !r.out.empty() : r.out == c.out) << r.out;
  }
  EXPECT_TRUE(fs::exists(h.path("Documents/keep")));
  EXPECT_TRUE(fs::exists(lock));
}

TEST(QuarantineCommand, ListOnlyReads) {
  // Without a support folder listing makes none (it would block the earlier folder's migration).
  ScratchHome empty;
  empty.folder("Library/Application Support/Halcyra");
  auto before = treeListing(empty.root());
  EXPECT_EQ(run(empty, {"quarantine", "list"}).out, "");
  EXPECT_EQ(treeListing(empty.root()), before);

  // Sessions in every state recovery would change: a closed one, one still being filled with a
  // move under way, an item no entry names, and a folder without a manifest.
  ScratchHome h;
  Quarantine q(h.paths());
  QuarantineSession closed = q.beginSession(TriggerSource::manual(), 7, kTestNow);
  q.add(h.text("Documents/a.txt", "a"), 1, CleanCategory::largeOldFiles, closed);
  q.close(closed);
  QuarantineSession open = q.beginSession(TriggerSource::manual(), 7, kTestNow + std::chrono::hours(1));
  q.add(h.text("Documents/b.txt", "b"), 1, CleanCategory::largeOldFiles, open);
  QuarantineEntry moving;
  moving.originalPath = h.text("Documents/c.txt", "c").string();
  moving.storedName = "1-c.txt";
  moving.moving = true;
  std::ofstream(h.paths().quarantineDir() / open.id / "journal.jsonl", std::ios::app)
      << JsonText::compact(Json{{"op", "intent"}, {"entry", toJson(moving)}}) << "\n";
  h.text("Library/Application Support/orvo Kestrel/Quarantine/" + open.id + "/items/stranger", "s");
  h.folder("Library/Application Support/orvo Kestrel/Quarantine/half-made/items");
  before = treeListing(h.root());
  const auto r = run(h, {"quarantine", "list"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind(open.id + "\t", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("\n" + closed.id + "\t"), std::string::npos) << r.out;
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 2);
  EXPECT_EQ(treeListing(h.root()), before);
}

}  // namespace
}  // namespace kestrel::test
