// FolderWatcher: change notifications for a few folders (their direct children), no polling.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

namespace kestrel {

class FolderWatcher {
 public:
  // What one notification says: something in a watched folder changed, or the system dropped
  // notifications (`overflow`) so anything anywhere may have changed.
  struct Change {
    std::filesystem::path folder;  // empty on overflow
    bool overflow = false;
  };
  using OnChange = std::function<void(const Change&)>;

  virtual ~FolderWatcher() = default;
  // Starts watching `folders` (replacing what was watched) and calls `onChange` from the
  // watcher's own thread, never from two threads at once. A folder that cannot be watched is
  // skipped; returns how many are watched. Between changes the watcher sleeps in the kernel.
  virtual size_t watch(const std::vector<std::filesystem::path>& folders, OnChange onChange) = 0;
  // Stops watching; once it returns `onChange` is not running and is never called again.
  virtual void stop() noexcept = 0;
};

namespace platform {
// Linux: inotify (a file closed after writing, created, deleted or moved in or out; a queue
// overflow is reported). macOS: libuv's `uv_fs_event` over FSEvents.
std::unique_ptr<FolderWatcher> makeFolderWatcher();
}  // namespace platform

}  // namespace kestrel
