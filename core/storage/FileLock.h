// FileLock: an exclusive advisory lock on a file, held until release() or the end of the process.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>

namespace kestrel {

class FileLock {
 public:
  // Creates the parent folder (ignoring failure), opens the file read-write (0644, never through
  // a link, close-on-exec) and takes a non-blocking exclusive flock. Nothing when the lock is held
  // elsewhere or the file cannot be opened or locked.
  static std::unique_ptr<FileLock> acquire(const std::filesystem::path& url);

  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  // Destruction releases too: a lock that outlives its owner object helps nobody.
  ~FileLock();

  void release();
  int fd() const { return fd_; }

 private:
  explicit FileLock(int fd) : fd_(fd) {}
  int fd_;
};

}  // namespace kestrel
