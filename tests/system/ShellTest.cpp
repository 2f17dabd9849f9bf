// Shell: resolution, exact arguments, time-outs, large outputs and unreadable output.
#include "core/system/process/Shell.h"

#include "tests/support/FakeTools.h"

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>

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

// Whether `pid` is a process that still runs (a zombie no longer does).
bool running(pid_t pid) {
  const std::string stat = test::readText("/proc/" + std::to_string(pid) + "/stat");
  const size_t close = stat.rfind(')');
  return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

TEST(Shell, ATimedOutToolIsStoppedWithEverythingItStarted) {
  const struct Case {
    const char* name;
    const char* body;  // writes the ids of what it started to "$PIDS", one per line
    double minSeconds, maxSeconds;
    int status;
  } cases[] = {
      {"honours TERM", "echo $$ >> \"$PIDS\"; exec sleep 30", 0, 2.0, 128 + 15},
      {"ignores TERM", "echo $$ >> \"$PIDS\"; trap '' TERM\nwhile :; do sleep 0.05; done", 2.1, 5.0, 128 + 9},
      {"leaves children behind", "sleep 300 & echo $! >> \"$PIDS\"\n(trap '' TERM; exec sleep 300) & echo $! >> \"$PIDS\"\nwait",
       2.1, 5.0, 128 + 15},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScratchHome h;
    FakeTools tools(h.root());
    tools.script("hangs", c.body);
    const test::ScopedEnv pids("PIDS", (h.root() / "pids").string());
    const auto start = std::chrono::steady_clock::now();
    const auto r = Shell::run("hangs", {}, 0.3);
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(r.stderr, "hangs timed out after 0s");
    EXPECT_EQ(r.status, c.status);
    EXPECT_GE(took, c.minSeconds);
    EXPECT_LT(took, c.maxSeconds);
    std::istringstream lines(test::readText(h.root() / "pids"));
    int started = 0;
    for (pid_t pid; lines >> pid; ++started) EXPECT_FALSE(running(pid)) << pid;
    EXPECT_GT(started, 0);
  }
}

TEST(Shell, DrainsFiftyMegabytesOnEachStream) {
  auto r = Shell::run("/bin/sh", {"-c", "head -c 52428800 /dev/zero | tr '\\0' a & head -c 52428800 /dev/zero | tr '\\0' b >&2; wait"}, 60);
  EXPECT_TRUE(r.ok()) << r.status;
  EXPECT_EQ(r.stdout.size(), 52428800u);
  EXPECT_EQ(r.stderr.size(), 52428800u);
}

TEST(Shell, UnreadableOutputIsReported) {
  const std::pair<const char*, const char*> cases[] = {
      {"printf 'ok\\377'", ""}, {"printf 'fine'; printf '\\300\\200' >&2", "fine"}};  // an overlong form is not text
  for (const auto& [script, out] : cases) {
    const auto r = Shell::run("/bin/sh", {"-c", script}, 5);
    EXPECT_EQ(r.stdout, out) << script;
    EXPECT_EQ(r.stderr, "/bin/sh produced output that could not be read");
  }
}

}  // namespace
}  // namespace kestrel
