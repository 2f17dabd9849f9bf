// FS: stateless file-system queries that answer nothing, false or 0 instead of failing.
#pragma once

#include "core/base/Dates.h"

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrel::FS {

namespace fs = std::filesystem;

struct VolumeSpace {
  int64_t total = 0;
  int64_t free = 0;

  int64_t used() const { return total - free; }
  // free ÷ total; 1.0 when total is below 1, so an unknown volume never looks full.
  double freeFraction() const {
    return total < 1 ? 1.0 : static_cast<double>(free) / static_cast<double>(total);
  }
  bool operator==(const VolumeSpace&) const = default;
};

// Polled during long walks; true stops the walk. May be called from any of the walk's threads,
// but never from two at once.
using CancelTest = std::function<bool()>;

// The item itself is examined, never a link's target: a dangling link exists.
bool exists(const fs::path& url) noexcept;
// The item can be reached: it exists, and a link leads to something that exists.
bool isReachable(const fs::path& url) noexcept;
bool isDirectory(const fs::path& url) noexcept;  // a folder, not a link to one
bool isSymlink(const fs::path& url) noexcept;
// Entries of a plain listing, sorted by name, without ".DS_Store" and ".localized"; empty for an
// unreadable folder. Reading the folder does not update its access time.
std::vector<fs::path> children(const fs::path& url) noexcept;
std::optional<Date> modificationDate(const fs::path& url) noexcept;
std::optional<Date> addedToFolderDate(const fs::path& url) noexcept;
// The later of the access and modification dates.
std::optional<Date> lastUsedDate(const fs::path& url) noexcept;
// Newest modification date of the folder and of at most `limit` entries below it (links not
// followed, other mounts not entered). A guard before removal: when a folder below cannot be
// opened or read, or lies on another mount, the answer is the latest representable date.
std::optional<Date> newestModification(const fs::path& url, int limit) noexcept;
// Bytes the item occupies: its own blocks for a file; for a folder, the sum over the regular files
// below it (links never followed, other mounts never entered, other kinds not counted). `cancel`
// is polled on the first entry and then every 2000 entries; when it answers true the sum so far
// is returned. The walk uses up to two threads.
int64_t allocatedSize(const fs::path& url, const CancelTest& cancel = nullptr) noexcept;
// The same walk over a folder the caller already opened (the descriptor is taken over and closed),
// so a caller that holds the folder's status need not ask for it again.
int64_t allocatedSizeOfFolder(int fd, const CancelTest& cancel = nullptr) noexcept;
// Allocated bytes of one item from its status.
inline int64_t fileSize(const struct stat& attrs) { return static_cast<int64_t>(attrs.st_blocks) * 512; }
std::optional<std::string> volumeID(const fs::path& url) noexcept;
bool sameVolume(const fs::path& a, const fs::path& b) noexcept;
bool isRemoteVolume(const fs::path& url) noexcept;
std::optional<int64_t> freeSpace(const fs::path& url) noexcept;
std::optional<VolumeSpace> volumeSpace(const fs::path& url) noexcept;

// A mount point strictly inside the folder `parentFd`/`name` (judged by its real place), if any:
// moving that folder would carry another file system along with it.
std::optional<fs::path> mountInside(int parentFd, const std::string& name);

// A move refused because the item holds another file system: "contains another file system: <path>".
class ContainsMount : public std::runtime_error {
 public:
  explicit ContainsMount(const fs::path& mount)
      : std::runtime_error("contains another file system: " + mount.string()) {}
};

}  // namespace kestrel::FS
