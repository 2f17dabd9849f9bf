// FileLock: flock on a close-on-exec descriptor so that child tools never inherit the lock.
#include "core/storage/FileLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace kestrel {

std::unique_ptr<FileLock> FileLock::acquire(const std::filesystem::path& url) {
  std::error_code ec;
  std::filesystem::create_directories(url.parent_path(), ec);  // the open below reports failure
  const int fd = ::open(url.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return nullptr;
  int rc;
  do rc = ::flock(fd, LOCK_EX | LOCK_NB);
  while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    ::close(fd);
    return nullptr;
  }
  return std::unique_ptr<FileLock>(new FileLock(fd));
}

FileLock::~FileLock() { release(); }

void FileLock::release() {
  if (fd_ < 0) return;
  ::flock(fd_, LOCK_UN);
  ::close(fd_);
  fd_ = -1;
}

}  // namespace kestrel
