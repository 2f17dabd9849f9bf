// The "clean" and "quarantine" commands, run in process against scratch homes.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "agent/Dispatcher.h"
#include "core/base/ByteFormat.h"
#include "core/clean/AdminQueue.h"
#include "core/clean/Quarantine.h"
#include "core/model/AppConfig.h"
#include "core/store/AuditLog.h"
#include "core/store/ConfigStore.h"
#include "tests/agent/RunInProcess.h"
#include "tests/support/Immutable.h"
#include "tests/support/ScratchHome.h"

namespace kestrel::agent {
namespace {

using test::ScratchHome;
namespace fs = std::filesystem;

using test::Run;
using test::run;

// Two cache folders big enough to be listed, old enough to be offered.
void makeCaches(ScratchHome& h) {
  h.file("Library/Caches/com.example.a/blob", 70000);
  h.file("Library/Caches/com.example.b/data/x", 90000);
  for (const char* rel : {"Library/Caches/com.example.a/blob", "Library/Caches/com.example.a",
                          "Library/Caches/com.example.b/data/x", "Library/Caches/com.example.b/data",
                          "Library/Caches/com.example.b"})
    h.age(rel, 2);
}

// Every path below `root` (links not followed) with its type, size and modification time.
std::string listing(const fs::path& root) {
  std::string out;
  for (auto& e : fs::recursive_directory_iterator(root)) {
    struct stat st;
    if (::lstat(e.path().c_str(), &st) != 0) continue;
    out += e.path().string() + " " + std::to_string(st.st_mode & S_IFMT) + " " +
           std::to_string(st.st_size) + " " + std::to_string(st.st_mtim.tv_sec) + "." +
           std::to_string(st.st_mtim.tv_nsec) + "\n";
  }
  return out;
}

TEST(CleanCommand, UsageErrorsListTheCategories) {
  ScratchHome h;
  const std::string line =
      "Categories: userCaches, logs, crashReports, trash, savedAppState, mailDownloads, iosBackups, iosUpdates, "
      "oldDownloads, installers, largeOldFiles, xcode, simulators, projectArtifacts, packageCaches, docker, "
      "duplicates, similarPhotos, cloudLocalCopies, securityThreats, appBundle, appLeftovers, orphanedLeftovers\n";
  const std::vector<std::vector<std::string>> invocations = {
      {"clean"}, {"clean", "--category"}, {"clean", "--category", "appBundles"}, {"clean", "--category", "UserCaches"},
      {"clean", "--dry-run", "--category"}};
  for (const auto& args : invocations) {
    SCOPED_TRACE(args.back());
    auto r = run(h, args);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, line);
  }
}

TEST(CleanCommand, DryRunTouchesNothingThenCleanDeletesAndAudits) {
  ScratchHome h;
  makeCaches(h);
  const std::string before = listing(h.home());
  auto r = run(h, {"clean", "--category", "userCaches", "--dry-run"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind("Would free ", 0), 0u) << r.out;
  EXPECT_EQ(listing(h.home()), before);
  EXPECT_FALSE(fs::exists(h.paths().auditFile()));
  EXPECT_FALSE(fs::exists(h.paths().quarantineDir()));

  r = run(h, {"clean", "--category", "userCaches"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind("Freed ", 0), 0u) << r.out;
  EXPECT_FALSE(fs::exists(h.path("Library/Caches/com.example.a")));
  EXPECT_FALSE(fs::exists(h.path("Library/Caches/com.example.b")));
  EXPECT_TRUE(fs::is_directory(h.path("Library/Caches")));
  const auto audit = AuditLog(h.paths()).recent(10);
  ASSERT_EQ(audit.size(), 2u);
  for (const auto& e : audit) {
    EXPECT_EQ(e.action, "delete");
    EXPECT_EQ(e.category, CleanCategory::userCaches);
    EXPECT_EQ(e.trigger, TriggerSource::manual());
    EXPECT_TRUE(e.success);
    EXPECT_GE(e.size, 65536);
  }
  EXPECT_EQ(run(h, {"clean", "--category", "userCaches"}).out, "Nothing to clean\n");
}

TEST(CleanCommand, ItemsNeedingAdministratorRightsWaitInTheQueueAndSaySo) {
  ScratchHome h;
  makeCaches(h);
  const std::string locked = h.path("Library/Caches/com.example.b").string();
  // Its folder refuses even root: the deletion needs rights the user does not have.
  test::Immutable lock(h.path("Library/Caches/com.example.b/data"));
  if (!lock.ok()) GTEST_SKIP() << "cannot make a folder immutable here (chattr +i failed)";
  std::ostringstream out;
  ASSERT_EQ(runAgent({"clean", "--category", "userCaches"}, h.paths(), out), 0);
  EXPECT_NE(
      out.str().find(
          "\n1 item(s) need administrator rights; run `kestrel admin run` to remove them with one "
          "password prompt.\n"),
      std::string::npos)
      << out.str();
  EXPECT_TRUE(fs::exists(locked));
  EXPECT_FALSE(fs::exists(h.path("Library/Caches/com.example.a")));
  // The queue is a file: the next process (kestrel admin run) finds the item there.
  const auto queued = AdminQueue(h.paths()).items();
  ASSERT_EQ(queued.size(), 1u);
  EXPECT_EQ(queued[0].path(), locked);
}

TEST(CleanCommand, QuarantineRestoreAndPurgeThroughTheCommands) {
  ScratchHome h;
  makeCaches(h);
  AppConfig config;
  config.disposalOverrides["userCaches"] = Disposal::quarantine;
  ConfigStore(h.paths()).save(config);
  auto cleaned = run(h, {"clean", "--category", "userCaches"});
  EXPECT_NE(cleaned.out.find(" to quarantine"), std::string::npos) << cleaned.out;
  EXPECT_FALSE(fs::exists(h.path("Library/Caches/com.example.a")));

  auto list = run(h, {"quarantine"});
  EXPECT_EQ(run(h, {"quarantine", "list"}).out, list.out);
  const auto sessions = Quarantine(h.paths()).sessions();
  ASSERT_EQ(sessions.size(), 1u);
  const auto& s = sessions[0];
  EXPECT_EQ(list.out, s.id + "\t" + ByteFormat::string(s.totalSize()) + "\t2 items\tManual\texpires " +
                          Dates::description(s.expiresAt) + "\n");

  EXPECT_EQ(run(h, {"quarantine", "restore", s.id}).out, "Restored.\n");
  EXPECT_TRUE(fs::exists(h.path("Library/Caches/com.example.a/blob")));
  EXPECT_TRUE(fs::exists(h.path("Library/Caches/com.example.b/data/x")));
  EXPECT_EQ(run(h, {"quarantine"}).out, "");

  run(h, {"clean", "--category", "userCaches"});
  const auto again = Quarantine(h.paths()).sessions();
  ASSERT_EQ(again.size(), 1u);
  EXPECT_EQ(run(h, {"quarantine", "purge", again[0].id}).out, "Purged.\n");
  EXPECT_TRUE(Quarantine(h.paths()).sessions().empty());
  EXPECT_FALSE(fs::exists(h.path("Library/Caches/com.example.a")));
}

TEST(CleanCommand, QuarantineUsageAndStoreErrors) {
  ScratchHome h;
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;  // empty: any non-empty text
  };
  const Case cases[] = {
      {{"quarantine", "restore"}, 2, "usage: quarantine restore <id>\n"},
      {{"quarantine", "purge"}, 2, "usage: quarantine purge <id>\n"},
      {{"quarantine", "restore", "20260101-000000-ABCDEF"}, 1, ""},
      {{"quarantine", "purge", "20260101-000000-ABCDEF"}, 1, ""},
      // Not session ids at all (the store's lock file among them): usage errors, nothing touched.
      {{"quarantine", "purge", "../../Documents"},
       2,
       "Not a quarantine session: ../../Documents\n"},
      {{"quarantine", "purge", ".lock"}, 2, "Not a quarantine session: .lock\n"},
      {{"quarantine", "restore", ".lock"}, 2, "Not a quarantine session: .lock\n"},
  };
  h.file("Documents/keep", 3);
  h.folder("Library/Application Support/orvo Kestrel/Quarantine");
  const fs::path lock = h.text("Library/Application Support/orvo Kestrel/Quarantine/.lock", "");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.back());
    auto r = run(h, c.args);
    EXPECT_EQ(r.status, c.status);
    if (c.out.empty()) {
      EXPECT_FALSE(r.out.empty());
    } else {
      EXPECT_EQ(r.out, c.out);
    }
  }
  EXPECT_TRUE(fs::exists(h.path("Documents/keep")));
  EXPECT_TRUE(fs::exists(lock));
}

