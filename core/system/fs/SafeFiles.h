// The few descriptor-relative calls the safe remover and the quarantine need that differ by system.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <system_error>

namespace kestrel::platform {

// Renames `from` in folder `fromDir` to `to` in folder `toDir`, failing with file_exists instead
// of replacing anything already at the destination. The error is empty on success (ENOSYS or
// EINVAL where the file system cannot do it: callers must then refuse rather than fall back to a
// plain rename).
std::error_code renameNoReplace(int fromDir, const char* from, int toDir, const char* to) noexcept;

// The path the kernel holds for an open descriptor (the real location of an opened folder, with
// every link already resolved); nothing when the system cannot say or the object was removed.
std::optional<std::string> pathOfDescriptor(int fd) noexcept;

// Fills `out` from the system's cryptographic random source. Never fails on a sane system; aborts
// rather than hand out predictable bytes.
void randomBytes(void* out, std::size_t count) noexcept;

}  // namespace kestrel::platform
