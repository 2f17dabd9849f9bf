// FileLock: flock on a close-on-exec descriptor so that child tools never inherit the lock.
#include "core/system/fs/FileLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

namespace kestrel {

FileLock::Acquired FileLock::acquire(const std::filesystem::path& url, std::chrono::milliseconds timeout,
                                     bool createFolder) {
  std::error_code ec;
  if (createFolder) std::filesystem::create_directories(url.parent_path(), ec);  // the open reports failure
  // Non-blocking too: a FIFO put in the lock file's place must not hang the open.
  const int fd = ::open(url.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0644);
  if (fd < 0) return {nullptr, {errno, std::generic_category()}};
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) return {std::unique_ptr<FileLock>(new FileLock(fd)), {}};
    if (errno != EINTR && errno != EWOULDBLOCK) break;
    if (errno == EWOULDBLOCK) {
      if (std::chrono::steady_clock::now() >= deadline) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  const std::error_code why(errno == EWOULDBLOCK ? EAGAIN : errno, std::generic_category());
  ::close(fd);
  return {nullptr, why};
}

FileLock::~FileLock() { release(); }

void FileLock::release() {
  if (fd_ < 0) return;
  ::flock(fd_, LOCK_UN);
  ::close(fd_);
  fd_ = -1;
}

}  // namespace kestrel
