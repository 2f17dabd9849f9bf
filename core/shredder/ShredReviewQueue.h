// ShredReviewQueue: files the shredder held back for the user's decision.
#pragma once

#include "core/shredder/ShredderModel.h"
#include "core/system/Paths.h"

#include <memory>
#include <mutex>
#include <vector>

namespace kestrel {

class ShredReviewQueue {
 public:
  static constexpr size_t kCapacity = 300;

  explicit ShredReviewQueue(const Paths& paths) : file_(paths.shredderReviewFile()) {}
  // The candidates whose files still exist, newest detection first (a missing or damaged file
  // is an empty queue).
  std::vector<ShredCandidate> all() const;
  // Queues the candidate unless its path is queued already; past kCapacity the oldest go.
  // Candidates whose files vanished are dropped on the way. Best effort: write errors are lost.
  void add(const ShredCandidate& candidate) noexcept;
  // The same for several, in one change of the file.
  void add(const std::vector<ShredCandidate>& candidates) noexcept;
  // Drops the candidate of `path`; best effort.
  void remove(const std::string& path) noexcept;
  // Empties the queue; best effort.
  void clear() noexcept;

 private:
  // One read-modify-write under the in-process lock and the store's lock file.
  void change(const std::function<bool(std::vector<ShredCandidate>&)>& edit) noexcept;

  std::filesystem::path file_;
  std::unique_ptr<std::mutex> lock_ = std::make_unique<std::mutex>();
};

}  // namespace kestrel
