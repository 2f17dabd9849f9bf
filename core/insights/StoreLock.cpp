// The insight files' read-modify-write lock: a polled, bounded wait on a sibling lock file.
#include "core/insights/StoreLock.h"

#include "core/storage/FS.h"

#include <thread>

namespace kestrel {

std::unique_ptr<FileLock> lockBeside(const std::filesystem::path& url,
                                     std::chrono::milliseconds wait) {
  const auto deadline = std::chrono::steady_clock::now() + wait;
  std::filesystem::path lockURL = url;
  lockURL += ".lock";
  for (;;) {
    if (auto lock = FileLock::acquire(lockURL)) return lock;
    // No folder to hold the lock means the write will fail too: waiting would only delay that.
    if (!FS::isDirectory(url.parent_path())) return nullptr;
    if (std::chrono::steady_clock::now() >= deadline) return nullptr;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace kestrel
