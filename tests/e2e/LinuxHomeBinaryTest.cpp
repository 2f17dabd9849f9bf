// End to end on the Linux table: the freedesktop Trash round trip and the XDG settings folder.
#include <gtest/gtest.h>

#include "core/system/Shell.h"
#include "tests/e2e/RunAgent.h"

namespace kestrel::test {
namespace {

namespace fs = std::filesystem;

void oldCache(ScratchHome& h, const std::string& rel) {
  h.file(rel + "/cache.db", 200000);
  h.age(rel + "/cache.db", 3);
  h.age(rel, 3);
}

TEST(LinuxHomeBinary, TrashedItemIsOfferedAgainAndLeavesWithItsInfoFile) {
  ScratchHome h;
  oldCache(h, ".cache/com.example.app");
  h.text(".config/orvo-kestrel/config.json", R"({"disposalOverrides": {"userCaches": "trash"}})");

  const auto clean = runAgentLinux(h, {"clean", "--category", "userCaches"});
  ASSERT_EQ(clean.status, 0) << clean.err;
  const fs::path trash = h.path(".local/share/Trash");
  EXPECT_FALSE(fs::exists(h.path(".cache/com.example.app")));
  ASSERT_TRUE(fs::exists(trash / "files/com.example.app/cache.db"));
  const std::string info = readText(trash / "info/com.example.app.trashinfo");
  EXPECT_EQ(info.rfind("[Trash Info]\nPath=", 0), 0u) << info;
  EXPECT_NE(info.find("/.cache/com.example.app\nDeletionDate="), std::string::npos) << info;
  EXPECT_NE(readText(trash / "directorysizes").find(" com.example.app\n"), std::string::npos);
  EXPECT_TRUE(fs::exists(h.path(".local/state/orvo-kestrel/audit.jsonl")));
  EXPECT_FALSE(fs::exists(h.path("Library"))) << "a Linux home gets no ~/Library";

  const auto scan = runAgentLinux(h, {"scan", "--json"});
  ASSERT_EQ(scan.status, 0);
  EXPECT_NE(scan.out.find("\"category\" : \"trash\""), std::string::npos) << scan.out;
  EXPECT_NE(scan.out.find("Trash\\/files\\/com.example.app"), std::string::npos) << scan.out;

  const auto empty = runAgentLinux(h, {"clean", "--category", "trash", "--max-risk", "review"});
  ASSERT_EQ(empty.status, 0) << empty.err;
  EXPECT_FALSE(fs::exists(trash / "files/com.example.app"));
  EXPECT_FALSE(fs::exists(trash / "info/com.example.app.trashinfo"));
  EXPECT_EQ(readText(trash / "directorysizes").find("com.example.app"), std::string::npos);
}

TEST(LinuxHomeBinary, LinkedCacheFolderIsCleanedWhereItLivesUnlessItLeadsIntoProtectedData) {
  struct Case {
    const char* name;
    std::string target;  // where ~/.cache leads, relative to the scratch folder
    bool cleaned;
  };
  const Case cases[] = {{"a bigger disk", "outside/big disk", true},
                        {"the user's keys", "home/.ssh", false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchHome h;
    const fs::path target = h.root() / c.target;
    fs::create_directories(target);
    h.link(".cache", target);
    oldCache(h, ".cache/com.example.app");
    const auto clean = runAgentLinux(h, {"clean", "--category", "userCaches"});
    ASSERT_EQ(clean.status, 0) << clean.err;
    EXPECT_EQ(clean.out, c.cleaned ? "Freed 201 KB\n" : "Nothing to clean\n");
    EXPECT_EQ(fs::exists(target / "com.example.app"), !c.cleaned);
    EXPECT_TRUE(fs::is_symlink(h.path(".cache")));
  }
}

TEST(LinuxHomeBinary, SyntheticLinuxHomeIsScannedWhereItsJunkIs) {
  const std::string makeHome = KESTREL_SOURCE_DIR "/../shared/tools/make-home";
  if (!fs::exists(makeHome)) GTEST_SKIP() << "the synthetic-home tool is not beside the checkout";
  ScratchHome h;
  const auto made = Shell::run(makeHome,
                               {"--root", h.home().string(), "--profile", "linux", "--scale",
                                "0.05", "--big", "0.01", "--small-bytes", "0.1", "--quiet"},
                               120);
  ASSERT_EQ(made.status, 0) << made.stderr;
  const auto scan = runAgentLinux(h, {"scan", "--json"});
  ASSERT_EQ(scan.status, 0) << scan.err;
  for (const char* category : {"userCaches", "logs", "crashReports", "trash", "packageCaches"})
    EXPECT_NE(scan.out.find("\"category\" : \"" + std::string(category) + "\""), std::string::npos)
        << category;
  // Never the portal's mount, the user's keys or an app's settings.
  for (const char* never : {"\\/.cache\\/doc", "\\/.ssh", "\\/.gnupg", "Local Storage"})
    EXPECT_EQ(scan.out.find(never), std::string::npos) << never;
  EXPECT_FALSE(fs::exists(h.path("Library"))) << "a Linux home gets no ~/Library";
}

TEST(LinuxHomeBinary, SettingsComeFromAnAbsoluteXdgConfigHomeOnly) {
  ScratchHome h;
  oldCache(h, ".cache/keep");
  const std::string protect = R"({"protectedPaths": [")" + h.path(".cache/keep").string() + R"("]})";
  const fs::path elsewhere = h.outside("cfg");
  h.text("../outside/cfg/orvo-kestrel/config.json", protect);
  struct Case {
    std::string env;
    bool listed;
  };
  const Case cases[] = {
      {"XDG_CONFIG_HOME=" + elsewhere.string(), false},  // read there: protected
      {"XDG_CONFIG_HOME=outside/cfg", true},             // relative: ignored, ~/.config has none
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.env);
    const auto scan = runAgentLinux(h, {"scan", "--json"}, {c.env});
    ASSERT_EQ(scan.status, 0) << scan.err;
    EXPECT_EQ(scan.out.find("\\/.cache\\/keep") != std::string::npos, c.listed) << scan.out;
  }
}

}  // namespace
}  // namespace kestrel::test
