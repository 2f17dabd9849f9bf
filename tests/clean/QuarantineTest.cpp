// Quarantine store: sessions, manifests, restore rules, purge by age, recovery, and crash safety.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <thread>

#include "core/clean/Quarantine.h"
#include "core/storage/JSONStore.h"
#include "tests/support/ScratchHome.h"

namespace kestrel {
namespace {

using test::lexists;
using test::ScratchHome;

const Date kNow = Dates::fromUnixSeconds(1772357400);  // 2026-03-01T09:30:00Z

fs::path itemsDir(const ScratchHome& h, const QuarantineSession& s) {
  return h.paths().quarantineDir() / s.id / "items";
}

TEST(Quarantine, BeginSessionWritesTheManifestAndItsFolders) {
  ScratchHome h;
  Quarantine q(h.paths());
  const QuarantineSession s = q.beginSession(TriggerSource::schedule("Nightly"), 7, kNow);
  // The time part is the machine's local time (its zone is whatever this machine has).
  EXPECT_TRUE(std::regex_match(s.id, std::regex("202(60301|60228)-[0-9]{6}-[0-9A-F]{6}"))) << s.id;
  EXPECT_EQ(s.id.substr(0, 15), Dates::local(kNow, "yyyyMMdd-HHmmss"));
  EXPECT_EQ(s.expiresAt - s.createdAt, std::chrono::hours(7 * 24));
  EXPECT_TRUE(fs::is_directory(itemsDir(h, s)));
  const std::string manifest = test::readText(h.paths().quarantineDir() / s.id / "manifest.json");
  EXPECT_EQ(manifest,
            "{\n  \"createdAt\" : \"2026-03-01T09:30:00Z\",\n  \"entries\" : [\n\n  ],\n"
            "  \"expiresAt\" : \"2026-03-08T09:30:00Z\",\n  \"id\" : \"" +
                s.id +
                "\",\n"
                "  \"trigger\" : {\n    \"schedule\" : {\n      \"ruleName\" : \"Nightly\"\n    "
                "}\n  }\n}");
  // Listing is newest first; a fresh session with no entries yet is listed, not tidied away.
  const QuarantineSession newer =
      q.beginSession(TriggerSource::manual(), 7, kNow + std::chrono::hours(1));
  const QuarantineSession older =
      q.beginSession(TriggerSource::manual(), 7, kNow - std::chrono::hours(1));
  EXPECT_NE(newer.id, s.id);
  const auto listed = q.sessions();
  ASSERT_EQ(listed.size(), 3u);
  EXPECT_EQ(listed[0].id, newer.id);
  EXPECT_EQ(listed[1], s);
  EXPECT_EQ(listed[2].id, older.id);
  EXPECT_EQ(listed[1].trigger.label(), "Schedule: Nightly");
}

TEST(Quarantine, EntryAndSessionJsonRoundTripAndIgnoreUnknownKeys) {
  QuarantineSession s;
  s.id = "20260301-093000-3F2A9C";
  s.createdAt = kNow;
  s.expiresAt = kNow + std::chrono::hours(24);
  s.trigger = TriggerSource::uninstall("Photo Tool");
  s.entries.push_back(
      {"/Users/me/a", "0-a", 10, CleanCategory::logs, false, false, FileIdentity{2049, 77}, false});
  s.entries.push_back(
      {"/Users/me/b", "1-b", 20, CleanCategory::trash, true, true, std::nullopt, true});
  EXPECT_EQ(
      JsonText::compact(toJson(s.entries[0])),
      R"({"category":"logs","dev":2049,"ino":77,"originalPath":"\/Users\/me\/a","restored":false,"size":10,"storedName":"0-a"})");
  EXPECT_EQ(quarantineSessionFromJson(toJson(s)), s);
  EXPECT_EQ(s.totalSize(), 10);
  EXPECT_EQ(s.activeCount(), 1);

  Json j = toJson(s);
  j["entries"][0]["futureKey"] = 1;
  j["entries"][0]["dev"] = "not a number";  // damaged bookkeeping is dropped, not fatal
  auto back = quarantineSessionFromJson(j);
  EXPECT_EQ(back.entries[0].identity, std::nullopt);
  struct Case {
    const char* what;
    std::function<void(Json&)> damage;
  };
  const Case bad[] = {
      {"no entries", [](Json& j) { j.erase("entries"); }},
      {"entry without size", [](Json& j) { j["entries"][0].erase("size"); }},
      {"unknown category", [](Json& j) { j["entries"][0]["category"] = "stuff"; }},
      {"stored name escapes items", [](Json& j) { j["entries"][0]["storedName"] = "../../x"; }},
      {"trigger with two keys", [](Json& j) { j["trigger"]["manual"] = Json::object(); }},
  };
  for (const auto& c : bad) {
    SCOPED_TRACE(c.what);
    Json d = toJson(s);
    c.damage(d);
    EXPECT_THROW(quarantineSessionFromJson(d), DecodeError);
  }
}

TEST(Quarantine, SameNameTwiceRestoresEachToItsOwnPlace) {
  ScratchHome h;
  Quarantine q(h.paths());
  const fs::path a = h.text("Library/Caches/one/data.db", "first");
  const fs::path b = h.text("Library/Caches/two/data.db", "second");
  QuarantineSession s = q.beginSession(TriggerSource::manual(), 7, kNow);
  q.add(a, 5, CleanCategory::userCaches, s);
  q.add(b, 6, CleanCategory::userCaches, s);
  ASSERT_EQ(s.entries.size(), 2u);
  EXPECT_EQ(s.entries[0].storedName, "0-data.db");
  EXPECT_EQ(s.entries[1].storedName, "1-data.db");
  EXPECT_FALSE(s.entries[0].moving);
  EXPECT_FALSE(lexists(a));
  EXPECT_EQ(test::readText(itemsDir(h, s) / "1-data.db"), "second");
  EXPECT_EQ(q.totalSize(), 11);

  EXPECT_TRUE(q.restore(s.id).empty());
  EXPECT_EQ(test::readText(a), "first");
  EXPECT_EQ(test::readText(b), "second");
  EXPECT_FALSE(lexists(h.paths().quarantineDir() / s.id));
  EXPECT_TRUE(q.sessions().empty());
}

TEST(Quarantine, PartialRestoreKeepsTheSessionUntilTheLastEntry) {
  ScratchHome h;
  Quarantine q(h.paths());
  const fs::path a = h.file("Downloads/a.dmg", 3);
  const fs::path b = h.folder("Downloads/folder b");
  h.file("Downloads/folder b/inner/x", 4);
  QuarantineSession s = q.beginSession(TriggerSource::manual(), 7, kNow);
  q.add(a, 3, CleanCategory::installers, s);
  q.add(b, 4, CleanCategory::installers, s);
  // Restore re-creates missing parent folders.
  fs::remove(h.path("Downloads"));
  EXPECT_TRUE(q.restore(s.id, std::set<std::string>{"1-folder b"}).empty());
  EXPECT_TRUE(lexists(h.path("Downloads/folder b/inner/x")));
  auto listed = q.sessions();
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0].activeCount(), 1);
  EXPECT_TRUE(listed[0].entries[1].restored);
  // Unknown ids and already restored entries are skipped without failure.
  EXPECT_TRUE(q.restore(s.id, std::set<std::string>{"1-folder b", "9-nothing"}).empty());
  EXPECT_TRUE(lexists(h.paths().quarantineDir() / s.id));
  EXPECT_TRUE(q.restore(s.id, std::set<std::string>{"0-a.dmg"}).empty());
  EXPECT_EQ(fs::file_size(a), 3u);
  EXPECT_FALSE(lexists(h.paths().quarantineDir() / s.id));
}

