// Paths: derived locations, standardisation, legacy migration and the support folders.
#include "core/system/Paths.h"

#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

using test::ScratchHome;

TEST(Paths, DerivesEveryLocationFromHome) {
  Paths p("/Users/me");
  struct Case {
    fs::path actual;
    const char* expected;
  };
  const Case cases[] = {
      {p.library(), "/Users/me/Library"},
      {p.lib("Logs/DiagnosticReports"), "/Users/me/Library/Logs/DiagnosticReports"},
      {p.supportDir(), "/Users/me/Library/Application Support/orvo Kestrel"},
      {p.quarantineDir(), "/Users/me/Library/Application Support/orvo Kestrel/Quarantine"},
      {p.configFile(), "/Users/me/Library/Application Support/orvo Kestrel/config.json"},
      {p.rulesFile(), "/Users/me/Library/Application Support/orvo Kestrel/rules.json"},
      {p.lockFile(), "/Users/me/Library/Application Support/orvo Kestrel/agent.lock"},
      {p.auditFile(), "/Users/me/Library/Application Support/orvo Kestrel/audit.jsonl"},
      {p.agentLogFile(), "/Users/me/Library/Logs/orvo Kestrel/agent.log"},
      {p.launchAgentPlist(), "/Users/me/Library/LaunchAgents/com.orvo.kestrel.agent.plist"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.actual.string(), c.expected);
}

TEST(Paths, StandardisesHome) {
  const char* forms[] = {"/Users/me", "/Users/me/", "/Users//me", "/Users/x/../me/", "/Users/./me/."};
  for (const char* f : forms) {
    SCOPED_TRACE(f);
    EXPECT_EQ(Paths(f).home().string(), "/Users/me");
    EXPECT_EQ(Paths(f).configFile(), Paths("/Users/me").configFile());
  }
  EXPECT_EQ(standardizedPath("/..").string(), "/");
  EXPECT_EQ(standardizedPath("//").string(), "/");
}

TEST(Paths, FromEnvironmentUsesHomeThenPasswordDatabase) {
  {
    test::ScopedEnv env("HOME", "/tmp/some home/");
    EXPECT_EQ(Paths::fromEnvironment().home().string(), "/tmp/some home");
  }
  test::ScopedEnv env("HOME", "relative/path");
  EXPECT_TRUE(Paths::fromEnvironment().home().is_absolute());
}

TEST(Paths, UserDirsFileNamesTheLocalisedDownloadFolder) {
  const fs::path home = "/home/me";
  struct Case {
    const char* text;
    std::optional<const char*> expected;
  };
  const Case cases[] = {
      {"XDG_DOWNLOAD_DIR=\"$HOME/Téléchargements\"\n", "/home/me/Téléchargements"},
      {"# comment\n  XDG_DOWNLOAD_DIR=\"/srv/dl\"  \r\n", "/srv/dl"},
      {"XDG_DOWNLOAD_DIR=\"$HOME/a \\\"b\\\"\"", "/home/me/a \"b\""},
      {"XDG_DOWNLOAD_DIR=\"$HOME/one\"\nXDG_DOWNLOAD_DIR=\"$HOME/two\"\n", "/home/me/two"},
      {"XDG_DOWNLOAD_DIR=\"$HOME/\"\n", std::nullopt},  // disabled
      {"XDG_DOWNLOAD_DIR=relative\n", std::nullopt},
      {"XDG_DOWNLOAD_DIR=\"relative\"\n", std::nullopt},
      {"XDG_DOWNLOAD_DIRX=\"$HOME/x\"\nXDG_DESKTOP_DIR=\"$HOME/d\"\n", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const auto got = userDirFromText(c.text, "XDG_DOWNLOAD_DIR", home);
    ASSERT_EQ(got.has_value(), c.expected.has_value());
    if (got) {
      EXPECT_EQ(got->string(), *c.expected);
    }
  }
}

TEST(Paths, LinuxHomeTakesAbsoluteXdgFoldersAndItsUserDirs) {
  ScratchHome h;
  h.text("cfg/user-dirs.dirs", "XDG_DOWNLOAD_DIR=\"$HOME/Dl\"\n");
  const Paths linux(h.home(), Layout::linux, {h.path("cfg"), "relative/cache", "", h.path("st/")});
  EXPECT_EQ(linux.configHome(), h.path("cfg"));
  EXPECT_EQ(linux.cacheHome(), h.path(".cache"));
  EXPECT_EQ(linux.dataHome(), h.path(".local/share"));
  EXPECT_EQ(linux.stateHome(), h.path("st"));
  EXPECT_EQ(linux.downloadsDir(), h.path("Dl"));
  EXPECT_EQ(linux.desktopDir(), h.path("Desktop"));
  EXPECT_EQ(linux.homeTrashDir(), h.path(".local/share/Trash"));
  const Paths mac(h.home(), Layout::macos, {h.path("cfg"), {}, {}, {}});
  EXPECT_EQ(mac.downloadsDir(), h.path("Downloads"));
  EXPECT_EQ(mac.homeTrashDir(), h.path(".Trash"));
}

TEST(Paths, SupportFoldersMigrateTheLegacyFolderOnlyWhenAloneAndReportErrors) {
  {
    ScratchHome h;
    h.text("Library/Application Support/Halcyra/config.json", "{}");
    h.paths().ensureSupportDirs();
    EXPECT_FALSE(fs::exists(h.path("Library/Application Support/Halcyra")));
    EXPECT_EQ(test::readText(h.paths().configFile()), "{}");
    EXPECT_TRUE(fs::is_directory(h.paths().quarantineDir()));
    EXPECT_TRUE(fs::is_directory(h.paths().agentLogFile().parent_path()));
    h.paths().ensureSupportDirs();  // a second call succeeds too
  }
  {
    ScratchHome h;
    h.text("Library/Application Support/Halcyra/config.json", "old");
    h.text("Library/Application Support/orvo Kestrel/config.json", "new");
    h.paths().ensureSupportDirs();
    EXPECT_EQ(test::readText(h.path("Library/Application Support/Halcyra/config.json")), "old");
    EXPECT_EQ(test::readText(h.paths().configFile()), "new");
  }
  ScratchHome h;
  h.file("Library/Application Support/orvo Kestrel", 3);  // a file where a folder must go
  EXPECT_THROW(h.paths().ensureSupportDirs(), fs::filesystem_error);
}

}  // namespace
}  // namespace kestrel
