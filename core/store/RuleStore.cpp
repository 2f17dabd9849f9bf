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

JSONStore::Loaded<std::vector<ScheduleRule>> RuleStore::loadChecked(Date now) const {
  auto loaded = JSONStore::loadChecked<std::vector<ScheduleRule>>(paths_.rulesFile(), scheduleRulesFromJson);
  if (!loaded.value && !loaded.damaged()) loaded.value = ScheduleRule::defaults(now);
  return loaded;
}

std::string RuleStore::damagedMessage(const std::string& reason) const {
  return "Rules file " + paths_.rulesFile().string() + " is damaged (" + reason + "); no rule runs. Fix it or delete it.";
}

void RuleStore::save(const std::vector<ScheduleRule>& rules) const {
  JSONStore::save(toJson(rules), paths_.rulesFile());
}

std::vector<ScheduleRule> RuleStore::update(
    const std::function<void(std::vector<ScheduleRule>&)>& change, Date now) const {
  // A rules file that exists but does not decode is the user's typo, not a reason to replace
  // their rules with the defaults: the update refuses instead.
  try {
    return JSONStore::update<std::vector<ScheduleRule>>(
        paths_.rulesFile(), scheduleRulesFromJson, [](const auto& r) { return toJson(r); },
        [now] { return ScheduleRule::defaults(now); },
        [&](std::vector<ScheduleRule>& rules) {
          change(rules);
          return true;
        },
        /*replaceDamaged=*/false);
  } catch (const JSONStore::StoreError& e) {
    if (e.kind() != JSONStore::StoreError::Kind::damaged) throw;
    // Said in the words every command uses for this file.
    throw JSONStore::StoreError(e.kind(), damagedMessage(loadChecked(now).reason));
  }
}

}  // namespace kestrel
