// LastScan: what the most recent scan of each category found, kept for the metrics.
#pragma once

#include <map>
#include <vector>

#include "core/base/Dates.h"
#include "core/model/ScanModel.h"
#include "core/system/Paths.h"

namespace kestrel {

struct LastScan {
  struct Found {
    int64_t bytes = 0;
    int64_t items = 0;
    Date date{};
    bool operator==(const Found&) const = default;
  };
  std::map<CleanCategory, Found> categories;

  // The store in paths.lastScanFile(); empty when missing or damaged.
  static LastScan load(const Paths& paths);
  // Records `results` found at `now`, each category replacing its own earlier figures (a scan of
  // one category leaves the others as they were). Best effort: a failed write is dropped.
  static void record(const Paths& paths, const std::vector<CategoryResult>& results, Date now) noexcept;

  bool operator==(const LastScan&) const = default;
};

Json toJson(const LastScan& s);
// Throws DecodeError.
LastScan lastScanFromJson(const Json& j);

}  // namespace kestrel
