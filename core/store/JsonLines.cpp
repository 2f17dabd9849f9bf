// JsonLines: whole-line appends through O_APPEND and block-wise tolerant reads in both directions.
#include "core/store/JsonLines.h"

#include "core/base/UniqueFd.h"
#include "core/system/fs/Durability.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace kestrel {
namespace {

constexpr size_t kBlock = 1 << 20;

bool isBlank(std::string_view line) {
  return std::all_of(line.begin(), line.end(),
                     [](char c) { return c == ' ' || c == '\t' || c == '\r'; });
}

// Opens the file as every reader and the writer do: a final symbolic link is followed (users keep
// store files as links), the open never blocks (a FIFO in its place answers at once) and only a
// regular file is kept; anything else gives no descriptor.
// A new file is created only where nothing stands: never through a link that leads nowhere, which
// would make a file wherever that link points.
UniqueFd openLines(const std::filesystem::path& url, int flags, struct stat& st) {
  constexpr int kAlways = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  UniqueFd fd(::open(url.c_str(), (flags & ~O_CREAT) | kAlways));
  if (!fd && errno == ENOENT && (flags & O_CREAT)) {
    fd.reset(::open(url.c_str(), flags | O_EXCL | O_NOFOLLOW | kAlways, 0600));
    // Another appender made it first: use theirs.
    if (!fd && errno == EEXIST) fd.reset(::open(url.c_str(), (flags & ~O_CREAT) | kAlways));
  }
  if (fd && (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))) fd.reset();
  return fd;
}

void offer(std::string_view line, const JsonLines::Take& take, JsonLines::ReadCount& count) {
  if (line.size() > JsonLines::kMaxLine) {
    ++count.skipped;
  } else if (!isBlank(line)) {
    ++(take(line) ? count.taken : count.skipped);
  }
}

}  // namespace

bool JsonLines::append(const std::vector<std::string>& lines, bool durable) const noexcept {
  if (lines.empty()) return true;
  try {
    std::string buffer;
    for (const auto& line : lines) {
      buffer += line;
      buffer += '\n';
    }
    std::error_code ec;
    std::filesystem::create_directories(url_.parent_path(), ec);  // a failure shows in open below
    struct stat st;
    UniqueFd fd = openLines(url_, O_WRONLY | O_APPEND | O_CREAT, st);
    if (!fd) return false;
    if (st.st_size > 0) {
      // A writer killed mid-line leaves a torn record; never glue ours onto it. The write
      // descriptor cannot read, so a second one looks, after checking it is the same file.
      struct stat rs;
      UniqueFd reader = openLines(url_, O_RDONLY, rs);
      char last = '\n';
      if (reader && rs.st_dev == st.st_dev && rs.st_ino == st.st_ino &&
          ::pread(reader.get(), &last, 1, rs.st_size - 1) == 1 && last != '\n') {
        buffer.insert(buffer.begin(), '\n');
      }
    }
    // One write per batch, so concurrent appenders never interleave inside a line.
    ssize_t n;
    do {
      n = ::write(fd.get(), buffer.data(), buffer.size());
    } while (n < 0 && errno == EINTR);
    // The record is written; a failed flush only weakens what a power cut may lose of it.
    if (n > 0 && durable) (void)platform::fullSync(fd.get());
    return n == static_cast<ssize_t>(buffer.size());
  } catch (const std::exception&) {
    return false;  // out of memory while gathering the lines
  }
}

JsonLines::ReadCount JsonLines::readAll(const Take& take) const {
  ReadCount count;
  struct stat st;
  UniqueFd fd = openLines(url_, O_RDONLY, st);
  if (!fd) return count;
  std::string buf(kBlock, '\0');
  std::string carry;
  bool skipping = false;  // inside a line longer than kMaxLine
  for (;;) {
    const ssize_t r = ::read(fd.get(), buf.data(), buf.size());
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    std::string_view chunk(buf.data(), static_cast<size_t>(r));
    size_t start = 0;
    for (;;) {
      const size_t nl = chunk.find('\n', start);
      if (nl == std::string_view::npos) break;
      std::string_view piece = chunk.substr(start, nl - start);
      if (skipping) {
        skipping = false;
        ++count.skipped;
      } else if (!carry.empty()) {
        carry.append(piece);
        offer(carry, take, count);
        carry.clear();
      } else {
        offer(piece, take, count);
      }
      start = nl + 1;
    }
    if (!skipping) carry.append(chunk.substr(start));
    if (carry.size() > kMaxLine) {
      carry.clear();
      skipping = true;
    }
  }
  if (skipping) {
    ++count.skipped;
  } else {
    offer(carry, take, count);
  }
  return count;
}

JsonLines::ReadCount JsonLines::readNewestFirst(size_t limit, const Take& take) const {
  ReadCount count;
  if (limit == 0) return count;
  struct stat st;
  UniqueFd fd = openLines(url_, O_RDONLY, st);
  if (!fd) return count;
  // Walk backwards block by block; `carry` holds the start of a line whose beginning is further
  // back.
  off_t pos = st.st_size;
  std::string carry;
  bool carryTooLong = false;
  std::string block;
  while (pos > 0 && count.taken < limit) {
    const size_t n = static_cast<size_t>(std::min<off_t>(pos, static_cast<off_t>(kBlock)));
    pos -= static_cast<off_t>(n);
    block.resize(n);
    size_t got = 0;
    while (got < n) {
      const ssize_t r =
          ::pread(fd.get(), block.data() + got, n - got, pos + static_cast<off_t>(got));
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) return count;
      got += static_cast<size_t>(r);
    }
    std::string data = block + carry;
    size_t end = data.size();
    for (;;) {
      const size_t nl = end == 0 ? std::string::npos : data.rfind('\n', end - 1);
      if (nl == std::string::npos) break;
      if (carryTooLong && end == data.size()) {
        ++count.skipped;
      } else {
        offer(std::string_view(data).substr(nl + 1, end - nl - 1), take, count);
      }
      if (end == data.size()) carryTooLong = false;
      end = nl;
      if (count.taken >= limit) return count;
    }
    carry.assign(data, 0, end);
    if (carry.size() > kMaxLine) {
      carry.clear();
      carryTooLong = true;
    }
  }
  if (pos == 0 && count.taken < limit) {
    if (carryTooLong) {
      ++count.skipped;
    } else {
      offer(carry, take, count);
    }
  }
  return count;
}

}  // namespace kestrel
