// The pattern every folder scanner shares: list a folder's direct children without following
// links, look at each one once, measure it, and make its item.
#pragma once

#include "core/scan/ScanEngine.h"
#include "core/system/fs/FS.h"
#include "core/base/UniqueFd.h"

#include <sys/stat.h>

#include <functional>
#include <optional>
#include <string>

namespace kestrel::scanners {

// One direct child with the status it had when listed (the only status call made for it).
struct Child {
  std::string name;
  fs::path path;
  fs::path realPath;  // where it really is (differs from `path` below a followed link)
  int parentFd = -1;   // open while the visit runs
  bool hasStatus = false;
  struct stat status {};

  bool isDirectory() const { return hasStatus && S_ISDIR(status.st_mode); }
  std::optional<Date> modified() const;
  // The later of the access and modification dates.
  std::optional<Date> lastUsed() const;
  // Lower-cased file name extension ("" when there is none).
  std::string lowerExtension() const;
};

// Visits the children of `folder` in name order (".DS_Store" and ".localized" left out). Before
// each child it asks `isCancelled` (true stops the listing) and reports the child's path.
void forEachChild(const ScanContext& context, CleanCategory category, const fs::path& folder,
                  const std::function<void(const Child&)>& visit);

// Visits one named item, reached through its parent folder as `forEachChild` reaches children
// (the cancellation test and the report as there); nothing happens when it is missing.
void forFolder(const ScanContext& context, CleanCategory category, const fs::path& path,
               const std::function<void(const Child&)>& visit);

// Allocated bytes of the child: a file's own blocks, a folder's walk; links and others count 0.
int64_t measure(const Child& child, const FS::CancelTest& cancel);

// An item with the child's path as id and target, its name as title.
ScanItem makeItem(const Child& child, int64_t size, CleanCategory category, Risk risk, std::string reason,
                  std::optional<Date> lastUsed);

}  // namespace kestrel::scanners
