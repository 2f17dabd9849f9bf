// The fast, non-following file queries the walkers need, with the platform's cheapest calls.
#pragma once

#include "core/base/Dates.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <vector>
#include <functional>
#include <optional>

namespace kestrel::platform {

// Opens `name` inside `dirfd` as a folder: never through a link, close-on-exec, and without
// updating its access time where the platform allows that (falls back when it is refused).
int openDirectoryAt(int dirfd, const char* name) noexcept;
// The same for an absolute or relative path.
int openDirectory(const char* path) noexcept;

enum class EntryType : unsigned char { unknown, regular, directory, symlink, other };

// Reads every entry of the open folder `fd` (not "." or ".."), giving its name and the type the
// listing reports (unknown where the file system does not say). False on a read error.
bool readDirectory(int fd, const std::function<void(const char* name, EntryType type)>& onEntry) noexcept;

struct EntryStat {
  EntryType type = EntryType::unknown;
  int64_t allocated = 0;  // bytes on disk (blocks × 512)
  dev_t dev = 0;
  ino_t ino = 0;
  Date modified{};
};
// Status of `name` in `dirfd` without following a link. `full` also fills dev, ino and the
// modification date; otherwise only type and allocated size are asked for.
bool statAt(int dirfd, const char* name, EntryStat& out, bool full) noexcept;

// Which mount an open object belongs to. Two objects on the same file system but reached through
// different mounts (a bind mount) differ here although their devices are equal, so a walk that
// compares this never crosses into another mount. Nothing when the system cannot say; callers
// then rely on the device number alone.
std::optional<uint64_t> mountID(int fd) noexcept;

// Modification and access times of a status record, to the nanosecond.
Date modifiedTime(const struct stat& st) noexcept;
Date accessedTime(const struct stat& st) noexcept;
Date changedTime(const struct stat& st) noexcept;  // the status-change time (ctime)

// The date the item was added to its folder, else its creation (birth) date; nothing when the
// file system keeps neither.
std::optional<Date> addedToFolderDate(const std::filesystem::path& path) noexcept;
// True when the item lives on a network file system.
bool isRemoteVolume(const std::filesystem::path& path) noexcept;
// The mount points of the mounted volumes (each once, in mount order).
std::vector<std::filesystem::path> mountPoints();

}  // namespace kestrel::platform
