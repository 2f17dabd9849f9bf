// FileHash: whole-file XXH3 through one descriptor opened without following links.
#include "core/system/fs/FileHash.h"

#include <fcntl.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "core/base/UniqueFd.h"
#include "core/system/fs/FileStat.h"

namespace kestrel::FileHash {
namespace {

constexpr size_t kBlock = 1 << 20;
// Smaller blocks when files are read side by side: one buffer per member.
constexpr size_t kGroupBlock = 128 << 10;

int openForReading(int dirFd, const char* name) {
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
#ifdef O_NOATIME
  // O_NOATIME is only allowed on files the caller owns.
  const int fd = ::openat(dirFd, name, kFlags | O_NOATIME);
  if (fd >= 0 || errno != EPERM) return fd;
#endif
  return ::openat(dirFd, name, kFlags);
}

// Reads exactly `want` bytes unless the file ends first.
ssize_t fill(int fd, char* buffer, size_t want) {
  size_t got = 0;
  while (got < want) {
    const ssize_t n = ::read(fd, buffer + got, want - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

bool sameIdentity(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         platform::modifiedTime(a) == platform::modifiedTime(b);
}

}  // namespace

std::optional<uint64_t> ofFileAt(int dirFd, const char* name, const struct stat* expected, uint64_t* bytesRead) noexcept {
  UniqueFd fd(openForReading(dirFd, name));
  if (!fd) return std::nullopt;
  struct stat st;
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  if (expected && !sameIdentity(st, *expected)) return std::nullopt;
#ifdef POSIX_FADV_SEQUENTIAL
  (void)::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
#endif
  std::unique_ptr<XXH3_state_t, decltype(&XXH3_freeState)> state(XXH3_createState(), XXH3_freeState);
  std::unique_ptr<char[]> buffer(new (std::nothrow) char[kBlock]);
  if (!state || !buffer || XXH3_64bits_reset(state.get()) != XXH_OK) return std::nullopt;
  uint64_t total = 0;
  for (;;) {
    const ssize_t n = ::read(fd.get(), buffer.get(), kBlock);
    if (n < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    if (n == 0) break;
    total += static_cast<uint64_t>(n);
    (void)XXH3_64bits_update(state.get(), buffer.get(), static_cast<size_t>(n));
  }
  if (bytesRead) *bytesRead += total;
  // A file that grew or shrank while it was read is not the one that was listed.
  if (total != static_cast<uint64_t>(st.st_size)) return std::nullopt;
  return XXH3_64bits_digest(state.get());
}

bool sameContent(const std::string& a, const std::string& b, uint64_t* bytesRead) noexcept {
  UniqueFd fa(openForReading(AT_FDCWD, a.c_str())), fb(openForReading(AT_FDCWD, b.c_str()));
  if (!fa || !fb) return false;
  struct stat sa, sb;
  if (::fstat(fa.get(), &sa) != 0 || ::fstat(fb.get(), &sb) != 0) return false;
  if (!S_ISREG(sa.st_mode) || !S_ISREG(sb.st_mode) || sa.st_size != sb.st_size) return false;
  if (sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino) return false;  // one file, not two copies
  std::unique_ptr<char[]> ba(new (std::nothrow) char[kBlock]), bb(new (std::nothrow) char[kBlock]);
  if (!ba || !bb) return false;
  uint64_t total = 0;
  for (;;) {
    const ssize_t na = fill(fa.get(), ba.get(), kBlock), nb = fill(fb.get(), bb.get(), kBlock);
    if (na < 0 || nb < 0 || na != nb) return false;
    if (bytesRead) *bytesRead += 2 * static_cast<uint64_t>(na);
    if (na == 0) break;
    if (std::memcmp(ba.get(), bb.get(), static_cast<size_t>(na)) != 0) return false;
    total += static_cast<uint64_t>(na);
  }
  return total == static_cast<uint64_t>(sa.st_size);
}

namespace {

using State = std::unique_ptr<XXH3_state_t, decltype(&XXH3_freeState)>;

struct Reader {
  UniqueFd fd;
  struct stat opened {};
  std::unique_ptr<char[]> buffer;
};

// Members alike so far, with the hash of the bytes they share: one hash per class, since members
// holding the same bytes have the same hash. Every member is read whole even when alone in its
// class: its hash is what spares reading it again in later sweeps.
struct Class {
  std::vector<size_t> members;
  State state{nullptr, XXH3_freeState};
};

// Opens every member that is still the file listed, at `length` bytes; they form the first class.
Class openMembers(int dirFd, const std::vector<const char*>& names, const std::vector<struct stat>& expected,
                  off_t length, std::vector<Reader>& readers) {
  Class all;
  for (size_t i = 0; i < names.size(); ++i) {
    Reader& r = readers[i];
    r.fd = UniqueFd(openForReading(dirFd, names[i]));
    if (!r.fd || ::fstat(r.fd.get(), &r.opened) != 0 || !S_ISREG(r.opened.st_mode) ||
        !sameIdentity(r.opened, expected[i]) || r.opened.st_size != length)
      continue;
    r.buffer.reset(new (std::nothrow) char[kGroupBlock]);
    if (!r.buffer) continue;
#ifdef POSIX_FADV_SEQUENTIAL
    (void)::posix_fadvise(r.fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
#endif
    all.members.push_back(i);
  }
  all.state.reset(XXH3_createState());
  if (all.state && XXH3_64bits_reset(all.state.get()) != XXH_OK) all.state.reset();
  return all;
}

// Reads the next `want` bytes of every member and splits each class where the bytes part; a
// member that reads short is no longer the file compared and drops out.
std::vector<Class> readBlock(std::vector<Class>& classes, std::vector<Reader>& readers, size_t want, uint64_t& total) {
  std::vector<Class> next;
  for (auto& c : classes) {
    std::vector<std::vector<size_t>> parts;
    for (const size_t i : c.members) {
      Reader& r = readers[i];
      const ssize_t got = fill(r.fd.get(), r.buffer.get(), want);
      if (got > 0) total += static_cast<uint64_t>(got);
      if (got != static_cast<ssize_t>(want)) continue;
      auto it = std::find_if(parts.begin(), parts.end(), [&](const std::vector<size_t>& p) {
        return std::memcmp(readers[p.front()].buffer.get(), r.buffer.get(), want) == 0;
      });
      if (it == parts.end())
        parts.push_back({i});
      else
        it->push_back(i);
    }
    for (size_t k = 0; k < parts.size(); ++k) {
      Class part;
      part.members = std::move(parts[k]);
      if (k + 1 == parts.size()) {
        part.state = std::move(c.state);  // the last part takes the class's own state
      } else {
        part.state.reset(XXH3_createState());
        if (!part.state) continue;
        XXH3_copyState(part.state.get(), c.state.get());
      }
      (void)XXH3_64bits_update(part.state.get(), readers[part.members.front()].buffer.get(), want);
      next.push_back(std::move(part));
    }
  }
  return next;
}

}  // namespace

std::vector<GroupMember> readGroup(int dirFd, const std::vector<const char*>& names,
                                   const std::vector<struct stat>& expected, uint64_t* bytesRead) {
  const size_t n = names.size();
  std::vector<GroupMember> out(n);
  std::vector<Reader> readers(n);
  const off_t length = n ? expected[0].st_size : 0;
  Class all = openMembers(dirFd, names, expected, length, readers);
  if (!all.state) return out;
  std::vector<Class> classes;
  if (!all.members.empty()) classes.push_back(std::move(all));
  uint64_t total = 0;
  for (off_t offset = 0; offset < length && !classes.empty();) {
    const size_t want = static_cast<size_t>(std::min<off_t>(length - offset, static_cast<off_t>(kGroupBlock)));
    classes = readBlock(classes, readers, want, total);
    offset += static_cast<off_t>(want);
  }
  for (const auto& c : classes) {
    const uint64_t hash = XXH3_64bits_digest(c.state.get());
    std::optional<size_t> first;
    for (const size_t i : c.members) {
      Reader& r = readers[i];
      struct stat after;
      // Written to while read: neither its hash nor its likeness holds.
      if (::fstat(r.fd.get(), &after) != 0 || !unchanged(r.opened, after)) continue;
      if (!first) first = i;
      out[i].hash = hash;
      out[i].sameAs = *first;
      out[i].seen = after;
    }
  }
  if (bytesRead) *bytesRead += total;
  return out;
}

bool unchanged(const struct stat& then, const struct stat& now) noexcept {
  return sameIdentity(then, now) && platform::changedTime(then) == platform::changedTime(now);
}

std::string text(uint64_t hash) {
  char buf[17];
  std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(hash));
  return buf;
}

}  // namespace kestrel::FileHash