TEST(Quarantine, RestoreNeverOverwritesAndReportsMissingCopies) {
  ScratchHome h;
  Quarantine q(h.paths());
  const fs::path a = h.text("Documents/a.txt", "quarantined");
  const fs::path b = h.text("Documents/b.txt", "gone");
  QuarantineSession s = q.beginSession(TriggerSource::manual(), 7, kNow);
  q.add(a, 1, CleanCategory::largeOldFiles, s);
  q.add(b, 1, CleanCategory::largeOldFiles, s);
  h.text("Documents/a.txt", "newer");
  fs::remove(itemsDir(h, s) / "1-b.txt");
  const auto failures = q.restore(s.id);
  const std::vector<CleanFailure> expected = {
      {"0-a.txt", "Something already exists at " + a.string() + ". Move it first, then restore."},
      {"1-b.txt", "Quarantined copy is missing: " + (itemsDir(h, s) / "1-b.txt").string()},
  };
  EXPECT_EQ(failures, expected);
  EXPECT_EQ(test::readText(a), "newer");
  EXPECT_EQ(test::readText(itemsDir(h, s) / "0-a.txt"), "quarantined");
  EXPECT_EQ(q.sessions().size(), 1u);
  EXPECT_THROW(q.restore("20990101-000000-FFFFFF"), std::system_error);
  EXPECT_THROW(q.restore("../.."), std::system_error);
}

