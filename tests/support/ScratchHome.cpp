// ScratchHome and small file helpers for tests.
#include "tests/support/ScratchHome.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kestrel::test {
namespace {

// The developer's own XDG folders must never reach a test, nor the binaries tests start: every
// test process forgets them before the first test runs. The binaries follow the macOS table, as
// ScratchHome::paths does, unless a test asks for the Linux one (KESTREL_LAYOUT=linux).
const bool kEnvironmentSet = [] {
  for (const char* name : {"XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME",
                           "XDG_RUNTIME_DIR", "XDG_CONFIG_DIRS", "XDG_DATA_DIRS"})
    ::unsetenv(name);
  ::setenv("KESTREL_LAYOUT", "macos", 1);
  // Other volumes' Trash folders are looked for only below this (no) folder, so a test's clean
  // never reaches a real mounted disk; a test with a scratch volume points it at its own.
  ::setenv("KESTREL_VOLUMES_ROOT", "/nonexistent-kestrel-test-volumes", 1);
  // Nor the system's crash reports: a test that wants some makes its own system folder.
  ::setenv("KESTREL_SYSTEM_ROOT", "/nonexistent-kestrel-test-system", 1);
  return true;
}();

// Container and simulator tools installed on the developer's machine must never run from a test
// (a scan runs them): every test process, and every binary it starts, finds these stand-ins first
// on PATH, which answer like an engine that is not running. Tests that need a tool put their own
// fake before them.
class ToolStandIns {
 public:
  ToolStandIns() {
    std::string tmpl = (fs::temp_directory_path() / "kestrel-tool-stand-ins-XXXXXX").string();
    if (!::mkdtemp(tmpl.data())) return;
    folder_ = tmpl;
    owner_ = ::getpid();
    for (const char* tool : {"docker", "podman", "xcrun"}) {
      const fs::path p = folder_ / tool;
      std::ofstream f(p);
      f << "#!/bin/sh\necho \"" << tool << ": the test stand-in does not run\" >&2\nexit 1\n";
      f.close();
      ::chmod(p.c_str(), 0755);
    }
    const char* old = std::getenv("PATH");
    ::setenv("PATH", (folder_.string() + ":" + (old ? old : "/usr/bin:/bin")).c_str(), 1);
  }
  ~ToolStandIns() {
    std::error_code ec;
    // Only the process that made it: a forked test child leaving must not take it away.
    if (!folder_.empty() && ::getpid() == owner_) fs::remove_all(folder_, ec);
  }

 private:
  fs::path folder_;
  pid_t owner_ = 0;
};
const ToolStandIns kToolStandIns;

}  // namespace

ScratchHome::ScratchHome() {
  std::string tmpl = (fs::temp_directory_path() / "kestrel test é-XXXXXX").string();
  if (!::mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
  root_ = tmpl;
  home_ = root_ / "home";
  fs::create_directories(home_);
}

ScratchHome::~ScratchHome() {
  // Tests make read-only trees (like the Go module cache); open them up so removal succeeds.
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(root_, fs::directory_options::skip_permission_denied, ec);
       it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (ec) break;
    if (it->is_directory(ec) && !it->is_symlink(ec)) ::chmod(it->path().c_str(), 0755);
  }
  ::chmod(root_.c_str(), 0755);
  fs::remove_all(root_, ec);  // our own temporary folder, never a user's
}

fs::path ScratchHome::file(std::string_view rel, int64_t bytes) {
  return text(rel, std::string(static_cast<size_t>(bytes), 'x'));
}

fs::path ScratchHome::text(std::string_view rel, std::string_view content) {
  const fs::path p = path(rel);
  fs::create_directories(p.parent_path());
  std::ofstream f(p, std::ios::binary | std::ios::trunc);
  f.write(content.data(), static_cast<std::streamsize>(content.size()));
  if (!f) throw std::runtime_error("cannot write " + p.string());
  return p;
}

fs::path ScratchHome::folder(std::string_view rel) {
  const fs::path p = path(rel);
  fs::create_directories(p);
  return p;
}

fs::path ScratchHome::link(std::string_view rel, const fs::path& target) {
  const fs::path p = path(rel);
  fs::create_directories(p.parent_path());
  fs::create_symlink(target, p);
  return p;
}

fs::path ScratchHome::oldFolder(std::string_view rel, int64_t bytes, double days) {
  const std::string blob = std::string(rel) + "/blob";
  file(blob, bytes);
  age(blob, days);
  age(rel, days);
  return path(rel);
}

void ScratchHome::age(std::string_view rel, double days, Date now) {
  const fs::path p = path(rel);
  const auto t = now - std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(days * 86400.0));
  const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count();
  timespec ts[2];
  ts[0].tv_sec = ts[1].tv_sec = static_cast<time_t>(ns / 1000000000);
  ts[0].tv_nsec = ts[1].tv_nsec = static_cast<long>(ns % 1000000000);
  if (ts[0].tv_nsec < 0) {
    ts[0].tv_nsec = ts[1].tv_nsec = ts[0].tv_nsec + 1000000000;
    ts[0].tv_sec = ts[1].tv_sec = ts[0].tv_sec - 1;
  }
  if (::utimensat(AT_FDCWD, p.c_str(), ts, AT_SYMLINK_NOFOLLOW) != 0)
    throw std::runtime_error("cannot set times of " + p.string());
}

fs::path ScratchHome::aged(std::string_view rel, int64_t bytes, double days, Date now) {
  const fs::path p = file(rel, bytes);
  for (fs::path r(rel); !r.empty(); r = r.parent_path()) age(r.string(), days, now);
  return p;
}

fs::path ScratchHome::outside(std::string_view rel) {
  const fs::path p = root_ / "outside" / fs::path(rel);
  fs::create_directories(p);
  return p;
}

ScopedEnv::ScopedEnv(const char* name, const std::string& value) : name_(name) {
  if (const char* v = std::getenv(name)) {
    had_ = true;
    old_ = v;
  }
  ::setenv(name, value.c_str(), 1);
}

ScopedEnv::~ScopedEnv() {
  if (had_) ::setenv(name_.c_str(), old_.c_str(), 1);
  else ::unsetenv(name_.c_str());
}

std::string readText(const fs::path& p) {
  std::ifstream f(p, std::ios::binary);
  std::ostringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

bool disown(const fs::path& p) {
  // Only root can give a file away; other runs skip what needs it.
  return ::geteuid() == 0 && ::lchown(p.c_str(), 65534, 65534) == 0;
}

std::map<std::string, std::string> treeListing(const fs::path& root) {
  std::map<std::string, std::string> out;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec)) {
    struct stat st;
    if (::lstat(it->path().c_str(), &st) != 0) continue;
    out[fs::relative(it->path(), root).string()] = std::to_string(st.st_mode) + ' ' + std::to_string(st.st_size) +
                                                   ' ' + std::to_string(st.st_mtim.tv_sec) + '.' +
                                                   std::to_string(st.st_mtim.tv_nsec);
  }
  return out;
}

bool lexists(const fs::path& p) {
  struct stat st;
  return ::lstat(p.c_str(), &st) == 0;
}

}  // namespace kestrel::test
