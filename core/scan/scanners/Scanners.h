// The scanners, one row each, and the tables some of them share.
#pragma once

#include "core/scan/ScanEngine.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

// Every scanner, one row each: its category and its class, whose `scan` its own file defines
// (<Class>.cpp). The registry offers exactly these, in category order.
#define KESTREL_SCANNERS(ROW)                    \
  ROW(userCaches, UserCachesScanner)             \
  ROW(logs, LogsScanner)                         \
  ROW(crashReports, CrashReportsScanner)         \
  ROW(trash, TrashScanner)                       \
  ROW(savedAppState, SavedStateScanner)          \
  ROW(mailDownloads, MailDownloadsScanner)       \
  ROW(iosBackups, IOSBackupsScanner)             \
  ROW(iosUpdates, IOSUpdatesScanner)             \
  ROW(oldDownloads, OldDownloadsScanner)         \
  ROW(installers, InstallersScanner)             \
  ROW(xcode, XcodeScanner)                       \
  ROW(simulators, SimulatorsScanner)             \
  ROW(projectArtifacts, ProjectArtifactsScanner) \
  ROW(packageCaches, PackageCachesScanner)       \
  ROW(docker, DockerScanner)

#define KESTREL_DECLARE_SCANNER(cat, Class)                                             \
  class Class final : public JunkScanner {                                             \
   public:                                                                             \
    CleanCategory category() const override { return CleanCategory::cat; }             \
    std::vector<ScanItem> scan(const ScanContext& context) const override;             \
  };
KESTREL_SCANNERS(KESTREL_DECLARE_SCANNER)
#undef KESTREL_DECLARE_SCANNER

// Folder names in the user's cache folder that are never offered: the system's own, system
// services' caches that must not be touched, and the caches the package-cache scanner reports.
inline constexpr std::array<std::string_view, 20> kCacheExclusions = {
    "com.orvo.kestrel", "orvo Kestrel", "com.apple.bird", "com.apple.cloudkit", "CloudKit",
    "com.apple.akd", "com.apple.nsurlsessiond", "com.apple.containermanagerd", "FamilyCircle",
    "com.apple.ap.adprivacyd", "Homebrew", "Yarn", "pip", "pypoetry", "CocoaPods", "org.swift.swiftpm",
    "pnpm", "go-build", "ms-playwright", "JetBrains"};

// Folder names in a Linux cache folder that the user-caches scanner never offers: the document
// portal's mount, the system's own, and the caches the package-cache scanner reports.
inline constexpr std::array<std::string_view, 16> kLinuxCacheExclusions = {
    "doc", "orvo-kestrel", "yarn", "pnpm", "pip", "pypoetry", "uv", "Homebrew", "org.swift.swiftpm",
    "go-build", "ms-playwright", "huggingface", "JetBrains", "composer", "bazel", "node-gyp"};

// Installer extensions (lower case): the installers scanner's, never old downloads'. Linux adds
// its package formats.
inline constexpr std::array<std::string_view, 3> kInstallerExtensions = {"dmg", "pkg", "mpkg"};
inline constexpr std::array<std::string_view, 6> kLinuxInstallerExtensions = {"deb", "rpm", "appimage",
                                                                              "flatpakref", "snap", "run"};
bool isInstaller(Layout layout, std::string_view lowerExtension);
// The package-cache scanner's folders in a Linux cache folder (each in kLinuxCacheExclusions).
std::vector<std::string_view> linuxPackageCacheFolders();

// What an iOS backup's "Info.plist" says about it.
struct BackupInfo {
  std::optional<std::string> deviceName;  // "Device Name", else "Display Name"
  std::optional<Date> lastBackup;         // "Last Backup Date"
};
// Reads an XML or binary property list; nothing when it is neither or holds no dictionary.
std::optional<BackupInfo> parseBackupInfo(const std::vector<char>& bytes);

// A size as container tools print it ("1.2GB", "512.5 MB", "0B", "3.1kB (45%)": decimal units,
// binary ones with "i"); nothing when the text does not start with one.
std::optional<int64_t> parseToolSize(std::string_view text);

// The unavailable simulators `simctl list devices unavailable --json` names: their device ids
// (only well-formed ones). Nothing when the text is not that listing.
std::optional<std::vector<std::string>> parseUnavailableSimulators(std::string_view json);

}  // namespace kestrel
