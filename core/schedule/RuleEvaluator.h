// Rule evaluation: whether a schedule rule runs now, by its trigger and then its conditions.
#pragma once

#include "core/base/Dates.h"
#include "core/model/ScheduleRule.h"
#include "core/system/process/SystemProbe.h"

#include <optional>
#include <string>

namespace date {
class time_zone;
}

namespace kestrel {

struct Decision {
  enum class Kind { run, notDue, waiting };
  Kind kind = Kind::notDue;
  std::string reason;  // waiting only: what holds the rule back

  static Decision run() { return {Kind::run, {}}; }
  static Decision notDue() { return {Kind::notDue, {}}; }
  static Decision waiting(std::string reason) { return {Kind::waiting, std::move(reason)}; }
  // "run", "notDue" or `waiting("<reason>")` with the reason's quotes and backslashes escaped.
  std::string text() const;
  bool operator==(const Decision&) const = default;
};

namespace RuleEvaluator {

// The decision for `rule` at `now` in time zone `zone` (the user's, date::current_zone(), in
// real runs). A disabled rule or one without categories is not due; a calendar rule is due when
// it has not run (or, never run, was not created) since its latest slot; the others by their
// interval, free space or forecast and cooldown. A due rule then waits for mains power (unless it
// is a free-space rule), a battery minimum, idleness (unless free-space) and applications, in
// that order; unknown state never holds it back.
Decision evaluate(const ScheduleRule& rule, const SystemState& state, Date now, const date::time_zone* zone);

// The latest moment at or before `now` that a calendar trigger names, in `zone`: a wall time a
// spring-forward skips is the first moment after the gap, one a fall-back repeats is its first
// occurrence, and a day of the month the month lacks is 00:00 on the 1st of the next month.
// Nothing for triggers that are not calendar ones or hold an impossible hour, minute, weekday or day.
std::optional<Date> latestSlot(const ScheduleTrigger& trigger, Date now, const date::time_zone* zone);

}  // namespace RuleEvaluator
}  // namespace kestrel
