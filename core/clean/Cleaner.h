// Cleaner: disposes of chosen items (quarantine, Trash, delete, command, eviction, admin batch),
// re-checking every path against the safety policy right before it is touched, and audits it all.
#pragma once

#include "core/clean/AdminQueue.h"
#include "core/model/CleanReport.h"
#include "core/clean/PrivilegedSession.h"
#include "core/clean/Quarantine.h"
#include "core/safety/SafetyPolicy.h"
#include "core/model/ScanModel.h"
#include "core/model/TriggerSource.h"
#include "core/model/AppConfig.h"
#include "core/store/AuditLog.h"
#include "core/system/fs/SafeRemove.h"
#include "core/system/Services.h"
#include "core/system/process/Shell.h"

#include <functional>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace kestrel {

// A removal that reported success while the item stayed.
class CleanerError : public std::runtime_error {
 public:
  enum class Kind { stillThere };
  static CleanerError stillThere(const std::string& name) {
    return CleanerError(name + " reported success but is still on disk — the drive may be read-only");
  }
  Kind kind() const { return Kind::stillThere; }

 private:
  explicit CleanerError(const std::string& text) : std::runtime_error(text) {}
};

class Cleaner {
 public:
  using Progress = std::function<void(size_t done, size_t total)>;

  // `session` and `queue` default to the shared privileged session and the admin queue of this
  // home.
  Cleaner(Paths paths, AppConfig config, const Services& services = {}, PrivilegedSession* session = nullptr,
          AdminQueue* queue = nullptr);

  // Handles every item in order and never throws: each problem becomes a CleanFailure. A dry run
  // touches nothing, opens no quarantine session, writes no audit records, and reports what it
  // would free (path items by their disposal, evictions as evicted bytes).
  CleanReport clean(const std::vector<ScanItem>& items, const TriggerSource& trigger, bool dryRun,
                    std::optional<Disposal> disposalOverride, const Progress& progress = nullptr);

  // Restores a quarantine session (or the given entries) and audits it as "restore". Per-entry
  // problems are returned; throws when the session cannot be read.
  std::vector<CleanFailure> restore(const std::string& sessionID,
                                    const std::optional<std::set<std::string>>& entryIDs = std::nullopt);

  // Permission denied or operation not permitted.
  static bool isPermissionError(const std::error_code& ec);

 private:
  struct Pass;
  // Where an item is acted on: the name the user knows it by, and its real place.
  struct Target {
    std::string path;
    std::string real;
  };
  void disposePath(const ScanItem& item, const std::string& path, Pass& pass);
  // The item's target, or nothing when it was dealt with already (skipped, set aside for
  // administrator rights, gone, unreadable).
  std::optional<Target> resolve(const ScanItem& item, const std::string& givenPath, const Verdict& verdict,
                                Pass& pass);
  // Moves or removes the item after judging the opened parent again; false when it was skipped,
  // set aside or recorded already. Throws what the disposal throws.
  bool disposeAt(const ScanItem& item, const Target& target, const Verdict& verdict, Disposal disposal, Pass& pass);
  // A deletion refused for want of permission goes to the administrator step instead.
  bool setAsideOnPermission(const ScanItem& item, const std::string& path, Disposal disposal,
                            const std::error_code& ec, Pass& pass);
  void skip(const ScanItem& item, const std::string& path, const std::string& reason, Pass& pass);
  void runAdminStep(Pass& pass);

  Paths paths_;
  AppConfig config_;
  SafetyPolicy policy_;
  Quarantine quarantine_;
  AuditLog audit_;
  SafeRemover remover_;
  Services services_;
  PrivilegedSession* session_;
  AdminQueue queue_;
};

}  // namespace kestrel
