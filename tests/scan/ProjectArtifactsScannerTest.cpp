// Project build products: which folders of which projects are offered, and what is never looked into.
#include "core/scan/scanners/Scanners.h"

#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>

namespace kestrel {
namespace {

using test::kTestNow;
using test::ScratchHome;

constexpr int64_t kMiB = 1048576;

// Lays out a home from lines, every file and folder aged against kTestNow:
//   "P <dir> <marker> <days> [build folders…]"  a project with its marker and a source file, and
//                                               2 MiB build folders shaped as their tools make them
//   "F <file> <bytes> <days>"                   a file (and its folders)
//   "L <link> <target>"                         a link (and its folders) 41 days old
//   "A <path> <days>"                           the age of one existing entry
void build(ScratchHome& h, const std::vector<std::string>& lines) {
  static const std::map<std::string, std::string> kShapes = {
      {"node_modules", "pkg/index.js"}, {"target", ".rustc_info.json"},   {"build", "classes/Main.class"},
      {".gradle", "buildOutputCleanup/x"}, {".mypy_cache", "3.11/m.json"}, {".next", "cache/x"},
      {"Pods", "Manifest.lock"},        {"_build", "dev/lib/x.beam"},     {".tox", "py311/pyvenv.cfg"}};
  for (const auto& line : lines) {
    std::istringstream in(line);
    std::string kind, path, a;
    double days = 0;
    in >> kind >> path >> a;
    if (kind == "P") {
      in >> days;
      for (std::string b; in >> b;) {
        const auto shape = kShapes.find(b);
        h.aged(path + "/" + b + "/" + (shape == kShapes.end() ? "blob" : shape->second), 2 * kMiB, days + 1, kTestNow);
      }
      h.aged(path + "/" + a, 10, days, kTestNow);
      h.aged(path + "/src/main.txt", 10, days, kTestNow);
    } else if (kind == "F") {
      in >> days;
      h.aged(path, std::stoll(a), days, kTestNow);
    } else if (kind == "L") {
      h.link(path, a);
      for (fs::path p(path); !p.empty(); p = p.parent_path()) h.age(p.string(), 41, kTestNow);
    } else {
      h.age(path, std::stod(a), kTestNow);
    }
  }
}

std::vector<ScanItem> scanProjects(const ScratchHome& h, AppConfig config = {}) {
  return ProjectArtifactsScanner().scan(ScanContext{h.paths(), config, kTestNow});
}

std::set<std::string> listed(const ScratchHome& h, const std::vector<ScanItem>& items) {
  std::set<std::string> out;
  for (const auto& i : items) out.insert(fs::path(i.id).lexically_relative(h.home()).string());
  return out;
}

TEST(ProjectArtifactsScanner, StaleProjectsOfferTheirBuildFoldersOnly) {
  const std::string mib2 = std::to_string(2 * kMiB);
  const struct Case {
    const char* name;
    std::vector<std::string> home;
    std::set<std::string> listed;  // home-relative
  } cases[] = {
      {"stale node project", {"P Developer/old package.json 40 node_modules"}, {"Developer/old/node_modules"}},
      {"fresh node project", {"P Developer/new package.json 2 node_modules"}, {}},
      {"only a change inside node_modules",
       {"P Developer/old package.json 40 node_modules", "F Developer/old/node_modules/pkg/fresh.js 10 0",
        "A Developer/old/node_modules 40"},
       {"Developer/old/node_modules"}},
      {"target beside Cargo.toml, not beside package.json",
       {"P Developer/rust Cargo.toml 40 target", "P Developer/web package.json 40 target"},
       {"Developer/rust/target"}},
      {"nested project inside node_modules",
       {"P Developer/old package.json 40 node_modules", "P Developer/old/node_modules/dep package.json 40 node_modules target",
        "A Developer/old/node_modules 40"},
       {"Developer/old/node_modules"}},
      {"environments only holding pyvenv.cfg",
       {"P Developer/py pyproject.toml 40 .venv venv", "F Developer/py/.venv/pyvenv.cfg 10 41"},
       {"Developer/py/.venv"}},
      {"caches deep in the sources, small ones left",
       {"P src/py setup.py 40 .mypy_cache", "F src/py/pkg/sub/__pycache__/m.pyc " + mib2 + " 41",
        "F src/py/pkg/__pycache__/small.pyc 524288 41"},
       {"src/py/.mypy_cache", "src/py/pkg/sub/__pycache__"}},
      {"CMake build folders hold CMakeCache.txt",
       {"P code/eng CMakeLists.txt 40 build out/release notes", "F code/eng/build/CMakeCache.txt 10 41",
        "F code/eng/out/release/CMakeCache.txt 10 41"},
       {"code/eng/build", "code/eng/out/release"}},
      {"Gradle folders; a folder holding a project of its own is sources",
       {"P Projects/app build.gradle.kts 40 build .gradle", "P Projects/lib settings.gradle 40 build",
        "F Projects/lib/build/build.gradle 10 41"},
       {"Projects/app/build", "Projects/app/.gradle"}},
      {"a recent commit keeps a project in use",
       {"P git/web package.json 40 node_modules", "F git/web/.git/index 10 3"}, {}},
      {"an old commit does not", {"P git/web package.json 40 node_modules", "F git/web/.git/logs/HEAD 10 35"},
       {"git/web/node_modules"}},
      {"a fresh workspace package keeps the monorepo's root in use",
       {"P repos/mono pnpm-lock.yaml 40 node_modules", "P repos/mono/packages/a package.json 1 node_modules",
        "P repos/mono/packages/b package.json 40 node_modules"},
       {}},
      {"a stale monorepo offers every package's folder",
       {"P repos/mono pnpm-lock.yaml 40 node_modules", "P repos/mono/packages/a package.json 50 node_modules .next"},
       {"repos/mono/node_modules", "repos/mono/packages/a/node_modules", "repos/mono/packages/a/.next"}},
      {"hidden folders and folders past the search depth are not searched",
       {"P work/.archive/old package.json 40 node_modules", "P work/a/b/c/d/e/old package.json 40 node_modules",
        "P work/a/b/c/d/old package.json 40 node_modules"},
       {"work/a/b/c/d/old/node_modules"}},
      {"not a usual code folder", {"P Music/old package.json 40 node_modules"}, {}},
      {"build folder changed within the hour",
       {"P Developer/old package.json 40 node_modules Pods", "A Developer/old/node_modules 0.02"}, {}},
      {"Pods beside an Xcode project",
       {"P Developer/ios Podfile 40 Pods", "F Developer/ios2/App.xcodeproj/project.pbxproj 10 40",
        "F Developer/ios2/Pods/Manifest.lock " + mib2 + " 41"},
       {"Developer/ios/Pods", "Developer/ios2/Pods"}},
      // Only what the tool made is offered; the same name on anything else is sources.
      {"__pycache__ holding anything but compiled Python",
       {"P src/py setup.py 40", "F src/py/a/__pycache__/m.cpython-311.pyc " + mib2 + " 41",
        "F src/py/b/__pycache__/m.cpython-311.pyc " + mib2 + " 41", "F src/py/b/__pycache__/results.csv 10 41"},
       {"src/py/a/__pycache__"}},
      {"a build folder that is a repository of its own",
       {"P Developer/rust Cargo.toml 40 target", "F Developer/rust/target/.git/HEAD 10 41",
        "P Developer/rust2 Cargo.toml 40 target", "F Developer/rust2/target/.hg/store 10 41"},
       {}},
      {"target without Cargo's or Maven's shape; a cache tag is enough",
       {"P Developer/rust Cargo.toml 40", "F Developer/rust/target/debug/tool " + mib2 + " 41", "P Developer/mvn pom.xml 40",
        "F Developer/mvn/target/app.jar " + mib2 + " 41", "T Developer/mvn/target/CACHEDIR.TAG"},
       {"Developer/mvn/target"}},
      {"node_modules holds package folders, links to them and scopes only",
       {"P work/a package.json 40 node_modules", "F work/a/node_modules/@scope/pkg/index.js 10 41",
        "F work/a/node_modules/.package-lock.json 10 41", "L work/a/node_modules/linked pkg",
        "P work/b package.json 40 node_modules", "F work/b/node_modules/notes.txt 10 41",
        "P work/c package.json 40 node_modules", "F work/c/node_modules/@scope/stray.txt 10 41"},
       {"work/a/node_modules"}},
      // Activity behind links inside a project is the project's own.
      {"sources in a linked folder edited today",
       {"P work/app package.json 40 node_modules", "F shared/src/today.js 10 0", "L work/app/src/shared ../../../shared/src"},
       {}},
      {"linked sources untouched, a link to an edited file, a loop",
       {"P work/old package.json 40 node_modules", "F shared/old/lib.js 10 40", "L work/old/lib ../../shared/old",
        "L shared/old/loop ..", "L work/old/lib2 ../../shared/old", "P work/file package.json 40 node_modules",
        "F notes/today.md 10 0", "L work/file/NOTES.md ../../notes/today.md"},
       {"work/old/node_modules"}},
      {"a link out of the home leaves the project unknown",
       {"P work/out package.json 40 node_modules", "F ../outside/src/a.js 10 40", "L work/out/src/ext ../../../../outside/src"},
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchHome h;
    std::vector<std::string> lines;
    for (const auto& line : c.home) {
      if (line.rfind("T ", 0) != 0) {
        lines.push_back(line);
        continue;
      }
      h.text(line.substr(2), "Signature: 8a477f597d28d172789f06886806bc55\n");  // a cache tag
      lines.push_back("A " + line.substr(2) + " 41");
      lines.push_back("A " + fs::path(line.substr(2)).parent_path().string() + " 41");
    }
    build(h, lines);
    EXPECT_EQ(listed(h, scanProjects(h)), c.listed);
  }
}

TEST(ProjectArtifactsScanner, ItemsNameTheProjectAndTheirRisk) {
  ScratchHome h;
  build(h, {"P Developer/shop package.json 45 node_modules .next", "F Developer/shop/node_modules/big/index.js 3145728 46"});
  const auto items = scanProjects(h);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].title, "shop — node_modules");  // largest first
  EXPECT_EQ(items[0].risk, Risk::review);
  EXPECT_EQ(items[0].target, ItemTarget::forPath(h.path("Developer/shop/node_modules").string()));
  EXPECT_GE(items[0].size, 5 * kMiB);
  EXPECT_EQ(items[0].reason,
            "Installed dependencies; installing them again needs the network; the project has not changed for 45 days");
  EXPECT_EQ(items[1].title, "shop — .next");
  EXPECT_EQ(items[1].risk, Risk::safe);
}

TEST(ProjectArtifactsScanner, RootsLinksAndSettings) {
  ScratchHome h;
  build(h, {"P ../outside/linked package.json 40 node_modules", "P Developer/proj Cargo.toml 40 target",
            "P elsewhere/proj mix.exs 40 _build"});
  h.link("Developer/linked", h.root() / "outside/linked");    // a link inside a root: never followed
  h.link("Developer/proj/target/loop", h.path("Developer"));  // nor inside a build folder
  h.age("Developer/proj/target", 41, kTestNow);
  EXPECT_EQ(listed(h, scanProjects(h)), (std::set<std::string>{"Developer/proj/target"}));

  AppConfig config;
  config.developerRoots = {"~/elsewhere", "relative/ignored", h.path("Developer").string(), "~/Developer/proj"};
  EXPECT_EQ(listed(h, scanProjects(h, config)),
            (std::set<std::string>{"elsewhere/proj/_build", "Developer/proj/target"}));  // the nested root once
  config.staleProjectDays = 60;
  EXPECT_TRUE(scanProjects(h, config).empty());

  // A root reached through a link the policy follows: items keep the name, with where they are.
  ScratchHome h2;
  build(h2, {"P ../outside/dev/old package.json 40 node_modules"});
  h2.link("Developer", h2.root() / "outside/dev");
  const auto items = scanProjects(h2);
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].id, h2.path("Developer/old/node_modules").string());
  EXPECT_EQ(items[0].realPath, fs::canonical(h2.root() / "outside/dev/old/node_modules").string());

  // A walk cut short leaves its project unseen, so nothing of it is offered.
  int polls = 0;
  ScanContext cancelled{h.paths(), AppConfig{}, kTestNow};
  cancelled.isCancelled = [&] { return ++polls > 2; };
  EXPECT_TRUE(ProjectArtifactsScanner().scan(cancelled).empty());
}

}  // namespace
}  // namespace kestrel
