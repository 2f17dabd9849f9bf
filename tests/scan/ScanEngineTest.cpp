// Scan engine: ownership by rank, ancestor and policy filtering, ordering, threads and throttling.
#include "core/scan/ScanEngine.h"

#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <stdexcept>

namespace kestrel {
namespace {

using test::ScratchHome;

ScanItem pathItem(const std::string& path, CleanCategory c, int64_t size = 1) {
  ScanItem item;
  item.id = path;
  item.title = path;
  item.target = ItemTarget::forPath(path);
  item.size = size;
  item.category = c;
  return item;
}

ScanItem commandItem(const std::string& id, CleanCategory c, int64_t size = 1) {
  ScanItem item;
  item.id = id;
  item.target = ItemTarget::forCommand({"docker", {"image", "rm", id}});
  item.size = size;
  item.category = c;
  return item;
}

std::map<CleanCategory, std::vector<std::string>> idsByCategory(const std::vector<CategoryResult>& results) {
  std::map<CleanCategory, std::vector<std::string>> out;
  for (const auto& r : results)
    for (const auto& item : r.items) out[r.category].push_back(item.id);
  return out;
}

TEST(ScanEngineDedupe, OwnershipAncestorsAndPolicy) {
  ScratchHome h;
  const std::string home = h.home().string();
  const SafetyPolicy policy(h.paths(), {home + "/Protected"});
  using C = CleanCategory;
  struct Case {
    const char* name;
    std::vector<CategoryResult> in;
    std::map<CleanCategory, std::vector<std::string>> kept;
  };
  const std::string a = home + "/a", ab = home + "/a/b", x = home + "/x";
  const Case cases[] = {
      {"higher rank takes over a path whichever result came first",
       {{C::duplicates, {pathItem(a, C::duplicates)}, {}}, {C::userCaches, {pathItem(a, C::userCaches)}, {}}},
       {{C::duplicates, {a}}}},
      {"equal ranks go to the earlier category, not the earlier result",
       {{C::trash, {pathItem(a, C::trash)}, {}}, {C::logs, {pathItem(a, C::logs)}, {}}},
       {{C::logs, {a}}}},
      {"a file inside a listed folder is dropped, whatever its category",
       {{C::packageCaches, {pathItem(ab, C::packageCaches)}, {}}, {C::userCaches, {pathItem(a, C::userCaches)}, {}}},
       {{C::userCaches, {a}}}},
      {"an owned folder hides its contents even when another category lost it",
       {{C::userCaches, {pathItem(a, C::userCaches)}, {}},
        {C::duplicates, {pathItem(a, C::duplicates)}, {}},
        {C::logs, {pathItem(ab, C::logs)}, {}}},
       {{C::duplicates, {a}}}},
      {"protected and blocked paths are left out silently",
       {{C::userCaches,
         {pathItem(home + "/Protected/c", C::userCaches), pathItem(home + "/Library", C::userCaches),
          pathItem("relative", C::userCaches), pathItem(x, C::userCaches)},
         {}}},
       {{C::userCaches, {x}}}},
      {"commands and evictions are never de-duplicated",
       {{C::docker, {commandItem("img", C::docker), commandItem("img", C::docker)}, {}},
        {C::cloudLocalCopies,
         {ScanItem{"e", "e", ItemTarget::forEvict(a), 1, C::cloudLocalCopies, Risk::safe, "", {}}},
         {}},
        {C::userCaches, {pathItem(a, C::userCaches)}, {}}},
       {{C::userCaches, {a}}, {C::docker, {"img", "img"}}, {C::cloudLocalCopies, {"e"}}}},
  };
  for (const auto& c : cases) EXPECT_EQ(idsByCategory(dedupe(c.in, policy)), c.kept) << c.name;
}

TEST(ScanEngineDedupe, SortsItemsBySizeStablyAndResultsByCategory) {
  ScratchHome h;
  const std::string home = h.home().string();
  const SafetyPolicy policy(h.paths(), {});
  using C = CleanCategory;
  std::vector<CategoryResult> in = {
      {C::duplicates, {}, std::string("scanner said no")},
      {C::packageCaches,
       {pathItem(home + "/p1", C::packageCaches, 5), pathItem(home + "/p2", C::packageCaches, 9),
        pathItem(home + "/p3", C::packageCaches, 5), pathItem(home + "/p4", C::packageCaches, 9)},
       {}},
      {C::logs, {}, {}},
  };
  const auto out = dedupe(in, policy);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[0].category, C::logs);
  EXPECT_EQ(out[1].category, C::packageCaches);
  EXPECT_EQ(out[2].category, C::duplicates);
  EXPECT_EQ(out[2].error, std::optional<std::string>("scanner said no"));
  std::vector<std::string> ids;
  for (const auto& i : out[1].items) ids.push_back(i.id);
  EXPECT_EQ(ids, (std::vector<std::string>{home + "/p2", home + "/p4", home + "/p1", home + "/p3"}));
}

// A scanner of the test's own: returns fixed items after reporting progress many times.
class FixedScanner : public JunkScanner {
 public:
  FixedScanner(CleanCategory c, std::vector<ScanItem> items, bool throws = false)
      : category_(c), items_(std::move(items)), throws_(throws) {}
  CleanCategory category() const override { return category_; }
  std::vector<ScanItem> scan(const ScanContext& context) const override {
    for (int i = 0; i < 200; ++i) context.report(category_, "step " + std::to_string(i));
    if (throws_) throw std::runtime_error("broken scanner");
    if (context.isCancelled()) return {};
    return items_;
  }

