// Everyday scanners: each filter at its boundary, dates and order of items, ages past the clock,
// backup names, odd names and links.
#include "core/scan/scanners/Scanners.h"

#include "tests/support/ScratchHome.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <plist/plist.h>

#include <fstream>
#include <functional>
#include <memory>

namespace kestrel {
namespace {

using test::ScratchHome;

using test::kTestNow;

std::vector<ScanItem> runScanner(CleanCategory category, const ScratchHome& h, Date now = kTestNow,
                                 AppConfig config = {}) {
  auto scanners = ScannerRegistry::scanners({category});
  EXPECT_EQ(scanners.size(), 1u);
  const ScanContext context{h.paths(), config, now};
  return scanners.front()->scan(context);
}

const ScanItem* find(const std::vector<ScanItem>& items, const fs::path& path) {
  for (const auto& i : items)
    if (i.id == path.string()) return &i;
  return nullptr;
}

TEST(EverydayScanners, FiltersHoldAtTheirBoundaries) {
  using C = CleanCategory;
  const std::string mail = "Library/Containers/com.apple.mail/Data/Library/Mail Downloads/";
  const std::string saved = "Library/Saved Application State/";
  const double minute = 1.0 / 1440;
  const struct Case {
    const char* name;
    C category;
    std::string child;  // the direct child the scanner may list
    std::string inner;  // a file inside it (empty: the child itself is the file)
    int64_t bytes;
    double ageDays;     // of the child and, with ageInner, of the file inside
    bool ageInner;
    bool listed;
  } cases[] = {
      {"cache under 64 KiB", C::userCaches, "Library/Caches/com.small", "data", 60000, 2, true, false},
      {"cache of exactly 64 KiB", C::userCaches, "Library/Caches/com.exact", "data", 65536, 2, true, true},
      {"excluded cache", C::userCaches, "Library/Caches/Homebrew", "big", 200000, 2, true, false},
      {"another excluded cache", C::userCaches, "Library/Caches/com.apple.bird", "big", 200000, 2, true, false},
      {"cache written 59 minutes ago", C::userCaches, "Library/Caches/com.fresh", "d", 200000, 59 * minute, true, false},
      {"cache written 61 minutes ago", C::userCaches, "Library/Caches/com.hour", "d", 200000, 61 * minute, true, true},
      {"cache file", C::userCaches, "Library/Caches/loose.db", "", 70000, 2, false, true},
      {"old log", C::logs, "Library/Logs/app.log", "", 10, 3.01, false, true},
      {"log just under the age", C::logs, "Library/Logs/recent.log", "", 10, 2.99, false, false},
      {"old log folder", C::logs, "Library/Logs/App", "old.log", 10, 5, true, true},
      {"old folder, fresh log inside", C::logs, "Library/Logs/Busy", "new.log", 10, 5, false, false},
      {"empty log", C::logs, "Library/Logs/empty.log", "", 0, 10, false, false},
      {"crash reports are not logs", C::logs, "Library/Logs/DiagnosticReports", "a.ips", 10, 10, true, false},
      {"own log folder", C::logs, "Library/Logs/orvo Kestrel", "agent.log", 10, 10, true, false},
      {"crash report", C::crashReports, "Library/Logs/DiagnosticReports/a.ips", "", 10, 1, false, true},
      {"empty crash report", C::crashReports, "Library/Logs/DiagnosticReports/e.ips", "", 0, 1, false, false},
      {"fresh crash report", C::crashReports, "Library/Logs/DiagnosticReports/f.ips", "", 10, 0, false, false},
      {"empty file in the Trash", C::trash, ".Trash/empty", "", 0, 0, false, true},
      {"fresh file in the Trash", C::trash, ".Trash/fresh", "", 10, 0, false, true},
      {"saved state 13 days old", C::savedAppState, saved + "a.savedState", "w.data", 10, 13, true, false},
      {"saved state 15 days old", C::savedAppState, saved + "b.savedState", "w.data", 10, 15, true, true},
      {"empty saved state", C::savedAppState, saved + "c.savedState", "", 0, 15, false, false},
      {"attachment 6 days old", C::mailDownloads, mail + "A", "a.pdf", 10, 6, true, false},
      {"attachment 8 days old", C::mailDownloads, mail + "B", "b.pdf", 10, 8, true, true},
      {"installer in any case", C::installers, "Downloads/App.DMG", "", 10, 1, false, true},
      {"package on the Desktop", C::installers, "Desktop/Tool.Pkg", "", 10, 1, false, true},
      {"meta package", C::installers, "Downloads/Suite.mpkg", "Contents", 10, 1, true, true},
      {"not an installer", C::installers, "Downloads/notes.txt", "", 10, 1, false, false},
      {"installer being downloaded", C::installers, "Downloads/fresh.dmg", "", 10, 0, false, false},
      {"empty installer", C::installers, "Downloads/empty.pkg", "", 0, 1, false, false},
      {"download 181 days old", C::oldDownloads, "Downloads/old.zip", "", 10, 181, false, true},
      {"download 179 days old", C::oldDownloads, "Downloads/recent.zip", "", 10, 179, false, false},
      {"old installer is not an old download", C::oldDownloads, "Downloads/Old.DmG", "", 10, 400, false, false},
      {"firmware", C::iosUpdates, "Library/iTunes/iPhone Software Updates/a.ipsw", "", 10, 1, false, true},
      {"iPad firmware", C::iosUpdates, "Library/iTunes/iPad Software Updates/b.ipsw", "", 10, 1, false, true},
      {"fresh firmware", C::iosUpdates, "Library/iTunes/iPod Software Updates/c.ipsw", "", 10, 0, false, false},
      {"backup", C::iosBackups, "Library/Application Support/MobileSync/Backup/0a1b", "Manifest.db", 10, 1, true, true},
      {"backup being written", C::iosBackups, "Library/Application Support/MobileSync/Backup/0a1c", "M", 10, 0, true, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchHome h;
    h.file(c.inner.empty() ? c.child : c.child + "/" + c.inner, c.bytes);
    if (c.ageInner) h.age(c.child + "/" + c.inner, c.ageDays, kTestNow);
    h.age(c.child, c.ageDays, kTestNow);
    const auto items = runScanner(c.category, h);
    EXPECT_EQ(find(items, h.path(c.child)) != nullptr, c.listed);
    for (const auto& item : items) EXPECT_EQ(item.category, c.category);
  }
}

TEST(EverydayScanners, ItemsCarryTheirDatesAndOrder) {
  ScratchHome h;
  using C = CleanCategory;
  const std::pair<C, std::string> cases[] = {
      {C::userCaches, "Library/Caches/com.app"}, {C::trash, ".Trash/old doc.txt"},
      {C::installers, "Downloads/Z.pkg"},        {C::installers, "Desktop/B.pkg"},
      {C::installers, "Downloads/A.dmg"},        {C::oldDownloads, "Downloads/a.zip"},
  };
  for (const auto& [category, child] : cases) h.aged(child, 70000, 200, kTestNow);
  // A later access must not count for the Trash: it shows when the item was last changed.
  struct timespec ts[2] = {{static_cast<time_t>(Dates::unixSeconds(kTestNow)), 0}, {0, UTIME_OMIT}};
  ASSERT_EQ(::utimensat(AT_FDCWD, h.path(".Trash/old doc.txt").c_str(), ts, AT_SYMLINK_NOFOLLOW), 0);
  for (const auto& [category, child] : cases) {
    SCOPED_TRACE(child);
    const auto items = runScanner(category, h);
    const ScanItem* item = find(items, h.path(child));
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->title, h.path(child).filename().string());
    EXPECT_EQ(item->target, ItemTarget::forPath(h.path(child).string()));
    EXPECT_GE(item->size, 70000);
    EXPECT_EQ(item->lastUsed, kTestNow - std::chrono::hours(200 * 24));
  }
  // Installers: the Downloads folder first, then the Desktop, each in name order.
  std::vector<std::string> installers;
  for (const auto& i : runScanner(C::installers, h)) installers.push_back(i.title);
  EXPECT_EQ(installers, (std::vector<std::string>{"A.dmg", "Z.pkg", "B.pkg"}));
}

TEST(EverydayScanners, AgesTooLargeForTheClockMeanNever) {
  ScratchHome h;
  h.aged("Library/Caches/fresh/blob", 200000, 0.1, kTestNow);
  h.aged("Library/Logs/app.log", 1000, 2.0 / 24, kTestNow);
  h.aged("Downloads/paper.pdf", 1000, 2.0 / 24, kTestNow);
  AppConfig config;
  config.minItemAgeHours = 3000000;
  config.logAgeDays = 200000;
  config.oldDownloadsDays = 200000;
  for (auto c : {CleanCategory::userCaches, CleanCategory::logs, CleanCategory::oldDownloads})
    EXPECT_TRUE(runScanner(c, h, kTestNow, config).empty()) << rawValue(c);
}

std::vector<char> bytesOf(const std::string& s) { return std::vector<char>(s.begin(), s.end()); }

std::string plistXml(const std::string& dictBody) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" + dictBody + "</dict></plist>\n";
}

// Through libplist's C interface: its C++ wrappers leak the nodes inside lists.
std::vector<char> toBinary(const std::string& xml) {
  plist_t root = nullptr;
  plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &root);
  if (!root) return {};
  char* bin = nullptr;
  uint32_t length = 0;
  plist_to_bin(root, &bin, &length);
  plist_free(root);
  std::vector<char> out(bin, bin + length);
  plist_to_bin_free(bin);
  return out;
}

