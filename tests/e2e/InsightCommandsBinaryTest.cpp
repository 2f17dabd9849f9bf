// End to end: "forecast" and "growth" through the built binary, with HOME set to a scratch home.
#include "core/insights/GrowthTracker.h"
#include "core/insights/SpaceHistory.h"
#include "core/storage/ByteFormat.h"
#include "core/storage/JSONStore.h"
#include "tests/e2e/RunAgent.h"

#include <gtest/gtest.h>

namespace kestrel::test {
namespace {

using std::chrono::hours;

Date wholeSecondNow() {
  return Dates::fromUnixSeconds(Dates::unixSeconds(std::chrono::system_clock::now()));
}

std::string withoutFreeLine(const std::string& out) {
  EXPECT_EQ(out.rfind("Free: ", 0), 0u) << out;
  const auto nl = out.find('\n');
  return nl == std::string::npos ? out : out.substr(nl + 1);
}

TEST(InsightBinary, ForecastFromCraftedHistory) {
  ScratchHome h;
  const Date now = wholeSecondNow();
  Json j = Json::array();
  // Twelve samples a day apart, losing 1.5 GB a day down to 30 GB free.
  for (int64_t ago = 11; ago >= 0; --ago) {
    j.push_back(
        toJson(SpaceSample{now - hours(24 * ago), 30000000000 + ago * 1500000000, 250000000000}));
  }
  JSONStore::save(j, SpaceHistory(h.paths()).url());
  const auto r = runAgentBinary(h, {"forecast"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(withoutFreeLine(r.out), "Trend: 1.5 GB/day over 11 days\nPredicted full in 20 days\n");
}

TEST(InsightBinary, DamagedFilesCountAsEmpty) {
  ScratchHome h;
  h.text("Library/Application Support/orvo Kestrel/space-history.json", "[{\"date\":");
  h.text("Library/Application Support/orvo Kestrel/growth-snapshots.json", "[{\"sizes\":{}}]");
  h.file("Downloads/setup/installer.pkg", 20000);

  auto r = runAgentBinary(h, {"forecast"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(withoutFreeLine(r.out), "Not enough history yet (needs ~2 days of samples).\n");

  r = runAgentBinary(h, {"growth"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "Need two snapshots; run again tomorrow.\n");
  // The damaged snapshot file was replaced by one good snapshot.
  const auto list = GrowthTracker(h.paths()).snapshots();
  ASSERT_EQ(list.size(), 1u);
  EXPECT_GT(list[0].sizes.at(h.path("Downloads/setup").string()), 0);
}

TEST(InsightBinary, GrowthReportsAgainstStoredSnapshot) {
  ScratchHome h;
  h.file("Downloads/video/movie.mp4", 12000000);
  const std::string video = h.path("Downloads/video").string();
  const std::string gone = h.path("Library/Caches/com.example.gone").string();
  const FolderSnapshot older{wholeSecondNow() - hours(24 * 7), {{video, 0}, {gone, 31000000}}};
  JSONStore::save(Json::array({toJson(older)}), GrowthTracker(h.paths()).url());
  const auto r = runAgentBinary(h, {"growth", "--snapshot"});
  EXPECT_EQ(r.status, 0);
  const int64_t grown = FS::allocatedSize(h.path("Downloads/video"));
  EXPECT_EQ(r.out, "+" + ByteFormat::string(grown) +
                       "\t~/Downloads/video\n-31 MB\t~/Library/Caches/com.example.gone\n");
}

}  // namespace
}  // namespace kestrel::test
