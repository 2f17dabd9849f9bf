// Cleaner: each disposal, dry runs, vanished items, commands, protected paths, the admin step,
// the audit trail, restore, and a folder swapped for a link while it is being cleaned.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <thread>
#include <tuple>

#include "core/clean/Cleaner.h"
#include "core/store/JSONStore.h"
#include "core/system/Trash.h"
#include "tests/support/AllowedRoot.h"
#include "tests/support/Immutable.h"
#include "tests/support/ScratchHome.h"

namespace kestrel {
namespace {

using test::lexists;
using test::ScratchHome;

const Date kNow = Dates::fromUnixSeconds(1772357400);  // 2026-03-01T09:30:00Z

ScanItem pathItem(const fs::path& path, int64_t size, CleanCategory category = CleanCategory::userCaches) {
  ScanItem i;
  i.id = "item:" + path.filename().string();
  i.title = path.filename().string();
  i.target = ItemTarget::forPath(path.string());
  i.size = size;
  i.category = category;
  return i;
}

ScanItem withTarget(ScanItem item, ItemTarget target) {
  item.target = std::move(target);
  return item;
}

// Every entry below `root` (links not followed) with its type, size and modification time.
std::map<std::string, std::string> treeListing(const fs::path& root) {
  std::map<std::string, std::string> out;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec)) {
    struct stat st;
    if (::lstat(it->path().c_str(), &st) != 0) continue;
    std::ostringstream s;
    s << (st.st_mode & S_IFMT) << ' ' << st.st_size << ' ' << st.st_mtim.tv_sec << '.' << st.st_mtim.tv_nsec;
    out[fs::relative(it->path(), root).string()] = s.str();
  }
  return out;
}

// The listing without `rel` and the folders above and below it.
std::map<std::string, std::string> withoutFoldersOf(std::map<std::string, std::string> listing, const std::string& rel) {
  for (auto it = listing.begin(); it != listing.end();)
    it = overlaps(it->first, rel) ? listing.erase(it) : std::next(it);
  return listing;
}

std::string percentDecode(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '%' && i + 2 < s.size()) {
      out += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += s[i];
    }
  }
  return out;
}

// The value of `key=` in an info file's text.
std::string infoValue(const std::string& text, const std::string& key) {
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    if (line.rfind(key + "=", 0) == 0) return line.substr(key.size() + 1);
  return "";
}

// A cleaner over a scratch home with every outside effect replaced by a recorder.
struct Harness {
  ScratchHome h;
  std::vector<std::tuple<std::string, std::vector<std::string>, double>> commands;
  Shell::Result commandResult;  // what every tool answers, unless the tool is in `results`
  std::map<std::string, Shell::Result> results;
  std::vector<std::string> prompts;  // the command of every administrator prompt
  std::function<Shell::Result(const std::string&)> answerPrompt = [](const std::string&) {
    Shell::Result r;
    r.status = 1;
    r.stderr = "User canceled.";
    return r;
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
    s.now = [] { return kNow; };
    return s;
  }

  Cleaner cleaner(AppConfig config = {}) { return Cleaner(h.paths(), std::move(config), services(), &session, &queue); }

  std::vector<AuditEntry> audit() const { return AuditLog(h.paths()).recent(1000); }
  // The one record about `target` (newest first in the log; these tests write one per target).
  std::optional<AuditEntry> auditFor(const std::string& target) const {
    for (const auto& e : audit())
      if (e.target == target) return e;
    return std::nullopt;
  }
};

// ---- Disposal ----

