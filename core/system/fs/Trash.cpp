// The Trash of both layouts: macOS "~/.Trash" with time-stamped names, and the freedesktop.org
// Trash (info file first with O_EXCL, then a no-replace rename into "files") of every volume.
#include "core/system/fs/Trash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <system_error>

#include "core/system/fs/Durability.h"
#include "core/system/fs/FS.h"
#include "core/system/fs/FileStat.h"
#include "core/system/fs/SafeFiles.h"
#include "core/system/fs/StoreFile.h"

namespace kestrel::platform {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(int err, const std::string& what) {
  throw std::system_error(err, std::generic_category(), what);
}

fs::path homeTrashRoot(const Paths& paths) {
  // Only a Trash inside this home is used, so a scratch home never reaches another's Trash.
  const std::string home = paths.home().string() + "/";
  const fs::path root = paths.homeTrashDir();
  if (root.string().rfind(home, 0) == 0) return root;
  return paths.home() / ".local/share/Trash";
}

// Percent-encodes a path for the info file's "Path=" key (unreserved and "/" kept).
std::string encodePath(const std::string& p) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : p) {
    if (std::isalnum(c) || std::string_view("-_.~!$&'()*+,;=:@/").find(static_cast<char>(c)) != std::string_view::npos) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

std::string candidateName(const std::string& name, int n) {
  if (n == 1) return name;
  const auto dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0) return name + "." + std::to_string(n);
  return name.substr(0, dot) + "." + std::to_string(n) + name.substr(dot);
}

// Opens (making it, owner-only, when missing) a folder inside `parent` without following a link;
// the folder must be the user's own.
UniqueFd ownFolderAt(int parent, const char* name) {
  if (::mkdirat(parent, name, 0700) != 0 && errno != EEXIST) fail(errno, std::string("make ") + name);
  UniqueFd fd(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat st;
  if (!fd || ::fstat(fd.get(), &st) != 0) fail(errno ? errno : EIO, std::string("open ") + name);
  if (st.st_uid != ::getuid()) fail(EPERM, std::string(name) + " is not yours");
  return fd;
}

// The highest folder above `path` on the same device: the volume's top folder.
fs::path volumeTop(const fs::path& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) fail(errno, "stat " + path.string());
  fs::path top = path;
  for (fs::path up = path.parent_path(); !up.empty(); up = up.parent_path()) {
    struct stat ust;
    if (::stat(up.c_str(), &ust) != 0 || ust.st_dev != st.st_dev) break;
    top = up;
    if (up == up.root_path()) break;
  }
  return top;
}

