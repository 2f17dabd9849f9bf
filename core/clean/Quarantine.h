// Quarantine store: sessions, manifests, crash-safe moves in and out, restore and purge.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/clean/CleanFailure.h"
#include "core/scan/ScanModel.h"
#include "core/schedule/ScheduleRule.h"
#include "core/storage/Dates.h"
#include "core/storage/Json.h"
#include "core/storage/Paths.h"
#include "core/storage/SafeRemove.h"

namespace kestrel {

struct QuarantineEntry {
  std::string originalPath;
  std::string storedName;  // "<index>-<original name>", unique in its session: the entry's id
  int64_t size = 0;
  CleanCategory category = CleanCategory::userCaches;
  bool restored = false;
  // Bookkeeping that makes moves crash-safe (extra manifest keys other readers ignore):
  bool moving = false;                   // "state":"moving" while the move may be under way
  std::optional<FileIdentity> identity;  // "dev"/"ino" of the item, kept by the move
  bool orphan = false;                   // found in "items" without an entry, adopted on recovery

  const std::string& id() const { return storedName; }
  bool operator==(const QuarantineEntry&) const = default;
};

struct QuarantineSession {
  std::string id;  // "yyyyMMdd-HHmmss-XXXXXX", also the folder name
  Date createdAt{};
  Date expiresAt{};
  TriggerSource trigger;
  std::vector<QuarantineEntry> entries;

  int64_t totalSize() const;  // of the entries not restored (a sum that would overflow saturates)
  int64_t activeCount() const;
  bool operator==(const QuarantineSession&) const = default;
};

Json toJson(const QuarantineEntry& e);
Json toJson(const QuarantineSession& s);
QuarantineEntry quarantineEntryFromJson(const Json& j);  // throws DecodeError
QuarantineSession quarantineSessionFromJson(const Json& j);

// An item that cannot be quarantined because it lives on another volume.
class QuarantineAddError : public std::runtime_error {
 public:
  enum class Kind { differentVolume };
  static QuarantineAddError differentVolume(const std::string& name);
  Kind kind() const { return kind_; }

 private:
  QuarantineAddError(Kind k, const std::string& text) : std::runtime_error(text), kind_(k) {}
  Kind kind_;
};

// Why one entry could not be restored.
class QuarantineError : public std::runtime_error {
 public:
  enum class Kind { destinationExists, missing };
  static QuarantineError destinationExists(const std::string& path);
  static QuarantineError missing(const std::string& path);
  Kind kind() const { return kind_; }

 private:
  QuarantineError(Kind k, const std::string& text) : std::runtime_error(text), kind_(k) {}
  Kind kind_;
};

// The undo store under Paths::quarantineDir(). Items are only ever renamed within a volume, never
// copied, and never over anything. Every operation that touches a manifest holds the store's lock
// (a mutex inside the process and an flock on "Quarantine/.lock" across processes). Every move
// is recorded before it happens and confirmed after, and reading sessions settles whatever a
// crash left half-done, so at any instant an item is at its original path or in "items" with an
// entry that restores it.
class Quarantine {
 public:
  // Answers a volume identifier for a path, or nothing when unknown (a seam for tests).
  using VolumeOf = std::function<std::optional<std::string>(const fs::path&)>;

  explicit Quarantine(Paths paths, VolumeOf volumeOf = nullptr);

  // A new empty session with its "items" folder and manifest on disk; throws the file system's
  // error.
  QuarantineSession beginSession(const TriggerSource& trigger, int64_t retentionDays, Date now);
  // Moves `item` into the session and records it; `session` is updated to the saved manifest.
  // Throws QuarantineAddError for another volume (the item stays), or the file system's error.
  void add(const fs::path& item, int64_t size, CleanCategory category, QuarantineSession& session);
  // The same for an item whose parent the caller already opened (and checked) from an anchor, so
  // the object moved is the one the caller judged.
  void add(const ParentDir& parent, int64_t size, CleanCategory category, QuarantineSession& session);
  // Writes the session's manifest atomically; throws the file system's error.
  void save(const QuarantineSession& session);
  // Puts back the session's active entries (only those named in `entryIDs` when given), never
  // over anything. Per-item problems are returned; the session folder goes when nothing is left
  // in it. Throws when the session's manifest cannot be read.
  std::vector<CleanFailure> restore(
      const std::string& sessionID,
      const std::optional<std::set<std::string>>& entryIDs = std::nullopt);
  // Readable sessions, newest first. Never fails; settles interrupted moves first.
  std::vector<QuarantineSession> sessions();
  int64_t totalSize();
  // Removes the session folder and everything in it (through the safe remover); throws.
  void purge(const std::string& sessionID);
  // Purges sessions whose expiry is at or before `now`, and stray folders without a manifest more
  // than a day old (adopting, not deleting, any items they still hold). Returns the bytes of the
  // expired sessions. Never fails.
  int64_t purgeExpired(Date now);

  // Where adopted items with no known origin are restored to.
  fs::path recoveryDir(const std::string& sessionID) const;

 private:
  class Lock;
  fs::path sessionDir(const std::string& id) const;
  std::optional<QuarantineSession> readManifest(const std::string& id) const;
  void saveLocked(const QuarantineSession& session);
  std::optional<QuarantineSession> recoverLocked(const std::string& id);
  void adoptOrphans(QuarantineSession& session, int itemsFd, bool& changed);
  bool removeSessionFolderIfEmpty(const std::string& id);
  void purgeLocked(const std::string& id);

  Paths paths_;
  VolumeOf volumeOf_;
  SafeRemover remover_;
  std::unique_ptr<std::mutex> lock_ = std::make_unique<std::mutex>();
};

}  // namespace kestrel