TEST(Cleaner, DisposesOfEachItemByCategoryConfigOrOverride) {
  struct Case {
    const char* name;
    CleanCategory category;
    bool quarantineEverything;
    std::map<std::string, Disposal> overrides;
    std::optional<Disposal> disposalOverride;
    Disposal expected;
  };
  const Case cases[] = {
      {"caches are deleted", CleanCategory::userCaches, false, {}, std::nullopt, Disposal::delete_},
      {"old downloads are quarantined", CleanCategory::oldDownloads, false, {}, std::nullopt, Disposal::quarantine},
      {"the user's per-category choice", CleanCategory::userCaches, false, {{"userCaches", Disposal::trash}},
       std::nullopt, Disposal::trash},
      {"quarantine everything", CleanCategory::logs, true, {}, std::nullopt, Disposal::quarantine},
      {"quarantine everything keeps the Trash a deletion", CleanCategory::trash, true, {}, std::nullopt,
       Disposal::delete_},
      {"the caller's override beats the category", CleanCategory::oldDownloads, false, {}, Disposal::trash,
       Disposal::trash},
      {"the caller's override beats the settings", CleanCategory::userCaches, true,
       {{"userCaches", Disposal::quarantine}}, Disposal::delete_, Disposal::delete_},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Harness t;
    const fs::path item = t.h.folder("Library/Caches/com.example.app");
    t.h.text("Library/Caches/com.example.app/a", "alpha");
    t.h.text("Library/Caches/com.example.app/sub/b", "beta");
    AppConfig config;
    config.quarantineEverything = c.quarantineEverything;
    config.disposalOverrides = c.overrides;
    const ScanItem scanItem = pathItem(item, 4096, c.category);
    const TriggerSource trigger = TriggerSource::schedule("Nightly");
    const CleanReport r = t.cleaner(config).clean({scanItem}, trigger, false, c.disposalOverride);

    EXPECT_TRUE(r.failures.empty()) << (r.failures.empty() ? "" : r.failures[0].message);
    EXPECT_FALSE(lexists(item));
    EXPECT_EQ(r.itemsProcessed, 1);
    EXPECT_EQ(r.freedBytes, c.expected == Disposal::delete_ ? 4096 : 0);
    EXPECT_EQ(r.quarantinedBytes, c.expected == Disposal::quarantine ? 4096 : 0);
    EXPECT_EQ(r.trashedBytes, c.expected == Disposal::trash ? 4096 : 0);
    EXPECT_EQ(r.quarantineSessionID.has_value(), c.expected == Disposal::quarantine);
    const fs::path trashed = platform::trashFilesDir(t.h.paths()) / "com.example.app";
    EXPECT_EQ(test::readText(trashed / "sub/b") == "beta", c.expected == Disposal::trash);
    if (c.expected == Disposal::quarantine) {
      const auto sessions = Quarantine(t.h.paths()).sessions();
      ASSERT_EQ(sessions.size(), 1u);
      EXPECT_EQ(sessions[0].id, r.quarantineSessionID);
      ASSERT_EQ(sessions[0].entries.size(), 1u);
      EXPECT_EQ(sessions[0].entries[0].originalPath, item.string());
      EXPECT_EQ(sessions[0].entries[0].category, c.category);
      EXPECT_EQ(sessions[0].trigger, trigger);
    } else {
      EXPECT_FALSE(lexists(t.h.paths().quarantineDir()));
    }
    // Every field of the records is checked in the audit test; here, that the action follows.
    const auto audit = t.audit();
    ASSERT_EQ(audit.size(), 1u);
    EXPECT_EQ(audit[0].action, rawValue(c.expected));
    EXPECT_TRUE(audit[0].success);
  }
}

TEST(Cleaner, QuarantineSessionIsOpenedOnceAndOnlyWhenNeeded) {
  Harness t;
  // Two quarantined items share one session; a deletion beside them stays a deletion. (A clean
  // with nothing to quarantine opens none: see the disposal table.)
  const fs::path c = t.h.text("Downloads/old.zip", "zip bytes");
  const fs::path d = t.h.text("Downloads/Album/photo.jpg", "jpeg bytes");
  const fs::path e = t.h.file("Library/Caches/e", 5);
  const CleanReport r = t.cleaner().clean({pathItem(c, 9, CleanCategory::oldDownloads), pathItem(e, 5),
                         pathItem(d.parent_path(), 10, CleanCategory::oldDownloads)},
                        TriggerSource::manual(), false, std::nullopt);
  EXPECT_TRUE(r.failures.empty());
  EXPECT_EQ(r.quarantinedBytes, 19);
  EXPECT_EQ(r.freedBytes, 5);
  ASSERT_TRUE(r.quarantineSessionID);
  Quarantine q(t.h.paths());
  const auto sessions = q.sessions();
  ASSERT_EQ(sessions.size(), 1u);
  EXPECT_EQ(sessions[0].id, *r.quarantineSessionID);
  EXPECT_EQ(sessions[0].entries.size(), 2u);
  EXPECT_EQ(sessions[0].totalSize(), 19);
  EXPECT_FALSE(lexists(c));
  EXPECT_FALSE(lexists(d.parent_path()));
  // The clean closed its session: the manifest holds both entries and no journal is left.
  const fs::path dir = t.h.paths().quarantineDir() / *r.quarantineSessionID;
  EXPECT_FALSE(lexists(dir / "journal.jsonl"));
  EXPECT_EQ(JSONStore::load<QuarantineSession>(dir / "manifest.json", quarantineSessionFromJson), sessions[0]);

  // Restoring the session brings both back exactly; the deleted one stays gone.
  EXPECT_TRUE(q.restore(*r.quarantineSessionID, kNow).empty());
  EXPECT_EQ(test::readText(c), "zip bytes");
  EXPECT_EQ(test::readText(d), "jpeg bytes");
  EXPECT_FALSE(lexists(e));
}

