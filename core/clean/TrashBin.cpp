// TrashBin: listing the Trash folders, putting an entry back, removing one for good.
#include "core/clean/TrashBin.h"

#include <sys/stat.h>

#include <algorithm>

#include "core/system/fs/FS.h"
#include "core/system/fs/FileStat.h"
#include "core/system/fs/StoreFile.h"
#include "core/system/fs/Trash.h"

namespace kestrel {
namespace {

// The freedesktop Trash whose "files" folder is `files`: its entries with their records.
void listFreedesktop(const fs::path& files, std::vector<TrashEntry>& out) {
  const fs::path info = files.parent_path() / "info";
  // The volume a Trash on another disk belongs to: relative record paths are below it.
  const fs::path top = files.parent_path().parent_path().filename() == ".Trash"
                           ? files.parent_path().parent_path().parent_path()
                           : files.parent_path().parent_path();
  for (const fs::path& record : FS::children(info)) {
    const std::string name = record.filename().string();
    if (name.size() <= 10 || name.substr(name.size() - 10) != ".trashinfo") continue;
    const fs::path item = files / name.substr(0, name.size() - 10);
    const auto text = StoreFile::readFile(record);
    if (!text) continue;
    TrashEntry e;
    e.file = item;
    e.originalPath = platform::trashInfoPath(*text, top).value_or("");
    e.deleted = platform::trashInfoDeletionDate(*text);
    e.present = FS::exists(item);
    e.size = e.present ? FS::allocatedSize(item) : 0;
    out.push_back(std::move(e));
  }
}

}  // namespace

TrashBin::TrashBin(Paths paths, const Services& services)
    : paths_(std::move(paths)),
      services_(services.withDefaults()),
      policy_(paths_, {}, services_),
      remover_(paths_.home()) {}

std::vector<TrashEntry> TrashBin::list() const {
  std::vector<TrashEntry> out;
  if (paths_.layout() == Layout::macos) {
    for (const fs::path& item : FS::children(platform::trashFilesDir(paths_))) {
      if (item.filename() == ".DS_Store") continue;
      out.push_back({item, "", platform::addedToFolderDate(item), FS::allocatedSize(item)});
    }
  } else {
    listFreedesktop(platform::trashFilesDir(paths_), out);
    for (const fs::path& files : platform::otherVolumeTrashes(paths_)) listFreedesktop(files, out);
  }
  std::stable_sort(out.begin(), out.end(), [](const TrashEntry& a, const TrashEntry& b) {
    return a.deleted.value_or(Date{}) < b.deleted.value_or(Date{});
  });
  return out;
}

void TrashBin::restore(const TrashEntry& entry) const {
  if (entry.originalPath.empty() || entry.originalPath[0] != '/')
    throw TrashError(entry.file.string() + " has no record of where it came from");
  if (!entry.present) throw TrashError("The Trash keeps only the record of " + entry.originalPath + "; the item is gone");
  const fs::path destination(entry.originalPath);
  ParentDir from = SafeFS::openParent(Anchor::forPath(paths_.home(), entry.file), entry.file);
  ParentDir to = SafeFS::openParent(Anchor::forPath(paths_.home(), destination), destination, /*createMissing=*/true);
  const std::error_code err = SafeFS::renameNoReplace(from, to);
  if (err == std::errc::file_exists)
    throw TrashError("Something already exists at " + entry.originalPath + ". Move it first, then restore.");
  if (err) throw std::system_error(err, "restore " + entry.file.string());
  // The item is back: its record (and size line) goes with it.
  platform::forgetTrashEntry(entry.file);
}

RemoveResult TrashBin::remove(const TrashEntry& entry) const {
  const Verdict v = policy_.check(entry.file.string());
  if (v.isBlocked()) return {RemoveResult::Status::refused, std::make_error_code(std::errc::permission_denied), entry.file};
  RemoveResult r = remover_.remove(entry.file);
  // The item first, then its record: a record without an item is an orphan, never the reverse.
  if (r.ok() && paths_.layout() == Layout::linux) platform::forgetTrashEntry(entry.file);
  return r;
}

}  // namespace kestrel
