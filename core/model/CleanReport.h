// The outcome of one clean: bytes freed by kind, failures, protected skips and deferred admin items.
#pragma once

#include "core/model/CleanFailure.h"
#include "core/base/Json.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestrel {

struct CleanReport {
  int64_t freedBytes = 0;
  int64_t evictedBytes = 0;
  int64_t quarantinedBytes = 0;
  int64_t trashedBytes = 0;
  int64_t itemsProcessed = 0;
  std::vector<CleanFailure> failures;
  std::optional<std::string> quarantineSessionID;
  std::vector<std::string> skippedProtected;
  int64_t deferredAdmin = 0;

  // The one-line summary logged by scheduled runs, kept as a rule's last result and printed by
  // "clean": "Freed 1.2 MB, 3 MB to quarantine, 1 failed" ("Would free …" in a dry run); parts
  // with amounts below 1 are left out; "Nothing to clean" when none is left.
  std::string summary(bool dryRun) const;
  bool operator==(const CleanReport&) const = default;
};

Json toJson(const CleanFailure& f);
Json toJson(const CleanReport& r);
CleanFailure cleanFailureFromJson(const Json& j);  // throws DecodeError
CleanReport cleanReportFromJson(const Json& j);    // throws DecodeError

}  // namespace kestrel
