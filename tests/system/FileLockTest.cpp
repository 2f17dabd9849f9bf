// FileLock: exclusion across processes, release, and no inheritance by child processes.
#include "core/system/fs/FileLock.h"

#include "core/system/process/Shell.h"
#include "tests/support/ScratchHome.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrel {
namespace {

using test::ScratchHome;

// A child process that takes the lock, reports 'L' (or 'N' when refused), then waits for a byte;
// with `releaseBeforeExit` it then releases, reports 'R' and waits for another byte.
struct Child {
  pid_t pid = -1;
  int toChild = -1, fromChild = -1;
};

Child lockInChild(const fs::path& file, bool releaseBeforeExit) {
  int up[2], down[2];
  EXPECT_EQ(::pipe(up), 0);
  EXPECT_EQ(::pipe(down), 0);
  const pid_t pid = ::fork();
  if (pid == 0) {
    auto lock = FileLock::acquire(file);
    char c = lock ? 'L' : 'N';
    (void)!::write(up[1], &c, 1);
    (void)!::read(down[0], &c, 1);
    if (releaseBeforeExit && lock) {
      lock->release();
      c = 'R';
      (void)!::write(up[1], &c, 1);
      (void)!::read(down[0], &c, 1);
    }
    ::_exit(0);
  }
  ::close(up[1]);
  ::close(down[0]);
  return {pid, down[1], up[0]};
}

char readByte(int fd) {
  char c = 0;
  EXPECT_EQ(::read(fd, &c, 1), 1);
  return c;
}

TEST(FileLock, SecondProcessWaitsForReleaseOrExit) {
  for (bool release : {true, false}) {
    SCOPED_TRACE(release ? "release" : "exit");
    ScratchHome h;
    const fs::path file = h.paths().lockFile();  // the folder does not exist yet
    Child child = lockInChild(file, release);
    ASSERT_EQ(readByte(child.fromChild), 'L');
    EXPECT_TRUE(FileLock::acquire(file).busy());
    EXPECT_TRUE(FileLock::acquire(file, std::chrono::milliseconds(30)).busy());
    char go = 'g';
    ASSERT_EQ(::write(child.toChild, &go, 1), 1);
    if (release) {
      ASSERT_EQ(readByte(child.fromChild), 'R');
      EXPECT_TRUE(FileLock::acquire(file));
      ASSERT_EQ(::write(child.toChild, &go, 1), 1);
    }
    ::waitpid(child.pid, nullptr, 0);
    auto lock = FileLock::acquire(file);
    ASSERT_TRUE(lock);
    EXPECT_TRUE(::fcntl(lock->fd(), F_GETFD) & FD_CLOEXEC);
    ::close(child.toChild);
    ::close(child.fromChild);
  }
}

TEST(FileLock, ChildToolsDoNotInheritTheLock) {
  ScratchHome h;
  auto lock = FileLock::acquire(h.paths().lockFile());
  ASSERT_TRUE(lock);
  // A child that outlives this check would keep an inherited lock; its descriptor list shows none.
  auto r = Shell::run("/bin/sh", {"-c", "ls -l /proc/self/fd"}, 5);
  ASSERT_TRUE(r.ok()) << r.stderr;
  EXPECT_EQ(r.stdout.find("agent.lock"), std::string::npos) << r.stdout;
  lock->release();
  EXPECT_TRUE(FileLock::acquire(h.paths().lockFile()));
}

TEST(FileLock, RefusesALinkAndAFolder) {
  ScratchHome h;
  h.file("real.lock");
  h.link("link.lock", h.path("real.lock"));
  h.folder("dir.lock");
  // Not held by anyone, so the error says why it cannot be opened.
  EXPECT_EQ(FileLock::acquire(h.path("link.lock")).error, std::errc::too_many_symbolic_link_levels);
  EXPECT_EQ(FileLock::acquire(h.path("dir.lock")).error, std::errc::is_a_directory);
}

}  // namespace
}  // namespace kestrel
