// Shell: posix_spawn with two drained pipes, a polled deadline, terminate-then-kill.
#include "core/system/process/Shell.h"

#include "core/system/process/Process.h"
#include "core/base/UniqueFd.h"
#include "core/base/Text.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>

extern char** environ;

namespace kestrel {
namespace {

constexpr const char* kFixedFolders[] = {"/usr/bin",          "/bin",           "/usr/sbin", "/sbin",
                                         "/opt/homebrew/bin", "/usr/local/bin", "/Applications/Docker.app/Contents/Resources/bin"};

bool isExecutableFile(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

// One output stream's bytes, written by the reader thread and read after it finished.
struct StreamBuffer {
  std::mutex lock;
  std::string bytes;
};

void drain(int outFd, int errFd, StreamBuffer& out, StreamBuffer& err, const std::atomic<bool>& stop) {
  pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
  StreamBuffer* bufs[2] = {&out, &err};
  int open = 2;
  char chunk[65536];
  while (open > 0 && !stop.load()) {
    const int rc = ::poll(fds, 2, 100);
    if (rc < 0) {
      if (errno == EINTR) continue;
      return;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      const ssize_t n = ::read(fds[i].fd, chunk, sizeof chunk);
      if (n > 0) {
        std::lock_guard g(bufs[i]->lock);
        bufs[i]->bytes.append(chunk, static_cast<size_t>(n));
      } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
        fds[i].fd = -1;
        --open;
      }
    }
  }
}

int exitStatus(int wstatus) {
  if (WIFEXITED(wstatus)) return WEXITSTATUS(wstatus);
  if (WIFSIGNALED(wstatus)) return 128 + WTERMSIG(wstatus);
  return 1;
}

}  // namespace


std::optional<std::string> Shell::which(const std::string& name) {
  if (name.empty()) return std::nullopt;
  if (name[0] == '/') return isExecutableFile(name) ? std::optional(name) : std::nullopt;
  if (name.find('/') != std::string::npos) return std::nullopt;
  std::vector<std::string> folders;
  if (const char* path = std::getenv("PATH")) {
    std::string p(path);
    size_t i = 0;
    while (i <= p.size()) {
      size_t j = p.find(':', i);
      if (j == std::string::npos) j = p.size();
      if (j > i) folders.push_back(p.substr(i, j - i));
      i = j + 1;
    }
  }
  for (const char* f : kFixedFolders) folders.emplace_back(f);
  for (const auto& f : folders) {
    std::string candidate = f + "/" + name;
    if (isExecutableFile(candidate)) return candidate;
  }
  return std::nullopt;
}

namespace {

using Clock = std::chrono::steady_clock;

// A started child: its process id (also its process group's) and the read ends of its output.
struct Child {
  pid_t pid = -1;
  UniqueFd out, err;
};

// Starts `path` (in a process group of its own when `ownGroup`), standard input from /dev/null, output into two
// close-on-exec pipes. Nothing, with the error text in `failure`, when it cannot start.
std::optional<Child> spawnChild(const std::string& path, const std::vector<std::string>& arguments,
                                bool ownGroup, std::string& failure) {
  int outPipe[2], errPipe[2];
  if (const auto ec = platform::closeOnExecPipe(outPipe)) {
    failure = ec.message();
    return std::nullopt;
  }
  if (const auto ec = platform::closeOnExecPipe(errPipe)) {
    failure = ec.message();
    ::close(outPipe[0]);
    ::close(outPipe[1]);
    return std::nullopt;
  }
  Child child;
  child.out = UniqueFd(outPipe[0]);
  child.err = UniqueFd(errPipe[0]);
  UniqueFd outWrite(outPipe[1]), errWrite(errPipe[1]);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outWrite.get(), 1);
  posix_spawn_file_actions_adddup2(&actions, errWrite.get(), 2);
  posix_spawnattr_t attrs;
  posix_spawnattr_init(&attrs);
  // The child starts with default signal handling and an empty mask, whatever the agent set up.
  sigset_t all, none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attrs, &all);
  posix_spawnattr_setsigmask(&attrs, &none);
  short flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
  if (ownGroup) {
    posix_spawnattr_setpgroup(&attrs, 0);
    flags |= POSIX_SPAWN_SETPGROUP;
  }
  posix_spawnattr_setflags(&attrs, flags);

  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(path.c_str()));
  for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  const int spawnErr = ::posix_spawn(&child.pid, path.c_str(), &actions, &attrs, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attrs);
  if (spawnErr != 0) {
    failure = std::strerror(spawnErr);
    return std::nullopt;
  }
  return child;
}

// Waits for the child until `deadline`; past it, stops it (with `ownGroup`, its whole process
// group): TERM, then KILL once the grace period is over while anything is left. Returns the wait
// status; `timedOut` tells whether it had to be stopped.
int waitOrStop(pid_t pid, bool ownGroup, Clock::time_point deadline, bool& timedOut) {
  int wstatus = 0;
  bool reaped = false;
  auto poll = [&] {
    if (!reaped && ::waitpid(pid, &wstatus, WNOHANG) == pid) reaped = true;
    return reaped;
  };
  while (!poll() && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  timedOut = !reaped;
  if (!timedOut) return wstatus;
  const pid_t target = ownGroup ? -pid : pid;
  ::kill(target, SIGTERM);
  const auto killAt = Clock::now() + std::chrono::seconds(2);
  // A group lives on while any member does, the leader's zombie included.
  auto gone = [&] { return poll() && (!ownGroup || (::kill(target, 0) != 0 && errno == ESRCH)); };
  while (!gone() && Clock::now() < killAt) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  if (!gone()) ::kill(target, SIGKILL);
  while (!reaped && ::waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
  }
  return wstatus;
}

}  // namespace

Shell::Result Shell::run(const std::string& executable, const std::vector<std::string>& arguments,
                         double timeout, Group group) {
  Result result;
  const auto resolved = which(executable);
  if (!resolved) {
    result.status = 127;
    result.stderr = executable + " not found";
    return result;
  }
  std::string failure;
  const bool ownGroup = group == Group::own;
  auto child = spawnChild(*resolved, arguments, ownGroup, failure);
  if (!child) {
    result.status = 126;
    result.stderr = failure;
    return result;
  }

  StreamBuffer out, err;
  std::atomic<bool> stopReading{false};
  std::atomic<bool> readerDone{false};
  std::thread reader([&] {
    drain(child->out.get(), child->err.get(), out, err, stopReading);
    readerDone.store(true);
  });
  const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                           std::chrono::duration<double>(std::max(0.0, timeout)));
  bool timedOut = false;
  const int wstatus = waitOrStop(child->pid, ownGroup, deadline, timedOut);
  // A grandchild may keep the pipes open; stop reading after a bounded wait.
  const auto readBound = Clock::now() + std::chrono::seconds(2);
  while (!readerDone.load() && Clock::now() < readBound) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  stopReading.store(true);
  reader.join();

  result.status = exitStatus(wstatus);
  {
    std::lock_guard g1(out.lock);
    result.stdout = std::move(out.bytes);
  }
  {
    std::lock_guard g2(err.lock);
    result.stderr = std::move(err.bytes);
  }
  const std::string unreadable = executable + " produced output that could not be read";
  if (!Utf8::isValid(result.stdout)) {
    result.stdout.clear();
    result.stderr = unreadable;
  }
  if (!Utf8::isValid(result.stderr)) result.stderr = unreadable;
  if (timedOut) {
    result.stderr = executable + " timed out after " +
                    std::to_string(static_cast<long long>(timeout)) + "s";
  }
  return result;
}

}  // namespace kestrel
