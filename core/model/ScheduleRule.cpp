// Schedule rules: JSON forms, summaries and the default rule set.
#include "core/model/ScheduleRule.h"

#include <array>
#include <cstdio>
#include <utility>

#include "core/system/Uuid.h"

namespace kestrel {
namespace {

constexpr std::array<const char*, 7> kTriggerCases = {"daily",
                                                      "weekly",
                                                      "monthly",
                                                      "everyHours",
                                                      "diskFreeBelowPercent",
                                                      "diskFreeBelowGB",
                                                      "forecastFullWithinDays"};

constexpr std::array<const char*, 7> kWeekdayNames = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                                      "Thursday", "Friday", "Saturday"};

const char* caseName(ScheduleTrigger::Kind k) { return kTriggerCases[static_cast<size_t>(k)]; }

// An enumeration object: exactly one key, which must be one of `names`; returns its index and
// payload.
std::pair<size_t, const Json*> singleCase(const Json& j, const char* const* names, size_t count,
                                          const char* what) {
  if (!j.is_object()) throw DecodeError(std::string("Expected an object for ") + what);
  if (j.size() != 1) throw DecodeError("Invalid number of keys found, expected one.");
  const auto it = j.begin();
  for (size_t i = 0; i < count; ++i) {
    if (it.key() == names[i]) {
      if (!it.value().is_object())
        throw DecodeError(std::string("Expected an object for case ") + names[i]);
      return {i, &it.value()};
    }
  }
  throw DecodeError("Unknown case " + it.key() + " of " + what);
}

std::string clock(int64_t hour, int64_t minute) {
  char buf[48];
  std::snprintf(buf, sizeof buf, "%02lld:%02lld", static_cast<long long>(hour),
                static_cast<long long>(minute));
  return buf;
}

std::vector<CleanCategory> categoriesFromJson(const Json& obj) {
  auto it = obj.find("categories");
  if (it == obj.end() || !it->is_array()) throw DecodeError("Expected an array for categories");
  std::vector<CleanCategory> out;
  out.reserve(it->size());
  for (const Json& c : *it) out.push_back(categoryFromJson(c));
  return out;
}

Date requiredDate(const Json& obj, const char* key) {
  auto it = obj.find(key);
  if (it == obj.end()) throw DecodeError(std::string("No value associated with key ") + key);
  return dateFromJson(*it, DateForm::iso8601);
}

}  // namespace

ScheduleTrigger ScheduleTrigger::daily(int64_t hour, int64_t minute) {
  ScheduleTrigger t;
  t.kind = Kind::daily;
  t.hour = hour;
  t.minute = minute;
  return t;
}
ScheduleTrigger ScheduleTrigger::weekly(int64_t weekday, int64_t hour, int64_t minute) {
  ScheduleTrigger t = daily(hour, minute);
  t.kind = Kind::weekly;
  t.weekday = weekday;
  return t;
}
ScheduleTrigger ScheduleTrigger::monthly(int64_t day, int64_t hour, int64_t minute) {
  ScheduleTrigger t = daily(hour, minute);
  t.kind = Kind::monthly;
  t.day = day;
  return t;
}
ScheduleTrigger ScheduleTrigger::everyHours(int64_t hours) {
  ScheduleTrigger t;
  t.kind = Kind::everyHours;
  t.count = hours;
  return t;
}
ScheduleTrigger ScheduleTrigger::diskFreeBelowPercent(double percent) {
  ScheduleTrigger t;
  t.kind = Kind::diskFreeBelowPercent;
  t.amount = percent;
  return t;
}
ScheduleTrigger ScheduleTrigger::diskFreeBelowGB(double gigabytes) {
  ScheduleTrigger t;
  t.kind = Kind::diskFreeBelowGB;
  t.amount = gigabytes;
  return t;
}
ScheduleTrigger ScheduleTrigger::forecastFullWithinDays(int64_t days) {
  ScheduleTrigger t;
  t.kind = Kind::forecastFullWithinDays;
  t.count = days;
  return t;
}

bool ScheduleTrigger::isCalendar() const {
  switch (kind) {
    case Kind::daily:
    case Kind::weekly:
    case Kind::monthly:
      return true;
    case Kind::everyHours:
    case Kind::diskFreeBelowPercent:
    case Kind::diskFreeBelowGB:
    case Kind::forecastFullWithinDays:
      return false;
  }
  return false;
}

