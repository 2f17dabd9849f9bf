// The quarantine's per-session journal and how a session folder is read: the manifest with the
// journal's records replayed over it.
#pragma once

#include "core/base/Json.h"
#include "core/base/UniqueFd.h"
#include "core/clean/Quarantine.h"
#include "core/system/fs/StoreFile.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kestrel::QuarantineJournal {

inline constexpr const char* kItems = Paths::kQuarantineItemsName.data();
inline constexpr const char* kManifest = Paths::kQuarantineManifestName.data();
inline constexpr const char* kJournal = Paths::kQuarantineJournalName.data();

// Records: {"op":"intent","entry":{…}} before a move in, {"op":"confirm"|"abort","storedName":…}
// after it, {"op":"restored","storedName":…,"dev":…,"ino":…} after a move back out.
Json record(const char* op, const std::string& storedName);
Json intentRecord(const QuarantineEntry& e);
Json restoredRecord(const QuarantineEntry& e);

// Appends records to a session's journal, one O_APPEND write per record and no flush: a record
// lost to a power cut leaves a state recovery settles by identity, and an item no record names
// is adopted, never deleted.
class Writer {
 public:
  // Opens (creating) the journal in the open session folder; throws std::system_error.
  explicit Writer(int sessionFd);
  // Throws the write's error; a short write (a full disk) leaves a torn line readers skip.
  void append(const Json& rec);

 private:
  UniqueFd fd_;
  bool torn_ = false;
};

// The journal's records in order, read without following a link or blocking. Only lines ended by
// a newline count (the last one may still be being written, or torn by a crash); lines that are
// too long or not JSON objects are skipped.
struct Records {
  std::vector<Json> records;
  bool present = false;  // a journal exists (readable or not)
};
Records read(const std::filesystem::path& file);

// Applies journal records over a session read from its manifest. Replaying records the manifest
// already holds changes nothing (a crash between writing the manifest and removing the journal),
// since stored names are never reused within a session.
void replay(QuarantineSession& s, const std::vector<Json>& records);

// A session folder as it stands: the manifest, then the journal replayed over it.
struct SessionRead {
  StoreFile::FileRead::Status manifest = StoreFile::FileRead::Status::missing;
  std::optional<QuarantineSession> session;
  bool hadJournal = false;
};
SessionRead readSession(const std::filesystem::path& dir);

}  // namespace kestrel::QuarantineJournal
