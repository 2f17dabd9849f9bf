// The Linux location tables: every row finds what a Linux home keeps there, and nothing beside
// it; the macOS-only categories find nothing in a Linux home.
#include "core/scan/scanners/Scanners.h"
#include "core/system/fs/Trash.h"

#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

namespace kestrel {
namespace {

using test::ScratchHome;

const Date kNow = Dates::fromUnixSeconds(1795000000);

// An old folder holding `bytes` bytes, or an old file of that size.
void oldFolder(ScratchHome& h, const std::string& rel, int64_t bytes = 200000) {
  h.file(rel + "/blob", bytes);
  h.age(rel + "/blob", 60, kNow);
  h.age(rel, 60, kNow);
}
void oldFile(ScratchHome& h, const std::string& rel, int64_t bytes = 200000, double days = 60) {
  h.file(rel, bytes);
  h.age(rel, days, kNow);
}

// Title of every item the scanner lists, keyed by its path relative to the home.
std::map<std::string, std::string> scan(const ScratchHome& h, const JunkScanner& scanner, Layout layout = Layout::linux) {
  ScanContext context{layout == Layout::linux ? h.linuxPaths() : h.paths(), AppConfig{}, kNow};
  std::map<std::string, std::string> out;
  for (const auto& item : scanner.scan(context))
    out[fs::path(*item.path()).lexically_relative(h.home()).string()] = item.title;
  return out;
}

TEST(LinuxLocations, EveryRowOfEveryCategoryFindsItsItems) {
  ScratchHome h;
  // userCaches
  oldFolder(h, ".cache/some-app");
  oldFolder(h, ".cache/doc");  // the document portal's mount
  oldFolder(h, ".cache/yarn");  // a package cache, listed by its own category
  oldFolder(h, ".var/app/org.gimp.GIMP/cache");
  oldFolder(h, ".var/app/org.gimp.GIMP/data");
  oldFolder(h, "snap/firefox/common/.cache");
  oldFolder(h, ".java/deployment/cache");
  oldFolder(h, "snap/chromium/common/chromium/Default/Service Worker/CacheStorage");
  oldFolder(h, "snap/chromium/common/chromium/Default/Service Worker/Database");  // site data
  oldFolder(h, ".config/Code/Cache");
  oldFolder(h, ".config/Code/Code Cache");
  oldFolder(h, ".config/Code/GPUCache");
  oldFolder(h, ".config/Code/Service Worker/CacheStorage");
  oldFolder(h, ".config/Code/Local Storage");  // user data beside the caches
  oldFolder(h, ".config/google-chrome/Default/Service Worker/CacheStorage");
  oldFolder(h, ".config/google-chrome/Default/Local Storage");
  oldFolder(h, ".config/chromium/GrShaderCache");
  oldFolder(h, ".config/BraveSoftware/Brave-Browser/Profile 1/GPUCache");
  oldFolder(h, ".config/BraveSoftware/Brave-Browser/ShaderCache");
  h.text("tagged/CACHEDIR.TAG", "Signature: 8a477f597d28d172789f06886806bc55\n# made by a tool\n");
  oldFolder(h, "tagged");
  h.text("work/out/CACHEDIR.TAG", "Signature: 8a477f597d28d172789f06886806bc55");
  oldFolder(h, "work/out");
  h.text("work/fake/CACHEDIR.TAG", "Signature: 0000000000000000000000000000000");
  oldFolder(h, "work/fake");
  EXPECT_EQ(
      scan(h, UserCachesScanner()),
      (std::map<std::string, std::string>{
          {".cache/some-app", "some-app"},
          {".var/app/org.gimp.GIMP/cache", "org.gimp.GIMP"},
          {"snap/firefox/common/.cache", "firefox"},
          {".java/deployment/cache", "Java deployment cache"},
          {"snap/chromium/common/chromium/Default/Service Worker/CacheStorage", "chromium — Service Worker cache"},
          {".config/Code/Cache", "Code — Cache"},
          {".config/Code/Code Cache", "Code — Code Cache"},
          {".config/Code/GPUCache", "Code — GPUCache"},
          {".config/Code/Service Worker/CacheStorage", "Code — Service Worker cache"},
          {".config/google-chrome/Default/Service Worker/CacheStorage",
           "google-chrome — Service Worker cache"},
          {".config/chromium/GrShaderCache", "chromium — GrShaderCache"},
          {".config/BraveSoftware/Brave-Browser/Profile 1/GPUCache", "BraveSoftware — GPUCache"},
          {".config/BraveSoftware/Brave-Browser/ShaderCache", "BraveSoftware — ShaderCache"},
          {"tagged", "tagged"},
          {"work/out", "out"},
      }));

  // logs
  oldFolder(h, ".local/state/app/log");
  oldFile(h, ".local/state/app/x.log");
  oldFile(h, ".local/state/app/x.log.1");
  oldFile(h, ".local/state/app/x.log.old");
  oldFile(h, ".local/state/app/history");  // user state, never offered
  oldFile(h, ".local/state/app/x.log.1a");
  oldFile(h, ".local/state/orvo-kestrel/logs/agent.log");
  h.age(".local/state/orvo-kestrel/logs", 60, kNow);
  oldFile(h, ".xsession-errors.old");
  oldFile(h, ".xsession-errors");
  oldFile(h, ".local/share/xorg/Xorg.0.log.old");
  oldFile(h, ".local/share/xorg/Xorg.0.log");
  const auto logs = scan(h, LogsScanner());
  std::vector<std::string> logPaths;
  for (const auto& [path, title] : logs) logPaths.push_back(path);
  EXPECT_EQ(logPaths, (std::vector<std::string>{".local/share/xorg/Xorg.0.log.old", ".local/state/app/log",
                                                ".local/state/app/x.log", ".local/state/app/x.log.1",
                                                ".local/state/app/x.log.old", ".xsession-errors.old"}));

  // crashReports
  oldFile(h, ".config/Chromium/Crashpad/completed/abc.dmp");
  oldFile(h, ".config/Chromium/Crashpad/pending/def.dmp");
  // The system crash handler's shared folder: the user's own reports only.
  for (const char* name : {"_usr_bin_gedit.1000.crash", "_usr_bin_gedit.1000.upload", "theirs.crash"})
    oldFile(h, std::string("../system/var/crash/") + name);
  fs::create_symlink("_usr_bin_gedit.1000.crash", h.root() / "system/var/crash/link.crash");
  const bool othersOwn = test::disown(h.root() / "system/var/crash/theirs.crash");
  auto crashes = scan(h, CrashReportsScanner());
  if (!othersOwn) crashes.erase("../system/var/crash/theirs.crash");
  EXPECT_EQ(crashes, (std::map<std::string, std::string>{
                         {".config/Chromium/Crashpad/completed/abc.dmp", "abc.dmp"},
                         {"../system/var/crash/_usr_bin_gedit.1000.crash", "_usr_bin_gedit.1000.crash"}}));
  EXPECT_TRUE(scan(h, CrashReportsScanner(), Layout::macos).empty());

  // oldDownloads and installers, in the localised Download folder of user-dirs.dirs
  h.text(".config/user-dirs.dirs", "XDG_DOWNLOAD_DIR=\"$HOME/Téléchargements\"\n");
  oldFile(h, "Téléchargements/report.pdf", 200000, 400);  // older than oldDownloadsDays
  oldFile(h, "Téléchargements/tool.deb");
  oldFile(h, "Downloads/elsewhere.pdf", 200000, 400);
  oldFile(h, "Desktop/App.AppImage");
  EXPECT_EQ(scan(h, OldDownloadsScanner()),
            (std::map<std::string, std::string>{{"Téléchargements/report.pdf", "report.pdf"}}));
  EXPECT_EQ(scan(h, InstallersScanner()), (std::map<std::string, std::string>{{"Desktop/App.AppImage", "App.AppImage"},
                                                                             {"Téléchargements/tool.deb", "tool.deb"}}));
  EXPECT_TRUE(scan(h, InstallersScanner(), Layout::macos).empty()) << "Linux formats are not macOS installers";

  // packageCaches: Linux places and the Linux-only entries
  for (const char* rel : {".cache/pnpm", ".local/share/pnpm/store", ".conda/pkgs", ".nuget/packages"})
    oldFolder(h, rel, 2 * 1048576);
  // (".cache/yarn" holds 200 KB, under the category's floor.)
  EXPECT_EQ(scan(h, PackageCachesScanner()), (std::map<std::string, std::string>{
                                                 {".cache/pnpm", "pnpm cache"},
                                                 {".conda/pkgs", "Conda package cache"},
                                                 {".local/share/pnpm/store", "pnpm store"},
                                                 {".nuget/packages", "NuGet packages"},
                                             }));
}

TEST(LinuxLocations, TrashItemsAreDatedByTheirInfoFile) {
  ScratchHome h;
  oldFile(h, ".local/share/Trash/files/old.txt", 10);
  h.text(".local/share/Trash/info/old.txt.trashinfo",
         "[Trash Info]\nPath=/x/old.txt\nDeletionDate=" + Dates::local(kNow, "yyyy-MM-ddTHH:mm:ss") + "\n");
  oldFile(h, ".local/share/Trash/files/no-info.txt", 10);
  ScanContext context{h.linuxPaths(), AppConfig{}, kNow};
  const auto items = TrashScanner().scan(context);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].title, "no-info.txt");
  EXPECT_LT(*items[0].lastUsed, Dates::minusDays(kNow, 59));
  EXPECT_EQ(items[1].title, "old.txt");
  EXPECT_EQ(items[1].lastUsed, kNow);
}

