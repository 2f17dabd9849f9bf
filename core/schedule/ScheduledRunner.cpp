// Scheduled runs: one tick, step by step.
#include "core/schedule/ScheduledRunner.h"

#include "core/base/ByteFormat.h"
#include "core/clean/Cleaner.h"
#include "core/clean/Quarantine.h"
#include "core/insights/GrowthTracker.h"
#include "core/insights/SpaceHistory.h"
#include "core/scan/ScanEngine.h"
#include "core/schedule/AgentState.h"
#include "core/schedule/Metrics.h"
#include "core/store/LastScan.h"
#include "core/schedule/Persistence.h"
#include "core/schedule/RuleEvaluator.h"
#include "core/store/AuditLog.h"
#include "core/store/ConfigStore.h"
#include "core/store/RuleStore.h"
#include "core/store/JSONStore.h"
#include "core/system/fs/FileLock.h"
#include "core/system/fs/LogFile.h"

#include <date/tz.h>

#include <cmath>
#include <limits>
#include <map>
#include <set>

namespace kestrel {
namespace {

constexpr double kForecastWarnDays = 10.0;
constexpr int64_t kForecastWarnGapSeconds = 259200;  // 3 days
constexpr double kSnapshotIdleSeconds = 300.0;
constexpr int64_t kSnapshotGapSeconds = 72000;  // 20 hours
constexpr size_t kMaxItemNotices = 3;

// Truncated toward zero and held at the 64-bit range.
int64_t whole(double v) {
  if (std::isnan(v)) return 0;
  if (v >= 9.2e18) return std::numeric_limits<int64_t>::max();
  if (v <= -9.2e18) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(v);
}

bool olderThan(const std::optional<Date>& last, Date now, int64_t seconds) {
  return !last || now - *last > std::chrono::seconds(seconds);
}

const date::time_zone* machineZone() {
  try {
    return date::current_zone();
  } catch (const std::exception&) {
    return date::locate_zone("UTC");  // no zone configured: calendar rules follow UTC
  }
}

}  // namespace

ScheduledRunner::ScheduledRunner(Paths paths, Log log, Notify notify, const Services& services,
                                 const date::time_zone* zone, std::filesystem::path systemRoot)
    : paths_(std::move(paths)),
      log_(std::move(log)),
      notify_(std::move(notify)),
      services_(services.withDefaults()),
      zone_(zone),
      systemRoot_(std::move(systemRoot)) {}

SystemState ScheduledRunner::probe(const Paths& paths, const Services& given, Date now) {
  const Services services = given.withDefaults();
  SystemState state = services.probe(paths);
  if (const auto forecast = SpaceHistory(paths).forecast(now)) state.forecastDaysUntilFull = forecast->daysUntilFull;
  return state;
}

// What one tick works with: its time, its services (whose clock reads that time), the settings
// and rules as loaded, and the agent's state.
struct ScheduledRunner::Tick {
  Date now{};
  Services services;
  bool settingsDamaged = false;
  AppConfig settings;
  bool rulesDamaged = false;
  std::vector<ScheduleRule> rules;
  AgentState agentState;
  SystemState state;
  std::map<std::string, std::pair<Date, std::string>> results;  // rule id → lastRun, lastResult
};

void ScheduledRunner::tick(Date now, const std::optional<std::string>& forceRuleID,
                           const std::optional<SystemState>& stateOverride) {
  try {
    paths_.ensureSupportDirs();
  } catch (const std::exception&) {
    // The lock below fails too when the folder is truly missing; that is the report.
  }
  auto lock = FileLock::acquire(paths_.lockFile());
  if (!lock) {
    log_("Another run is in progress; skipping.");
    return;
  }
  // Under the lock, before this run logs anything: no other run is writing to it.
  LogFile::cutIfLarge(paths_.agentLogFile());
  Tick t;
  t.now = now;
  t.services = services_;
  // Everything below sees the tick's time, so a scan's ages and a clean's dates agree with it.
  t.services.now = [now] { return now; };
  load(t);
  const SpaceHistory history(paths_);
  if (const auto space = FS::volumeSpace(paths_.home())) history.record(*space, now);
  t.state = stateOverride ? *stateOverride : probe(paths_, t.services, now);
  if (!t.settingsDamaged) purgeExpiredQuarantine(t);
  runDueRules(t, forceRuleID);
  saveRuleResults(t);
  reportBackgroundItems(t);
  warnOfFullDisk(t, history);
  takeGrowthSnapshot(t);
  t.agentState.save(paths_);
  writeMetrics(t);
  lock->release();
}

void ScheduledRunner::load(Tick& t) {
  const auto config = ConfigStore(paths_).loadChecked();
  t.settingsDamaged = config.damaged();
  // No rule runs and nothing expires until it is fixed: the defaults lack the user's protections.
  if (t.settingsDamaged) log_(ConfigStore(paths_).damagedMessage(config.reason));
  t.settings = config.value.value_or(AppConfig{});
  const RuleStore ruleStore(paths_);
  auto loadedRules = ruleStore.loadChecked(t.now);
  t.rulesDamaged = loadedRules.damaged();
  // The defaults would run rules the user may have switched off; the file is theirs to fix.
  if (t.rulesDamaged) log_(ruleStore.damagedMessage(loadedRules.reason));
  else t.rules = std::move(*loadedRules.value);
  t.agentState = AgentState::load(paths_);
}

void ScheduledRunner::purgeExpiredQuarantine(Tick& t) {
  const int64_t purged = Quarantine(paths_, t.services).purgeExpired(t.now);
  if (purged <= 0) return;
  log_("Purged expired quarantine: " + ByteFormat::string(purged));
  AuditLog(paths_).append({AuditEntry::of(AuditAction::purge, "expired quarantine", t.now)
                               .bytes(purged)
                               .by(TriggerSource::manual())});
}

void ScheduledRunner::runDueRules(Tick& t, const std::optional<std::string>& forceRuleID) {
  const date::time_zone* zone = zone_ ? zone_ : machineZone();
  for (auto& rule : t.rules) {
    const bool forced = forceRuleID && *forceRuleID == rule.id;
    if (!forced) {
      const Decision decision = RuleEvaluator::evaluate(rule, t.state, t.now, zone);
      if (decision.kind == Decision::Kind::waiting) log_("[" + rule.name + "] due, " + decision.reason);
      if (decision.kind != Decision::Kind::run) continue;
    }
    if (t.settingsDamaged) continue;  // already said; the defaults lack the user's protections
    log_("[" + rule.name + "] running (" + rule.trigger.summary() + ")");
    const ScanEngine engine(paths_, t.settings, t.services);
    const std::set<CleanCategory> categories(rule.categories.begin(), rule.categories.end());
    std::vector<ScanItem> items;
    const auto results = engine.scan(categories);
    LastScan::record(paths_, results, t.now);
    for (const auto& result : results)
      for (const auto& item : result.items)
        if (item.risk <= rule.maxRisk) items.push_back(item);
    Cleaner cleaner(paths_, t.settings, t.services);
    const CleanReport report = cleaner.clean(items, TriggerSource::schedule(rule.name), rule.dryRun, std::nullopt);
    const std::string summary = summarize(report, rule.dryRun);
    rule.lastRun = t.now;
    rule.lastResult = summary;
    t.results[rule.id] = {t.now, summary};
    log_("[" + rule.name + "] " + summary);
    const int64_t moved = report.freedBytes + report.quarantinedBytes + report.trashedBytes + report.evictedBytes;
    if (rule.notify && moved > 0) notify_(std::string(AppInfo::name) + ": " + rule.name, summary);
  }
}

void ScheduledRunner::saveRuleResults(Tick& t) {
  // Through the store's read-modify-write, so a rule the app changed meanwhile keeps that change;
  // a damaged file is never replaced.
  if (t.rulesDamaged) return;
  try {
    JSONStore::update<std::vector<ScheduleRule>>(
        paths_.rulesFile(), scheduleRulesFromJson, [](const auto& r) { return toJson(r); },
        [&] { return t.rules; },
        [&](std::vector<ScheduleRule>& stored) {
          for (auto& r : stored) {
            if (const auto it = t.results.find(r.id); it != t.results.end()) {
              r.lastRun = it->second.first;
              r.lastResult = it->second.second;
            }
          }
          return true;
        },
        /*replaceDamaged=*/false);
  } catch (const std::exception&) {
    // Save errors are ignored: the rules run again at the next tick at worst.
  }
}

void ScheduledRunner::reportBackgroundItems(Tick& t) {
  const auto changes =
      PersistenceWatch(paths_).check(PersistenceInspector::scan(paths_, false, t.services, systemRoot_));
  for (size_t i = 0; i < changes.size() && i < kMaxItemNotices; ++i) {
    const auto& [item, isNew] = changes[i];
    const std::string word = isNew ? "New" : "Changed";
    std::string body(kindLabel(item.kind));
    if (!item.findings.empty()) body += " · " + item.findings.front();
    notify_(word + " background item: " + item.label, body + ". Open " + std::string(AppInfo::name) + " to review.");
    log_(word + " persistence item: " + item.path);
  }
}

void ScheduledRunner::warnOfFullDisk(Tick& t, const SpaceHistory& history) {
  const Date now = t.now;
  AgentState& agentState = t.agentState;
  if (const auto forecast = history.forecast(now); forecast && forecast->daysUntilFull &&
                                                   *forecast->daysUntilFull < kForecastWarnDays &&
                                                   olderThan(agentState.lastForecastAlert, now, kForecastWarnGapSeconds)) {
    notify_("Disk predicted full in " + std::to_string(whole(*forecast->daysUntilFull)) + " days",
            "You're using ~" + ByteFormat::string(whole(forecast->bytesPerDay)) + "/day. Open " +
                std::string(AppInfo::name) + " to see what's growing.");
    agentState.lastForecastAlert = now;
  }
}

void ScheduledRunner::writeMetrics(Tick& t) {
  if (t.settings.metricsTextfileDir.empty()) return;
  try {
    Metrics::writeTextfile(t.settings.metricsTextfileDir, Metrics::text(paths_, t.now));
  } catch (const std::exception& e) {
    log_("Could not write the metrics into " + t.settings.metricsTextfileDir + ": " + e.what());
  }
}

// Only while the machine is idle on mains.
void ScheduledRunner::takeGrowthSnapshot(Tick& t) {
  const SystemState& state = t.state;
  const Date now = t.now;
  AgentState& agentState = t.agentState;
  if (state.idleSeconds && *state.idleSeconds > kSnapshotIdleSeconds && state.onACPower != false &&
      olderThan(agentState.lastGrowthSnapshot, now, kSnapshotGapSeconds)) {
    GrowthTracker(paths_, t.settings.protectedPaths).takeSnapshot(now, [] { return false; });
    agentState.lastGrowthSnapshot = now;
    log_("Growth snapshot taken");
  }
}

}  // namespace kestrel
