// Quarantine store: sessions, manifests and journals, damaged entries, restore rules, purge,
// recovery, and crash safety.
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
#include <sstream>
#include <thread>

#include "core/clean/Quarantine.h"
#include "core/store/JSONStore.h"
#include "tests/support/ScratchHome.h"

namespace kestrel {
namespace {

using test::lexists;
using test::ScratchHome;

const Date kNow = Dates::fromUnixSeconds(1772357400);  // 2026-03-01T09:30:00Z

fs::path itemsDir(const ScratchHome& h, const QuarantineSession& s) {
  return h.paths().quarantineDir() / s.id / "items";
}

// ---- The journal ----------------------------------------------------------------------------

std::string line(const Json& j) { return JsonText::compact(j) + "\n"; }
std::string intent(const QuarantineEntry& e) {
  return line(Json{{"op", "intent"}, {"entry", toJson(e)}});
}
std::string op(const char* kind, const std::string& name) {
  return line(Json{{"op", kind}, {"storedName", name}});
}

// The entries in order, each as its stored name with "(moving)" or "(restored)" when it is.
std::string summary(const std::vector<QuarantineEntry>& entries) {
  std::string out;
  for (const auto& e : entries) {
    if (!out.empty()) out += ' ';
    out += e.storedName + (e.moving ? "(moving)" : "") + (e.restored ? "(restored)" : "");
  }
  return out;
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
  // Listing is newest first; a fresh session with no entries yet is listed, not tidied away.
  const QuarantineSession newer = q.beginSession(TriggerSource::manual(), 7, kNow + std::chrono::hours(1));
  const QuarantineSession older = q.beginSession(TriggerSource::manual(), 7, kNow - std::chrono::hours(1));
  const auto listed = q.sessions();
  ASSERT_EQ(listed.size(), 3u);
  EXPECT_EQ(listed[0].id, newer.id);
  EXPECT_EQ(listed[1], s);
  EXPECT_EQ(listed[2].id, older.id);
}

TEST(Quarantine, JsonRoundTripKeepsUnknownKeysAndDamagedEntries) {
  QuarantineSession s{"20260301-093000-3F2A9C", kNow, kNow + std::chrono::hours(24),
                      TriggerSource::uninstall("Photo Tool"), {}, {}, {}};
  s.entries.push_back({"/Users/me/a", "0-a", 10, CleanCategory::logs, false, false, FileIdentity{2049, 77}, false, {}});
  s.entries.push_back({"/Users/me/b", "1-b", 20, CleanCategory::trash, true, true, std::nullopt, true, {}});
  EXPECT_EQ(quarantineSessionFromJson(toJson(s)), s);
  EXPECT_EQ(s.totalSize(), 10);
  EXPECT_EQ(s.activeCount(), 1);

  // Keys this version does not know survive a rewrite; damaged bookkeeping is dropped, not fatal.
  Json j = toJson(s);
  j["entries"][0]["futureKey"] = Json{{"nested", 1}};
  j["futureSessionKey"] = "kept";
  j["entries"][0]["dev"] = "not a number";
  const Json again = toJson(quarantineSessionFromJson(j));
  EXPECT_EQ(again["entries"][0]["futureKey"], j["entries"][0]["futureKey"]);
  EXPECT_EQ(again["futureSessionKey"], "kept");
  EXPECT_FALSE(again["entries"][0].contains("dev"));

  // An entry that does not decode is kept verbatim in its place; the others still decode.
  const struct Case {
    const char* what;
    std::function<void(Json&)> damage;
    std::string id;
  } damaged[] = {
      {"entry without size", [](Json& e) { e.erase("size"); }, "0-a"},
      {"unknown category", [](Json& e) { e["category"] = "stuff"; }, "0-a"},
      {"stored name escapes items", [](Json& e) { e["storedName"] = "../../x"; }, "../../x"},
      {"stored name not a string", [](Json& e) { e["storedName"] = 7; }, "entry 0"},
      {"not an object", [](Json& e) { e = 42; }, "entry 0"},
  };
  for (const auto& c : damaged) {
    SCOPED_TRACE(c.what);
    Json d = toJson(s);
    c.damage(d["entries"][0]);
    const QuarantineSession read = quarantineSessionFromJson(d);
    EXPECT_EQ(read.entries, std::vector<QuarantineEntry>{s.entries[1]});
    ASSERT_EQ(read.damagedEntries.size(), 1u);
    EXPECT_EQ(read.damagedEntries[0].id(), c.id);
    EXPECT_EQ(read.activeCount(), 1);  // the damaged one may still hold its item
    EXPECT_EQ(toJson(read), d);
  }
  // Faults in the session's own keys still make it unreadable.
  const Case bad[] = {
      {"entries not an array", [](Json& j) { j["entries"] = Json::object(); }, ""},
      {"trigger with two keys", [](Json& j) { j["trigger"]["manual"] = Json::object(); }, ""},
  };
  for (const auto& c : bad) {
    SCOPED_TRACE(c.what);
    Json d = toJson(s);
    c.damage(d);
    EXPECT_THROW(quarantineSessionFromJson(d), DecodeError);
  }
}

TEST(Quarantine, SessionIDsNameOneFolderAndNoDotFile) {
  for (const std::string id : {"20260301-093000-3F2A9C", "stray-full"}) EXPECT_TRUE(isQuarantineSessionID(id)) << id;
  for (const std::string& id : std::vector<std::string>{"", ".lock", ".", "..", "a/b", "a..b", std::string("a\0b", 3)})
    EXPECT_FALSE(isQuarantineSessionID(id)) << id;
}

TEST(Quarantine, SameNameTwiceRestoresEachToItsOwnPlaceOneEntryAtATime) {
  ScratchHome h;
  Quarantine q(h.paths());
  const fs::path a = h.text("Library/Caches/one/data.db", "first");
  const fs::path b = h.text("Library/Caches/two/data.db", "second");
  h.file("Library/Caches/two/inner/x", 4);
  QuarantineSession s = q.beginSession(TriggerSource::manual(), 7, kNow);
  q.add(a, 5, CleanCategory::userCaches, s);
  q.add(b.parent_path(), 6, CleanCategory::userCaches, s);
  EXPECT_EQ(summary(s.entries), "0-data.db 1-two");
  EXPECT_FALSE(lexists(a));
  EXPECT_EQ(q.totalSize(), 11);
  // Restore re-creates missing parent folders; unknown ids and restored entries are skipped.
  fs::remove_all(h.path("Library/Caches"));
  EXPECT_TRUE(q.restore(s.id, kNow, std::set<std::string>{"1-two"}).empty());
  EXPECT_EQ(test::readText(b), "second");
  EXPECT_TRUE(lexists(h.path("Library/Caches/two/inner/x")));
  ASSERT_EQ(q.sessions().size(), 1u);
  EXPECT_EQ(q.sessions()[0].activeCount(), 1);
  EXPECT_TRUE(q.restore(s.id, kNow, std::set<std::string>{"1-two", "9-nothing"}).empty());
  EXPECT_TRUE(lexists(h.paths().quarantineDir() / s.id));
  EXPECT_TRUE(q.restore(s.id, kNow).empty());
  EXPECT_EQ(test::readText(a), "first");
  EXPECT_FALSE(lexists(h.paths().quarantineDir() / s.id));  // the last entry takes the session along
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
  const auto failures = q.restore(s.id, kNow);
  const std::vector<CleanFailure> expected = {
      {"0-a.txt", "Something already exists at " + a.string() + ". Move it first, then restore."},
      {"1-b.txt", "Quarantined copy is missing: " + (itemsDir(h, s) / "1-b.txt").string()},
  };
  EXPECT_EQ(failures, expected);
  EXPECT_EQ(test::readText(a), "newer");
  EXPECT_EQ(test::readText(itemsDir(h, s) / "0-a.txt"), "quarantined");
  EXPECT_EQ(q.sessions().size(), 1u);
  EXPECT_THROW(q.restore("20990101-000000-FFFFFF", kNow), std::system_error);
  EXPECT_THROW(q.restore("../..", kNow), std::system_error);
}

TEST(Quarantine, ItemOnAnotherVolumeIsRefusedAndStays) {
  ScratchHome h;
  const fs::path local = h.file("Library/Caches/big.bin", 10);
  {
    // Injected volumes.
    Services volumes;
    volumes.volumeOf = [&](const fs::path& p) -> std::optional<std::string> {
      return p.string().find("Quarantine") != std::string::npos ? "internal" : "external";
    };
    Quarantine q(h.paths(), volumes);
    QuarantineSession s = q.beginSession(TriggerSource::manual(), 7, kNow);
    try {
      q.add(local, 10, CleanCategory::userCaches, s);
      ADD_FAILURE() << "expected a refusal";
    } catch (const QuarantineAddError& e) {
      EXPECT_EQ(e.what(), std::string("big.bin is on another drive — quarantining it would copy the whole file onto this Mac"));
      EXPECT_EQ(e.kind(), QuarantineAddError::Kind::differentVolume);
    }
    EXPECT_TRUE(lexists(local));
    EXPECT_TRUE(s.entries.empty());
    // Unknown volumes do not stop the move.
    Services noVolumes;
    noVolumes.volumeOf = [](const fs::path&) { return std::nullopt; };
    Quarantine unknown(h.paths(), noVolumes);
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

TEST(Quarantine, PurgeExpiredHonoursExpiry) {
  ScratchHome h;
  Quarantine q(h.paths());
  const fs::path a = h.file("Library/Logs/a.log", 1);
  const fs::path b = h.file("Library/Logs/b.log", 1);
  QuarantineSession due = q.beginSession(TriggerSource::manual(), 1, kNow - std::chrono::hours(24));
  q.add(a, 100, CleanCategory::logs, due);
  q.close(due);
  QuarantineSession later = q.beginSession(TriggerSource::manual(), 2, kNow - std::chrono::hours(24));
  q.add(b, 50, CleanCategory::logs, later);
  const fs::path qdir = h.paths().quarantineDir();
  // expiresAt equal to now counts as expired; a session still being filled (a journal, no
  // close yet) expires by the same rule.
  ASSERT_EQ(due.expiresAt, kNow);
  EXPECT_EQ(q.purgeExpired(kNow), 100);
  EXPECT_FALSE(lexists(qdir / due.id));
  EXPECT_TRUE(lexists(qdir / later.id / "items" / "0-b.log"));
  EXPECT_EQ(q.purgeExpired(later.expiresAt), 50);
  EXPECT_FALSE(lexists(qdir / later.id));
  EXPECT_TRUE(lexists(qdir / ".lock"));
}

TEST(Quarantine, PurgeRemovesOneSessionAndRefusesAnythingElse) {
  ScratchHome h;
  Quarantine q(h.paths());
  // Without a store there is nothing to purge, and nothing is made to find that out.
  EXPECT_THROW(q.purge("20260301-093000-ABCDEF", kNow), std::system_error);
  EXPECT_FALSE(lexists(h.paths().supportDir()));
  h.file("Library/Caches/x/y", 1);
  QuarantineSession s = q.beginSession(TriggerSource::manual(), 7, kNow);
  q.add(h.path("Library/Caches/x"), 1, CleanCategory::userCaches, s);
  q.purge(s.id, kNow);
  EXPECT_FALSE(lexists(h.paths().quarantineDir() / s.id));
  EXPECT_THROW(q.purge(s.id, kNow), std::system_error);
  for (const char* id : {"..", ".lock", "a/b"}) {
    SCOPED_TRACE(id);
    try {
      q.purge(id, kNow);
      ADD_FAILURE() << "purged";
    } catch (const std::system_error& e) {
      EXPECT_EQ(e.code(), std::errc::invalid_argument);
    }
  }
  EXPECT_TRUE(lexists(h.paths().quarantineDir() / ".lock"));
}

TEST(Quarantine, AddsGoToTheJournalAndCloseWritesTheManifestOnce) {
  ScratchHome h;
  Quarantine q(h.paths());
  const fs::path a = h.text("Documents/a.txt", "a");
  const fs::path b = h.text("Documents/b.txt", "b");
  QuarantineSession s = q.beginSession(TriggerSource::manual(), 7, kNow);
  const fs::path dir = h.paths().quarantineDir() / s.id;
  const std::string emptyManifest = test::readText(dir / "manifest.json");
  q.add(a, 1, CleanCategory::largeOldFiles, s);
  // A name already taken in "items" is never replaced: the next index is used instead.
  h.text("Library/Application Support/orvo Kestrel/Quarantine/" + s.id + "/items/1-b.txt", "stranger");
  q.add(b, 1, CleanCategory::largeOldFiles, s);
  EXPECT_EQ(summary(s.entries), "0-a.txt 2-b.txt");
  EXPECT_EQ(test::readText(dir / "items" / "2-b.txt"), "b");
  EXPECT_EQ(test::readText(dir / "manifest.json"), emptyManifest);  // not rewritten per item
  std::vector<std::string> ops;
  std::istringstream journal(test::readText(dir / "journal.jsonl"));
  for (std::string l; std::getline(journal, l);) {
    const auto j = JsonText::parse(l);
    ASSERT_TRUE(j) << l;
    ops.push_back(j->at("op").get<std::string>() + " " +
                  (j->contains("entry") ? j->at("entry") : *j).at("storedName").get<std::string>());
  }
  EXPECT_EQ(ops, (std::vector<std::string>{"intent 0-a.txt", "confirm 0-a.txt", "intent 1-b.txt", "abort 1-b.txt",
                                           "intent 2-b.txt", "confirm 2-b.txt"}));
  // Readers see manifest and journal together.
  ASSERT_EQ(q.sessions().size(), 1u);
  EXPECT_EQ(q.sessions()[0].entries, s.entries);

  q.close(s);
  EXPECT_FALSE(lexists(dir / "journal.jsonl"));
  EXPECT_EQ(summary(s.entries), "0-a.txt 2-b.txt 1-b.txt");  // the stranger adopted, not lost
  EXPECT_TRUE(s.entries[2].orphan);
  EXPECT_EQ(JSONStore::load<QuarantineSession>(dir / "manifest.json", quarantineSessionFromJson), s);
}

TEST(Quarantine, JournalReplayIsIdempotentAndSkipsTornLines) {
  auto entry = [](const std::string& name, bool moving = false) {
    return QuarantineEntry{"/nowhere/" + name, name, 1, CleanCategory::userCaches, false, moving, {}, false, {}};
  };
  auto moving = [&](const std::string& name) { return entry(name, true); };
  const std::string torn = intent(moving("1-b")).substr(0, 30);
  const struct Case {
    const char* what;
    std::vector<QuarantineEntry> manifest;
    std::string journal;
    std::string listed;
  } cases[] = {
      {"intent and confirm", {}, intent(moving("0-a")) + op("confirm", "0-a"), "0-a"},
      {"intent alone is a move under way", {}, intent(moving("0-a")), "0-a(moving)"},
      {"abort drops the intent", {}, intent(moving("0-a")) + op("abort", "0-a") + intent(moving("1-b")) + op("confirm", "1-b"),
       "1-b"},
      {"manifest written, journal not yet removed", {entry("0-a"), entry("1-b")},
       intent(moving("0-a")) + op("confirm", "0-a") + intent(moving("1-b")) + op("confirm", "1-b"), "0-a 1-b"},
      {"abort never drops a settled entry", {entry("0-a")}, intent(moving("0-a")) + op("abort", "0-a"), "0-a"},
      {"torn last line", {}, intent(moving("0-a")) + op("confirm", "0-a") + torn, "0-a"},
      {"torn line followed by more records", {}, intent(moving("0-a")) + torn + "\n" + op("confirm", "0-a"), "0-a"},
      {"restored", {entry("0-a"), entry("1-b")}, op("restored", "0-a"), "0-a(restored) 1-b"},
      {"unknown kinds, names and shapes", {entry("0-a")},
       line(Json{{"op", "later"}, {"storedName", "0-a"}}) + op("abort", "9-none") + "[1,2]\n" +
           line(Json{{"op", "intent"}, {"entry", Json{{"storedName", "../x"}}}}),
       "0-a"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ScratchHome h;
    Quarantine q(h.paths());
    QuarantineSession s = q.beginSession(TriggerSource::manual(), 7, kNow);
    s.entries = c.manifest;
    q.save(s);
    const fs::path dir = h.paths().quarantineDir() / s.id;
    std::ofstream(dir / "journal.jsonl", std::ios::binary) << c.journal;
    const auto listed = q.sessions();
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(summary(listed[0].entries), c.listed);
    // Recovery folds the journal into the manifest; reading again gives the same entries.
    q.recover(kNow);
    EXPECT_FALSE(lexists(dir / "journal.jsonl"));
    EXPECT_EQ(q.sessions(), listed);
  }
  // A writer never glues its record onto a torn line: what it adds next is read back.
  ScratchHome h;
  Quarantine q(h.paths());
  QuarantineSession s = q.beginSession(TriggerSource::manual(), 7, kNow);
  std::ofstream(h.paths().quarantineDir() / s.id / "journal.jsonl", std::ios::binary) << torn;
  q.add(h.text("Documents/a.txt", "a"), 1, CleanCategory::largeOldFiles, s);
  ASSERT_EQ(q.sessions().size(), 1u);
  EXPECT_EQ(summary(q.sessions()[0].entries), "0-a.txt");
}

TEST(Quarantine, DamagedEntryNeverHidesTheRestOfItsSession) {
  const struct Case {
    const char* what;
    std::function<void(Json&)> damage;
    std::string id;
    bool itemStays;  // else adopted: no readable entry names it any more
  } cases[] = {
      {"a number out of range", [](Json& e) { e["size"] = 1e30; }, "1-b.txt", true},
      {"a stored name that leaves items", [](Json& e) { e["storedName"] = "../1-b.txt"; }, "../1-b.txt", false},
      {"not an object", [](Json& e) { e = "lost"; }, "entry 1", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ScratchHome h;
    Quarantine q(h.paths());
    const fs::path a = h.text("Documents/a.txt", "good");
    const fs::path b = h.text("Documents/b.txt", "second");
    QuarantineSession s = q.beginSession(TriggerSource::manual(), 7, kNow);
    q.add(a, 4, CleanCategory::largeOldFiles, s);
    q.add(b, 6, CleanCategory::largeOldFiles, s);
    q.close(s);
    const fs::path dir = h.paths().quarantineDir() / s.id;
    Json manifest = *JSONStore::loadJson(dir / "manifest.json");
    c.damage(manifest["entries"][1]);
    JSONStore::save(manifest, dir / "manifest.json");

    const auto listed = q.sessions();
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(summary(listed[0].entries), "0-a.txt");
    EXPECT_EQ(listed[0].activeCount(), 2);
    EXPECT_EQ(listed[0].totalSize(), 4);

    const std::vector<CleanFailure> expected = {
        {c.id, "This quarantine entry is damaged; its item stays in " + (dir / "items").string()}};
    EXPECT_EQ(q.restore(s.id, kNow), expected);
    EXPECT_EQ(test::readText(a), "good");
    EXPECT_EQ(test::readText(c.itemStays ? dir / "items/1-b.txt" : q.recoveryDir(s.id) / "1-b.txt"), "second");
    // The damaged entry is written back as it was and keeps its session.
    EXPECT_EQ(JSONStore::loadJson(dir / "manifest.json")->at("entries")[1], manifest["entries"][1]);
    ASSERT_EQ(q.sessions().size(), 1u);
    EXPECT_EQ(q.sessions()[0].activeCount(), 1);
    // ... and expires with it.
    EXPECT_EQ(q.purgeExpired(s.expiresAt), 0);
    EXPECT_FALSE(lexists(dir));
  }
}

TEST(Quarantine, RecoveryRemovesEmptyFoldersAndAdoptsStrayItems) {
  const std::string q = "Library/Application Support/orvo Kestrel/Quarantine/";
  enum class Outcome { removed, adopted, untouched };
  const struct Case {
    const char* what;
    std::function<void(ScratchHome&)> make;
    std::string folder;
    Outcome outcome;
    std::string restoresTo;  // relative to home; empty: to the recovery folder
  } cases[] = {
      {"no items folder", [&](ScratchHome& h) { h.folder(q + "x"); }, "x", Outcome::removed, ""},
      {"an empty items folder", [&](ScratchHome& h) { h.folder(q + "x/items"); }, "x",
       Outcome::removed, ""},
      {"a journal and a temporary manifest but no items",
       [&](ScratchHome& h) {
         h.folder(q + "x/items");
         h.text(q + "x/journal.jsonl", "{\"op\":");
         h.text(q + "x/.manifest.json.1.tmp", "{");
       },
       "x", Outcome::removed, ""},
      {"an item nobody recorded",
       [&](ScratchHome& h) { h.text(q + "x/items/0-kept.txt", "keep me"); }, "x", Outcome::adopted,
       ""},
      {"an item its journal names",
       [&](ScratchHome& h) {
         QuarantineEntry e;
         e.originalPath = h.path("Documents/a.txt").string();
         e.storedName = "0-a.txt";
         e.moving = true;
         h.text(q + "x/items/0-a.txt", "keep me");
         h.text(q + "x/journal.jsonl", intent(e));
       },
       "x", Outcome::adopted, "Documents/a.txt"},
      {"a dot folder", [&](ScratchHome& h) { h.folder(q + ".hidden/items"); }, ".hidden",
       Outcome::untouched, ""},
      {"a manifest that is not JSON",
       [&](ScratchHome& h) {
         h.folder(q + "x/items");
         h.text(q + "x/manifest.json", "{");
       },
       "x", Outcome::untouched, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ScratchHome h;
    c.make(h);
    Quarantine store(h.paths());
    EXPECT_TRUE(store.sessions().empty());
    store.recover(kNow);
    EXPECT_EQ(lexists(h.paths().quarantineDir() / c.folder), c.outcome != Outcome::removed);
    const auto listed = store.sessions();
    if (c.outcome != Outcome::adopted) {
      EXPECT_TRUE(listed.empty());
      continue;
    }
    ASSERT_EQ(listed.size(), 1u);
    ASSERT_EQ(listed[0].entries.size(), 1u);
    EXPECT_EQ(listed[0].expiresAt, kNow + std::chrono::hours(7 * 24));
    EXPECT_TRUE(store.restore(c.folder, kNow).empty());
    const fs::path to = c.restoresTo.empty()
                            ? store.recoveryDir(c.folder) / listed[0].entries[0].storedName
                            : h.path(c.restoresTo);
    EXPECT_EQ(test::readText(to), "keep me");
  }
}

// ---- Recovery of half-done moves ----------------------------------------------------------

TEST(Quarantine, RecoverySettlesEveryInterruptedState) {
  ScratchHome h;
  Quarantine q(h.paths());
  const fs::path qdir = h.paths().quarantineDir();
  const fs::path moved = h.text("Library/Caches/moved", "m");
  const fs::path stayed = h.text("Library/Caches/stayed", "s");
  const fs::path back = h.text("Library/Caches/back", "b");
  const fs::path undone = h.text("Library/Caches/undone", "u");
  QuarantineSession s = q.beginSession(TriggerSource::manual(), 7, kNow);
  q.add(moved, 1, CleanCategory::userCaches, s);
  q.add(back, 1, CleanCategory::userCaches, s);
  q.add(undone, 1, CleanCategory::userCaches, s);
  // Forge what a crash leaves: a move whose confirmation is missing, a restore that moved the
  // item back but did not record it, a restore recorded while its move back did not last, an
  // intent that never moved, and an item nobody recorded.
  s.entries[0].moving = true;
  fs::rename(itemsDir(h, s) / "1-back", back);
  s.entries[2].restored = true;
  QuarantineEntry neverMoved;
  neverMoved.originalPath = stayed.string();
  neverMoved.storedName = "3-stayed";
  neverMoved.moving = true;
  neverMoved.identity = identityOf(stayed);
  s.entries.push_back(neverMoved);
  h.text("Library/Application Support/orvo Kestrel/Quarantine/" + s.id + "/items/stranger", "who");
  q.save(s);

  // Listing shows the state as it stands; recovery settles it.
  EXPECT_EQ(summary(q.sessions()[0].entries),
            "0-moved(moving) 1-back 2-undone(restored) 3-stayed(moving)");
  q.recover(kNow);
  auto listed = q.sessions();
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(summary(listed[0].entries),
            "0-moved 1-back(restored) 2-undone 3-stayed(restored) stranger");
  const auto& stranger = listed[0].entries.back();
  EXPECT_TRUE(stranger.orphan);
  EXPECT_EQ(stranger.originalPath, (q.recoveryDir(s.id) / "stranger").string());
  // Settled on disk, not only in the listing.
  EXPECT_EQ(
      JSONStore::load<QuarantineSession>(qdir / s.id / "manifest.json", quarantineSessionFromJson),
      listed[0]);
  EXPECT_TRUE(q.restore(s.id, kNow).empty());
  EXPECT_EQ(test::readText(moved), "m");
  EXPECT_EQ(test::readText(undone), "u");
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

// The batch a worker runs: quarantine everything in two sessions, restore part, quarantine
// again in a third, closing each session the way a clean does.
void runBatch(const Paths& paths, const std::vector<fs::path>& items) {
  Quarantine q(paths);
  QuarantineSession a = q.beginSession(TriggerSource::manual(), 7, kNow);
  QuarantineSession b = q.beginSession(TriggerSource::schedule("r"), 7, kNow);
  for (size_t i = 0; i < items.size(); ++i)
    q.add(items[i], 1, CleanCategory::userCaches, i % 2 ? a : b);
  q.close(a);
  q.restore(a.id, kNow);
  std::set<std::string> some;
  for (const auto& e : b.entries) {
    if (some.size() < b.entries.size() / 2) some.insert(e.id());
  }
  q.restore(b.id, kNow, some);
  QuarantineSession c = q.beginSession(TriggerSource::manual(), 7, kNow);
  for (size_t i = 0; i < items.size(); i += 2) {
    if (lexists(items[i])) q.add(items[i], 1, CleanCategory::userCaches, c);
  }
  q.close(c);
}

// Every item is at its original path, or stored in a session whose active entry restores it.
void expectNothingLost(const ScratchHome& h, const std::vector<fs::path>& items,
                       const std::string& when) {
  Quarantine q(h.paths());
  q.recover(kNow);
  const auto sessions = q.sessions();
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
  for (const auto& s : sessions) EXPECT_TRUE(q.restore(s.id, kNow).empty()) << s.id;
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