TEST(Quarantine, ItemOnAnotherVolumeIsRefusedAndStays) {
  ScratchHome h;
  const fs::path local = h.file("Library/Caches/big.bin", 10);
  const std::string text =
      "big.bin is on another drive \xE2\x80\x94 quarantining it would copy the whole file onto "
      "this Mac";
  {
    // Injected volumes.
    Quarantine q(h.paths(), [&](const fs::path& p) -> std::optional<std::string> {
      return p.string().find("Quarantine") != std::string::npos ? "internal" : "external";
    });
    QuarantineSession s = q.beginSession(TriggerSource::manual(), 7, kNow);
    try {
      q.add(local, 10, CleanCategory::userCaches, s);
      ADD_FAILURE() << "expected a refusal";
    } catch (const QuarantineAddError& e) {
      EXPECT_EQ(e.what(), text);
      EXPECT_EQ(e.kind(), QuarantineAddError::Kind::differentVolume);
    }
    EXPECT_TRUE(lexists(local));
    EXPECT_TRUE(s.entries.empty());
    // Unknown volumes do not stop the move.
    Quarantine unknown(h.paths(), [](const fs::path&) { return std::nullopt; });
    unknown.add(local, 10, CleanCategory::userCaches, s);
    EXPECT_FALSE(lexists(local));
  }
  // A real second file system, when the machine has one.
  char tmpl[] = "/dev/shm/kestrel-volume-XXXXXX";
  if (!::mkdtemp(tmpl)) GTEST_SKIP() << "no /dev/shm";
  const fs::path shm = tmpl;
  struct stat a, b;
  ::stat(shm.c_str(), &a);
  ::stat(h.root().c_str(), &b);
  if (a.st_dev != b.st_dev) {
    std::ofstream(shm / "big.bin") << "external";
    Quarantine q(h.paths());
    QuarantineSession s = q.beginSession(TriggerSource::manual(), 7, kNow);
    EXPECT_THROW(q.add(shm / "big.bin", 8, CleanCategory::userCaches, s), QuarantineAddError);
    EXPECT_EQ(test::readText(shm / "big.bin"), "external");
    EXPECT_EQ(q.sessions().size(), 2u);
  }
  std::error_code ec;
  fs::remove_all(shm, ec);  // the test's own folder
}

TEST(Quarantine, PurgeExpiredHonoursExpiryAndStrayFolders) {
  ScratchHome h;
  Quarantine q(h.paths());
  const fs::path a = h.file("Library/Logs/a.log", 1);
  const fs::path b = h.file("Library/Logs/b.log", 1);
  // Stray folders are aged by their real modification dates, so this test runs at the wall clock.
  const Date wallNow = Dates::fromUnixSeconds(Dates::unixSeconds(std::chrono::system_clock::now()));
  QuarantineSession due =
      q.beginSession(TriggerSource::manual(), 1, wallNow - std::chrono::hours(24));
  q.add(a, 100, CleanCategory::logs, due);
  QuarantineSession later =
      q.beginSession(TriggerSource::manual(), 2, wallNow - std::chrono::hours(24));
  q.add(b, 50, CleanCategory::logs, later);
  // Folders with no manifest: one empty and old, one empty and fresh, one old still holding an
  // item.
  const fs::path qdir = h.paths().quarantineDir();
  h.folder("Library/Application Support/orvo Kestrel/Quarantine/stray-old/items");
  h.folder("Library/Application Support/orvo Kestrel/Quarantine/stray-new");
  h.text("Library/Application Support/orvo Kestrel/Quarantine/stray-full/items/0-kept.txt",
         "keep me");
  h.age("Library/Application Support/orvo Kestrel/Quarantine/stray-old", 1.5, wallNow);
  h.age("Library/Application Support/orvo Kestrel/Quarantine/stray-new", 0.5, wallNow);
  h.age("Library/Application Support/orvo Kestrel/Quarantine/stray-full", 3, wallNow);

  // Listing ignores folders without a manifest.
  EXPECT_EQ(q.sessions().size(), 2u);
  // expiresAt equal to now counts as expired.
  ASSERT_EQ(due.expiresAt, wallNow);
  EXPECT_EQ(q.purgeExpired(wallNow), 100);
  EXPECT_FALSE(lexists(qdir / due.id));
  EXPECT_TRUE(lexists(qdir / later.id));
  EXPECT_FALSE(lexists(qdir / "stray-old"));
  EXPECT_TRUE(lexists(qdir / "stray-new"));
  // The full one is adopted, not deleted: listed, and restorable to the recovery folder.
  auto listed = q.sessions();
  ASSERT_EQ(listed.size(), 2u);
  auto adopted =
      std::find_if(listed.begin(), listed.end(), [](auto& s) { return s.id == "stray-full"; });
  ASSERT_NE(adopted, listed.end());
  ASSERT_EQ(adopted->entries.size(), 1u);
  EXPECT_TRUE(adopted->entries[0].orphan);
  EXPECT_TRUE(q.restore("stray-full").empty());
  EXPECT_EQ(test::readText(q.recoveryDir("stray-full") / "0-kept.txt"), "keep me");
  EXPECT_TRUE(lexists(qdir / ".lock"));
}

