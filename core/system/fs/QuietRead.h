// Reading a small file without changing what a scan measures (its access time).
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <vector>

namespace kestrel::platform {

// The whole content of a regular file of at most `maxBytes`, opened without following a final
// link and, where the platform allows it, without updating its access time. Nothing when the
// item is missing, not a regular file, too large or unreadable.
std::optional<std::vector<char>> readFileQuietly(const std::filesystem::path& path, size_t maxBytes) noexcept;

}  // namespace kestrel::platform
