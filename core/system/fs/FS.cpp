// FS: file-system queries and the two-thread allocated-size walk.
#include "core/system/fs/FS.h"

#include "core/system/fs/SafeFiles.h"

#include "core/system/fs/FileStat.h"
#include "core/base/UniqueFd.h"
#include "core/base/Workers.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace kestrel::FS {
namespace {

using platform::EntryType;

// Deeper trees are not looked into by the bounded walks.
constexpr size_t kMaxWalkDepth = 256;

bool lstatPath(const fs::path& p, struct stat& st) { return ::lstat(p.c_str(), &st) == 0; }

// Shared state of one allocated-size walk. Workers take open folders from `queue`; a worker walks
// its folder depth-first on its own stack and hands a subfolder to the queue only while another
// worker is waiting, so memory stays bounded by depth × workers rather than by file count.
class SizeWalk {
 public:
  explicit SizeWalk(const CancelTest& cancel) : cancel_(cancel) {}

  int64_t run(int rootFd, unsigned workers) {
    mount_ = platform::mountID(rootFd);
    queue_.push_back(rootFd);
    runOnWorkers(workers, [this] { work(); });
    for (int fd : queue_) ::close(fd);  // left over only after a cancel
    return total_.load();
  }

 private:
  struct Frame {
    UniqueFd fd;
    std::vector<std::string> subdirs;
    size_t next = 0;
  };

  void work() {
    std::unique_lock lock(mutex_);
    for (;;) {
      ++waiting_;
      cv_.wait(lock, [&] { return !queue_.empty() || busy_ == 0 || cancelled_.load(std::memory_order_relaxed); });
      --waiting_;
      if (queue_.empty() || cancelled_.load(std::memory_order_relaxed)) {
        cv_.notify_all();
        return;
      }
      const int fd = queue_.back();
      queue_.pop_back();
      ++busy_;
      lock.unlock();
      walkTree(fd);
      lock.lock();
      --busy_;
      if (busy_ == 0) cv_.notify_all();
    }
  }

  // Counts one entry; false when the walk was cancelled.
  bool tick() {
    if (cancelled_.load(std::memory_order_relaxed)) return false;
    const uint64_t n = entries_.fetch_add(1, std::memory_order_relaxed);
    if (cancel_ && (n == 0 || (n + 1) % 2000 == 0)) {
      std::lock_guard g(cancelMutex_);
      if (cancel_()) {
        cancelled_.store(true);
        cv_.notify_all();
        return false;
      }
    }
    return true;
  }

  void walkTree(int rootFd) {
    std::vector<Frame> stack;
    stack.push_back(Frame{UniqueFd(rootFd), {}, 0});
    if (!readFrame(stack.back())) return;
    int64_t local = 0;
    while (!stack.empty()) {
      Frame& top = stack.back();
      if (top.next >= top.subdirs.size()) {
        stack.pop_back();
        continue;
      }
      const std::string& name = top.subdirs[top.next++];
      // One descriptor per level: past kMaxWalkDepth levels the walk holds no more and leaves the
      // rest uncounted (a size may come out low, never a removal wrong).
      if (stack.size() >= kMaxWalkDepth) continue;
      const int child = platform::openDirectoryAt(top.fd.get(), name.c_str());
      if (child < 0) continue;  // vanished, unreadable or replaced by a non-folder: nothing to add
      if (mount_ && platform::mountID(child) != mount_) {
        ::close(child);  // another mount (a bind mount too) is not part of this folder
        continue;
      }
      if (waiting_.load(std::memory_order_relaxed) > 0) {
        std::lock_guard g(mutex_);
        queue_.push_back(child);
        cv_.notify_one();
        continue;
      }
      stack.push_back(Frame{UniqueFd(child), {}, 0});
      if (!readFrame(stack.back(), &local)) break;
    }
    total_.fetch_add(local);
  }

  bool readFrame(Frame& f, int64_t* sum = nullptr) {
    int64_t local = 0;
    bool ok = true;
    platform::readDirectory(f.fd.get(), [&](const char* name, EntryType type) {
      if (!ok || !tick()) {
        ok = false;
        return;
      }
      if (type == EntryType::directory) {
        f.subdirs.emplace_back(name);
        return;
      }
      if (type != EntryType::regular && type != EntryType::unknown) return;  // links and specials
      platform::EntryStat st;
      if (!platform::statAt(f.fd.get(), name, st, false)) return;
      if (st.type == EntryType::regular) local += st.allocated;
      else if (st.type == EntryType::directory) f.subdirs.emplace_back(name);
    });
    if (sum) *sum += local;
    else total_.fetch_add(local);
    return ok;
  }

  const CancelTest& cancel_;
  std::optional<uint64_t> mount_;
  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<int> queue_;
  int busy_ = 0;
  std::atomic<int> waiting_{0};
  std::atomic<int64_t> total_{0};
  std::atomic<uint64_t> entries_{0};
  std::atomic<bool> cancelled_{false};
  std::mutex cancelMutex_;
};

}  // namespace

bool exists(const fs::path& url) noexcept {
  struct stat st;
  return lstatPath(url, st);
}

bool isReachable(const fs::path& url) noexcept {
  struct stat st;
  return ::stat(url.c_str(), &st) == 0;
}

bool isDirectory(const fs::path& url) noexcept {
  struct stat st;
  return lstatPath(url, st) && S_ISDIR(st.st_mode);
}

bool isSymlink(const fs::path& url) noexcept {
  struct stat st;
  return lstatPath(url, st) && S_ISLNK(st.st_mode);
}

