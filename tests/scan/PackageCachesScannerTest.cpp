// Package-cache scanner: the fixed table, the 1 MiB floor, the age test, risks and links.
#include "core/scan/scanners/Scanners.h"

#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

#include <set>

namespace kestrel {
namespace {

using test::ScratchHome;

constexpr int64_t kMiB = 1048576;

std::vector<ScanItem> scanCaches(const ScratchHome& h, Date now, std::function<bool()> cancel = nullptr) {
  ScanContext context{h.paths(), AppConfig{}, now};
  if (cancel) context.isCancelled = std::move(cancel);
  return PackageCachesScanner().scan(context);
}

void cache(ScratchHome& h, const std::string& rel, int64_t bytes, double ageDays, Date now) {
  h.file(rel + "/blob", bytes);
  h.age(rel + "/blob", ageDays, now);
  h.age(rel, ageDays, now);
}

TEST(PackageCachesScanner, FloorAgeAndRisk) {
  const struct Case {
    const char* rel;
    int64_t bytes;
    double ageDays;
    bool listed;
    const char* title;
    Risk risk;
  } cases[] = {
      {".npm/_cacache", kMiB, 1, true, "npm cache", Risk::safe},
      {".npm/_cacache", kMiB - 4096, 1, false, "npm cache", Risk::safe},  // one block under the floor
      {"Library/Caches/go-build", 2 * kMiB, 2.0 / 1440, false, "Go build cache", Risk::safe},
      {"Library/Caches/go-build", 2 * kMiB, 61.0 / 1440, true, "Go build cache", Risk::safe},
      {".gradle/wrapper/dists", 2 * kMiB, 5, true, "Gradle wrapper distributions", Risk::review},
      {".m2/repository", 2 * kMiB, 5, true, "Maven repository", Risk::review},
      {".cache/huggingface", 2 * kMiB, 5, true, "Hugging Face models/datasets", Risk::caution},
      {"Library/Caches/Homebrew", 2 * kMiB, 5, true, "Homebrew downloads", Risk::safe},
      {".cache/other-tool", 2 * kMiB, 5, false, "", Risk::safe},  // not in the table
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.rel) + " " + std::to_string(c.bytes));
    ScratchHome h;
    const Date now = test::kTestNow;
    cache(h, c.rel, c.bytes, c.ageDays, now);
    const auto items = scanCaches(h, now);
    ASSERT_EQ(items.size(), c.listed ? 1u : 0u);
    if (!c.listed) continue;
    const ScanItem& item = items[0];
    EXPECT_EQ(item.target, ItemTarget::forPath(h.path(c.rel).string()));
    EXPECT_EQ(item.title, c.title);
    EXPECT_EQ(item.risk, c.risk);
    EXPECT_EQ(item.size, c.bytes);
  }
}

TEST(PackageCachesScanner, BothPlacesOfOneToolAreOfferedLargestFirst) {
  ScratchHome h;
  const Date now = test::kTestNow;
  cache(h, ".cache/pip", 2 * kMiB, 3, now);
  cache(h, "Library/Caches/pip", 3 * kMiB, 3, now);
  cache(h, ".pnpm-store", 4 * kMiB, 3, now);
  const auto items = scanCaches(h, now);
  ASSERT_EQ(items.size(), 3u);
  EXPECT_EQ(items[0].title, "pnpm store");
  EXPECT_EQ(items[1].id, h.path("Library/Caches/pip").string());
  EXPECT_EQ(items[2].id, h.path(".cache/pip").string());
  EXPECT_EQ(items[1].title, "pip cache");
  EXPECT_EQ(items[2].title, "pip cache");
}

TEST(PackageCachesScanner, LinkedParentsOnlyWhereTheyMayOrWhenCancelled) {
  ScratchHome h;
  const Date now = test::kTestNow;
  EXPECT_TRUE(scanCaches(h, now).empty());
  // A linked parent folder of the user's is followed; a cache folder that is itself a link is not
  // (a link is never measured through), nor a parent that leads to someone else's folder.
  const fs::path dotCache = h.outside("dotcache");
  h.file("../outside/dotcache/huggingface/blob", 3 * kMiB);
  h.age("../outside/dotcache/huggingface", 3, now);
  h.file("../outside/gobuild/blob", 3 * kMiB);
  h.age("../outside/gobuild", 3, now);
  h.file("../outside/theirs/_cacache/blob", 3 * kMiB);
  h.age("../outside/theirs/_cacache", 3, now);
  h.link(".cache", dotCache);
  h.link("Library/Caches/go-build", h.root() / "outside/gobuild");
  h.link(".npm", h.outside("theirs"));
  const bool othersOwn = test::disown(h.outside("theirs"));
  cache(h, ".m2/repository", 2 * kMiB, 3, now);
  const auto items = scanCaches(h, now);
  std::set<std::string> titles;
  for (const auto& i : items) titles.insert(i.title);
  EXPECT_EQ(titles.count("Hugging Face models/datasets"), 1u);
  EXPECT_EQ(titles.count("Maven repository"), 1u);
  EXPECT_EQ(titles.count("Go build cache"), 0u);
  if (othersOwn) {
    EXPECT_EQ(items.size(), 2u);
  }
  int polls = 0;
  EXPECT_TRUE(scanCaches(h, now, [&] { return ++polls > 0; }).empty());
  EXPECT_GE(polls, 26);  // every entry still asks, none yields
}

}  // namespace
}  // namespace kestrel
