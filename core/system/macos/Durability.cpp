// Flushing to disk on macOS: F_FULLFSYNC, because plain fsync leaves data in the drive's cache.
#include "core/system/Durability.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace kestrel::platform {

int fullSync(int fd) noexcept {
  if (::fcntl(fd, F_FULLFSYNC) == 0) return 0;
  if (errno == ENOTSUP || errno == EINVAL) return ::fsync(fd) == 0 ? 0 : errno;
  return errno;
}

}  // namespace kestrel::platform
