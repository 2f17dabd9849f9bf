// Flushing to disk on Linux: fsync.
#include "core/system/fs/Durability.h"

#include <unistd.h>

#include <cerrno>

namespace kestrel::platform {

std::error_code fullSync(int fd) noexcept {
  if (::fsync(fd) == 0) return {};
  return {errno, std::generic_category()};
}

}  // namespace kestrel::platform
