// Cloud files: sync roots, provider names, retried removal with placeholders, and eviction tools.
#include "core/clean/CloudFiles.h"
#include "core/safety/CloudRoots.h"

#include "tests/support/FakeTools.h"
#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

using test::FakeTools;
using test::ScratchHome;

TEST(CloudFiles, RootsAndProviders) {
  const fs::path home = "/Users/ada";
  EXPECT_EQ(CloudRoots::syncRoots(home),
            (std::vector<fs::path>{"/Users/ada/Library/Mobile Documents", "/Users/ada/Library/CloudStorage"}));
  const struct Case {
    std::string path;
    bool synced;
    std::string provider;
  } cases[] = {
      {"/Users/ada/Library/Mobile Documents/com~apple~CloudDocs/a.txt", true, "iCloud Drive"},
      {"/Users/ada/Library/CloudStorage/Dropbox/x", true, "Dropbox"},
      {"/Users/ada/Library/CloudStorage/GoogleDrive-ada@example.com", true, "GoogleDrive"},
      {"/Users/ada/Library/CloudStorage/-odd/x", true, "your cloud drive"},
      {"/Users/ada/Library/Mobile Documents2/x", false, "your cloud drive"},
      {"/Users/ada/Library/CloudStorage1", false, "your cloud drive"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(CloudRoots::isSynced(c.path, home), c.synced);
    EXPECT_EQ(CloudRoots::providerName(c.path, home), c.provider);
  }
  EXPECT_FALSE(CloudFiles::isDataless("/"));
}

TEST(CloudFiles, RemovalRetriesWithGrowingWaits) {
  const struct Case {
    const char* name;
    int failures;  // attempts that throw before one works
    int attempts;
    bool succeeds;
    std::vector<double> waits;
  } cases[] = {
      {"first attempt", 0, 4, true, {}},
      {"third attempt", 2, 4, true, {0.25, 0.5}},
      {"never", 9, 4, false, {0.25, 0.5, 1.0}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchHome h;
    const fs::path item = h.file("Library/Mobile Documents/com~apple~CloudDocs/doc.txt", 10);
    const fs::path placeholder = h.file("Library/Mobile Documents/com~apple~CloudDocs/.doc.txt.icloud", 10);
    std::vector<double> waits;
    int calls = 0;
    Services hooks;
    hooks.sleep = [&](std::chrono::duration<double> d) { waits.push_back(d.count()); };
    hooks.removeCloudItem = [&](const fs::path& p) {
      if (++calls <= c.failures)
        throw fs::filesystem_error("busy", p, std::make_error_code(std::errc::device_or_resource_busy));
      fs::remove(p);
    };
    if (c.succeeds) {
      EXPECT_NO_THROW(CloudFiles::remove(item, c.attempts, hooks));
      EXPECT_FALSE(fs::exists(item));
      EXPECT_FALSE(fs::exists(placeholder));
    } else {
      try {
        CloudFiles::remove(item, c.attempts, hooks);
        ADD_FAILURE() << "no error";
      } catch (const fs::filesystem_error& e) {
        EXPECT_EQ(e.code(), std::make_error_code(std::errc::device_or_resource_busy));
      }
      EXPECT_TRUE(fs::exists(item));
    }
    EXPECT_EQ(waits, c.waits);
  }
}

TEST(CloudFiles, RealRemovalTakesTheItemAndItsPlaceholder) {
  ScratchHome h;
  const fs::path folder = h.folder("Library/Mobile Documents/com~apple~CloudDocs/Project");
  h.file("Library/Mobile Documents/com~apple~CloudDocs/Project/a.txt", 10);
  h.file("Library/Mobile Documents/com~apple~CloudDocs/.Project.icloud", 10);
  const fs::path outsideTarget = h.outside("keep");
  h.file("../outside/keep/precious", 10);
  h.link("Library/Mobile Documents/com~apple~CloudDocs/Project/link", outsideTarget);
  CloudFiles::remove(folder, 1);
  EXPECT_FALSE(fs::exists(folder));
  EXPECT_FALSE(fs::exists(folder.parent_path() / ".Project.icloud"));
  EXPECT_TRUE(fs::exists(outsideTarget / "precious"));  // a link inside is removed, never followed
}

TEST(CloudFiles, RemovalWithoutErrorButItemStaysFails) {
  ScratchHome h;
  const fs::path item = h.file("Library/CloudStorage/Box-Box/f", 10);
  Services hooks;
  hooks.sleep = [](std::chrono::duration<double>) {};
  hooks.removeCloudItem = [](const fs::path&) {};
  EXPECT_THROW(CloudFiles::remove(item, 2, hooks), fs::filesystem_error);
}

TEST(CloudEvictor, ChoosesTheToolByRoot) {
  ScratchHome h;
  FakeTools tools(h.root() / "bin");
  h.folder("Library/CloudStorage/Dropbox");
  h.folder("Library/CloudStorage/OneDrive-Personal");
  h.file("Library/CloudStorage/notAFolder", 1);
  const Paths paths = h.paths();
  EXPECT_EQ(CloudEvictor::cloudRoots(paths),
            (std::vector<fs::path>{h.path("Library/Mobile Documents"), h.path("Library/CloudStorage/Dropbox"),
                                   h.path("Library/CloudStorage/OneDrive-Personal")}));
  EXPECT_EQ(CloudEvictor::provider(h.path("Library/CloudStorage/Dropbox/a").string(), paths), "Dropbox");

  struct Case {
    const char* name;
    std::string rel;
    const char* tool;  // the tool expected to run, or nullptr
    int status;
    std::string err;
    std::string error;  // expected description, empty for success
  };
  const std::string icloud = "Library/Mobile Documents/com~apple~CloudDocs/a.txt";
  const Case cases[] = {
      {"provider folder", "Library/CloudStorage/Dropbox/a.txt", "fileproviderctl", 0, "", ""},
      {"provider explains", "Library/CloudStorage/OneDrive-Personal/b", "fileproviderctl", 2, "no such item\n",
       "Could not remove local copy: no such item"},
      {"iCloud falls back to brctl", icloud, "brctl", 0, "", ""},
      {"iCloud reports the platform's error", icloud, "brctl", 1, "brctl says no",
       "Could not remove local copy: This system has no cloud document service"},
      {"sibling of a root", "Library/CloudStorage1/a.txt", nullptr, 0, "",
       "Not inside iCloud Drive or a cloud storage folder"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    tools.tool("fileproviderctl", "", c.status, c.err);
    tools.tool("brctl", "", c.status, c.err);
    const auto before = tools.calls("fileproviderctl").size() + tools.calls("brctl").size();
    const fs::path target = h.path(c.rel);
    std::string error;
    try {
      CloudEvictor::evict(target, paths);
    } catch (const CloudEvictor::EvictError& e) {
      error = e.what();
      EXPECT_EQ(e.kind(), c.tool ? CloudEvictor::EvictError::Kind::failed
                                 : CloudEvictor::EvictError::Kind::notInCloudFolder);
    }
    EXPECT_EQ(error, c.error);
    const auto after = tools.calls("fileproviderctl").size() + tools.calls("brctl").size();
    if (!c.tool) {
      EXPECT_EQ(after, before);
      continue;
    }
    ASSERT_EQ(after, before + 1);
    EXPECT_EQ(tools.calls(c.tool).back(), (std::vector<std::string>{"evict", target.string()}));
  }
}

}  // namespace
}  // namespace kestrel
