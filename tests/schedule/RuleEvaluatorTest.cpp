// Rule evaluation: calendar slots across daylight-saving changes, the other triggers and the
// conditions, each as a table at a fixed time in a fixed zone.
#include "core/schedule/RuleEvaluator.h"

#include <date/tz.h>
#include <gtest/gtest.h>

namespace kestrel {
namespace {

Date at(const char* iso) { return *Dates::parseISO8601(iso); }
const date::time_zone* zone(const char* name) { return date::locate_zone(name); }

TEST(RuleEvaluatorTest, LatestSlotInTheUsersZone) {
  const struct Case {
    const char* what;
    const char* zone;
    ScheduleTrigger trigger;
    const char* now;
    const char* slot;  // nullptr: none
  } cases[] = {
      {"daily at its minute", "Europe/Berlin", ScheduleTrigger::daily(3, 0), "2026-03-10T02:00:00Z", "2026-03-10T02:00:00Z"},
      {"daily a second before", "Europe/Berlin", ScheduleTrigger::daily(3, 0), "2026-03-10T01:59:59Z", "2026-03-09T02:00:00Z"},
      {"02:30 skipped by spring-forward runs at 03:00", "Europe/Berlin", ScheduleTrigger::daily(2, 30), "2026-03-29T10:00:00Z", "2026-03-29T01:00:00Z"},
      {"repeated 02:30: the first occurrence", "Europe/Berlin", ScheduleTrigger::daily(2, 30), "2026-10-25T11:00:00Z", "2026-10-25T00:30:00Z"},
      {"now in the second 02:xx", "Europe/Berlin", ScheduleTrigger::daily(2, 30), "2026-10-25T01:15:00Z", "2026-10-25T00:30:00Z"},
      {"now in the first 02:xx", "Europe/Berlin", ScheduleTrigger::daily(2, 30), "2026-10-25T00:15:00Z", "2026-10-24T00:30:00Z"},
      {"weekly at its minute", "Europe/Berlin", ScheduleTrigger::weekly(1, 3, 0), "2026-11-22T02:00:00Z", "2026-11-22T02:00:00Z"},
      {"weekly Saturday seen on Wednesday", "Europe/Berlin", ScheduleTrigger::weekly(7, 4, 0), "2026-11-25T09:00:00Z", "2026-11-21T03:00:00Z"},
      {"weekly on the gap Sunday", "Europe/Berlin", ScheduleTrigger::weekly(1, 2, 30), "2026-03-29T10:00:00Z", "2026-03-29T01:00:00Z"},
      {"weekly overlap seen two days later", "Europe/Berlin", ScheduleTrigger::weekly(1, 2, 30), "2026-10-27T11:00:00Z", "2026-10-25T00:30:00Z"},
      {"monthly before its day", "Europe/Berlin", ScheduleTrigger::monthly(15, 3, 0), "2026-06-14T08:00:00Z", "2026-05-15T01:00:00Z"},
      {"monthly 31 after a 30-day month", "Europe/Berlin", ScheduleTrigger::monthly(31, 3, 0), "2026-05-20T10:00:00Z", "2026-04-30T22:00:00Z"},
      {"monthly 31 on the 1st after June", "Europe/Berlin", ScheduleTrigger::monthly(31, 3, 0), "2026-07-01T10:00:00Z", "2026-06-30T22:00:00Z"},
      {"monthly 30 after February", "Europe/Berlin", ScheduleTrigger::monthly(30, 3, 0), "2026-03-02T11:00:00Z", "2026-02-28T23:00:00Z"},
      {"monthly in October, no overshoot", "Europe/Berlin", ScheduleTrigger::monthly(20, 3, 0), "2026-10-10T10:00:00Z", "2026-09-20T01:00:00Z"},
      {"monthly on the gap day", "Europe/Berlin", ScheduleTrigger::monthly(29, 2, 30), "2026-03-30T10:00:00Z", "2026-03-29T01:00:00Z"},
      {"New York repeated 01:30", "America/New_York", ScheduleTrigger::daily(1, 30), "2026-11-01T17:00:00Z", "2026-11-01T05:30:00Z"},
      {"New York year end", "America/New_York", ScheduleTrigger::monthly(31, 3, 0), "2027-01-01T05:00:00Z", "2026-12-31T08:00:00Z"},
      {"hour 24", "UTC", ScheduleTrigger::daily(24, 0), "2026-03-10T02:00:00Z", nullptr},
      {"weekday 8", "UTC", ScheduleTrigger::weekly(8, 3, 0), "2026-03-10T02:00:00Z", nullptr},
      {"day 0", "UTC", ScheduleTrigger::monthly(0, 3, 0), "2026-03-10T02:00:00Z", nullptr},
      {"not a calendar trigger", "UTC", ScheduleTrigger::everyHours(6), "2026-03-10T02:00:00Z", nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto slot = RuleEvaluator::latestSlot(c.trigger, at(c.now), zone(c.zone));
    if (!c.slot) {
      EXPECT_FALSE(slot);
    } else {
      ASSERT_TRUE(slot);
      EXPECT_EQ(Dates::iso8601(*slot), c.slot);
    }
  }
}

ScheduleRule rule(ScheduleTrigger trigger, const char* createdAt, std::optional<const char*> lastRun = std::nullopt) {
  ScheduleRule r = ScheduleRule::make("Rule", trigger, {CleanCategory::userCaches}, at(createdAt));
  r.conditions.requireACPower = false;
  if (lastRun) r.lastRun = at(*lastRun);
  return r;
}

TEST(RuleEvaluatorTest, DecisionsAtFixedTimes) {
  const auto defaults = ScheduleRule::defaults(at("2026-01-01T00:00:00Z"));
  const ScheduleRule weeklyDeep = defaults[0], emergency = defaults[2];
  SystemState mains;
  mains.onACPower = true;
  SystemState battery20;
  battery20.onACPower = false;
  battery20.batteryPercent = 20;
  battery20.space = FS::VolumeSpace{100'000'000'000, 5'000'000'000};

  struct Case {
    const char* what;
    ScheduleRule rule;
    SystemState state;
    const char* now;
    Decision expected;
    const char* zone = "Europe/Berlin";
  };
  std::vector<Case> cases;
  const auto add = [&](const char* what, ScheduleRule r, SystemState s, const char* now, Decision d,
                       const char* z = "Europe/Berlin") { cases.push_back({what, std::move(r), std::move(s), now, d, z}); };
  // Calendar triggers.
  add("weekly made on Monday, Sunday 03:00:00", rule(ScheduleTrigger::weekly(1, 3, 0), "2026-11-16T09:00:00Z"), {},
      "2026-11-22T02:00:00Z", Decision::run());
  add("weekly made on Monday, Sunday 02:59:59", rule(ScheduleTrigger::weekly(1, 3, 0), "2026-11-16T09:00:00Z"), {},
      "2026-11-22T01:59:59Z", Decision::notDue());
  add("daily that ran at 03:00:00, at 03:00:30", rule(ScheduleTrigger::daily(3, 0), "2026-01-01T00:00:00Z", "2026-03-10T02:00:00Z"),
      {}, "2026-03-10T02:00:30Z", Decision::notDue());
  // A daily 02:30 across the changes of a European and an American zone: once a day, never twice.
  add("Berlin spring: before the gap", rule(ScheduleTrigger::daily(2, 30), "2026-01-01T00:00:00Z", "2026-03-28T01:30:00Z"), {},
      "2026-03-29T00:59:59Z", Decision::notDue());
  add("Berlin spring: the end of the gap", rule(ScheduleTrigger::daily(2, 30), "2026-01-01T00:00:00Z", "2026-03-28T01:30:00Z"), {},
      "2026-03-29T01:00:00Z", Decision::run());
  add("Berlin spring: ran at the gap's end", rule(ScheduleTrigger::daily(2, 30), "2026-01-01T00:00:00Z", "2026-03-29T01:00:00Z"), {},
      "2026-03-29T01:30:00Z", Decision::notDue());
  add("Berlin fall: first 02:30", rule(ScheduleTrigger::daily(2, 30), "2026-01-01T00:00:00Z", "2026-10-24T00:30:00Z"), {},
      "2026-10-25T00:30:00Z", Decision::run());
  add("Berlin fall: the repeat does not run again", rule(ScheduleTrigger::daily(2, 30), "2026-01-01T00:00:00Z", "2026-10-25T00:30:00Z"), {},
      "2026-10-25T01:30:00Z", Decision::notDue());
  add("New York spring: the end of the gap", rule(ScheduleTrigger::daily(2, 30), "2026-01-01T00:00:00Z", "2026-03-07T07:30:00Z"), {},
      "2026-03-08T07:00:00Z", Decision::run(), "America/New_York");
  add("New York fall: 02:30 standard time", rule(ScheduleTrigger::daily(2, 30), "2026-01-01T00:00:00Z", "2026-10-31T06:30:00Z"), {},
      "2026-11-01T07:30:00Z", Decision::run(), "America/New_York");
  add("New York fall: ran at 02:30, an hour later", rule(ScheduleTrigger::daily(2, 30), "2026-01-01T00:00:00Z", "2026-11-01T07:30:00Z"), {},
      "2026-11-01T08:30:00Z", Decision::notDue(), "America/New_York");
  add("New York fall: the repeated 01:30", rule(ScheduleTrigger::daily(1, 30), "2026-01-01T00:00:00Z", "2026-11-01T05:30:00Z"), {},
      "2026-11-01T06:30:00Z", Decision::notDue(), "America/New_York");
  // Intervals, space and forecast.
  add("every 6 hours, 5 hours after creation", rule(ScheduleTrigger::everyHours(6), "2026-03-10T00:00:00Z"), {},
      "2026-03-10T05:00:00Z", Decision::notDue());
  add("every 6 hours, 6 hours after creation", rule(ScheduleTrigger::everyHours(6), "2026-03-10T00:00:00Z"), {},
      "2026-03-10T06:00:00Z", Decision::run());
  add("emergency on battery", emergency, battery20, "2026-03-10T06:00:00Z", Decision::run());
  ScheduleRule emergency50 = emergency;
  emergency50.conditions.minBatteryPercent = 50;
  add("emergency under the battery minimum", emergency50, battery20, "2026-03-10T06:00:00Z",
      Decision::waiting("Battery below 50%"));
  ScheduleRule emergencyRan = emergency;
  emergencyRan.lastRun = at("2026-03-10T02:00:00Z");
  add("emergency inside its cooldown", emergencyRan, battery20, "2026-03-10T06:00:00Z", Decision::notDue());
  SystemState unknownSpace;
  add("emergency without space", emergency, unknownSpace, "2026-03-10T06:00:00Z", Decision::notDue());
  SystemState zeroTotal;
  zeroTotal.space = FS::VolumeSpace{0, 0};
  add("a volume of total 0 is all free", emergency, zeroTotal, "2026-03-10T06:00:00Z", Decision::notDue());
  add("below 10 GB (decimal)", rule(ScheduleTrigger::diskFreeBelowGB(5.5), "2026-01-01T00:00:00Z"), battery20,
      "2026-03-10T06:00:00Z", Decision::run());
  SystemState forecast3;
  forecast3.forecastDaysUntilFull = 3.0;
  add("forecast ran 10 hours ago: the day floor", rule(ScheduleTrigger::forecastFullWithinDays(14), "2026-01-01T00:00:00Z", "2026-03-09T20:00:00Z"),
      forecast3, "2026-03-10T06:00:00Z", Decision::notDue());
  add("forecast ran 25 hours ago", rule(ScheduleTrigger::forecastFullWithinDays(14), "2026-01-01T00:00:00Z", "2026-03-09T05:00:00Z"),
      forecast3, "2026-03-10T06:00:00Z", Decision::run());
  ScheduleRule longCooldown = rule(ScheduleTrigger::forecastFullWithinDays(14), "2026-01-01T00:00:00Z", "2026-03-09T05:00:00Z");
  longCooldown.conditions.cooldownHours = 30;
  add("forecast with a 30-hour cooldown, 25 hours on", longCooldown, forecast3, "2026-03-10T06:00:00Z", Decision::notDue());
  add("forecast farther than the limit", rule(ScheduleTrigger::forecastFullWithinDays(2), "2026-01-01T00:00:00Z"), forecast3,
      "2026-03-10T06:00:00Z", Decision::notDue());
  add("no forecast", rule(ScheduleTrigger::forecastFullWithinDays(14), "2026-01-01T00:00:00Z"), {}, "2026-03-10T06:00:00Z",
      Decision::notDue());
  // Conditions, in their order.
  add("weekly deep clean on battery", weeklyDeep, battery20, "2026-03-08T03:00:00Z", Decision::waiting("Waiting for AC power"));
  SystemState busy = mains;
  busy.idleSeconds = 120;
  busy.runningBundleIDs = {"com.apple.dt.Xcode"};
  add("weekly deep clean while in use", weeklyDeep, busy, "2026-03-08T03:00:00Z",
      Decision::waiting("Waiting until the Mac has been idle 10 min"));
  busy.idleSeconds = 600;
  add("developer junk while the app runs", defaults[1], busy, "2026-03-08T03:00:00Z",
      Decision::waiting("Waiting for com.apple.dt.Xcode to quit"));
  add("unknown state holds nothing back", weeklyDeep, {}, "2026-03-08T03:00:00Z", Decision::run());
  ScheduleRule off = weeklyDeep;
  off.enabled = false;
  add("disabled", off, mains, "2026-03-08T03:00:00Z", Decision::notDue());
  ScheduleRule empty = weeklyDeep;
  empty.categories.clear();
  add("no categories", empty, mains, "2026-03-08T03:00:00Z", Decision::notDue());

  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(RuleEvaluator::evaluate(c.rule, c.state, at(c.now), zone(c.zone)).text(), c.expected.text());
  }
}

TEST(RuleEvaluatorTest, DecisionTexts) {
  EXPECT_EQ(Decision::run().text(), "run");
  EXPECT_EQ(Decision::notDue().text(), "notDue");
  EXPECT_EQ(Decision::waiting("Waiting for AC power").text(), "waiting(\"Waiting for AC power\")");
  EXPECT_EQ(Decision::waiting("Waiting for a\"b\\c\n to quit").text(), "waiting(\"Waiting for a\\\"b\\\\c\\n to quit\")");
}

}  // namespace
}  // namespace kestrel
