// FileHash: the shared 64-bit content hash of a whole file (XXH3).
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

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

// Reads files of one length side by side, block by block, each once: every member gets its hash
// and the index of the first member holding the same bytes (compared byte for byte). A member that
// could not be read whole, or whose status changed while it was read, gets neither. `seen` is the member's status when its reading ended, for the caller to tell later
// that it is still the file compared.
struct GroupMember {
  std::optional<uint64_t> hash;
  std::optional<size_t> sameAs;  // the first member (maybe itself) holding these bytes
  struct stat seen {};
};
std::vector<GroupMember> readGroup(int dirFd, const std::vector<const char*>& names,
                                   const std::vector<struct stat>& expected, uint64_t* bytesRead);

// True when `now` is the same file as `then`, unchanged since: device, inode, length and the
// modification and status-change times.
bool unchanged(const struct stat& then, const struct stat& now) noexcept;

// Sixteen lower-case hexadecimal digits.
std::string text(uint64_t hash);

}  // namespace kestrel::FileHash
