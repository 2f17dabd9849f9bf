// AdminQueue: the persisted queue of administrator removals and its one-prompt batch.
#include "core/clean/AdminQueue.h"

#include <algorithm>

#include "core/clean/Explain.h"
#include "core/safety/SafetyPolicy.h"
#include "core/store/AuditLog.h"
#include "core/store/JSONStore.h"
#include "core/system/fs/FS.h"
#include "core/system/fs/FileLock.h"

namespace kestrel {

Json toJson(const std::vector<ScanItem>& items) {
  Json out = Json::array();
  for (const auto& item : items) out.push_back(toJson(item, DateForm::iso8601));
  return out;
}

std::vector<ScanItem> adminQueueFromJson(const Json& j) {
  if (!j.is_array()) throw DecodeError("the admin queue is not an array");
  std::vector<ScanItem> items;
  for (const auto& e : j) items.push_back(scanItemFromJson(e, DateForm::iso8601));
  return items;
}

namespace {

using Items = std::vector<ScanItem>;

// One locked read-modify-write of the queue; a damaged file is replaced only when asked.
void change(const Paths& paths, const std::function<bool(Items&)>& edit,
            bool replaceDamaged = false) {
  JSONStore::update<Items>(
      paths.adminQueueFile(), adminQueueFromJson, [](const Items& items) { return toJson(items); },
      [] { return Items{}; }, edit, replaceDamaged);
}

}  // namespace

void AdminQueue::enqueue(const std::vector<ScanItem>& items) const {
  if (items.empty()) return;
  change(paths_, [&](Items& queued) {
    bool added = false;
    for (const auto& item : items) {
      if (std::find(queued.begin(), queued.end(), item) != queued.end()) continue;
      queued.push_back(item);
      added = true;
    }
    return added;
  });
}

void AdminQueue::clear() const {
  // Always written, so a damaged file is replaced too.
  change(
      paths_,
      [](Items& queued) {
        queued.clear();
        return true;
      },
      /*replaceDamaged=*/true);
}

std::vector<ScanItem> AdminQueue::items() const {
  return JSONStore::load<Items>(paths_.adminQueueFile(), adminQueueFromJson).value_or(Items{});
}

std::optional<std::string> AdminQueue::damage() const {
  const auto loaded = JSONStore::loadChecked<Items>(paths_.adminQueueFile(), adminQueueFromJson);
  if (!loaded.damaged()) return std::nullopt;
  return loaded.reason;
}

int64_t AdminQueue::pendingBytes() const {
  int64_t sum = 0;
  for (const auto& i : items()) {
    if (__builtin_add_overflow(sum, i.size, &sum)) return INT64_MAX;  // a display figure: saturate
  }
  return sum;
}

AdminQueue::FlushResult AdminQueue::flush(const AppConfig& config, PrivilegedSession& session,
                                          Date now) const {
  // Two batches over one queue would each audit the other's removals.
  const auto running = FileLock::acquire(paths_.adminRunLockFile());
  if (!running) throw AdminBatchRunning();
  const auto loaded = JSONStore::loadChecked<Items>(paths_.adminQueueFile(), adminQueueFromJson);
  if (loaded.damaged())
    throw JSONStore::StoreError(
        JSONStore::StoreError::Kind::damaged,
        paths_.adminQueueFile().string() + " is damaged (" + loaded.reason + ")");
  const Items taken = loaded.value.value_or(Items{});

  FlushResult result;
  const SafetyPolicy policy(paths_, config.protectedPaths);
  Items allowed;
  std::vector<std::string> toRemove;
  for (const auto& item : taken) {
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
    if (!FS::exists(*p)) {
      ++result.alreadyGone;
      continue;
    }
    allowed.push_back(item);
    toRemove.push_back(*p);
  }

  if (!allowed.empty()) {
    const Shell::Result run = AdminRunner::remove(session, toRemove);
    const std::string output = run.stderr.empty() ? run.stdout : run.stderr;
    std::vector<AuditEntry> audit;
    for (const auto& item : allowed) {
      const std::string p = *item.path();
      auto record = AuditEntry::of(AuditAction::delete_, p, now)
                        .bytes(item.size)
                        .in(item.category)
                        .by(TriggerSource::schedule("admin batch"));
      if (!FS::exists(p)) {
        result.removed.push_back(item);
        if (__builtin_add_overflow(result.freed, item.size, &result.freed)) result.freed = INT64_MAX;
      } else {
        // A reply of success says nothing about why this path stayed.
        const std::string reason = Explain::removalFailure(p, run.ok() ? "" : output);
        result.failed.push_back({item.id, reason});
        record.failed(reason);
      }
      audit.push_back(record);
    }
    AuditLog(paths_).append(audit);
  }

  // What was removed, refused or already gone leaves the queue; what is still there stays, so a
  // cancelled password prompt loses nothing and the next batch tries again. Items queued while
  // this batch ran stay too.
  std::vector<ScanItem> kept;
  for (const auto& item : allowed)
    if (std::find(result.removed.begin(), result.removed.end(), item) == result.removed.end())
      kept.push_back(item);
  change(paths_, [&](Items& queued) {
    const auto before = queued.size();
    std::erase_if(queued, [&](const ScanItem& i) {
      return std::find(taken.begin(), taken.end(), i) != taken.end() &&
             std::find(kept.begin(), kept.end(), i) == kept.end();
    });
    return queued.size() != before;
  });
  return result;
}

}  // namespace kestrel
