// Store files: whole-file reads that never block, and the atomic, durable replace.
#include "core/system/fs/StoreFile.h"

#include "core/system/fs/Durability.h"
#include "core/system/Paths.h"
#include "core/base/UniqueFd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <random>
#include <system_error>

namespace kestrel::StoreFile {
namespace {

[[noreturn]] void throwErrno(int err, const std::string& what) {
  throw std::system_error(err, std::generic_category(), what);
}

std::string uniqueTempName(const std::string& target) {
  static thread_local std::mt19937_64 rng{std::random_device{}()};
  char buf[32];
  std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(rng()));
  return "." + target + "." + std::to_string(::getpid()) + "." + buf + ".tmp";
}

}  // namespace

FileRead read(const fs::path& url, size_t maxBytes) noexcept {
  FileRead out;
  const auto damaged = [&](std::string reason) {
    out.status = FileRead::Status::damaged;
    out.reason = std::move(reason);
    out.bytes.clear();
    return out;
  };
  // Non-blocking, so a FIFO or device in place of the store answers at once instead of hanging.
  UniqueFd fd(::open(url.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!fd) {
    const int err = errno;
    struct stat st;
    if (err == ENOENT && ::lstat(url.c_str(), &st) != 0) return out;  // nothing there: missing
    if (err == ENOENT) return damaged("it is a link that leads nowhere");
    return damaged(std::generic_category().message(err));
  }
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) return damaged(std::generic_category().message(errno));
  if (!S_ISREG(st.st_mode)) return damaged("not a regular file");
  if (st.st_size < 0 || static_cast<uint64_t>(st.st_size) > maxBytes)
    return damaged("larger than " + std::to_string(maxBytes >> 20) + " MB");
  try {
    out.bytes.reserve(static_cast<size_t>(st.st_size));
    char buf[65536];
    for (;;) {
      const ssize_t n = ::read(fd.get(), buf, sizeof buf);
      if (n < 0) {
        if (errno == EINTR) continue;
        return damaged(std::generic_category().message(errno));
      }
      if (n == 0) break;
      if (out.bytes.size() + static_cast<size_t>(n) > maxBytes)  // it grew while we read
        return damaged("larger than " + std::to_string(maxBytes >> 20) + " MB");
      out.bytes.append(buf, static_cast<size_t>(n));
    }
  } catch (const std::bad_alloc&) {
    return damaged("not enough memory to read it");
  }
  out.status = FileRead::Status::ok;
  return out;
}

std::optional<std::string> readFile(const fs::path& url) noexcept {
  FileRead r = read(url);
  if (!r.ok()) return std::nullopt;
  return std::move(r.bytes);
}

fs::path resolveFinalLinks(const fs::path& url) {
  fs::path current = url;
  // The kernel's own limit on links followed in one lookup; more means a loop.
  for (int hop = 0; hop < 40; ++hop) {
    struct stat st;
    if (::lstat(current.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return current;
    std::string target(PATH_MAX, '\0');
    const ssize_t n = ::readlink(current.c_str(), target.data(), target.size());
    if (n <= 0 || static_cast<size_t>(n) >= target.size()) return current;
    target.resize(static_cast<size_t>(n));
    const fs::path next(target);
    current = standardizedPath(next.is_absolute() ? next : current.parent_path() / next);
  }
  throwErrno(ELOOP, "save " + url.string());
}

bool isTemporaryOf(std::string_view name, std::string_view target) noexcept {
  const std::string prefix = "." + std::string(target) + ".";
  return name.size() > prefix.size() + 4 && name.starts_with(prefix) && name.ends_with(".tmp");
}

void writeAtomically(std::string_view bytes, const fs::path& given) {
  // A store kept as a link elsewhere is replaced where it really lives, so the link survives.
  const fs::path url = resolveFinalLinks(given);
  const fs::path parent = url.parent_path().empty() ? fs::path(".") : url.parent_path();
  fs::create_directories(parent);
  UniqueFd dir(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir) {
    const int err = errno;
    throwErrno(err, "open " + parent.string());
  }
  const std::string name = url.filename().string();
  std::string tmp;
  UniqueFd fd;
  for (int attempt = 0; attempt < 16 && !fd; ++attempt) {
    tmp = uniqueTempName(name);
    fd.reset(::openat(dir.get(), tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!fd && errno != EEXIST) {
      const int err = errno;
      throwErrno(err, "create " + (parent / tmp).string());
    }
  }
  if (!fd) throwErrno(EEXIST, "create " + (parent / tmp).string());
  auto fail = [&](int err, const std::string& what) {
    fd.reset();
    ::unlinkat(dir.get(), tmp.c_str(), 0);  // the target is untouched; drop the partial copy
    throwErrno(err, what);
  };
  size_t off = 0;
  while (off < bytes.size()) {
    const ssize_t n = ::write(fd.get(), bytes.data() + off, bytes.size() - off);
    if (n < 0) {
      if (errno == EINTR) continue;
      fail(errno, "write " + url.string());
    }
    off += static_cast<size_t>(n);
  }
  // A failed flush fails the save: the kernel may have dropped the data already.
  if (const auto ec = platform::fullSync(fd.get())) fail(ec.value(), "fsync " + url.string());
  if (::close(fd.release()) != 0) {
    const int err = errno;
    ::unlinkat(dir.get(), tmp.c_str(), 0);
    throwErrno(err, "close " + url.string());
  }
  if (::renameat(dir.get(), tmp.c_str(), dir.get(), name.c_str()) != 0) {
    const int err = errno;
    ::unlinkat(dir.get(), tmp.c_str(), 0);
    throwErrno(err, "rename " + url.string());
  }
  if (const auto ec = platform::fullSync(dir.get())) throwErrno(ec.value(), "fsync " + parent.string());
}

}  // namespace kestrel::StoreFile
