// Process plumbing on macOS: no pipe2, so close-on-exec is set right after creation.
#include "core/system/Process.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace kestrel::platform {

int closeOnExecPipe(int fds[2]) noexcept {
  if (::pipe(fds) != 0) return errno;
  ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
  ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
  return 0;
}

}  // namespace kestrel::platform
