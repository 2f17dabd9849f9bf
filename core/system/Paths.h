// Paths: the one place that knows where the system keeps its data, all derived from one home folder.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

namespace fs = std::filesystem;

// Fixed identity strings of the product.
struct AppInfo {
  static constexpr std::string_view name = "orvo Kestrel";
  static constexpr std::string_view bundleID = "com.orvo.kestrel";
  static constexpr std::string_view agentLabel = "com.orvo.kestrel.agent";
  static constexpr std::string_view shredderAgentLabel = "com.orvo.kestrel.agent.shredder";
  // The background agents of the product's earlier name, removed on request.
  static constexpr std::string_view legacyAgentLabel = "com.halcyra.agent";
  static constexpr std::string_view legacyShredderAgentLabel = "com.halcyra.agent.shredder";
  static constexpr std::string_view legacyName = "Halcyra";
};

// Lexically standardised absolute path: "." and ".." resolved, doubled and trailing slashes removed.
fs::path standardizedPath(const fs::path& p);
// The standardised path with every symbolic link resolved, when it exists; else as standardised.
fs::path realFolderPath(const fs::path& p);

// Which system's folder conventions a home follows. Both tables are compiled everywhere; the host's
// is the default, so tests on one system can exercise the other's against a scratch home.
enum class Layout { macos, linux };
Layout hostLayout();

// The base folders of a Linux home (`XDG_*_HOME`). An empty or relative value means the default
// under the home folder.
struct XdgDirs {
  fs::path config, cache, data, state;
  bool operator==(const XdgDirs&) const = default;
};

class Paths {
 public:
  // The home folder is resolved once to its real path (when it exists): that real folder is the
  // trusted anchor every walk and removal starts from, however HOME reaches it.
  explicit Paths(const fs::path& home, Layout layout = hostLayout(), const XdgDirs& xdg = {});

  const fs::path& home() const { return home_; }
  Layout layout() const { return layout_; }
  // The XDG base folders (on macOS too, where nothing of the system's own lives there).
  const fs::path& configHome() const { return xdg_.config; }
  const fs::path& cacheHome() const { return xdg_.cache; }
  const fs::path& dataHome() const { return xdg_.data; }
  const fs::path& stateHome() const { return xdg_.state; }
  // The user's Download and Desktop folders: on Linux as named in `user-dirs.dirs` (names are
  // localised), else "~/Downloads" and "~/Desktop".
  const fs::path& downloadsDir() const { return downloads_; }
  const fs::path& desktopDir() const { return desktop_; }
  // The Trash of the home volume: "~/.Trash" on macOS, "$XDG_DATA_HOME/Trash" (holding `files/`
  // and `info/`) on Linux.
  fs::path homeTrashDir() const { return layout_ == Layout::macos ? home_ / ".Trash" : xdg_.data / "Trash"; }
  // The usual code folders, searched for projects when the developerRoots setting is empty.
  std::vector<fs::path> defaultDeveloperRoots() const;
  // Xcode's and the simulators' folders (macOS layout): build data, archives, device symbols
  // ("iOS" or "watchOS"), Xcode's cache, the simulator devices and their shared caches.
  fs::path xcodeDerivedDataDir() const { return lib("Developer/Xcode/DerivedData"); }
  fs::path xcodeArchivesDir() const { return lib("Developer/Xcode/Archives"); }
  fs::path xcodeDeviceSupportDir(std::string_view platform) const {
    return lib("Developer/Xcode") / (std::string(platform) + " DeviceSupport");
  }
  fs::path xcodeCacheDir() const { return lib("Caches/com.apple.dt.Xcode"); }
  fs::path simulatorDevicesDir() const { return lib("Developer/CoreSimulator/Devices"); }
  fs::path simulatorCachesDir() const { return lib("Developer/CoreSimulator/Caches"); }
  fs::path library() const { return home_ / "Library"; }
  fs::path lib(std::string_view component) const { return library() / fs::path(component); }
  // Where files outside the home live ("/" except in tests, which point it into a scratch folder).
  const fs::path& systemRoot() const { return systemRoot_; }
  // Where the system's crash handler (apport) writes the reports of crashed programs (Linux).
  fs::path systemCrashDir() const { return systemRoot_ / "var/crash"; }
  Paths withSystemRoot(const fs::path& root) const;
  // Below which other volumes' Trash folders are looked for: "/" for the real program, nothing
  // (no other volume at all) unless set, so a home built in a test never reaches a real disk.
  const fs::path& volumesRoot() const { return volumesRoot_; }
  Paths withVolumesRoot(const fs::path& root) const;

  // The system's own folders. macOS keeps everything in one support folder; Linux follows the
  // platform's conventions: what the user edits in the config folder, history, logs and locks in
  // the state folder, the quarantine in the data folder.
  fs::path supportDir() const { return lib("Application Support") / AppInfo::name; }
  fs::path legacySupportDir() const { return lib("Application Support") / AppInfo::legacyName; }
  fs::path configDir() const { return isMac() ? supportDir() : xdg_.config / kLinuxFolderName; }
  fs::path stateDir() const { return isMac() ? supportDir() : xdg_.state / kLinuxFolderName; }
  fs::path dataDir() const { return isMac() ? supportDir() : xdg_.data / kLinuxFolderName; }
  static constexpr std::string_view kLinuxFolderName = "orvo-kestrel";

