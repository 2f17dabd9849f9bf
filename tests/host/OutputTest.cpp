// The texts every kestrel command shares: how long ago, what happens to an item, paths with "~",
// columns cut by characters, and the JSON envelope.
#include <gtest/gtest.h>

#include "host/Output.h"

namespace kestrel::host {
namespace {

const Date kNow = Dates::fromUnixSeconds(1795000000);

TEST(HostOutput, AgoFateTildeAndColumns) {
  const struct {
    int64_t secondsAgo;
    const char* text;
  } ages[] = {{5, "just now"}, {60, "1 minute ago"}, {7200, "2 hours ago"}, {86400 * 3, "3 days ago"},
              {86400 * 95, "3 months ago"}, {86400 * 800, "2 years ago"}};
  for (const auto& a : ages) EXPECT_EQ(ago(Dates::plusSeconds(kNow, -a.secondsAgo), kNow), a.text);

  AppConfig config;
  config.quarantineRetentionDays = 9;
  config.disposalOverrides["logs"] = Disposal::trash;
  const struct {
    ItemTarget target;
    CleanCategory category;
    const char* name;
    const char* text;
  } fates[] = {
      {ItemTarget::forPath("/h/x"), CleanCategory::oldDownloads, "quarantine", "to quarantine, restorable for 9 days"},
      {ItemTarget::forPath("/h/x"), CleanCategory::logs, "trash", "to the Trash"},
      {ItemTarget::forPath("/h/x"), CleanCategory::userCaches, "delete", "deleted for good"},
      {ItemTarget::forAdminPath("/var/x"), CleanCategory::logs, "delete", "deleted for good (needs administrator rights)"},
      {ItemTarget::forCommand({"docker", {"image", "prune", "-f"}}), CleanCategory::docker, "command",
       "runs docker image prune -f"},
  };
  for (const auto& f : fates) {
    ScanItem item;
    item.target = f.target;
    item.category = f.category;
    const Fate fate = fateOf(item, config);
    EXPECT_EQ(fate.name, f.name);
    EXPECT_EQ(fate.text, f.text);
  }

  EXPECT_EQ(tilde("/home/me/Downloads/a", "/home/me"), "~/Downloads/a");
  EXPECT_EQ(tilde("/home/meow/a", "/home/me"), "/home/meow/a");
  EXPECT_EQ(fit("été", 5), "été  ");
  EXPECT_EQ(fit("Downloads", 4, true), "Down");
  EXPECT_EQ(paint("x", Color::red, false), "x");
  const Json e = envelope("scan", Json{{"total", 1}});
  EXPECT_EQ(e["schema"], "kestrel.scan/1");
  EXPECT_TRUE(e["items"].is_array());
}

}  // namespace
}  // namespace kestrel::host
