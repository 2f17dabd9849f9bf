// The root helper driven directly over its pipes: every reply of the wire table, and each
// hostile input failing. RM cases that need an allowed root run only as root, in their own
// uniquely named folder under /Library/Caches (removed afterwards).
#include "core/base/Text.h"
#include "core/clean/AdminCommand.h"
#include "core/clean/PrivilegedSession.h"
#include "tests/support/AllowedRoot.h"
#include "tests/support/ScratchHome.h"
#include "tests/support/Wait.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <atomic>
#include <fstream>
#include <thread>

extern char** environ;

namespace kestrel {
namespace embedded {
extern const std::string_view helperScript;
}
namespace {

using test::ScratchHome;
using test::waitFor;
namespace fs = std::filesystem;

pid_t spawn(const std::vector<std::string>& argv) {
  std::vector<char*> a;
  for (const auto& s : argv) a.push_back(const_cast<char*>(s.c_str()));
  a.push_back(nullptr);
  pid_t pid = -1;
  EXPECT_EQ(::posix_spawn(&pid, a[0], nullptr, nullptr, a.data(), environ), 0);
  return pid;
}

// A helper started with bash as the test user (root in CI) on a scratch session folder.
class Helper {
 public:
  // `wrapper` runs the helper inside something else (a PID namespace); the app pid is `appPid`.
  Helper(const fs::path& dir, pid_t appPid, const std::vector<std::string>& wrapper = {})
      : dir_(dir), token_(randomHexToken()) {
    fs::create_directories(dir_);
    ::chmod(dir_.c_str(), 0700);
    ::mkfifo((dir_ / "cmd").c_str(), 0600);
    ::mkfifo((dir_ / "out").c_str(), 0600);
    std::vector<std::string> argv = wrapper;
    for (auto s : {std::string("/bin/bash"), std::string("-c"), std::string(embedded::helperScript), std::string("helper"),
                   dir_.string(), token_, std::to_string(appPid)})
      argv.push_back(s);
    pid_ = spawn(argv);
    EXPECT_TRUE(waitFor([&] { return send("PING", 1).has_value(); }, 10)) << "helper did not start";
  }
  ~Helper() {
    if (pid_ > 0) {
      send("QUIT", 3);
      if (!waitFor([&] { return ::waitpid(pid_, nullptr, WNOHANG) == pid_; }, 5)) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
      }
    }
  }