// The Trash folder of a volume other than the home's, opened: "$topdir/.Trash/$uid" only when
// "$topdir/.Trash" is a real folder with the sticky bit, else "$topdir/.Trash-$uid".
UniqueFd volumeTrash(const fs::path& top, fs::path& where) {
  const Anchor root = Anchor::open("/");
  UniqueFd topFd = top == "/" ? UniqueFd(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC))
                              : SafeFS::openFolder(root, top);
  const std::string uid = std::to_string(::getuid());
  struct stat shared;
  if (::fstatat(topFd.get(), ".Trash", &shared, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(shared.st_mode) &&
      (shared.st_mode & S_ISVTX)) {
    UniqueFd sharedFd(::openat(topFd.get(), ".Trash", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (sharedFd) {
      where = top / ".Trash" / uid;
      return ownFolderAt(sharedFd.get(), uid.c_str());
    }
  }
  const std::string own = ".Trash-" + uid;
  where = top / own;
  return ownFolderAt(topFd.get(), own.c_str());
}

// Allocated bytes of a folder tree, as `du -B1` counts them (the "directorysizes" figure).
int64_t treeBytes(const fs::path& folder) {
  int64_t total = 0;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(folder, fs::directory_options::skip_permission_denied, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    struct stat st;
    if (::lstat(it->path().c_str(), &st) == 0) total += static_cast<int64_t>(st.st_blocks) * 512;
  }
  return total;
}

// Rewrites "directorysizes" in `trash` through a temporary file and a rename: the lines other
// than `name`'s, plus `added` when given.
void rewriteDirectorySizes(const fs::path& trash, const std::string& encodedName, const std::string& added) {
  const fs::path file = trash / "directorysizes";
  // A cache anyone may replace: read like a store (never a FIFO, never unbounded).
  std::istringstream in(StoreFile::readFile(file).value_or(""));
  std::string out;
  bool changed = !added.empty();
  for (std::string line; std::getline(in, line);) {
    // "<size> <mtime> <percent-encoded name>"
    const auto second = line.find(' ', line.find(' ') + 1);
    if (second != std::string::npos && line.substr(second + 1) == encodedName) {
      changed = true;
      continue;
    }
    out += line + "\n";
  }
  if (!changed) return;
  out += added;
  try {
    StoreFile::writeAtomically(out, file);
  } catch (const std::exception&) {
    // The cache is optional: a stale one only costs a file manager a recount.
  }
}

fs::path freedesktopMove(const fs::path& root, int rootFd, const ParentDir& item, Date now) {
  UniqueFd files = ownFolderAt(rootFd, "files");
  UniqueFd info = ownFolderAt(rootFd, "info");
  const auto id = identityAt(item.fd.get(), item.name.c_str());
  if (!id) fail(errno, "trash " + item.itemPath().string());
  struct stat filesStat;
  if (::fstat(files.get(), &filesStat) != 0) fail(errno, "trash " + root.string());
  if (filesStat.st_dev != id->dev) fail(EXDEV, "The Trash is on another volume than " + item.itemPath().string());
  struct stat itemStat;
  const bool isFolder = ::fstatat(item.fd.get(), item.name.c_str(), &itemStat, AT_SYMLINK_NOFOLLOW) == 0 &&
                        S_ISDIR(itemStat.st_mode);

  const std::string content = "[Trash Info]\nPath=" + encodePath(item.itemPath().string()) +
                              "\nDeletionDate=" + Dates::local(now, "yyyy-MM-ddTHH:mm:ss") + "\n";
  for (int n = 1; n < 10000; ++n) {
    const std::string name = candidateName(item.name, n);
    const std::string infoName = name + ".trashinfo";
    // The info file is made first and exclusively: its name reserves the name in "files".
    UniqueFd infoFd(::openat(info.get(), infoName.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!infoFd) {
      if (errno == EEXIST) continue;
      fail(errno, "trash info for " + item.itemPath().string());
    }
    const ssize_t w = ::write(infoFd.get(), content.data(), content.size());
    const std::error_code syncErr = w == static_cast<ssize_t>(content.size())
                                        ? fullSync(infoFd.get())
                                        : std::make_error_code(std::errc::io_error);
    infoFd.reset();
    if (syncErr) {
      ::unlinkat(info.get(), infoName.c_str(), 0);
      fail(syncErr.value(), "trash info for " + item.itemPath().string());
    }
    const std::error_code err = renameNoReplace(item.fd.get(), item.name.c_str(), files.get(), name.c_str());
    if (err == std::errc::file_exists) {
      ::unlinkat(info.get(), infoName.c_str(), 0);  // a stray file without info holds the name
      continue;
    }
    if (err) {
      ::unlinkat(info.get(), infoName.c_str(), 0);
      fail(err.value(), "move " + item.itemPath().string() + " to the Trash");
    }
    // The move is done either way; a failed flush only weakens what a power cut may undo.
    (void)fullSync(files.get());
    (void)fullSync(item.fd.get());
    if (isFolder) {
      struct stat infoStat;
      const int64_t mtime = ::fstatat(info.get(), infoName.c_str(), &infoStat, 0) == 0 ? infoStat.st_mtime : 0;
      rewriteDirectorySizes(root, encodePath(name),
                            std::to_string(treeBytes(root / "files" / name)) + " " + std::to_string(mtime) + " " +
                                encodePath(name) + "\n");
    }
    return root / "files" / name;
  }
  fail(EEXIST, "No free name in the Trash for " + item.itemPath().string());
}

fs::path macMove(const Paths& paths, const ParentDir& item, Date now) {
  const fs::path root = paths.home() / ".Trash";
  const Anchor home = Anchor::open(paths.home());
  UniqueFd trash = SafeFS::openFolder(home, root, /*createMissing=*/true);
  const auto id = identityAt(item.fd.get(), item.name.c_str());
  struct stat st;
  if (!id || ::fstat(trash.get(), &st) != 0) fail(errno, "trash");
  if (st.st_dev != id->dev) fail(EXDEV, "The Trash is on another volume");
  const auto dot = item.name.rfind('.');
  const bool hasExt = dot != std::string::npos && dot > 0;
  const std::string stem = hasExt ? item.name.substr(0, dot) : item.name;
  const std::string ext = hasExt ? item.name.substr(dot) : "";
  const std::string stamped = stem + " " + Dates::local(now, "h.mm.ss a");
  for (int n = 0; n < 10000; ++n) {
    const std::string name = n == 0 ? item.name : (n == 1 ? stamped + ext : stamped + " " + std::to_string(n) + ext);
    const std::error_code err = renameNoReplace(item.fd.get(), item.name.c_str(), trash.get(), name.c_str());
    if (!err) return root / name;
    if (err != std::errc::file_exists) fail(err.value(), "move to the Trash");
  }
  fail(EEXIST, "No free name in the Trash");
}

// "<trash>/files/<name>" → "<trash>", when the path has that shape.
std::optional<fs::path> trashOfEntry(const fs::path& entry) {
  if (entry.parent_path().filename() != "files") return std::nullopt;
  return entry.parent_path().parent_path();
}

}  // namespace

fs::path trashFilesDir(const Paths& paths) {
  return paths.layout() == Layout::macos ? paths.home() / ".Trash" : homeTrashRoot(paths) / "files";
}

fs::path moveToTrash(const Paths& paths, const ParentDir& item, Date now) {
  // A move would carry a file system mounted inside the item along with it.
  if (auto mount = FS::mountInside(item.fd.get(), item.name)) throw FS::ContainsMount(*mount);
  if (paths.layout() == Layout::macos) return macMove(paths, item, now);
  const fs::path homeRoot = homeTrashRoot(paths);
  const Anchor home = Anchor::open(paths.home());
  UniqueFd homeTrash = SafeFS::openFolder(home, homeRoot, /*createMissing=*/true);
  ::fchmod(homeTrash.get(), 0700);
  struct stat trashStat, itemStat;
  if (::fstat(homeTrash.get(), &trashStat) != 0) fail(errno, "trash " + homeRoot.string());
  if (::fstatat(item.fd.get(), item.name.c_str(), &itemStat, AT_SYMLINK_NOFOLLOW) != 0)
    fail(errno, "trash " + item.itemPath().string());
  if (itemStat.st_dev == trashStat.st_dev) return freedesktopMove(homeRoot, homeTrash.get(), item, now);
  // Another volume: its own Trash, so nothing is ever copied across volumes.
  fs::path where;
  UniqueFd volume = volumeTrash(volumeTop(item.path), where);
  return freedesktopMove(where, volume.get(), item, now);
}

fs::path trashInfoFile(const fs::path& entry) {
  return entry.parent_path().parent_path() / "info" / (entry.filename().string() + ".trashinfo");
}

std::optional<Date> trashInfoDeletionDate(std::string_view text) {
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.starts_with("DeletionDate=")) return Dates::parseLocal(line.substr(13));
    start = end + 1;
  }
  return std::nullopt;
}

