// Quarantine store: sessions, crash-safe moves in and out, recovery, restore and purge.
#include "core/clean/Quarantine.h"

#include "core/clean/QuarantineJournal.h"
#include "core/system/fs/StoreFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

#include "core/system/fs/Durability.h"
#include "core/system/fs/FileStat.h"
#include "core/system/fs/SafeFiles.h"
#include "core/system/fs/FS.h"
#include "core/system/fs/FileLock.h"
#include "core/store/JSONStore.h"
#include "core/base/UniqueFd.h"
#include "core/system/Uuid.h"

namespace kestrel {
namespace {

using QuarantineJournal::kItems;
using QuarantineJournal::kJournal;
using QuarantineJournal::kManifest;
using QuarantineJournal::intentRecord;
using QuarantineJournal::readSession;
using QuarantineJournal::SessionRead;
using QuarantineJournal::record;
using QuarantineJournal::restoredRecord;
using JournalWriter = QuarantineJournal::Writer;
constexpr int64_t kDay = 86400;
// Adopted folders with no manifest keep their items this long before they expire.
constexpr int64_t kAdoptedRetentionDays = 7;
// Names tried when the next stored name is already taken in "items".
constexpr int kMaxNameAttempts = 1000;

[[noreturn]] void throwErrno(int err, const std::string& what) {
  throw std::system_error(err, std::generic_category(), what);
}

void checkSessionID(const std::string& id) {
  if (!isQuarantineSessionID(id)) throwErrno(EINVAL, "Not a quarantine session: " + id);
}

int64_t checkedAdd(int64_t a, int64_t b) {
  int64_t sum;
  if (__builtin_add_overflow(a, b, &sum)) return b > 0 ? INT64_MAX : INT64_MIN;
  return sum;
}

void syncBestEffort(int fd) {
  // The renames are done either way; a failed flush only weakens power-loss safety, which the
  // recovery pass covers by identity, so it is not worth failing finished work for.
  (void)platform::fullSync(fd);
}

}  // namespace

// ---- The store's lock -----------------------------------------------------------------------

// Serialises work that changes the store: the mutex between threads, an flock on
// "Quarantine/.lock" between processes. The lock file lives in the quarantine folder itself,
// which is never removed, so two holders can never lock different files of the same name. Only
// beginning a session may create the quarantine folder; everything else finds it or fails with
// ENOENT, so a command with nothing to act on leaves no support folder behind.
class Quarantine::Lock {
 public:
  Lock(std::mutex& m, const Paths& paths, bool createStore) : guard_(m) {
    // A whole restore or purge may run under it elsewhere: wait for that, within reason.
    constexpr std::chrono::minutes kWait{10};
    const fs::path file = paths.quarantineLockFile();
    auto acquired = FileLock::acquire(file, kWait, createStore);
    if (!acquired) throwErrno(acquired.error.value(), "lock " + file.string());
    file_ = std::move(acquired.lock);
  }

