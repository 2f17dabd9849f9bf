// Runs a body in several forked processes at once, for tests of cross-process locking.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <vector>

namespace kestrel::test {

// Forks `count` children, each running `body(index)` and exiting; waits for all of them and
// returns how many exited cleanly (a child that threw or crashed does not count).
inline int inChildProcesses(int count, const std::function<void(int)>& body) {
  std::vector<pid_t> children;
  for (int p = 0; p < count; ++p) {
    const pid_t pid = ::fork();
    if (pid < 0) break;
    if (pid == 0) {
      try {
        body(p);
      } catch (...) {
        ::_exit(1);
      }
      ::_exit(0);
    }
    children.push_back(pid);
  }
  int clean = 0;
  for (pid_t pid : children) {
    int status = 0;
    if (::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0) ++clean;
  }
  return clean;
}

}  // namespace kestrel::test
