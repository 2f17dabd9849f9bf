// Process plumbing that differs between systems: close-on-exec pipes.
#pragma once

namespace kestrel::platform {

// A pipe whose both ends are close-on-exec, so children started by other threads never inherit
// it. Returns 0 or an errno value.
int closeOnExecPipe(int fds[2]) noexcept;

}  // namespace kestrel::platform
