// The safe remover: anchored, descriptor-relative resolution and an iterative, bounded tree walk.
#include "core/system/fs/SafeRemove.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "core/system/fs/FileStat.h"
#include "core/system/fs/SafeFiles.h"
#include "core/system/fs/TopLevelFolders.h"

namespace kestrel {
namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

[[noreturn]] void throwErrno(int err, const std::string& what) {
  throw std::system_error(err, std::generic_category(), what);
}

FileIdentity identityFrom(const struct stat& st) { return {st.st_dev, st.st_ino}; }

// The components of `path` below `anchor`; EINVAL for anything that is not plainly below it.
std::vector<std::string> componentsBelow(const fs::path& anchor, const fs::path& path) {
  const std::string& text = path.native();
  if (!path.is_absolute() || text.ends_with('/') || text.find("//") != std::string::npos) {
    throwErrno(EINVAL, "not a plain absolute path: " + text);
  }
  auto a = anchor.begin();
  auto p = path.begin();
  for (; a != anchor.end(); ++a, ++p) {
    if (a->empty()) continue;
    if (p == path.end() || *a != *p) throwErrno(EINVAL, text + " is not inside " + anchor.string());
  }
  std::vector<std::string> out;
  for (; p != path.end(); ++p) {
    const std::string c = p->string();
    if (c.empty()) continue;
    if (c == "." || c == ".." || c == "/") throwErrno(EINVAL, "not a plain absolute path: " + text);
    out.push_back(c);
  }
  if (out.empty()) throwErrno(EINVAL, text + " is not inside " + anchor.string());
  return out;
}

// Opens (and with `create`, makes) one folder below `dirFd` without following a link.
UniqueFd openStep(int dirFd, const std::string& name, bool create, const fs::path& shown) {
  UniqueFd fd(::openat(dirFd, name.c_str(), kDirFlags));
  if (!fd && errno == ENOENT && create) {
    if (::mkdirat(dirFd, name.c_str(), 0755) != 0 && errno != EEXIST) {
      const int err = errno;  // read before building the message
      throwErrno(err, "create " + shown.string());
    }
    fd.reset(::openat(dirFd, name.c_str(), kDirFlags));
  }
  if (!fd) {
    const int err = errno;  // read before building the message
    throwErrno(err, "open " + shown.string());
  }
  return fd;
}

}  // namespace

