// Quarantine store: sessions, manifests, crash-safe moves in and out, restore and purge.
#include "core/clean/Quarantine.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/platform/Durability.h"
#include "core/platform/FileStat.h"
#include "core/platform/SafeFiles.h"
#include "core/storage/FS.h"
#include "core/storage/JSONStore.h"
#include "core/storage/UniqueFd.h"
#include "core/storage/Uuid.h"

namespace kestrel {
namespace {

constexpr const char* kItems = "items";
constexpr const char* kManifest = "manifest.json";
constexpr const char* kLockName = ".lock";
constexpr int64_t kDay = 86400;
// Adopted folders with no manifest keep their items this long before they expire.
constexpr int64_t kAdoptedRetentionDays = 7;

[[noreturn]] void throwErrno(int err, const std::string& what) {
  throw std::system_error(err, std::generic_category(), what);
}

// A session id names one folder directly inside the quarantine, nothing else.
void checkSessionID(const std::string& id) {
  if (id.empty() || id == "." || id == ".." || id.find('/') != std::string::npos ||
      id.find('\0') != std::string::npos) {
    throwErrno(EINVAL, "Not a quarantine session: " + id);
  }
}

int64_t checkedAdd(int64_t a, int64_t b) {
  int64_t sum;
  if (__builtin_add_overflow(a, b, &sum)) return b > 0 ? INT64_MAX : INT64_MIN;
  return sum;
}

void syncBestEffort(int fd) {
  // The rename is done either way; a failed flush only weakens power-loss safety, which the
  // recovery pass covers by identity, so it is not worth failing a finished move for.
  (void)platform::fullSync(fd);
}

}  // namespace

// ---- JSON -----------------------------------------------------------------------------------

int64_t QuarantineSession::totalSize() const {
  int64_t total = 0;
  for (const auto& e : entries) {
    if (!e.restored) total = checkedAdd(total, e.size);
  }
  return total;
}

int64_t QuarantineSession::activeCount() const {
  return std::count_if(entries.begin(), entries.end(),
                       [](const QuarantineEntry& e) { return !e.restored; });
}

Json toJson(const QuarantineEntry& e) {
  Json j{{"originalPath", e.originalPath},
         {"storedName", e.storedName},
         {"size", e.size},
         {"category", std::string(rawValue(e.category))},
         {"restored", e.restored}};
  if (e.moving) j["state"] = "moving";
  if (e.identity) {
    j["dev"] = static_cast<uint64_t>(e.identity->dev);
    j["ino"] = static_cast<uint64_t>(e.identity->ino);
  }
  if (e.orphan) j["orphan"] = true;
  return j;
}

QuarantineEntry quarantineEntryFromJson(const Json& j) {
  JsonDecode::object(j, "QuarantineEntry");
  QuarantineEntry e;
  e.originalPath = JsonDecode::string(j, "originalPath");
  e.storedName = JsonDecode::string(j, "storedName");
  e.size = JsonDecode::int64(j, "size");
  auto category = j.find("category");
  if (category == j.end()) throw DecodeError("No value associated with key category");
  e.category = categoryFromJson(*category);
  e.restored = JsonDecode::boolean(j, "restored");
  // The bookkeeping keys are advisory: when damaged they are ignored, never fatal.
  auto state = j.find("state");
  e.moving = state != j.end() && state->is_string() && state->get<std::string>() == "moving";
  auto dev = j.find("dev"), ino = j.find("ino");
  if (dev != j.end() && ino != j.end() && dev->is_number_unsigned() && ino->is_number_unsigned()) {
    e.identity = FileIdentity{static_cast<dev_t>(dev->get<uint64_t>()),
                              static_cast<ino_t>(ino->get<uint64_t>())};
  }
  auto orphan = j.find("orphan");
  e.orphan = orphan != j.end() && orphan->is_boolean() && orphan->get<bool>();
  // A stored name is one name inside "items"; anything else would let a manifest reach outside it.
  if (e.storedName.empty() || e.storedName == "." || e.storedName == ".." ||
      e.storedName.find('/') != std::string::npos) {
    throw DecodeError("Invalid stored name " + e.storedName);
  }
  return e;
}

Json toJson(const QuarantineSession& s) {
  Json entries = Json::array();
  for (const auto& e : s.entries) entries.push_back(toJson(e));
  return Json{{"id", s.id},
              {"createdAt", dateToJson(s.createdAt, DateForm::iso8601)},
              {"expiresAt", dateToJson(s.expiresAt, DateForm::iso8601)},
              {"trigger", toJson(s.trigger)},
              {"entries", entries}};
}

QuarantineSession quarantineSessionFromJson(const Json& j) {
  JsonDecode::object(j, "QuarantineSession");
  QuarantineSession s;
  s.id = JsonDecode::string(j, "id");
  for (const char* key : {"createdAt", "expiresAt", "trigger", "entries"}) {
    if (j.find(key) == j.end())
      throw DecodeError(std::string("No value associated with key ") + key);
  }
  s.createdAt = dateFromJson(j.at("createdAt"), DateForm::iso8601);
  s.expiresAt = dateFromJson(j.at("expiresAt"), DateForm::iso8601);
  s.trigger = triggerSourceFromJson(j.at("trigger"));
  const Json& entries = j.at("entries");
  if (!entries.is_array()) throw DecodeError("Expected an array for entries");
  for (const Json& e : entries) s.entries.push_back(quarantineEntryFromJson(e));
  return s;
}

// ---- Errors ---------------------------------------------------------------------------------

QuarantineAddError QuarantineAddError::differentVolume(const std::string& name) {
  return {Kind::differentVolume, name +
                                     " is on another drive \xE2\x80\x94 quarantining it would copy "
                                     "the whole file onto this Mac"};
}

QuarantineError QuarantineError::destinationExists(const std::string& path) {
  return {Kind::destinationExists,
          "Something already exists at " + path + ". Move it first, then restore."};
}

QuarantineError QuarantineError::missing(const std::string& path) {
  return {Kind::missing, "Quarantined copy is missing: " + path};
}

// ---- The store's lock -----------------------------------------------------------------------

// Serialises manifest work: the mutex between threads, an flock on "Quarantine/.lock" between
// processes. The lock file lives in the quarantine folder itself, which is never removed, so two
// holders can never lock different files of the same name.
class Quarantine::Lock {
 public:
  Lock(std::mutex& m, const Paths& paths) : guard_(m) {
    std::error_code ec;
    fs::create_directories(paths.quarantineDir(), ec);  // a failure shows in open below
    const fs::path file = paths.quarantineDir() / kLockName;
    fd_.reset(::open(file.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!fd_) {
      const int err = errno;  // read before building the message
      throwErrno(err, "open " + file.string());
    }
    while (::flock(fd_.get(), LOCK_EX) != 0) {
      if (errno != EINTR) {
        const int err = errno;  // read before building the message
        throwErrno(err, "lock " + file.string());
      }
    }
  }

 private:
  std::lock_guard<std::mutex> guard_;
  UniqueFd fd_;  // closing it releases the flock
};

// ---- The store ------------------------------------------------------------------------------

Quarantine::Quarantine(Paths paths, VolumeOf volumeOf)
    : paths_(std::move(paths)), volumeOf_(std::move(volumeOf)), remover_(paths_.home()) {}

fs::path Quarantine::sessionDir(const std::string& id) const { return paths_.quarantineDir() / id; }

fs::path Quarantine::recoveryDir(const std::string& sessionID) const {
  return paths_.home() / "Recovered Items" / sessionID;
}

std::optional<QuarantineSession> Quarantine::readManifest(const std::string& id) const {
  return JSONStore::load<QuarantineSession>(sessionDir(id) / kManifest, quarantineSessionFromJson);
}

void Quarantine::saveLocked(const QuarantineSession& session) {
  checkSessionID(session.id);
  JSONStore::save(toJson(session), sessionDir(session.id) / kManifest);
}

void Quarantine::save(const QuarantineSession& session) {
  Lock lock(*lock_, paths_);
  saveLocked(session);
}

QuarantineSession Quarantine::beginSession(const TriggerSource& trigger, int64_t retentionDays,
                                           Date now) {
  QuarantineSession s;
  s.id = Dates::local(now, "yyyyMMdd-HHmmss") + "-" + Uuid::make().substr(0, 6);
  s.createdAt = now;
  // The clock counts nanoseconds in 64 bits; a century is as long as retention can sensibly be.
  s.expiresAt = now + std::chrono::seconds(std::clamp<int64_t>(retentionDays, 0, 36500) * kDay);
  s.trigger = trigger;
  Lock lock(*lock_, paths_);
  const Anchor home = Anchor::open(paths_.home());
  SafeFS::openFolder(home, sessionDir(s.id) / kItems, /*createMissing=*/true);
  saveLocked(s);
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
  Lock lock(*lock_, paths_);
  const fs::path itemsPath = sessionDir(session.id) / kItems;
  const Anchor home = Anchor::open(paths_.home());
  UniqueFd itemsFd = SafeFS::openFolder(home, itemsPath, /*createMissing=*/true);

  auto identity = identityAt(parent.fd.get(), parent.name.c_str());
  if (!identity) {
    const int err = errno;
    throwErrno(err, "quarantine " + item.string());
  }
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

  // Another process may have changed the manifest since the caller read it: build on the disk's
  // copy.
  QuarantineSession current = readManifest(session.id).value_or(session);
  QuarantineEntry entry;
  entry.originalPath = item.string();
  entry.storedName = std::to_string(current.entries.size()) + "-" + parent.name;
  entry.size = size;
  entry.category = category;
  entry.moving = true;
  entry.identity = identity;

  // 1. Record the intent first: a crash from here on leaves an entry that recovery settles.
  current.entries.push_back(entry);
  saveLocked(current);  // nothing has moved if this throws

  // 2. Move, never over anything.
  const int err = platform::renameNoReplace(parent.fd.get(), parent.name.c_str(), itemsFd.get(),
                                            entry.storedName.c_str());
  if (err != 0) {
    current.entries.pop_back();
    try {
      saveLocked(current);
    } catch (const std::exception&) {
      // The entry stays as "moving"; recovery finds the item still at its original path.
    }
    throwErrno(err, "move " + item.string() + " to " + (itemsPath / entry.storedName).string());
  }
  syncBestEffort(itemsFd.get());
  syncBestEffort(parent.fd.get());

  // 3. Confirm. A failure leaves "moving" on disk, which recovery turns into a plain entry.
  current.entries.back().moving = false;
  session = current;
  saveLocked(current);
}

std::optional<QuarantineSession> Quarantine::recoverLocked(const std::string& id) {
  auto session = readManifest(id);
  if (!session) return std::nullopt;
  const fs::path itemsPath = sessionDir(id) / kItems;
  UniqueFd itemsFd(platform::openDirectory(itemsPath.c_str()));
  bool changed = false;
  for (auto& e : session->entries) {
    const auto stored = itemsFd ? identityAt(itemsFd.get(), e.storedName.c_str()) : std::nullopt;
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
      e.restored = true;  // a restore moved it back and stopped before saving
      changed = true;
    }
  }
  if (itemsFd) adoptOrphans(*session, itemsFd.get(), changed);
  if (changed) {
    try {
      saveLocked(*session);
    } catch (const std::exception&) {
      // Recovery runs again on the next read; the state on disk is still one it can settle.
    }
  }
  // A session whose entries were all restored goes; a new one with no entries yet stays, since a
  // clean may be about to add to it.
  if (!session->entries.empty() && session->activeCount() == 0 && removeSessionFolderIfEmpty(id)) {
    return std::nullopt;
  }
  return session;
}

void Quarantine::adoptOrphans(QuarantineSession& session, int itemsFd, bool& changed) {
  std::vector<std::string> names;
  platform::readDirectory(itemsFd,
                          [&](const char* name, platform::EntryType) { names.emplace_back(name); });
  std::sort(names.begin(), names.end());
  for (const auto& name : names) {
    const bool known = std::any_of(session.entries.begin(), session.entries.end(),
                                   [&](const QuarantineEntry& e) { return e.storedName == name; });
    if (known) continue;
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
}

bool Quarantine::removeSessionFolderIfEmpty(const std::string& id) {
  const fs::path dir = sessionDir(id);
  UniqueFd quarantineFd(platform::openDirectory(paths_.quarantineDir().c_str()));
  if (!quarantineFd) return false;
  UniqueFd sessionFd(platform::openDirectoryAt(quarantineFd.get(), id.c_str()));
  if (!sessionFd) return errno == ENOENT;
  // Only an empty "items" may go; anything still in it keeps the whole session.
  if (::unlinkat(sessionFd.get(), kItems, AT_REMOVEDIR) != 0 && errno != ENOENT) return false;
  ::unlinkat(sessionFd.get(), kManifest, 0);
  // Temporary manifests of saves that were interrupted.
  std::vector<std::string> temps;
  platform::readDirectory(sessionFd.get(), [&](const char* name, platform::EntryType type) {
    const std::string n = name;
    if (type != platform::EntryType::directory && n.starts_with(".manifest.json.") &&
        n.ends_with(".tmp")) {
      temps.push_back(n);
    }
  });
  for (const auto& t : temps) ::unlinkat(sessionFd.get(), t.c_str(), 0);
  sessionFd.reset();
  if (::unlinkat(quarantineFd.get(), id.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT)
    return false;
  syncBestEffort(quarantineFd.get());
  return true;
}

std::vector<CleanFailure> Quarantine::restore(
    const std::string& sessionID, const std::optional<std::set<std::string>>& entryIDs) {
  checkSessionID(sessionID);
  Lock lock(*lock_, paths_);
  if (!readManifest(sessionID)) throwErrno(ENOENT, "No readable quarantine session " + sessionID);
  auto recovered = recoverLocked(sessionID);
  if (!recovered) return {};  // recovery found nothing left to restore and tidied the session away
  QuarantineSession session = std::move(*recovered);
  const fs::path itemsPath = sessionDir(sessionID) / kItems;
  UniqueFd itemsFd(platform::openDirectory(itemsPath.c_str()));
  std::vector<CleanFailure> failures;
  for (auto& e : session.entries) {
    if (e.restored || (entryIDs && !entryIDs->count(e.id()))) continue;
    const fs::path source = itemsPath / e.storedName;
    auto stored = itemsFd ? identityAt(itemsFd.get(), e.storedName.c_str()) : std::nullopt;
    if (!stored) {
      failures.push_back({e.id(), QuarantineError::missing(source.string()).what()});
      continue;
    }
    try {
      const fs::path destination(e.originalPath);
      ParentDir parent =
          SafeFS::openParent(Anchor::forPath(paths_.home(), destination), destination,
                             /*createMissing=*/true);
      if (identityAt(parent.fd.get(), parent.name.c_str())) {
        failures.push_back({e.id(), QuarantineError::destinationExists(e.originalPath).what()});
        continue;
      }
      const int err = platform::renameNoReplace(itemsFd.get(), e.storedName.c_str(),
                                                parent.fd.get(), parent.name.c_str());
      if (err == EEXIST) {
        failures.push_back({e.id(), QuarantineError::destinationExists(e.originalPath).what()});
        continue;
      }
      if (err != 0) {
        failures.push_back({e.id(), std::system_category().message(err)});
        continue;
      }
      syncBestEffort(parent.fd.get());
      syncBestEffort(itemsFd.get());
      e.restored = true;
      e.identity = stored;
      try {
        saveLocked(session);  // each move is recorded at once; recovery covers a crash before this
      } catch (const std::exception&) {
        // Tried again after the loop, where a failure is reported.
      }
    } catch (const std::system_error& err) {
      failures.push_back({e.id(), err.code().message()});
    }
  }
  saveLocked(session);
  if (session.activeCount() == 0) removeSessionFolderIfEmpty(sessionID);
  return failures;
}

std::vector<QuarantineSession> Quarantine::sessions() {
  std::vector<QuarantineSession> out;
  std::unique_ptr<Lock> lock;
  try {
    lock = std::make_unique<Lock>(*lock_, paths_);
  } catch (const std::system_error&) {
    // Without the lock, list what is on disk as it is and leave settling to the next reader.
  }
  for (const fs::path& child : FS::children(paths_.quarantineDir())) {
    if (!FS::isDirectory(child)) continue;
    const std::string id = child.filename().string();
    auto s = lock ? recoverLocked(id) : readManifest(id);
    if (s) out.push_back(std::move(*s));
  }
  std::stable_sort(out.begin(), out.end(),
                   [](const QuarantineSession& a, const QuarantineSession& b) {
                     return a.createdAt > b.createdAt;
                   });
  return out;
}

int64_t Quarantine::totalSize() {
  int64_t total = 0;
  for (const auto& s : sessions()) total = checkedAdd(total, s.totalSize());
  return total;
}

void Quarantine::purgeLocked(const std::string& id) {
  const Anchor home = Anchor::open(paths_.home());
  RemoveResult r = remover_.remove(home, sessionDir(id));
  if (r.status == RemoveResult::Status::missing) throwErrno(ENOENT, "No quarantine session " + id);
  r.throwIfFailed();
}

void Quarantine::purge(const std::string& sessionID) {
  checkSessionID(sessionID);
  Lock lock(*lock_, paths_);
  purgeLocked(sessionID);
}

int64_t Quarantine::purgeExpired(Date now) {
  int64_t total = 0;
  for (const auto& s : sessions()) {
    if (s.expiresAt > now) continue;
    // Counted even when the removal fails: the total is what was due to go.
    total = checkedAdd(total, s.totalSize());
    try {
      purge(s.id);
    } catch (const std::exception&) {
      // Tried again on the next tick.
    }
  }
  try {
    Lock lock(*lock_, paths_);
    for (const fs::path& child : FS::children(paths_.quarantineDir())) {
      if (!FS::isDirectory(child) || FS::exists(child / kManifest)) continue;
      auto modified = FS::modificationDate(child);
      if (!modified || now - *modified <= std::chrono::seconds(kDay)) continue;
      const std::string id = child.filename().string();
      UniqueFd itemsFd(platform::openDirectory((child / kItems).c_str()));
      bool holdsItems = false;
      if (itemsFd) {
        platform::readDirectory(itemsFd.get(),
                                [&](const char*, platform::EntryType) { holdsItems = true; });
      }
      if (!holdsItems) {
        (void)remover_.remove(Anchor::open(paths_.home()),
                              child);  // errors ignored: tried again next time
        continue;
      }
      // A folder that lost its manifest but still holds items: adopt them instead of deleting.
      QuarantineSession adopted;
      adopted.id = id;
      adopted.createdAt = *modified;
      adopted.expiresAt = now + std::chrono::seconds(kAdoptedRetentionDays * kDay);
      bool changed = false;
      adoptOrphans(adopted, itemsFd.get(), changed);
      saveLocked(adopted);
    }
  } catch (const std::exception&) {
    // Best effort: stray folders are looked at again on the next tick.
  }
  return total;
}

}  // namespace kestrel
