// File queries on Linux: getdents64 listings, statx with only the fields asked for, O_NOATIME.
#include "core/system/fs/FileStat.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>

namespace kestrel::platform {
namespace {

struct LinuxDirent64 {
  ino64_t d_ino;
  off64_t d_off;
  unsigned short d_reclen;
  unsigned char d_type;
  char d_name[];
};

EntryType fromDType(unsigned char t) {
  switch (t) {
    case DT_REG: return EntryType::regular;
    case DT_DIR: return EntryType::directory;
    case DT_LNK: return EntryType::symlink;
    case DT_UNKNOWN: return EntryType::unknown;
    default: return EntryType::other;
  }
}

EntryType fromMode(mode_t m) {
  if (S_ISREG(m)) return EntryType::regular;
  if (S_ISDIR(m)) return EntryType::directory;
  if (S_ISLNK(m)) return EntryType::symlink;
  return EntryType::other;
}

Date fromTimestamp(const statx_timestamp& ts) {
  return Date{std::chrono::duration_cast<Date::duration>(std::chrono::seconds{ts.tv_sec} +
                                                         std::chrono::nanoseconds{ts.tv_nsec})};
}

Date fromTs(const timespec& ts) {
  return Date{std::chrono::duration_cast<Date::duration>(std::chrono::seconds{ts.tv_sec} +
                                                         std::chrono::nanoseconds{ts.tv_nsec})};
}

int openDirFlags(bool noAtime) {
  return O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | (noAtime ? O_NOATIME : 0);
}

}  // namespace

Date modifiedTime(const struct stat& st) noexcept { return fromTs(st.st_mtim); }
Date accessedTime(const struct stat& st) noexcept { return fromTs(st.st_atim); }
Date changedTime(const struct stat& st) noexcept { return fromTs(st.st_ctim); }

int openDirectoryAt(int dirfd, const char* name) noexcept {
  int fd = ::openat(dirfd, name, openDirFlags(true));
  // O_NOATIME is only allowed on files the caller owns.
  if (fd < 0 && errno == EPERM) fd = ::openat(dirfd, name, openDirFlags(false));
  return fd;
}

int openDirectory(const char* path) noexcept { return openDirectoryAt(AT_FDCWD, path); }

bool readDirectory(int fd, const std::function<void(const char*, EntryType)>& onEntry) noexcept {
  alignas(8) static thread_local char buf[64 * 1024];
  for (;;) {
    const long n = ::syscall(SYS_getdents64, fd, buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) return true;
    for (long off = 0; off < n;) {
      auto* d = reinterpret_cast<LinuxDirent64*>(buf + off);
      off += d->d_reclen;
      const char* name = d->d_name;
      if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0))) continue;
      onEntry(name, fromDType(d->d_type));
    }
  }
}

namespace {

// Each line of the mount table: its mount id (field 1) and mount point (field 5), with the
// kernel's octal escapes (\040 for a blank) undone.
void forEachMount(const std::function<void(uint64_t, const std::string&)>& visit) {
  std::ifstream in("/proc/self/mountinfo");
  for (std::string line; std::getline(in, line);) {
    std::istringstream fields(line);
    std::string id, parent, devno, root, point;
    if (!(fields >> id >> parent >> devno >> root >> point)) continue;
    try {
      std::string decoded;
      for (size_t i = 0; i < point.size(); ++i) {
        if (point[i] == '\\' && i + 3 < point.size()) {
          decoded += static_cast<char>(std::stoi(point.substr(i + 1, 3), nullptr, 8));
          i += 3;
        } else {
          decoded += point[i];
        }
      }
      visit(std::stoull(id), decoded);
    } catch (const std::exception&) {
      // a line this parser does not understand names no mount
    }
  }
}

}  // namespace

bool statAt(int dirfd, const char* name, EntryStat& out, bool full) noexcept {
  struct statx sx;
  const unsigned mask = full ? (STATX_TYPE | STATX_BLOCKS | STATX_INO | STATX_MTIME) : (STATX_TYPE | STATX_BLOCKS);
  if (::statx(dirfd, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC, mask, &sx) != 0)
    return false;
  out.type = fromMode(sx.stx_mode);
  out.allocated = static_cast<int64_t>(sx.stx_blocks) * 512;
  if (full) {
    out.dev = makedev(sx.stx_dev_major, sx.stx_dev_minor);
    out.ino = sx.stx_ino;
    out.modified = fromTimestamp(sx.stx_mtime);
  }
  return true;
}

std::optional<uint64_t> mountID(int fd) noexcept {
  struct statx sx;
  if (::statx(fd, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_MNT_ID, &sx) == 0 && (sx.stx_mask & STATX_MNT_ID)) {
    return sx.stx_mnt_id;
  }
  // Older kernels: the mount id that file handles carry.
  alignas(struct file_handle) unsigned char storage[sizeof(struct file_handle) + MAX_HANDLE_SZ];
  auto* handle = reinterpret_cast<struct file_handle*>(storage);
  handle->handle_bytes = MAX_HANDLE_SZ;
  int mount = 0;
  if (::name_to_handle_at(fd, "", handle, &mount, AT_EMPTY_PATH) == 0) return static_cast<uint64_t>(mount);
  // Neither (a file system without handles): the mount table's entry whose point is the longest
  // prefix of the folder's path, so the walk still stops at a bind mount.
  try {
    const std::string where =
        std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)).string();
    std::optional<uint64_t> best;
    size_t bestLength = 0;
    forEachMount([&](uint64_t id, const std::string& point) {
      const bool under = point == "/" || where == point || where.rfind(point + "/", 0) == 0;
      if (under && point.size() >= bestLength) {
        best = id;
        bestLength = point.size();
      }
    });
    return best;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<Date> addedToFolderDate(const std::filesystem::path& path) noexcept {
  // Linux keeps no added-to-folder date; the birth time stands in where the file system has one.
  struct statx sx;
  if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME, &sx) != 0) return std::nullopt;
  if (!(sx.stx_mask & STATX_BTIME)) return std::nullopt;
  return fromTimestamp(sx.stx_btime);
}

bool isRemoteVolume(const std::filesystem::path& path) noexcept {
  struct statfs sf;
  if (::statfs(path.c_str(), &sf) != 0) return false;
  switch (static_cast<unsigned long>(sf.f_type)) {
    case NFS_SUPER_MAGIC:
    case SMB_SUPER_MAGIC:
    case 0xFF534D42UL:  // CIFS
    case 0xFE534D42UL:  // SMB2
    case CODA_SUPER_MAGIC:
    case 0x65735546UL:  // FUSE
    case 0x6B414653UL:  // AFS
      return true;
    default:
      return false;
  }
}

std::vector<std::filesystem::path> mountPoints() {
  std::vector<std::filesystem::path> out;
  forEachMount([&](uint64_t, const std::string& point) {
    if (std::find(out.begin(), out.end(), point) == out.end()) out.emplace_back(point);
  });
  return out;
}

}  // namespace kestrel::platform
