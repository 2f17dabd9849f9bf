// AllowedRoot: a test's own folder under /Library/Caches.
#include "tests/support/AllowedRoot.h"

#include "core/clean/PrivilegedSession.h"
#include "core/system/fs/FileLock.h"

#include <chrono>
#include <thread>

namespace kestrel::test {

namespace fs = std::filesystem;

AllowedRoot::AllowedRoot() {
  // Tests in other processes may be creating or removing /Library at the same time.
  while (!(lock_ = FileLock::acquire("/tmp/kestrel-allowed-root.lock").lock))
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  createdLibrary_ = !fs::exists("/Library");
  createdCaches_ = !fs::exists("/Library/Caches");
  dir_ = fs::path("/Library/Caches") / ("kestrel-test-" + randomHexToken(12));
  fs::create_directories(dir_);
}

AllowedRoot::~AllowedRoot() {
  std::error_code ec;
  fs::remove_all(dir_, ec);  // our own uniquely named test folder
  if (createdCaches_) fs::remove("/Library/Caches", ec);
  if (createdLibrary_) fs::remove("/Library", ec);
}

}  // namespace kestrel::test
