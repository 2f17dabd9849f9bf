// The shared child-listing walk of the folder scanners.
#include "core/scan/scanners/ChildScan.h"

#include "core/system/fs/FileStat.h"

#include <fcntl.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <vector>

namespace kestrel::scanners {

std::optional<Date> Child::modified() const {
  if (!hasStatus) return std::nullopt;
  return platform::modifiedTime(status);
}

std::optional<Date> Child::lastUsed() const {
  if (!hasStatus) return std::nullopt;
  return std::max(platform::accessedTime(status), platform::modifiedTime(status));
}

std::string Child::lowerExtension() const {
  std::string ext = fs::path(name).extension().string();
  if (!ext.empty()) ext.erase(0, 1);
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
  return ext;
}

void forEachChild(const ScanContext& context, CleanCategory category, const fs::path& folder,
                  const std::function<void(const Child&)>& visit) {
  fs::path real;
  UniqueFd dir = context.openFolder(folder, &real);
  if (!dir) return;
  std::vector<std::string> names;
  platform::readDirectory(dir.get(), [&](const char* name, platform::EntryType) {
    if (std::strcmp(name, ".DS_Store") == 0 || std::strcmp(name, ".localized") == 0) return;
    names.emplace_back(name);
  });
  std::sort(names.begin(), names.end());
  for (auto& name : names) {
    if (context.isCancelled()) return;
    Child child;
    child.path = folder / name;
    child.realPath = real / name;
    child.name = std::move(name);
    child.parentFd = dir.get();
    context.report(category, child.path.string());
    child.hasStatus = ::fstatat(dir.get(), child.name.c_str(), &child.status, AT_SYMLINK_NOFOLLOW) == 0;
    visit(child);
  }
}

void forFolder(const ScanContext& context, CleanCategory category, const fs::path& path,
               const std::function<void(const Child&)>& visit) {
  if (context.isCancelled()) return;
  fs::path real;
  UniqueFd parent = context.openFolder(path.parent_path(), &real);
  if (!parent) return;
  Child child;
  child.name = path.filename().string();
  child.path = path;
  child.realPath = real / child.name;
  child.parentFd = parent.get();
  context.report(category, child.path.string());
  child.hasStatus = ::fstatat(parent.get(), child.name.c_str(), &child.status, AT_SYMLINK_NOFOLLOW) == 0;
  if (child.hasStatus) visit(child);
}

int64_t measure(const Child& child, const FS::CancelTest& cancel) {
  if (!child.hasStatus) return 0;
  if (S_ISREG(child.status.st_mode)) return FS::fileSize(child.status);
  if (!S_ISDIR(child.status.st_mode)) return 0;
  return FS::allocatedSizeOfFolder(platform::openDirectoryAt(child.parentFd, child.name.c_str()), cancel);
}

ScanItem makeItem(const Child& child, int64_t size, CleanCategory category, Risk risk, std::string reason,
                  std::optional<Date> lastUsed) {
  ScanItem item;
  item.id = child.path.string();
  item.title = child.name;
  item.target = ItemTarget::forPath(child.path.string());
  item.size = size;
  item.category = category;
  item.risk = risk;
  item.reason = std::move(reason);
  item.lastUsed = lastUsed;
  if (!child.realPath.empty() && child.realPath != child.path) item.realPath = child.realPath.string();
  return item;
}

}  // namespace kestrel::scanners
