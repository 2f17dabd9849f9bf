// Schedule rules: triggers, conditions, the default rule set and their JSON forms.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/model/ScanModel.h"
#include "core/base/Dates.h"
#include "core/base/Json.h"
#include "core/model/TriggerSource.h"

namespace kestrel {

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

Json toJson(const ScheduleTrigger& t);
Json toJson(const ScheduleConditions& c);
Json toJson(const ScheduleRule& r);
Json toJson(const std::vector<ScheduleRule>& rules);
// Strict decoders: a missing or ill-typed required key, or an enumeration object without exactly
// one key naming a known case, throws DecodeError.
ScheduleTrigger scheduleTriggerFromJson(const Json& j);
ScheduleConditions scheduleConditionsFromJson(const Json& j);
ScheduleRule scheduleRuleFromJson(const Json& j);
std::vector<ScheduleRule> scheduleRulesFromJson(const Json& j);

}  // namespace kestrel