std::optional<std::string> trashInfoPath(std::string_view text, const fs::path& topdir) {
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(start, end - start);
    start = end + 1;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!line.starts_with("Path=")) continue;
    std::string decoded;
    for (size_t i = 5; i < line.size(); ++i) {
      const auto hex = [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; };
      if (line[i] == '%' && i + 2 < line.size() + 0 && hex(line[i + 1]) && hex(line[i + 2])) {
        decoded += static_cast<char>(std::stoi(std::string(line.substr(i + 1, 2)), nullptr, 16));
        i += 2;
      } else {
        decoded += line[i];
      }
    }
    if (decoded.empty()) return std::nullopt;
    return decoded[0] == '/' ? decoded : (topdir / decoded).string();
  }
  return std::nullopt;
}

std::optional<Date> trashDeletionDate(const fs::path& entry) noexcept {
  try {
    const auto text = StoreFile::readFile(trashInfoFile(entry));
    if (text) return trashInfoDeletionDate(*text);
  } catch (const std::exception&) {
    // An unreadable record says nothing about when the item arrived.
  }
  return std::nullopt;
}

void forgetTrashEntry(const fs::path& entry) noexcept {
  try {
    const auto trash = trashOfEntry(entry);
    if (!trash) return;
    std::error_code ec;
    if (fs::exists(fs::symlink_status(entry, ec))) return;
    const fs::path info = trashInfoFile(entry);
    if (fs::is_regular_file(fs::symlink_status(info, ec))) fs::remove(info, ec);
    rewriteDirectorySizes(*trash, encodePath(entry.filename().string()), "");
  } catch (const std::exception&) {
    // Leftovers are orphans a later emptying or file manager removes.
  }
}

