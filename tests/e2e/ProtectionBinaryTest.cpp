// End to end: what the user protected is never touched, whatever their home looks like, and no
// store or file-system oddity makes a command hang or act outside its tree.
#include "tests/e2e/RunAgent.h"

#include "core/store/JSONStore.h"
#include "core/system/StoreFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>

namespace kestrel::test {
namespace {

namespace fs = std::filesystem;

const std::string kSupport = "Library/Application Support/orvo Kestrel/";

bool listedByScan(const AgentRun& run, const fs::path& path) {
  const auto items = JsonText::parse(run.out);
  EXPECT_TRUE(items && items->is_array()) << run.out;
  if (!items) return false;
  for (const auto& item : *items)
    if (item.at("id") == path.string()) return true;
  return false;
}

TEST(ProtectionBinary, WhatTheUserProtectedIsNeverTouched) {
  struct Case {
    const char* name;
    // Builds the home; returns the HOME to run with (empty: the scratch home itself).
    std::function<std::string(ScratchHome&)> setup;
    std::vector<std::string> args;
    std::function<void(ScratchHome&, const AgentRun&)> check;
  };
  const std::string keep = "Library/Caches/keep";
  const Case cases[] = {
      {"a settings file that is a link keeps its protected paths",
       [&](ScratchHome& h) {
         h.oldFolder(keep);
         const fs::path real = h.outside("dotfiles") / "config.json";
         StoreFile::writeAtomically(R"({"protectedPaths":["~/Library/Caches/keep"]})", real);
         h.link(kSupport + "config.json", real);
         return std::string();
       },
       {"clean", "--category", "userCaches"},
       [&](ScratchHome& h, const AgentRun& r) {
         EXPECT_EQ(r.status, 0);
         EXPECT_EQ(r.out, "Nothing to clean\n");
         EXPECT_TRUE(fs::exists(h.path(keep + "/blob")));
       }},
      {"a huge minimum age means never",
       [&](ScratchHome& h) {
         h.oldFolder("Library/Caches/fresh");
         h.age("Library/Caches/fresh", 0);
         h.text(kSupport + "config.json", R"({"minItemAgeHours":3000000})");
         return std::string();
       },
       {"scan", "--json"},
       [&](ScratchHome& h, const AgentRun& r) {
         EXPECT_FALSE(listedByScan(r, h.path("Library/Caches/fresh"))) << r.out;
       }},
      {"a huge log age means never",
       [&](ScratchHome& h) {
         h.file("Library/Logs/app.log", 1000);
         h.age("Library/Logs/app.log", 2.0 / 24);
         h.text(kSupport + "config.json", R"({"logAgeDays":200000})");
         return std::string();
       },
       {"clean", "--category", "logs"},
       [&](ScratchHome& h, const AgentRun& r) {
         EXPECT_EQ(r.out, "Nothing to clean\n");
         EXPECT_TRUE(fs::exists(h.path("Library/Logs/app.log")));
       }},
      {"a huge download age means never",
       [&](ScratchHome& h) {
         h.file("Downloads/paper.pdf", 1000);
         h.age("Downloads/paper.pdf", 2.0 / 24);
         h.text(kSupport + "config.json", R"({"oldDownloadsDays":200000})");
         return std::string();
       },
       {"clean", "--category", "oldDownloads", "--max-risk", "review"},
       [&](ScratchHome& h, const AgentRun& r) {
         EXPECT_EQ(r.out, "Nothing to clean\n");
         EXPECT_TRUE(fs::exists(h.path("Downloads/paper.pdf")));
       }},
      {"a home that is a link finds what is there",
       [&](ScratchHome& h) {
         h.oldFolder("Library/Caches/com.app");
         fs::create_symlink(h.home(), h.root() / "home link");
         return (h.root() / "home link").string();
       },
       {"scan", "--json"},
       [&](ScratchHome& h, const AgentRun& r) {
         EXPECT_TRUE(listedByScan(r, h.path("Library/Caches/com.app"))) << r.out;
       }},
      {"a home that is a link purges its quarantine",
       [&](ScratchHome& h) {
         h.oldFolder("Library/Caches/com.app");
         h.text(kSupport + "config.json", R"({"disposalOverrides":{"userCaches":"quarantine"}})");
         fs::create_symlink(h.home(), h.root() / "home link");
         const std::string linked = (h.root() / "home link").string();
         EXPECT_EQ(runAgentAt(linked, {"clean", "--category", "userCaches"}).out,
                   "201 KB to quarantine\n");
         const std::string list = runAgentAt(linked, {"quarantine", "list"}).out;
         h.text("session-id", list.substr(0, list.find('\t')));
         return linked;
       },
       {"quarantine", "purge", "@session"},
       [&](ScratchHome& h, const AgentRun& r) {
         EXPECT_EQ(r.out, "Purged.\n") << r.err;
         for (const auto& e : fs::directory_iterator(h.paths().quarantineDir()))
           EXPECT_EQ(e.path().filename().string().front(), '.')
               << "a session is left: " << e.path();
       }},
      {"a home reached through two links cleans",
       [&](ScratchHome& h) {
         h.oldFolder("Library/Caches/com.app");
         fs::create_symlink(h.root(), h.outside("") / "top link");
         fs::create_symlink(h.outside("") / "top link" / "home", h.root() / "second link");
         return (h.root() / "second link").string();
       },
       {"clean", "--category", "userCaches"},
       [&](ScratchHome& h, const AgentRun& r) {
         EXPECT_EQ(r.out, "Freed 201 KB\n");
         EXPECT_FALSE(fs::exists(h.path("Library/Caches/com.app")));
       }},
      {"a linked cache folder on a bigger disk is cleaned where it lives",
       [&](ScratchHome& h) {
         const fs::path disk = h.outside("big disk");
         h.folder("Library");
         h.link("Library/Caches", disk);
         h.oldFolder("Library/Caches/com.app");
         return std::string();
       },
       {"clean", "--category", "userCaches"},
       [&](ScratchHome& h, const AgentRun& r) {
         EXPECT_EQ(r.out, "Freed 201 KB\n");
         EXPECT_FALSE(fs::exists(h.outside("big disk") / "com.app"));
         EXPECT_TRUE(fs::is_symlink(h.path("Library/Caches")));
       }},
      {"a linked cache folder leading into protected data is refused",
       [&](ScratchHome& h) {
         h.folder("Library");
         h.oldFolder(".ssh/keys");
         h.link("Library/Caches", h.path(".ssh"));
         return std::string();
       },
       {"clean", "--category", "userCaches"},
       [&](ScratchHome& h, const AgentRun& r) {
         EXPECT_EQ(r.out, "Nothing to clean\n");
         EXPECT_TRUE(fs::exists(h.path(".ssh/keys/blob")));
       }},
      {"a linked Downloads folder is measured for growth",
       [&](ScratchHome& h) {
         h.file("../outside/dl/video/part", 4096);
         h.link("Downloads", h.outside("dl"));
         return std::string();
       },
       {"growth", "--snapshot"},
       [&](ScratchHome& h, const AgentRun& r) {
         EXPECT_EQ(r.status, 0);
         const auto snapshots = JSONStore::loadJson(h.path(kSupport + "growth-snapshots.json"));
         ASSERT_TRUE(snapshots && snapshots->size() == 1);
         EXPECT_TRUE((*snapshots)[0].at("sizes").contains((h.path("Downloads") / "video").string()));
       }},
      {"an empty protected path protects everything",
       [&](ScratchHome& h) {
         h.oldFolder("Library/Caches/com.app");
         h.text(kSupport + "config.json", R"({"protectedPaths":[""]})");
         return std::string();
       },
       {"clean", "--category", "userCaches"},
       [&](ScratchHome& h, const AgentRun& r) {
         EXPECT_EQ(r.out, "Nothing to clean\n");
         EXPECT_TRUE(fs::exists(h.path("Library/Caches/com.app/blob")));
       }},
      {"a relative protected path protects what it names and is pointed out",
       [&](ScratchHome& h) {
         h.oldFolder(keep);
         h.text(kSupport + "config.json", R"({"protectedPaths":["Library/Caches/keep"]})");
         return std::string();
       },
       {"clean", "--category", "userCaches"},
       [&](ScratchHome& h, const AgentRun& r) {
         EXPECT_EQ(r.out,
                   "Protected path Library/Caches/keep is not an absolute path or ~ path; it may not protect what "
                   "you meant.\nNothing to clean\n");
         EXPECT_TRUE(fs::exists(h.path(keep + "/blob")));
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchHome h;
    std::string home = c.setup(h);
    if (home.empty()) home = h.home().string();
    std::vector<std::string> args = c.args;
    // "@session": the id the setup found, which is known only once it ran.
    for (auto& a : args)
      if (a == "@session") a = test::readText(h.path("session-id"));
    c.check(h, runAgentAt(home, args));
  }
}

TEST(ProtectionBinary, RestoreFollowsAParentThatBecameALinkOnlyWhereItMay) {
  for (const bool protectedTarget : {false, true}) {
    SCOPED_TRACE(protectedTarget ? "link into protected data" : "link to the user's folder elsewhere");
    ScratchHome h;
    h.oldFolder("Library/Caches/com.app");
    h.text(kSupport + "config.json", R"({"disposalOverrides":{"userCaches":"quarantine"}})");
    ASSERT_EQ(runAgentAt(h.home().string(), {"clean", "--category", "userCaches"}).out, "201 KB to quarantine\n");
    // The user moves the cache folder to another disk and leaves a link behind.
    const fs::path moved = protectedTarget ? h.path(".ssh/caches") : h.outside("disk") / "caches";
    fs::create_directories(moved.parent_path());
    fs::rename(h.path("Library/Caches"), moved);
    h.link("Library/Caches", moved);
    const auto list = runAgentAt(h.home().string(), {"quarantine", "list"});
    const std::string id = list.out.substr(0, list.out.find('\t'));
    const auto restore = runAgentAt(h.home().string(), {"quarantine", "restore", id});
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
  struct Case {
    const char* name;
    std::function<void()> damage;
  };
  const Case cases[] = {
      {"not JSON", [&] { h.text(kSupport + "config.json", "{\"protectedPaths\": ["); }},
      {"a wrong type", [&] { h.text(kSupport + "config.json", R"({"logAgeDays":"3"})"); }},
      {"a link that leads nowhere", [&] { fs::create_symlink(h.outside("") / "gone.json", config); }},
      {"a FIFO", [&] { ASSERT_EQ(::mkfifo(config.c_str(), 0600), 0); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove(config);
    c.damage();
    const auto started = std::chrono::steady_clock::now();
    const auto clean = runAgentAt(h.home().string(), {"clean", "--category", "userCaches"}, 20);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    EXPECT_EQ(clean.status, 1);
    EXPECT_EQ(clean.out.rfind(message, 0), 0u) << clean.out;
    EXPECT_NE(clean.out.find("); nothing was removed. Fix it or delete it.\n"), std::string::npos);
    EXPECT_TRUE(fs::exists(h.path("Library/Caches/com.app/blob")));
    // A dry run removes nothing anyway: it says so and shows what the defaults would do.
    const auto dry = runAgentAt(h.home().string(), {"clean", "--category", "userCaches", "--dry-run"}, 20);
    EXPECT_EQ(dry.status, 0);
    EXPECT_EQ(dry.out.rfind(message, 0), 0u);
    EXPECT_NE(dry.out.find("\nWould free 201 KB\n"), std::string::npos) << dry.out;
  }
  fs::remove(config);
  h.text(kSupport + "config.json", "{}");
  const auto repaired = runAgentAt(h.home().string(), {"clean", "--category", "userCaches"});
  EXPECT_EQ(repaired.status, 0);
  EXPECT_EQ(repaired.out, "Freed 201 KB\n");
}

}  // namespace
}  // namespace kestrel::test
