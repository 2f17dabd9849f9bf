// Paths: derived locations, standardisation, legacy migration and the support folders.
#include "core/system/Environment.h"
#include "core/system/Paths.h"

#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

using test::ScratchHome;

TEST(Paths, DerivesEveryLocationFromHomeOnBothLayouts) {
  const Paths mac("/Users/me", Layout::macos);
  const Paths linux("/home/me", Layout::linux, {"/home/me/cfg", {}, {}, {}});
  const struct Case {
    fs::path actual;
    const char* expected;
  } cases[] = {
      {mac.configFile(), "/Users/me/Library/Application Support/orvo Kestrel/config.json"},
      {mac.agentLogFile(), "/Users/me/Library/Logs/orvo Kestrel/agent.log"},
      {linux.configFile(), "/home/me/cfg/orvo-kestrel/config.json"},
      {linux.auditFile(), "/home/me/.local/state/orvo-kestrel/audit.jsonl"},
      {linux.quarantineDir(), "/home/me/.local/share/orvo-kestrel/Quarantine"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.actual.string(), c.expected);
}

TEST(Paths, LinuxMovesAnEarlierBuildsSupportFolderOnceAndNeverMerges) {
  ScratchHome h;
  const Paths p = h.linuxPaths();
  const std::string old = "Library/Application Support/orvo Kestrel/";
  h.text(old + "config.json", "{\"a\":1}");
  h.text(old + "audit.jsonl", "line\n");
  h.text(old + "Quarantine/s1/manifest.json", "{}");
  h.text(".local/state/orvo-kestrel/space-history.json", "[]");  // the state folder exists: no merge
  p.ensureSupportDirs();
  EXPECT_EQ(test::readText(p.configFile()), "{\"a\":1}");
  EXPECT_FALSE(fs::exists(p.auditFile()));
  EXPECT_TRUE(fs::exists(h.path(old + "audit.jsonl")));
  EXPECT_TRUE(fs::exists(p.quarantineSessionDir("s1") / "manifest.json"));
  // Once: a later config file in the old folder stays there.
  h.text(old + "rules.json", "[]");
  p.ensureSupportDirs();
  EXPECT_FALSE(fs::exists(p.rulesFile()));
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

TEST(Environment, HomeThenPasswordDatabaseAndTheKnobsOfTests) {
  {
    test::ScopedEnv env("HOME", "/tmp/some home/");
    test::ScopedEnv layout("KESTREL_LAYOUT", "linux");
    test::ScopedEnv root("KESTREL_SYSTEM_ROOT", "/tmp/sys");
    test::ScopedEnv volumes("KESTREL_VOLUMES_ROOT", "relative/ignored");
    const Paths p = Environment::paths();
    EXPECT_EQ(p.home().string(), "/tmp/some home");
    EXPECT_EQ(p.layout(), Layout::linux);
    EXPECT_EQ(p.systemRoot(), "/tmp/sys");
    EXPECT_EQ(p.volumesRoot(), "/");
  }
  test::ScopedEnv env("HOME", "relative/path");
  EXPECT_TRUE(Environment::paths().home().is_absolute());
  EXPECT_EQ(Environment::paths().layout(), Layout::macos);  // as every test process sets it
  const struct Case {
    const char* text;
    double seconds;
  } cases[] = {{"0.2", 0.2}, {"0", 5.0}, {"-1", 5.0}, {"5s", 5.0}, {"", 5.0}};
  for (const auto& c : cases) {
    test::ScopedEnv debounce("KESTREL_SHRED_DEBOUNCE_SECONDS", c.text);
    EXPECT_EQ(Environment::services().shredderDebounce.count(), c.seconds) << c.text;
  }
  EXPECT_TRUE(Paths("/home/me").volumesRoot().empty()) << "no other volume unless asked for";
}

TEST(Paths, UserDirsFileNamesTheLocalisedDownloadFolder) {
  const fs::path home = "/home/me";
  const struct Case {
    const char* text;
    std::optional<const char*> expected;
  } cases[] = {
      {"XDG_DOWNLOAD_DIR=\"$HOME/Téléchargements\"\n", "/home/me/Téléchargements"},
      {"# comment\n  XDG_DOWNLOAD_DIR=\"/srv/dl\"  \r\n", "/srv/dl"},
      {"XDG_DOWNLOAD_DIR=\"$HOME/a \\\"b\\\"\"", "/home/me/a \"b\""},
      {"XDG_DOWNLOAD_DIR=\"$HOME/\"\n", std::nullopt},  // disabled
      {"XDG_DOWNLOAD_DIR=relative\n", std::nullopt},
      {"XDG_DOWNLOAD_DIRX=\"$HOME/x\"\nXDG_DESKTOP_DIR=\"$HOME/d\"\n", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const auto got = userDirFromText(c.text, "XDG_DOWNLOAD_DIR", home);
    EXPECT_EQ(got ? std::optional(got->string()) : std::nullopt, c.expected ? std::optional(std::string(*c.expected)) : std::nullopt);
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
  // The folders removals happen in stay inside the home: outside it the default is used, through a
  // link the real folder.
  const fs::path realShare = h.folder("disk/share");
  h.link("share-link", realShare);
  const Paths linked(h.home(), Layout::linux, {{}, h.outside("cache"), h.path("share-link"), {}});
  EXPECT_EQ(linked.cacheHome(), fs::canonical(h.home()) / ".cache");
  EXPECT_EQ(linked.dataHome(), fs::canonical(realShare));
  EXPECT_EQ(linked.homeTrashDir(), fs::canonical(realShare) / "Trash");
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
