// JSONStore: the one reader and writer of every JSON file the system keeps (atomic, durable replace).
#pragma once

#include "core/storage/Json.h"

#include <filesystem>
#include <optional>
#include <string_view>

namespace kestrel::JSONStore {

namespace fs = std::filesystem;

// Reads and parses the whole file; nothing when it is missing, unreadable or not JSON.
std::optional<Json> loadJson(const fs::path& url) noexcept;
// Reads the whole file as bytes; nothing when it cannot be read. Does not follow a final link.
std::optional<std::string> readFile(const fs::path& url) noexcept;

// Writes `value` pretty-printed with sorted keys. Creates the parent folder, writes a uniquely
// named temporary file beside the target (O_EXCL), fsyncs it, renames it over the target and fsyncs
// the folder. Any failure (including a failed fsync) throws std::system_error or
// fs::filesystem_error and leaves the old file as it was.
void save(const Json& value, const fs::path& url);
// The same atomic replace for arbitrary bytes.
void writeAtomically(std::string_view bytes, const fs::path& url);

// Decodes with `decode`; any read, parse or decode error yields nothing.
template <class T, class Decode>
std::optional<T> load(const fs::path& url, Decode decode) noexcept {
  auto j = loadJson(url);
  if (!j) return std::nullopt;
  try {
    return decode(*j);
  } catch (const std::exception&) {
    return std::nullopt;  // an undecodable store counts as absent; the next save replaces it
  }
}

}  // namespace kestrel::JSONStore
