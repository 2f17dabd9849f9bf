// Stale project build products: the rebuildable folders of projects nobody changed for a while.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "core/scan/scanners/BuildFolders.h"
#include "core/scan/scanners/Scanners.h"
#include "core/system/fs/FS.h"
#include "core/system/fs/FileStat.h"
#include "core/system/fs/SafeFiles.h"

namespace kestrel {
namespace {

using scanners::BuildFolder;
using scanners::kCMake;
using scanners::kXcode;

constexpr int64_t kMinimumSize = 1048576;
// Levels below a root searched for projects; inside a project the walk goes as deep as the tree,
// up to kProjectDepth, past which the project counts as in use (its newest change is unknown).
constexpr int kSearchDepth = 5;
constexpr int kProjectDepth = 64;
// Bounds of the look into folders that links inside a project lead to.
constexpr int kLinkedDepth = 16;
constexpr size_t kLinkedEntries = 100000;
// What in a git folder changes when the user commits, checks out or stages.
constexpr const char* kGitActivity[] = {"logs/HEAD", "HEAD", "index", "ORIG_HEAD"};

bool endsWith(std::string_view s, std::string_view suffix) {
  return s.size() > suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

struct Entry {
  std::string name;
  platform::EntryType type;
};

struct Project {
  fs::path path;
  std::string name;
  int parent = -1;
  unsigned kinds = 0;  // of this project and the projects around it
  std::optional<Date> newest;
  bool inUse = false;  // changed recently, or not fully seen
};

struct Found {
  int project;
  ScanItem item;
};

class ProjectWalk {
 public:
  ProjectWalk(const ScanContext& context, CleanCategory category)
      : context_(context), category_(category), staleBefore_(context.daysAgo(context.config.staleProjectDays)) {}

  // Walks one root folder already opened (taken over).
  void walkRoot(UniqueFd fd, const fs::path& path, const fs::path& real) {
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) return;
    device_ = st.st_dev;
    mount_ = platform::mountID(fd.get());
    visit(fd.get(), path, real, 0, -1, 0);
  }

  std::vector<ScanItem> items() {
    std::vector<ScanItem> out;
    for (auto& f : found_) {
      bool stale = true;
      for (int p = f.project; p >= 0 && stale; p = projects_[p].parent)
        stale = !projects_[p].inUse && projects_[p].newest && *projects_[p].newest <= staleBefore_;
      if (!stale) {
        context_.holdBack(category_, "in use");
        continue;
      }
      const Date newest = *projects_[f.project].newest;
      f.item.lastUsed = newest;
      const auto days = std::chrono::duration_cast<std::chrono::hours>(context_.now - newest).count() / 24;
      f.item.reason += "; the project has not changed for " + std::to_string(days) + " days";
      out.push_back(std::move(f.item));
    }
    return out;
  }

 private:
  void touch(int project, Date when) {
    for (int p = project; p >= 0; p = projects_[p].parent) {
      auto& newest = projects_[p].newest;
      if (!newest || when > *newest) newest = when;
    }
    if (when > staleBefore_) markInUse(project);
  }

  // A project in use keeps the projects around it in use: their build folders serve it too.
  void markInUse(int project) {
    for (int p = project; p >= 0; p = projects_[p].parent) projects_[p].inUse = true;
  }

  bool outermostInUse(int project) const {
    if (project < 0) return false;
    while (projects_[project].parent >= 0) project = projects_[project].parent;
    return projects_[project].inUse;
  }

  // Newest change the git folder records (commit, checkout, staging).
  void touchGit(int dirFd, int project) {
    const int git = platform::openDirectoryAt(dirFd, ".git");
    if (git < 0) return;
    const UniqueFd owned(git);
    for (const char* name : kGitActivity) {
      platform::EntryStat st;
      if (platform::statAt(git, name, st, true) && st.type == platform::EntryType::regular) touch(project, st.modified);
    }
  }

  const BuildFolder* buildFolder(const std::string& name, unsigned kindsHere, int project) const {
    if (project < 0) return nullptr;
    for (const auto& b : scanners::buildFolders())
      if (name == b.name && (b.besides == 0 || (b.besides & kindsHere))) return &b;
    return nullptr;
  }

  // Sources may live where a link in the project leads: changes there count as the project's.
  // A link to a file counts by the file's date; a link to a folder by what the folder holds.
  void followLink(int dirFd, const std::string& name, int project) {
    struct stat st {};
    if (::fstatat(dirFd, name.c_str(), &st, 0) != 0) return;  // dangling: its own date counted
    if (S_ISREG(st.st_mode)) return touch(project, platform::modifiedTime(st));
    if (!S_ISDIR(st.st_mode)) return;
    const Activity a = linkedActivity(dirFd, name, 0);
    if (!a.known) return markInUse(project);
    if (a.newest) touch(project, *a.newest);
  }

  struct Activity {
    bool known = true;
    std::optional<Date> newest;
    void add(const Activity& other) {
      known = known && other.known;
      if (other.newest && (!newest || *other.newest > *newest)) newest = other.newest;
    }
  };

  // The newest change inside the folder the link `name` leads to, followed only into the home
  // folder, each folder once (a folder met again adds nothing), to a bounded depth and number of
  // entries; unknown past those bounds or outside the home.
  Activity linkedActivity(int dirFd, const std::string& name, int depth) {
    UniqueFd fd(::openat(dirFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0) return {false, std::nullopt};
    const auto key = std::make_pair(st.st_dev, st.st_ino);
    if (const auto it = linked_.find(key); it != linked_.end()) return it->second;
    linked_[key] = Activity{};  // met again while it is looked at: a loop, which adds nothing
    const auto real = platform::pathOfDescriptor(fd.get());
    const Activity a = real && isInsideHome(*real) && depth < kLinkedDepth ? activityInside(fd.get(), depth)
                                                                           : Activity{false, std::nullopt};
    return linked_[key] = a;
  }

  Activity activityInside(int fd, int depth) {
    std::vector<Entry> entries;
    if (!platform::readDirectory(fd, [&](const char* n, platform::EntryType t) { entries.push_back({n, t}); }))
      return {false, std::nullopt};
    linkedEntries_ += entries.size();
    if (linkedEntries_ > kLinkedEntries) return {false, std::nullopt};
    Activity out;
    for (const auto& e : entries) {
      platform::EntryStat st;
      if (!platform::statAt(fd, e.name.c_str(), st, true)) {
        if (errno != ENOENT) return {false, std::nullopt};
        continue;
      }
      if (st.type == platform::EntryType::directory) {
        if (depth + 1 >= kLinkedDepth) return {false, std::nullopt};
        UniqueFd child(platform::openDirectoryAt(fd, e.name.c_str()));
        if (!child) return {false, std::nullopt};
        out.add(activityInside(child.get(), depth + 1));
      } else {
        out.add({true, st.modified});
        if (st.type == platform::EntryType::symlink) {
          struct stat target {};
          if (::fstatat(fd, e.name.c_str(), &target, 0) != 0) continue;
          if (S_ISREG(target.st_mode)) out.add({true, platform::modifiedTime(target)});
          else if (S_ISDIR(target.st_mode)) out.add(linkedActivity(fd, e.name, depth + 1));
        }
      }
      if (!out.known) return out;
    }
    return out;
  }

  bool isInsideHome(const std::string& real) const {
    const std::string home = context_.home().string();
    return real.size() > home.size() && real.compare(0, home.size(), home) == 0 && real[home.size()] == '/';
  }

  bool sameMount(int fd) const {
    struct stat st {};
    if (::fstat(fd, &st) != 0 || st.st_dev != device_) return false;
    return !mount_ || platform::mountID(fd) == mount_;
  }

  // Lists, measures and records one build folder of `project` found in the open folder `dirFd`.
  void offer(int dirFd, const std::string& name, const fs::path& path, const fs::path& real, int project,
             const BuildFolder& kind) {
    if (outermostInUse(project)) return context_.holdBack(category_, "in use");
    platform::EntryStat st;
    if (!platform::statAt(dirFd, name.c_str(), st, true) || st.type != platform::EntryType::directory) return;
    if (!context_.oldEnough(st.modified)) return context_.holdBack(category_, "changed within the hour");
    UniqueFd folder(platform::openDirectoryAt(dirFd, name.c_str()));
    if (!folder || !sameMount(folder.get())) return;
    // Only what the tool made is offered: a folder of sources that shares the name is not.
    if (!scanners::madeByItsTool(folder.get(), kind)) return;
    if (::lseek(folder.get(), 0, SEEK_SET) != 0) return;  // the measure lists it again
    const int64_t size = FS::allocatedSizeOfFolder(folder.release(), context_.isCancelled);
    if (context_.isCancelled()) {
      markInUse(project);  // a measure cut short, and a project not fully seen
      return;
    }
    if (size < kMinimumSize) return;
    const Project& owner = projects_[project];
    ScanItem item;
    item.id = path.string();
    item.title = owner.name + " — " + path.lexically_relative(owner.path).string();
    item.target = ItemTarget::forPath(path.string());
    item.size = size;
    item.category = category_;
    item.risk = kind.risk;
    item.reason = std::string(kind.reason);
    if (real != path) item.realPath = real.string();
    found_.push_back({project, std::move(item)});
  }

  // Counts the dates of the files and links among `entries` towards `project` and returns the
  // folders among them; nothing when the walk stops here (the project is in use, or a failed
  // status hides a date that may be recent).
  std::optional<std::vector<const Entry*>> dateEntries(int fd, const std::vector<Entry>& entries, int project) {
    std::vector<const Entry*> folders;
    for (const auto& e : entries) {
      if (outermostInUse(project)) return std::nullopt;
      platform::EntryType type = e.type;
      platform::EntryStat st;
      const bool needStat = project >= 0 || type == platform::EntryType::unknown;
      if (needStat) {
        if (!platform::statAt(fd, e.name.c_str(), st, true)) {
          if (errno == ENOENT) continue;  // vanished since the listing
          if (project < 0) continue;
          markInUse(project);
          return std::nullopt;
        }
        type = st.type;
      }
      if (type == platform::EntryType::directory) {
        folders.push_back(&e);
      } else if (project >= 0) {
        touch(project, st.modified);  // files and links alike; a folder's own date is not the user's
        if (type == platform::EntryType::symlink) followLink(fd, e.name, project);
      }
    }
    return folders;
  }

  // Visits the open folder `fd`: a project when it holds a marker, else a folder of the search or
  // of the enclosing `project`. Files first (their dates decide staleness), then folders, then
  // build folders, so a project known to be in use is left before anything is measured.
  void visit(int fd, const fs::path& path, const fs::path& real, int depth, int project, int projectDepth) {
    if (context_.isCancelled()) {
      if (project >= 0) markInUse(project);
      return;
    }
    std::vector<Entry> entries;
    const bool read = platform::readDirectory(fd, [&](const char* name, platform::EntryType type) {
      entries.push_back({name, type});
    });
    if (!read) {
      if (project >= 0) markInUse(project);  // what it holds is unknown
      return;
    }
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.name < b.name; });

    unsigned kindsHere = 0;
    bool hasGit = false, hasCMakeCache = false;
    for (const auto& e : entries) {
      kindsHere |= scanners::markerKinds(e.name);
      if (endsWith(e.name, ".xcodeproj") || endsWith(e.name, ".xcworkspace")) kindsHere |= kXcode;
      if (e.name == ".git") hasGit = true;
      if (e.name == "CMakeCache.txt") hasCMakeCache = true;
    }
    if (project >= 0 && hasCMakeCache && !kindsHere && (projects_[project].kinds & kCMake) && depth > 0) {
      // A CMake build folder: the caller offers it (its parent is open there).
      cmakeBuildFound_ = true;
      return;
    }
    if (kindsHere) {
      Project p;
      p.path = path;
      p.name = path.filename().string();
      p.parent = project;
      p.kinds = kindsHere | (project >= 0 ? projects_[project].kinds : 0);
      projects_.push_back(std::move(p));
      project = static_cast<int>(projects_.size()) - 1;
      context_.report(category_, path.string());
      if (hasGit) touchGit(fd, project);
    }

    const auto folders = dateEntries(fd, entries, project);
    if (!folders) return;

    std::vector<std::pair<const Entry*, const BuildFolder*>> build;
    for (const Entry* e : *folders) {
      if (outermostInUse(project)) return;
      if (const BuildFolder* b = buildFolder(e->name, kindsHere, project)) {
        build.emplace_back(e, b);
        continue;
      }
      if (e->name[0] == '.') continue;  // hidden folders are not searched, nor counted
      if (project < 0 && depth >= kSearchDepth) continue;
      if (project >= 0 && projectDepth >= kProjectDepth) {
        markInUse(project);
        return;
      }
      UniqueFd child(platform::openDirectoryAt(fd, e->name.c_str()));
      if (!child || !sameMount(child.get())) {
        if (project >= 0) markInUse(project);  // unreadable or another mount: its dates are unknown
        continue;
      }
      cmakeBuildFound_ = false;
      visit(child.get(), path / e->name, real / e->name, depth + 1, project, project >= 0 ? projectDepth + 1 : 0);
      if (cmakeBuildFound_) {
        cmakeBuildFound_ = false;
        build.emplace_back(e, &scanners::cmakeBuildFolder());
      }
    }
    for (const auto& [e, b] : build) offer(fd, e->name, path / e->name, real / e->name, project, *b);
  }

