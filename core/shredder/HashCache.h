// HashCache: content hashes remembered by file identity, so an unchanged file is never read twice.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <utility>

namespace kestrel {

// A hash is reused only while the file's device, inode, size, modification time and status-change
// time all match what they were when it was read; anything that rewrites the file changes one of
// them. Not thread-safe: the engine uses it from one sweep at a time.
class HashCache {
 public:
  explicit HashCache(std::filesystem::path file) : file_(std::move(file)) {}

  // Reads the cache file; a missing or damaged one (or damaged lines) is an empty cache.
  void load() noexcept;
  // The remembered hash of the file `st` describes, marking the entry as still in use.
  std::optional<uint64_t> find(const struct stat& st);
  void put(const struct stat& st, uint64_t hash);
  // Forgets entries not asked for since the last save and writes the file when anything changed.
  // Best effort: a cache that cannot be written is rebuilt by reading again.
  void save() noexcept;
  size_t size() const { return entries_.size(); }

 private:
  struct Entry {
    int64_t size = 0;
    int64_t mtimeNs = 0;
    int64_t ctimeNs = 0;
    uint64_t hash = 0;
    bool used = false;
  };
  using Key = std::pair<uint64_t, uint64_t>;  // device, inode

  std::filesystem::path file_;
  std::map<Key, Entry> entries_;
  bool changed_ = false;
};

}  // namespace kestrel
