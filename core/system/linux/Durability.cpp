// Flushing to disk on Linux: fsync.
#include "core/system/Durability.h"

#include <unistd.h>

#include <cerrno>

namespace kestrel::platform {

int fullSync(int fd) noexcept { return ::fsync(fd) == 0 ? 0 : errno; }

}  // namespace kestrel::platform
