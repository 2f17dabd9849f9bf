// Schedule rules: triggers, conditions, why a clean happened, the default rule set and the rules
// file.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/scan/ScanModel.h"
#include "core/storage/Dates.h"
#include "core/storage/Json.h"
#include "core/storage/Paths.h"

namespace kestrel {

// Why a clean happened; stored with audit records and quarantine sessions.
struct TriggerSource {
  enum class Kind { schedule, uninstall, manual };
  Kind kind = Kind::manual;
  std::string name;  // the rule's name (schedule) or the app's name (uninstall)

  static TriggerSource manual() { return {}; }
  static TriggerSource schedule(std::string ruleName) {
    return {Kind::schedule, std::move(ruleName)};
  }
  static TriggerSource uninstall(std::string appName) {
    return {Kind::uninstall, std::move(appName)};
  }

  // Display text for listings: "Manual", "Schedule: " + rule, "Uninstall: " + app.
  std::string label() const;
  bool operator==(const TriggerSource&) const = default;
};

// When a rule fires. Calendar cases use hour/minute (and weekday or day); the others one payload.
struct ScheduleTrigger {
  enum class Kind {
    daily,
    weekly,
    monthly,
    everyHours,
    diskFreeBelowPercent,
    diskFreeBelowGB,
    forecastFullWithinDays
  };
  Kind kind = Kind::daily;
  int64_t hour = 0;
  int64_t minute = 0;
  int64_t weekday = 0;  // weekly: 1 = Sunday … 7 = Saturday
  int64_t day = 0;      // monthly: day of the month
  int64_t count = 0;    // everyHours: hours; forecastFullWithinDays: days
  double amount = 0;    // diskFreeBelowPercent: percent; diskFreeBelowGB: gigabytes (10^9 bytes)

  static ScheduleTrigger daily(int64_t hour, int64_t minute);
  static ScheduleTrigger weekly(int64_t weekday, int64_t hour, int64_t minute);
  static ScheduleTrigger monthly(int64_t day, int64_t hour, int64_t minute);
  static ScheduleTrigger everyHours(int64_t hours);
  static ScheduleTrigger diskFreeBelowPercent(double percent);
  static ScheduleTrigger diskFreeBelowGB(double gigabytes);
  static ScheduleTrigger forecastFullWithinDays(int64_t days);

  bool isCalendar() const;
  // One line for people, e.g. "Every Sunday at 03:00" or "When free space drops below 10.0%".
  std::string summary() const;
  bool operator==(const ScheduleTrigger&) const = default;
};

struct ScheduleConditions {
  bool requireACPower = true;
  std::optional<int64_t> minBatteryPercent;
  std::optional<int64_t> minIdleMinutes;
  std::vector<std::string> skipIfAppsRunning;  // bundle identifiers
  double cooldownHours = 6.0;

  bool operator==(const ScheduleConditions&) const = default;
};

struct ScheduleRule {
  std::string id;  // upper-case UUID text
  std::string name;
  bool enabled = true;
  ScheduleTrigger trigger;
  ScheduleConditions conditions;
  std::vector<CleanCategory> categories;  // in cleaning order
  Risk maxRisk = Risk::safe;
  bool notify = true;
  bool dryRun = false;
  Date createdAt{};
  std::optional<Date> lastRun;
  std::optional<std::string> lastResult;

  // A new enabled rule with a fresh id: mains power required, no battery or idle minimum, no
  // applications, a 6-hour cooldown, safe items only, notifying, not a dry run, created `now`.
  static ScheduleRule make(std::string name, ScheduleTrigger trigger,
                           std::vector<CleanCategory> categories, Date now);
  // The four shipped rules, built anew (fresh ids, created `now`) on every call.
  static std::vector<ScheduleRule> defaults(Date now);

  bool operator==(const ScheduleRule&) const = default;
};

Json toJson(const TriggerSource& t);
Json toJson(const ScheduleTrigger& t);
Json toJson(const ScheduleConditions& c);
Json toJson(const ScheduleRule& r);
Json toJson(const std::vector<ScheduleRule>& rules);
// Strict decoders: a missing or ill-typed required key, or an enumeration object without exactly
// one key naming a known case, throws DecodeError.
TriggerSource triggerSourceFromJson(const Json& j);
ScheduleTrigger scheduleTriggerFromJson(const Json& j);
ScheduleConditions scheduleConditionsFromJson(const Json& j);
ScheduleRule scheduleRuleFromJson(const Json& j);
std::vector<ScheduleRule> scheduleRulesFromJson(const Json& j);
// An upper-case UUID from a JSON string; DecodeError for anything else.
std::string uuidFromJson(const Json& j);

// The rules file "rules.json" in the support folder.
class RuleStore {
 public:
  explicit RuleStore(Paths paths) : paths_(std::move(paths)) {}

  // The saved rules; the defaults (not written) when the file is missing, unreadable or any part
  // of it does not decode. "[]" is an empty list.
  std::vector<ScheduleRule> load(Date now = std::chrono::system_clock::now()) const;
  // Atomic, durable replace of the file; throws the write's error.
  void save(const std::vector<ScheduleRule>& rules) const;
  // Read-modify-write under an exclusive lock on "rules.json.lock" beside the file, so the agent
  // and the app never lose each other's changes: loads (defaults when unreadable), lets `change`
  // edit the list, saves it. Blocks while another updater holds the lock; throws like save().
  std::vector<ScheduleRule> update(const std::function<void(std::vector<ScheduleRule>&)>& change,
                                   Date now = std::chrono::system_clock::now()) const;

 private:
  Paths paths_;
};

}  // namespace kestrel