TEST(Cleaner, TrashKeepsTheOriginalPathAndNeverOverwrites) {
  Harness t;
  const fs::path files = platform::trashFilesDir(t.h.linuxPaths());
  const fs::path info = files.parent_path() / "info";
  // Two items of the same name, and a stray file in the Trash without an info file.
  const fs::path first = t.h.text("Library/Caches/one/100% é #1.txt", "first");
  const fs::path second = t.h.text("Library/Caches/two/100% é #1.txt", "second");
  const fs::path stray = t.h.text("Library/Caches/stray.log", "mine");
  fs::create_directories(files);
  std::ofstream(files / "stray.log") << "already in the Trash";

  Cleaner freedesktop(t.h.linuxPaths(), AppConfig{}, t.services(), &t.session, &t.queue);
  const CleanReport r = freedesktop.clean({pathItem(first, 5), pathItem(second, 6), pathItem(stray, 4)},
                                          TriggerSource::manual(), false, Disposal::trash);
  ASSERT_TRUE(r.failures.empty()) << r.failures[0].message;
  EXPECT_EQ(r.trashedBytes, 15);
  EXPECT_EQ(r.freedBytes, 0);

  struct Case {
    std::string trashName;
    fs::path original;
    std::string content;
    std::string encodedTail;  // how the original's last components read in "Path="
  };
  const Case cases[] = {
      {"100% é #1.txt", first, "first", "/one/100%25%20%C3%A9%20%231.txt"},
      {"100% é #1.2.txt", second, "second", "/two/100%25%20%C3%A9%20%231.txt"},
      {"stray.2.log", stray, "mine", "/Library/Caches/stray.log"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.trashName);
    EXPECT_FALSE(lexists(c.original));
    EXPECT_EQ(test::readText(files / c.trashName), c.content);
    const std::string text = test::readText(info / (c.trashName + ".trashinfo"));
    EXPECT_EQ(text.rfind("[Trash Info]\n", 0), 0u) << text;
    const std::string encoded = infoValue(text, "Path");
    EXPECT_EQ(percentDecode(encoded), c.original.string());
    // Blanks, '%', '#' and non-ASCII bytes are escaped; the path stays readable otherwise.
    EXPECT_EQ(encoded.find_first_of(" #é"), std::string::npos) << encoded;
    EXPECT_EQ(encoded.substr(encoded.size() - std::min(encoded.size(), c.encodedTail.size())), c.encodedTail);
    EXPECT_EQ(infoValue(text, "DeletionDate"), Dates::local(kNow, "yyyy-MM-ddTHH:mm:ss"));
  }
  EXPECT_EQ(test::readText(files / "stray.log"), "already in the Trash");
  EXPECT_FALSE(lexists(info / "stray.log.trashinfo"));
  EXPECT_EQ(std::distance(fs::directory_iterator(files), fs::directory_iterator()), 4);
  EXPECT_EQ(std::distance(fs::directory_iterator(info), fs::directory_iterator()), 3);
}

// ---- Dry run ----

