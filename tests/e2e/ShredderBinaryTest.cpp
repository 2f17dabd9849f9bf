// End to end: "shred-watch" through the built binary, watching a scratch home's Download folder.
#include "core/clean/Quarantine.h"
#include "core/shredder/ShredderStore.h"
#include "core/store/ConfigStore.h"
#include "core/system/process/Shell.h"
#include "tests/e2e/RunAgent.h"
#include "tests/support/FakeTools.h"
#include "tests/support/Wait.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <sstream>
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
  // Whether `text` shows up in the log within ten seconds.
  bool says(const std::string& text) const {
    return waitFor([&] { return logHas(text); }, 10);
  }
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
  h.aged(downloads + "/a.zip", 6000, 1);
  ShredderStore(h.linuxPaths()).save(switchedOn());

  Watcher watcher(h, h.root() / "shredder.log", "linux");
  ASSERT_TRUE(watcher.says("Shredder watching: " + downloads + ", Desktop\n")) << watcher.log();
  // A copy keeping its date, moved in as a browser finishes a download.
  const fs::path staged = h.outside("stage") / "a.zip";
  ASSERT_EQ(Shell::run("cp", {"-p", h.path(downloads + "/a.zip").string(), staged.string()}, 10).status, 0);
  fs::rename(staged, h.path(downloads + "/a (1).zip"));
  EXPECT_TRUE(watcher.says(" shredded a (1).zip — Byte-identical to a.zip, which you already had\n")) << watcher.log();
  EXPECT_TRUE(waitFor([&] { return !tools.calls("notify-send").empty(); }, 5));
  EXPECT_EQ(tools.calls("notify-send"), (std::vector<std::vector<std::string>>{
                                            {"--app-name=orvo Kestrel", "--", "Shredder: 6 KB reclaimed",
                                             "a (1).zip — Byte-identical to a.zip, which you already had"}}));
  EXPECT_FALSE(fs::exists(h.path(downloads + "/a (1).zip")));

  ShredderSettings off = switchedOn();
  off.enabled = false;
  ShredderStore(h.linuxPaths()).save(off);
  EXPECT_EQ(watcher.waitExit(5), 0);

  // Nothing lost: the duplicate comes back from the quarantine in the data folder.
  const auto list = runAgentLinux(h, {"quarantine", "list"});
  ASSERT_FALSE(list.out.empty()) << list.err;
  EXPECT_EQ(runAgentLinux(h, {"quarantine", "restore", list.out.substr(0, list.out.find('\t'))}).out, "Restored.\n");
  EXPECT_EQ(readText(h.path(downloads + "/a (1).zip")), std::string(6000, 'x'));
  EXPECT_FALSE(fs::exists(h.path("Library"))) << "a Linux home gets no ~/Library";
}

// How many times `text` occurs in `log`.
size_t count(const std::string& log, const std::string& text) {
  size_t n = 0;
  for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
  return n;
}

// A pair of copies: "<stem>.zip" two days old and "<stem> (1).zip" one day old.
void copies(ScratchHome& h, const std::string& stem, const std::string& content = std::string(6000, 'x')) {
  h.text(stem + ".zip", content);
  h.age(stem + ".zip", 2);
  h.text(stem + " (1).zip", content);
  h.age(stem + " (1).zip", 1);
}

TEST(ShredderBinary, WatchActsOnTheSettingsOfNow) {
  ScratchHome h;
  // No timer tick during the test: only watching the settings can explain what happens.
  ScopedEnv debounce("KESTREL_SHRED_DEBOUNCE_SECONDS", "0.2");
  h.folder("Downloads");
  h.folder("Desktop");
  const Paths paths = h.linuxPaths();
  ShredderStore(paths).save(switchedOn());
  Watcher watcher(h, h.root() / "shredder.log", "linux");
  ASSERT_TRUE(watcher.says("Shredder watching: Downloads, Desktop\n")) << watcher.log();
  // The first sweep, whose disposals are not logged, has ended once it wrote the index.
  ASSERT_TRUE(waitFor([&] { return fs::exists(paths.shredderIndexFile()); }, 10)) << watcher.log();

  // A folder protected a moment ago is left alone; the other watched folder is still swept.
  AppConfig config;
  config.protectedPaths = {"~/Downloads"};
  ConfigStore(paths).save(config);
  copies(h, "Downloads/a");
  copies(h, "Desktop/b");
  ASSERT_TRUE(watcher.says(" shredded b (1).zip")) << watcher.log();
  EXPECT_TRUE(fs::exists(h.path("Downloads/a (1).zip")));

  // Damaged settings stop every disposal and say so. Each change arrives as one rename, so each
  // makes one sweep.
  h.aged("Desktop/c.zip", 6000, 2);
  const auto moveIn = [&](const std::string& rel, const std::string& content, double days) {
    const fs::path staged = h.text("../stage/" + fs::path(rel).filename().string(), content);
    h.age("../stage/" + fs::path(rel).filename().string(), days);
    fs::rename(staged, h.path(rel));
  };
  moveIn(".config/orvo-kestrel/config.json", "{\"protectedPaths\": [", 0);
  const std::string damaged = "Settings file " + paths.configFile().string() + " is damaged (";
  ASSERT_TRUE(waitFor([&] { return count(watcher.log(), damaged) == 1; }, 10)) << watcher.log();
  moveIn("Desktop/c (1).zip", std::string(6000, 'x'), 1);
  ASSERT_TRUE(waitFor([&] { return count(watcher.log(), damaged) == 2; }, 10)) << watcher.log();
  EXPECT_TRUE(fs::exists(h.path("Desktop/c (1).zip")));

  // Switched off from the command line, it stops within a debounce period.
  EXPECT_EQ(runHostBinary(h, {"shredder", "off"}, {"KESTREL_LAYOUT=linux"}).status, 0);
  EXPECT_EQ(watcher.waitExit(5), 0) << watcher.log();
  EXPECT_TRUE(watcher.logHas("Shredder is off; exiting.\n"));
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
    for (size_t i = 0; i < kPairs; ++i)
      copies(h, "Downloads/f" + std::to_string(i), std::string(5000 + i, static_cast<char>('a' + i % 26)));
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
      EXPECT_EQ(readText(h.path("Downloads/f" + std::to_string(i) + ".zip")), content);
      EXPECT_EQ(readText(h.path("Downloads/f" + std::to_string(i) + " (1).zip")), content);
    }
  }
  // The kills did land inside a sweep, not only before or after one.
  EXPECT_GE(midSweep, 1u);
}

