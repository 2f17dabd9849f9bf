// The Trash on macOS: "~/.Trash", a time-stamped name on a clash, a no-replace rename.
#include "core/system/Trash.h"

#include "core/system/SafeFiles.h"

#include <sys/stat.h>

#include <cerrno>
#include <system_error>

namespace kestrel::platform {

std::filesystem::path trashFilesDir(const Paths& paths) { return paths.home() / ".Trash"; }

std::filesystem::path moveToTrash(const Paths& paths, const ParentDir& item, Date now) {
  const std::filesystem::path root = trashFilesDir(paths);
  const Anchor home = Anchor::open(paths.home());
  UniqueFd trash = SafeFS::openFolder(home, root, /*createMissing=*/true);
  const auto id = identityAt(item.fd.get(), item.name.c_str());
  struct stat st;
  if (!id || ::fstat(trash.get(), &st) != 0) throw std::system_error(errno, std::generic_category(), "trash");
  if (st.st_dev != id->dev) throw std::system_error(EXDEV, std::generic_category(), "The Trash is on another volume");
  const auto dot = item.name.rfind('.');
  const bool hasExt = dot != std::string::npos && dot > 0;
  const std::string stem = hasExt ? item.name.substr(0, dot) : item.name;
  const std::string ext = hasExt ? item.name.substr(dot) : "";
  const std::string stamped = stem + " " + Dates::local(now, "h.mm.ss a");
  for (int n = 0; n < 10000; ++n) {
    const std::string name = n == 0 ? item.name : (n == 1 ? stamped + ext : stamped + " " + std::to_string(n) + ext);
    const int err = renameNoReplace(item.fd.get(), item.name.c_str(), trash.get(), name.c_str());
    if (err == 0) return root / name;
    if (err != EEXIST) throw std::system_error(err, std::generic_category(), "move to the Trash");
  }
  throw std::system_error(EEXIST, std::generic_category(), "No free name in the Trash");
}

}  // namespace kestrel::platform
