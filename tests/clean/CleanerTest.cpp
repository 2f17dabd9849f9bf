// Cleaner: each disposal, dry runs, vanished items, commands, protected paths, the admin step,
// the audit trail, restore, and a folder swapped for a link while it is being cleaned.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <thread>
#include <tuple>

#include "core/clean/Cleaner.h"
#include "core/system/fs/Trash.h"
#include "tests/support/AllowedRoot.h"
#include "tests/support/Immutable.h"
#include "tests/support/ScratchHome.h"

namespace kestrel {
namespace {

using test::kTestNow;
using test::lexists;
using test::ScratchHome;
using test::treeListing;

ScanItem pathItem(const fs::path& path, int64_t size, CleanCategory category = CleanCategory::userCaches,
                  std::optional<ItemTarget> target = std::nullopt) {
  ScanItem i;
  i.id = "item:" + path.filename().string();
  i.title = path.filename().string();
  i.target = target ? *target : ItemTarget::forPath(path.string());
  i.size = size;
  i.category = category;
  return i;
}

// A cleaner over a scratch home with every outside effect replaced by a recorder.
struct Harness {
  ScratchHome h;
  std::vector<std::tuple<std::string, std::vector<std::string>, double>> commands;
  Shell::Result commandResult;  // what every tool answers, unless the tool is in `results`
  std::map<std::string, Shell::Result> results;
  std::vector<std::string> prompts;  // the command of every administrator prompt
  std::function<Shell::Result(const std::string&)> answerPrompt = [](const std::string&) {
    return Shell::Result{1, "", "User canceled."};
  };
  AdminQueue queue{h.paths()};
  PrivilegedSession session{h.paths(), services()};

  ~Harness() { session.end(); }

  // Tools and prompts are recorded; the clock stands still.
  Services services() {
    Services s;
    s.run = [this](const std::string& exe, const std::vector<std::string>& args, double timeout) {
      commands.emplace_back(exe, args, timeout);
      const auto own = results.find(exe);
      return own != results.end() ? own->second : commandResult;
    };
    s.adminPrompt = [this](const std::string& cmd, const std::string&, double) {
      prompts.push_back(cmd);
      return answerPrompt(cmd);
    };
    s.now = [] { return kTestNow; };
    return s;
  }

  Cleaner cleaner(AppConfig config = {}) { return Cleaner(h.paths(), std::move(config), services(), &session, &queue); }
  CleanReport clean(const std::vector<ScanItem>& items, std::optional<Disposal> disposal = std::nullopt,
                    AppConfig config = {}) {
    return cleaner(std::move(config)).clean(items, TriggerSource::manual(), false, disposal);
  }

