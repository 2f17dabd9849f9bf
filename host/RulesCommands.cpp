// "kestrel rules list|add|remove|enable|disable": the schedule rules, edited through the rule
// store's one read-modify-write so the agent's own saves are never lost.
#include <charconv>

#include "core/base/Text.h"
#include "core/store/JSONStore.h"
#include "core/store/RuleStore.h"
#include "host/Host.h"

namespace kestrel::host {
namespace {

// "HH:MM" with an hour 0-23 and a minute 0-59.
std::pair<int64_t, int64_t> clockTime(const std::string& flag, std::string_view text) {
  int hour = -1, minute = -1;
  const auto colon = text.find(':');
  auto number = [](std::string_view part, int& out) {
    const auto [end, ec] = std::from_chars(part.data(), part.data() + part.size(), out);
    return ec == std::errc() && end == part.data() + part.size() && !part.empty() &&
           part.size() <= 2;
  };
  if (colon == std::string_view::npos || !number(text.substr(0, colon), hour) ||
      !number(text.substr(colon + 1), minute) || hour > 23 || minute > 59 || hour < 0 || minute < 0)
    throw UsageError(flag + ": the time must be HH:MM (00:00 to 23:59), not \"" +
                     std::string(text) + "\"");
  return {hour, minute};
}

// The text before and after the "@" of "sun@03:00" or "1@03:00".
std::pair<std::string_view, std::string_view> splitAt(const std::string& flag,
                                                      std::string_view text,
                                                      std::string_view example) {
  const auto at = text.find('@');
  if (at == std::string_view::npos)
    throw UsageError(flag + " takes " + std::string(example) + ", not \"" + std::string(text) +
                     "\"");
  return {text.substr(0, at), text.substr(at + 1)};
}

int64_t weekdayNumber(std::string_view text) {
  static constexpr std::string_view kDays[] = {"sunday",   "monday", "tuesday", "wednesday",
                                               "thursday", "friday", "saturday"};
  for (int64_t i = 0; i < 7; ++i) {
    const std::string_view day = kDays[i];
    if (Utf8::equalsIgnoringCase(text, day) || Utf8::equalsIgnoringCase(text, day.substr(0, 3)))
      return i + 1;
  }
  throw UsageError("--weekly: the day must be one of sun, mon, tue, wed, thu, fri, sat, not \"" +
                   std::string(text) + "\"");
}

template <class T>
T wholeNumber(const std::string& flag, const std::string& text, T low, T high) {
  T value{};
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || text.empty() || value < low ||
      value > high)
    throw UsageError(flag + " takes a whole number from " + std::to_string(low) + " to " +
                     std::to_string(high) + ", not \"" + text + "\"");
  return value;
}

double positiveNumber(const std::string& flag, const std::string& text, double high) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !(value > 0) || !(value < high))
    throw UsageError(flag + " takes a number above 0 and below " + JsonText::number(high) +
                     ", not \"" + text + "\"");
  return value;
}

constexpr std::pair<std::string_view, Risk> kRisks[] = {
    {"safe", Risk::safe}, {"review", Risk::review}, {"caution", Risk::caution}};

std::string_view riskName(Risk risk) {
  for (const auto& [name, r] : kRisks)
    if (r == risk) return name;
  return "safe";
}

std::string allowedCategories() {
  std::string list;
  for (const auto c : allCategories())
    list += (list.empty() ? "" : ", ") + std::string(rawValue(c));
  return list;
}

// The flags of "rules add", as typed.
struct AddOptions {
  std::string name;
  std::string daily, weekly, monthly, everyHours, freePercent, freeGB, forecastDays;
  std::string categories;
  std::string maxRisk = "safe";
  bool dryRun = false;
  bool acPower = false;
  std::string idleMinutes;
  std::vector<std::string> skipApps;
};

