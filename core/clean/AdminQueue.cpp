// AdminQueue: enqueue without duplicates, pending bytes, and the one-prompt batch flush.
#include "core/clean/AdminQueue.h"

#include "core/safety/SafetyPolicy.h"
#include "core/store/AuditLog.h"
#include "core/system/FS.h"
#include "core/clean/Explain.h"

#include <algorithm>

namespace kestrel {

AdminQueue& AdminQueue::shared() {
  static AdminQueue queue;
  return queue;
}

void AdminQueue::enqueue(const ScanItem& item) {
  std::lock_guard g(lock_);
  if (std::find(items_.begin(), items_.end(), item) == items_.end()) items_.push_back(item);
}

int64_t AdminQueue::pendingBytes() const {
  std::lock_guard g(lock_);
  int64_t sum = 0;
  for (const auto& i : items_) {
    if (__builtin_add_overflow(sum, i.size, &sum)) return INT64_MAX;  // a display figure: saturate
  }
  return sum;
}

size_t AdminQueue::count() const {
  std::lock_guard g(lock_);
  return items_.size();
}

AdminQueue::FlushResult AdminQueue::flush(const Paths& paths, const AppConfig& config, PrivilegedSession& session,
                                          Date now) {
  std::vector<ScanItem> items;
  {
    std::lock_guard g(lock_);
    items.swap(items_);
  }
  FlushResult result;
  const SafetyPolicy policy(paths, config.protectedPaths);
  std::vector<ScanItem> allowed;
  std::vector<std::string> toRemove;
  for (auto& item : items) {
    const auto p = item.path();
    if (!p) {
      result.failed.push_back({item.id, "admin batch failed"});
      continue;
    }
    const Verdict v = policy.check(*p);
    if (v.isBlocked()) {
      result.failed.push_back({item.id, v.text});
      continue;
    }
    if (v.kind == Verdict::Kind::syncedCloud) {
      result.failed.push_back({item.id, "In " + v.text + "; only its local copy can be removed"});
      continue;
    }
    allowed.push_back(item);
    toRemove.push_back(*p);
  }
  if (allowed.empty()) return result;

  const Shell::Result run = AdminRunner::remove(session, toRemove);
  const std::string output = run.stderr.empty() ? run.stdout : run.stderr;
  std::vector<AuditEntry> audit;
  for (auto& item : allowed) {
    const std::string p = *item.path();
    if (!FS::exists(p)) {
      result.removed.push_back(item);
      if (__builtin_add_overflow(result.freed, item.size, &result.freed)) result.freed = INT64_MAX;
      audit.push_back(AuditEntry::make(now, "delete", p, item.size, item.category,
                                       TriggerSource::schedule("admin batch"), true));
    } else {
      // A reply of success says nothing about why this path stayed.
      const std::string reason = Explain::removalFailure(p, run.ok() ? "" : output);
      result.failed.push_back({item.id, reason});
      audit.push_back(AuditEntry::make(now, "delete", p, item.size, item.category,
                                       TriggerSource::schedule("admin batch"), false, reason));
    }
  }
  AuditLog(paths).append(audit);
  return result;
}

}  // namespace kestrel