TEST(EverydayScanners, BackupInfoFromXmlAndBinaryPropertyLists) {
  // Dates are written as XML text: this libplist's Date-from-timeval constructor is broken.
  const std::string xml = plistXml(
      "<key>Display Name</key><string>Shown name</string><key>Device Name</key><string>Ada's iPhone</string>"
      "<key>Last Backup Date</key><date>2002-01-01T00:00:00Z</date>");
  const std::vector<char> binary = toBinary(xml);
  ASSERT_GT(binary.size(), 8u);

  const std::string withApps = plistXml(
      "<key>Device Name</key><string>Ada's iPhone</string><key>Installed Applications</key>"
      "<array><string>com.example.a</string><string>com.example.b</string></array>"
      "<key>Last Backup Date</key><date>2002-01-01T00:00:00Z</date>");
  const struct Case {
    const char* name;
    std::vector<char> bytes;
    bool parses;
    std::optional<std::string> device;
    bool hasDate;
  } cases[] = {
      {"xml", bytesOf(xml), true, "Ada's iPhone", true},
      {"binary", binary, true, "Ada's iPhone", true},
      {"display name only", bytesOf(plistXml("<key>Display Name</key><string>iPad</string>")), true,
       "iPad", false},
      {"garbage", bytesOf("not a property list"), false, std::nullopt, false},
      {"empty", {}, false, std::nullopt, false},
      {"an empty list", bytesOf("<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>"),
       false, std::nullopt, false},
      // Lists inside, as devices write them, and a list at the top: their nodes are all freed
      // (the sanitizer build checks for leaks).
      {"with a list of applications", bytesOf(withApps), true, "Ada's iPhone", true},
      {"with a list, binary", toBinary(withApps), true, "Ada's iPhone", true},
      {"a list of items",
       bytesOf("<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>a</string>"
               "<integer>1</integer><array><real>2.5</real></array></array></plist>"),
       false, std::nullopt, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto info = parseBackupInfo(c.bytes);
    ASSERT_EQ(info.has_value(), c.parses);
    if (!info) continue;
    EXPECT_EQ(info->deviceName, c.device);
    ASSERT_EQ(info->lastBackup.has_value(), c.hasDate);
    if (c.hasDate) {
      EXPECT_EQ(*info->lastBackup, Dates::parseISO8601("2002-01-01T00:00:00Z"));
    }
  }
}

TEST(EverydayScanners, BackupItemsAreNamedAfterTheirDevice) {
  ScratchHome h;
  const Date now = kTestNow;
  const std::vector<char> binary = toBinary(
      plistXml("<key>Device Name</key><string>Ada's iPhone</string>"
               "<key>Last Backup Date</key><date>2026-05-09T00:00:00Z</date>"));
  const std::string backups = "Library/Application Support/MobileSync/Backup/";
  h.text(backups + "named/Info.plist", std::string(binary.begin(), binary.end()));
  h.file(backups + "named/Manifest.db", 5000);
  h.file(backups + "unnamed/Manifest.db", 5000);
  h.age(backups + "named", 3, now);
  h.age(backups + "unnamed", 3, now);
  const auto items = runScanner(CleanCategory::iosBackups, h, now);
  ASSERT_EQ(items.size(), 2u);
  const ScanItem* named = find(items, h.path(backups + "named"));
  const ScanItem* unnamed = find(items, h.path(backups + "unnamed"));
  ASSERT_TRUE(named && unnamed);
  EXPECT_EQ(named->title, "Ada's iPhone");
  EXPECT_EQ(named->risk, Risk::caution);
  EXPECT_EQ(named->reason.rfind("Device backup from ", 0), 0u);
  EXPECT_NE(named->reason.find("2026-05-0"), std::string::npos) << named->reason;
  EXPECT_EQ(named->lastUsed, Dates::parseISO8601("2026-05-09T00:00:00Z"));
  EXPECT_EQ(unnamed->title, "unnamed");
  const std::string tail = ". Keep at least one recent backup.";
  EXPECT_EQ(unnamed->reason.substr(unnamed->reason.size() - tail.size()), tail);
}

TEST(EverydayScanners, OddNamesAndBrokenFoldersNeverLeaveTheFolder) {
  ScratchHome h;
  const Date now = kTestNow;
  const std::vector<std::string> names = {"with blank", "new\nline", std::string("bad\xff\xfe utf8"), "ünïcödé",
                                          " leading", "-dash"};
  for (const auto& n : names) {
    h.file("Library/Caches/" + n + "/blob", 70000);
    h.age("Library/Caches/" + n, 2, now);
  }
  h.link("Library/Caches/dangling", h.path("nowhere"));
  h.link("Library/Caches/outlink", h.outside("big"));
  h.file("Library/Caches/fifo-parent/blob", 70000);
  h.age("Library/Caches/fifo-parent", 2, now);
  ASSERT_EQ(::mkfifo(h.path("Library/Caches/fifo").c_str(), 0600), 0);
  const auto items = runScanner(CleanCategory::userCaches, h, now);
  ASSERT_EQ(items.size(), names.size() + 1);
  for (const auto& item : items) {
    EXPECT_EQ(fs::path(item.id).parent_path(), h.path("Library/Caches"));
    EXPECT_NE(item.title, "dangling");
    EXPECT_NE(item.title, "outlink");
  }
  for (const auto& n : names) EXPECT_NE(find(items, h.path("Library/Caches/" + n)), nullptr) << n;
}

TEST(EverydayScanners, LinkedRootsAreFollowedOnlyWhereTheyMay) {
  const struct Case {
    const char* name;
    const char* cacheIn;       // home-relative folder that gets an old cache "com.app"
    const char* link;          // what "Library/Caches" (or "Library") leads to, home-relative
    bool library, disown, listed;
  } cases[] = {
      {"Library links to the user's folder on another disk", "../outside/lib/Caches", "../outside/lib", true, false, true},
      {"cache folder links inside home", "elsewhere", "elsewhere", false, false, true},
      {"cache folder links to someone else's folder", "../outside/theirs", "../outside/theirs", false, true, false},
      {"cache folder links into protected data", ".ssh", ".ssh", false, false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchHome h;
    h.aged(std::string(c.cacheIn) + "/com.app/blob", 70000, 2, kTestNow);
    h.folder("Library");
    if (c.library) fs::remove(h.path("Library"));
    h.link(c.library ? "Library" : "Library/Caches", fs::canonical(h.path(c.link)));
    if (c.disown && !test::disown(h.path(c.link))) continue;  // only root can give a folder away
    const auto items = runScanner(CleanCategory::userCaches, h);
    ASSERT_EQ(items.size(), c.listed ? 1u : 0u);
    if (!c.listed) continue;
    // Listed under the name the user knows, acted on where it really is.
    EXPECT_EQ(items[0].id, h.path("Library/Caches/com.app").string());
    EXPECT_EQ(items[0].realPath, fs::canonical(h.path("Library/Caches/com.app")).string());
  }
  ScratchHome h;  // nothing where the cache folder should be, or a file
  EXPECT_TRUE(runScanner(CleanCategory::userCaches, h).empty());
  h.file("Library", 100);
  EXPECT_TRUE(runScanner(CleanCategory::userCaches, h).empty());
}

TEST(EverydayScanners, ScanningLeavesAccessTimesAlone) {
  ScratchHome h;
  const Date now = kTestNow;
  const std::string backup = "Library/Application Support/MobileSync/Backup/dev";
  h.text(backup + "/Info.plist", plistXml(""));
  h.file("Library/Caches/com.app/sub/blob", 70000);
  h.file("Library/Logs/App/old.log", 100);
  for (const char* rel : {"Library/Caches/com.app/sub/blob", "Library/Caches/com.app/sub", "Library/Caches/com.app",
                          "Library/Logs/App/old.log", "Library/Logs/App", "Library/Caches", "Library/Logs"})
    h.age(rel, 10, now);
  h.age(backup + "/Info.plist", 10, now);
  h.age(backup, 10, now);
  const auto atime = [&](const std::string& rel) {
    struct stat st;
    EXPECT_EQ(::lstat(h.path(rel).c_str(), &st), 0);
    return std::pair(st.st_atim.tv_sec, st.st_atim.tv_nsec);
  };
  const std::vector<std::string> watched = {"Library/Caches/com.app", "Library/Caches/com.app/sub",
                                            "Library/Logs/App", backup, backup + "/Info.plist", "Library/Caches"};
  std::vector<std::pair<time_t, long>> before;
  for (const auto& rel : watched) before.push_back(atime(rel));
  for (CleanCategory c : {CleanCategory::userCaches, CleanCategory::logs, CleanCategory::iosBackups})
    EXPECT_EQ(runScanner(c, h, now).size(), 1u) << rawValue(c);
  for (size_t i = 0; i < watched.size(); ++i) EXPECT_EQ(atime(watched[i]), before[i]) << watched[i];
}

}  // namespace
}  // namespace kestrel
