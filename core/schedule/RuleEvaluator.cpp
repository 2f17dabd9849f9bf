// Rule evaluation: the backward calendar search in the user's time zone, the other triggers with
// their cooldowns, and the conditions in their fixed order.
#include "core/schedule/RuleEvaluator.h"

#include <date/tz.h>

#include <chrono>
#include <cstdio>

namespace kestrel {
namespace {

using date::days;
using std::chrono::seconds;

// Whole seconds from `then` to `now` (negative when `then` is later).
// Subtracted as floating-point seconds: the difference of two far-apart dates does not fit the
// clock's own count.
double elapsedSeconds(Date then, Date now) {
  using Seconds = std::chrono::duration<double>;
  return Seconds(now.time_since_epoch()).count() - Seconds(then.time_since_epoch()).count();
}

// The instant of local wall time `day` h:m in `zone`: the end of a spring-forward gap when the
// time does not exist, the first of two when a fall-back repeats it.
Date instant(const date::time_zone* zone, date::local_days day, int64_t hour, int64_t minute) {
  const date::local_seconds wall = day + std::chrono::hours(hour) + std::chrono::minutes(minute);
  return zone->to_sys(wall, date::choose::earliest);
}

std::optional<Date> latestDaily(const date::time_zone* z, date::local_days today, int64_t h, int64_t m, Date now) {
  // Yesterday's slot always lies before now; the third day only guards odd zone histories.
  for (int back = 0; back < 3; ++back) {
    const Date slot = instant(z, today - days(back), h, m);
    if (slot <= now) return slot;
  }
  return std::nullopt;
}

std::optional<Date> latestWeekly(const date::time_zone* z, date::local_days today, int64_t weekday, int64_t h,
                                 int64_t m, Date now) {
  const date::weekday wanted(static_cast<unsigned>(weekday - 1));  // 1 = Sunday; date counts Sunday as 0
  for (int back = 0; back < 15; ++back) {
    const date::local_days day = today - days(back);
    if (date::weekday(day) != wanted) continue;
    const Date slot = instant(z, day, h, m);
    if (slot <= now) return slot;
  }
  return std::nullopt;
}

std::optional<Date> latestMonthly(const date::time_zone* z, date::local_days today, int64_t dayOfMonth, int64_t h,
                                  int64_t m, Date now) {
  const date::year_month thisMonth = date::year_month_day(today).year() / date::year_month_day(today).month();
  for (int back = 0; back < 3; ++back) {
    const date::year_month ym = thisMonth - date::months(back);
    const auto last = date::year_month_day_last(ym.year(), date::month_day_last(ym.month()));
    const auto d = static_cast<unsigned>(dayOfMonth);
    const Date slot = d <= static_cast<unsigned>(last.day())
                          ? instant(z, date::local_days(ym / date::day(d)), h, m)
                          : instant(z, date::local_days(last) + days(1), 0, 0);
    if (slot <= now) return slot;
  }
  return std::nullopt;
}

bool isUrgent(const ScheduleTrigger& t) {
  return t.kind == ScheduleTrigger::Kind::diskFreeBelowPercent || t.kind == ScheduleTrigger::Kind::diskFreeBelowGB;
}

bool cooledDown(const ScheduleRule& rule, Date now, double cooldownSeconds) {
  return !rule.lastRun || elapsedSeconds(*rule.lastRun, now) >= cooldownSeconds;
}

bool dueByTrigger(const ScheduleRule& rule, const SystemState& state, Date now, const date::time_zone* zone) {
  const ScheduleTrigger& t = rule.trigger;
  const Date anchor = rule.lastRun.value_or(rule.createdAt);
  switch (t.kind) {
    case ScheduleTrigger::Kind::daily:
    case ScheduleTrigger::Kind::weekly:
    case ScheduleTrigger::Kind::monthly: {
      const auto slot = RuleEvaluator::latestSlot(t, now, zone);
      return slot && anchor < *slot;
    }
    case ScheduleTrigger::Kind::everyHours:
      return elapsedSeconds(anchor, now) >= static_cast<double>(t.count) * 3600.0;
    case ScheduleTrigger::Kind::diskFreeBelowPercent: {
      if (!cooledDown(rule, now, rule.conditions.cooldownHours * 3600.0) || !state.space) return false;
      const double percent = state.space->total < 1 ? 100.0
                                                    : static_cast<double>(state.space->free) /
                                                          static_cast<double>(state.space->total) * 100.0;
      return percent < t.amount;
    }
    case ScheduleTrigger::Kind::diskFreeBelowGB:
      if (!cooledDown(rule, now, rule.conditions.cooldownHours * 3600.0) || !state.space) return false;
      return static_cast<double>(state.space->free) / 1e9 < t.amount;
    case ScheduleTrigger::Kind::forecastFullWithinDays: {
      // A forecast moves slowly: never act on it more than once a day, whatever the cooldown.
      const double hours = rule.conditions.cooldownHours;
      if (!cooledDown(rule, now, hours <= 24.0 ? 86400.0 : hours * 3600.0)) return false;
      return state.forecastDaysUntilFull && *state.forecastDaysUntilFull < static_cast<double>(t.count);
    }
  }
  return false;
}

}  // namespace

std::string Decision::text() const {
  switch (kind) {
    case Kind::run:
      return "run";
    case Kind::notDue:
      return "notDue";
    case Kind::waiting: {
      std::string out = "waiting(\"";
      for (const char c : reason) {
        switch (c) {
          case '"': out += "\\\""; break;
          case '\\': out += "\\\\"; break;
          case '\n': out += "\\n"; break;
          case '\r': out += "\\r"; break;
          case '\t': out += "\\t"; break;
          case '\0': out += "\\0"; break;
          default:
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
              char buf[16];
              std::snprintf(buf, sizeof buf, "\\u{%x}", static_cast<unsigned>(static_cast<unsigned char>(c)));
              out += buf;
            } else {
              out += c;
            }
        }
      }
      return out + "\")";
    }
  }
  return {};
}

