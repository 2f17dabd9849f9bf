// End to end: what the user protected is never touched through the binary, whatever their home
// and settings look like (each reproduces a careless setup).
#include "tests/e2e/RunAgent.h"

#include "core/system/fs/StoreFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <functional>

namespace kestrel::test {
namespace {

const std::string kSupport = "Library/Application Support/orvo Kestrel/";
const std::string kQuarantineCaches = R"({"disposalOverrides":{"userCaches":"quarantine"}})";

TEST(ProtectionBinary, WhatTheUserProtectedIsNeverTouched) {
  const struct Case {
    const char* name;
    // Builds the home; returns the HOME to run with (empty: the scratch home itself).
    std::function<std::string(ScratchHome&)> setup;
    std::vector<std::string> args;
    std::string out;
    bool kept;  // whether the old cache "com.app" is still there afterwards
  } cases[] = {
      {"a settings file that is a link keeps its protected paths",
       [](ScratchHome& h) {
         StoreFile::writeAtomically(R"({"protectedPaths":["~/Library/Caches/com.app"]})",
                                    h.outside("dotfiles") / "config.json");
         h.link(kSupport + "config.json", h.outside("dotfiles") / "config.json");
         return std::string();
       },
       {"clean", "--category", "userCaches"}, "Nothing to clean\n", true},
      {"a relative protected path protects what it names and is pointed out",
       [](ScratchHome& h) {
         h.text(kSupport + "config.json", R"({"protectedPaths":["Library/Caches/com.app"]})");
         return std::string();
       },
       {"clean", "--category", "userCaches"},
       "Protected path Library/Caches/com.app is not an absolute path or ~ path; it may not protect what you "
       "meant.\nNothing to clean\n",
       true},
      {"a home reached through two links cleans",
       [](ScratchHome& h) {
         fs::create_symlink(h.root(), h.outside("") / "top link");
         fs::create_symlink(h.outside("") / "top link" / "home", h.root() / "second link");
         return (h.root() / "second link").string();
       },
       {"clean", "--category", "userCaches"}, "Freed 201 KB\n", false},
      {"a home that is a link purges its quarantine",
       [](ScratchHome& h) {
         h.text(kSupport + "config.json", kQuarantineCaches);
         fs::create_symlink(h.home(), h.root() / "home link");
         const std::string linked = (h.root() / "home link").string();
         EXPECT_EQ(runAgentAt(linked, {"clean", "--category", "userCaches"}).out, "201 KB to quarantine\n");
         const std::string list = runAgentAt(linked, {"quarantine", "list"}).out;
         h.text("session-id", list.substr(0, list.find('\t')));
         return linked;
       },
       {"quarantine", "purge", "@session"}, "Purged.\n", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchHome h;
    h.oldFolder("Library/Caches/com.app");
    std::string home = c.setup(h);
    if (home.empty()) home = h.home().string();
    std::vector<std::string> args = c.args;
    for (auto& a : args)  // "@session": the id the setup found
      if (a == "@session") a = readText(h.path("session-id"));
    const auto r = runAgentAt(home, args);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, c.out) << r.err;
    EXPECT_EQ(fs::exists(h.path("Library/Caches/com.app/blob")), c.kept);
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(h.paths().quarantineDir(), ec))
      EXPECT_EQ(e.path().filename().string().front(), '.') << "a session is left: " << e.path();
  }
}

TEST(ProtectionBinary, RestoreFollowsAParentThatBecameALinkOnlyWhereItMay) {
  for (const bool protectedTarget : {false, true}) {
    SCOPED_TRACE(protectedTarget ? "link into protected data" : "link to the user's folder elsewhere");
    ScratchHome h;
    h.oldFolder("Library/Caches/com.app");
    h.text(kSupport + "config.json", kQuarantineCaches);
    ASSERT_EQ(runAgentBinary(h, {"clean", "--category", "userCaches"}).out, "201 KB to quarantine\n");
    // The user moves the cache folder to another disk and leaves a link behind.
    const fs::path moved = protectedTarget ? h.path(".ssh/caches") : h.outside("disk") / "caches";
    fs::create_directories(moved.parent_path());
    fs::rename(h.path("Library/Caches"), moved);
    h.link("Library/Caches", moved);
    const std::string list = runAgentBinary(h, {"quarantine", "list"}).out;
    const auto restore = runAgentBinary(h, {"quarantine", "restore", list.substr(0, list.find('\t'))});
    EXPECT_EQ(restore.status, 0);
    if (protectedTarget) {
      EXPECT_NE(restore.out.find("is a link that may not be followed"), std::string::npos) << restore.out;
      EXPECT_FALSE(fs::exists(moved / "com.app"));
    } else {
      EXPECT_EQ(restore.out, "Restored.\n");
      EXPECT_EQ(fs::file_size(moved / "com.app/blob"), 200000u);
    }
  }
}

TEST(ProtectionBinary, DamagedSettingsStopEveryRemoval) {
  ScratchHome h;
  h.oldFolder("Library/Caches/com.app");
  const fs::path config = h.path(kSupport + "config.json");
  const std::string message = "Settings file " + config.string() + " is damaged (";
  const std::function<void()> damages[] = {
      [&] { h.text(kSupport + "config.json", "{\"protectedPaths\": ["); },
      [&] { h.text(kSupport + "config.json", R"({"logAgeDays":"3"})"); },
      [&] { fs::create_symlink(h.outside("") / "gone.json", config); },
      [&] { ASSERT_EQ(::mkfifo(config.c_str(), 0600), 0); },
  };
  for (size_t i = 0; i < std::size(damages); ++i) {
    SCOPED_TRACE(i);
    fs::remove(config);
    damages[i]();
    const auto started = std::chrono::steady_clock::now();
    const auto clean = runAgentBinary(h, {"clean", "--category", "userCaches"}, true, 20);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    EXPECT_EQ(clean.status, 1);
    EXPECT_EQ(clean.out.rfind(message, 0), 0u) << clean.out;
    EXPECT_NE(clean.out.find("); nothing was removed. Fix it or delete it.\n"), std::string::npos);
    EXPECT_TRUE(fs::exists(h.path("Library/Caches/com.app/blob")));
    // A dry run removes nothing anyway: it says so and shows what the defaults would do.
    const auto dry = runAgentBinary(h, {"clean", "--category", "userCaches", "--dry-run"}, true, 20);
    EXPECT_EQ(dry.status, 0);
    EXPECT_EQ(dry.out.rfind(message, 0), 0u);
    EXPECT_NE(dry.out.find("\nWould free 201 KB\n"), std::string::npos) << dry.out;
  }
  fs::remove(config);
  EXPECT_EQ(runAgentBinary(h, {"clean", "--category", "userCaches"}).out, "Freed 201 KB\n");
}

}  // namespace
}  // namespace kestrel::test
