// Scan data model and clean reports: exact parsing of stored texts, saturating totals, the JSON
// forms and the one-line summary.
#include "core/model/CleanReport.h"
#include "core/model/ScanModel.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

TEST(ScanModel, ParsingIsExactAndEveryCategoryRoundTrips) {
  for (auto c : allCategories()) EXPECT_EQ(categoryFromRaw(rawValue(c)), c) << rawValue(c);
  for (const char* bad : {"appBundles", "AppBundle", "user caches", ""}) EXPECT_FALSE(categoryFromRaw(bad)) << bad;
  EXPECT_EQ(disposalFromRaw("delete"), Disposal::delete_);
  EXPECT_FALSE(disposalFromRaw("shred"));
  EXPECT_EQ(groupFromRaw("System Junk"), CategoryGroup::system);
  EXPECT_FALSE(groupFromRaw("system"));
  EXPECT_EQ(riskFromRaw(1), Risk::review);
  EXPECT_FALSE(riskFromRaw(3));
  EXPECT_EQ(severityFromRaw(3), Severity::high);
  EXPECT_FALSE(severityFromRaw(-1));
  EXPECT_TRUE(Risk::safe < Risk::review && Risk::review < Risk::caution);
}

TEST(ScanModel, TargetsAndSaturatingTotals) {
  EXPECT_FALSE(ItemTarget::forEvict("/a").path());
  EXPECT_FALSE(ItemTarget::forCommand({"docker", {"image", "prune"}}).path());
  EXPECT_EQ(ItemTarget::forAdminPath("/Library/Caches/x").path(), "/Library/Caches/x");
  ScanItem big, one;
  big.size = INT64_MAX;
  one.size = 1;
  // A total past the 64-bit range saturates instead of wrapping into a small one.
  EXPECT_EQ((CategoryResult{CleanCategory::logs, {big, one}, {}}.totalSize()), INT64_MAX);
  EXPECT_EQ((CategoryResult{CleanCategory::logs, {one, one}, {}}.totalSize()), 2);
}

TEST(ScanModel, JsonRoundTripsInBothDateFormsAndRejectsBadTargets) {
  ScanItem item;
  item.id = "/Users/me/Library/Caches/com.x";
  item.target = ItemTarget::forPath(item.id);
  item.size = 65536;
  item.lastUsed = Dates::fromUnixSeconds(1772357400);
  EXPECT_EQ(toJson(item, DateForm::referenceSeconds).at("lastUsed"), 794050200);
  EXPECT_EQ(toJson(item, DateForm::iso8601).at("lastUsed"), "2026-03-01T09:30:00Z");
  for (DateForm form : {DateForm::iso8601, DateForm::referenceSeconds}) {
    EXPECT_EQ(scanItemFromJson(toJson(item, form), form), item);
    ScanItem noDate = item;
    noDate.lastUsed.reset();
    noDate.target = ItemTarget::forCommand({"docker", {"system", "prune", "-f"}});
    EXPECT_EQ(toJson(noDate, form).count("lastUsed"), 0u);
    const CategoryResult r{CleanCategory::docker, {noDate}, "docker not found"};
    EXPECT_EQ(categoryResultFromJson(toJson(r, form), form), r);
  }
  for (auto kind : {ItemTarget::forPath("/a"), ItemTarget::forAdminPath("/b"), ItemTarget::forEvict("/c")})
    EXPECT_EQ(itemTargetFromJson(toJson(kind)), kind);
  for (const char* bad : {R"({})", R"({"path":{"_0":"/a"},"evict":{"_0":"/a"}})", R"({"path":{"_0":5}})",
                          R"({"command":{"_0":{"executable":"x"}}})", R"({"bogus":{"_0":"/a"}})", R"("path")"})
    EXPECT_THROW(itemTargetFromJson(Json::parse(bad)), DecodeError) << bad;
}

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
  const struct Case {
    const CleanReport& report;
    bool dryRun;
    const char* summary;
  } cases[] = {
      {all, false, "Freed 1.5 MB, 3 GB to quarantine, 1 byte to Trash, 999 bytes offloaded to cloud, 2 failed"},
      {all, true, "Would free 1.5 MB, 3 GB to quarantine, 1 byte to Trash, 999 bytes offloaded to cloud, 2 failed"},
      {freedOnly, false, "Freed 2 KB"},
      {freedOnly, true, "Would free 2 KB"},
      {zeros, false, "Nothing to clean"},
      {CleanReport{}, true, "Nothing to clean"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.report.summary(c.dryRun), c.summary) << c.summary;
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
