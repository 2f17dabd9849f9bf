// Store files on disk: reading a whole file without blocking or following it into something odd,
// and the atomic, durable replace every store is written with.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace kestrel::StoreFile {

namespace fs = std::filesystem;

// Store files larger than this are treated as damaged rather than read into memory.
inline constexpr size_t kMaxStoreBytes = size_t{64} << 20;

// What reading a store file came to. `missing` means nothing at all stands at the path; anything
// that stands there but cannot be read whole (a dangling link, a folder, a FIFO, a file over the
// size cap, a read error) is `damaged`, with a short reason a user can act on.
struct FileRead {
  enum class Status { ok, missing, damaged };
  Status status = Status::missing;
  std::string bytes;   // ok: the whole content
  std::string reason;  // damaged: why

  bool ok() const { return status == Status::ok; }
};

// Reads a store file whole. A final symbolic link is followed (users keep settings in a dotfiles
// folder and link them), but only a regular file is read: the open never blocks (a FIFO in place
// of a store fails at once) and at most `maxBytes` are accepted.
FileRead read(const fs::path& url, size_t maxBytes = kMaxStoreBytes) noexcept;

// The same read as bytes; nothing unless the status is ok.
std::optional<std::string> readFile(const fs::path& url) noexcept;

// Whether `name` is one of the temporary files writeAtomically makes beside a file named `target`
// (left behind when a save was interrupted).
bool isTemporaryOf(std::string_view name, std::string_view target) noexcept;

// Writes `bytes` as the whole file: creates the parent folder, writes a uniquely named temporary
// file beside the target (O_EXCL), fsyncs it, renames it over the target and fsyncs the folder.
// When the target is a symbolic link, the file it leads to is replaced the same way in that file's
// own folder, so the link survives. Any failure (including a failed fsync) throws std::system_error
// or fs::filesystem_error and leaves the old file as it was.
void writeAtomically(std::string_view bytes, const fs::path& url);

// Where a save of `url` really writes: the file a chain of symbolic links at `url` leads to (the
// path itself when it is no link). Relative link targets are taken from the link's own folder.
fs::path resolveFinalLinks(const fs::path& url);

}  // namespace kestrel::StoreFile
