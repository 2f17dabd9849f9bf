// FileHash: the shared 64-bit content hash of a whole file (XXH3).
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>

namespace kestrel::FileHash {

// Hashes the regular file `name` inside the open folder `dirFd`, never through a link and
// without updating its access time where allowed. `expected`, when given, must still describe
// the opened file (device, inode, size, modification time), so a file replaced since it was
// listed is not hashed under the old one's identity. Adds the bytes read to `bytesRead`.
// Nothing when the file cannot be read whole.
std::optional<uint64_t> ofFileAt(int dirFd, const char* name, const struct stat* expected, uint64_t* bytesRead) noexcept;

// Sixteen lower-case hexadecimal digits.
std::string text(uint64_t hash);

}  // namespace kestrel::FileHash
