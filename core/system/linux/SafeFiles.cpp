// Descriptor-relative renames, descriptor paths and random bytes on Linux.
#include <fcntl.h>
#include <stdio.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "core/system/fs/SafeFiles.h"

namespace kestrel::platform {

std::error_code renameNoReplace(int fromDir, const char* from, int toDir, const char* to) noexcept {
  // RENAME_NOREPLACE (1); the raw call works with any C library version.
  if (::syscall(SYS_renameat2, fromDir, from, toDir, to, 1u) == 0) return {};
  return {errno, std::generic_category()};
}

std::optional<std::string> pathOfDescriptor(int fd) noexcept {
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  std::string buf(4096, '\0');
  const ssize_t n = ::readlink(link.c_str(), buf.data(), buf.size());
  if (n <= 0 || static_cast<size_t>(n) >= buf.size()) return std::nullopt;
  buf.resize(static_cast<size_t>(n));
  // A removed folder reads as "<path> (deleted)"; its path no longer names it.
  if (buf.empty() || buf[0] != '/' || buf.ends_with(" (deleted)")) return std::nullopt;
  return buf;
}

void randomBytes(void* out, std::size_t count) noexcept {
  auto* p = static_cast<unsigned char*>(out);
  while (count > 0) {
    const ssize_t n = ::getrandom(p, count, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      std::abort();
    }
    p += n;
    count -= static_cast<size_t>(n);
  }
}

}  // namespace kestrel::platform
