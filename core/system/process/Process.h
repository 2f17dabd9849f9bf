// Process plumbing that differs between systems: close-on-exec pipes, the running program's path.
#pragma once

#include <string>
#include <system_error>

namespace kestrel::platform {

// A pipe whose both ends are close-on-exec, so children started by other threads never inherit
// it. The error is empty on success.
std::error_code closeOnExecPipe(int fds[2]) noexcept;

// The absolute path of the running executable; empty when the system does not say.
std::string executablePath();

}  // namespace kestrel::platform
