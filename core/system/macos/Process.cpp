// Process plumbing on macOS: no pipe2, so close-on-exec is set right after creation.
#include "core/system/process/Process.h"

#include <fcntl.h>
#include <mach-o/dyld.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string>

namespace kestrel::platform {

std::error_code closeOnExecPipe(int fds[2]) noexcept {
  if (::pipe(fds) != 0) return {errno, std::generic_category()};
  ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
  ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
  return {};
}

std::string executablePath() {
  char raw[PATH_MAX];
  uint32_t size = sizeof raw;
  if (_NSGetExecutablePath(raw, &size) != 0) return {};
  char resolved[PATH_MAX];
  return ::realpath(raw, resolved) ? std::string(resolved) : std::string(raw);
}

}  // namespace kestrel::platform
