// Flushing a file or a folder all the way to the disk (the platform's strongest flush).
#pragma once

#include <system_error>

namespace kestrel::platform {

// The flush's error, empty on success. On macOS this is F_FULLFSYNC (falling back to fsync where
// the file system does not support it); elsewhere fsync.
std::error_code fullSync(int fd) noexcept;

}  // namespace kestrel::platform
