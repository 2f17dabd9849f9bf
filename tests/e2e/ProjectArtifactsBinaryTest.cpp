// End to end: "clean --category projectArtifacts" removes exactly the folders the scan lists.
#include "core/scan/ScanEngine.h"
#include "tests/e2e/RunAgent.h"

#include <gtest/gtest.h>

#include <set>

namespace kestrel::test {
namespace {

namespace fs = std::filesystem;

std::set<std::string> tree(const fs::path& home, const std::string& under) {
  std::set<std::string> out;
  for (auto it = fs::recursive_directory_iterator(home / under); it != fs::recursive_directory_iterator(); ++it)
    out.insert(it->path().lexically_relative(home).string());
  return out;
}

TEST(ProjectArtifactsBinary, CleanRemovesExactlyTheListedFolders) {
  ScratchHome h;
  const Date now = std::chrono::system_clock::now();
  const auto aged = [&](const std::string& rel, int64_t bytes, double days) {
    h.file(rel, bytes);
    for (fs::path p(rel); !p.empty(); p = p.parent_path()) h.age(p.string(), days, now);
  };
  aged("Developer/old-site/package.json", 100, 60);
  aged("Developer/old-site/index.html", 100, 60);
  aged("Developer/old-site/node_modules/react/index.js", 3000000, 61);
  aged("Developer/old-site/.next/cache/x", 2000000, 61);                       // safe
  aged("src/tool/Cargo.toml", 100, 90);
  aged("src/tool/src/main.rs", 100, 90);
  aged("src/tool/target/debug/tool", 4000000, 91);
  aged("src/tool/target/.rustc_info.json", 100, 91);
  aged("src/svc/requirements.txt", 100, 45);
  aged("src/svc/.venv/pyvenv.cfg", 100, 46);
  aged("src/svc/.venv/lib/site.py", 2000000, 46);
  aged("src/svc/.tox/py311/lib/x", 2000000, 46);                              // review too
  aged("src/svc/.tox/py311/pyvenv.cfg", 100, 46);
  aged("src/svc/app/__pycache__/m.pyc", 100000, 46);                          // under 1 MiB
  aged("src/fresh/package.json", 100, 1);
  aged("src/fresh/node_modules/a/index.js", 3000000, 2);
  const auto before = tree(h.home(), "Developer");
  const auto beforeSrc = tree(h.home(), "src");

  std::set<std::string> listed;
  for (const auto& r : ScanEngine(h.paths(), AppConfig{}).scan({CleanCategory::projectArtifacts}))
    for (const auto& i : r.items) listed.insert(fs::path(i.id).lexically_relative(h.home()).string());
  EXPECT_EQ(listed, (std::set<std::string>{"Developer/old-site/node_modules", "Developer/old-site/.next",
                                           "src/tool/target", "src/svc/.venv", "src/svc/.tox"}));

  const auto run = runAgentBinary(h, {"clean", "--category", "projectArtifacts", "--max-risk", "review"});
  EXPECT_EQ(run.status, 0) << run.out << run.err;
  std::set<std::string> expected;
  for (const auto* all : {&before, &beforeSrc})
    for (const auto& p : *all) {
      bool removed = false;
      for (const auto& l : listed) removed = removed || p == l || p.rfind(l + "/", 0) == 0;
      if (!removed) expected.insert(p);
    }
  auto after = tree(h.home(), "Developer");
  after.merge(tree(h.home(), "src"));
  EXPECT_EQ(after, expected);
}

// What careless use once lost: folders named like build output that held the user's own work.
TEST(ProjectArtifactsBinary, FoldersThatOnlyShareABuildFolderNameStay) {
  ScratchHome h;
  const Date now = std::chrono::system_clock::now();
  const auto aged = [&](const std::string& rel, int64_t bytes, double days) {
    h.file(rel, bytes);
    for (fs::path p(rel); !p.empty(); p = p.parent_path()) h.age(p.string(), days, now);
  };
  // A cache folder holding a table of results, beside a real one.
  aged("Developer/study/setup.py", 100, 60);
  aged("Developer/study/run/__pycache__/results.csv", 2000000, 61);
  aged("Developer/study/run/__pycache__/run.cpython-311.pyc", 100, 61);
  aged("Developer/study/lib/__pycache__/lib.cpython-311.pyc", 2000000, 61);
  // A build folder that is a repository of its own, with a commit of its own.
  aged("Developer/crate/Cargo.toml", 100, 60);
  aged("Developer/crate/target/.rustc_info.json", 100, 61);
  aged("Developer/crate/target/notes.md", 2000000, 61);
  aged("Developer/crate/target/.git/HEAD", 100, 61);
  // Dependencies of a project whose sources live in a linked folder edited today.
  aged("Developer/site/package.json", 100, 60);
  aged("Developer/site/node_modules/react/index.js", 2000000, 61);
  h.file("work/site-src/index.js", 100);
  fs::create_directories(h.path("Developer/site/src"));
  fs::create_symlink("../../../work/site-src", h.path("Developer/site/src/app"));
  h.age("Developer/site/src/app", 60, now);
  h.age("Developer/site/src", 60, now);

  const auto safe = runAgentBinary(h, {"clean", "--category", "projectArtifacts"});
  EXPECT_EQ(safe.status, 0) << safe.out << safe.err;
  const auto review = runAgentBinary(h, {"clean", "--category", "projectArtifacts", "--max-risk", "review"});
  EXPECT_EQ(review.status, 0) << review.out << review.err;
  EXPECT_FALSE(fs::exists(h.path("Developer/study/lib/__pycache__")));  // real build output goes
  EXPECT_EQ(readText(h.path("Developer/study/run/__pycache__/results.csv")).size(), 2000000u);
  EXPECT_TRUE(fs::exists(h.path("Developer/crate/target/.git/HEAD")));
  EXPECT_TRUE(fs::exists(h.path("Developer/site/node_modules/react/index.js")));
}

}  // namespace
}  // namespace kestrel::test
