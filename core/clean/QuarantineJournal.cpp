// The quarantine's journal: appending records, reading them back and replaying them over a manifest.
#include "core/clean/QuarantineJournal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <unordered_map>
#include <unordered_set>

#include "core/store/JSONStore.h"

namespace kestrel::QuarantineJournal {
namespace {

// Journal lines are a few hundred bytes; anything this long is not one of ours and is skipped.
constexpr size_t kMaxJournalLine = size_t{1} << 20;

[[noreturn]] void throwErrno(int err, const std::string& what) {
  throw std::system_error(err, std::generic_category(), what);
}

}  // namespace

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

Writer::Writer(int sessionFd) {
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

void Writer::append(const Json& rec) {
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

Records read(const fs::path& file) {
  Records result;
  std::vector<Json>& out = result.records;
  UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  result.present = fd || errno != ENOENT;
  struct stat st;
  if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return result;
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
  return result;
}

// An intent for a name already present is skipped, and confirm and abort only act on an entry
// still moving.
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

SessionRead readSession(const fs::path& dir) {
  SessionRead out;
  // The journal first: a recovery folding it into the manifest between the two reads then
  // shows as the new manifest plus old records, which replay to the same thing.
  const Records journal = read(dir / kJournal);
  out.hadJournal = journal.present;
  const auto& records = journal.records;
  auto loaded =
      JSONStore::loadChecked<QuarantineSession>(dir / kManifest, quarantineSessionFromJson);
  out.manifest = loaded.status;
  if (loaded.value) {
    replay(*loaded.value, records);
    out.session = std::move(loaded.value);
  }
  return out;
}


}  // namespace kestrel::QuarantineJournal