ScheduleTrigger triggerFrom(const AddOptions& o) {
  const std::pair<const char*, const std::string*> given[] = {
      {"--daily", &o.daily},
      {"--weekly", &o.weekly},
      {"--monthly", &o.monthly},
      {"--every-hours", &o.everyHours},
      {"--free-below-percent", &o.freePercent},
      {"--free-below-gb", &o.freeGB},
      {"--forecast-within-days", &o.forecastDays}};
  std::vector<std::string> set;
  for (const auto& [flag, value] : given)
    if (!value->empty()) set.push_back(flag);
  if (set.size() != 1)
    throw UsageError(
        "Give exactly one trigger: --daily HH:MM, --weekly DAY@HH:MM, --monthly DAY@HH:MM, "
        "--every-hours N, --free-below-percent P, --free-below-gb G or --forecast-within-days D");
  if (!o.daily.empty()) {
    const auto [h, m] = clockTime("--daily", o.daily);
    return ScheduleTrigger::daily(h, m);
  }
  if (!o.weekly.empty()) {
    const auto [day, time] = splitAt("--weekly", o.weekly, "DAY@HH:MM (sun@03:00)");
    const int64_t weekday = weekdayNumber(day);
    const auto [h, m] = clockTime("--weekly", time);
    return ScheduleTrigger::weekly(weekday, h, m);
  }
  if (!o.monthly.empty()) {
    const auto [day, time] = splitAt("--monthly", o.monthly, "DAY@HH:MM (1@03:00)");
    const int64_t dayOfMonth = wholeNumber<int64_t>("--monthly: the day", std::string(day), 1, 31);
    const auto [h, m] = clockTime("--monthly", time);
    return ScheduleTrigger::monthly(dayOfMonth, h, m);
  }
  if (!o.everyHours.empty())
    return ScheduleTrigger::everyHours(
        wholeNumber<int64_t>("--every-hours", o.everyHours, 1, 24 * 366));
  if (!o.freePercent.empty())
    return ScheduleTrigger::diskFreeBelowPercent(
        positiveNumber("--free-below-percent", o.freePercent, 100));
  if (!o.freeGB.empty())
    return ScheduleTrigger::diskFreeBelowGB(positiveNumber("--free-below-gb", o.freeGB, 1e9));
  return ScheduleTrigger::forecastFullWithinDays(
      wholeNumber<int64_t>("--forecast-within-days", o.forecastDays, 1, 3650));
}

// Checks every flag before anything is read or written, so a bad one changes nothing.
ScheduleRule ruleFrom(const AddOptions& o, Date now) {
  if (o.name.empty() || !Utf8::isValid(o.name)) throw UsageError("The rule needs a name");
  const ScheduleTrigger trigger = triggerFrom(o);
  std::vector<CleanCategory> categories;
  size_t start = 0;
  while (start <= o.categories.size()) {
    const size_t comma = std::min(o.categories.find(',', start), o.categories.size());
    const std::string word = o.categories.substr(start, comma - start);
    const auto category = categoryFromRaw(word);
    if (!category)
      throw UsageError("--categories: \"" + word +
                       "\" is not a category; use a comma-separated list of " +
                       allowedCategories());
    if (std::find(categories.begin(), categories.end(), *category) == categories.end())
      categories.push_back(*category);
    start = comma + 1;
  }
  ScheduleRule rule = ScheduleRule::make(o.name, trigger, categories, now);
  const auto risk = std::find_if(std::begin(kRisks), std::end(kRisks),
                                 [&](const auto& r) { return r.first == o.maxRisk; });
  if (risk == std::end(kRisks))
    throw UsageError("--max-risk must be one of safe, review, caution, not \"" + o.maxRisk + "\"");
  rule.maxRisk = risk->second;
  rule.dryRun = o.dryRun;
  rule.conditions.requireACPower = o.acPower;
  if (!o.idleMinutes.empty())
    rule.conditions.minIdleMinutes =
        wholeNumber<int64_t>("--idle-minutes", o.idleMinutes, 1, 24 * 60);
  for (const auto& app : o.skipApps)
    if (app.empty()) throw UsageError("--skip-app needs an application id");
  rule.conditions.skipIfAppsRunning = o.skipApps;
  return rule;
}

bool matches(const ScheduleRule& rule, const std::string& wanted) {
  return rule.id == wanted || Utf8::equalsIgnoringCase(rule.name, wanted);
}

std::string categoriesText(const ScheduleRule& rule) {
  std::string text;
  for (const auto c : rule.categories)
    text += (text.empty() ? "" : ", ") + std::string(rawValue(c));
  return text;
}

int list(HostContext& ctx) {
  const RuleStore store(ctx.paths);
  const auto loaded = store.loadChecked(ctx.now());
  if (loaded.damaged())
    throw CommandError(store.damagedMessage(loaded.reason));
  const auto& rules = *loaded.value;
  if (ctx.json) {
    ctx.printJson("rules", toJson(rules));
    return kOK;
  }
  for (const auto& rule : rules) {
    ctx.out << (rule.enabled ? "\u25CF " : "\u25CB ") << rule.name << " \u2014 "
            << rule.trigger.summary() << " \u2014 " << categoriesText(rule) << " (up to "
            << riskName(rule.maxRisk) << (rule.dryRun ? ", dry run" : "") << ")\n    id " << rule.id
            << ", last: "
            << (rule.lastRun
                    ? Dates::description(*rule.lastRun) + " \u2014 " + rule.lastResult.value_or("")
                    : std::string("never"))
            << '\n';
  }
  return kOK;
}

