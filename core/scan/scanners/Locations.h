// Where the folder scanners look, as data: one row per location and layout, so a new location is
// one row. Both layouts' rows are compiled everywhere; the scan uses those of `paths.layout()`.
#pragma once

#include "core/scan/scanners/ChildScan.h"

#include <span>
#include <string_view>

namespace kestrel::scanners {

enum class On { macos, linux, both };
// The folder a row's pattern starts from.
enum class Base { home, library, cache, config, data, state, downloads, desktop, homeTrash, system, systemCrash };
enum class Shape {
  children,        // each child of the folder is looked at
  self,            // the folder (or file) itself is looked at
  taggedChildren,  // each child folder, not hidden, holding a valid CACHEDIR.TAG is looked at
};

struct Location {
  On on;
  Base base;
  // Below the base, "/"-separated; "" is the base itself; a "*" component stands for every child
  // folder whose name does not start with a dot.
  std::string_view pattern;
  Shape shape;
  // For `self` rows below a "*": the item is titled "<match> — <suffix>" (just "<match>" when
  // empty); for other `self` rows the suffix, when given, is the whole title.
  std::string_view suffix = {};
  // Only children this accepts are visited (`children` rows); all when null.
  bool (*accept)(const Child&) = nullptr;
};

fs::path baseFolder(const Paths& paths, Base base);

// What a row found: the child (or the folder itself), the row, and the name the first "*" matched
// ("" when the pattern has none).
struct Found {
  const Location& row;
  const Child& child;
  std::string_view match;

  // The item's title: the child's name, or the match (with the row's suffix) for `self` rows.
  std::string title() const;
};

// Visits what every row of the current layout finds, in row order, asking `isCancelled` between
// children and reporting each child's path.
void forEachLocation(const ScanContext& context, CleanCategory category, std::span<const Location> rows,
                     const std::function<void(const Found&)>& visit);

// True when the child folder holds a "CACHEDIR.TAG" file starting with the tag's signature.
bool holdsCacheDirTag(const Child& folder);
// The same for an open folder.
bool holdsCacheDirTag(int folderFd);

}  // namespace kestrel::scanners
