// End to end: the built KestrelAgent run as a user would, with HOME set to a scratch home: the
// usage text, and "forecast" and "growth" from stored histories.
#include "core/base/ByteFormat.h"
#include "core/insights/GrowthTracker.h"
#include "core/insights/SpaceHistory.h"
#include "core/store/JSONStore.h"
#include "tests/e2e/RunAgent.h"

#include <gtest/gtest.h>

namespace kestrel::test {
namespace {

TEST(AgentBinary, PrintsUsageForUnknownCommandsWithOrWithoutHome) {
  ScratchHome h;
  // {arguments, HOME set}; without HOME the home comes from the password database. Which words
  // count as unknown is the dispatcher's own test.
  const std::pair<std::vector<std::string>, bool> cases[] = {{{"help"}, true}, {{"help"}, false}};
  for (const auto& [args, withHome] : cases) {
    SCOPED_TRACE((args.empty() ? "<none>" : args[0]) + (withHome ? "" : " without HOME"));
    auto r = runAgentBinary(h, args, withHome);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("orvo Kestrel agent\n  run-scheduled | run-rule <name>", 0), 0u) << r.out;
  }
}

using std::chrono::hours;

TEST(InsightBinary, ForecastAndGrowthFromStoredHistory) {
  ScratchHome h;
  const Date now = Dates::fromUnixSeconds(Dates::unixSeconds(std::chrono::system_clock::now()));
  // Twelve samples a day apart, losing 1.5 GB a day down to 30 GB free.
  std::vector<SpaceSample> samples;
  for (int64_t ago = 11; ago >= 0; --ago) samples.push_back({now - hours(24 * ago), 30000000000 + ago * 1500000000, 250000000000});
  JSONStore::save(toJsonArray(samples), SpaceHistory(h.paths()).url());
  auto r = runAgentBinary(h, {"forecast"});
  EXPECT_EQ(r.status, 0);
  ASSERT_EQ(r.out.rfind("Free: ", 0), 0u) << r.out;  // then the machine's own free space
  EXPECT_EQ(r.out.substr(r.out.find('\n') + 1), "Trend: 1.5 GB/day over 11 days\nPredicted full in 20 days\n");

  h.file("Downloads/video/movie.mp4", 12000000);
  const std::string video = h.path("Downloads/video").string();
  const std::string gone = h.path("Library/Caches/com.example.gone").string();
  const FolderSnapshot older{now - hours(24 * 7), {{video, 0}, {gone, 31000000}}};
  JSONStore::save(Json::array({toJson(older)}), GrowthTracker(h.paths()).url());
  r = runAgentBinary(h, {"growth", "--snapshot"});
  EXPECT_EQ(r.status, 0);
  const int64_t grown = FS::allocatedSize(h.path("Downloads/video"));
  EXPECT_EQ(r.out, "+" + ByteFormat::string(grown) + "\t~/Downloads/video\n-31 MB\t~/Library/Caches/com.example.gone\n");
}

}  // namespace
}  // namespace kestrel::test
