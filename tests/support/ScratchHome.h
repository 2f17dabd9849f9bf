// ScratchHome: a real temporary home folder (its name holds a blank and a non-ASCII letter).
#pragma once

#include "core/base/Dates.h"
#include "core/system/Paths.h"

#include <cstdint>
#include <map>
#include <filesystem>
#include <string>
#include <string_view>

namespace kestrel::test {

namespace fs = std::filesystem;

// The fixed "now" of tests that need no real clock: 2026-03-01T09:30:00Z.
inline const Date kTestNow = Dates::fromUnixSeconds(1772357400);

class ScratchHome {
 public:
  ScratchHome();
  ~ScratchHome();
  ScratchHome(const ScratchHome&) = delete;
  ScratchHome& operator=(const ScratchHome&) = delete;

  const fs::path& root() const { return root_; }  // the scratch folder (home lives inside it)
  const fs::path& home() const { return home_; }
  // The macOS table, which most fixtures are shaped for; `linuxPaths` for a Linux-shaped home.
  // The system's own folders (the crash reports) are looked for in the scratch folder's "system".
  Paths paths() const { return Paths(home_, Layout::macos).withSystemRoot(root_ / "system"); }
  Paths linuxPaths() const { return Paths(home_, Layout::linux).withSystemRoot(root_ / "system"); }
  fs::path path(std::string_view rel) const { return home_ / fs::path(rel); }

  // Writes `bytes` bytes ('x') or the given text at rel, creating parent folders.
  fs::path file(std::string_view rel, int64_t bytes = 0);
  fs::path text(std::string_view rel, std::string_view content);
  fs::path folder(std::string_view rel);
  fs::path link(std::string_view rel, const fs::path& target);
  // Sets access and modification times to `now` minus `days` (fractions allowed), without following links.
  void age(std::string_view rel, double days, Date now = std::chrono::system_clock::now());
  // A folder at rel holding one file "blob" of `bytes` bytes, both aged by `days` (an old cache).
  fs::path oldFolder(std::string_view rel, int64_t bytes = 200000, double days = 10);
  // A file of `bytes` bytes at rel, it and every folder above it (up to the home) aged by `days`.
  fs::path aged(std::string_view rel, int64_t bytes, double days, Date now = std::chrono::system_clock::now());
  // A folder outside the home but inside the scratch folder.
  fs::path outside(std::string_view rel);

 private:
  fs::path root_;
  fs::path home_;
};

// Sets an environment variable for the lifetime of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value);
  ~ScopedEnv();

 private:
  std::string name_;
  std::string old_;
  bool had_ = false;
};

// Reads a whole file; empty when it cannot be read.
std::string readText(const fs::path& p);

// Gives `p` (not following a link) to another user; false when this process cannot (not root).
bool disown(const fs::path& p);

// Every entry below `root` (links not followed), by relative path, with its type, size and
// modification time: two listings differ when anything in the tree changed.
std::map<std::string, std::string> treeListing(const fs::path& root);

// Whether anything, a dangling link included, stands at `p`.
bool lexists(const fs::path& p);

}  // namespace kestrel::test
