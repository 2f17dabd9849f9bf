// FileHash: whole-file XXH3 through one descriptor opened without following links.
#include "core/system/FileHash.h"

#include <fcntl.h>
#include <unistd.h>
#include <xxhash.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "core/base/UniqueFd.h"
#include "core/system/FileStat.h"

namespace kestrel::FileHash {
namespace {

constexpr size_t kBlock = 1 << 20;

int openForReading(int dirFd, const char* name) {
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
#ifdef O_NOATIME
  // O_NOATIME is only allowed on files the caller owns.
  const int fd = ::openat(dirFd, name, kFlags | O_NOATIME);
  if (fd >= 0 || errno != EPERM) return fd;
#endif
  return ::openat(dirFd, name, kFlags);
}

}  // namespace

std::optional<uint64_t> ofFileAt(int dirFd, const char* name, const struct stat* expected, uint64_t* bytesRead) noexcept {
  UniqueFd fd(openForReading(dirFd, name));
  if (!fd) return std::nullopt;
  struct stat st;
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  if (expected && (st.st_dev != expected->st_dev || st.st_ino != expected->st_ino ||
                   st.st_size != expected->st_size ||
                   platform::modifiedTime(st) != platform::modifiedTime(*expected)))
    return std::nullopt;
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
  // Reads exactly `want` bytes unless the file ends first.
  auto fill = [](int fd, char* buffer, size_t want) -> ssize_t {
    size_t got = 0;
    while (got < want) {
      const ssize_t n = ::read(fd, buffer + got, want - got);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return -1;
      if (n == 0) break;
      got += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(got);
  };
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

std::string text(uint64_t hash) {
  char buf[17];
  std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(hash));
  return buf;
}

}  // namespace kestrel::FileHash
