// AdminQueue: items that need administrator rights, gathered in memory and removed in one batch
// behind a single password prompt.
#pragma once

#include "core/clean/PrivilegedSession.h"
#include "core/model/ScanModel.h"
#include "core/model/AppConfig.h"
#include "core/model/CleanFailure.h"
#include "core/system/Paths.h"

#include <mutex>
#include <utility>
#include <vector>

namespace kestrel {

class AdminQueue {
 public:
  struct FlushResult {
    std::vector<ScanItem> removed;
    std::vector<CleanFailure> failed;  // the item's id and the reason shown to the user
    int64_t freed = 0;
  };

  // The process-wide queue.
  static AdminQueue& shared();

  // Appends the item unless an equal item is already queued.
  void enqueue(const ScanItem& item);
  // Sum of the queued items' sizes (saturating).
  int64_t pendingBytes() const;
  size_t count() const;

  // Takes every queued item; refused by the safety policy → failed with the policy's reason; the
  // paths of the rest are removed with one AdminRunner::remove call; then an item none of whose
  // paths exists any more is removed (audited as "delete", trigger "admin batch"), otherwise it
  // failed with the explanation of what stayed. `now` dates the audit records.
  FlushResult flush(const Paths& paths, const AppConfig& config, PrivilegedSession& session, Date now);

 private:
  mutable std::mutex lock_;
  std::vector<ScanItem> items_;
};

}  // namespace kestrel
