// ScratchVolume: a small tmpfs mounted on a test's own folder for the object's lifetime, so a test
// has a second file system of its own; mounted() is false where this process may not mount.
#pragma once

#include <sys/mount.h>

#include <filesystem>

namespace kestrel::test {

class ScratchVolume {
 public:
  explicit ScratchVolume(std::filesystem::path at) : at_(std::move(at)) {
    std::filesystem::create_directories(at_);
    mounted_ = ::mount("kestrel-test", at_.c_str(), "tmpfs", 0, "size=4m") == 0;
  }
  ~ScratchVolume() {
    if (mounted_) ::umount2(at_.c_str(), MNT_DETACH);
  }
  ScratchVolume(const ScratchVolume&) = delete;
  ScratchVolume& operator=(const ScratchVolume&) = delete;
  bool mounted() const { return mounted_; }

 private:
  std::filesystem::path at_;
  bool mounted_ = false;
};

}  // namespace kestrel::test
