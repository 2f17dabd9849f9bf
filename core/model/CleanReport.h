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
  bool operator==(const CleanReport&) const = default;
};

Json toJson(const CleanFailure& f);
Json toJson(const CleanReport& r);
CleanFailure cleanFailureFromJson(const Json& j);  // throws DecodeError
CleanReport cleanReportFromJson(const Json& j);    // throws DecodeError

}  // namespace kestrel