TEST(LinuxLocations, MacOnlyCategoriesFindNothingAndPackageCachesAreNeverUserCaches) {
  ScratchHome h;
  for (const char* rel : {"Library/Saved Application State/a.savedState", "Library/Containers/com.apple.mail/Data/Library/Mail Downloads/x",
                          "Library/Application Support/MobileSync/Backup/abc", "Library/iTunes/iPhone Software Updates/x.ipsw"})
    oldFolder(h, rel);
  const SavedStateScanner savedState;
  const MailDownloadsScanner mail;
  const IOSBackupsScanner backups;
  const IOSUpdatesScanner updates;
  for (const JunkScanner* s : {static_cast<const JunkScanner*>(&savedState), static_cast<const JunkScanner*>(&mail),
                               static_cast<const JunkScanner*>(&backups), static_cast<const JunkScanner*>(&updates)}) {
    EXPECT_TRUE(scan(h, *s).empty()) << rawValue(s->category());
    EXPECT_FALSE(scan(h, *s, Layout::macos).empty()) << rawValue(s->category()) << ": the fixture is not what it scans";
  }
  for (auto folder : linuxPackageCacheFolders())
    EXPECT_NE(std::find(kLinuxCacheExclusions.begin(), kLinuxCacheExclusions.end(), folder), kLinuxCacheExclusions.end())
        << folder << " would be listed twice";
}

}  // namespace
}  // namespace kestrel
