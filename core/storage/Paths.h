// Paths: the one place that knows where the system keeps its data, all derived from one home folder.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace kestrel {

namespace fs = std::filesystem;

// Fixed identity strings of the product.
struct AppInfo {
  static constexpr std::string_view name = "orvo Kestrel";
  static constexpr std::string_view bundleID = "com.orvo.kestrel";
  static constexpr std::string_view agentLabel = "com.orvo.kestrel.agent";
  static constexpr std::string_view legacyName = "Halcyra";
};

// Lexically standardised absolute path: "." and ".." resolved, doubled and trailing slashes removed.
fs::path standardizedPath(const fs::path& p);
// The standardised path with every symbolic link resolved, when it exists; else as standardised.
fs::path realFolderPath(const fs::path& p);

class Paths {
 public:
  // The home folder is resolved once to its real path (when it exists): that real folder is the
  // trusted anchor every walk and removal starts from, however HOME reaches it.
  explicit Paths(const fs::path& home);

  // HOME when set and absolute, else the password database's entry for the current user.
  static Paths fromEnvironment();

  const fs::path& home() const { return home_; }
  fs::path library() const { return home_ / "Library"; }
  fs::path lib(std::string_view component) const { return library() / fs::path(component); }
  fs::path supportDir() const { return lib("Application Support") / AppInfo::name; }
  fs::path supportFile(std::string_view name) const { return supportDir() / name; }
  fs::path quarantineDir() const { return supportDir() / "Quarantine"; }
  fs::path configFile() const { return supportFile("config.json"); }
  fs::path rulesFile() const { return supportFile("rules.json"); }
  fs::path lockFile() const { return supportFile("agent.lock"); }
  fs::path auditFile() const { return supportFile("audit.jsonl"); }
  fs::path logDir() const { return lib("Logs") / AppInfo::name; }
  fs::path agentLogFile() const { return logDir() / "agent.log"; }
  fs::path shredderLogFile() const { return logDir() / "shredder.log"; }
  fs::path launchAgentPlist() const {
    return lib("LaunchAgents") / (std::string(AppInfo::agentLabel) + ".plist");
  }
  fs::path legacySupportDir() const { return lib("Application Support") / AppInfo::legacyName; }

  // Moves the earlier product's folder into place when only it exists. Never fails: a failed
  // move leaves both folders as they were.
  void migrateLegacySupportDir() const noexcept;
  // Runs the migration, then creates the quarantine and log folders. Throws fs::filesystem_error.
  void ensureSupportDirs() const;

  bool operator==(const Paths&) const = default;

 private:
  fs::path home_;
};

}  // namespace kestrel