TEST(Quarantine, PurgeRemovesOneSessionAndReportsAbsentOnes) {
  ScratchHome h;
  Quarantine q(h.paths());
  const fs::path a = h.file("Library/Caches/x/y", 1);
  QuarantineSession s = q.beginSession(TriggerSource::manual(), 7, kNow);
  q.add(h.path("Library/Caches/x"), 1, CleanCategory::userCaches, s);
  q.purge(s.id);
  EXPECT_FALSE(lexists(h.paths().quarantineDir() / s.id));
  EXPECT_THROW(q.purge(s.id), std::system_error);
  EXPECT_THROW(q.purge(".."), std::system_error);
  EXPECT_TRUE(fs::is_directory(h.paths().quarantineDir()));
}

// ---- Recovery of half-done moves ----------------------------------------------------------

TEST(Quarantine, RecoverySettlesEveryInterruptedState) {
  ScratchHome h;
  Quarantine q(h.paths());
  const fs::path qdir = h.paths().quarantineDir();
  const fs::path moved = h.text("Library/Caches/moved", "m");
  const fs::path stayed = h.text("Library/Caches/stayed", "s");
  const fs::path back = h.text("Library/Caches/back", "b");
  QuarantineSession s = q.beginSession(TriggerSource::manual(), 7, kNow);
  q.add(moved, 1, CleanCategory::userCaches, s);
  q.add(back, 1, CleanCategory::userCaches, s);
  // Forge what a crash leaves: an intent that never moved, a move whose confirmation is missing,
  // a restore that moved the item back but did not record it, and an item nobody recorded.
  s.entries[0].moving = true;
  QuarantineEntry intent;
  intent.originalPath = stayed.string();
  intent.storedName = "2-stayed";
  intent.moving = true;
  intent.identity = identityOf(stayed);
  s.entries.push_back(intent);
  fs::rename(itemsDir(h, s) / "1-back", back);
  h.text("Library/Application Support/orvo Kestrel/Quarantine/" + s.id + "/items/stranger", "who");
  q.save(s);

  auto listed = q.sessions();
  ASSERT_EQ(listed.size(), 1u);
  const auto& e = listed[0].entries;
  ASSERT_EQ(e.size(), 4u);
  EXPECT_FALSE(e[0].moving);
  EXPECT_FALSE(e[0].restored);
  EXPECT_TRUE(e[1].restored);
  EXPECT_FALSE(e[2].moving);
  EXPECT_TRUE(e[2].restored);
  EXPECT_TRUE(e[3].orphan);
  EXPECT_EQ(e[3].originalPath, (q.recoveryDir(s.id) / "stranger").string());
  EXPECT_EQ(listed[0].activeCount(), 2);
  // Settled on disk, not only in the listing.
  EXPECT_EQ(
      JSONStore::load<QuarantineSession>(qdir / s.id / "manifest.json", quarantineSessionFromJson),
      listed[0]);
  EXPECT_TRUE(q.restore(s.id).empty());
  EXPECT_EQ(test::readText(moved), "m");
  EXPECT_EQ(test::readText(q.recoveryDir(s.id) / "stranger"), "who");
  EXPECT_FALSE(lexists(qdir / s.id));
}

// ---- Crash safety: kill a worker at many instants of adds and restores ---------------------

// Items named i0..iN with unique contents in their own folders.
std::vector<fs::path> makeItems(ScratchHome& h, int n) {
  std::vector<fs::path> items;
  for (int i = 0; i < n; ++i) {
    const std::string name =
        "Library/Caches/app" + std::to_string(i % 3) + "/i" + std::to_string(i);
    if (i % 4 == 3) {
      h.text(name + "/nested/data", "item " + std::to_string(i));
    } else {
      h.text(name, "item " + std::to_string(i));
    }
    items.push_back(h.path(name));
  }
  return items;
}

