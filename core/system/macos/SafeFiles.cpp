// Descriptor-relative renames, descriptor paths and random bytes on macOS.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/param.h>
#include <unistd.h>

#include <cerrno>

#include "core/system/fs/SafeFiles.h"

namespace kestrel::platform {

std::error_code renameNoReplace(int fromDir, const char* from, int toDir, const char* to) noexcept {
  if (::renameatx_np(fromDir, from, toDir, to, RENAME_EXCL) == 0) return {};
  return {errno, std::generic_category()};
}

std::optional<std::string> pathOfDescriptor(int fd) noexcept {
  char buf[MAXPATHLEN];
  if (::fcntl(fd, F_GETPATH, buf) != 0) return std::nullopt;
  return std::string(buf);
}

void randomBytes(void* out, std::size_t count) noexcept { ::arc4random_buf(out, count); }

}  // namespace kestrel::platform
