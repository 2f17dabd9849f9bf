// Folder growth: snapshots of the sizes of the folders inside the watched folders, compared.
#pragma once

#include "core/base/Dates.h"
#include "core/system/fs/FS.h"
#include "core/base/Json.h"
#include "core/system/Paths.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kestrel {

struct FolderSnapshot {
  Date date{};
  std::map<std::string, int64_t> sizes;  // full folder path → allocated bytes

  bool operator==(const FolderSnapshot&) const = default;
};

struct GrowthEntry {
  std::string path;
  int64_t before = 0;  // 0 when the folder was not in the older snapshot
  int64_t after = 0;   // 0 when it is not in the newer one

  // after − before, held at the 64-bit limits for sizes no disk has.
  int64_t delta() const;
  bool operator==(const GrowthEntry&) const = default;
};

struct GrowthReport {
  Date from{};
  Date to{};
  std::vector<GrowthEntry> entries;

  bool operator==(const GrowthReport&) const = default;
};

Json toJson(const FolderSnapshot& snapshot);
// Throws DecodeError: "date" (ISO 8601 text) and "sizes" (an object of integers) are required.
FolderSnapshot folderSnapshotFromJson(const Json& j);
// The whole store: an array of snapshots; DecodeError when any of them does not decode.
std::vector<FolderSnapshot> folderSnapshotsFromJson(const Json& j);

// The "growth-snapshots.json" store (one JSON array of snapshots, oldest first) and the
// measuring that fills it.
class GrowthTracker {
 public:
  static constexpr size_t kMaxSnapshots = 26;
  static constexpr int64_t kMinDeltaBytes = 10000000;  // smaller changes are noise

  // `userProtected` (the settings' protected paths) joins the fixed protected lists in deciding
  // whether a watched folder that is a link may be followed.
  explicit GrowthTracker(const Paths& paths, std::vector<std::string> userProtected = {});
  // Watches `paths` but keeps the snapshots in `url` (a home that must stay untouched).
  GrowthTracker(const Paths& paths, std::filesystem::path url);

  const std::filesystem::path& url() const { return url_; }
  const Paths& paths() const { return paths_; }

  // Home, Library, Library/Application Support, Library/Caches, Library/Containers,
  // Library/Group Containers, Developer, Downloads; in that order.
  std::vector<std::filesystem::path> watchedParents() const;
  // The stored snapshots; empty when the file is missing or does not decode as a whole.
  std::vector<FolderSnapshot> snapshots() const;
  std::optional<Date> lastSnapshotDate() const;

  // Measures every real folder (no links) directly inside the watched folders (a watched folder
  // that is a link is followed as the safety policy's followRoot allows), except watched
  // folders themselves and "Library" under home, stores the snapshot (keeping the newest 26) and
  // returns it. `isCancelled` is polled by the size walks; once it answers true the measuring
  // stops and the partial snapshot is returned without being stored, since its missing sizes
  // would read as shrinkage. A failed save is dropped.
  FolderSnapshot takeSnapshot(Date now, const FS::CancelTest& isCancelled) const;

  // Compares the latest snapshot with the earlier one closest to `days` days before it (a tie
  // goes to the earlier in the file). Nothing with fewer than two snapshots.
  std::optional<GrowthReport> report(int64_t days, size_t limit) const;

  // Every folder of either snapshot whose size changed by at least 10,000,000 bytes, biggest
  // growth first and biggest shrinkage last; equal changes stay in path order. At most `limit`.
  static std::vector<GrowthEntry> diff(const FolderSnapshot& older, const FolderSnapshot& newer,
                                       size_t limit);

 private:
  Paths paths_;
  std::filesystem::path url_;
  std::vector<std::string> userProtected_;
};

}  // namespace kestrel
