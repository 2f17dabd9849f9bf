// Log files cut at a size: the old text copied aside whole, then the log emptied in place.
#include "core/system/fs/LogFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "core/base/UniqueFd.h"
#include "core/system/fs/Durability.h"

namespace kestrel::LogFile {
namespace {

// Copies everything `from` holds into `to`; false on any read or write error.
bool copyAll(int from, int to) {
  std::vector<char> buffer(size_t{1} << 16);
  for (;;) {
    const ssize_t n = ::read(from, buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    for (ssize_t done = 0; done < n;) {
      const ssize_t w = ::write(to, buffer.data() + done, static_cast<size_t>(n - done));
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) return false;
      done += w;
    }
  }
}

}  // namespace

void cutIfLarge(const std::filesystem::path& log, int64_t limit) noexcept {
  try {
    // Never through a link, never blocking on a FIFO put in its place.
    UniqueFd in(::open(log.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st;
    if (!in || ::fstat(in.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= limit) return;
    const std::filesystem::path previous = log.string() + ".1";
    const std::filesystem::path temporary = log.string() + ".1.tmp";
    ::unlink(temporary.c_str());  // left by a cut that was killed
    UniqueFd out(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!out) return;
    // The old text must be safe in its new name before the log is emptied.
    if (!copyAll(in.get(), out.get()) || platform::fullSync(out.get()) || ::rename(temporary.c_str(), previous.c_str()) != 0) {
      ::unlink(temporary.c_str());
      return;
    }
    (void)::ftruncate(in.get(), 0);
  } catch (const std::exception&) {
    // Out of memory for the copy buffer: the log stays as it was, to be cut next time.
  }
}

}  // namespace kestrel::LogFile
