// Quarantine store: sessions, manifests and journals, crash-safe moves in and out, restore and
// purge.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "core/model/CleanFailure.h"
#include "core/model/ScanModel.h"
#include "core/model/TriggerSource.h"
#include "core/base/Dates.h"
#include "core/base/Json.h"
#include "core/base/UniqueFd.h"
#include "core/system/Paths.h"
#include "core/system/Services.h"
#include "core/system/fs/SafeRemove.h"

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
  Json
      extra;  // keys this version does not know (an object, or null for none), written back as read

  const std::string& id() const { return storedName; }
  bool operator==(const QuarantineEntry&) const = default;
};

// A manifest entry that does not decode. It is written back exactly as it was read on every save,
// its item (if any) is never adopted, moved or removed on its own, and restore reports it.
struct DamagedQuarantineEntry {
  size_t position = 0;  // index in the manifest's "entries" array
  Json raw;
  // The entry's "storedName" when that part is a string, else nothing.
  std::optional<std::string> storedName;

  // The id failures are reported under: the stored name when readable, else "entry <position>".
  std::string id() const;
  bool operator==(const DamagedQuarantineEntry&) const = default;
};

struct QuarantineSession {
  std::string id;  // "yyyyMMdd-HHmmss-XXXXXX", also the folder name
  Date createdAt{};
  Date expiresAt{};
  TriggerSource trigger;
  std::vector<QuarantineEntry> entries;
  std::vector<DamagedQuarantineEntry> damagedEntries;  // by position, ascending
  Json extra;  // top-level keys this version does not know, written back as read

  int64_t totalSize() const;  // of the entries not restored (a sum that would overflow saturates)
  // Entries not restored; a damaged entry always counts, since its item may still be stored.
  int64_t activeCount() const;
  bool operator==(const QuarantineSession&) const = default;
};

Json toJson(const QuarantineEntry& e);
Json toJson(const QuarantineSession& s);
// Throws DecodeError when the entry is not usable (a stored name that is not one plain name
// included); damaged bookkeeping keys are dropped instead.
QuarantineEntry quarantineEntryFromJson(const Json& j);
// Throws DecodeError when the session's own keys are wrong; entries that do not decode become
// damagedEntries and never fail the session.
QuarantineSession quarantineSessionFromJson(const Json& j);

// A session id names one folder directly inside the quarantine: not empty, no leading ".", no
// "/", no "..", no NUL. Dot files there (".lock") are never sessions.
bool isQuarantineSessionID(std::string_view id);

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
  enum class Kind { destinationExists, missing, damaged };
  static QuarantineError destinationExists(const std::string& path);
  static QuarantineError missing(const std::string& path);
  static QuarantineError damaged(const std::string& itemsFolder);
  Kind kind() const { return kind_; }

 private:
  QuarantineError(Kind k, const std::string& text) : std::runtime_error(text), kind_(k) {}
  Kind kind_;
};

// The undo store under Paths::quarantineDir(). Items are only ever renamed within a volume, never
// copied, and never over anything. A session is its folder: "items", "manifest.json" and, while
// items are being added or restored, an append-only "journal.jsonl" whose records (intent before
// a move, confirm or abort after it, restored) are replayed over the manifest by every reader.
// Every operation that changes the store holds its lock (a mutex inside the process and an flock
// on "Quarantine/.lock" across processes) and first runs recovery, which settles whatever a crash
// left half-done, so at any instant an item is at its original path or in "items" with an entry
// that restores it. Listing only reads.
class Quarantine {
 public:
  // `services.volumeOf`, when set, stands in for comparing the opened folders' devices.
  explicit Quarantine(Paths paths, const Services& services = {});

