// End to end: "clean --category projectArtifacts" through the binary on projects a user could have.
#include "tests/e2e/RunAgent.h"

#include <gtest/gtest.h>

namespace kestrel::test {
namespace {

// What careless use once lost: folders named like build output that held the user's own work.
TEST(ProjectArtifactsBinary, FoldersThatOnlyShareABuildFolderNameStay) {
  ScratchHome h;
  // A cache folder holding a table of results, beside a real one.
  h.aged("Developer/study/setup.py", 100, 60);
  h.aged("Developer/study/run/__pycache__/results.csv", 2000000, 61);
  h.aged("Developer/study/run/__pycache__/run.cpython-311.pyc", 100, 61);
  h.aged("Developer/study/lib/__pycache__/lib.cpython-311.pyc", 2000000, 61);
  // A build folder that is a repository of its own, with a commit of its own.
  h.aged("Developer/crate/Cargo.toml", 100, 60);
  h.aged("Developer/crate/target/.rustc_info.json", 100, 61);
  h.aged("Developer/crate/target/notes.md", 2000000, 61);
  h.aged("Developer/crate/target/.git/HEAD", 100, 61);
  // Dependencies of a project whose sources live in a linked folder edited today.
  h.aged("Developer/site/package.json", 100, 60);
  h.aged("Developer/site/node_modules/react/index.js", 2000000, 61);
  h.file("work/site-src/index.js", 100);
  fs::create_directories(h.path("Developer/site/src"));
  fs::create_symlink("../../../work/site-src", h.path("Developer/site/src/app"));
  h.age("Developer/site/src/app", 60);
  h.age("Developer/site/src", 60);

  for (const char* risk : {"safe", "review"}) {
    const auto r = runAgentBinary(h, {"clean", "--category", "projectArtifacts", "--max-risk", risk});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
  }
  EXPECT_FALSE(fs::exists(h.path("Developer/study/lib/__pycache__")));  // real build output goes
  EXPECT_EQ(readText(h.path("Developer/study/run/__pycache__/results.csv")).size(), 2000000u);
  EXPECT_TRUE(fs::exists(h.path("Developer/crate/target/.git/HEAD")));
  EXPECT_TRUE(fs::exists(h.path("Developer/site/node_modules/react/index.js")));
}

}  // namespace
}  // namespace kestrel::test