std::string ScheduleTrigger::summary() const {
  switch (kind) {
    case Kind::daily:
      return "Every day at " + clock(hour, minute);
    case Kind::weekly: {
      // A weekday outside 1…7 never matches a date; say what the file holds rather than guess.
      const std::string dayName = weekday >= 1 && weekday <= 7
                                      ? kWeekdayNames[static_cast<size_t>(weekday - 1)]
                                      : "weekday " + std::to_string(weekday);
      return "Every " + dayName + " at " + clock(hour, minute);
    }
    case Kind::monthly:
      return "Monthly on day " + std::to_string(day) + " at " + clock(hour, minute);
    case Kind::everyHours:
      return "Every " + std::to_string(count) + " hour" + (count == 1 ? "" : "s");
    case Kind::diskFreeBelowPercent:
      return "When free space drops below " + JsonText::doubleDescription(amount) + "%";
    case Kind::diskFreeBelowGB:
      return "When free space drops below " + JsonText::doubleDescription(amount) + " GB";
    case Kind::forecastFullWithinDays:
      return "When the disk is predicted to fill within " + std::to_string(count) + " days";
  }
  return {};
}

ScheduleRule ScheduleRule::make(std::string name, ScheduleTrigger trigger,
                                std::vector<CleanCategory> categories, Date now) {
  ScheduleRule r;
  r.id = Uuid::make();
  r.name = std::move(name);
  r.trigger = trigger;
  r.categories = std::move(categories);
  r.createdAt = now;
  return r;
}

std::vector<ScheduleRule> ScheduleRule::defaults(Date now) {
  using C = CleanCategory;
  std::vector<ScheduleRule> rules;
  ScheduleRule weekly = make(
      "Weekly deep clean", ScheduleTrigger::weekly(1, 3, 0),
      {C::userCaches, C::logs, C::crashReports, C::savedAppState, C::mailDownloads, C::iosUpdates},
      now);
  weekly.conditions.minIdleMinutes = 10;
  rules.push_back(std::move(weekly));

  ScheduleRule developer =
      make("Developer junk", ScheduleTrigger::weekly(7, 4, 0),
           {C::xcode, C::simulators, C::packageCaches, C::projectArtifacts}, now);
  developer.conditions.minIdleMinutes = 10;
  developer.conditions.skipIfAppsRunning = {"com.apple.dt.Xcode"};
  rules.push_back(std::move(developer));

  // The emergency rule runs on battery and while the Mac is in use, on purpose.
  ScheduleRule emergency =
      make("Low disk emergency", ScheduleTrigger::diskFreeBelowPercent(10.0),
           {C::userCaches, C::xcode, C::packageCaches, C::logs, C::trash}, now);
  emergency.conditions.requireACPower = false;
  rules.push_back(std::move(emergency));

  // Ships switched off on purpose: forecasts are only as good as the history behind them.
  ScheduleRule forecast =
      make("Stay ahead of a full disk", ScheduleTrigger::forecastFullWithinDays(14),
           {C::userCaches, C::xcode, C::simulators, C::packageCaches}, now);
  forecast.enabled = false;
  rules.push_back(std::move(forecast));
  return rules;
}

Json toJson(const ScheduleTrigger& t) {
  Json payload;
  switch (t.kind) {
    case ScheduleTrigger::Kind::daily:
      payload = Json{{"hour", t.hour}, {"minute", t.minute}};
      break;
    case ScheduleTrigger::Kind::weekly:
      payload = Json{{"weekday", t.weekday}, {"hour", t.hour}, {"minute", t.minute}};
      break;
    case ScheduleTrigger::Kind::monthly:
      payload = Json{{"day", t.day}, {"hour", t.hour}, {"minute", t.minute}};
      break;
    case ScheduleTrigger::Kind::everyHours:
    case ScheduleTrigger::Kind::forecastFullWithinDays:
      payload = Json{{"_0", t.count}};
      break;
    case ScheduleTrigger::Kind::diskFreeBelowPercent:
    case ScheduleTrigger::Kind::diskFreeBelowGB:
      payload = Json{{"_0", t.amount}};
      break;
  }
  return Json{{caseName(t.kind), payload}};
}

ScheduleTrigger scheduleTriggerFromJson(const Json& j) {
  auto [index, payload] =
      singleCase(j, kTriggerCases.data(), kTriggerCases.size(), "ScheduleTrigger");
  const Json& p = *payload;
  using K = ScheduleTrigger::Kind;
  switch (static_cast<K>(index)) {
    case K::daily:
      return ScheduleTrigger::daily(JsonDecode::int64(p, "hour"), JsonDecode::int64(p, "minute"));
    case K::weekly:
      return ScheduleTrigger::weekly(JsonDecode::int64(p, "weekday"), JsonDecode::int64(p, "hour"),
                                     JsonDecode::int64(p, "minute"));
    case K::monthly:
      return ScheduleTrigger::monthly(JsonDecode::int64(p, "day"), JsonDecode::int64(p, "hour"),
                                      JsonDecode::int64(p, "minute"));
    case K::everyHours:
      return ScheduleTrigger::everyHours(JsonDecode::int64(p, "_0"));
    case K::diskFreeBelowPercent:
      return ScheduleTrigger::diskFreeBelowPercent(JsonDecode::number(p, "_0"));
    case K::diskFreeBelowGB:
      return ScheduleTrigger::diskFreeBelowGB(JsonDecode::number(p, "_0"));
    case K::forecastFullWithinDays:
      return ScheduleTrigger::forecastFullWithinDays(JsonDecode::int64(p, "_0"));
  }
  throw DecodeError("Unknown ScheduleTrigger case");
}

