// The app side of the privileged session against a fake administrator prompt: one prompt per
// session, restart on silence, the per-op fallback, quoting of hostile paths, and the attacks.
#include "core/clean/PrivilegedSession.h"

#include "core/base/Text.h"
#include "core/clean/AdminCommand.h"
#include "core/system/process/AdminPrompt.h"
#include "tests/support/FakeTools.h"
#include "tests/support/Wait.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

namespace kestrel {
namespace {

// Services whose administrator prompt is the test's own.
Services prompting(std::function<Shell::Result(const std::string&, const std::string&, double)> prompt) {
  Services s;
  s.adminPrompt = std::move(prompt);
  return s;
}

using test::FakeTools;
using test::ScratchHome;
using test::waitFor;
namespace fs = std::filesystem;
using Op = PrivilegedSession::Operation;

// A fake polkit prompt that runs the command it is given (as the test user) and logs the call.
void fakePkexec(FakeTools& tools) {
  tools.script("pkexec", "printf 'call\\n' >> \"$(dirname \"$0\")/pkexec.calls\"\nexec \"$@\"");
}

int promptCount(const FakeTools& tools) {
  const std::string log = test::readText(tools.bin() / "pkexec.calls");
  return static_cast<int>(std::count(log.begin(), log.end(), '\n'));
}

TEST(PrivilegedSession, OnePromptPerSessionAndRestartAfterSilence) {
  ScratchHome h;
  FakeTools tools(h.root());
  fakePkexec(tools);
  PrivilegedSession session(h.paths());
  auto first = session.run(Op::maintenance(Op::Script::periodicDaily));
  auto second = session.run(Op::purge());
  EXPECT_EQ(promptCount(tools), 1);
  EXPECT_TRUE(first.stdout.rfind("OK", 0) == 0) << first.stdout;  // SCRIPT replies OK whatever the tool did
  EXPECT_FALSE(second.ok());                                       // no purge tool here: "ERR …"
  EXPECT_EQ(second.stdout.rfind("ERR ", 0), 0u) << second.stdout;
  EXPECT_TRUE(session.isActive());
  const auto dir = session.folder();
  ASSERT_TRUE(dir);
  EXPECT_EQ(*dir, h.paths().supportDir() / dir->filename());
  // The helper disappears: the next run starts a new session once (one more prompt).
  ASSERT_EQ(Shell::run("pkill", {"-f", "-KILL", "--", dir->string()}, 5).status, 0);
  auto after = session.run(Op::maintenance(Op::Script::flushDNS));
  EXPECT_EQ(after.stdout.rfind("OK", 0), 0u) << after.stdout;
  EXPECT_EQ(promptCount(tools), 2);
  EXPECT_NE(session.folder(), dir);
  const auto last = session.folder();
  session.end();
  EXPECT_FALSE(session.isActive());
  EXPECT_TRUE(waitFor([&] { return !fs::exists(*last); }, 5));
}

TEST(PrivilegedSession, FallsBackToOneShotCommandsPerOperation) {
  ScratchHome h;
  std::vector<std::pair<std::string, std::string>> calls;
  PrivilegedSession session(h.paths(), prompting([&](const std::string& cmd, const std::string& prompt, double) {
    calls.emplace_back(cmd, prompt);
    Shell::Result r;
    r.status = cmd.find("nohup") != std::string::npos ? 1 : 0;  // the session prompt is cancelled
    r.stderr = r.status ? "User canceled. (-128)" : "";
    return r;
  }));
  const struct Case {
    Op op;
    std::string command;
    std::string prompt;
  } cases[] = {
      {Op::kill(123, 9), "/bin/kill -9 123", "orvo Kestrel: quit an app"},
      {Op::bootout("/Library/LaunchDaemons/it's.plist"), "/bin/launchctl bootout system '/Library/LaunchDaemons/it'\\''s.plist'",
       "orvo Kestrel: stop a background item"},
      {Op::maintenance(Op::Script::rebuildSpotlight), "/usr/bin/mdutil -E /", "orvo Kestrel: run maintenance"},
      {Op::purge(), "/usr/sbin/purge", "orvo Kestrel: free inactive memory"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    calls.clear();
    auto r = session.run(c.op);
    EXPECT_TRUE(r.ok());
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].second, "orvo Kestrel needs permission once for this session.");
    EXPECT_EQ(calls[1], std::make_pair(c.command, c.prompt));
  }
  EXPECT_FALSE(session.folder());
  // A cancelled prompt leaves no session folder behind.
  int leftovers = 0;
  if (fs::exists(h.paths().supportDir()))
    for (auto& e : fs::directory_iterator(h.paths().supportDir())) leftovers += e.path().filename().string().rfind("priv-", 0) == 0;
  EXPECT_EQ(leftovers, 0);
}

TEST(PrivilegedSession, HelperDyingMidOperationEndsTheWait) {
  // A stand-in helper that answers PING, then dies on the operation while a child it started
  // still holds both pipes for a moment. The app must give up once the last holder is gone,
  // not wait out the operation's ten minutes.
  ScratchHome h;
  int prompts = 0;
  PrivilegedSession session(h.paths(), prompting([&](const std::string&, const std::string&, double) {
    ++prompts;
    for (auto& e : fs::directory_iterator(h.paths().supportDir())) {
      if (e.path().filename().string().rfind("priv-", 0) != 0) continue;
      const std::string script =
          "cd \"$1\" || exit 1; exec 4<>out 3<>cmd; "
          "while IFS= read -r line <&3; do case \"$line\" in *' PING') echo OK >&4 ;; "
          "*) sleep 0.5 & exit 0 ;; esac; done";
      const std::string launch =
          "nohup /bin/bash -c " + Text::shellQuote(script) + " responder " +
          Text::shellQuote(e.path().string()) + " </dev/null >/dev/null 2>&1 &";
      return Shell::run("/bin/sh", {"-c", launch}, 5);
    }
    return Shell::Result{1, "", "no session folder"};
  }));
  const auto r = session.run(Op::maintenance(Op::Script::periodicDaily));
  EXPECT_FALSE(r.ok());
  EXPECT_EQ(r.stderr, "The privileged helper did not answer");
  EXPECT_EQ(prompts, 1);
  EXPECT_FALSE(session.isActive());
}

TEST(PrivilegedSession, MissingPromptToolIsTheFallbacksFailure) {
  {
    test::ScopedEnv path("PATH", "");
    if (Shell::which("pkexec")) GTEST_SKIP() << "a real pkexec is installed in a fixed tool folder";
  }
  ScratchHome h;
  FakeTools tools(h.root());
  test::ScopedEnv path("PATH", tools.bin().string());
  PrivilegedSession session(h.paths());
  auto r = session.run(Op::kill(123, 15));
  EXPECT_EQ(r.status, 127);
  EXPECT_EQ(r.stderr, "pkexec not found");
}

TEST(PrivilegedSession, RemoveFallbackKeepsTheHelpersPathRules) {
  ScratchHome h;
  h.file("victim", 5);
  PrivilegedSession session(h.paths(), prompting([&](const std::string& cmd, const std::string&, double) {
    if (cmd.find("nohup") != std::string::npos) return Shell::Result{1, "", "cancelled"};
    return Shell::run("/bin/sh", {"-c", cmd}, 30);  // the one-shot command, run as the test user
  }));
  auto r = session.run(Op::remove({h.path("victim").string()}));
  EXPECT_FALSE(r.ok());
  EXPECT_EQ(r.stdout, "ERR refused " + h.path("victim").string());
  EXPECT_TRUE(fs::exists(h.path("victim")));
}

TEST(PrivilegedSession, HostileHomePathsAreQuotedIntact) {
  ScratchHome h;
  FakeTools tools(h.root());
  fakePkexec(tools);
  const std::string weird = "we'ird \"q\" \\ $(touch pwned) `touch pwned2` \nz";
  const fs::path home = h.folder(weird);
  PrivilegedSession session{Paths(home)};
  auto r = session.run(Op::maintenance(Op::Script::periodicWeekly));
  EXPECT_EQ(r.stdout.rfind("OK", 0), 0u) << r.stderr;
  const auto dir = session.folder();
  ASSERT_TRUE(dir);
  EXPECT_EQ(dir->parent_path(), Paths(home).stateDir());
  session.end();
  EXPECT_FALSE(fs::exists(h.path("pwned")));
  EXPECT_FALSE(fs::exists("pwned"));
  EXPECT_FALSE(fs::exists("pwned2"));
}

TEST(AdminCommand, ScriptQuotingRoundTripsThroughTheScriptLanguage) {
  // Decodes the script language's string literal the way its parser does.
  auto unquote = [](const std::string& lit, size_t& pos) {
    EXPECT_EQ(lit[pos], '"');
    std::string out;
    for (++pos; pos < lit.size() && lit[pos] != '"'; ++pos) {
      if (lit[pos] == '\\') ++pos;
      out += lit[pos];
    }
    ++pos;
    return out;
  };
  const std::string nasty = "/Users/o'neil/\"x\"/back\\slash/$(id)/`id`/new\nline";
  const std::string command = "/bin/echo " + Text::shellQuote(nasty);
  const std::string text = platform::doShellScript(command, "orvo Kestrel needs permission once for this session.");
  ASSERT_EQ(text.rfind("do shell script ", 0), 0u);
  size_t pos = std::string("do shell script ").size();
  const std::string decoded = unquote(text, pos);
  EXPECT_EQ(decoded, command);
  EXPECT_EQ(text.substr(pos), " with administrator privileges with prompt \"orvo Kestrel needs permission once for this session.\"");
  EXPECT_EQ(Shell::run("/bin/sh", {"-c", decoded}, 5).stdout, nasty + "\n");
}

TEST(PrivilegedSession, AttacksOnTheRunningSessionFail) {
  if (::geteuid() != 0) GTEST_SKIP() << "swapping entries of the pinned folder needs root here";
  ScratchHome h;
  FakeTools tools(h.root());
  fakePkexec(tools);
  PrivilegedSession session(h.paths());
  ASSERT_EQ(session.run(Op::maintenance(Op::Script::periodicDaily)).stdout.rfind("OK", 0), 0u);
  const fs::path dir = *session.folder();
  struct stat st;
  ASSERT_EQ(::stat(dir.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0711u);  // pinned
  // Appending to the inspection copy of the script changes nothing that runs.
  std::ofstream(dir / "helper.sh", std::ios::app) << "\ntouch " << Text::shellQuote((h.root() / "appended").string()) << "\n";
  // The token, read from the helper's own command line (bash -c <script> helper <dir> <token> <pid>).
  const auto pids = Shell::run("pgrep", {"-f", "--", dir.string()}, 5);
  ASSERT_TRUE(pids.ok());
  std::string cmdline = test::readText("/proc/" + pids.stdout.substr(0, pids.stdout.find('\n')) + "/cmdline");
  std::vector<std::string> args;
  for (size_t i = 0, j; i < cmdline.size(); i = j + 1) {
    j = cmdline.find('\0', i);
    if (j == std::string::npos) j = cmdline.size();
    args.push_back(cmdline.substr(i, j - i));
  }
  auto at = std::find(args.begin(), args.end(), dir.string());
  ASSERT_TRUE(at != args.end() && at + 1 != args.end());
  const std::string token = *(at + 1);
  ASSERT_EQ(token.size(), 32u);
  // Swapping "out" for a link: replies keep going to the pipe the helper pinned.
  const fs::path canary = h.root() / "canary";
  std::ofstream(canary) << "precious";
  fs::rename(dir / "out", h.root() / "out.saved");
  fs::create_symlink(canary, dir / "out");
  auto r = session.run(Op::maintenance(Op::Script::periodicDaily));
  EXPECT_EQ(test::readText(canary), "precious");
  EXPECT_FALSE(fs::exists(h.root() / "appended"));
  // The app refuses a pipe that is not a FIFO, so that command had no reply; a new session
  // answered instead (a second prompt).
  EXPECT_EQ(r.stdout.rfind("OK", 0), 0u);
  EXPECT_EQ(promptCount(tools), 2);
  EXPECT_EQ(r.stdout.find(token), std::string::npos);
  for (auto& e : fs::recursive_directory_iterator(h.paths().supportDir())) {
    if (e.is_regular_file()) {
      EXPECT_EQ(test::readText(e.path()).find(token), std::string::npos) << e.path();
    }
  }
  session.end();
  // The old helper still serves its swapped folder until told to quit.
  ::kill(std::stoi(pids.stdout), SIGTERM);
}

}  // namespace
}  // namespace kestrel
