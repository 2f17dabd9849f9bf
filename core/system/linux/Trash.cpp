// The freedesktop.org Trash: info file first (O_EXCL), then a no-replace rename into "files".
#include "core/system/Trash.h"

#include "core/system/Durability.h"
#include "core/system/SafeFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace kestrel::platform {
namespace {

[[noreturn]] void fail(int err, const std::string& what) {
  throw std::system_error(err, std::generic_category(), what);
}

std::filesystem::path trashRoot(const Paths& paths) {
  // XDG_DATA_HOME is honoured only inside this home, so a scratch home never reaches another's Trash.
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && xdg[0] == '/') {
    const std::string home = paths.home().string() + "/";
    const std::string data = standardizedPath(xdg).string();
    if (data.rfind(home, 0) == 0) return std::filesystem::path(data) / "Trash";
  }
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

}  // namespace

std::filesystem::path trashFilesDir(const Paths& paths) { return trashRoot(paths) / "files"; }

std::filesystem::path moveToTrash(const Paths& paths, const ParentDir& item, Date now) {
  const std::filesystem::path root = trashRoot(paths);
  const Anchor home = Anchor::open(paths.home());
  UniqueFd files = SafeFS::openFolder(home, root / "files", /*createMissing=*/true);
  UniqueFd info = SafeFS::openFolder(home, root / "info", /*createMissing=*/true);
  ::fchmod(files.get(), 0700);
  ::fchmod(info.get(), 0700);
  const auto id = identityAt(item.fd.get(), item.name.c_str());
  if (!id) fail(errno, "trash " + item.itemPath().string());
  struct stat filesStat;
  if (::fstat(files.get(), &filesStat) != 0) fail(errno, "trash " + root.string());
  if (filesStat.st_dev != id->dev) fail(EXDEV, "The Trash is on another volume than " + item.itemPath().string());

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
    const int syncErr = w == static_cast<ssize_t>(content.size()) ? fullSync(infoFd.get()) : EIO;
    infoFd.reset();
    if (syncErr != 0) {
      ::unlinkat(info.get(), infoName.c_str(), 0);
      fail(syncErr, "trash info for " + item.itemPath().string());
    }
    const int err = renameNoReplace(item.fd.get(), item.name.c_str(), files.get(), name.c_str());
    if (err == EEXIST) {
      ::unlinkat(info.get(), infoName.c_str(), 0);  // a stray file without info holds the name
      continue;
    }
    if (err != 0) {
      ::unlinkat(info.get(), infoName.c_str(), 0);
      fail(err, "move " + item.itemPath().string() + " to the Trash");
    }
    fullSync(files.get());
    fullSync(item.fd.get());
    return root / "files" / name;
  }
  fail(EEXIST, "No free name in the Trash for " + item.itemPath().string());
}

}  // namespace kestrel::platform
