// Project build products: which folders of which projects are offered, and what is never looked into.
#include "core/scan/scanners/Scanners.h"

#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>

namespace kestrel {
namespace {

using test::ScratchHome;

constexpr int64_t kMiB = 1048576;

// Builds projects in a scratch home with every file and folder given an age.
struct Builder {
  ScratchHome& h;
  Date now;

  // A link at rel to `target` (relative to its folder), it and its folders 41 days old.
  void link(const std::string& rel, const std::string& target) {
    fs::create_directories(h.path(rel).parent_path());
    fs::create_symlink(target, h.path(rel));
    for (fs::path p(rel); !p.empty(); p = p.parent_path()) h.age(p.string(), 41, now);
  }
  // A file of `bytes` bytes, it and its folders (up to the home) `days` old.
  void file(const std::string& rel, int64_t bytes, double days) {
    h.file(rel, bytes);
    fs::path p(rel);
    for (; !p.empty(); p = p.parent_path()) h.age(p.string(), days, now);
  }
  // A project folder with its marker and a source file, `days` old, and build folders of 2 MiB
  // shaped as their tools make them.
  void project(const std::string& rel, const std::string& marker, double days,
               const std::vector<std::string>& buildFolders = {}) {
    for (const auto& b : buildFolders) file(rel + "/" + b + "/" + shapedBlob(b), 2 * kMiB, days + 1);
    file(rel + "/" + marker, 10, days);
    file(rel + "/src/main.txt", 10, days);
  }
  // Where a build folder's tool puts its bytes (environments get no "pyvenv.cfg" here).
  static std::string shapedBlob(const std::string& folder) {
    static const std::map<std::string, std::string> kShapes = {
        {"node_modules", "pkg/index.js"}, {"target", ".rustc_info.json"},   {"build", "classes/Main.class"},
        {".gradle", "buildOutputCleanup/x"}, {".mypy_cache", "3.11/m.json"}, {".next", "cache/x"},
        {"Pods", "Manifest.lock"},        {"_build", "dev/lib/x.beam"},     {".tox", "py311/pyvenv.cfg"}};
    const auto it = kShapes.find(folder);
    return it == kShapes.end() ? "blob" : it->second;
  }
};

std::vector<ScanItem> scanProjects(const ScratchHome& h, Date now, AppConfig config = {}) {
  const ScanContext context{h.paths(), config, now};
  return ProjectArtifactsScanner().scan(context);
}

std::set<std::string> listed(const ScratchHome& h, const std::vector<ScanItem>& items) {
  std::set<std::string> out;
  for (const auto& i : items) out.insert(fs::path(i.id).lexically_relative(h.home()).string());
  return out;
}

TEST(ProjectArtifactsScanner, StaleProjectsOfferTheirBuildFoldersOnly) {
  struct Case {
    const char* name;
    std::function<void(Builder&)> setup;
    std::set<std::string> listed;  // home-relative
  };
  const Case cases[] = {
      {"stale node project", [](Builder& b) { b.project("Developer/old", "package.json", 40, {"node_modules"}); },
       {"Developer/old/node_modules"}},
      {"fresh node project", [](Builder& b) { b.project("Developer/new", "package.json", 2, {"node_modules"}); }, {}},
      {"only a change inside node_modules",
       [](Builder& b) {
         b.project("Developer/old", "package.json", 40, {"node_modules"});
         b.h.file("Developer/old/node_modules/pkg/fresh.js", 10);  // written now
         b.h.age("Developer/old/node_modules", 40, b.now);
       },
       {"Developer/old/node_modules"}},
      {"target beside Cargo.toml, not beside package.json",
       [](Builder& b) {
         b.project("Developer/rust", "Cargo.toml", 40, {"target"});
         b.project("Developer/web", "package.json", 40, {"target"});
       },
       {"Developer/rust/target"}},
      {"nested project inside node_modules",
       [](Builder& b) {
         b.project("Developer/old", "package.json", 40, {"node_modules"});
         b.project("Developer/old/node_modules/dep", "package.json", 40, {"node_modules", "target"});
         b.h.age("Developer/old/node_modules", 40, b.now);
       },
       {"Developer/old/node_modules"}},
      {"environments only holding pyvenv.cfg",
       [](Builder& b) {
         b.project("Developer/py", "pyproject.toml", 40, {".venv", "venv"});
         b.file("Developer/py/.venv/pyvenv.cfg", 10, 41);
       },
       {"Developer/py/.venv"}},
      {"caches deep in the sources, small ones left",
       [](Builder& b) {
         b.project("src/py", "setup.py", 40, {".mypy_cache"});
         b.file("src/py/pkg/sub/__pycache__/m.pyc", 2 * kMiB, 41);
         b.file("src/py/pkg/__pycache__/small.pyc", kMiB / 2, 41);
       },
       {"src/py/.mypy_cache", "src/py/pkg/sub/__pycache__"}},
      {"CMake build folders hold CMakeCache.txt",
       [](Builder& b) {
         b.project("code/eng", "CMakeLists.txt", 40, {"build", "out/release", "notes"});
         b.file("code/eng/build/CMakeCache.txt", 10, 41);
         b.file("code/eng/out/release/CMakeCache.txt", 10, 41);
       },
       {"code/eng/build", "code/eng/out/release"}},
      {"Gradle folders; a folder holding a project of its own is sources",
       [](Builder& b) {
         b.project("Projects/app", "build.gradle.kts", 40, {"build", ".gradle"});
         b.project("Projects/lib", "settings.gradle", 40, {"build"});
         b.file("Projects/lib/build/build.gradle", 10, 41);
       },
       {"Projects/app/build", "Projects/app/.gradle"}},
      {"a recent commit keeps a project in use",
       [](Builder& b) {
         b.project("git/repo", "go.mod", 40, {"vendor-not-listed"});
         b.project("git/web", "package.json", 40, {"node_modules"});
         b.file("git/web/.git/index", 10, 3);
       },
       {}},
      {"an old commit does not",
       [](Builder& b) {
         b.project("git/web", "package.json", 40, {"node_modules"});
         b.file("git/web/.git/logs/HEAD", 10, 35);
       },
       {"git/web/node_modules"}},
      {"a fresh workspace package keeps the monorepo's root in use",
       [](Builder& b) {
         b.project("repos/mono", "pnpm-lock.yaml", 40, {"node_modules"});
         b.project("repos/mono/packages/a", "package.json", 1, {"node_modules"});
         b.project("repos/mono/packages/b", "package.json", 40, {"node_modules"});
       },
       {}},
      {"a stale monorepo offers every package's folder",
       [](Builder& b) {
         b.project("repos/mono", "pnpm-lock.yaml", 40, {"node_modules"});
         b.project("repos/mono/packages/a", "package.json", 50, {"node_modules", ".next"});
       },
       {"repos/mono/node_modules", "repos/mono/packages/a/node_modules", "repos/mono/packages/a/.next"}},
      {"hidden folders and folders past the search depth are not searched",
       [](Builder& b) {
         b.project("work/.archive/old", "package.json", 40, {"node_modules"});
         b.project("work/a/b/c/d/e/old", "package.json", 40, {"node_modules"});
         b.project("work/a/b/c/d/old", "package.json", 40, {"node_modules"});
       },
       {"work/a/b/c/d/old/node_modules"}},
      {"not a usual code folder",
       [](Builder& b) { b.project("Music/old", "package.json", 40, {"node_modules"}); }, {}},
      {"build folder changed within the hour",
       [](Builder& b) {
         b.project("Developer/old", "package.json", 40, {"node_modules", "Pods"});
         b.h.age("Developer/old/node_modules", 0.5 / 24, b.now);
       },
       {}},
      {"Pods beside an Xcode project",
       [](Builder& b) {
         b.project("Developer/ios", "Podfile", 40, {"Pods"});
         b.file("Developer/ios2/App.xcodeproj/project.pbxproj", 10, 40);
         b.file("Developer/ios2/Pods/Manifest.lock", 2 * kMiB, 41);
       },
       {"Developer/ios/Pods", "Developer/ios2/Pods"}},
      // Only what the tool made is offered; the same name on anything else is sources.
      {"__pycache__ holding anything but compiled Python",
       [](Builder& b) {
         b.project("src/py", "setup.py", 40);
         b.file("src/py/a/__pycache__/m.cpython-311.pyc", 2 * kMiB, 41);
         b.file("src/py/b/__pycache__/m.cpython-311.pyc", 2 * kMiB, 41);
         b.file("src/py/b/__pycache__/results.csv", 10, 41);
       },
       {"src/py/a/__pycache__"}},
      {"a build folder that is a repository of its own",
       [](Builder& b) {
         b.project("Developer/rust", "Cargo.toml", 40, {"target"});
         b.file("Developer/rust/target/.git/HEAD", 10, 41);
         b.project("Developer/rust2", "Cargo.toml", 40, {"target"});
         b.file("Developer/rust2/target/.hg/store", 10, 41);
       },
       {}},
      {"target without Cargo's or Maven's shape; a cache tag is enough",
       [](Builder& b) {
         b.project("Developer/rust", "Cargo.toml", 40);
         b.file("Developer/rust/target/debug/tool", 2 * kMiB, 41);
         b.project("Developer/mvn", "pom.xml", 40);
         b.file("Developer/mvn/target/app.jar", 2 * kMiB, 41);
         b.h.text("Developer/mvn/target/CACHEDIR.TAG", "Signature: 8a477f597d28d172789f06886806bc55\n");
         b.h.age("Developer/mvn/target/CACHEDIR.TAG", 41, b.now);
         b.h.age("Developer/mvn/target", 41, b.now);
       },
       {"Developer/mvn/target"}},
      {"node_modules holds package folders, links to them and scopes only",
       [](Builder& b) {
         b.project("work/a", "package.json", 40, {"node_modules"});
         b.file("work/a/node_modules/@scope/pkg/index.js", 10, 41);
         b.file("work/a/node_modules/.package-lock.json", 10, 41);
         b.link("work/a/node_modules/linked", "pkg");
         b.project("work/b", "package.json", 40, {"node_modules"});
         b.file("work/b/node_modules/notes.txt", 10, 41);
         b.project("work/c", "package.json", 40, {"node_modules"});
         b.file("work/c/node_modules/@scope/stray.txt", 10, 41);
       },
       {"work/a/node_modules"}},
      // Activity behind links inside a project is the project's own.
      {"sources in a linked folder edited today",
       [](Builder& b) {
         b.project("work/app", "package.json", 40, {"node_modules"});
         b.file("shared/src/today.js", 10, 0);
         b.link("work/app/src/shared", "../../../shared/src");
       },
       {}},
      {"linked sources untouched, a link to an edited file, a loop",
       [](Builder& b) {
         b.project("work/old", "package.json", 40, {"node_modules"});
         b.file("shared/old/lib.js", 10, 40);
         b.link("work/old/lib", "../../shared/old");
         b.link("shared/old/loop", "..");
         b.link("work/old/lib2", "../../shared/old");  // the same folder, judged once
         b.project("work/file", "package.json", 40, {"node_modules"});
         b.file("notes/today.md", 10, 0);
         b.link("work/file/NOTES.md", "../../notes/today.md");
       },
       {"work/old/node_modules"}},
      {"a link out of the home leaves the project unknown",
       [](Builder& b) {
         b.project("work/out", "package.json", 40, {"node_modules"});
         b.file("../outside/src/a.js", 10, 40);
         b.link("work/out/src/ext", "../../../../outside/src");
       },
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchHome h;
    const Date now = std::chrono::system_clock::now();
    Builder b{h, now};
    c.setup(b);
    EXPECT_EQ(listed(h, scanProjects(h, now)), c.listed);
  }
}

TEST(ProjectArtifactsScanner, ItemsNameTheProjectAndTheirRisk) {
  ScratchHome h;
  const Date now = std::chrono::system_clock::now();
  Builder b{h, now};
  b.project("Developer/shop", "package.json", 45, {"node_modules", ".next"});
  b.file("Developer/shop/node_modules/big/index.js", 3 * kMiB, 46);
  const auto items = scanProjects(h, now);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].title, "shop — node_modules");  // largest first
  EXPECT_EQ(items[0].risk, Risk::review);
  EXPECT_EQ(items[0].target, ItemTarget::forPath(h.path("Developer/shop/node_modules").string()));
  EXPECT_EQ(items[0].category, CleanCategory::projectArtifacts);
  EXPECT_GE(items[0].size, 5 * kMiB);
  EXPECT_EQ(items[0].reason,
            "Installed dependencies; installing them again needs the network; the project has not changed for 45 days");
  ASSERT_TRUE(items[0].lastUsed);
  EXPECT_LE(*items[0].lastUsed, now - std::chrono::hours(24 * 45 - 1));
  EXPECT_EQ(items[1].title, "shop — .next");
  EXPECT_EQ(items[1].risk, Risk::safe);
}

TEST(ProjectArtifactsScanner, RootsLinksAndSettings) {
  ScratchHome h;
  const Date now = std::chrono::system_clock::now();
  Builder b{h, now};
  b.project("../outside/linked", "package.json", 40, {"node_modules"});
  h.link("Developer/linked", h.root() / "outside/linked");           // a link inside a root: never followed
  b.project("Developer/proj", "Cargo.toml", 40, {"target"});
  h.link("Developer/proj/target/loop", h.path("Developer"));         // nor inside a build folder
  h.age("Developer/proj/target", 41, now);
  b.project("elsewhere/proj", "mix.exs", 40, {"_build"});
  EXPECT_EQ(listed(h, scanProjects(h, now)), (std::set<std::string>{"Developer/proj/target"}));

  AppConfig config;
  config.developerRoots = {"~/elsewhere", "relative/ignored", h.path("Developer").string(), "~/Developer/proj"};
  EXPECT_EQ(listed(h, scanProjects(h, now, config)),
            (std::set<std::string>{"elsewhere/proj/_build", "Developer/proj/target"}));  // the nested root once

  config.staleProjectDays = 60;
  EXPECT_TRUE(scanProjects(h, now, config).empty());

  // A root reached through a link the policy follows: items keep the name, with where they are.
  ScratchHome h2;
  Builder b2{h2, now};
  b2.project("../outside/dev/old", "package.json", 40, {"node_modules"});
  h2.link("Developer", h2.root() / "outside/dev");
  const auto items = scanProjects(h2, now);
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].id, h2.path("Developer/old/node_modules").string());
  EXPECT_EQ(items[0].realPath, fs::canonical(h2.root() / "outside/dev/old/node_modules").string());

  // A walk cut short leaves its project unseen, so nothing of it is offered.
  int polls = 0;
  ScanContext cancelled{h.paths(), AppConfig{}, now};
  cancelled.isCancelled = [&] { return ++polls > 2; };
  EXPECT_TRUE(ProjectArtifactsScanner().scan(cancelled).empty());
}

}  // namespace
}  // namespace kestrel
