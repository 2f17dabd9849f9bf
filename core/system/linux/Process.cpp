// Process plumbing on Linux: pipe2 sets close-on-exec atomically.
#include "core/system/process/Process.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string>

namespace kestrel::platform {

std::error_code closeOnExecPipe(int fds[2]) noexcept {
  if (::pipe2(fds, O_CLOEXEC) == 0) return {};
  return {errno, std::generic_category()};
}

std::string executablePath() {
  char buffer[PATH_MAX];
  const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer);
  return n > 0 && static_cast<size_t>(n) < sizeof buffer
             ? std::string(buffer, static_cast<size_t>(n))
             : std::string();
}

}  // namespace kestrel::platform
