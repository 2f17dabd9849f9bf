// Quarantine store: sessions, manifests and journals, crash-safe moves in and out, restore and
// purge.
#include "core/clean/Quarantine.h"
#include "core/system/StoreFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

#include "core/system/Durability.h"
#include "core/system/FileStat.h"
#include "core/system/SafeFiles.h"
#include "core/system/FS.h"
#include "core/system/FileLock.h"
#include "core/store/JSONStore.h"
#include "core/base/UniqueFd.h"
#include "core/system/Uuid.h"

namespace kestrel {
namespace {

constexpr const char* kItems = Paths::kQuarantineItemsName.data();
constexpr const char* kManifest = Paths::kQuarantineManifestName.data();
constexpr const char* kJournal = Paths::kQuarantineJournalName.data();
constexpr int64_t kDay = 86400;
// Adopted folders with no manifest keep their items this long before they expire.
constexpr int64_t kAdoptedRetentionDays = 7;
// Journal lines are a few hundred bytes; anything this long is not one of ours and is skipped.
constexpr size_t kMaxJournalLine = size_t{1} << 20;
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

bool isPlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

// ---- The journal -----------------------------------------------------------------------------

// Records: {"op":"intent","entry":{…}} before a move in, {"op":"confirm"|"abort","storedName":…}
// after it, {"op":"restored","storedName":…,"dev":…,"ino":…} after a move back out.
Json record(const char* op, const std::string& storedName) {
  return Json{{"op", op}, {"storedName", storedName}};
}

Json intentRecord(const QuarantineEntry& e) { return Json{{"op", "intent"}, {"entry", toJson(e)}}; }

Json restoredRecord(const QuarantineEntry& e) {
  Json j = record("restored", e.storedName);
  if (e.identity) {
    j["dev"] = static_cast<uint64_t>(e.identity->dev);
    j["ino"] = static_cast<uint64_t>(e.identity->ino);
  }
  return j;
}

// Appends records to a session's journal, one O_APPEND write per record and no flush: a record
// lost to a power cut leaves a state recovery settles by identity, and an item no record names
// is adopted, never deleted.
class JournalWriter {
 public:
  explicit JournalWriter(int sessionFd) {
    // Never blocks on a FIFO put in its place, and writes only to a regular file.
    fd_.reset(::openat(sessionFd, kJournal,
                       O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    if (!fd_) {
      const int err = errno;  // read before building the message
      throwErrno(err, std::string("open ") + kJournal);
    }
    struct stat kind;
    if (::fstat(fd_.get(), &kind) != 0 || !S_ISREG(kind.st_mode))
      throwErrno(EINVAL, std::string("open ") + kJournal);
    // A writer killed mid-line leaves a torn record; never glue the next one onto it.
    struct stat st;
    char last = '\n';
    torn_ = ::fstat(fd_.get(), &st) == 0 && st.st_size > 0 &&
            ::pread(fd_.get(), &last, 1, st.st_size - 1) == 1 && last != '\n';
  }

  // Throws the write's error; a short write (a full disk) leaves a torn line readers skip.
  void append(const Json& rec) {
    std::string line = torn_ ? "\n" : "";
    line += JsonText::compact(rec);
    line += '\n';
    ssize_t n;
    do {
      n = ::write(fd_.get(), line.data(), line.size());
    } while (n < 0 && errno == EINTR);
    if (n == static_cast<ssize_t>(line.size())) {
      torn_ = false;
      return;
    }
    const int err = n < 0 ? errno : ENOSPC;
    if (n > 0) torn_ = true;
    throwErrno(err, std::string("write ") + kJournal);
  }

 private:
  UniqueFd fd_;
  bool torn_ = false;
};

// The journal's records in order, read without following a link or blocking. Only lines ended by
// a newline count (the last one may still be being written, or torn by a crash); lines that are
// too long or not JSON objects are skipped. `present` tells whether a journal exists.
std::vector<Json> readJournal(const fs::path& file, bool& present) {
  std::vector<Json> out;
  UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  present = fd || errno != ENOENT;
  struct stat st;
  if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return out;
  std::string carry;
  bool skipping = false;  // inside an overlong line, until its newline
  std::vector<char> block(size_t{1} << 16);
  for (;;) {
    const ssize_t n = ::read(fd.get(), block.data(), block.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    size_t start = 0;
    for (size_t i = 0; i < static_cast<size_t>(n); ++i) {
      if (block[i] != '\n') continue;
      if (!skipping) {
        carry.append(block.data() + start, i - start);
        if (auto j = JsonText::parse(carry); j && j->is_object()) out.push_back(std::move(*j));
      }
      carry.clear();
      skipping = false;
      start = i + 1;
    }
    if (!skipping) carry.append(block.data() + start, static_cast<size_t>(n) - start);
    if (carry.size() > kMaxJournalLine) {
      carry.clear();
      skipping = true;
    }
  }
  return out;
}

// Applies journal records over a session read from its manifest. Replaying records the manifest
// already holds changes nothing (a crash between writing the manifest and removing the journal),
// since stored names are never reused within a session: an intent for a name already present is
// skipped, and confirm and abort only act on an entry still moving.
void replay(QuarantineSession& s, const std::vector<Json>& records) {
  std::unordered_map<std::string, size_t> at;
  for (size_t i = 0; i < s.entries.size(); ++i) at.emplace(s.entries[i].storedName, i);
  std::unordered_set<std::string> damagedNames;
  for (const auto& d : s.damagedEntries)
    if (d.storedName) damagedNames.insert(*d.storedName);
  std::vector<char> dropped(s.entries.size(), 0);
  for (const Json& r : records) {
    auto op = r.find("op");
    if (op == r.end() || !op->is_string()) continue;
    const std::string kind = op->get<std::string>();
    if (kind == "intent") {
      auto entry = r.find("entry");
      if (entry == r.end()) continue;
      QuarantineEntry e;
      try {
        e = quarantineEntryFromJson(*entry);
      } catch (const DecodeError&) {
        continue;  // not one of ours; an item it moved is adopted as an orphan
      }
      if (at.count(e.storedName) || damagedNames.count(e.storedName)) continue;
      at.emplace(e.storedName, s.entries.size());
      s.entries.push_back(std::move(e));
      dropped.push_back(0);
      continue;
    }
    auto name = r.find("storedName");
    if (name == r.end() || !name->is_string()) continue;
    auto found = at.find(name->get<std::string>());
    if (found == at.end()) continue;
    QuarantineEntry& e = s.entries[found->second];
    if (kind == "confirm") {
      e.moving = false;
    } else if (kind == "abort") {
      if (!e.moving) continue;
      dropped[found->second] = 1;
      at.erase(found);
    } else if (kind == "restored") {
      e.restored = true;
      e.moving = false;
      auto dev = r.find("dev"), ino = r.find("ino");
      if (dev != r.end() && ino != r.end() && dev->is_number_unsigned() &&
          ino->is_number_unsigned()) {
        e.identity = FileIdentity{static_cast<dev_t>(dev->get<uint64_t>()),
                                  static_cast<ino_t>(ino->get<uint64_t>())};
      }
    }
  }
  if (std::find(dropped.begin(), dropped.end(), 1) == dropped.end()) return;
  std::vector<QuarantineEntry> kept;
  kept.reserve(s.entries.size());
  for (size_t i = 0; i < s.entries.size(); ++i)
    if (!dropped[i]) kept.push_back(std::move(s.entries[i]));
  s.entries = std::move(kept);
}

// A session folder as it stands: the manifest, then the journal replayed over it.
struct SessionRead {
  StoreFile::FileRead::Status manifest = StoreFile::FileRead::Status::missing;
  std::optional<QuarantineSession> session;
  bool hadJournal = false;
};

SessionRead readSession(const fs::path& dir) {
  SessionRead out;
  // The journal first: a recovery folding it into the manifest between the two reads then
  // shows as the new manifest plus old records, which replay to the same thing.
  const auto records = readJournal(dir / kJournal, out.hadJournal);
  auto loaded =
      JSONStore::loadChecked<QuarantineSession>(dir / kManifest, quarantineSessionFromJson);
  out.manifest = loaded.status;
  if (loaded.value) {
    replay(*loaded.value, records);
    out.session = std::move(loaded.value);
  }
  return out;
}

}  // namespace

bool isQuarantineSessionID(std::string_view id) {
  return !id.empty() && id[0] != '.' && id.find('/') == std::string_view::npos &&
         id.find("..") == std::string_view::npos && id.find('\0') == std::string_view::npos;
}

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
                       [](const QuarantineEntry& e) { return !e.restored; }) +
         static_cast<int64_t>(damagedEntries.size());
}

std::string DamagedQuarantineEntry::id() const {
  return storedName ? *storedName : "entry " + std::to_string(position);
}

Json toJson(const QuarantineEntry& e) {
  Json j = e.extra.is_object() ? e.extra : Json::object();
  j["originalPath"] = e.originalPath;
  j["storedName"] = e.storedName;
  j["size"] = e.size;
  j["category"] = std::string(rawValue(e.category));
  j["restored"] = e.restored;
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
  if (!isPlainName(e.storedName)) throw DecodeError("Invalid stored name " + e.storedName);
  static const char* const kKnown[] = {"originalPath", "storedName", "size", "category", "restored",
                                       "state",        "dev",        "ino",  "orphan"};
  for (auto it = j.begin(); it != j.end(); ++it) {
    if (std::find_if(std::begin(kKnown), std::end(kKnown),
                     [&](const char* k) { return it.key() == k; }) != std::end(kKnown))
      continue;
    if (!e.extra.is_object()) e.extra = Json::object();
    e.extra[it.key()] = it.value();
  }
  return e;
}

Json toJson(const QuarantineSession& s) {
  // Damaged entries go back to the places they were read from.
  Json entries = Json::array();
  size_t good = 0, damaged = 0;
  const size_t total = s.entries.size() + s.damagedEntries.size();
  for (size_t pos = 0; pos < total; ++pos) {
    if (damaged < s.damagedEntries.size() &&
        (s.damagedEntries[damaged].position <= pos || good == s.entries.size())) {
      entries.push_back(s.damagedEntries[damaged++].raw);
    } else {
      entries.push_back(toJson(s.entries[good++]));
    }
  }
  Json j = s.extra.is_object() ? s.extra : Json::object();
  j["id"] = s.id;
  j["createdAt"] = dateToJson(s.createdAt, DateForm::iso8601);
  j["expiresAt"] = dateToJson(s.expiresAt, DateForm::iso8601);
  j["trigger"] = toJson(s.trigger);
  j["entries"] = std::move(entries);
  return j;
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
  for (size_t i = 0; i < entries.size(); ++i) {
    const Json& e = entries[i];
    try {
      s.entries.push_back(quarantineEntryFromJson(e));
    } catch (const DecodeError&) {
      // One bad entry must not hide the rest of the session: keep it as it is.
      DamagedQuarantineEntry d{i, e, std::nullopt};
      if (auto name = e.is_object() ? e.find("storedName") : e.end();
          e.is_object() && name != e.end() && name->is_string())
        d.storedName = name->get<std::string>();
      s.damagedEntries.push_back(std::move(d));
    }
  }
  for (auto it = j.begin(); it != j.end(); ++it) {
    const std::string& k = it.key();
    if (k == "id" || k == "createdAt" || k == "expiresAt" || k == "trigger" || k == "entries")
      continue;
    if (!s.extra.is_object()) s.extra = Json::object();
    s.extra[k] = it.value();
  }
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

QuarantineError QuarantineError::damaged(const std::string& itemsFolder) {
  return {Kind::damaged, "This quarantine entry is damaged; its item stays in " + itemsFolder};
}

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
    file_ = FileLock::acquire(file, kWait, createStore);
    if (!file_) {
      const int err = errno;  // read before building the message
      throwErrno(err, "lock " + file.string());
    }
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
    const int err = platform::renameNoReplace(parent.fd.get(), parent.name.c_str(), itemsFd.get(),
                                              entry.storedName.c_str());
    if (err == 0) break;
    try {
      journal.append(record("abort", entry.storedName));
    } catch (const std::system_error&) {
      // The intent stays as "moving"; recovery finds the item still at its original path.
    }
    // A name taken by something no entry knows yet (it is adopted on recovery): try the next.
    if (err == EEXIST && attempt + 1 < kMaxNameAttempts) continue;
    throwErrno(err, "move " + item.string() + " to " + (itemsPath / entry.storedName).string());
  }
  // 3. Confirm. A failure leaves "moving" in the journal, which recovery turns into a plain entry
  // because the item is in "items" under its identity: the move is done, so it is no error here.
  try {
    journal.append(record("confirm", entry.storedName));
  } catch (const std::system_error&) {
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
    bool holdsItems = false;
    // Its own descriptor: a listing consumes the one it reads, and adoption lists "items" again.
    if (UniqueFd probe(itemsFd ? platform::openDirectoryAt(sessionFd.get(), kItems) : -1); probe) {
      platform::readDirectory(probe.get(),
                              [&](const char*, platform::EntryType) { holdsItems = true; });
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
    bool present = false;
    replay(adopted, readJournal(sessionDir(id) / kJournal, present));
    read.session = std::move(adopted);
    changed = true;
  }
  QuarantineSession& session = *read.session;
  for (auto& e : session.entries) {
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
      e.restored = true;  // a restore moved it back and stopped before recording it
      changed = true;
    } else if (e.restored && stored && e.identity && *stored == *e.identity) {
      e.restored = false;  // recorded as restored, but the move back did not last (a power cut)
      changed = true;
    }
  }
  if (itemsFd) adoptOrphans(session, itemsFd.get(), changed);
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

void Quarantine::adoptOrphans(QuarantineSession& session, int itemsFd, bool& changed) {
  std::vector<std::string> names;
  platform::readDirectory(itemsFd,
                          [&](const char* name, platform::EntryType) { names.emplace_back(name); });
  if (names.empty()) return;
  // Every name an entry stands for, a damaged entry's too: its item stays where it is.
  std::unordered_set<std::string> known;
  for (const auto& e : session.entries) known.insert(e.storedName);
  for (const auto& d : session.damagedEntries)
    if (d.storedName) known.insert(*d.storedName);
  std::sort(names.begin(), names.end());
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
    const fs::path source = itemsPath / e.storedName;
    auto stored = itemsFd ? identityAt(itemsFd.get(), e.storedName.c_str()) : std::nullopt;
    if (!stored) {
      failures.push_back({e.id(), QuarantineError::missing(source.string()).what()});
      continue;
    }
    try {
      const auto place = placeOf ? placeOf(e.originalPath) : std::optional<std::string>(e.originalPath);
      if (!place) {
        failures.push_back({e.id(), "The folder of " + e.originalPath +
                                        " is a link that may not be followed; the item stays in quarantine"});
        continue;
      }
      const fs::path destination(*place);
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
      e.restored = true;
      e.identity = stored;
      try {
        if (!journal) journal.emplace(sessionFd.get());
        journal->append(restoredRecord(e));
      } catch (const std::system_error&) {
        recorded = false;  // the manifest written below must then succeed
      }
    } catch (const std::system_error& err) {
      failures.push_back({e.id(), err.code().message()});
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