  // Recovers the store, then makes a new empty session with its "items" folder and manifest on
  // disk. Throws the file system's error.
  QuarantineSession beginSession(const TriggerSource& trigger, int64_t retentionDays, Date now);
  // Moves `item` into the session and records it in the session's journal (no flush per item);
  // `session` gains the entry. Throws QuarantineAddError for another volume (the item stays), or
  // the file system's error (the item is then where it was, or recorded as moving for recovery).
  void add(const fs::path& item, int64_t size, CleanCategory category, QuarantineSession& session);
  // The same for an item whose parent the caller already opened (and checked) from an anchor, so
  // the object moved is the one the caller judged.
  void add(const ParentDir& parent, int64_t size, CleanCategory category, QuarantineSession& session);
  // Ends adding to the session: settles it, flushes its "items" folder, writes its manifest
  // atomically and durably and removes its journal; a session left without entries is removed.
  // `session` becomes what was saved. Never fails: on any error the journal stays, readers replay
  // it and the next recovery folds it in.
  void close(QuarantineSession& session) noexcept;
  // Replaces the session's manifest (atomically) and drops its journal; throws the file system's
  // error.
  void save(const QuarantineSession& session);
  // Recovers the store, then puts back the session's active entries (only those named in
  // `entryIDs` when given), never over anything. Per-item problems are returned, damaged entries
  // among them; the session folder goes when nothing is left in it. Throws std::system_error
  // (EINVAL) for a string that is no session id, and when the session cannot be read. `now` dates
  // any stray folder recovery adopts.
  // `placeOf` says where an original path really is now (its folder may have become a link the
  // safety policy lets a root follow); nothing refuses the entry. Absent: the path as recorded.
  using PlaceOf = std::function<std::optional<std::string>(const std::string&)>;
  std::vector<CleanFailure> restore(
      const std::string& sessionID, Date now,
      const std::optional<std::set<std::string>>& entryIDs = std::nullopt,
      const PlaceOf& placeOf = nullptr);
  // Readable sessions as they stand (manifest plus journal), newest first. Takes no lock, creates
  // and changes nothing, so an entry of an interrupted move may show as moving. Never fails.
  std::vector<QuarantineSession> sessions() const;
  int64_t totalSize() const;
  // Recovers the store, then removes the session folder and everything in it (through the safe
  // remover). Throws std::system_error (EINVAL for a string that is no session id).
  void purge(const std::string& sessionID, Date now);
  // Recovers the store, then purges sessions whose expiry is at or before `now`. Returns the bytes
  // of the expired sessions. Never fails.
  int64_t purgeExpired(Date now);
  // Settles every session under the store's lock: replays journals into manifests, decides
  // interrupted moves by file identity, adopts items no entry names (restorable to recoveryDir),
  // removes session folders whose entries were all restored and folders with neither manifest nor
  // items, and adopts folders without a manifest that still hold items (expiring 7 days after
  // `now`). Does nothing when the store does not exist. Never fails; what cannot be settled now
  // is tried again next time.
  void recover(Date now) noexcept;

  // Where adopted items with no known origin are restored to.
  fs::path recoveryDir(const std::string& sessionID) const;

 private:
  class Lock;
  fs::path sessionDir(const std::string& id) const;
  // The following run under the store's lock.
  void recoverLocked(Date now);
  // Settles one session folder and returns what it holds, or nothing when it is unreadable or
  // was removed. A folder without a manifest takes `known`'s header (else an adopted one dated by
  // `now`). With `fold`, the manifest is rewritten and the journal removed even when nothing
  // needed settling.
  std::optional<QuarantineSession> settleLocked(int quarantineFd, const std::string& id, Date now,
                                                const QuarantineSession* known, bool fold);
  // A folder that lost its manifest: the session its items are adopted into, or nothing (it was
  // empty and is removed, or its items cannot be read now).
  std::optional<QuarantineSession> adoptFolder(int quarantineFd, int sessionFd, UniqueFd& itemsFd, bool itemsMissing,
                                               const std::string& id, Date now, const QuarantineSession* known);
  // Gives every item no entry names an entry restoring it to recoveryDir; true when any was added.
  bool adoptOrphans(QuarantineSession& session, int itemsFd);
  // Moves one entry's item back; the failure's text when it stays.
  std::optional<std::string> restoreEntry(QuarantineEntry& e, int itemsFd, const fs::path& itemsPath,
                                          const PlaceOf& placeOf);
  bool removeSessionFolderIfEmpty(int quarantineFd, const std::string& id);
  void writeManifest(const QuarantineSession& session, int sessionFd, int itemsFd);
  void purgeLocked(const std::string& id);

  Paths paths_;
  std::function<std::optional<std::string>(const fs::path&)> volumeOf_;
  SafeRemover remover_;
  std::unique_ptr<std::mutex> lock_ = std::make_unique<std::mutex>();
  // Next free index per session this object adds to: indices are never reused within a session,
  // so replaying a journal can never confuse an aborted attempt with a later entry.
  std::map<std::string, int64_t> nextIndex_;
};

}  // namespace kestrel
