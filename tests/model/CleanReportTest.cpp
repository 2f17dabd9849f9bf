// Clean reports: the one-line summary and the JSON form.
#include "core/model/CleanReport.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

TEST(RunSummary, PartsInOrderAndNothingToClean) {
  CleanReport all;
  all.freedBytes = 1500000;
  all.quarantinedBytes = 3000000000;
  all.trashedBytes = 1;
  all.evictedBytes = 999;
  all.failures = {{"a", "x"}, {"b", "y"}};
  CleanReport freedOnly;
  freedOnly.freedBytes = 2500;
  CleanReport zeros;
  zeros.itemsProcessed = 4;
  zeros.freedBytes = 0;
  zeros.deferredAdmin = 2;
  struct Case {
    const CleanReport& report;
    bool dryRun;
    const char* summary;
  };
  const Case cases[] = {
      {all, false, "Freed 1.5 MB, 3 GB to quarantine, 1 byte to Trash, 999 bytes offloaded to cloud, 2 failed"},
      {all, true, "Would free 1.5 MB, 3 GB to quarantine, 1 byte to Trash, 999 bytes offloaded to cloud, 2 failed"},
      {freedOnly, false, "Freed 2 KB"},
      {freedOnly, true, "Would free 2 KB"},
      {zeros, false, "Nothing to clean"},
      {CleanReport{}, true, "Nothing to clean"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.summary);
    EXPECT_EQ(c.report.summary(c.dryRun), c.summary);
  }
}

TEST(RunSummary, ReportJsonRoundTrip) {
  CleanReport r;
  r.freedBytes = 10;
  r.failures = {{"id/1", "exit 3"}};
  r.quarantineSessionID = "20260301-093000-3F2A9C";
  r.skippedProtected = {"/Users/me/.ssh"};
  EXPECT_EQ(cleanReportFromJson(toJson(r)), r);
  EXPECT_EQ(toJson(CleanReport{}).count("quarantineSessionID"), 0u);
}


}  // namespace
}  // namespace kestrel