 private:
  CleanCategory category_;
  std::vector<ScanItem> items_;
  bool throws_;
};

TEST(ScanEngine, RunsEveryScannerOnItsOwnThreadAndJoinsThem) {
  ScratchHome h;
  const std::string home = h.home().string();
  using C = CleanCategory;
  std::vector<std::unique_ptr<JunkScanner>> scanners;
  scanners.push_back(std::make_unique<FixedScanner>(C::duplicates, std::vector<ScanItem>{pathItem(home + "/d", C::duplicates)}));
  scanners.push_back(std::make_unique<FixedScanner>(C::logs, std::vector<ScanItem>{pathItem(home + "/l", C::logs)}));
  scanners.push_back(std::make_unique<FixedScanner>(C::xcode, std::vector<ScanItem>{}, /*throws=*/true));
  std::mutex m;
  std::multiset<CleanCategory> statuses;
  std::atomic<int> progressCalls{0};
  const ScanEngine engine(h.paths(), AppConfig{});
  const auto results = engine.run(
      std::move(scanners), nullptr, [&](CleanCategory, const std::string&) { ++progressCalls; },
      [&](CleanCategory c) {
        std::lock_guard g(m);
        statuses.insert(c);
      });
  ASSERT_EQ(results.size(), 3u);
  EXPECT_EQ(idsByCategory(results), (std::map<CleanCategory, std::vector<std::string>>{{C::logs, {home + "/l"}},
                                                                                     {C::duplicates, {home + "/d"}}}));
  EXPECT_EQ(results[1].category, C::xcode);  // the broken scanner's result is empty, in its place
  EXPECT_FALSE(results[1].error);
  EXPECT_EQ(statuses, (std::multiset<CleanCategory>{C::logs, C::xcode, C::duplicates}));
  // 600 reports from three threads in a few milliseconds: the shared 0.09 s throttle lets through
  // only a handful (under ThreadSanitizer this also checks its locking).
  EXPECT_GE(progressCalls.load(), 1);
  EXPECT_LT(progressCalls.load(), 20);
}

TEST(ScanEngine, CancelledScannersReturnWhatTheyHave) {
  ScratchHome h;
  std::vector<std::unique_ptr<JunkScanner>> scanners;
  scanners.push_back(std::make_unique<FixedScanner>(
      CleanCategory::logs, std::vector<ScanItem>{pathItem(h.home().string() + "/l", CleanCategory::logs)}));
  const auto results = ScanEngine(h.paths(), AppConfig{}).run(std::move(scanners), [] { return true; });
  ASSERT_EQ(results.size(), 1u);
  EXPECT_TRUE(results[0].items.empty());
}

TEST(ScanEngine, RealScannersOnAnEmptyHome) {
  ScratchHome h;
  const ScanEngine engine(h.paths(), AppConfig{});
  EXPECT_TRUE(engine.scan({}).empty());
  std::set<CleanCategory> all(allCategories().begin(), allCategories().end());
  const auto results = engine.scan(all);
  // One result per category that has a scanner, none for the others, all empty here, in order.
  ASSERT_EQ(results.size(), ScannerRegistry::scannable().size());
  for (size_t i = 0; i < results.size(); ++i) {
    EXPECT_TRUE(results[i].items.empty());
    EXPECT_TRUE(i == 0 || position(results[i - 1].category) < position(results[i].category));
  }
  EXPECT_EQ(ScannerRegistry::scanners({CleanCategory::largeOldFiles, CleanCategory::duplicates}).size(), 0u);
}

TEST(ScanEngineThrottle, AdmitsOneEventPerInterval) {
  using Clock = Throttle::Clock;
  Clock::time_point now{};
  Throttle throttle(0.09, [&] { return now; });
  const struct Case {
    double at;
    bool admitted;
  } cases[] = {{0.0, true}, {0.0899, false}, {0.09, true}, {0.10, false}, {0.2, true}};
  for (const auto& c : cases) {
    now = Clock::time_point{} + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(c.at));
    EXPECT_EQ(throttle.allow(), c.admitted) << c.at;
  }
}

TEST(ScanEngineContext, AgesAndDays) {
  ScanContext context{Paths("/h"), AppConfig{}, Dates::fromUnixSeconds(1'000'000)};
  context.config.minItemAgeHours = 1;
  const struct Case {
    std::optional<int64_t> modifiedSecondsAgo;
    bool oldEnough;
  } cases[] = {{std::nullopt, true}, {3600, true}, {3599, false}, {0, false}, {-60, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.modifiedSecondsAgo ? *c.modifiedSecondsAgo : -1);
    std::optional<Date> modified;
    if (c.modifiedSecondsAgo) modified = context.now - std::chrono::seconds(*c.modifiedSecondsAgo);
    EXPECT_EQ(context.oldEnough(modified), c.oldEnough);
  }
  EXPECT_EQ(context.daysAgo(2), Dates::fromUnixSeconds(1'000'000 - 172800));
}

}  // namespace
}  // namespace kestrel