TEST(CleanCommand, QuarantineListOnlyReads) {
  // A home without a support folder: listing must not make one (it would block the migration of
  // the earlier product's folder for good).
  ScratchHome empty;
  empty.folder("Library/Application Support/Halcyra");
  std::string before = listing(empty.root());
  EXPECT_EQ(run(empty, {"quarantine", "list"}).out, "");
  EXPECT_EQ(listing(empty.root()), before);

  // A home with sessions in every state recovery would change: a closed one, one still being
  // filled with a move under way, an item no entry names, and an empty folder without manifest.
  ScratchHome h;
  Quarantine q(h.paths());
  QuarantineSession closed =
      q.beginSession(TriggerSource::manual(), 7, Date{} + std::chrono::hours(1));
  q.add(h.text("Documents/a.txt", "a"), 1, CleanCategory::largeOldFiles, closed);
  q.close(closed);
  QuarantineSession open =
      q.beginSession(TriggerSource::manual(), 7, Date{} + std::chrono::hours(2));
  q.add(h.text("Documents/b.txt", "b"), 1, CleanCategory::largeOldFiles, open);
  const fs::path dir = h.paths().quarantineDir() / open.id;
  QuarantineEntry moving;
  moving.originalPath = h.text("Documents/c.txt", "c").string();
  moving.storedName = "1-c.txt";
  moving.moving = true;
  std::ofstream(dir / "journal.jsonl", std::ios::app)
      << JsonText::compact(Json{{"op", "intent"}, {"entry", toJson(moving)}}) << "\n";
  h.text("Library/Application Support/orvo Kestrel/Quarantine/" + open.id + "/items/stranger", "s");
  h.folder("Library/Application Support/orvo Kestrel/Quarantine/half-made/items");
  before = listing(h.root());
  const auto r = run(h, {"quarantine", "list"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.substr(0, open.id.size() + 1), open.id + "\t") << r.out;
  EXPECT_NE(r.out.find("\n" + closed.id + "\t"), std::string::npos) << r.out;
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 2);
  EXPECT_EQ(listing(h.root()), before);
}

