// The user's Trash: moving an item there by rename, never by copy, never over anything; and
// keeping a freedesktop.org Trash consistent when an item is removed from it for good.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>
#include <string_view>

#include "core/base/Dates.h"
#include "core/system/Paths.h"
#include "core/system/fs/SafeRemove.h"

namespace kestrel::platform {

// Moves `item.name` (inside its opened parent) into the Trash and returns where it went.
// macOS layout: "~/.Trash", renamed "<name> <h.mm.ss AM/PM>" (then " 2", " 3" …) on a clash; an
// item on another volume fails with EXDEV.
// Linux layout: the freedesktop.org home Trash (`paths.homeTrashDir()`, used only when it lies
// inside the home folder, else "~/.local/share/Trash"); an item on another volume goes to that
// volume's Trash: "$topdir/.Trash/$uid" when "$topdir/.Trash" is a folder with the sticky bit and
// not a link, else "$topdir/.Trash-$uid". The ".trashinfo" is created first with O_EXCL (it
// reserves the name) and removed again when the move fails; a folder gets its line in
// "directorysizes". Never copies. Throws std::system_error.
std::filesystem::path moveToTrash(const Paths& paths, const ParentDir& item, Date now);

// The folder items are moved into on the home volume ("~/.Trash" or "<home Trash>/files").
std::filesystem::path trashFilesDir(const Paths& paths);

// For an entry `<trash>/files/<name>` of a freedesktop.org Trash: its info file.
std::filesystem::path trashInfoFile(const std::filesystem::path& filesEntry);
// The "DeletionDate" of a ".trashinfo" text (local time, no zone; the first such line); nothing
// when it has none or it does not read as a date.
std::optional<Date> trashInfoDeletionDate(std::string_view text);
// The original path of a ".trashinfo" text: its "Path" key percent-decoded, a relative one taken
// below `topdir` (the volume the Trash is on); nothing when it has none.
std::optional<std::string> trashInfoPath(std::string_view text, const std::filesystem::path& topdir);
// When the entry was trashed: the info file's "DeletionDate" (local time); nothing when missing.
std::optional<Date> trashDeletionDate(const std::filesystem::path& filesEntry) noexcept;
// After `<trash>/files/<name>` was removed for good: removes its info file and its
// "directorysizes" line. Does nothing for any other path, or while the entry still exists.
void forgetTrashEntry(const std::filesystem::path& filesEntry) noexcept;

// The Trash folders ("files" inside them) of the other mounted volumes the user can write:
// "$topdir/.Trash/$uid/files" and "$topdir/.Trash-$uid/files", where they exist.
std::vector<std::filesystem::path> otherVolumeTrashes(const Paths& paths);

}  // namespace kestrel::platform