std::string contentOf(const fs::path& item) {
  if (fs::is_directory(fs::symlink_status(item))) return test::readText(item / "nested" / "data");
  return test::readText(item);
}

// The batch a worker runs: quarantine everything in two sessions, restore part, add again.
void runBatch(const Paths& paths, const std::vector<fs::path>& items) {
  Quarantine q(paths);
  QuarantineSession a = q.beginSession(TriggerSource::manual(), 7, kNow);
  QuarantineSession b = q.beginSession(TriggerSource::schedule("r"), 7, kNow);
  for (size_t i = 0; i < items.size(); ++i)
    q.add(items[i], 1, CleanCategory::userCaches, i % 2 ? a : b);
  q.restore(a.id);
  std::set<std::string> some;
  for (const auto& e : b.entries) {
    if (some.size() < b.entries.size() / 2) some.insert(e.id());
  }
  q.restore(b.id, some);
  for (size_t i = 0; i < items.size(); i += 2) {
    if (lexists(items[i])) q.add(items[i], 1, CleanCategory::userCaches, a);
  }
}

// Every item is at its original path, or stored in a session whose active entry restores it.
void expectNothingLost(const ScratchHome& h, const std::vector<fs::path>& items,
                       const std::string& when) {
  Quarantine q(h.paths());
  const auto sessions = q.sessions();  // runs recovery
  for (size_t i = 0; i < items.size(); ++i) {
    SCOPED_TRACE(when + " item " + std::to_string(i));
    int places = lexists(items[i]) ? 1 : 0;
    for (const auto& s : sessions) {
      for (const auto& e : s.entries) {
        const fs::path stored = h.paths().quarantineDir() / s.id / "items" / e.storedName;
        if (!e.restored && e.originalPath == items[i].string() && lexists(stored)) {
          ++places;
          EXPECT_EQ(contentOf(stored), "item " + std::to_string(i));
        }
      }
    }
    EXPECT_EQ(places, 1);
  }
  // Restoring everything brings every item home with its contents.
  for (const auto& s : sessions) EXPECT_TRUE(q.restore(s.id).empty()) << s.id;
  for (size_t i = 0; i < items.size(); ++i)
    EXPECT_EQ(contentOf(items[i]), "item " + std::to_string(i)) << when;
  EXPECT_TRUE(q.sessions().empty()) << when;
}

TEST(Quarantine, NothingIsLostWhenKilledAtAnyInstant) {
  constexpr int kItems = 8;
  // How long an undisturbed batch takes in a forked child sets the sweep: the median of a few
  // runs, timed the way the sweep kills (from fork), so a cold first run or a sanitizer's
  // slower parent does not stretch the sweep past the child's finish.
  std::chrono::microseconds full{0};
  {
    std::vector<std::chrono::microseconds> runs;
    for (int r = 0; r < 5; ++r) {
      ScratchHome h;
      auto items = makeItems(h, kItems);
      const auto start = std::chrono::steady_clock::now();
      const pid_t pid = ::fork();
      ASSERT_GE(pid, 0);
      if (pid == 0) {
        runBatch(h.paths(), items);
        ::_exit(0);
      }
      int status = 0;
      ::waitpid(pid, &status, 0);
      runs.push_back(std::chrono::duration_cast<std::chrono::microseconds>(
          std::chrono::steady_clock::now() - start));
      ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
      expectNothingLost(h, items, "undisturbed");
    }
    std::sort(runs.begin(), runs.end());
    full = runs[runs.size() / 2];
  }
  const char* env = std::getenv("KESTREL_CRASH_POINTS");
  const int points = env ? std::max(1, std::atoi(env)) : 150;
  int killedMidway = 0;
  for (int k = 0; k < points; ++k) {
    ScratchHome h;
    auto items = makeItems(h, kItems);
    // Kill instants spread evenly over most of the batch, with a little jitter so runs differ.
    const auto delay =
        std::chrono::microseconds(full.count() * 9 * k / (10 * points) + (k * 7919) % 97);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      runBatch(h.paths(), items);
      ::_exit(0);
    }
    std::this_thread::sleep_for(delay);
    ::kill(pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (WIFSIGNALED(status)) ++killedMidway;
    expectNothingLost(h, items, "killed after " + std::to_string(delay.count()) + " us");
    if (HasFailure()) break;
  }
  // The sweep must actually interrupt work, or it proves nothing.
  EXPECT_GT(killedMidway, points / 2);
  RecordProperty("killedMidway", killedMidway);
  RecordProperty("batchMicroseconds", static_cast<int>(full.count()));
}

}  // namespace
}  // namespace kestrel
