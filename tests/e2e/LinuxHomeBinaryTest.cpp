// End to end on the Linux table: the freedesktop Trash round trip and the XDG settings folder.
#include <gtest/gtest.h>

#include "tests/e2e/RunAgent.h"

namespace kestrel::test {
namespace {

namespace fs = std::filesystem;

TEST(LinuxHomeBinary, TrashedItemIsOfferedAgainAndLeavesWithItsInfoFile) {
  ScratchHome h;
  h.oldFolder(".cache/com.example.app");
  h.text(".config/orvo-kestrel/config.json", R"({"disposalOverrides": {"userCaches": "trash"}})");

  const auto clean = runAgentLinux(h, {"clean", "--category", "userCaches"});
  ASSERT_EQ(clean.status, 0) << clean.err;
  const fs::path trash = h.path(".local/share/Trash");
  EXPECT_FALSE(fs::exists(h.path(".cache/com.example.app")));
  ASSERT_TRUE(fs::exists(trash / "files/com.example.app/blob"));
  ASSERT_TRUE(fs::exists(trash / "info/com.example.app.trashinfo"));
  EXPECT_TRUE(fs::exists(h.path(".local/state/orvo-kestrel/audit.jsonl")));

  EXPECT_NE(runAgentLinux(h, {"scan", "--json"}).out.find("Trash\\/files\\/com.example.app"), std::string::npos);

  const auto empty = runAgentLinux(h, {"clean", "--category", "trash", "--max-risk", "review"});
  ASSERT_EQ(empty.status, 0) << empty.err;
  EXPECT_FALSE(fs::exists(trash / "files/com.example.app"));
  EXPECT_FALSE(fs::exists(trash / "info/com.example.app.trashinfo"));
  EXPECT_EQ(readText(trash / "directorysizes").find("com.example.app"), std::string::npos);
  EXPECT_FALSE(fs::exists(h.path("Library"))) << "a Linux home gets no ~/Library";
}

TEST(LinuxHomeBinary, SettingsComeFromXdgConfigHome) {
  // A relative XDG_CONFIG_HOME is ignored by Paths (its own test); here an absolute one is read.
  ScratchHome h;
  h.oldFolder(".cache/keep");
  const fs::path elsewhere = h.outside("cfg");
  h.text("../outside/cfg/orvo-kestrel/config.json",
         R"({"protectedPaths": [")" + h.path(".cache/keep").string() + R"("]})");
  const auto scan = runAgentLinux(h, {"scan", "--json"}, {"XDG_CONFIG_HOME=" + elsewhere.string()});
  ASSERT_EQ(scan.status, 0) << scan.err;
  EXPECT_EQ(scan.out.find("\\/.cache\\/keep"), std::string::npos) << scan.out;
  // Without it ~/.config holds no settings, and the same cache is offered.
  EXPECT_NE(runAgentLinux(h, {"scan", "--json"}).out.find("\\/.cache\\/keep"), std::string::npos);
}

}  // namespace
}  // namespace kestrel::test