namespace RuleEvaluator {

std::optional<Date> latestSlot(const ScheduleTrigger& t, Date now, const date::time_zone* zone) {
  if (!zone || !t.isCalendar()) return std::nullopt;
  if (t.hour < 0 || t.hour > 23 || t.minute < 0 || t.minute > 59) return std::nullopt;
  const auto secs = std::chrono::floor<seconds>(now);
  const date::local_days today = std::chrono::floor<days>(zone->to_local(secs));
  switch (t.kind) {
    case ScheduleTrigger::Kind::daily:
      return latestDaily(zone, today, t.hour, t.minute, now);
    case ScheduleTrigger::Kind::weekly:
      if (t.weekday < 1 || t.weekday > 7) return std::nullopt;
      return latestWeekly(zone, today, t.weekday, t.hour, t.minute, now);
    case ScheduleTrigger::Kind::monthly:
      if (t.day < 1 || t.day > 31) return std::nullopt;
      return latestMonthly(zone, today, t.day, t.hour, t.minute, now);
    case ScheduleTrigger::Kind::everyHours:
    case ScheduleTrigger::Kind::diskFreeBelowPercent:
    case ScheduleTrigger::Kind::diskFreeBelowGB:
    case ScheduleTrigger::Kind::forecastFullWithinDays:
      return std::nullopt;
  }
  return std::nullopt;
}

Decision evaluate(const ScheduleRule& rule, const SystemState& state, Date now, const date::time_zone* zone) {
  if (!rule.enabled || rule.categories.empty()) return Decision::notDue();
  if (!dueByTrigger(rule, state, now, zone)) return Decision::notDue();
  const auto& c = rule.conditions;
  const bool urgent = isUrgent(rule.trigger);
  if (c.requireACPower && !urgent && state.onACPower == false) return Decision::waiting("Waiting for AC power");
  if (c.minBatteryPercent && state.onACPower == false && state.batteryPercent &&
      *state.batteryPercent < *c.minBatteryPercent)
    return Decision::waiting("Battery below " + std::to_string(*c.minBatteryPercent) + "%");
  if (c.minIdleMinutes && state.idleSeconds && !urgent &&
      *state.idleSeconds < static_cast<double>(*c.minIdleMinutes) * 60.0)
    return Decision::waiting("Waiting until the Mac has been idle " + std::to_string(*c.minIdleMinutes) + " min");
  for (const auto& app : c.skipIfAppsRunning) {
    if (state.runningBundleIDs.count(app)) return Decision::waiting("Waiting for " + app + " to quit");
  }
  return Decision::run();
}

}  // namespace RuleEvaluator
}  // namespace kestrel
