// RuleStore: loading, saving and the locked read-modify-write of the rules file.
#include "core/store/RuleStore.h"

#include "core/store/JSONStore.h"

namespace kestrel {

std::vector<ScheduleRule> RuleStore::load(Date now) const {
  auto rules =
      JSONStore::load<std::vector<ScheduleRule>>(paths_.rulesFile(), scheduleRulesFromJson);
  if (!rules) return ScheduleRule::defaults(now);
  return std::move(*rules);
}

void RuleStore::save(const std::vector<ScheduleRule>& rules) const {
  JSONStore::save(toJson(rules), paths_.rulesFile());
}

std::vector<ScheduleRule> RuleStore::update(
    const std::function<void(std::vector<ScheduleRule>&)>& change, Date now) const {
  // A rules file that exists but does not decode is the user's typo, not a reason to replace
  // their rules with the defaults: the update refuses instead.
  return JSONStore::update<std::vector<ScheduleRule>>(
      paths_.rulesFile(), scheduleRulesFromJson, [](const auto& r) { return toJson(r); },
      [now] { return ScheduleRule::defaults(now); },
      [&](std::vector<ScheduleRule>& rules) {
        change(rules);
        return true;
      },
      /*replaceDamaged=*/false);
}

}  // namespace kestrel
