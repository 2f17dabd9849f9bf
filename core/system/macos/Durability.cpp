// Flushing to disk on macOS: F_FULLFSYNC, because plain fsync leaves data in the drive's cache.
#include "core/system/fs/Durability.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace kestrel::platform {

std::error_code fullSync(int fd) noexcept {
  if (::fcntl(fd, F_FULLFSYNC) == 0) return {};
  if ((errno == ENOTSUP || errno == EINVAL) && ::fsync(fd) == 0) return {};
  return {errno, std::generic_category()};
}

}  // namespace kestrel::platform
