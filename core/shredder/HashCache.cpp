// HashCache: one text line per file ("dev ino size mtime ctime hash"), rewritten atomically.
#include "core/shredder/HashCache.h"

#include "core/system/fs/FileStat.h"
#include "core/system/fs/StoreFile.h"

#include <cinttypes>
#include <cstdio>
#include <sstream>

namespace kestrel {
namespace {

int64_t nanos(Date d) { return std::chrono::duration_cast<std::chrono::nanoseconds>(d.time_since_epoch()).count(); }

}  // namespace

void HashCache::load() noexcept {
  entries_.clear();
  changed_ = false;
  const auto read = StoreFile::read(file_, size_t{64} << 20);
  if (!read.ok()) return;
  size_t start = 0;
  const std::string& text = read.bytes;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    unsigned long long dev, ino, hash;
    long long size, mtime, ctime;
    if (std::sscanf(line.c_str(), "%llu %llu %lld %lld %lld %llx", &dev, &ino, &size, &mtime, &ctime, &hash) != 6)
      continue;  // a damaged line only costs a re-read of its file
    entries_[{dev, ino}] = Entry{size, mtime, ctime, hash, false};
  }
}

std::optional<uint64_t> HashCache::find(const struct stat& st) {
  auto it = entries_.find({static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino)});
  if (it == entries_.end()) return std::nullopt;
  Entry& e = it->second;
  if (e.size != static_cast<int64_t>(st.st_size) || e.mtimeNs != nanos(platform::modifiedTime(st)) ||
      e.ctimeNs != nanos(platform::changedTime(st)))
    return std::nullopt;
  e.used = true;
  return e.hash;
}

void HashCache::put(const struct stat& st, uint64_t hash) {
  entries_[{static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino)}] =
      Entry{static_cast<int64_t>(st.st_size), nanos(platform::modifiedTime(st)), nanos(platform::changedTime(st)),
            hash, true};
  changed_ = true;
}

void HashCache::save() noexcept {
  for (auto it = entries_.begin(); it != entries_.end();) {
    if (!it->second.used) {
      it = entries_.erase(it);
      changed_ = true;
    } else {
      it->second.used = false;
      ++it;
    }
  }
  if (!changed_) return;
  try {
    std::string out;
    char line[160];
    for (const auto& [key, e] : entries_) {
      std::snprintf(line, sizeof line, "%llu %llu %lld %lld %lld %016llx\n", static_cast<unsigned long long>(key.first),
                    static_cast<unsigned long long>(key.second), static_cast<long long>(e.size),
                    static_cast<long long>(e.mtimeNs), static_cast<long long>(e.ctimeNs),
                    static_cast<unsigned long long>(e.hash));
      out += line;
    }
    StoreFile::writeAtomically(out, file_);
    changed_ = false;
  } catch (const std::exception&) {
    // Best effort: the next sweep reads the files again.
  }
}

}  // namespace kestrel
