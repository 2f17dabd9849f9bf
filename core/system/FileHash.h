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

// True when `a` and `b` are both regular files (never reached through a final link) of the same
// length holding the same bytes, compared in blocks; false on any doubt (a read error, a file that
// changed length while read). Adds the bytes read to `bytesRead`.
bool sameContent(const std::string& a, const std::string& b,
                 uint64_t* bytesRead = nullptr) noexcept;

// Sixteen lower-case hexadecimal digits.
std::string text(uint64_t hash);

}  // namespace kestrel::FileHash
