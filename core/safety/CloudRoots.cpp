// Cloud sync roots and the provider names shown for them.
#include "core/safety/CloudRoots.h"

#include <string_view>

namespace kestrel {
namespace {

constexpr std::string_view kICloudRoot = "Library/Mobile Documents";
constexpr std::string_view kStorageRoot = "Library/CloudStorage";

bool atOrUnder(std::string_view path, std::string_view root) {
  if (path.size() < root.size() || path.compare(0, root.size(), root) != 0) return false;
  return path.size() == root.size() || path[root.size()] == '/';
}

std::string homeText(const fs::path& home) {
  std::string h = home.string();
  while (h.size() > 1 && h.back() == '/') h.pop_back();
  return h;
}

std::string join(const fs::path& home, std::string_view rel) {
  std::string h = homeText(home);
  if (h.empty() || h.back() != '/') h += '/';
  return h + std::string(rel);
}

}  // namespace

namespace CloudRoots {

std::vector<fs::path> syncRoots(const fs::path& home) {
  return {fs::path(join(home, kICloudRoot)), fs::path(join(home, kStorageRoot))};
}

bool isSynced(const std::string& path, const fs::path& home) {
  return atOrUnder(path, join(home, kICloudRoot)) || atOrUnder(path, join(home, kStorageRoot));
}

std::string providerName(const std::string& path, const fs::path& home) {
  if (atOrUnder(path, join(home, kICloudRoot))) return "iCloud Drive";
  const std::string storage = join(home, kStorageRoot);
  if (atOrUnder(path, storage) && path.size() > storage.size() + 1) {
    std::string account = path.substr(storage.size() + 1);
    account = account.substr(0, account.find('/'));
    // Provider folders are named "<Provider>-<account>"; the provider part is the display name.
    std::string name = account.substr(0, account.find('-'));
    while (!name.empty() && name.back() == ' ') name.pop_back();
    while (!name.empty() && name.front() == ' ') name.erase(0, 1);
    if (!name.empty()) return name;
  }
  return "your cloud drive";
}

}  // namespace CloudRoots
}  // namespace kestrel
