// Flushing a file or a folder all the way to the disk (the platform's strongest flush).
#pragma once

namespace kestrel::platform {

// Returns 0 on success, else an errno value. On macOS this is F_FULLFSYNC (falling back to fsync
// where the file system does not support it); elsewhere fsync.
int fullSync(int fd) noexcept;

}  // namespace kestrel::platform