TEST(CleanCommand, RiskLimitNeverWidensAndTrashStaysADeletion) {
  ScratchHome h;
  h.file(".Trash/old.txt", 5000);
  h.file(".Trash/folder/inner", 5000);
  AppConfig config;
  config.quarantineEverything = true;
  ConfigStore(h.paths()).save(config);
  // Trash items are "review": an unknown limit (wrong case) means "safe", so nothing goes.
  EXPECT_EQ(run(h, {"clean", "--category", "trash", "--max-risk", "REVIEW"}).out, "Nothing to clean\n");
  EXPECT_EQ(run(h, {"clean", "--category", "trash", "--max-risk"}).out, "Nothing to clean\n");
  EXPECT_TRUE(fs::exists(h.path(".Trash/old.txt")));
  auto r = run(h, {"clean", "--category", "trash", "--max-risk", "review"});
  EXPECT_EQ(r.out.rfind("Freed ", 0), 0u) << r.out;  // deleted, not quarantined
  EXPECT_FALSE(fs::exists(h.path(".Trash/old.txt")));
  EXPECT_FALSE(fs::exists(h.path(".Trash/folder")));
  EXPECT_TRUE(Quarantine(h.paths()).sessions().empty());
}

}  // namespace
}  // namespace kestrel::agent