namespace {

// Opens `name` in `parent` as a real folder (never through a link) owned by the user.
UniqueFd ownRealFolder(int parent, const char* name) {
  UniqueFd fd(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
  struct stat st;
  if (!fd || ::fstat(fd.get(), &st) != 0 || st.st_uid != ::getuid()) return UniqueFd();
  return fd;
}

// True when `trash` in the open folder `parent` is the user's own Trash with its "files" folder,
// both real folders of the user's.
bool isOwnTrash(int parent, const char* trash) {
  const UniqueFd fd = ownRealFolder(parent, trash);
  return fd && ownRealFolder(fd.get(), "files");
}

}  // namespace

std::vector<fs::path> otherVolumeTrashes(const Paths& paths) {
  std::vector<fs::path> out;
  const std::string uid = std::to_string(::getuid());
  struct stat homeStat;
  const bool haveHome = ::stat(paths.home().c_str(), &homeStat) == 0;
  // Tests confine the search to their own scratch mounts, so a developer's real USB stick is never
  // offered to (and emptied by) a test's clean.
  if (paths.volumesRoot().empty()) return out;
  for (const auto& top : mountPoints()) {
    const std::string point = top.string(), root = paths.volumesRoot().string();
    if (root != "/" && point != root && point.rfind(root + "/", 0) != 0) continue;
    // Anyone who can write a volume can plant names in it: every folder on the way is opened
    // without following a link, and only the user's own folders count.
    UniqueFd topFd;
    try {
      topFd = top == "/" ? UniqueFd(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC))
                         : SafeFS::openFolder(Anchor::open("/"), top);
    } catch (const std::exception&) {
      continue;  // a mount point reached through a link, or gone: no Trash of the user's there
    }
    struct stat st;
    if (!topFd || ::fstat(topFd.get(), &st) != 0 || (haveHome && st.st_dev == homeStat.st_dev)) continue;
    if (::faccessat(topFd.get(), ".", W_OK, 0) != 0) continue;  // the user cannot write it: no Trash of theirs
    // The shared ".Trash" counts only as a real folder with the sticky bit.
    UniqueFd shared(::openat(topFd.get(), ".Trash", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (shared && ::fstat(shared.get(), &st) == 0 && (st.st_mode & S_ISVTX) && isOwnTrash(shared.get(), uid.c_str()))
      out.push_back(top / ".Trash" / uid / "files");
    const std::string own = ".Trash-" + uid;
    if (isOwnTrash(topFd.get(), own.c_str())) out.push_back(top / own / "files");
  }
  return out;
}

}  // namespace kestrel::platform
