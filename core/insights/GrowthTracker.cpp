// Folder growth: measuring the watched folders' children, the snapshots file, diff and report.
#include "core/insights/GrowthTracker.h"

#include "core/store/JSONStore.h"
#include "core/safety/SafetyPolicy.h"
#include "core/store/JSONStore.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <limits>
#include <set>

namespace kestrel {
namespace {

namespace fs = std::filesystem;

double epochSeconds(Date d) { return std::chrono::duration<double>(d.time_since_epoch()).count(); }

}  // namespace

int64_t GrowthEntry::delta() const {
  int64_t d = 0;
  if (__builtin_sub_overflow(after, before, &d))
    return after > before ? std::numeric_limits<int64_t>::max()
                          : std::numeric_limits<int64_t>::min();
  return d;
}

Json toJson(const FolderSnapshot& s) {
  Json sizes = Json::object();
  for (const auto& [path, bytes] : s.sizes) sizes[path] = bytes;
  return Json{{"date", Dates::iso8601(s.date)}, {"sizes", sizes}};
}

FolderSnapshot folderSnapshotFromJson(const Json& j) {
  JsonDecode::object(j, "FolderSnapshot");
  FolderSnapshot s;
  const auto date = Dates::parseISO8601(JsonDecode::string(j, "date"));
  if (!date) throw DecodeError("Expected date string to be ISO8601-formatted.");
  s.date = *date;
  if (!j.contains("sizes") || !j.at("sizes").is_object())
    throw DecodeError("Expected an object for sizes");
  for (auto it = j.at("sizes").begin(); it != j.at("sizes").end(); ++it)
    s.sizes[it.key()] = JsonDecode::int64(it.value());
  return s;
}

std::vector<FolderSnapshot> folderSnapshotsFromJson(const Json& j) {
  if (!j.is_array()) throw DecodeError("Expected an array of folder snapshots");
  std::vector<FolderSnapshot> out;
  out.reserve(j.size());
  for (const auto& e : j) out.push_back(folderSnapshotFromJson(e));
  return out;
}

GrowthTracker::GrowthTracker(const Paths& paths, std::vector<std::string> userProtected)
    : paths_(paths), url_(paths.growthSnapshotsFile()), userProtected_(std::move(userProtected)) {}

GrowthTracker::GrowthTracker(const Paths& paths, fs::path url)
    : paths_(paths), url_(std::move(url)) {}

std::vector<fs::path> GrowthTracker::watchedParents() const {
  const fs::path& home = paths_.home();
  if (paths_.layout() == Layout::linux) {
    return {home,           paths_.cacheHome(), paths_.dataHome(), paths_.configHome(), paths_.stateHome(),
            home / ".var/app", home / "snap",    paths_.downloadsDir()};
  }
  return {home,
          paths_.library(),
          paths_.lib("Application Support"),
          paths_.lib("Caches"),
          paths_.lib("Containers"),
          paths_.lib("Group Containers"),
          home / "Developer",
          home / "Downloads"};
}

std::vector<FolderSnapshot> GrowthTracker::snapshots() const {
  return JSONStore::load<std::vector<FolderSnapshot>>(url_, folderSnapshotsFromJson)
      .value_or(std::vector<FolderSnapshot>{});
}

std::optional<Date> GrowthTracker::lastSnapshotDate() const {
  const auto list = snapshots();
  if (list.empty()) return std::nullopt;
  return list.back().date;
}

FolderSnapshot GrowthTracker::takeSnapshot(Date now, const FS::CancelTest& isCancelled) const {
  const auto parents = watchedParents();
  std::set<fs::path> watched(parents.begin(), parents.end());
  std::atomic<bool> cancelled{false};
  FS::CancelTest check;
  if (isCancelled) {
    check = [&] {
      if (isCancelled()) cancelled.store(true);
      return cancelled.load();
    };
  }

  FolderSnapshot snapshot;
  snapshot.date = now;
  const SafetyPolicy policy(paths_, userProtected_);
  for (const auto& parent : parents) {
    // A watched folder kept elsewhere through a link is measured where it really is, under the
    // name the user knows.
    const auto place = policy.followRoot(parent.string());
    if (!place.real) continue;
    for (const auto& real : FS::children(*place.real)) {
      // Asked once per folder too, so a run of empty folders still notices a cancel.
      if (check && check()) return snapshot;
      if (!FS::isDirectory(real)) continue;  // files, links and vanished entries
      const fs::path child = parent / real.filename();
      // A watched folder is measured through its own children only.
      if (watched.count(child)) continue;
      if (parent == paths_.home() && child.filename() == "Library") continue;
      snapshot.sizes[child.string()] = FS::allocatedSize(real, check);
    }
  }
  if (cancelled.load()) return snapshot;

  try {
    JSONStore::update<std::vector<FolderSnapshot>>(
        url_, folderSnapshotsFromJson, toJsonArray<FolderSnapshot>, [] { return std::vector<FolderSnapshot>{}; },
        [&](std::vector<FolderSnapshot>& list) {
          list.push_back(snapshot);
          if (list.size() > kMaxSnapshots) list.erase(list.begin(), list.end() - kMaxSnapshots);
          return true;
        },
        /*replaceDamaged=*/true);
  } catch (const std::exception&) {
    // Growth tracking is background work: a busy store or a failed save loses this snapshot only.
  }
  return snapshot;
}

std::optional<GrowthReport> GrowthTracker::report(int64_t days, size_t limit) const {
  const auto list = snapshots();
  if (list.size() < 2) return std::nullopt;
  const FolderSnapshot& newest = list.back();
  // Seconds as doubles: a day count from the command line may be far beyond any real date.
  const double target = epochSeconds(newest.date) - static_cast<double>(days) * 86400.0;
  size_t best = 0;
  double bestDistance = std::fabs(epochSeconds(list[0].date) - target);
  for (size_t i = 1; i + 1 < list.size(); ++i) {
    const double distance = std::fabs(epochSeconds(list[i].date) - target);
    if (distance < bestDistance) {
      best = i;
      bestDistance = distance;
    }
  }
  return GrowthReport{list[best].date, newest.date, diff(list[best], newest, limit)};
}

std::vector<GrowthEntry> GrowthTracker::diff(const FolderSnapshot& older,
                                             const FolderSnapshot& newer, size_t limit) {
  // Both maps are in path order; walking them together gives the union in path order.
  std::vector<GrowthEntry> entries;
  auto o = older.sizes.begin();
  auto n = newer.sizes.begin();
  while (o != older.sizes.end() || n != newer.sizes.end()) {
    GrowthEntry e;
    if (n == newer.sizes.end() || (o != older.sizes.end() && o->first < n->first)) {
      e = GrowthEntry{o->first, o->second, 0};
      ++o;
    } else if (o == older.sizes.end() || n->first < o->first) {
      e = GrowthEntry{n->first, 0, n->second};
      ++n;
    } else {
      e = GrowthEntry{n->first, o->second, n->second};
      ++o;
      ++n;
    }
    const int64_t d = e.delta();
    if (d >= kMinDeltaBytes || d <= -kMinDeltaBytes) entries.push_back(std::move(e));
  }
  std::stable_sort(entries.begin(), entries.end(), [](const GrowthEntry& a, const GrowthEntry& b) {
    return a.delta() > b.delta();
  });
  if (entries.size() > limit) entries.resize(limit);
  return entries;
}

}  // namespace kestrel
