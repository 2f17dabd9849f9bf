// Shell: posix_spawn with two drained pipes, a polled deadline, terminate-then-kill.
#include "core/system/Shell.h"

#include "core/system/Process.h"
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
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
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

Shell::Result Shell::run(const std::string& executable, const std::vector<std::string>& arguments,
                         double timeout) {
  Result result;
  const auto resolved = which(executable);
  if (!resolved) {
    result.status = 127;
    result.stderr = executable + " not found";
    return result;
  }

  int outPipe[2], errPipe[2];
  if (int e = platform::closeOnExecPipe(outPipe)) {
    result.status = 126;
    result.stderr = std::strerror(e);
    return result;
  }
  if (int e = platform::closeOnExecPipe(errPipe)) {
    result.status = 126;
    result.stderr = std::strerror(e);
    ::close(outPipe[0]);
    ::close(outPipe[1]);
    return result;
  }
  UniqueFd outRead(outPipe[0]), outWrite(outPipe[1]), errRead(errPipe[0]), errWrite(errPipe[1]);

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
  posix_spawnattr_setflags(&attrs, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(resolved->c_str()));
  for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);

  pid_t pid = -1;
  const int spawnErr = ::posix_spawn(&pid, resolved->c_str(), &actions, &attrs, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attrs);
  outWrite.reset();
  errWrite.reset();
  if (spawnErr != 0) {
    result.status = 126;
    result.stderr = std::strerror(spawnErr);
    return result;
  }

  StreamBuffer out, err;
  std::atomic<bool> stopReading{false};
  std::atomic<bool> readerDone{false};
  std::thread reader([&] {
    drain(outRead.get(), errRead.get(), out, err, stopReading);
    readerDone.store(true);
  });

  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  const auto deadline = start + std::chrono::duration_cast<Clock::duration>(
                                    std::chrono::duration<double>(std::max(0.0, timeout)));
  int wstatus = 0;
  bool exited = false, timedOut = false;
  auto poll = [&]() {
    const pid_t r = ::waitpid(pid, &wstatus, WNOHANG);
    if (r == pid) exited = true;
    return exited;
  };
  while (!poll() && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  if (!exited) {
    timedOut = true;
    ::kill(pid, SIGTERM);
    const auto killAt = Clock::now() + std::chrono::seconds(2);
    while (!poll() && Clock::now() < killAt) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (!exited) {
      ::kill(pid, SIGKILL);
      while (::waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
      }
      exited = true;
    }
  }
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
