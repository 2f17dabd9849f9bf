// ShredIndex: the duplicate index, "<folder>|<size>:<hash>" → the first file seen with that content.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace kestrel {

// Safe to use from several threads.
class ShredIndex {
 public:
  explicit ShredIndex(std::filesystem::path file) : file_(std::move(file)) {}

  // Reads the file; a missing or damaged one is an empty index.
  void load();
  // Drops entries whose files are gone and writes the file when the index changed. Best effort:
  // an index that cannot be written is rebuilt from the folders by the next sweeps.
  void save();

  std::optional<std::string> find(const std::string& key) const;
  void set(const std::string& key, const std::string& path);
  // The sizes of the entries of `folder`.
  std::set<int64_t> sizesIn(const std::string& folder) const;
  // The key of content of `size` bytes hashed to `hashText` in `folder`.
  static std::string key(const std::string& folder, int64_t size, const std::string& hashText);

 private:
  std::filesystem::path file_;
  mutable std::mutex lock_;
  std::map<std::string, std::string> entries_;
  std::map<std::string, std::string> saved_;
};

}  // namespace kestrel