  const ScanContext& context_;
  CleanCategory category_;
  Date staleBefore_;
  dev_t device_ = 0;
  std::optional<uint64_t> mount_;
  std::vector<Project> projects_;
  std::vector<Found> found_;
  bool cmakeBuildFound_ = false;
  std::map<std::pair<dev_t, ino_t>, Activity> linked_;  // folders reached through links, judged once
  size_t linkedEntries_ = 0;
};

// The roots to search: the setting's ("~" and "~/…" are the home; other relative entries are
// ignored), else the usual code folders.
std::vector<fs::path> searchRoots(const ScanContext& context) {
  if (context.config.developerRoots.empty()) return context.paths.defaultDeveloperRoots();
  std::vector<fs::path> out;
  for (const auto& entry : context.config.developerRoots) {
    if (entry == "~") out.push_back(context.home());
    else if (entry.rfind("~/", 0) == 0) out.push_back(context.home() / entry.substr(2));
    else if (!entry.empty() && entry[0] == '/') out.push_back(entry);
  }
  return out;
}

bool isInside(const fs::path& inner, const fs::path& outer) {
  const auto rel = inner.lexically_relative(outer);
  return !rel.empty() && *rel.begin() != "..";
}

}  // namespace

std::vector<ScanItem> ProjectArtifactsScanner::scan(const ScanContext& context) const {
  struct Root {
    fs::path path, real;
    UniqueFd fd;
  };
  std::vector<Root> roots;
  for (const auto& root : searchRoots(context)) {
    fs::path real;
    UniqueFd fd = context.openFolder(root, &real);
    if (fd) roots.push_back({root, real, std::move(fd)});
  }
  ProjectWalk walk(context, category());
  for (size_t i = 0; i < roots.size(); ++i) {
    // A root that is another root, or lies inside one, is searched once (as part of the outer one).
    bool covered = false;
    for (size_t j = 0; j < roots.size() && !covered; ++j) {
      if (i == j) continue;
      covered = roots[j].real == roots[i].real ? j < i : isInside(roots[i].real, roots[j].real);
    }
    if (covered) continue;
    walk.walkRoot(std::move(roots[i].fd), roots[i].path, roots[i].real);
  }
  auto items = walk.items();
  std::stable_sort(items.begin(), items.end(), [](const ScanItem& a, const ScanItem& b) { return a.size > b.size; });
  return items;
}

}  // namespace kestrel
