// Log files that do not grow forever: cut at a size, keeping one previous file.
#pragma once

#include <cstdint>
#include <filesystem>

namespace kestrel::LogFile {

inline constexpr int64_t kMaxBytes = 5 * 1024 * 1024;

// When `log` holds more than `limit` bytes, its text becomes "<log>.1" (replacing the previous
// one, written whole before it takes that name) and the log itself is emptied in place: a writer
// that has it open (the service manager appends the agent's output to it) carries on into the same
// file. Call it before the process writes to the log. Best effort: on any failure the log is left
// as it was.
void cutIfLarge(const std::filesystem::path& log, int64_t limit = kMaxBytes) noexcept;

}  // namespace kestrel::LogFile
