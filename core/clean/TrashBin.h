// TrashBin: the user's Trash as a list of entries (the home Trash and, on Linux, the user's Trash
// folders on other volumes), each put back where it came from or removed for good.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/base/Dates.h"
#include "core/safety/SafetyPolicy.h"
#include "core/system/Paths.h"
#include "core/system/Services.h"
#include "core/system/fs/SafeRemove.h"

namespace kestrel {

struct TrashEntry {
  std::filesystem::path file;  // the item inside the Trash
  std::string originalPath;    // where it came from; empty where the Trash keeps no record (macOS)
  std::optional<Date> deleted;  // when it was trashed (macOS: when it was added to the Trash)
  int64_t size = 0;             // allocated bytes
  bool present = true;          // false: a record whose item is gone (an orphan the tools still list)
};

// A restore refused: "Something already exists at <path>", "<path> has no record of where it came from".
class TrashError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class TrashBin {
 public:
  TrashBin(Paths paths, const Services& services = {});

  // Every entry, oldest first. Linux: the freedesktop Trash folders, an entry being a ".trashinfo"
  // (whether or not its item is still there, as the freedesktop tools list them); macOS: the items
  // of "~/.Trash".
  std::vector<TrashEntry> list() const;
  // Moves the entry back to its original path (making missing parent folders), never over
  // anything and never through a link, then drops its record. Throws TrashError or the system's
  // error.
  void restore(const TrashEntry& entry) const;
  // Removes the entry for good through the safe remover, item first and then its record, after
  // the safety policy allows it; the removal's result (refused with the policy's reason).
  RemoveResult remove(const TrashEntry& entry) const;

 private:
  Paths paths_;
  Services services_;
  SafetyPolicy policy_;
  SafeRemover remover_;
};

}  // namespace kestrel
