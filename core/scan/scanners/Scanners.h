// The scanners of the everyday categories and of the package-manager caches, one class each.
#pragma once

#include "core/scan/ScanEngine.h"

#include <array>
#include <string_view>

namespace kestrel {

class UserCachesScanner final : public JunkScanner {
 public:
  CleanCategory category() const override { return CleanCategory::userCaches; }
  std::vector<ScanItem> scan(const ScanContext& context) const override;
};

class LogsScanner final : public JunkScanner {
 public:
  CleanCategory category() const override { return CleanCategory::logs; }
  std::vector<ScanItem> scan(const ScanContext& context) const override;
};

class CrashReportsScanner final : public JunkScanner {
 public:
  CleanCategory category() const override { return CleanCategory::crashReports; }
  std::vector<ScanItem> scan(const ScanContext& context) const override;
};

class TrashScanner final : public JunkScanner {
 public:
  CleanCategory category() const override { return CleanCategory::trash; }
  std::vector<ScanItem> scan(const ScanContext& context) const override;
};

class SavedStateScanner final : public JunkScanner {
 public:
  CleanCategory category() const override { return CleanCategory::savedAppState; }
  std::vector<ScanItem> scan(const ScanContext& context) const override;
};

class MailDownloadsScanner final : public JunkScanner {
 public:
  CleanCategory category() const override { return CleanCategory::mailDownloads; }
  std::vector<ScanItem> scan(const ScanContext& context) const override;
};

class IOSBackupsScanner final : public JunkScanner {
 public:
  CleanCategory category() const override { return CleanCategory::iosBackups; }
  std::vector<ScanItem> scan(const ScanContext& context) const override;
};

class IOSUpdatesScanner final : public JunkScanner {
 public:
  CleanCategory category() const override { return CleanCategory::iosUpdates; }
  std::vector<ScanItem> scan(const ScanContext& context) const override;
};

class InstallersScanner final : public JunkScanner {
 public:
  CleanCategory category() const override { return CleanCategory::installers; }
  std::vector<ScanItem> scan(const ScanContext& context) const override;
};

class OldDownloadsScanner final : public JunkScanner {
 public:
  CleanCategory category() const override { return CleanCategory::oldDownloads; }
  std::vector<ScanItem> scan(const ScanContext& context) const override;
};

class PackageCachesScanner final : public JunkScanner {
 public:
  CleanCategory category() const override { return CleanCategory::packageCaches; }
  std::vector<ScanItem> scan(const ScanContext& context) const override;
};

// Folder names in the user's cache folder that are never offered: the system's own, system
// services' caches that must not be touched, and the caches the package-cache scanner reports.
inline constexpr std::array<std::string_view, 20> kCacheExclusions = {
    "com.orvo.kestrel", "orvo Kestrel", "com.apple.bird", "com.apple.cloudkit", "CloudKit",
    "com.apple.akd", "com.apple.nsurlsessiond", "com.apple.containermanagerd", "FamilyCircle",
    "com.apple.ap.adprivacyd", "Homebrew", "Yarn", "pip", "pypoetry", "CocoaPods", "org.swift.swiftpm",
    "pnpm", "go-build", "ms-playwright", "JetBrains"};

// Installer extensions (lower case): the installers scanner's, never old downloads'.
inline constexpr std::array<std::string_view, 3> kInstallerExtensions = {"dmg", "pkg", "mpkg"};

// What an iOS backup's "Info.plist" says about it.
struct BackupInfo {
  std::optional<std::string> deviceName;  // "Device Name", else "Display Name"
  std::optional<Date> lastBackup;         // "Last Backup Date"
};
// Reads an XML or binary property list; nothing when it is neither or holds no dictionary.
std::optional<BackupInfo> parseBackupInfo(const std::vector<char>& bytes);

}  // namespace kestrel
