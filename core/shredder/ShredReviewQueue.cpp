// ShredReviewQueue: a JSON array of candidates changed under the store's lock.
#include "core/shredder/ShredReviewQueue.h"

#include "core/store/JSONStore.h"

#include <sys/stat.h>

#include <algorithm>

namespace kestrel {
namespace {

using List = std::vector<ShredCandidate>;

List decodeList(const Json& j) {
  if (!j.is_array()) throw DecodeError("review queue: not an array");
  List out;
  for (const auto& c : j) out.push_back(shredCandidateFromJson(c));
  return out;
}

Json encodeList(const List& list) { return toJsonArray(list); }

bool stillThere(const ShredCandidate& c) {
  struct stat st;
  return ::lstat(c.path.c_str(), &st) == 0;
}

}  // namespace

std::vector<ShredCandidate> ShredReviewQueue::all() const {
  List list = JSONStore::load<List>(file_, decodeList).value_or(List{});
  std::erase_if(list, [](const ShredCandidate& c) { return !stillThere(c); });
  std::stable_sort(list.begin(), list.end(),
                   [](const ShredCandidate& a, const ShredCandidate& b) { return a.detectedAt > b.detectedAt; });
  return list;
}

void ShredReviewQueue::change(const std::function<bool(List&)>& edit) noexcept {
  try {
    std::lock_guard<std::mutex> guard(*lock_);
    // A damaged queue is replaced: it holds only suggestions, never the files themselves.
    (void)JSONStore::update<List>(file_, decodeList, encodeList, [] { return List{}; }, edit, true);
  } catch (const std::exception&) {
    // Best effort: a queue that cannot be written loses this change.
  }
}

void ShredReviewQueue::add(const ShredCandidate& candidate) noexcept { add(std::vector<ShredCandidate>{candidate}); }

void ShredReviewQueue::add(const std::vector<ShredCandidate>& candidates) noexcept {
  if (candidates.empty()) return;
  change([&](List& list) {
    bool changed = false;
    for (const auto& candidate : candidates) {
      if (std::any_of(list.begin(), list.end(), [&](const ShredCandidate& c) { return c.path == candidate.path; }))
        continue;
      if (!changed) std::erase_if(list, [](const ShredCandidate& c) { return !stillThere(c); });
      list.push_back(candidate);
      changed = true;
    }
    if (list.size() > kCapacity) list.erase(list.begin(), list.end() - kCapacity);
    return changed;
  });
}

void ShredReviewQueue::remove(const std::string& path) noexcept {
  change([&](List& list) { return std::erase_if(list, [&](const ShredCandidate& c) { return c.path == path; }) > 0; });
}

void ShredReviewQueue::clear() noexcept {
  change([](List& list) {
    list.clear();
    return true;
  });
}

}  // namespace kestrel