int add(HostContext& ctx, const AddOptions& options) {
  const ScheduleRule rule = ruleFrom(options, ctx.now());
  bool taken = false;
  RuleStore(ctx.paths).update(
      [&](std::vector<ScheduleRule>& rules) {
        taken = std::any_of(rules.begin(), rules.end(),
                            [&](const auto& r) { return matches(r, rule.name); });
        if (!taken) rules.push_back(rule);
      },
      ctx.now());
  if (taken) {
    // run-rule finds rules by name: two of one name could never both be reached.
    ctx.err << "A rule named \"" << rule.name << "\" already exists; choose another name.\n";
    return kFailed;
  }
  if (ctx.json)
    ctx.printJson("rules", toJson(rule));
  else
    ctx.out << "Added rule \"" << rule.name << "\" (" << rule.id << "): " << rule.trigger.summary()
            << '\n';
  return kOK;
}

// Applies `edit` to the rule named (or with the id) `wanted`; 1 when there is none.
int change(HostContext& ctx, const std::string& wanted, const std::string& done,
           const std::function<void(std::vector<ScheduleRule>&,
                                    std::vector<ScheduleRule>::iterator)>& edit) {
  std::optional<ScheduleRule> found;
  RuleStore(ctx.paths).update(
      [&](std::vector<ScheduleRule>& rules) {
        const auto it = std::find_if(rules.begin(), rules.end(),
                                     [&](const auto& r) { return matches(r, wanted); });
        if (it == rules.end()) return;
        found = *it;
        edit(rules, it);
      },
      ctx.now());
  if (!found) {
    ctx.err << "No rule named " << wanted << '\n';
    return kFailed;
  }
  if (ctx.json)
    ctx.printJson("rules", {{"id", found->id}, {"name", found->name}, {"result", done}});
  else
    ctx.out << done << " rule \"" << found->name << "\".\n";
  return kOK;
}

}  // namespace

void addRulesCommands(CLI::App& app, HostContext& context, Action& action) {
  CLI::App* rules =
      app.add_subcommand("rules", "List, add, remove, switch on or off the schedule rules");
  rules->require_subcommand(1);
  rules->add_subcommand("list", "Every rule with its trigger, categories and last run")
      ->callback([&] { action = [&] { return list(context); }; });

  auto options = std::make_shared<AddOptions>();
  CLI::App* add = rules->add_subcommand("add", "Add a rule (one trigger, --categories required)");
  add->add_option("name", options->name, "The rule's name")->required();
  add->add_option("--daily", options->daily, "Every day at HH:MM");
  add->add_option("--weekly", options->weekly, "Every week on DAY@HH:MM (sun@03:00)");
  add->add_option("--monthly", options->monthly, "Every month on DAY@HH:MM (1@03:00)");
  add->add_option("--every-hours", options->everyHours, "Every N hours");
  add->add_option("--free-below-percent", options->freePercent,
                  "When free space drops below P percent");
  add->add_option("--free-below-gb", options->freeGB, "When free space drops below G gigabytes");
  add->add_option("--forecast-within-days", options->forecastDays,
                  "When the disk is predicted to fill within D days");
  add->add_option("--categories", options->categories,
                  "What to clean, comma-separated: " + allowedCategories())
      ->required();
  add->add_option("--max-risk", options->maxRisk,
                  "Highest risk cleaned: safe (default), review or caution");
  add->add_flag("--dry-run", options->dryRun, "Only report what would be freed");
  add->add_flag("--ac-power", options->acPower, "Run only on mains power");
  add->add_option("--idle-minutes", options->idleMinutes, "Run only after N minutes without input");
  add->add_option("--skip-app", options->skipApps, "Wait while this application runs (repeatable)");
  add->callback(
      [&, options] { action = [&, options] { return kestrel::host::add(context, *options); }; });

  struct Edit {
    const char* name;
    const char* help;
    const char* done;
  };
  static constexpr Edit kEdits[] = {
      {"remove", "Remove a rule (by name or id)", "Removed"},
      {"enable", "Switch a rule on (by name or id)", "Switched on"},
      {"disable", "Switch a rule off (by name or id)", "Switched off"}};
  for (const auto& e : kEdits) {
    auto wanted = std::make_shared<std::string>();
    CLI::App* sub = rules->add_subcommand(e.name, e.help);
    sub->add_option("rule", *wanted, "The rule's name (any letter case) or id")->required();
    const std::string verb = e.name;
    sub->callback([&, wanted, verb, done = std::string(e.done)] {
      action = [&, wanted, verb, done] {
        return change(context, *wanted, done, [&](std::vector<ScheduleRule>& rules, auto it) {
          if (verb == "remove")
            rules.erase(it);
          else
            it->enabled = verb == "enable";
        });
      };
    });
  }
}

}  // namespace kestrel::host
