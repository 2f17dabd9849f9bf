// Quiet file reads: O_NOATIME where the system has it and the caller owns the file (macOS has no
// such flag; its file system leaves the access times of reads alone).
#include "core/system/fs/QuietRead.h"

#include "core/base/UniqueFd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace kestrel::platform {

std::optional<std::vector<char>> readFileQuietly(const std::filesystem::path& path, size_t maxBytes) noexcept {
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
#ifdef O_NOATIME
  int raw = ::open(path.c_str(), kFlags | O_NOATIME);
  // O_NOATIME is refused on files of other owners; reading them may then touch the access time.
  if (raw < 0 && errno == EPERM) raw = ::open(path.c_str(), kFlags);
#else
  const int raw = ::open(path.c_str(), kFlags);
#endif
  UniqueFd fd(raw);
  if (!fd) return std::nullopt;
  struct stat st;
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  if (st.st_size < 0 || static_cast<size_t>(st.st_size) > maxBytes) return std::nullopt;
  try {
    std::vector<char> out(static_cast<size_t>(st.st_size));
    size_t got = 0;
    while (got < out.size()) {
      const ssize_t n = ::read(fd.get(), out.data() + got, out.size() - got);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    out.resize(got);
    return out;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

}  // namespace kestrel::platform
