// AllowedRoot: a uniquely named folder under /Library/Caches for tests that need an allowed system
// location (root only). Created and removed by the test; /Library and /Library/Caches are removed
// again when the test made them. Tests holding one are serialised across processes by a lock.
#pragma once

#include <filesystem>
#include <memory>

namespace kestrel {
class FileLock;
}

namespace kestrel::test {

class AllowedRoot {
 public:
  AllowedRoot();
  ~AllowedRoot();
  AllowedRoot(const AllowedRoot&) = delete;
  AllowedRoot& operator=(const AllowedRoot&) = delete;

  const std::filesystem::path& dir() const { return dir_; }

 private:
  std::unique_ptr<FileLock> lock_;
  std::filesystem::path dir_;
  bool createdCaches_ = false;
  bool createdLibrary_ = false;
};

}  // namespace kestrel::test
