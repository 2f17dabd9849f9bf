// FileLock: an exclusive advisory lock on a file, held until release() or the end of the process.
#pragma once

#include <chrono>
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
  // The same, waiting up to `timeout` for a holder elsewhere to let go (polled every 10 ms);
  // nothing at once when the file cannot be opened. Without `createFolder` a missing folder is not
  // made. On nothing, errno says why (EWOULDBLOCK: still held when the time was up).
  static std::unique_ptr<FileLock> acquire(const std::filesystem::path& url, std::chrono::milliseconds timeout,
                                           bool createFolder = true);

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
