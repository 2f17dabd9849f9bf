// The user's Trash: moving an item there by rename, never by copy, never over anything.
#pragma once

#include "core/base/Dates.h"
#include "core/system/Paths.h"
#include "core/system/SafeRemove.h"

#include <filesystem>

namespace kestrel::platform {

// Moves `item.name` (inside its opened parent) into the Trash of the home folder and returns where
// it went. macOS: "~/.Trash", renamed "<name> <h.mm.ss AM/PM>" (then " 2", " 3" …) on a clash.
// Linux: the freedesktop.org Trash in $XDG_DATA_HOME (only when that lies inside the home folder,
// else "~/.local/share"), its ".trashinfo" created first with O_EXCL and removed again when the
// move fails. An item on another volume than the Trash fails with EXDEV (never copied).
// Throws std::system_error.
std::filesystem::path moveToTrash(const Paths& paths, const ParentDir& item, Date now);

// The folder items are moved into ("~/.Trash" on macOS, "<Trash>/files" on Linux).
std::filesystem::path trashFilesDir(const Paths& paths);

}  // namespace kestrel::platform