Json toJson(const ScheduleConditions& c) {
  Json j{{"requireACPower", c.requireACPower},
         {"skipIfAppsRunning", c.skipIfAppsRunning},
         {"cooldownHours", c.cooldownHours}};
  if (c.minBatteryPercent) j["minBatteryPercent"] = *c.minBatteryPercent;
  if (c.minIdleMinutes) j["minIdleMinutes"] = *c.minIdleMinutes;
  return j;
}

ScheduleConditions scheduleConditionsFromJson(const Json& j) {
  JsonDecode::object(j, "ScheduleConditions");
  ScheduleConditions c;
  c.requireACPower = JsonDecode::boolean(j, "requireACPower");
  c.minBatteryPercent = JsonDecode::optInt64(j, "minBatteryPercent");
  c.minIdleMinutes = JsonDecode::optInt64(j, "minIdleMinutes");
  c.skipIfAppsRunning = JsonDecode::stringArray(j, "skipIfAppsRunning");
  c.cooldownHours = JsonDecode::number(j, "cooldownHours");
  return c;
}


Json toJson(const ScheduleRule& r) {
  Json categories = Json::array();
  for (CleanCategory c : r.categories) categories.push_back(std::string(rawValue(c)));
  Json j{{"id", r.id},
         {"name", r.name},
         {"enabled", r.enabled},
         {"trigger", toJson(r.trigger)},
         {"conditions", toJson(r.conditions)},
         {"categories", categories},
         {"maxRisk", static_cast<int>(r.maxRisk)},
         {"notify", r.notify},
         {"dryRun", r.dryRun},
         {"createdAt", dateToJson(r.createdAt, DateForm::iso8601)}};
  if (r.lastRun) j["lastRun"] = dateToJson(*r.lastRun, DateForm::iso8601);
  if (r.lastResult) j["lastResult"] = *r.lastResult;
  return j;
}

ScheduleRule scheduleRuleFromJson(const Json& j) {
  JsonDecode::object(j, "ScheduleRule");
  ScheduleRule r;
  auto id = j.find("id");
  if (id == j.end()) throw DecodeError("No value associated with key id");
  r.id = Uuid::fromJson(*id);
  r.name = JsonDecode::string(j, "name");
  r.enabled = JsonDecode::boolean(j, "enabled");
  auto trigger = j.find("trigger");
  if (trigger == j.end()) throw DecodeError("No value associated with key trigger");
  r.trigger = scheduleTriggerFromJson(*trigger);
  auto conditions = j.find("conditions");
  if (conditions == j.end()) throw DecodeError("No value associated with key conditions");
  r.conditions = scheduleConditionsFromJson(*conditions);
  r.categories = categoriesFromJson(j);
  auto risk = riskFromRaw(JsonDecode::int64(j, "maxRisk"));
  if (!risk) throw DecodeError("Cannot initialize Risk from invalid value");
  r.maxRisk = *risk;
  r.notify = JsonDecode::boolean(j, "notify");
  r.dryRun = JsonDecode::boolean(j, "dryRun");
  r.createdAt = requiredDate(j, "createdAt");
  if (JsonDecode::has(j, "lastRun")) {
    // No run is older than the clock's epoch: an earlier date (year 1, say, which the clock cannot
    // even hold) is no record of a run, and the rule is due as one that never ran.
    const Date last = dateFromJson(j.at("lastRun"), DateForm::iso8601);
    if (last >= Dates::fromUnixSeconds(0)) r.lastRun = last;
  }
  r.lastResult = JsonDecode::optString(j, "lastResult");
  return r;
}

Json toJson(const std::vector<ScheduleRule>& rules) {
  Json out = Json::array();
  for (const auto& r : rules) out.push_back(toJson(r));
  return out;
}

std::vector<ScheduleRule> scheduleRulesFromJson(const Json& j) {
  if (!j.is_array()) throw DecodeError("Expected an array of rules");
  std::vector<ScheduleRule> out;
  out.reserve(j.size());
  for (const Json& r : j) out.push_back(scheduleRuleFromJson(r));
  return out;
}

}  // namespace kestrel
