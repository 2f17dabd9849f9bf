// Scheduled runs: the run summary as the scheduler names it (the report's own summary).
#pragma once

#include "core/model/CleanReport.h"

#include <string>

namespace kestrel {

class ScheduledRunner {
 public:
  // CleanReport::summary under the name scheduled runs and notifications use.
  static std::string summarize(const CleanReport& report, bool dryRun) { return report.summary(dryRun); }
};

}  // namespace kestrel
