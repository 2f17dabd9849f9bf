// File queries on macOS: readdir listings, fstatat, the added-to-folder date and volume flags.
#include "core/system/fs/FileStat.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/attr.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kestrel::platform {
namespace {

EntryType fromMode(mode_t m) {
  if (S_ISREG(m)) return EntryType::regular;
  if (S_ISDIR(m)) return EntryType::directory;
  if (S_ISLNK(m)) return EntryType::symlink;
  return EntryType::other;
}

Date fromTimespec(const timespec& ts) {
  return Date{std::chrono::duration_cast<Date::duration>(std::chrono::seconds{ts.tv_sec} +
                                                         std::chrono::nanoseconds{ts.tv_nsec})};
}

}  // namespace

Date modifiedTime(const struct stat& st) noexcept { return fromTimespec(st.st_mtimespec); }
Date accessedTime(const struct stat& st) noexcept { return fromTimespec(st.st_atimespec); }
Date changedTime(const struct stat& st) noexcept { return fromTimespec(st.st_ctimespec); }

int openDirectoryAt(int dirfd, const char* name) noexcept {
  return ::openat(dirfd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

int openDirectory(const char* path) noexcept { return openDirectoryAt(AT_FDCWD, path); }

bool readDirectory(int fd, const std::function<void(const char*, EntryType)>& onEntry) noexcept {
  const int copy = ::dup(fd);
  if (copy < 0) return false;
  DIR* d = ::fdopendir(copy);
  if (!d) {
    ::close(copy);
    return false;
  }
  ::rewinddir(d);
  errno = 0;
  while (dirent* e = ::readdir(d)) {
    const char* name = e->d_name;
    if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0))) continue;
    EntryType t = EntryType::other;
    switch (e->d_type) {
      case DT_REG: t = EntryType::regular; break;
      case DT_DIR: t = EntryType::directory; break;
      case DT_LNK: t = EntryType::symlink; break;
      case DT_UNKNOWN: t = EntryType::unknown; break;
      default: break;
    }
    onEntry(name, t);
  }
  const bool ok = errno == 0;
  ::closedir(d);
  return ok;
}

bool statAt(int dirfd, const char* name, EntryStat& out, bool) noexcept {
  struct stat st;
  if (::fstatat(dirfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
  out.type = fromMode(st.st_mode);
  out.allocated = static_cast<int64_t>(st.st_blocks) * 512;
  out.dev = st.st_dev;
  out.ino = st.st_ino;
  out.modified = fromTimespec(st.st_mtimespec);
  return true;
}

std::optional<uint64_t> mountID(int fd) noexcept {
  // The system has no bind mounts: every mount point changes the device number.
  struct stat st;
  if (::fstat(fd, &st) != 0) return std::nullopt;
  return static_cast<uint64_t>(st.st_dev);
}

std::optional<Date> addedToFolderDate(const std::filesystem::path& path) noexcept {
  struct {
    uint32_t length;
    timespec added;
  } __attribute__((aligned(4), packed)) buf;
  attrlist al{};
  al.bitmapcount = ATTR_BIT_MAP_COUNT;
  al.commonattr = ATTR_CMN_ADDEDTIME;
  if (::getattrlist(path.c_str(), &al, &buf, sizeof buf, FSOPT_NOFOLLOW) == 0 && buf.length >= sizeof buf)
    return fromTimespec(buf.added);
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return std::nullopt;
  return fromTimespec(st.st_birthtimespec);
}

bool isRemoteVolume(const std::filesystem::path& path) noexcept {
  struct statfs sf;
  if (::statfs(path.c_str(), &sf) != 0) return false;
  return !(sf.f_flags & MNT_LOCAL);
}

std::vector<std::filesystem::path> mountPoints() {
  std::vector<std::filesystem::path> out;
  struct statfs* mounts = nullptr;
  const int n = ::getmntinfo(&mounts, MNT_NOWAIT);
  for (int i = 0; i < n; ++i) out.emplace_back(mounts[i].f_mntonname);
  return out;
}

}  // namespace kestrel::platform
