// Fuzz target: the readers of background items — a launch agent's property list (XML or binary),
// a systemd unit, an autostart entry, a crontab line, the login-item answer and command words.
// The first byte picks the reader. A file reader finds at most the one item it was given.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "core/schedule/Persistence.h"
#include "fuzz/Check.h"

using namespace kestrel;
namespace fs = std::filesystem;

namespace {

// One scratch home per fuzzing process; its single item file is rewritten for every input.
const fs::path& scratch() {
  static const FuzzScratch scratch("kestrel-fuzz-items");
  static const fs::path root = [] {
    const fs::path& r = scratch.path();
    fs::create_directories(r / "home/Library/LaunchAgents");
    fs::create_directories(r / "home/.config/systemd/user");
    fs::create_directories(r / "home/.config/autostart");
    fs::create_directories(r / "system");
    return r;
  }();
  return root;
}

constexpr const char* kItemFiles[] = {"Library/LaunchAgents/com.example.job.plist",
                                      ".config/systemd/user/example.service",
                                      ".config/autostart/example.desktop"};

void scanOne(std::string_view text, Layout layout, const char* rel) {
  std::error_code ec;
  for (const char* other : kItemFiles) fs::remove(scratch() / "home" / other, ec);
  const fs::path file = scratch() / "home" / rel;
  std::ofstream(file, std::ios::binary | std::ios::trunc).write(text.data(), static_cast<std::streamsize>(text.size()));
  Services services;
  // No tool runs: no crontab, no login-item script.
  services.run = [](const std::string&, const std::vector<std::string>&, double) {
    return Shell::Result{1, "", "not run"};
  };
  const auto items =
      PersistenceInspector::scan(Paths(scratch() / "home", layout), false, services, scratch() / "system");
  FUZZ_CHECK(items.size() <= 1);
  for (const auto& item : items) FUZZ_CHECK(item.path == file.string() && !item.id.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 6) {
    case 0:
      scanOne(text, Layout::macos, kItemFiles[0]);
      break;
    case 1:
      scanOne(text, Layout::linux, kItemFiles[1]);
      break;
    case 2:
      scanOne(text, Layout::linux, kItemFiles[2]);
      break;
    case 3:
      if (const auto item = PersistenceInspector::cronItem(text))
        FUZZ_CHECK(item->kind == PersistenceKind::cronJob && !item->id.empty());
      break;
    case 4:
      for (const auto& item : PersistenceInspector::loginItems(text))
        FUZZ_CHECK(item.kind == PersistenceKind::loginItem && item.path.starts_with("/"));
      break;
    case 5:
      (void)PersistenceInspector::commandWords(text);
      break;
  }
  return 0;
}
