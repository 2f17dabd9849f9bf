// Immutable: makes a folder immutable for the object's lifetime (the only way to refuse root a
// removal); ok() is false where the file system or the user cannot (tests then skip).
#pragma once

#include <filesystem>

#include "core/system/process/Shell.h"

namespace kestrel::test {

class Immutable {
 public:
  explicit Immutable(std::filesystem::path p) : path_(std::move(p)) {
    ok_ = Shell::run("chattr", {"+i", path_.string()}, 10).ok();
  }
  ~Immutable() {
    if (ok_) Shell::run("chattr", {"-i", path_.string()}, 10);
  }
  Immutable(const Immutable&) = delete;
  Immutable& operator=(const Immutable&) = delete;
  bool ok() const { return ok_; }

 private:
  std::filesystem::path path_;
  bool ok_ = false;
};

}  // namespace kestrel::test
