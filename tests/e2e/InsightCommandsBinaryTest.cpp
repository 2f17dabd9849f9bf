// End to end: "forecast" and "growth" through the built binary, with HOME set to a scratch home.
#include "core/insights/GrowthTracker.h"
#include "core/insights/SpaceHistory.h"
#include "core/base/ByteFormat.h"
#include "core/store/JSONStore.h"
#include "tests/e2e/RunAgent.h"

#include <gtest/gtest.h>

namespace kestrel::test {
namespace {

using std::chrono::hours;

TEST(InsightBinary, ForecastAndGrowthFromStoredHistory) {
  ScratchHome h;
  const Date now = Dates::fromUnixSeconds(Dates::unixSeconds(std::chrono::system_clock::now()));
  // Twelve samples a day apart, losing 1.5 GB a day down to 30 GB free.
  Json samples = Json::array();
  for (int64_t ago = 11; ago >= 0; --ago) {
    samples.push_back(
        toJson(SpaceSample{now - hours(24 * ago), 30000000000 + ago * 1500000000, 250000000000}));
  }
  JSONStore::save(samples, SpaceHistory(h.paths()).url());
  auto r = runAgentBinary(h, {"forecast"});
  EXPECT_EQ(r.status, 0);
  ASSERT_EQ(r.out.rfind("Free: ", 0), 0u) << r.out;  // then the machine's own free space
  EXPECT_EQ(r.out.substr(r.out.find('\n') + 1),
            "Trend: 1.5 GB/day over 11 days\nPredicted full in 20 days\n");

  h.file("Downloads/video/movie.mp4", 12000000);
  const std::string video = h.path("Downloads/video").string();
  const std::string gone = h.path("Library/Caches/com.example.gone").string();
  const FolderSnapshot older{now - hours(24 * 7), {{video, 0}, {gone, 31000000}}};
  JSONStore::save(Json::array({toJson(older)}), GrowthTracker(h.paths()).url());
  r = runAgentBinary(h, {"growth", "--snapshot"});
  EXPECT_EQ(r.status, 0);
  const int64_t grown = FS::allocatedSize(h.path("Downloads/video"));
  EXPECT_EQ(r.out, "+" + ByteFormat::string(grown) +
                       "\t~/Downloads/video\n-31 MB\t~/Library/Caches/com.example.gone\n");
}

}  // namespace
}  // namespace kestrel::test
