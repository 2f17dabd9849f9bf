// Scheduled runs: the one-line summary of a clean (shared with the "clean" command).
#pragma once

#include "core/model/CleanReport.h"

#include <string>

namespace kestrel {

class ScheduledRunner {
 public:
  // "Freed 1.2 MB, 3 MB to quarantine, 1 failed" (or "Would free …" in a dry run); parts with
  // amounts below 1 are left out; "Nothing to clean" when none is left.
  static std::string summarize(const CleanReport& report, bool dryRun);
};

}  // namespace kestrel
