// The one safe remover: files and trees removed through descriptors, never following a link.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "core/base/UniqueFd.h"

namespace kestrel {

namespace fs = std::filesystem;

// Which object a name stood for: device and inode, kept by a rename on the same volume.
struct FileIdentity {
  dev_t dev = 0;
  ino_t ino = 0;
  bool operator==(const FileIdentity&) const = default;
};

// Identity of `name` in folder `dirFd` without following a link; nothing when it cannot be read.
std::optional<FileIdentity> identityAt(int dirFd, const char* name) noexcept;
// Identity of a path without following a final link (for recovery checks only, never removal).
std::optional<FileIdentity> identityOf(const fs::path& path) noexcept;

// A trusted folder every removal and move is resolved from: the home folder or a fixed root,
// opened once as a folder without following a final link.
class Anchor {
 public:
  // Throws std::system_error when `root` is not an absolute path to a folder.
  static Anchor open(const fs::path& root);
  // The home folder when `path` lies strictly below it, else the root folder "/".
  static Anchor forPath(const fs::path& home, const fs::path& path);

  const fs::path& path() const { return path_; }
  int fd() const { return fd_.get(); }

 private:
  Anchor(UniqueFd fd, fs::path path) : fd_(std::move(fd)), path_(std::move(path)) {}
  UniqueFd fd_;
  fs::path path_;
};

// The parent folder of an item, opened from an anchor one component at a time with no link
// followed, so what is done to `name` inside it cannot be redirected by a swapped folder.
struct ParentDir {
  UniqueFd fd;
  fs::path path;     // the parent's path as asked for (anchor + components)
  std::string name;  // the item's last path component
  FileIdentity identity;

  fs::path itemPath() const { return path / name; }
  // The parent's real location re-derived from the open descriptor, so a policy check can be run
  // again on what was actually opened; nothing when the system cannot say.
  std::optional<fs::path> realPath() const;
};

namespace SafeFS {

// Opens the parent of `path`, which must be absolute, strictly below the anchor, free of "." and
// ".." and without a trailing slash (EINVAL otherwise). A link anywhere on the way fails with
// ELOOP or ENOTDIR. With `createMissing`, missing folders on the way are made (0755). Throws
// std::system_error naming the component that failed.
ParentDir openParent(const Anchor& anchor, const fs::path& path, bool createMissing = false);
// Opens the folder at `path` itself the same way (the last component is not followed either).
UniqueFd openFolder(const Anchor& anchor, const fs::path& path, bool createMissing = false);
// Moves `from.name` to `to.name` between two opened parents; never replaces what is there
// (file_exists). The error is empty on success.
std::error_code renameNoReplace(const ParentDir& from, const ParentDir& to) noexcept;

}  // namespace SafeFS

// What a removal came to. `missing` (nothing was there) counts as success.
struct RemoveResult {
  enum class Status { removed, missing, refused, failed };
  Status status = Status::removed;
  std::error_code error;  // refused or failed: the first reason
  fs::path where;         // the object that reason is about

  bool ok() const { return status == Status::removed || status == Status::missing; }
  std::string message() const;
  // Throws std::system_error with message() unless ok().
  void throwIfFailed() const;
};

// Removes files and whole trees through descriptors: every name is resolved inside a folder
// already opened without following links, and every folder's identity is checked after opening
// and before descending, so swapping a folder for a link at any moment cannot make it remove
// anything outside the tree it was given. It never crosses onto another device or into another
// mount (a bind mount of the same file system included), never removes "/", the home folder or a top-level folder of the safety policy (compared by identity), treats
// entries that vanish meanwhile as removed, and keeps a bounded number of folders open (a tree
// deeper than kMaxDepth fails cleanly with ENAMETOOLONG after removing what it could). Safe to use
// from several threads at once.
class SafeRemover {
 public:
  static constexpr size_t kMaxDepth = 256;

  // Records the identities of the protected folders of `home` (and the absolute ones) now.
  explicit SafeRemover(const fs::path& home);

  // Removes `path` (absolute) resolved from the home folder when it lies below it, else from "/".
  RemoveResult remove(const fs::path& path) const;
  RemoveResult remove(const Anchor& anchor, const fs::path& path) const;
  // Removes `parent.name` inside an already opened parent.
  RemoveResult removeEntry(const ParentDir& parent) const;
  // Removes `name` inside the open folder `parentFd`; `parentPath` is only used in messages.
  RemoveResult removeEntry(int parentFd, const std::string& name, const fs::path& parentPath) const;

  bool isProtected(const FileIdentity& id) const;
  const fs::path& home() const { return home_; }

 private:
  fs::path home_;
  std::vector<FileIdentity> protected_;
};

}  // namespace kestrel
