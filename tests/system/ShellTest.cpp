// Shell: resolution, exact arguments, time-outs, large outputs and unreadable output.
#include "core/system/Shell.h"

#include "tests/support/FakeTools.h"

#include <gtest/gtest.h>

#include <chrono>

namespace kestrel {
namespace {

using test::FakeTools;
using test::ScratchHome;

TEST(Shell, WhichSearchesPathThenFixedFoldersAndAMissingToolStartsNothing) {
  ScratchHome h;
  FakeTools tools(h.root());
  auto r = Shell::run("kestrel-no-such-tool", {"a"}, 1);
  EXPECT_EQ(r.status, 127);
  EXPECT_EQ(r.stderr, "kestrel-no-such-tool not found");
  EXPECT_FALSE(r.ok());
  EXPECT_EQ(Shell::run("/nonexistent/tool", {}, 1).stderr, "/nonexistent/tool not found");
  tools.tool("sh");
  EXPECT_EQ(Shell::which("sh"), (tools.bin() / "sh").string());
  test::ScopedEnv empty("PATH", "");
  auto sh = Shell::which("sh");
  ASSERT_TRUE(sh);
  EXPECT_TRUE(*sh == "/usr/bin/sh" || *sh == "/bin/sh") << *sh;
  EXPECT_FALSE(Shell::which("kestrel-no-such-tool"));
  h.file("plain", 1);
  EXPECT_FALSE(Shell::which(h.path("plain").string()));  // not executable
  EXPECT_FALSE(Shell::which(""));
}

TEST(Shell, PassesArgumentsVerbatimAndReportsStatus) {
  ScratchHome h;
  FakeTools tools(h.root());
  tools.tool("docker", "out text", 3, "err text");
  const std::vector<std::string> args = {"image", "prune", "-f", "a b", "$(whoami)", "'q'", "", "*"};
  auto r = Shell::run("docker", args, 5);
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.stdout, "out text");
  EXPECT_EQ(r.stderr, "err text");
  ASSERT_EQ(tools.calls("docker").size(), 1u);
  EXPECT_EQ(tools.calls("docker")[0], args);
}

TEST(Shell, KillsAChildIgnoringTerminateAfterTwoSeconds) {
  ScratchHome h;
  FakeTools tools(h.root());
  tools.script("stubborn", "trap '' TERM\nwhile :; do sleep 0.05; done");
  const auto start = std::chrono::steady_clock::now();
  auto r = Shell::run("stubborn", {}, 0.2);
  const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(r.stderr, "stubborn timed out after 0s");
  EXPECT_EQ(r.status, 128 + 9);
  EXPECT_GT(took, 2.1);
  EXPECT_LT(took, 5.5);  // the 2 s grace period plus the bounded wait for its orphaned sleep
}

TEST(Shell, TimedOutChildThatHonoursTerminateStopsEarly) {
  ScratchHome h;
  FakeTools tools(h.root());
  tools.script("slow", "exec sleep 30");
  const auto start = std::chrono::steady_clock::now();
  auto r = Shell::run("slow", {}, 1.0);
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 2.5);
  EXPECT_EQ(r.stderr, "slow timed out after 1s");
  EXPECT_FALSE(r.ok());
}

TEST(Shell, DrainsFiftyMegabytesOnEachStream) {
  auto r = Shell::run("/bin/sh", {"-c", "head -c 52428800 /dev/zero | tr '\\0' a & head -c 52428800 /dev/zero | tr '\\0' b >&2; wait"}, 60);
  EXPECT_TRUE(r.ok()) << r.status;
  EXPECT_EQ(r.stdout.size(), 52428800u);
  EXPECT_EQ(r.stderr.size(), 52428800u);
}

TEST(Shell, UnreadableOutputIsReported) {
  struct Case {
    const char* script;
    const char* expectedStdout;
  };
  const Case cases[] = {
      {"printf 'ok\\377'", ""},
      {"printf 'fine'; printf '\\300\\200' >&2", "fine"},  // an overlong form is not text
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.script);
    auto r = Shell::run("/bin/sh", {"-c", c.script}, 5);
    EXPECT_EQ(r.stdout, c.expectedStdout);
    EXPECT_EQ(r.stderr, "/bin/sh produced output that could not be read");
  }
}

}  // namespace
}  // namespace kestrel