// A "shred-now" of its own, on the Linux table with its own settings folder (so two of them
// can hold opposite settings while sharing the home, the state and the quarantine).
pid_t startShredNow(const ScratchHome& h, const fs::path& configHome) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, 1);
    ::setenv("HOME", h.home().c_str(), 1);
    ::setenv("KESTREL_LAYOUT", "linux", 1);
    ::setenv("XDG_CONFIG_HOME", configHome.c_str(), 1);
    ::execl(KESTREL_AGENT_BINARY, KESTREL_AGENT_BINARY, "shred-now", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  return pid;
}

TEST(ShredderBinary, TwoSweepsWithOppositeSettingsNeverDisposeOfBothCopies) {
  constexpr int kRounds = 200;
  std::mt19937 random(20261126);
  std::string content(4 << 20, '\0');
  for (auto& c : content) c = static_cast<char>(random());
  // Kills are spread over twice the time an undisturbed pair takes here (a sanitizer's build is
  // several times slower), so some land while the sweeps run and some after.
  std::chrono::microseconds pairTime{0};
  int killedRunning = 0;
  for (int round = -1; round < kRounds; ++round) {
    SCOPED_TRACE(round);
    ScratchHome h;
    const bool quarantineFirst = round % 2 == 0;
    fs::path configs[2];
    for (int i = 0; i < 2; ++i) {
      configs[i] = h.outside("config" + std::to_string(i));
      ShredderSettings s = switchedOn();
      s.keepNewest = i == 1;
      s.quarantineFirst = quarantineFirst;
      ShredderStore(Paths(h.home(), Layout::linux, {configs[i], {}, {}, {}})).save(s);
    }
    copies(h, "Downloads/report", content);
    const auto started = std::chrono::steady_clock::now();
    const pid_t pids[2] = {startShredNow(h, configs[0]), startShredNow(h, configs[1])};
    if (round >= 0) {
      std::this_thread::sleep_for(std::chrono::microseconds(random() % (2 * pairTime.count() + 1)));
      ::kill(pids[round % 4 < 2 ? 0 : 1], SIGKILL);
    }
    for (pid_t pid : pids) {
      int status = 0;
      ::waitpid(pid, &status, 0);
      if (WIFSIGNALED(status)) ++killedRunning;
    }
    if (round < 0)
      pairTime = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - started);

    const bool older = readText(h.path("Downloads/report.zip")) == content;
    const bool newer = readText(h.path("Downloads/report (1).zip")) == content;
    ASSERT_TRUE(older || newer) << "both copies were disposed of";
    if (!quarantineFirst) continue;
    // Every copy disposed of comes back, through the binary as a user would do it.
    const auto list = runAgentLinux(h, {"quarantine", "list"});
    std::istringstream lines(list.out);
    for (std::string line; std::getline(lines, line);)
      EXPECT_EQ(runAgentLinux(h, {"quarantine", "restore", line.substr(0, line.find('\t'))}).out, "Restored.\n");
    EXPECT_EQ(readText(h.path("Downloads/report.zip")), content);
    EXPECT_EQ(readText(h.path("Downloads/report (1).zip")), content);
  }
  // Some kills landed while the process ran, and some after it had ended.
  EXPECT_GT(killedRunning, 0);
  EXPECT_LT(killedRunning, kRounds);
}

}  // namespace
}  // namespace kestrel::test
