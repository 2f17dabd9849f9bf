// Metrics: one gauge or counter per fact, gathered from the stores the agent already keeps.
#include "core/schedule/Metrics.h"

#include <cmath>

#include "core/clean/AdminQueue.h"
#include "core/clean/Quarantine.h"
#include "core/insights/SpaceHistory.h"
#include "core/shredder/ShredHistory.h"
#include "core/store/AuditLog.h"
#include "core/store/LastScan.h"
#include "core/store/RuleStore.h"
#include "core/system/fs/FS.h"
#include "core/system/fs/StoreFile.h"

namespace kestrel::Metrics {
namespace {

class Writer {
 public:
  // Starts a metric: its help line and type ("gauge" or "counter").
  void metric(const std::string& name, const std::string& help, const char* type) {
    out_ += "# HELP kestrel_" + name + " " + help + "\n# TYPE kestrel_" + name + " " + type + "\n";
    name_ = "kestrel_" + name;
  }
  void value(int64_t v, const std::string& labels = "") {
    out_ += name_ + (labels.empty() ? "" : "{" + labels + "}") + " " + std::to_string(v) + "\n";
  }
  std::string text() const { return out_; }

 private:
  std::string out_, name_;
};

void space(Writer& w, const Paths& paths, Date now) {
  if (const auto v = FS::volumeSpace(paths.home())) {
    w.metric("volume_free_bytes", "Free bytes on the volume holding the home folder.", "gauge");
    w.value(v->free);
    w.metric("volume_size_bytes", "Size in bytes of the volume holding the home folder.", "gauge");
    w.value(v->total);
  }
  const auto f = SpaceHistory(paths).forecast(now);
  if (f && f->daysUntilFull && std::isfinite(*f->daysUntilFull)) {
    w.metric("forecast_days_to_full", "Days until the home volume is predicted to be full.", "gauge");
    w.value(static_cast<int64_t>(std::clamp(*f->daysUntilFull, 0.0, 1e9)));
  }
}

void reclaimable(Writer& w, const Paths& paths) {
  const LastScan scan = LastScan::load(paths);
  if (scan.categories.empty()) return;
  w.metric("reclaimable_bytes", "Bytes the last scan of each category found reclaimable.", "gauge");
  for (const auto& [c, f] : scan.categories) w.value(f.bytes, "category=\"" + std::string(rawValue(c)) + "\"");
  w.metric("reclaimable_items", "Items the last scan of each category found.", "gauge");
  for (const auto& [c, f] : scan.categories) w.value(f.items, "category=\"" + std::string(rawValue(c)) + "\"");
  w.metric("last_scan_timestamp_seconds", "When each category was last scanned (Unix time).", "gauge");
  for (const auto& [c, f] : scan.categories)
    w.value(Dates::unixSeconds(f.date), "category=\"" + std::string(rawValue(c)) + "\"");
}

void agent(Writer& w, const Paths& paths, Date now) {
  const auto sessions = Quarantine(paths).sessions();
  int64_t held = 0;
  for (const auto& s : sessions)
    if (__builtin_add_overflow(held, s.totalSize(), &held)) held = INT64_MAX;
  w.metric("quarantine_bytes", "Bytes held in the quarantine.", "gauge");
  w.value(held);
  w.metric("quarantine_sessions", "Sessions in the quarantine.", "gauge");
  w.value(static_cast<int64_t>(sessions.size()));
  w.metric("freed_bytes_total", "Bytes freed over the life of the audit log.", "counter");
  w.value(AuditLog(paths).lifetimeFreed());
  std::optional<ScheduleRule> last;
  for (const auto& r : RuleStore(paths).load(now))
    if (r.lastRun && (!last || *r.lastRun > *last->lastRun)) last = r;
  if (last) {
    w.metric("last_scheduled_run_timestamp_seconds", "When a scheduled rule last ran (Unix time).", "gauge");
    w.value(Dates::unixSeconds(*last->lastRun));
    w.metric("last_scheduled_run_success", "1 when the last scheduled run had no failure, else 0.", "gauge");
    w.value(last->lastResult && last->lastResult->find(" failed") == std::string::npos ? 1 : 0);
  }
  w.metric("admin_queue_items", "Removals waiting for administrator rights.", "gauge");
  w.value(static_cast<int64_t>(AdminQueue(paths).count()));
  w.metric("shredder_reclaimed_bytes_total", "Bytes the Shredder disposed of, as its history records.", "counter");
  w.value(ShredHistory(paths).stats(36500, now).bytes);
}

}  // namespace

std::string text(const Paths& paths, Date now) {
  Writer w;
  space(w, paths, now);
  reclaimable(w, paths);
  agent(w, paths, now);
  return w.text();
}

void writeTextfile(const std::filesystem::path& folder, const std::string& text) {
  StoreFile::writeAtomically(text, folder / "kestrel.prom");
}

}  // namespace kestrel::Metrics
