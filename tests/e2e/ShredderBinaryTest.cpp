// End to end: "shred-watch" through the built binary, watching a scratch home's Download folder.
#include "core/clean/Quarantine.h"
#include "core/shredder/ShredderStore.h"
#include "core/system/Shell.h"
#include "tests/e2e/RunAgent.h"
#include "tests/support/FakeTools.h"
#include "tests/support/Wait.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

namespace kestrel::test {
namespace {

// A running "shred-watch" whose standard output goes to a file.
class Watcher {
 public:
  Watcher(const ScratchHome& h, const fs::path& log, const char* layout = "macos") : log_(log) {
    pid_ = ::fork();
    if (pid_ == 0) {
      const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      ::dup2(fd, 1);
      ::setenv("HOME", h.home().c_str(), 1);
      ::setenv("KESTREL_LAYOUT", layout, 1);
      ::execl(KESTREL_AGENT_BINARY, KESTREL_AGENT_BINARY, "shred-watch", static_cast<char*>(nullptr));
      ::_exit(127);
    }
  }
  ~Watcher() {
    if (pid_ > 0 && !exited_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  std::string log() const { return readText(log_); }
  bool logHas(const std::string& text) const { return log().find(text) != std::string::npos; }
  // The exit status once the process ended within `seconds`, else -1.
  int waitExit(double seconds) {
    int status = 0;
    if (!waitFor([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, seconds)) return -1;
    exited_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  void kill9() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    exited_ = true;
  }

 private:
  fs::path log_;
  pid_t pid_ = -1;
  bool exited_ = false;
};

ShredderSettings switchedOn() {
  ShredderSettings s;
  s.approved = true;
  s.enabled = true;
  s.settleSeconds = 0;
  return s;
}

TEST(ShredderBinary, WatchDisposesOfACopiedDuplicateNotifiesAndStopsWhenSwitchedOff) {
  ScratchHome h;
  FakeTools tools(h.root() / "bin");
  tools.tool("notify-send");
  ScopedEnv tick("KESTREL_SHRED_TICK_SECONDS", "1");
  ScopedEnv debounce("KESTREL_SHRED_DEBOUNCE_SECONDS", "0.2");
  // The Linux table, whose Download folder is the localised one user-dirs.dirs names.
  const std::string downloads = "T\u00e9l\u00e9chargements";
  h.text(".config/user-dirs.dirs", "XDG_DOWNLOAD_DIR=\"$HOME/" + downloads + "\"\n");
  h.folder("Desktop");
  h.file(downloads + "/a.zip", 6000);
  h.age(downloads + "/a.zip", 1);
  ShredderStore(h.linuxPaths()).save(switchedOn());

  Watcher watcher(h, h.root() / "shredder.log", "linux");
  ASSERT_TRUE(waitFor([&] { return watcher.logHas("Shredder watching: " + downloads + ", Desktop\n"); }, 10))
      << watcher.log();
  // A copy keeping its date, moved in as a browser finishes a download.
  const fs::path staged = h.outside("stage") / "a.zip";
  ASSERT_EQ(Shell::run("cp", {"-p", h.path(downloads + "/a.zip").string(), staged.string()}, 10).status, 0);
  fs::rename(staged, h.path(downloads + "/a (1).zip"));
  EXPECT_TRUE(waitFor([&] { return watcher.logHas(" shredded a (1).zip — Byte-identical to a.zip, which you already had\n"); }, 10))
      << watcher.log();
  EXPECT_TRUE(waitFor([&] { return !tools.calls("notify-send").empty(); }, 5));
  const auto calls = tools.calls("notify-send");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0], (std::vector<std::string>{"--app-name=orvo Kestrel", "--", "Shredder: 6 KB reclaimed",
                                                 "a (1).zip — Byte-identical to a.zip, which you already had"}));
  EXPECT_FALSE(fs::exists(h.path(downloads + "/a (1).zip")));

  ShredderSettings off = switchedOn();
  off.enabled = false;
  ShredderStore(h.linuxPaths()).save(off);
  EXPECT_EQ(watcher.waitExit(5), 0);

  // Nothing lost: the duplicate comes back from the quarantine in the data folder.
  const auto list = runAgentLinux(h, {"quarantine", "list"});
  ASSERT_FALSE(list.out.empty()) << list.err;
  EXPECT_TRUE(fs::is_directory(h.path(".local/share/orvo-kestrel/Quarantine")));
  EXPECT_EQ(runAgentLinux(h, {"quarantine", "restore", list.out.substr(0, list.out.find('\t'))}).out,
            "Restored.\n");
  EXPECT_EQ(readText(h.path(downloads + "/a (1).zip")), std::string(6000, 'x'));
  EXPECT_FALSE(fs::exists(h.path("Library"))) << "a Linux home gets no ~/Library";
}

// The files moved into the quarantine so far.
size_t quarantined(const ScratchHome& h) {
  size_t n = 0;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(h.paths().quarantineDir(), ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec))
    if (it->path().parent_path().filename() == "items") ++n;
  return n;
}

TEST(ShredderBinary, KilledMidSweepLeavesEveryFileInPlaceOrInTheQuarantine) {
  constexpr size_t kPairs = 300;
  // Killed as soon as this many copies are in the quarantine (0: at once, before any sweep).
  size_t midSweep = 0;
  for (size_t killAfter : {size_t{0}, size_t{1}, kPairs / 2}) {
    SCOPED_TRACE(killAfter);
    ScratchHome h;
    for (size_t i = 0; i < kPairs; ++i) {
      const std::string content(5000 + i, static_cast<char>('a' + i % 26));
      h.text("Downloads/f" + std::to_string(i) + ".bin", content);
      h.age("Downloads/f" + std::to_string(i) + ".bin", 2);
      h.text("Downloads/f" + std::to_string(i) + " (1).bin", content);
      h.age("Downloads/f" + std::to_string(i) + " (1).bin", 1);
    }
    ShredderStore(h.paths()).save(switchedOn());
    {
      Watcher watcher(h, h.root() / "shredder.log");
      const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
      while (killAfter > 0 && quarantined(h) < killAfter && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      watcher.kill9();
    }
    const size_t in = quarantined(h);
    if (in > 0 && in < kPairs) ++midSweep;
    // Whatever the moment, after recovery each copy is in place or restorable.
    Quarantine q(h.paths());
    q.recover(std::chrono::system_clock::now());
    for (const auto& s : q.sessions()) EXPECT_TRUE(q.restore(s.id, std::chrono::system_clock::now()).empty());
    for (size_t i = 0; i < kPairs; ++i) {
      const std::string content(5000 + i, static_cast<char>('a' + i % 26));
      EXPECT_EQ(readText(h.path("Downloads/f" + std::to_string(i) + ".bin")), content);
      EXPECT_EQ(readText(h.path("Downloads/f" + std::to_string(i) + " (1).bin")), content);
    }
  }
  // The kills did land inside a sweep, not only before or after one.
  EXPECT_GE(midSweep, 1u);
}

}  // namespace
}  // namespace kestrel::test