  // Sends "<token> <rest>" (or the raw line) and returns the reply line.
  std::optional<std::string> send(const std::string& rest, double timeout = 10, bool raw = false) {
    const int cmd = ::open((dir_ / "cmd").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (cmd < 0) return std::nullopt;
    const int out = ::open((dir_ / "out").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    char buf[8192];
    while (out >= 0 && ::read(out, buf, sizeof buf) > 0) {
    }
    const std::string line = (raw ? rest : token_ + " " + rest) + "\n";
    ::fcntl(cmd, F_SETFL, 0);
    size_t off = 0;
    while (off < line.size()) {
      const ssize_t n = ::write(cmd, line.data() + off, line.size() - off);
      if (n <= 0) break;
      off += static_cast<size_t>(n);
    }
    ::close(cmd);
    std::string reply;
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout);
    while (out >= 0 && std::chrono::steady_clock::now() < end && reply.find('\n') == std::string::npos) {
      pollfd p{out, POLLIN, 0};
      if (::poll(&p, 1, 100) > 0) {
        const ssize_t n = ::read(out, buf, sizeof buf);
        if (n > 0) reply.append(buf, static_cast<size_t>(n));
      }
    }
    if (out >= 0) ::close(out);
    if (reply.empty()) return std::nullopt;
    return reply.substr(0, reply.find('\n'));
  }

  const std::string& token() const { return token_; }
  pid_t pid() const { return pid_; }
  void forget() { pid_ = -1; }

 private:
  fs::path dir_;
  std::string token_;
  pid_t pid_ = -1;
};

std::string b64(const std::string& s) { return Text::base64(s); }

TEST(HelperScript, AnswersTheWireTable) {
  ScratchHome h;
  Helper helper(h.path("priv-test"), ::getpid());
  std::string offByOne = helper.token();
  offByOne.back() = offByOne.back() == 'a' ? 'b' : 'a';
  const struct Case {
    std::string line;
    std::string reply;
    bool raw = false;
  } cases[] = {
      {"PING", "OK"},
      {offByOne + " PING", "ERR bad-token", true},
      {"PING", "OK"},  // still serving after a bad token
      {"FROB", "ERR unknown-op"},
      {"", "ERR unknown-op"},
      {"SCRIPT bogus", "ERR unknown-script"},
      {"KILL 9 12a", "ERR bad-args"},
      {"KILL 9", "ERR bad-args"},
      {"BOOTOUT " + b64(h.path("x.plist").string()), "ERR refused " + h.path("x.plist").string()},
      {"BOOTOUT " + b64("/Library/LaunchDaemons/../x.plist"), "ERR refused /Library/LaunchDaemons/../x.plist"},
      {"RM " + b64(h.path("victim").string()), "ERR refused " + h.path("victim").string()},
      {"RM !!!", "ERR refused !!!"},
  };
  h.file("victim", 10);
  for (const auto& c : cases) EXPECT_EQ(helper.send(c.line, 10, c.raw), c.reply) << c.line;
  EXPECT_TRUE(fs::exists(h.path("victim")));
  // Too long a line is refused without being held, and the helper keeps serving.
  EXPECT_EQ(helper.send("PING " + std::string(100 * 1024, 'A'), 10), "ERR unknown-op");
  EXPECT_EQ(helper.send("PING"), "OK");
  EXPECT_EQ(helper.send("QUIT"), "OK");
  EXPECT_TRUE(waitFor([&] { return ::waitpid(helper.pid(), nullptr, WNOHANG) == helper.pid(); }, 5));
  helper.forget();
  EXPECT_FALSE(fs::exists(h.path("priv-test")));
}

TEST(HelperScript, QuitsAndCleansUpWhenTheAppIsGone) {
  ScratchHome h;
  const pid_t app = spawn({"/bin/sleep", "300"});
  Helper helper(h.path("priv-gone"), app);
  h.file("priv-gone/stranger", 1);  // an unknown entry is never removed
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the helper is back in its read
  ::kill(app, SIGKILL);
  ::waitpid(app, nullptr, 0);
  EXPECT_TRUE(waitFor([&] { return ::waitpid(helper.pid(), nullptr, WNOHANG) == helper.pid(); }, 25));
  helper.forget();
  EXPECT_FALSE(fs::exists(h.path("priv-gone/cmd")));
  EXPECT_FALSE(fs::exists(h.path("priv-gone/out")));
  EXPECT_TRUE(fs::exists(h.path("priv-gone/stranger")));
}

TEST(HelperScript, KillRefusesInitItselfAndOddSignals) {
  if (!Shell::which("unshare") || ::geteuid() != 0) GTEST_SKIP() << "needs root and unshare for a PID namespace";
  ScratchHome h;
  // Inside its own PID namespace the helper is pid 1 (its own app pid, so it stays) and a sleep
  // the wrapper started is its child, so no mistake can reach the machine's real processes.
  const std::string wrapper = "/bin/sleep 300 & echo $! > " +
                              Text::shellQuote((h.root() / "sleep.pid").string()) + "; exec \"$0\" \"$@\"";
  Helper helper(h.path("priv-ns"), 1, {"/usr/bin/unshare", "--pid", "--fork", "--mount-proc", "/bin/bash", "-c", wrapper});
  const std::string sleepPid = std::to_string(std::stoi(test::readText(h.root() / "sleep.pid")));
  const struct Case {
    std::string line;
    std::string reply;
  } cases[] = {
      {"KILL 9 1", "ERR bad-args"},     // init of the namespace, and the helper itself
      {"KILL 9 0", "ERR bad-args"},     // a process group
      {"KILL 99 " + sleepPid, "ERR bad-args"},
      {"KILL 0 " + sleepPid, "ERR bad-args"},
      {"KILL 9 99999999999999999999", "ERR bad-args"},
      {"PING", "OK"},
      {"KILL 15 " + sleepPid, "OK"},
  };
  for (const auto& c : cases) EXPECT_EQ(helper.send(c.line), c.reply) << c.line;
}

void writeFile(const fs::path& p, const std::string& text = "x") {
  fs::create_directories(p.parent_path());
  std::ofstream(p) << text;
}

TEST(HelperScript, RemovesOnlyWhatThePathRulesAllow) {
  if (::geteuid() != 0) GTEST_SKIP() << "RM cases need root to use an allowed system location";
  ScratchHome h;
  test::AllowedRoot root;
  const fs::path canary = h.outside("canary");
  writeFile(canary / "keep", "precious");
  writeFile(h.root() / "outside" / "victim", "precious");
  const fs::path d = root.dir();
  writeFile(d / "a b" / "inner");
  writeFile(d / "plain");
  fs::create_directory_symlink(canary, d / "link");
  fs::create_directory_symlink(h.root() / "outside", d / "lnk");
  writeFile(d / "nulpart");
  Helper helper(h.path("priv-rm"), ::getpid());
  const struct Case {
    std::string path;  // decoded path sent
    bool removed;      // the whole line succeeds
  } cases[] = {
      {"/Library/Caches//", false},
      {"/Applications/", false},
      {d.string() + "/", false},
      {d.string() + "/./plain", false},
      {d.string() + "/link/", false},                    // trailing slash through a link
      {d.string() + "/lnk/victim", false},               // intermediate link
      {d.string() + "/../" + d.filename().string(), false},
      {d.string() + "/plain\n", false},                  // newline
      {d.string() + "/plain" + std::string(1, '\0') + "/../x", false},
      {std::string(1100, 'a'), false},
      {d.string() + "/link", true},                      // the link itself, never its target
      {d.string() + "/a b", true},                       // blanks travel intact
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    auto reply = helper.send("RM " + b64(c.path));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->rfind(c.removed ? "OK removed 1" : "ERR refused", 0), 0u) << *reply;
    EXPECT_EQ(reply->find('\n'), std::string::npos);
  }
  EXPECT_EQ(test::readText(canary / "keep"), "precious");
  EXPECT_EQ(test::readText(h.root() / "outside" / "victim"), "precious");
  EXPECT_TRUE(fs::exists(d / "plain"));
  EXPECT_FALSE(fs::exists(d / "a b"));
  EXPECT_FALSE(fs::is_symlink(d / "link"));
  // One allowed and one refused path: the first goes, the reply names the second.
  writeFile(d / "go");
  const std::string refused = h.path("victim2").string();
  writeFile(refused);
  EXPECT_EQ(helper.send("RM " + b64((d / "go").string()) + " " + b64(refused)), "ERR refused " + refused);
  EXPECT_FALSE(fs::exists(d / "go"));
  EXPECT_TRUE(fs::exists(refused));
  EXPECT_EQ(helper.send("RM " + b64((d / "plain").string()) + " " + b64((d / "nulpart").string())), "OK removed 2");
}

TEST(HelperScript, RefusesASessionFolderThatIsNotTheAppsOwn) {
  ScratchHome h;
  // A folder the helper must never take over: its mode, owner and content stay as they are.
  const fs::path victim = h.outside("victim");
  writeFile(victim / "helper.sh", "keep");
  ::mkfifo((victim / "cmd").c_str(), 0600);
  ::mkfifo((victim / "out").c_str(), 0600);
  ::chmod(victim.c_str(), 01777);
  h.link("priv-link", victim);
  const fs::path wrongName = h.folder("session-x");
  ::mkfifo((wrongName / "cmd").c_str(), 0600);
  ::mkfifo((wrongName / "out").c_str(), 0600);
  const fs::path otherOwner = h.folder("priv-other");
  ::mkfifo((otherOwner / "cmd").c_str(), 0600);
  ::mkfifo((otherOwner / "out").c_str(), 0600);
  const bool canChown = ::geteuid() == 0 && ::chown(otherOwner.c_str(), 65534, 65534) == 0;
  struct Case {
    fs::path dir;
    fs::path real;
    mode_t mode;
  };
  std::vector<Case> cases = {{h.path("priv-link"), victim, 01777}, {wrongName, wrongName, 0755}};
  if (canChown) cases.push_back({otherOwner, otherOwner, 0755});
  for (const auto& c : cases) {
    SCOPED_TRACE(c.dir.string());
    auto r = Shell::run("/bin/bash", {"-c", std::string(embedded::helperScript), "helper", c.dir.string(), randomHexToken(), std::to_string(::getpid())}, 10);
    EXPECT_EQ(r.status, 1);
    struct stat st;
    ASSERT_EQ(::stat(c.real.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, c.mode);
    EXPECT_TRUE(fs::exists(c.real / "cmd"));
  }
  EXPECT_EQ(test::readText(victim / "helper.sh"), "keep");
}

TEST(HelperScript, RemovalRacingALinkSwapStaysInside) {
  if (::geteuid() != 0) GTEST_SKIP() << "RM cases need root to use an allowed system location";
  ScratchHome h;
  test::AllowedRoot root;
  const fs::path outside = h.outside("target");
  const fs::path a = root.dir() / "a";
  Helper helper(h.path("priv-race"), ::getpid());
  std::atomic<bool> stop{false};
  std::thread attacker([&] {
    const fs::path moved = root.dir() / "a.moved";
    while (!stop.load()) {
      std::error_code ec;
      fs::rename(a, moved, ec);
      if (ec) continue;
      fs::create_directory_symlink(outside, a, ec);
      std::this_thread::sleep_for(std::chrono::microseconds(50));
      fs::remove(a, ec);
      fs::rename(moved, a, ec);
    }
  });
  int breaches = 0;
  for (int i = 0; i < 200; ++i) {
    writeFile(outside / "victim", "precious");
    std::error_code ec;
    fs::create_directories(a, ec);
    writeFile(a / "victim", "junk");
    helper.send("RM " + b64((a / "victim").string()));
    breaches += !fs::exists(outside / "victim");
  }
  stop = true;
  attacker.join();
  EXPECT_EQ(breaches, 0);
}

}  // namespace
}  // namespace kestrel