std::vector<fs::path> children(const fs::path& url) noexcept {
  std::vector<fs::path> out;
  try {
    UniqueFd fd(platform::openDirectory(url.c_str()));
    if (!fd) return out;
    std::vector<std::string> names;
    platform::readDirectory(fd.get(), [&](const char* name, EntryType) {
      if (std::strcmp(name, ".DS_Store") == 0 || std::strcmp(name, ".localized") == 0) return;
      names.emplace_back(name);
    });
    std::sort(names.begin(), names.end());
    out.reserve(names.size());
    for (auto& n : names) out.push_back(url / n);
  } catch (const std::bad_alloc&) {
    out.clear();  // best effort: an unlistable folder is an empty one
  }
  return out;
}

std::optional<Date> modificationDate(const fs::path& url) noexcept {
  struct stat st;
  if (!lstatPath(url, st)) return std::nullopt;
  return platform::modifiedTime(st);
}

std::optional<Date> addedToFolderDate(const fs::path& url) noexcept { return platform::addedToFolderDate(url); }

std::optional<Date> lastUsedDate(const fs::path& url) noexcept {
  struct stat st;
  if (!lstatPath(url, st)) return std::nullopt;
  return std::max(platform::accessedTime(st), platform::modifiedTime(st));
}

std::optional<Date> newestModification(const fs::path& url, int limit) noexcept {
  auto newest = modificationDate(url);
  if (!newest || !isDirectory(url)) return newest;
  // Anything that cannot be looked at may hold something written right now: answer "as recent
  // as can be" rather than "old".
  const auto unsure = [] { return std::optional<Date>(Date::max()); };
  try {
    // Depth-first with one open folder per level: a wide folder never holds its subfolders open.
    struct Frame {
      UniqueFd fd;
      std::vector<std::string> subdirs;
      size_t next = 0;
    };
    int visited = 0;
    bool sure = true;
    auto list = [&](Frame& f) {
      const bool read = platform::readDirectory(f.fd.get(), [&](const char* name, EntryType) {
        if (visited >= limit) return;
        ++visited;
        platform::EntryStat st;
        if (!platform::statAt(f.fd.get(), name, st, true)) {
          if (errno != ENOENT) sure = false;
          return;
        }
        if (st.modified > *newest) newest = st.modified;
        if (st.type == EntryType::directory) f.subdirs.emplace_back(name);
      });
      if (!read) sure = false;
    };
    std::vector<Frame> stack;
    stack.push_back(Frame{UniqueFd(platform::openDirectory(url.c_str())), {}, 0});
    if (!stack.back().fd) return errno == ENOENT ? newest : unsure();
    const auto mount = platform::mountID(stack.back().fd.get());
    list(stack.back());
    while (sure && !stack.empty() && visited < limit) {
      Frame& top = stack.back();
      if (top.next >= top.subdirs.size()) {
        stack.pop_back();
        continue;
      }
      UniqueFd child(platform::openDirectoryAt(top.fd.get(), top.subdirs[top.next++].c_str()));
      if (!child) {
        if (errno != ENOENT) sure = false;
        continue;
      }
      if (stack.size() >= kMaxWalkDepth || (mount && platform::mountID(child.get()) != mount)) {
        sure = false;
        break;
      }
      stack.push_back(Frame{std::move(child), {}, 0});
      list(stack.back());
    }
    if (!sure) return unsure();
  } catch (const std::bad_alloc&) {
    return unsure();
  }
  return newest;
}

int64_t allocatedSize(const fs::path& url, const CancelTest& cancel) noexcept {
  struct stat st;
  if (!lstatPath(url, st)) return 0;
  if (S_ISLNK(st.st_mode)) return 0;
  if (!S_ISDIR(st.st_mode)) return S_ISREG(st.st_mode) ? fileSize(st) : 0;
  return allocatedSizeOfFolder(platform::openDirectory(url.c_str()), cancel);
}

int64_t allocatedSizeOfFolder(int fd, const CancelTest& cancel) noexcept {
  if (fd < 0) return 0;
  try {
    SizeWalk walk(cancel);
    const unsigned hw = std::max(1u, std::thread::hardware_concurrency());
    return walk.run(fd, std::min(hw, 2u));
  } catch (const std::system_error&) {
    return 0;  // no thread could be started: treat as unmeasurable
  }
}

std::optional<std::string> volumeID(const fs::path& url) noexcept {
  struct stat st;
  if (!lstatPath(url, st)) return std::nullopt;
  return std::to_string(static_cast<unsigned long long>(st.st_dev));
}

bool sameVolume(const fs::path& a, const fs::path& b) noexcept {
  auto va = volumeID(a), vb = volumeID(b);
  return va && vb && *va == *vb;
}

bool isRemoteVolume(const fs::path& url) noexcept { return platform::isRemoteVolume(url); }

std::optional<int64_t> freeSpace(const fs::path& url) noexcept {
  auto v = volumeSpace(url);
  if (!v) return std::nullopt;
  return v->free;
}

std::optional<VolumeSpace> volumeSpace(const fs::path& url) noexcept {
  struct statvfs sv;
  if (::statvfs(url.c_str(), &sv) != 0) return std::nullopt;
  VolumeSpace v;
  v.total = static_cast<int64_t>(sv.f_blocks) * static_cast<int64_t>(sv.f_frsize);
  v.free = static_cast<int64_t>(sv.f_bavail) * static_cast<int64_t>(sv.f_frsize);
  return v;
}

std::optional<fs::path> mountInside(int parentFd, const std::string& name) {
  const auto parent = platform::pathOfDescriptor(parentFd);
  if (!parent) return std::nullopt;
  const std::string prefix = (fs::path(*parent) / name).string() + "/";
  for (const auto& mount : platform::mountPoints())
    if (mount.string().rfind(prefix, 0) == 0) return mount;
  return std::nullopt;
}

}  // namespace kestrel::FS
