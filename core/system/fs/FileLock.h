// FileLock: an exclusive advisory lock on a file, held until release() or the end of the process.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>

namespace kestrel {

class FileLock {
 public:
  // The lock, or why there is none: `error` is resource_unavailable_try_again while another
  // holder keeps it (`busy`), else the reason the file could not be opened or locked.
  struct Acquired {
    std::unique_ptr<FileLock> lock;
    std::error_code error;

    explicit operator bool() const { return lock != nullptr; }
    FileLock* operator->() const { return lock.get(); }
    bool busy() const { return error == std::errc::resource_unavailable_try_again; }
  };

  // Creates the parent folder unless `createFolder` is false (ignoring failure), opens the file
  // read-write (0644, never through a link, close-on-exec) and takes an exclusive flock, waiting
  // up to `timeout` for a holder elsewhere to let go (polled every 10 ms; no wait by default);
  // fails at once when the file cannot be opened.
  static Acquired acquire(const std::filesystem::path& url, std::chrono::milliseconds timeout = {},
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
