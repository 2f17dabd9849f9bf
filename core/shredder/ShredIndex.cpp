// ShredIndex: the duplicate index read and written whole through the store.
#include "core/shredder/ShredIndex.h"

#include <sys/stat.h>

#include "core/store/JSONStore.h"

namespace kestrel {
namespace {

using Entries = std::map<std::string, std::string>;

bool lexists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

}  // namespace

void ShredIndex::load() {
  auto loaded = JSONStore::load<Entries>(file_, [](const Json& j) {
    if (!j.is_object()) throw DecodeError("index: not an object");
    Entries out;
    for (const auto& [k, v] : j.items()) {
      if (!v.is_string()) throw DecodeError("index: a value is not text");
      out[k] = v.get<std::string>();
    }
    return out;
  });
  std::lock_guard<std::mutex> guard(lock_);
  entries_ = loaded.value_or(Entries{});
  saved_ = entries_;
}

void ShredIndex::save() {
  std::lock_guard<std::mutex> guard(lock_);
  std::erase_if(entries_, [](const auto& entry) { return !lexists(entry.second); });
  if (entries_ == saved_ && lexists(file_.string())) return;
  try {
    Json j = Json::object();
    for (const auto& [k, v] : entries_) j[k] = v;
    JSONStore::save(j, file_);
    saved_ = entries_;
  } catch (const std::exception&) {
    // Best effort: the index is rebuilt from the folders by the next sweeps.
  }
}

std::optional<std::string> ShredIndex::find(const std::string& key) const {
  std::lock_guard<std::mutex> guard(lock_);
  const auto it = entries_.find(key);
  if (it == entries_.end()) return std::nullopt;
  return it->second;
}

void ShredIndex::set(const std::string& key, const std::string& path) {
  std::lock_guard<std::mutex> guard(lock_);
  entries_[key] = path;
}

std::set<int64_t> ShredIndex::sizesIn(const std::string& folder) const {
  const std::string prefix = folder + "|";
  std::set<int64_t> out;
  std::lock_guard<std::mutex> guard(lock_);
  for (auto it = entries_.lower_bound(prefix); it != entries_.end() && it->first.rfind(prefix, 0) == 0; ++it) {
    const std::string rest = it->first.substr(prefix.size());
    try {
      out.insert(std::stoll(rest.substr(0, rest.find(':'))));
    } catch (const std::exception&) {
      // a key this engine did not write: no size to learn from it
    }
  }
  return out;
}

std::string ShredIndex::key(const std::string& folder, int64_t size, const std::string& hashText) {
  return folder + "|" + std::to_string(size) + ":" + hashText;
}

}  // namespace kestrel