  std::vector<AuditEntry> audit() const { return AuditLog(h.paths()).recent(1000); }
  // The one record about `target` (these tests write one per target).
  std::optional<AuditEntry> auditFor(const std::string& target) const {
    for (const auto& e : audit())
      if (e.target == target) return e;
    return std::nullopt;
  }
};

TEST(Cleaner, DisposesOfEachItemByCategorySettingsOrOverride) {
  const struct Case {
    const char* name;
    CleanCategory category;
    std::map<std::string, Disposal> overrides;
    std::optional<Disposal> disposalOverride;
    Disposal expected;
  } cases[] = {
      {"caches are deleted", CleanCategory::userCaches, {}, std::nullopt, Disposal::delete_},
      {"old downloads are quarantined", CleanCategory::oldDownloads, {}, std::nullopt, Disposal::quarantine},
      {"the user's per-category choice", CleanCategory::userCaches, {{"userCaches", Disposal::trash}}, std::nullopt,
       Disposal::trash},
      {"the caller's override beats the settings", CleanCategory::userCaches, {{"userCaches", Disposal::quarantine}},
       Disposal::delete_, Disposal::delete_},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Harness t;
    const fs::path item = t.h.folder("Library/Caches/com.example.app");
    t.h.text("Library/Caches/com.example.app/sub/b", "beta");
    AppConfig config;
    config.disposalOverrides = c.overrides;
    const CleanReport r = t.clean({pathItem(item, 4096, c.category)}, c.disposalOverride, config);
    EXPECT_TRUE(r.failures.empty());
    EXPECT_FALSE(lexists(item));
    EXPECT_EQ(r.itemsProcessed, 1);
    EXPECT_EQ(r.freedBytes, c.expected == Disposal::delete_ ? 4096 : 0);
    EXPECT_EQ(r.quarantinedBytes, c.expected == Disposal::quarantine ? 4096 : 0);
    EXPECT_EQ(r.trashedBytes, c.expected == Disposal::trash ? 4096 : 0);
    const fs::path trashed = platform::trashFilesDir(t.h.paths()) / "com.example.app";
    EXPECT_EQ(test::readText(trashed / "sub/b") == "beta", c.expected == Disposal::trash);
    const auto sessions = Quarantine(t.h.paths()).sessions();
    ASSERT_EQ(sessions.size(), c.expected == Disposal::quarantine ? 1u : 0u);
    if (!sessions.empty()) {
      EXPECT_EQ(sessions[0].id, r.quarantineSessionID);
      EXPECT_EQ(sessions[0].entries.at(0).originalPath, item.string());
    }
    ASSERT_EQ(t.audit().size(), 1u);
    EXPECT_EQ(rawValue(t.audit()[0].action), rawValue(c.expected));
  }
}

TEST(Cleaner, OneQuarantineSessionPerCleanRestoresExactly) {
  Harness t;
  // Two quarantined items share one session; a deletion beside them stays a deletion.
  const fs::path c = t.h.text("Downloads/old.zip", "zip bytes");
  const fs::path d = t.h.text("Downloads/Album/photo.jpg", "jpeg bytes");
  const fs::path e = t.h.file("Library/Caches/e", 5);
  const CleanReport r = t.clean({pathItem(c, 9, CleanCategory::oldDownloads), pathItem(e, 5),
                                 pathItem(d.parent_path(), 10, CleanCategory::oldDownloads)});
  EXPECT_EQ(r.quarantinedBytes, 19);
  EXPECT_EQ(r.freedBytes, 5);
  ASSERT_TRUE(r.quarantineSessionID);
  Quarantine q(t.h.paths());
  ASSERT_EQ(q.sessions().size(), 1u);
  EXPECT_EQ(q.sessions()[0].entries.size(), 2u);
  // The clean closed its session: no journal is left.
  EXPECT_FALSE(lexists(t.h.paths().quarantineDir() / *r.quarantineSessionID / "journal.jsonl"));
  EXPECT_TRUE(q.restore(*r.quarantineSessionID, kTestNow).empty());
  EXPECT_EQ(test::readText(c), "zip bytes");
  EXPECT_EQ(test::readText(d), "jpeg bytes");
  EXPECT_FALSE(lexists(e));
}

TEST(Cleaner, DryRunTouchesNothingAndReportsByDisposal) {
  Harness t;
  const fs::path cache = t.h.file("Library/Caches/c", 1);
  const fs::path log = t.h.file("Library/Logs/l.log", 1);
  const fs::path key = t.h.text(".ssh/id_ed25519", "key");
  const fs::path cloud = t.h.file("Library/Mobile Documents/com~apple~CloudDocs/big.mov", 1);
  AppConfig config;
  config.disposalOverrides["logs"] = Disposal::trash;
  const std::vector<ScanItem> items = {
      pathItem(cache, 100),
      pathItem(t.h.file("Downloads/d.zip", 1), 200, CleanCategory::oldDownloads),
      pathItem(log, 300, CleanCategory::logs),
      pathItem(cloud, 400, CleanCategory::cloudLocalCopies, ItemTarget::forEvict(cloud.string())),
      pathItem("docker", 500, CleanCategory::docker, ItemTarget::forCommand({"docker", {"system", "prune"}})),
      pathItem("/Library/Caches/kestrel-never/x", 600, CleanCategory::userCaches,
               ItemTarget::forAdminPath("/Library/Caches/kestrel-never/x")),
      pathItem(t.h.path("Library/Caches/gone"), 700),
      pathItem(key, 800),
  };
  const auto before = treeListing(t.h.root());
  std::vector<std::pair<size_t, size_t>> progress;
  const CleanReport r = t.cleaner(config).clean(items, TriggerSource::manual(), true, std::nullopt,
                                                [&](size_t done, size_t total) { progress.emplace_back(done, total); });
  EXPECT_EQ(treeListing(t.h.root()), before);  // no audit log, no quarantine, nothing moved
  EXPECT_EQ(std::make_tuple(r.freedBytes, r.quarantinedBytes, r.trashedBytes, r.evictedBytes),
            std::make_tuple(100, 200, 300, 400));
  EXPECT_FALSE(r.quarantineSessionID);
  EXPECT_TRUE(r.failures.empty());
  EXPECT_EQ(r.skippedProtected, std::vector<std::string>{key.string()});
  EXPECT_EQ(r.deferredAdmin, 0);
  EXPECT_TRUE(t.commands.empty());
  EXPECT_TRUE(t.prompts.empty());
  EXPECT_EQ(t.queue.count(), 0u);
  ASSERT_EQ(progress.size(), items.size() + 1);
  for (size_t i = 0; i < progress.size(); ++i) EXPECT_EQ(progress[i], std::make_pair(i, items.size()));
}

TEST(Cleaner, VanishedItemsAreGoneAndPlaceholdersAreRemovedInstead) {
  const struct Case {
    const char* name;
    std::function<fs::path(ScratchHome&)> setup;  // returns the item's path
    std::string leftOver;                         // home-relative: must be gone afterwards
    int64_t freed;
    const char* auditAction;                      // nullptr: not audited, a failure instead
  } cases[] = {
      {"removed by someone else", [](ScratchHome& h) { return h.path("Library/Caches/gone"); }, "", 0, "gone"},
      {"its folder became a file",
       [](ScratchHome& h) {
         h.file("Library/Caches/was-a-folder", 3);
         return h.path("Library/Caches/was-a-folder/item");
       },
       "", 0, "gone"},
      {"only the cloud placeholder is left",
       [](ScratchHome& h) {
         h.text("Library/Caches/.Report.pdf.icloud", "placeholder");
         return h.path("Library/Caches/Report.pdf");
       },
       "Library/Caches/.Report.pdf.icloud", 42, "delete"},
      {"a name no file system can hold",
       [](ScratchHome& h) { return h.folder("Library/Caches") / std::string(300, 'n'); }, "", 0, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Harness t;
    const fs::path item = c.setup(t.h);
    const CleanReport r = t.clean({pathItem(item, 42)});
    EXPECT_EQ(r.freedBytes, c.freed);
    EXPECT_TRUE(c.leftOver.empty() || !lexists(t.h.path(c.leftOver)));
    if (!c.auditAction) {
      ASSERT_EQ(r.failures.size(), 1u);
      EXPECT_EQ(r.failures[0].message, "couldn't be read (the drive it's on may be offline)");
      continue;
    }
    EXPECT_TRUE(r.failures.empty());
    const auto audit = t.audit();
    ASSERT_EQ(audit.size(), 1u);
    EXPECT_EQ(rawValue(audit[0].action), c.auditAction);
    EXPECT_EQ(audit[0].target, c.leftOver.empty() ? item.string() : t.h.path(c.leftOver).string());
  }
}

TEST(Cleaner, CommandsReportTheirExitAndGetTheirExactArguments) {
  const struct Case {
    int status;
    std::string stderrText;
    std::optional<std::string> failure;
  } cases[] = {
      {0, "warning: nothing to prune", std::nullopt},
      {3, "", "exit 3"},
      {1, "Cannot connect to the Docker daemon", "Cannot connect to the Docker daemon"},
  };
  const CommandSpec prune{"docker", {"system", "prune", "--force", "--filter", "until=24h"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.status);
    Harness t;
    t.commandResult = {c.status, "", c.stderrText};
    const CleanReport r = t.clean({pathItem("docker-images", 1000, CleanCategory::docker, ItemTarget::forCommand(prune))});
    ASSERT_EQ(t.commands.size(), 1u);
    EXPECT_EQ(t.commands[0], std::make_tuple(std::string("docker"), prune.arguments, 600.0));
    EXPECT_EQ(r.freedBytes, c.failure ? 0 : 1000);
    const std::vector<CleanFailure> failures = {{"item:docker-images", c.failure.value_or("")}};
    EXPECT_EQ(r.failures, c.failure ? failures : std::vector<CleanFailure>{});
    const auto audit = t.audit();
    ASSERT_EQ(audit.size(), 1u);
    EXPECT_EQ(audit[0].target, "docker system prune --force --filter until=24h");
    EXPECT_EQ(audit[0].success, !c.failure);
    EXPECT_EQ(audit[0].message, c.failure);
  }
}

TEST(Cleaner, ProtectedPathsAreSkippedAuditedAndUntouched) {
  const struct Case {
    const char* name;
    std::function<fs::path(ScratchHome&)> setup;  // returns the item's path
    std::string givenPath;                        // when the item names it differently (e.g. with "~")
    std::vector<std::string> protectedPaths;
  } cases[] = {
      {"private keys", [](ScratchHome& h) { return h.text(".ssh/x", "secret"); }, "~/.ssh/x", {}},
      {"the user's own rule", [](ScratchHome& h) { return h.text("Library/Caches/keep/data", "secret"); }, "",
       {"~/Library/Caches/keep"}},
      {"a folder the rule names a parent of",
       [](ScratchHome& h) { return h.text("Library/Caches/keep/data", "secret"); }, "",
       {"~/Library/Caches/keep/data/deeper"}},
      {"a top-level folder",
       [](ScratchHome& h) { return h.text("Library/Caches/inside", "secret").parent_path(); }, "", {}},
      {"through a home link leading outside",
       [](ScratchHome& h) {
         std::ofstream(h.outside("elsewhere") / "precious") << "secret";
         h.link("Library/Caches/shortcut", h.outside("elsewhere"));
         return h.path("Library/Caches/shortcut/precious");
       },
       "", {}},
      {"a synced cloud folder",
       [](ScratchHome& h) { return h.text("Library/Mobile Documents/com~apple~CloudDocs/notes.txt", "secret"); }, "",
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Harness t;
    const fs::path item = c.setup(t.h);
    auto before = treeListing(t.h.root());
    AppConfig config;
    config.protectedPaths = c.protectedPaths;
    const std::string given = c.givenPath.empty() ? item.string() : c.givenPath;
    const ScanItem scanItem = pathItem(item, 64, CleanCategory::userCaches, ItemTarget::forPath(given));
    for (auto disposal : {Disposal::delete_, Disposal::quarantine, Disposal::trash}) {
      const CleanReport r = t.clean({scanItem}, disposal, config);
      EXPECT_EQ(r.skippedProtected, std::vector<std::string>{given});
      EXPECT_TRUE(r.failures.empty());
      EXPECT_EQ(r.freedBytes + r.quarantinedBytes + r.trashedBytes, 0);
    }
    // Nothing changed but the audit log, which says so three times.
    auto after = treeListing(t.h.root());
    for (auto* listing : {&before, &after})
      std::erase_if(*listing, [&](const auto& e) {
        return overlaps((t.h.root() / e.first).string(), t.h.paths().supportDir().string());
      });
    EXPECT_EQ(after, before);
    EXPECT_EQ(test::readText(item.filename() == "Caches" ? item / "inside" : item), "secret");
    const auto audit = t.audit();
    ASSERT_EQ(audit.size(), 3u);
    for (const auto& e : audit) EXPECT_EQ(std::tie(e.action, e.target, e.success), std::make_tuple(AuditAction::skip, given, false));
  }
}

TEST(Cleaner, AdminItemsAreQueuedWithoutAnyPrompt) {
  Harness t;
  const std::string base = "/Library/Caches/kestrel-never-" + std::to_string(::getpid());
  const std::vector<ScanItem> items = {
      pathItem(base + "/a", 70, CleanCategory::userCaches, ItemTarget::forAdminPath(base + "/a")),
      pathItem(base + "/b", 30),  // a plain path the policy says needs administrator rights
      pathItem("/usr/lib/kestrel-never", 5, CleanCategory::userCaches, ItemTarget::forAdminPath("/usr/lib/kestrel-never")),
  };
  const CleanReport r = t.clean(items);
  EXPECT_EQ(r.deferredAdmin, 2);
  EXPECT_EQ(r.freedBytes, 0);
  EXPECT_TRUE(r.failures.empty());
  EXPECT_EQ(r.skippedProtected, std::vector<std::string>{"/usr/lib/kestrel-never"});
  EXPECT_EQ(t.queue.pendingBytes(), 100);
  EXPECT_TRUE(t.prompts.empty());
  for (const auto& path : {base + "/a", base + "/b"}) {
    const auto e = t.auditFor(path);
    ASSERT_TRUE(e) << path;
    EXPECT_EQ(std::tie(e->action, e->message, e->success),
              std::make_tuple(AuditAction::queued, std::optional<std::string>("needs admin — queued"), true));
  }
  EXPECT_EQ(t.auditFor("/usr/lib/kestrel-never")->action, AuditAction::skip);
}

TEST(Cleaner, AdminItemsGoInOneBatchWhenNotQueued) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root for an allowed system location";
  Harness t;
  // The prompt authorises at once: its command runs (as this user, root here).
  t.answerPrompt = [](const std::string& cmd) { return Shell::run("/bin/sh", {"-c", cmd}, 60); };
  test::AllowedRoot allowed;
  const fs::path one = allowed.dir() / "one", two = allowed.dir() / "two";
  fs::create_directories(one / "inner");
  std::ofstream(one / "inner/f") << "data";
  std::ofstream(two) << "data";
  const fs::path refused = t.h.text("Library/Caches/mine", "stays");  // the helper refuses home paths
  AppConfig config;
  config.queueAdminRemovals = false;
  const CleanReport r =
      t.clean({pathItem(one, 100, CleanCategory::userCaches, ItemTarget::forAdminPath(one.string())),
               pathItem(two, 50, CleanCategory::userCaches, ItemTarget::forAdminPath(two.string())),
               pathItem(refused, 7, CleanCategory::userCaches, ItemTarget::forAdminPath(refused.string()))},
              std::nullopt, config);
  t.session.end();
  EXPECT_EQ(t.prompts.size(), 1u);
  EXPECT_EQ(t.queue.count(), 0u);
  EXPECT_EQ(r.freedBytes, 150);
  EXPECT_FALSE(lexists(one) || lexists(two));
  EXPECT_EQ(test::readText(refused), "stays");
  ASSERT_EQ(r.failures.size(), 1u);
  EXPECT_EQ(r.failures[0].message.rfind("Could not remove " + refused.string(), 0), 0u) << r.failures[0].message;
  EXPECT_TRUE(t.auditFor(one.string())->success);
  EXPECT_FALSE(t.auditFor(refused.string())->success);
}

TEST(Cleaner, PermissionErrorSendsOnlyADeletionToTheAdminStep) {
  // A deletion the user may not make becomes a privileged deletion; an item meant to stay
  // undoable (quarantine, Trash) fails instead of being removed for good behind their back.
  for (const Disposal disposal : {Disposal::delete_, Disposal::quarantine, Disposal::trash}) {
    SCOPED_TRACE(std::string(rawValue(disposal)));
    const bool queued = disposal == Disposal::delete_;
    Harness t;
    const fs::path item = t.h.text("Library/Caches/locked/item", "kept");
    fs::create_directories(platform::trashFilesDir(t.h.paths()));
    test::Immutable lock(item.parent_path());
    if (!lock.ok()) GTEST_SKIP() << "cannot make a folder immutable here (chattr +i failed)";
    const CleanReport r = t.clean({pathItem(item, 10)}, disposal);
    EXPECT_EQ(test::readText(item), "kept");
    EXPECT_EQ(r.freedBytes + r.quarantinedBytes + r.trashedBytes, 0);
    EXPECT_EQ(t.queue.count(), queued ? 1u : 0u);
    EXPECT_TRUE(t.prompts.empty());
    EXPECT_EQ(rawValue(t.auditFor(item.string())->action), queued ? "queued" : rawValue(disposal));
    ASSERT_EQ(r.failures.size(), queued ? 0u : 1u);
    if (!queued) {
      EXPECT_NE(r.failures[0].message.find(std::generic_category().message(EPERM)), std::string::npos);
    }
    // A refused move leaves no half-made Trash entry and no empty quarantine session behind.
    EXPECT_FALSE(lexists(platform::trashFilesDir(t.h.paths()).parent_path() / "info/item.trashinfo"));
    EXPECT_FALSE(r.quarantineSessionID);
    EXPECT_TRUE(Quarantine(t.h.paths()).sessions().empty());
  }
}

TEST(Cleaner, EveryActionIsAuditedOneDecodableRecordPerLine) {
  Harness t;
  const fs::path cloud = t.h.file("Library/Mobile Documents/com~apple~CloudDocs/movie.mov", 44);
  // A message with a line break and quotes must not break the one-record-per-line form.
  t.commandResult = {2, "", "first line\n\"second\" line\n"};
  AppConfig config;
  config.disposalOverrides["logs"] = Disposal::trash;
  const TriggerSource trigger = TriggerSource::schedule("Tidy \"weekly\"");
  const struct Case {
    ScanItem item;
    const char* action;
    int64_t size;
    bool success;
  } cases[] = {
      {pathItem(t.h.file("Library/Caches/del", 11), 11), "delete", 11, true},
      {pathItem(t.h.file("Downloads/quar.dmg", 22), 22, CleanCategory::installers), "quarantine", 22, true},
      {pathItem(t.h.file("Library/Logs/trash.log", 33), 33, CleanCategory::logs), "trash", 33, true},
      {pathItem(cloud, 44, CleanCategory::cloudLocalCopies, ItemTarget::forEvict(cloud.string())), "evict", 44, true},
      {pathItem("brew", 55, CleanCategory::packageCaches, ItemTarget::forCommand({"brew", {"cleanup"}})), "command", 55,
       false},
      {pathItem(t.h.file(".gnupg/pubring.kbx", 1), 1), "skip", 1, false},
      {pathItem(t.h.path("Library/Caches/vanished"), 66), "gone", 0, true},
  };
  std::vector<ScanItem> items;
  for (const auto& c : cases) items.push_back(c.item);
  t.results["brctl"] = Shell::Result{};  // the local copy goes through the cloud tool
  EXPECT_EQ(t.cleaner(config).clean(items, trigger, false, std::nullopt).evictedBytes, 44);
  std::ifstream in(t.h.paths().auditFile());
  std::vector<AuditEntry> lines;
  for (std::string line; std::getline(in, line);) {
    auto e = decodeAuditLine(line);
    ASSERT_TRUE(e) << line;
    lines.push_back(*e);
  }
  ASSERT_EQ(lines.size(), std::size(cases));
  for (size_t i = 0; i < std::size(cases); ++i) {  // in the order the items were handled
    const Case& c = cases[i];
    SCOPED_TRACE(c.action);
    const ItemTarget& target = c.item.target;
    EXPECT_EQ(lines[i].target, target.kind == ItemTarget::Kind::command ? target.command.display() : target.pathValue);
    EXPECT_EQ(rawValue(lines[i].action), c.action);
    EXPECT_EQ(lines[i].category, c.item.category);
    EXPECT_EQ(lines[i].size, c.size);
    EXPECT_EQ(lines[i].success, c.success);
    EXPECT_EQ(lines[i].trigger, trigger);
    EXPECT_EQ(lines[i].date, kTestNow);
  }
  EXPECT_EQ(lines[4].message, "first line\n\"second\" line\n");
}

TEST(Cleaner, RestoreIsAuditedAndReportsEachEntryThatCouldNotGoBack) {
  Harness t;
  const fs::path a = t.h.text("Downloads/a.pdf", "aaaa");
  const fs::path b = t.h.text("Downloads/b.pdf", "bbbbbb");
  const CleanReport r =
      t.clean({pathItem(a, 4, CleanCategory::oldDownloads), pathItem(b, 6, CleanCategory::oldDownloads)});
  ASSERT_TRUE(r.quarantineSessionID);
  t.h.text("Downloads/b.pdf", "new b");  // something new took b's place: it is never overwritten
  const auto failures = t.cleaner().restore(*r.quarantineSessionID);
  EXPECT_EQ(test::readText(a), "aaaa");
  EXPECT_EQ(test::readText(b), "new b");
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_EQ(failures[0].message, "Something already exists at " + b.string() + ". Move it first, then restore.");
  const AuditEntry last = t.audit().front();
  EXPECT_EQ(std::tie(last.action, last.target, last.size, last.success),
            std::make_tuple(AuditAction::restore, *r.quarantineSessionID, 4, false));
  EXPECT_EQ(last.message, "1 item(s) could not be restored");

  // Once the place is free the rest goes back, audited as a success.
  fs::remove(b);
  EXPECT_TRUE(t.cleaner().restore(*r.quarantineSessionID, std::set<std::string>{failures[0].itemID}).empty());
  EXPECT_EQ(test::readText(b), "bbbbbb");
  EXPECT_TRUE(t.audit().front().success);
  EXPECT_THROW(t.cleaner().restore("20260301-093000-ABCDEF"), std::system_error);
}

// ---- Race: a folder being cleaned swapped for a link out of the home folder ----

void writeFile(const fs::path& p, const std::string& text) {
  fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary | std::ios::trunc) << text;
}

TEST(CleanerRace, SwappedFolderNeverLeadsOutside) {
  ScratchHome h;
  const fs::path app = h.path("Library/Caches/app"), blob = app / "blob", canary = h.outside("canary");
  constexpr int kFiles = 20;
  // The canary folder looks like the real one, so a followed link finds a "blob" to act on.
  for (int i = 0; i < kFiles; ++i) writeFile(canary / "blob" / ("f" + std::to_string(i)), "canary " + std::to_string(i));
  writeFile(canary / ".ssh/id", "secret key");
  const auto canaryListing = treeListing(canary);

  AdminQueue queue{h.paths()};
  Services services;
  services.adminPrompt = [](const std::string&, const std::string&, double) {
    ADD_FAILURE() << "no clean in this race may prompt";
    return Shell::Result{1, "", "refused"};
  };
  services.now = [] { return kTestNow; };
  services.run = [](const std::string&, const std::vector<std::string>&, double) { return Shell::Result{}; };
  PrivilegedSession session(h.paths(), services);

  std::mt19937 rng(4242);
  const char* env = std::getenv("KESTREL_CLEAN_RACE_ITERATIONS");
  const int iterations = env ? std::max(1000, std::atoi(env)) : 1000;
  int done = 0, refused = 0;
  const Disposal disposals[] = {Disposal::delete_, Disposal::quarantine, Disposal::trash};
  for (int i = 0; i < iterations; ++i) {
    for (int f = 0; f < kFiles; ++f) writeFile(blob / ("f" + std::to_string(f)), "victim");
    writeFile(blob / "sub/inner", "victim");
    std::atomic<bool> stop{false};
    std::atomic<int> cycles{0};
    const unsigned seed = static_cast<unsigned>(rng());
    std::thread attacker([&, seed] {
      std::mt19937 local(seed);
      const fs::path appMoved = fs::path(app) += ".x", blobMoved = fs::path(blob) += ".x";
      for (int loop = 0; !stop.load(std::memory_order_relaxed); ++loop) {
        // Mostly the parent of the item; every fifth time the item's own folder.
        const bool own = loop % 5 == 4;
        const fs::path& victim = own ? blob : app;
        const fs::path& moved = own ? blobMoved : appMoved;
        if (::rename(victim.c_str(), moved.c_str()) != 0) {
          std::this_thread::yield();
          continue;
        }
        (void)::symlink((own ? canary / "blob" : canary).c_str(), victim.c_str());
        std::this_thread::sleep_for(std::chrono::microseconds(local() % 100));
        ::unlink(victim.c_str());
        (void)::rename(moved.c_str(), victim.c_str());
        cycles.fetch_add(1, std::memory_order_relaxed);
        // Leave the real folder in place for a while too, so some cleans get far into the walk.
        std::this_thread::sleep_for(std::chrono::microseconds(local() % 100));
      }
    });
    // Start only once the attacker is swapping, so every round is a real race.
    while (cycles.load(std::memory_order_relaxed) == 0) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::microseconds(rng() % 200));
    Cleaner cleaner(h.paths(), AppConfig{}, services, &session, &queue);
    const CleanReport r = cleaner.clean({pathItem(blob, 100)}, TriggerSource::manual(), false, disposals[i % 3]);
    stop = true;
    attacker.join();

    ASSERT_EQ(treeListing(canary), canaryListing) << "round " << i << " with " << rawValue(disposals[i % 3]);
    for (int f = 0; f < kFiles; ++f)
      ASSERT_EQ(test::readText(canary / "blob" / ("f" + std::to_string(f))), "canary " + std::to_string(f));
    if (r.freedBytes + r.quarantinedBytes + r.trashedBytes > 0) ++done;
    if (!r.failures.empty() || !r.skippedProtected.empty()) ++refused;
    EXPECT_EQ(r.deferredAdmin, 0);

    // Put the swapped names back, then clear this round's tree, Trash and quarantine (all ours,
    // with no link left that leads anywhere but into the canary, which remove_all never follows).
    for (const fs::path& p : {blob, app}) {
      const fs::path moved = fs::path(p) += ".x";
      if (fs::is_symlink(p)) fs::remove(p);
      if (lexists(moved) && !lexists(p)) fs::rename(moved, p);
    }
    fs::remove_all(app);
    fs::remove_all(platform::trashFilesDir(h.paths()).parent_path());
    fs::remove_all(h.paths().quarantineDir());
  }
  EXPECT_GT(done, 0);
  EXPECT_GT(refused, 0) << "the attacker never got a link in place; the harness is not racing";
}

}  // namespace
}  // namespace kestrel