TEST(Cleaner, DryRunTouchesNothingAndReportsByDisposal) {
  Harness t;
  const fs::path cache = t.h.file("Library/Caches/c", 1);
  const fs::path download = t.h.file("Downloads/d.zip", 1);
  const fs::path log = t.h.file("Library/Logs/l.log", 1);
  const fs::path key = t.h.text(".ssh/id_ed25519", "key");
  const fs::path cloud = t.h.file("Library/Mobile Documents/com~apple~CloudDocs/big.mov", 1);
  AppConfig config;
  config.disposalOverrides["logs"] = Disposal::trash;
  const std::vector<ScanItem> items = {
      pathItem(cache, 100),
      pathItem(download, 200, CleanCategory::oldDownloads),
      pathItem(log, 300, CleanCategory::logs),
      withTarget(pathItem(cloud, 400, CleanCategory::cloudLocalCopies), ItemTarget::forEvict(cloud.string())),
      withTarget(pathItem("docker", 500, CleanCategory::docker), ItemTarget::forCommand({"docker", {"system", "prune"}})),
      withTarget(pathItem("/Library/Caches/kestrel-never/x", 600), ItemTarget::forAdminPath("/Library/Caches/kestrel-never/x")),
      pathItem(t.h.path("Library/Caches/gone"), 700),
      pathItem(key, 800),
  };
  const auto before = treeListing(t.h.root());
  std::vector<std::pair<size_t, size_t>> progress;
  const CleanReport r = t.cleaner(config).clean(items, TriggerSource::manual(), true, std::nullopt,
                                                [&](size_t done, size_t total) { progress.emplace_back(done, total); });
  EXPECT_EQ(treeListing(t.h.root()), before);
  EXPECT_FALSE(lexists(t.h.paths().auditFile()));
  EXPECT_FALSE(lexists(t.h.paths().quarantineDir()));
  EXPECT_EQ(r.freedBytes, 100);
  EXPECT_EQ(r.quarantinedBytes, 200);
  EXPECT_EQ(r.trashedBytes, 300);
  EXPECT_EQ(r.evictedBytes, 400);
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

// ---- Items that changed since the scan ----

TEST(Cleaner, VanishedItemsAreGoneAndPlaceholdersAreRemovedInstead) {
  struct Case {
    const char* name;
    std::function<fs::path(ScratchHome&)> setup;  // returns the item's path
    fs::path leftOver;                            // relative to the home: must be gone afterwards
    int64_t freed;
    const char* auditAction;
    const char* failure;
  };
  const Case cases[] = {
      {"removed by someone else", [](ScratchHome& h) { return h.path("Library/Caches/gone"); }, "", 0, "gone",
       nullptr},
      {"its folder became a file", [](ScratchHome& h) {
         h.file("Library/Caches/was-a-folder", 3);
         return h.path("Library/Caches/was-a-folder/item");
       }, "", 0, "gone", nullptr},
      {"only the cloud placeholder is left", [](ScratchHome& h) {
         h.text("Library/Caches/.Report.pdf.icloud", "placeholder");
         return h.path("Library/Caches/Report.pdf");
       }, "Library/Caches/.Report.pdf.icloud", 42, "delete", nullptr},
      {"a name no file system can hold", [](ScratchHome& h) {
         h.folder("Library/Caches");
         return h.path("Library/Caches/" + std::string(300, 'n'));
       }, "", 0, nullptr, "couldn't be read (the drive it's on may be offline)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Harness t;
    const fs::path item = c.setup(t.h);
    const CleanReport r = t.cleaner().clean({pathItem(item, 42)}, TriggerSource::manual(), false, std::nullopt);
    EXPECT_EQ(r.freedBytes, c.freed);
    if (!c.leftOver.empty()) {
      EXPECT_FALSE(lexists(t.h.path(c.leftOver.string())));
    }
    if (c.failure) {
      ASSERT_EQ(r.failures.size(), 1u) << JsonText::compact(toJson(r));
      EXPECT_EQ(r.failures[0].itemID, "item:" + item.filename().string());
      EXPECT_EQ(r.failures[0].message, c.failure);
    } else {
      EXPECT_TRUE(r.failures.empty());
    }
    if (c.auditAction) {
      const auto audit = t.audit();
      ASSERT_EQ(audit.size(), 1u);
      EXPECT_EQ(audit[0].action, c.auditAction);
      EXPECT_EQ(audit[0].target, c.leftOver.empty() ? item.string() : t.h.path(c.leftOver.string()).string());
      EXPECT_TRUE(audit[0].success);
    }
  }
}

// ---- Commands ----

TEST(Cleaner, CommandsReportTheirExitAndGetTheirExactArguments) {
  struct Case {
    int status;
    std::string stderrText;
    std::optional<std::string> failure;
  };
  const Case cases[] = {
      {0, "", std::nullopt},
      {0, "warning: nothing to prune", std::nullopt},
      {3, "", "exit 3"},
      {1, "Cannot connect to the Docker daemon", "Cannot connect to the Docker daemon"},
      {127, "", "exit 127"},
  };
  const CommandSpec pruneCommand{"docker", {"system", "prune", "--force", "--filter", "until=24h"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.status) + " " + c.stderrText);
    Harness t;
    t.commandResult.status = c.status;
    t.commandResult.stderr = c.stderrText;
    const ScanItem item = withTarget(pathItem("docker-images", 1000, CleanCategory::docker), ItemTarget::forCommand(pruneCommand));
    const CleanReport r = t.cleaner().clean({item}, TriggerSource::schedule("Weekly"), false, std::nullopt);
    ASSERT_EQ(t.commands.size(), 1u);
    EXPECT_EQ(std::get<0>(t.commands[0]), "docker");
    EXPECT_EQ(std::get<1>(t.commands[0]), pruneCommand.arguments);
    EXPECT_EQ(std::get<2>(t.commands[0]), 600);
    EXPECT_EQ(r.freedBytes, c.failure ? 0 : 1000);
    if (c.failure) {
      ASSERT_EQ(r.failures.size(), 1u);
      EXPECT_EQ(r.failures[0], (CleanFailure{"item:docker-images", *c.failure}));
    } else {
      EXPECT_TRUE(r.failures.empty());
    }
    const auto audit = t.audit();
    ASSERT_EQ(audit.size(), 1u);
    EXPECT_EQ(audit[0].action, "command");
    EXPECT_EQ(audit[0].target, "docker system prune --force --filter until=24h");
    EXPECT_EQ(audit[0].success, !c.failure);
    EXPECT_EQ(audit[0].message, c.failure);
    EXPECT_EQ(audit[0].trigger, TriggerSource::schedule("Weekly"));
  }
}

// ---- Protected paths ----

TEST(Cleaner, ProtectedPathsAreSkippedAuditedAndUntouched) {
  struct Case {
    const char* name;
    std::function<fs::path(ScratchHome&)> setup;  // returns the item's path
    std::string givenPath;                        // when the item names it differently (e.g. with "~")
    std::vector<std::string> protectedPaths;
  };
  const Case cases[] = {
      {"private keys", [](ScratchHome& h) { return h.text(".ssh/x", "secret"); }, "~/.ssh/x", {}},
      {"the user's own rule", [](ScratchHome& h) { return h.text("Library/Caches/keep/data", "secret"); }, "",
       {"~/Library/Caches/keep"}},
      {"a folder the rule names a parent of", [](ScratchHome& h) { return h.text("Library/Caches/keep/data", "secret"); },
       "", {"~/Library/Caches/keep/data/deeper"}},
      {"a top-level folder", [](ScratchHome& h) {
         h.text("Library/Caches/inside", "secret");
         return h.path("Library/Caches");
       }, "", {}},
      {"through a home link leading outside", [](ScratchHome& h) {
         const fs::path out = h.outside("elsewhere");
         std::ofstream(out / "precious") << "secret";
         h.link("Library/Caches/shortcut", out);
         return h.path("Library/Caches/shortcut/precious");
       }, "", {}},
      {"a synced cloud folder", [](ScratchHome& h) {
         return h.text("Library/Mobile Documents/com~apple~CloudDocs/notes.txt", "secret");
       }, "", {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Harness t;
    const fs::path item = c.setup(t.h);
    const auto before = treeListing(t.h.root());
    AppConfig config;
    config.protectedPaths = c.protectedPaths;
    const std::string given = c.givenPath.empty() ? item.string() : c.givenPath;
    ScanItem scanItem = pathItem(item, 64);
    scanItem.target = ItemTarget::forPath(given);
    for (auto disposal : {Disposal::delete_, Disposal::quarantine, Disposal::trash}) {
      const CleanReport r = t.cleaner(config).clean({scanItem}, TriggerSource::manual(), false, disposal);
      EXPECT_EQ(r.skippedProtected, std::vector<std::string>{given});
      EXPECT_TRUE(r.failures.empty());
      EXPECT_EQ(r.freedBytes + r.quarantinedBytes + r.trashedBytes, 0);
    }
    // Nothing changed but the audit log.
    const std::string support = fs::relative(t.h.paths().supportDir(), t.h.root()).string();
    EXPECT_EQ(withoutFoldersOf(treeListing(t.h.root()), support), withoutFoldersOf(before, support));
    EXPECT_EQ(test::readText(item.filename() == "Caches" ? item / "inside" : item), "secret");
    const auto audit = t.audit();
    ASSERT_EQ(audit.size(), 3u);
    for (const auto& e : audit) {
      EXPECT_EQ(e.action, "skip");
      EXPECT_EQ(e.target, given);
      EXPECT_FALSE(e.success);
      EXPECT_TRUE(e.message && !e.message->empty());
    }
  }
}

// ---- Administrator rights ----

TEST(Cleaner, AdminItemsAreQueuedWithoutAnyPrompt) {
  Harness t;
  const std::string adminPath = "/Library/Caches/kestrel-never-" + std::to_string(::getpid()) + "/a";
  const std::string needsAdmin = "/Library/Caches/kestrel-never-" + std::to_string(::getpid()) + "/b";
  const std::vector<ScanItem> items = {
      withTarget(pathItem(adminPath, 70), ItemTarget::forAdminPath(adminPath)),
      pathItem(needsAdmin, 30),  // a plain path the policy says needs administrator rights
      withTarget(pathItem("/usr/lib/kestrel-never", 5), ItemTarget::forAdminPath("/usr/lib/kestrel-never")),
  };
  const CleanReport r = t.cleaner().clean(items, TriggerSource::manual(), false, std::nullopt);
  EXPECT_EQ(r.deferredAdmin, 2);
  EXPECT_EQ(r.freedBytes, 0);
  EXPECT_TRUE(r.failures.empty());
  EXPECT_EQ(r.skippedProtected, std::vector<std::string>{"/usr/lib/kestrel-never"});
  EXPECT_EQ(t.queue.count(), 2u);
  EXPECT_EQ(t.queue.pendingBytes(), 100);
  EXPECT_TRUE(t.prompts.empty());
  for (const auto& path : {adminPath, needsAdmin}) {
    SCOPED_TRACE(path);
    const auto e = t.auditFor(path);
    ASSERT_TRUE(e);
    EXPECT_EQ(e->action, "queued");
    EXPECT_EQ(e->message, "needs admin — queued");
    EXPECT_TRUE(e->success);
  }
  EXPECT_EQ(t.auditFor("/usr/lib/kestrel-never")->action, "skip");
}

TEST(Cleaner, AdminItemsGoInOneBatchWhenNotQueued) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root for an allowed system location";
  Harness t;
  // The prompt authorises at once: its command runs (as this user, root here).
  t.answerPrompt = [](const std::string& cmd) { return Shell::run("/bin/sh", {"-c", cmd}, 60); };
  test::AllowedRoot allowed;
  fs::create_directories(allowed.dir() / "one/inner");
  std::ofstream(allowed.dir() / "one/inner/f") << "data";
  std::ofstream(allowed.dir() / "two") << "data";
  const fs::path refused = t.h.text("Library/Caches/mine", "stays");  // the helper refuses home paths
  AppConfig config;
  config.queueAdminRemovals = false;
  const std::vector<ScanItem> items = {
      withTarget(pathItem(allowed.dir() / "one", 100), ItemTarget::forAdminPath((allowed.dir() / "one").string())),
      withTarget(pathItem(allowed.dir() / "two", 50), ItemTarget::forAdminPath((allowed.dir() / "two").string())),
      withTarget(pathItem(refused, 7), ItemTarget::forAdminPath(refused.string())),
  };
  const CleanReport r = t.cleaner(config).clean(items, TriggerSource::manual(), false, std::nullopt);
  t.session.end();
  EXPECT_EQ(t.prompts.size(), 1u);
  EXPECT_EQ(r.deferredAdmin, 0);
  EXPECT_EQ(t.queue.count(), 0u);
  EXPECT_EQ(r.freedBytes, 150);
  EXPECT_FALSE(lexists(allowed.dir() / "one"));
  EXPECT_FALSE(lexists(allowed.dir() / "two"));
  EXPECT_EQ(test::readText(refused), "stays");
  ASSERT_EQ(r.failures.size(), 1u);
  EXPECT_EQ(r.failures[0].itemID, "item:mine");
  EXPECT_EQ(r.failures[0].message.rfind("Could not remove " + refused.string(), 0), 0u) << r.failures[0].message;
  EXPECT_EQ(t.auditFor((allowed.dir() / "one").string())->action, "delete");
  EXPECT_TRUE(t.auditFor((allowed.dir() / "one").string())->success);
  const auto failed = t.auditFor(refused.string());
  ASSERT_TRUE(failed);
  EXPECT_EQ(failed->action, "delete");
  EXPECT_FALSE(failed->success);
}

using test::Immutable;

TEST(Cleaner, PermissionErrorSendsOnlyADeletionToTheAdminStep) {
  // A deletion the user may not make becomes a privileged deletion; an item meant to stay
  // undoable (quarantine, Trash) fails instead of being removed for good behind their back.
  struct Case {
    Disposal disposal;
    bool queued;
  };
  const Case cases[] = {{Disposal::delete_, true}, {Disposal::quarantine, false}, {Disposal::trash, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(rawValue(c.disposal)));
    Harness t;
    const fs::path item = t.h.text("Library/Caches/locked/item", "kept");
    fs::create_directories(platform::trashFilesDir(t.h.paths()));
    Immutable lock(item.parent_path());
    if (!lock.ok()) GTEST_SKIP() << "cannot make a folder immutable here (chattr +i failed)";
    const CleanReport r = t.cleaner().clean({pathItem(item, 10)}, TriggerSource::manual(), false, c.disposal);
    EXPECT_EQ(test::readText(item), "kept");
    EXPECT_EQ(r.freedBytes + r.quarantinedBytes + r.trashedBytes, 0);
    EXPECT_EQ(r.deferredAdmin, c.queued ? 1 : 0);
    EXPECT_EQ(t.queue.count(), c.queued ? 1u : 0u);
    EXPECT_TRUE(t.prompts.empty());
    const auto e = t.auditFor(item.string());
    ASSERT_TRUE(e);
    if (c.queued) {
      EXPECT_TRUE(r.failures.empty()) << r.failures[0].message;
      EXPECT_EQ(e->action, "queued");
    } else {
      ASSERT_EQ(r.failures.size(), 1u);
      EXPECT_NE(r.failures[0].message.find(std::system_error(EPERM, std::generic_category()).code().message()),
                std::string::npos)
          << r.failures[0].message;
      EXPECT_EQ(e->action, rawValue(c.disposal));
      EXPECT_FALSE(e->success);
    }
    // A refused move leaves no half-made Trash entry and no quarantine entry behind.
    const fs::path info = platform::trashFilesDir(t.h.paths()).parent_path() / "info";
    EXPECT_FALSE(lexists(info / "item.trashinfo"));
    // The session opened for the item that could not go in is not left behind empty.
    EXPECT_FALSE(r.quarantineSessionID);
    EXPECT_TRUE(Quarantine(t.h.paths()).sessions().empty());
  }
}

// ---- Audit ----

TEST(Cleaner, EveryActionIsAuditedOneDecodableRecordPerLine) {
  Harness t;
  const fs::path del = t.h.file("Library/Caches/del", 11);
  const fs::path quar = t.h.file("Downloads/quar.dmg", 22);
  const fs::path trash = t.h.file("Library/Logs/trash.log", 33);
  const fs::path cloud = t.h.file("Library/Mobile Documents/com~apple~CloudDocs/movie.mov", 44);
  const fs::path key = t.h.file(".gnupg/pubring.kbx", 1);
  // A message with a line break and quotes must not break the one-record-per-line form.
  t.commandResult.status = 2;
  t.commandResult.stderr = "first line\n\"second\" line\n";
  AppConfig config;
  config.disposalOverrides["logs"] = Disposal::trash;
  const TriggerSource trigger = TriggerSource::schedule("Tidy \"weekly\"");
  const std::vector<ScanItem> items = {
      pathItem(del, 11),
      pathItem(quar, 22, CleanCategory::installers),
      pathItem(trash, 33, CleanCategory::logs),
      withTarget(pathItem(cloud, 44, CleanCategory::cloudLocalCopies), ItemTarget::forEvict(cloud.string())),
      withTarget(pathItem("brew", 55, CleanCategory::packageCaches), ItemTarget::forCommand({"brew", {"cleanup"}})),
      pathItem(key, 1),
      pathItem(t.h.path("Library/Caches/vanished"), 66),
  };
  t.results["brctl"] = Shell::Result{};  // the local copy goes through the cloud tool
  const CleanReport r = t.cleaner(config).clean(items, trigger, false, std::nullopt);
  const std::tuple<std::string, std::vector<std::string>, double> evicted{"brctl", {"evict", cloud.string()}, 60};
  EXPECT_EQ(std::count(t.commands.begin(), t.commands.end(), evicted), 1);
  EXPECT_EQ(r.evictedBytes, 44);

  struct Case {
    std::string target;
    const char* action;
    std::optional<CleanCategory> category;
    int64_t size;
    bool success;
  };
  const Case cases[] = {
      {del.string(), "delete", CleanCategory::userCaches, 11, true},
      {quar.string(), "quarantine", CleanCategory::installers, 22, true},
      {trash.string(), "trash", CleanCategory::logs, 33, true},
      {cloud.string(), "evict", CleanCategory::cloudLocalCopies, 44, true},
      {"brew cleanup", "command", CleanCategory::packageCaches, 55, false},
      {key.string(), "skip", CleanCategory::userCaches, 1, false},
      {t.h.path("Library/Caches/vanished").string(), "gone", CleanCategory::userCaches, 0, true},
  };
  std::ifstream in(t.h.paths().auditFile());
  std::vector<AuditEntry> lines;
  for (std::string line; std::getline(in, line);) {
    auto e = decodeAuditLine(line);
    ASSERT_TRUE(e) << line;
    lines.push_back(*e);
  }
  ASSERT_EQ(lines.size(), std::size(cases));
  for (size_t i = 0; i < std::size(cases); ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(c.target);
    EXPECT_EQ(lines[i].target, c.target);  // in the order the items were handled
    EXPECT_EQ(lines[i].action, c.action);
    EXPECT_EQ(lines[i].category, c.category);
    EXPECT_EQ(lines[i].size, c.size);
    EXPECT_EQ(lines[i].success, c.success);
    EXPECT_EQ(lines[i].trigger, trigger);
    EXPECT_EQ(lines[i].date, kNow);
  }
  EXPECT_EQ(lines[4].message, "first line\n\"second\" line\n");
  EXPECT_EQ(AuditLog(t.h.paths()).recent(3).front(), lines.back());
}

// ---- Restore ----

TEST(Cleaner, RestoreIsAuditedAndReportsEachEntryThatCouldNotGoBack) {
  Harness t;
  const fs::path a = t.h.text("Downloads/a.pdf", "aaaa");
  const fs::path b = t.h.text("Downloads/b.pdf", "bbbbbb");
  const CleanReport r = t.cleaner().clean({pathItem(a, 4, CleanCategory::oldDownloads), pathItem(b, 6, CleanCategory::oldDownloads)},
                                          TriggerSource::manual(), false, std::nullopt);
  ASSERT_TRUE(r.quarantineSessionID);
  // Something new took b's place meanwhile: it is never overwritten.
  t.h.text("Downloads/b.pdf", "new b");
  const auto failures = t.cleaner().restore(*r.quarantineSessionID);
  EXPECT_EQ(test::readText(a), "aaaa");
  EXPECT_EQ(test::readText(b), "new b");
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_EQ(failures[0].message, "Something already exists at " + b.string() + ". Move it first, then restore.");
  const auto sessions = Quarantine(t.h.paths()).sessions();
  ASSERT_EQ(sessions.size(), 1u);
  EXPECT_EQ(failures[0].itemID, sessions[0].entries[1].id());
  const AuditEntry last = t.audit().front();
  EXPECT_EQ(last.action, "restore");
  EXPECT_EQ(last.target, *r.quarantineSessionID);
  EXPECT_EQ(last.size, 4);
  EXPECT_FALSE(last.success);
  EXPECT_EQ(last.message, "1 item(s) could not be restored");
  EXPECT_EQ(last.date, kNow);

  // Once the place is free the rest goes back, audited as a success.
  fs::remove(b);
  EXPECT_TRUE(t.cleaner().restore(*r.quarantineSessionID, std::set<std::string>{failures[0].itemID}).empty());
  EXPECT_EQ(test::readText(b), "bbbbbb");
  EXPECT_TRUE(t.audit().front().success);
  EXPECT_EQ(t.audit().front().size, 6);
  EXPECT_THROW(t.cleaner().restore("20260301-093000-ABCDEF"), std::system_error);
}

// ---- Race: a folder being cleaned swapped for a link out of the home folder ----

int cleanRaceIterations() {
  const char* env = std::getenv("KESTREL_CLEAN_RACE_ITERATIONS");
  return env ? std::max(1000, std::atoi(env)) : 1000;
}

void writeFile(const fs::path& p, const std::string& text) {
  fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary | std::ios::trunc) << text;
}

TEST(CleanerRace, SwappedFolderNeverLeadsOutside) {
  ScratchHome h;
  const fs::path app = h.path("Library/Caches/app");
  const fs::path blob = app / "blob";
  const fs::path canary = h.outside("canary");
  constexpr int kFiles = 20;
  // The canary folder looks like the real one, so a followed link finds a "blob" to act on.
  for (int i = 0; i < kFiles; ++i) writeFile(canary / "blob" / ("f" + std::to_string(i)), "canary " + std::to_string(i));
  writeFile(canary / ".ssh/id", "secret key");
  const auto canaryListing = treeListing(h.root() / "canary");
  auto canariesIntact = [&] {
    for (int i = 0; i < kFiles; ++i)
      if (test::readText(canary / "blob" / ("f" + std::to_string(i))) != "canary " + std::to_string(i)) return false;
    return test::readText(canary / ".ssh/id") == "secret key" && treeListing(h.root() / "canary") == canaryListing;
  };

  AdminQueue queue{h.paths()};
  Services services;
  services.adminPrompt = [](const std::string&, const std::string&, double) {
    ADD_FAILURE() << "no clean in this race may prompt";
    return Shell::Result{1, "", "refused"};
  };
  services.now = [] { return kNow; };
  services.run = [](const std::string&, const std::vector<std::string>&, double) { return Shell::Result{}; };
  PrivilegedSession session(h.paths(), services);

  std::mt19937 rng(4242);
  const int iterations = cleanRaceIterations();
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

    ASSERT_TRUE(canariesIntact()) << "round " << i << " with " << rawValue(disposals[i % 3]) << " reached outside";
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
    ASSERT_TRUE(canariesIntact());
  }
  EXPECT_GT(done, 0);
  EXPECT_GT(refused, 0) << "the attacker never got a link in place; the harness is not racing";
  RecordProperty("done", done);
  RecordProperty("refused", refused);
}

}  // namespace
}  // namespace kestrel
