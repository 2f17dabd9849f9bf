// JSONStore: whole-file reads and the atomic, durable replace every store goes through.
#include "core/storage/JSONStore.h"

#include "core/platform/Durability.h"
#include "core/storage/UniqueFd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <random>
#include <system_error>

namespace kestrel::JSONStore {
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

std::optional<std::string> readFile(const fs::path& url) noexcept {
  UniqueFd fd(::open(url.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!fd) return std::nullopt;
  std::string out;
  char buf[65536];
  for (;;) {
    const ssize_t n = ::read(fd.get(), buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    if (n == 0) break;
    out.append(buf, static_cast<size_t>(n));
  }
  return out;
}

std::optional<Json> loadJson(const fs::path& url) noexcept {
  auto text = readFile(url);
  if (!text) return std::nullopt;
  return JsonText::parse(*text);
}

void writeAtomically(std::string_view bytes, const fs::path& url) {
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
  if (int err = platform::fullSync(fd.get())) fail(err, "fsync " + url.string());
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
  if (int err = platform::fullSync(dir.get())) throwErrno(err, "fsync " + parent.string());
}

void save(const Json& value, const fs::path& url) { writeAtomically(JsonText::pretty(value), url); }

}  // namespace kestrel::JSONStore