std::optional<FileIdentity> identityAt(int dirFd, const char* name) noexcept {
  struct stat st;
  if (::fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
  return identityFrom(st);
}

std::optional<FileIdentity> identityOf(const fs::path& path) noexcept {
  return identityAt(AT_FDCWD, path.c_str());
}

Anchor Anchor::open(const fs::path& root) {
  if (!root.is_absolute()) throwErrno(EINVAL, "anchor must be absolute: " + root.string());
  UniqueFd fd(::open(root.c_str(), kDirFlags));
  if (!fd) {
    const int err = errno;  // read before building the message
    throwErrno(err, "open " + root.string());
  }
  fs::path clean = root.lexically_normal();
  if (clean.native().size() > 1 && clean.native().ends_with('/')) clean = clean.parent_path();
  return Anchor(std::move(fd), clean);
}

Anchor Anchor::forPath(const fs::path& home, const fs::path& path) {
  const fs::path rel = path.lexically_relative(home);
  const bool below = !rel.empty() && rel != "." && *rel.begin() != "..";
  return open(below ? home : fs::path("/"));
}

std::optional<fs::path> ParentDir::realPath() const {
  auto p = platform::pathOfDescriptor(fd.get());
  if (!p) return std::nullopt;
  return fs::path(*p);
}

namespace SafeFS {

ParentDir openParent(const Anchor& anchor, const fs::path& path, bool createMissing) {
  const std::vector<std::string> parts = componentsBelow(anchor.path(), path);
  ParentDir out;
  out.path = anchor.path();
  UniqueFd cur(::fcntl(anchor.fd(), F_DUPFD_CLOEXEC, 0));
  if (!cur) {
    const int err = errno;  // read before building the message
    throwErrno(err, "open " + anchor.path().string());
  }
  for (size_t i = 0; i + 1 < parts.size(); ++i) {
    out.path /= parts[i];
    cur = openStep(cur.get(), parts[i], createMissing, out.path);
  }
  struct stat st;
  if (::fstat(cur.get(), &st) != 0) {
    const int err = errno;  // read before building the message
    throwErrno(err, "stat " + out.path.string());
  }
  out.identity = identityFrom(st);
  out.fd = std::move(cur);
  out.name = parts.back();
  return out;
}

UniqueFd openFolder(const Anchor& anchor, const fs::path& path, bool createMissing) {
  ParentDir parent = openParent(anchor, path, createMissing);
  return openStep(parent.fd.get(), parent.name, createMissing, path);
}

std::error_code renameNoReplace(const ParentDir& from, const ParentDir& to) noexcept {
  return platform::renameNoReplace(from.fd.get(), from.name.c_str(), to.fd.get(), to.name.c_str());
}

}  // namespace SafeFS

std::string RemoveResult::message() const {
  switch (status) {
    case Status::removed:
    case Status::missing:
      return {};
    case Status::refused:
      return "Refused to remove " + where.string() + ": " + error.message();
    case Status::failed:
      return "Could not remove " + where.string() + ": " + error.message();
  }
  return {};
}

void RemoveResult::throwIfFailed() const {
  if (!ok()) throw std::system_error(error, message());
}

SafeRemover::SafeRemover(const fs::path& home) : home_(home) {
  auto protect = [&](const fs::path& p) {
    struct stat st;
    // Following a link here is deliberate: whatever a protected name leads to is protected.
    if (::stat(p.c_str(), &st) == 0) protected_.push_back(identityFrom(st));
  };
  for (auto rel : TopLevelFolders::kHomeTopLevel) protect(rel.empty() ? home : home / fs::path(rel));
  for (auto abs : TopLevelFolders::kAbsoluteTopLevel) protect(fs::path(abs));
}

bool SafeRemover::isProtected(const FileIdentity& id) const {
  return std::find(protected_.begin(), protected_.end(), id) != protected_.end();
}

RemoveResult SafeRemover::remove(const fs::path& path) const {
  try {
    return remove(Anchor::forPath(home_, path), path);
  } catch (const std::system_error& e) {
    return {RemoveResult::Status::failed, e.code(), path};
  }
}

RemoveResult SafeRemover::remove(const Anchor& anchor, const fs::path& path) const {
  try {
    ParentDir parent = SafeFS::openParent(anchor, path);
    return removeEntry(parent);
  } catch (const std::system_error& e) {
    // A missing folder on the way means the item is gone already.
    if (e.code() == std::errc::no_such_file_or_directory)
      return {RemoveResult::Status::missing, {}, path};
    return {RemoveResult::Status::failed, e.code(), path};
  }
}

RemoveResult SafeRemover::removeEntry(const ParentDir& parent) const {
  return removeEntry(parent.fd.get(), parent.name, parent.path);
}

namespace {

// One open folder of the walk. Its parent is the frame below it on the stack.
struct Frame {
  UniqueFd owner;  // empty for the root item's parent, which the caller owns
  int fd = -1;
  std::string name;
  std::vector<std::pair<std::string, platform::EntryType>> pending;
  int relists = 0;
  bool blocked = false;  // something inside stays, so the folder itself cannot go
};

enum class Kind { nonDirectory, maybeDirectory };

Kind kindOf(platform::EntryType t) {
  switch (t) {
    case platform::EntryType::regular:
    case platform::EntryType::symlink:
    case platform::EntryType::other:
      return Kind::nonDirectory;
    case platform::EntryType::directory:
    case platform::EntryType::unknown:
      return Kind::maybeDirectory;
  }
  return Kind::maybeDirectory;
}

bool listInto(Frame& f) {
  f.pending.clear();
  // A second listing of the same descriptor (after a folder refused to go) starts from the top.
  ::lseek(f.fd, 0, SEEK_SET);
  return platform::readDirectory(f.fd, [&](const char* name, platform::EntryType type) {
    f.pending.emplace_back(name, type);
  });
}

class Walk {
 public:
  Walk(const SafeRemover& remover, int rootParentFd, fs::path rootParentPath)
      : remover_(remover),
        rootParentFd_(rootParentFd),
        rootParentPath_(std::move(rootParentPath)) {}

  RemoveResult run(const std::string& name) {
    struct stat st;
    if (::fstatat(rootParentFd_, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT) return {RemoveResult::Status::missing, {}, rootParentPath_ / name};
      return {RemoveResult::Status::failed, std::error_code(errno, std::generic_category()),
              rootParentPath_ / name};
    }
    // The parent's device: a root item that is itself a mount point is another device already.
    struct stat parent;
    if (::fstat(rootParentFd_, &parent) != 0) {
      return {RemoveResult::Status::failed, std::error_code(errno, std::generic_category()),
              rootParentPath_};
    }
    rootDev_ = parent.st_dev;
    rootMount_ = platform::mountID(rootParentFd_);
    Frame pseudo;  // stands for the root item's parent
    pseudo.fd = rootParentFd_;
    stack_.push_back(std::move(pseudo));
    const bool vanished = examine(name, Kind::maybeDirectory);
    drain();
    if (vanished && result_.ok()) result_.status = RemoveResult::Status::missing;
    return result_;
  }

 private:
  fs::path pathOf(const std::string& name) const {
    fs::path p = rootParentPath_;
    for (size_t i = 1; i < stack_.size(); ++i) p /= stack_[i].name;
    return p / name;
  }

  void note(RemoveResult::Status status, int err, const std::string& name) {
    stack_.back().blocked = true;
    if (result_.status == RemoveResult::Status::removed)
      result_ = {status, std::error_code(err, std::generic_category()), pathOf(name)};
  }

  // Deals with `name` in the folder on top of the stack: unlinks it, or pushes it as a new frame.
  // Returns true when it was found missing.
  bool examine(const std::string& name, Kind kind) {
    const int dirFd = stack_.back().fd;
    for (int attempt = 0; attempt < 8; ++attempt) {
      if (kind == Kind::nonDirectory) {
        if (::unlinkat(dirFd, name.c_str(), 0) == 0) return false;
        if (errno == ENOENT) return true;
        // A folder answers EISDIR (EPERM on some systems): it was swapped in, so look again.
        if ((errno == EISDIR || errno == EPERM) && attempt == 0) {
          kind = Kind::maybeDirectory;
          continue;
        }
        note(RemoveResult::Status::failed, errno, name);
        return false;
      }
      struct stat st;
      if (::fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT) return true;
        note(RemoveResult::Status::failed, errno, name);
        return false;
      }
      if (!S_ISDIR(st.st_mode)) {
        kind = Kind::nonDirectory;
        continue;
      }
      if (remover_.isProtected(identityFrom(st))) {
        note(RemoveResult::Status::refused, EPERM, name);
        return false;
      }
      if (st.st_dev != rootDev_) {
        note(RemoveResult::Status::refused, EXDEV, name);
        return false;
      }
      if (stack_.size() > SafeRemover::kMaxDepth) {
        note(RemoveResult::Status::failed, ENAMETOOLONG, name);
        return false;
      }
      UniqueFd fd(::openat(dirFd, name.c_str(), kDirFlags));
      if (!fd) {
        if (errno == ENOENT) return true;
        if (errno == ENOTDIR ||
            errno == ELOOP) {  // it became a link or a file: remove only the name
          kind = Kind::nonDirectory;
          continue;
        }
        note(RemoveResult::Status::failed, errno, name);
        return false;
      }
      struct stat opened;
      if (::fstat(fd.get(), &opened) != 0) {
        note(RemoveResult::Status::failed, errno, name);
        return false;
      }
      // What was opened must be what was examined; otherwise the name was swapped in between.
      if (identityFrom(opened) != identityFrom(st)) continue;
      // A bind mount keeps the device number: only the mount identity tells it apart.
      if (rootMount_ && platform::mountID(fd.get()) != rootMount_) {
        note(RemoveResult::Status::refused, EXDEV, name);
        return false;
      }
      Frame f;
      f.fd = fd.get();
      f.owner = std::move(fd);
      f.name = name;
      if (!listInto(f)) {
        note(RemoveResult::Status::failed, errno ? errno : EIO, name);
        return false;
      }
      stack_.push_back(std::move(f));
      return false;
    }
    note(RemoveResult::Status::failed, EAGAIN, name);  // it kept changing under us
    return false;
  }

  void drain() {
    while (stack_.size() > 1) {
      Frame& top = stack_.back();
      if (!top.pending.empty()) {
        auto [name, type] = std::move(top.pending.back());
        top.pending.pop_back();
        examine(name, kindOf(type));
        continue;
      }
      const std::string name = top.name;
      if (top.blocked) {
        stack_.pop_back();
        stack_.back().blocked = true;
        continue;
      }
      const int parentFd = stack_[stack_.size() - 2].fd;
      if (::unlinkat(parentFd, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) {
        stack_.pop_back();
        continue;
      }
      const int err = errno;
      // Entries made while we worked (or that a disturbed listing missed) get another pass.
      if ((err == ENOTEMPTY || err == EEXIST) && top.relists < 2) {
        ++top.relists;
        if (listInto(top)) continue;
      }
      stack_.pop_back();
      note(RemoveResult::Status::failed, err, name);
    }
  }

  const SafeRemover& remover_;
  int rootParentFd_;
  fs::path rootParentPath_;
  dev_t rootDev_ = 0;
  std::optional<uint64_t> rootMount_;
  std::vector<Frame> stack_;
  RemoveResult result_;
};

}  // namespace

RemoveResult SafeRemover::removeEntry(int parentFd, const std::string& name,
                                      const fs::path& parentPath) const {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
    return {RemoveResult::Status::failed, std::make_error_code(std::errc::invalid_argument),
            parentPath / name};
  }
  return Walk(*this, parentFd, parentPath).run(name);
}

}  // namespace kestrel