  // Every file the system keeps.
  fs::path configFile() const { return configDir() / "config.json"; }
  fs::path rulesFile() const { return configDir() / "rules.json"; }
  fs::path shredderSettingsFile() const { return configDir() / "shredder.json"; }
  fs::path lockFile() const { return stateDir() / "agent.lock"; }
  fs::path auditFile() const { return stateDir() / "audit.jsonl"; }
  fs::path agentStateFile() const { return stateDir() / "agent-state.json"; }
  fs::path spaceHistoryFile() const { return stateDir() / "space-history.json"; }
  fs::path growthSnapshotsFile() const { return stateDir() / "growth-snapshots.json"; }
  fs::path persistenceBaselineFile() const { return stateDir() / "persistence-baseline.json"; }
  fs::path shredderReviewFile() const { return stateDir() / "shredder-review.json"; }
  fs::path shredderHistoryFile() const { return stateDir() / "shredder-history.jsonl"; }
  fs::path shredderIndexFile() const { return stateDir() / "shredder-index.json"; }
  // The shredder's cache of content hashes, by file identity (safe to delete: it is rebuilt).
  fs::path shredderHashCacheFile() const { return stateDir() / "shredder-hashes.cache"; }
  // Held by every shredder sweep of any process while it decides and disposes.
  fs::path shredderSweepLockFile() const { return stateDir() / "shredder-sweep.lock"; }
  // What the last scan of each category found (the metrics read it).
  fs::path lastScanFile() const { return stateDir() / "last-scan.json"; }
  // Removals waiting for administrator rights, kept until a run removes them.
  fs::path adminQueueFile() const { return stateDir() / "admin-queue.json"; }
  // Held while one administrator batch runs, so two never take the same items.
  fs::path adminRunLockFile() const { return stateDir() / "admin-run.lock"; }
  // The lock file held around one read-modify-write of `store` ("<store>.lock" beside it; never
  // removed, so two writers always lock the same file).
  static fs::path lockFileFor(const fs::path& store) { return fs::path(store) += ".lock"; }
  // The entries of a privileged session's folder: the command and reply FIFOs and the helper.
  static constexpr std::string_view kPrivilegedCommandPipe = "cmd";
  static constexpr std::string_view kPrivilegedReplyPipe = "out";
  static constexpr std::string_view kPrivilegedHelperName = "helper.sh";
  // A privileged session's own folder ("priv-<token>").
  fs::path privilegedSessionDir(std::string_view token) const {
    return stateDir() / ("priv-" + std::string(token));
  }

  // The quarantine: one folder per session holding the moved items, the manifest and, while the
  // session changes, its journal; one lock file for the whole store.
  fs::path quarantineDir() const { return dataDir() / "Quarantine"; }
  fs::path quarantineLockFile() const { return quarantineDir() / kQuarantineLockName; }
  fs::path quarantineSessionDir(std::string_view id) const { return quarantineDir() / id; }
  static constexpr std::string_view kQuarantineItemsName = "items";
  static constexpr std::string_view kQuarantineManifestName = "manifest.json";
  static constexpr std::string_view kQuarantineJournalName = "journal.jsonl";
  static constexpr std::string_view kQuarantineLockName = ".lock";
  // Where items the quarantine found without a record are restored to.
  fs::path recoveredItemsDir(std::string_view sessionID) const { return home_ / "Recovered Items" / sessionID; }

  fs::path logDir() const { return isMac() ? lib("Logs") / AppInfo::name : stateDir() / "logs"; }
  fs::path agentLogFile() const { return logDir() / "agent.log"; }
  fs::path shredderLogFile() const { return logDir() / "shredder.log"; }
  fs::path launchAgentPlist() const { return launchAgentFile(AppInfo::agentLabel, ".plist"); }
  // Where the user's background services are defined: "~/Library/LaunchAgents" on macOS,
  // "$XDG_CONFIG_HOME/systemd/user" on Linux; a service's file there is its label plus `extension`.
  fs::path launchAgentsDir() const {
    return isMac() ? lib("LaunchAgents") : xdg_.config / "systemd" / "user";
  }
  fs::path launchAgentFile(std::string_view label, std::string_view extension) const;

  // macOS: moves the earlier product's folder into place when only it exists. Linux: moves the
  // files of a support folder left by earlier builds to their Linux folders, each folder only
  // when it does not exist yet. Never fails: a failed move leaves the files where they were.
  void migrateLegacySupportDir() const noexcept;
  // Runs the migration, then creates the quarantine and log folders. Throws fs::filesystem_error.
  void ensureSupportDirs() const;

  bool operator==(const Paths&) const = default;

 private:
  bool isMac() const { return layout_ == Layout::macos; }

  fs::path home_;
  fs::path systemRoot_ = "/";
  fs::path volumesRoot_;
  Layout layout_ = Layout::linux;
  XdgDirs xdg_;
  fs::path downloads_, desktop_;
};

// One user folder from the text of `user-dirs.dirs` (`key` such as "XDG_DOWNLOAD_DIR"): the
// shell-quoted value with "$HOME" expanded; nothing when absent, malformed or set to the home
// itself (which means the folder is disabled).
std::optional<fs::path> userDirFromText(std::string_view text, std::string_view key, const fs::path& home);

}  // namespace kestrel
