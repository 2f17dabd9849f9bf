// Fuzz targets: a property check that stops the run with a message libFuzzer reports as a crash.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#define FUZZ_CHECK(condition)                                                               \
  do {                                                                                      \
    if (!(condition)) {                                                                     \
      std::fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                         \
    }                                                                                       \
  } while (0)

// A per-process scratch path under the temporary folder, removed when the fuzzing run exits.
class FuzzScratch {
 public:
  explicit FuzzScratch(const std::string& name)
      : path_(std::filesystem::temp_directory_path() / (name + "-" + std::to_string(::getpid()))) {}
  ~FuzzScratch() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  FuzzScratch(const FuzzScratch&) = delete;
  FuzzScratch& operator=(const FuzzScratch&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};