 private:
  std::lock_guard<std::mutex> guard_;
  std::unique_ptr<FileLock> file_;  // released when the holder goes
};

namespace {

// The lock of an existing store, or a system_error saying `what` when there is no store.
template <class Lock>
std::unique_ptr<Lock> lockExisting(std::mutex& m, const Paths& paths, const std::string& what) {
  try {
    return std::make_unique<Lock>(m, paths, false);
  } catch (const std::system_error& e) {
    if (e.code() == std::errc::no_such_file_or_directory) throwErrno(ENOENT, what);
    throw;
  }
}

}  // namespace

// ---- The store ------------------------------------------------------------------------------

Quarantine::Quarantine(Paths paths, const Services& services)
    : paths_(std::move(paths)), volumeOf_(services.volumeOf), remover_(paths_.home()) {}

fs::path Quarantine::sessionDir(const std::string& id) const { return paths_.quarantineSessionDir(id); }

fs::path Quarantine::recoveryDir(const std::string& sessionID) const {
  return paths_.recoveredItemsDir(sessionID);
}

void Quarantine::writeManifest(const QuarantineSession& session, int sessionFd, int itemsFd) {
  // The moves into "items" reach the disk before the manifest that names them.
  if (itemsFd >= 0) syncBestEffort(itemsFd);
  JSONStore::save(toJson(session), sessionDir(session.id) / kManifest);
  // A journal left behind by a failed removal replays to the same state.
  (void)::unlinkat(sessionFd, kJournal, 0);
}

void Quarantine::save(const QuarantineSession& session) {
  checkSessionID(session.id);
  auto lock = lockExisting<Lock>(*lock_, paths_, "No quarantine session " + session.id);
  const Anchor home = Anchor::open(paths_.home());
  UniqueFd sessionFd = SafeFS::openFolder(home, sessionDir(session.id));
  UniqueFd itemsFd(platform::openDirectoryAt(sessionFd.get(), kItems));
  writeManifest(session, sessionFd.get(), itemsFd.get());
}

QuarantineSession Quarantine::beginSession(const TriggerSource& trigger, int64_t retentionDays,
                                           Date now) {
  QuarantineSession s;
  s.createdAt = now;
  // The clock counts nanoseconds in 64 bits; a century is as long as retention can sensibly be.
  s.expiresAt = now + std::chrono::seconds(std::clamp<int64_t>(retentionDays, 0, 36500) * kDay);
  s.trigger = trigger;
  Lock lock(*lock_, paths_, /*createStore=*/true);
  recoverLocked(now);
  // Made under the lock, so recovery never sees a session half made; an id already taken (two
  // sessions in one second with the same random part) is drawn again, never shared.
  do {
    s.id = Dates::local(now, "yyyyMMdd-HHmmss") + "-" + Uuid::make().substr(0, 6);
  } while (FS::exists(sessionDir(s.id)));
  const Anchor home = Anchor::open(paths_.home());
  SafeFS::openFolder(home, sessionDir(s.id) / kItems, /*createMissing=*/true);
  JSONStore::save(toJson(s), sessionDir(s.id) / kManifest);
  nextIndex_[s.id] = 0;
  return s;
}

void Quarantine::add(const fs::path& item, int64_t size, CleanCategory category,
                     QuarantineSession& session) {
  checkSessionID(session.id);
  add(SafeFS::openParent(Anchor::forPath(paths_.home(), item), item), size, category, session);
}

void Quarantine::add(const ParentDir& parent, int64_t size, CleanCategory category, QuarantineSession& session) {
  checkSessionID(session.id);
  const fs::path item = parent.itemPath();
  auto lock = lockExisting<Lock>(*lock_, paths_, "No quarantine session " + session.id);
  // The session folder must still be there (a purge may have removed it); only its "items"
  // folder is made again when missing.
  const fs::path itemsPath = sessionDir(session.id) / kItems;
  const Anchor home = Anchor::open(paths_.home());
  UniqueFd sessionFd = SafeFS::openFolder(home, sessionDir(session.id));
  UniqueFd itemsFd(platform::openDirectoryAt(sessionFd.get(), kItems));
  if (!itemsFd && errno == ENOENT && ::mkdirat(sessionFd.get(), kItems, 0755) == 0)
    itemsFd.reset(platform::openDirectoryAt(sessionFd.get(), kItems));
  if (!itemsFd) {
    const int err = errno;
    throwErrno(err, "open " + itemsPath.string());
  }

  auto identity = identityAt(parent.fd.get(), parent.name.c_str());
  if (!identity) {
    const int err = errno;
    throwErrno(err, "quarantine " + item.string());
  }
  // Refused before anything moves: the move would carry a file system mounted inside along.
  if (auto mount = FS::mountInside(parent.fd.get(), parent.name)) throw FS::ContainsMount(*mount);
  if (volumeOf_) {
    auto a = volumeOf_(item.parent_path()), b = volumeOf_(itemsPath);
    if (a && b && *a != *b) throw QuarantineAddError::differentVolume(parent.name);
  } else {
    struct stat itemsStat;
    // The item itself is compared too: a mount point sits on its parent's volume but is not on it.
    if (::fstat(itemsFd.get(), &itemsStat) == 0 &&
        (parent.identity.dev != itemsStat.st_dev || identity->dev != itemsStat.st_dev)) {
      throw QuarantineAddError::differentVolume(parent.name);
    }
  }

  int64_t& next = nextIndex_[session.id];
  next = std::max<int64_t>(
      next, static_cast<int64_t>(session.entries.size() + session.damagedEntries.size()));
  JournalWriter journal(sessionFd.get());
  QuarantineEntry entry;
  entry.originalPath = item.string();
  entry.size = size;
  entry.category = category;
  entry.identity = identity;
  for (int attempt = 0;; ++attempt) {
    entry.storedName = std::to_string(next++) + "-" + parent.name;
    entry.moving = true;
    // 1. Record the intent first: a crash from here on leaves an entry that recovery settles.
    journal.append(intentRecord(entry));  // nothing has moved if this throws
    // 2. Move, never over anything.
    const std::error_code err = platform::renameNoReplace(parent.fd.get(), parent.name.c_str(), itemsFd.get(),
                                              entry.storedName.c_str());
    if (!err) break;
    try {
      journal.append(record("abort", entry.storedName));
    } catch (const std::system_error&) {
      // The intent stays as "moving"; recovery finds the item still at its original path.
    }
    // A name taken by something no entry knows yet (it is adopted on recovery): try the next.
    if (err == std::errc::file_exists && attempt + 1 < kMaxNameAttempts) continue;
    throwErrno(err.value(), "move " + item.string() + " to " + (itemsPath / entry.storedName).string());
  }
  // 3. Confirm. A failure leaves "moving" in the journal, which recovery turns into a plain entry
  // because the item is in "items" under its identity: the move is done, so it is no error here.
  try {
    journal.append(record("confirm", entry.storedName));
  } catch (const std::system_error&) {
    // Recovery settles the entry by identity (see above).
  }
  entry.moving = false;
  session.entries.push_back(std::move(entry));
}

void Quarantine::close(QuarantineSession& session) noexcept {
  try {
    checkSessionID(session.id);
    auto lock = lockExisting<Lock>(*lock_, paths_, "No quarantine session " + session.id);
    UniqueFd quarantineFd = SafeFS::openFolder(Anchor::open(paths_.home()), paths_.quarantineDir());
    auto settled =
        settleLocked(quarantineFd.get(), session.id, session.createdAt, &session, /*fold=*/true);
    if (settled) session = std::move(*settled);
    nextIndex_.erase(session.id);
    // Nothing went in (every item failed): no empty session is left behind.
    if (session.entries.empty() && session.damagedEntries.empty())
      removeSessionFolderIfEmpty(quarantineFd.get(), session.id);
  } catch (const std::exception&) {
    // The journal stays: every reader replays it and the next recovery folds it in.
  }
}

namespace {

// Decides interrupted moves in and out by file identity. True when any entry changed.
bool settleEntries(QuarantineSession& session, int itemsFd) {
  bool changed = false;
  for (auto& e : session.entries) {
    const auto stored = itemsFd >= 0 ? identityAt(itemsFd, e.storedName.c_str()) : std::nullopt;
    if (e.moving) {
      if (stored && (!e.identity || *stored == *e.identity)) {
        e.moving = false;  // the move happened
      } else if (e.identity && identityOf(e.originalPath) == e.identity) {
        e.moving = false;  // the move never happened: the item is where it was
        e.restored = true;
      } else if (stored) {
        e.moving = false;  // something is stored under the name; keep it restorable
      } else {
        continue;  // neither place has it; restore will report it missing
      }
      changed = true;
    } else if (!e.restored && !stored && e.identity && identityOf(e.originalPath) == e.identity) {
      e.restored = true;  // a restore moved it back and stopped before recording it
      changed = true;
    } else if (e.restored && stored && e.identity && *stored == *e.identity) {
      e.restored = false;  // recorded as restored, but the move back did not last (a power cut)
      changed = true;
    }
  }
  return changed;
}

}  // namespace

std::optional<QuarantineSession> Quarantine::adoptFolder(int quarantineFd, int sessionFd, UniqueFd& itemsFd,
                                                         bool itemsMissing, const std::string& id, Date now,
                                                         const QuarantineSession* known) {
  bool holdsItems = false;
  // Its own descriptor: a listing consumes the one it reads, and adoption lists "items" again.
  if (UniqueFd probe(itemsFd ? platform::openDirectoryAt(sessionFd, kItems) : -1); probe) {
    platform::readDirectory(probe.get(), [&](const char*, platform::EntryType) { holdsItems = true; });
  }
  if (!holdsItems && (itemsFd || itemsMissing)) {
    // Neither manifest nor items: a session whose making stopped half-way (a full disk, a kill),
    // or one whose removal did. Nothing of the user's is in it.
    itemsFd.reset();
    removeSessionFolderIfEmpty(quarantineFd, id);
    return std::nullopt;
  }
  if (!itemsFd) return std::nullopt;  // an unreadable "items": leave it to a later pass
  // A folder that lost its manifest but still holds items: adopt them instead of deleting.
  QuarantineSession adopted;
  if (known) {
    adopted = *known;
    adopted.entries.clear();
    adopted.damagedEntries.clear();
  } else {
    adopted.id = id;
    adopted.createdAt = FS::modificationDate(sessionDir(id)).value_or(now);
    adopted.expiresAt = now + std::chrono::seconds(kAdoptedRetentionDays * kDay);
  }
  // Its journal, if any, still knows where the items came from.
  QuarantineJournal::replay(adopted, QuarantineJournal::read(sessionDir(id) / kJournal).records);
  return adopted;
}

std::optional<QuarantineSession> Quarantine::settleLocked(int quarantineFd, const std::string& id,
                                                          Date now, const QuarantineSession* known,
                                                          bool fold) {
  UniqueFd sessionFd(platform::openDirectoryAt(quarantineFd, id.c_str()));
  if (!sessionFd) return std::nullopt;
  UniqueFd itemsFd(platform::openDirectoryAt(sessionFd.get(), kItems));
  const bool itemsMissing = !itemsFd && errno == ENOENT;
  SessionRead read = readSession(sessionDir(id));
  bool changed = false;
  if (read.manifest == StoreFile::FileRead::Status::damaged) {
    return std::nullopt;  // left as it is: nothing here can tell what its items were
  }
  if (read.manifest == StoreFile::FileRead::Status::missing) {
    read.session = adoptFolder(quarantineFd, sessionFd.get(), itemsFd, itemsMissing, id, now, known);
    if (!read.session) return std::nullopt;
    changed = true;
  }
  QuarantineSession& session = *read.session;
  changed = settleEntries(session, itemsFd.get()) || changed;
  if (itemsFd) changed = adoptOrphans(session, itemsFd.get()) || changed;
  if (changed || read.hadJournal || fold) {
    try {
      writeManifest(session, sessionFd.get(), itemsFd.get());
    } catch (const std::exception&) {
      // Recovery runs again next time; the state on disk is still one it can settle.
    }
  }
  // A session whose entries were all restored goes; a new one with no entries yet stays, since a
  // clean may be about to add to it.
  sessionFd.reset();
  itemsFd.reset();
  if (!session.entries.empty() && session.activeCount() == 0 &&
      removeSessionFolderIfEmpty(quarantineFd, id)) {
    return std::nullopt;
  }
  return std::move(read.session);
}

bool Quarantine::adoptOrphans(QuarantineSession& session, int itemsFd) {
  std::vector<std::string> names;
  platform::readDirectory(itemsFd,
                          [&](const char* name, platform::EntryType) { names.emplace_back(name); });
  if (names.empty()) return false;
  // Every name an entry stands for, a damaged entry's too: its item stays where it is.
  std::unordered_set<std::string> known;
  for (const auto& e : session.entries) known.insert(e.storedName);
  for (const auto& d : session.damagedEntries)
    if (d.storedName) known.insert(*d.storedName);
  std::sort(names.begin(), names.end());
  bool changed = false;
  for (const auto& name : names) {
    if (known.count(name)) continue;
    // Never delete what nobody recorded: give it an entry that restores it to a recovery folder.
    QuarantineEntry e;
    e.originalPath = (recoveryDir(session.id) / name).string();
    e.storedName = name;
    e.size = FS::allocatedSize(sessionDir(session.id) / kItems / name);
    e.category = CleanCategory::orphanedLeftovers;
    e.identity = identityAt(itemsFd, name.c_str());
    e.orphan = true;
    session.entries.push_back(std::move(e));
    changed = true;
  }
  return changed;
}

bool Quarantine::removeSessionFolderIfEmpty(int quarantineFd, const std::string& id) {
  UniqueFd sessionFd(platform::openDirectoryAt(quarantineFd, id.c_str()));
  if (!sessionFd) return errno == ENOENT;
  // Only an empty "items" may go; anything still in it keeps the whole session.
  if (::unlinkat(sessionFd.get(), kItems, AT_REMOVEDIR) != 0 && errno != ENOENT) return false;
  ::unlinkat(sessionFd.get(), kManifest, 0);
  ::unlinkat(sessionFd.get(), kJournal, 0);
  // Temporary manifests of saves that were interrupted.
  std::vector<std::string> temps;
  platform::readDirectory(sessionFd.get(), [&](const char* name, platform::EntryType type) {
    const std::string n = name;
    if (type != platform::EntryType::directory && StoreFile::isTemporaryOf(n, kManifest)) {
      temps.push_back(n);
    }
  });
  for (const auto& t : temps) ::unlinkat(sessionFd.get(), t.c_str(), 0);
  sessionFd.reset();
  if (::unlinkat(quarantineFd, id.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) return false;
  syncBestEffort(quarantineFd);
  return true;
}

void Quarantine::recoverLocked(Date now) {
  UniqueFd quarantineFd = SafeFS::openFolder(Anchor::open(paths_.home()), paths_.quarantineDir());
  for (const fs::path& child : FS::children(paths_.quarantineDir())) {
    const std::string id = child.filename().string();
    if (!isQuarantineSessionID(id) || !FS::isDirectory(child)) continue;
    try {
      settleLocked(quarantineFd.get(), id, now, nullptr, /*fold=*/false);
    } catch (const std::exception&) {
      // Settled on a later pass; the other sessions still are now.
    }
  }
}

void Quarantine::recover(Date now) noexcept {
  try {
    if (!FS::isDirectory(paths_.quarantineDir())) return;
    auto lock = lockExisting<Lock>(*lock_, paths_, "No quarantine");
    recoverLocked(now);
  } catch (const std::exception&) {
    // Tried again before the next change to the store.
  }
}

std::optional<std::string> Quarantine::restoreEntry(QuarantineEntry& e, int itemsFd, const fs::path& itemsPath,
                                                     const PlaceOf& placeOf) {
  const fs::path source = itemsPath / e.storedName;
  auto stored = itemsFd >= 0 ? identityAt(itemsFd, e.storedName.c_str()) : std::nullopt;
  if (!stored) return QuarantineError::missing(source.string()).what();
  try {
    const auto place = placeOf ? placeOf(e.originalPath) : std::optional<std::string>(e.originalPath);
    if (!place)
      return "The folder of " + e.originalPath + " is a link that may not be followed; the item stays in quarantine";
    const fs::path destination(*place);
    ParentDir parent = SafeFS::openParent(Anchor::forPath(paths_.home(), destination), destination,
                                          /*createMissing=*/true);
    if (identityAt(parent.fd.get(), parent.name.c_str()))
      return QuarantineError::destinationExists(e.originalPath).what();
    const std::error_code err =
        platform::renameNoReplace(itemsFd, e.storedName.c_str(), parent.fd.get(), parent.name.c_str());
    if (err == std::errc::file_exists) return QuarantineError::destinationExists(e.originalPath).what();
    if (err) return err.message();
  } catch (const std::system_error& err) {
    return err.code().message();
  }
  e.restored = true;
  e.identity = stored;
  return std::nullopt;
}

std::vector<CleanFailure> Quarantine::restore(const std::string& sessionID, Date now,
                                              const std::optional<std::set<std::string>>& entryIDs,
                                              const PlaceOf& placeOf) {
  checkSessionID(sessionID);
  const std::string unreadable = "No readable quarantine session " + sessionID;
  auto lock = lockExisting<Lock>(*lock_, paths_, unreadable);
  const bool readable = readSession(sessionDir(sessionID)).session.has_value();
  recoverLocked(now);
  const Anchor home = Anchor::open(paths_.home());
  UniqueFd quarantineFd = SafeFS::openFolder(home, paths_.quarantineDir());
  UniqueFd sessionFd(platform::openDirectoryAt(quarantineFd.get(), sessionID.c_str()));
  if (!sessionFd && readable) return {};  // recovery found every entry restored and tidied it away
  if (!sessionFd) throwErrno(ENOENT, unreadable);
  auto read = readSession(sessionDir(sessionID));
  if (!read.session) throwErrno(ENOENT, unreadable);
  QuarantineSession& session = *read.session;
  const fs::path itemsPath = sessionDir(sessionID) / kItems;
  UniqueFd itemsFd(platform::openDirectoryAt(sessionFd.get(), kItems));
  std::optional<JournalWriter> journal;
  bool recorded = true;  // every move back is in the journal
  std::vector<CleanFailure> failures;
  for (auto& e : session.entries) {
    if (e.restored || (entryIDs && !entryIDs->count(e.id()))) continue;
    if (auto failure = restoreEntry(e, itemsFd.get(), itemsPath, placeOf)) {
      failures.push_back({e.id(), *failure});
      continue;
    }
    try {
      if (!journal) journal.emplace(sessionFd.get());
      journal->append(restoredRecord(e));
    } catch (const std::system_error&) {
      recorded = false;  // the manifest written below must then succeed
    }
  }
  for (const auto& d : session.damagedEntries) {
    if (entryIDs && !entryIDs->count(d.id())) continue;
    failures.push_back({d.id(), QuarantineError::damaged(itemsPath.string()).what()});
  }
  if (session.activeCount() == 0) {
    itemsFd.reset();
    sessionFd.reset();
    if (removeSessionFolderIfEmpty(quarantineFd.get(), sessionID)) return failures;
    sessionFd.reset(platform::openDirectoryAt(quarantineFd.get(), sessionID.c_str()));
    itemsFd.reset(platform::openDirectoryAt(sessionFd.get(), kItems));
  }
  try {
    writeManifest(session, sessionFd.get(), itemsFd.get());
  } catch (const std::exception&) {
    if (!recorded) throw;  // otherwise the journal already holds every move back
  }
  return failures;
}

std::vector<QuarantineSession> Quarantine::sessions() const {
  std::vector<QuarantineSession> out;
  for (const fs::path& child : FS::children(paths_.quarantineDir())) {
    const std::string id = child.filename().string();
    if (!isQuarantineSessionID(id) || !FS::isDirectory(child)) continue;
    auto read = readSession(child);
    if (read.session) out.push_back(std::move(*read.session));
  }
  std::stable_sort(out.begin(), out.end(),
                   [](const QuarantineSession& a, const QuarantineSession& b) {
                     return a.createdAt > b.createdAt;
                   });
  return out;
}

int64_t Quarantine::totalSize() const {
  int64_t total = 0;
  for (const auto& s : sessions()) total = checkedAdd(total, s.totalSize());
  return total;
}

void Quarantine::purgeLocked(const std::string& id) {
  const Anchor home = Anchor::open(paths_.home());
  const fs::path dir = sessionDir(id);
  // The items go one by one before the session's records: a purge that stops part way (an item it
  // cannot remove) leaves a manifest naming exactly what is still there.
  if (auto read = readSession(dir); read.session) {
    auto& entries = read.session->entries;
    std::optional<RemoveResult> stuck;
    for (auto it = entries.begin(); it != entries.end();) {
      if (it->restored) {
        ++it;
        continue;
      }
      const RemoveResult r = remover_.remove(home, dir / kItems / it->storedName);
      if (r.ok()) {
        it = entries.erase(it);
        continue;
      }
      if (!stuck) stuck = r;
      ++it;
    }
    if (stuck) {
      UniqueFd sessionFd = SafeFS::openFolder(home, dir);
      UniqueFd itemsFd(platform::openDirectoryAt(sessionFd.get(), kItems));
      writeManifest(*read.session, sessionFd.get(), itemsFd.get());
      stuck->throwIfFailed();
    }
  }
  RemoveResult r = remover_.remove(home, dir);
  if (r.status == RemoveResult::Status::missing) throwErrno(ENOENT, "No quarantine session " + id);
  r.throwIfFailed();
}

void Quarantine::purge(const std::string& sessionID, Date now) {
  checkSessionID(sessionID);
  auto lock = lockExisting<Lock>(*lock_, paths_, "No quarantine session " + sessionID);
  recoverLocked(now);
  purgeLocked(sessionID);
}

int64_t Quarantine::purgeExpired(Date now) {
  int64_t total = 0;
  try {
    if (!FS::isDirectory(paths_.quarantineDir())) return 0;
    auto lock = lockExisting<Lock>(*lock_, paths_, "No quarantine");
    recoverLocked(now);
    for (const fs::path& child : FS::children(paths_.quarantineDir())) {
      const std::string id = child.filename().string();
      if (!isQuarantineSessionID(id) || !FS::isDirectory(child)) continue;
      auto read = readSession(child);
      if (!read.session || read.session->expiresAt > now) continue;
      // Counted even when the removal fails: the total is what was due to go.
      total = checkedAdd(total, read.session->totalSize());
      try {
        purgeLocked(id);
      } catch (const std::exception&) {
        // Tried again on the next tick.
      }
    }
  } catch (const std::exception&) {
    // Best effort: the store is looked at again on the next tick.
  }
  return total;
}

}  // namespace kestrel
