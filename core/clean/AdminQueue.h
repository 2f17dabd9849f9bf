// AdminQueue: items that need administrator rights, kept in "admin-queue.json" in the state
// folder until one batch removes them behind a single password prompt, so a queued removal
// outlives the process that queued it.
#pragma once

#include <stdexcept>
#include <vector>

#include "core/clean/PrivilegedSession.h"
#include "core/model/AppConfig.h"
#include "core/model/CleanFailure.h"
#include "core/model/ScanModel.h"
#include "core/system/Paths.h"

namespace kestrel {

class AdminQueue {
 public:
  struct FlushResult {
    std::vector<ScanItem> removed;
    std::vector<CleanFailure> failed;  // the item's id and the reason shown to the user
    int64_t freed = 0;
    size_t alreadyGone = 0;  // items gone before the batch ran (removed elsewhere): dropped
  };

  explicit AdminQueue(Paths paths) : paths_(std::move(paths)) {}

  // Appends the items that are not already queued (equal items), in one locked read-modify-write
  // of the file. Throws JSONStore::StoreError (another writer too long, or a damaged file, which
  // is left as it is) and the write's errors: the items are then not queued.
  void enqueue(const std::vector<ScanItem>& items) const;
  // The queued items in queue order; empty when the file is missing or damaged.
  std::vector<ScanItem> items() const;
  // Whether the file exists but cannot be read as a queue, and why.
  std::optional<std::string> damage() const;
  // Sum of the queued items' sizes (saturating).
  int64_t pendingBytes() const;
  size_t count() const { return items().size(); }
  // Empties the queue (the files stay where they are), a damaged queue file included. Throws
  // JSONStore::StoreError when another writer holds it too long, and the write's errors.
  void clear() const;

  // Runs the batch: every queued item the safety policy refuses fails with the policy's reason;
  // the paths of the rest are removed with one AdminRunner::remove call; then an item none of
  // whose paths exists any more is removed (audited as "delete", trigger "admin batch"),
  // otherwise it failed with the explanation of what stayed. Items leave the file only after the
  // batch, and only when removed, refused or already gone: a process killed on the way or a
  // cancelled prompt loses none of them. Throws AdminBatchRunning when another batch is running
  // and JSONStore::StoreError when the file is damaged. `now` dates the audit records.
  FlushResult flush(const AppConfig& config, PrivilegedSession& session, Date now) const;

 private:
  Paths paths_;
};

// A batch refused because another one is running: "Another administrator batch is running."
class AdminBatchRunning : public std::runtime_error {
 public:
  AdminBatchRunning() : std::runtime_error("Another administrator batch is running.") {}
};

// The queue file's JSON form: an array of items, dates as ISO 8601 text.
Json toJson(const std::vector<ScanItem>& items);
std::vector<ScanItem> adminQueueFromJson(const Json& j);

}  // namespace kestrel
