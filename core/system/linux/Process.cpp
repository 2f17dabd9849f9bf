// Process plumbing on Linux: pipe2 sets close-on-exec atomically.
#include "core/system/Process.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace kestrel::platform {

int closeOnExecPipe(int fds[2]) noexcept { return ::pipe2(fds, O_CLOEXEC) == 0 ? 0 : errno; }

}  // namespace kestrel::platform
