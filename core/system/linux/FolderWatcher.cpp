// Folder watching on Linux: one inotify descriptor read by one thread that blocks in poll().
#include "core/system/fs/FolderWatcher.h"

#include "core/base/UniqueFd.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <mutex>
#include <thread>

namespace kestrel {
namespace {

// A finished download is a file closed after writing or a rename into the folder (browsers
// rename ".part" files at the end); creation, deletion and moves out change what is duplicated.
constexpr uint32_t kMask = IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_ONLYDIR |
                           IN_DONT_FOLLOW | IN_EXCL_UNLINK;

class InotifyWatcher final : public FolderWatcher {
 public:
  ~InotifyWatcher() override { stop(); }

  size_t watch(const std::vector<std::filesystem::path>& folders, OnChange onChange) override {
    stop();
    UniqueFd in(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    UniqueFd wake(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (in.get() < 0 || wake.get() < 0) return 0;
    std::map<int, std::filesystem::path> byWatch;
    for (const auto& f : folders) {
      const int wd = ::inotify_add_watch(in.get(), f.c_str(), kMask);
      if (wd >= 0) byWatch[wd] = f;
    }
    if (byWatch.empty()) return 0;
    const size_t count = byWatch.size();
    in_ = std::move(in);
    wake_ = std::move(wake);
    thread_ = std::thread([this, byWatch = std::move(byWatch), onChange = std::move(onChange)] {
      run(byWatch, onChange);
    });
    return count;
  }

  void stop() noexcept override {
    if (!thread_.joinable()) return;
    const uint64_t one = 1;
    (void)!::write(wake_.get(), &one, sizeof one);
    thread_.join();
    in_ = UniqueFd();
    wake_ = UniqueFd();
  }

 private:
  void run(const std::map<int, std::filesystem::path>& byWatch, const OnChange& onChange) {
    alignas(inotify_event) char buffer[16384];
    for (;;) {
      pollfd fds[2] = {{in_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
      if (::poll(fds, 2, -1) < 0) {
        if (errno == EINTR) continue;
        return;
      }
      if (fds[1].revents) return;
      const ssize_t n = ::read(in_.get(), buffer, sizeof buffer);
      if (n <= 0) continue;
      // One call per folder per read, however many of its children changed.
      bool overflow = false;
      std::map<int, bool> touched;
      for (ssize_t at = 0; at < n;) {
        const auto* e = reinterpret_cast<const inotify_event*>(buffer + at);
        if (e->mask & IN_Q_OVERFLOW) overflow = true;
        else if (byWatch.count(e->wd)) touched[e->wd] = true;
        at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
      }
      if (overflow) onChange({{}, true});
      for (const auto& [wd, _] : touched) onChange({byWatch.at(wd), false});
    }
  }

  UniqueFd in_, wake_;
  std::thread thread_;
};

}  // namespace

namespace platform {
std::unique_ptr<FolderWatcher> makeFolderWatcher() { return std::make_unique<InotifyWatcher>(); }
}  // namespace platform

}  // namespace kestrel
