// The schedule commands: "run-scheduled" and "run-rule" run one tick, "rules" prints every rule
// with what it would do now.
#include "agent/Commands.h"

#include "core/base/Text.h"
#include "core/schedule/RuleEvaluator.h"
#include "core/schedule/ScheduledRunner.h"
#include "core/store/RuleStore.h"

#include <date/tz.h>

namespace kestrel::agent {
namespace {

ScheduledRunner makeRunner(Context& ctx) {
  return ScheduledRunner(
      ctx.paths, [&ctx](const std::string& line) { ctx.stamp(line); }, ctx.services.notify, ctx.services);
}

const date::time_zone* userZone() {
  try {
    return date::current_zone();
  } catch (const std::exception&) {
    return date::locate_zone("UTC");
  }
}

}  // namespace

int runScheduled(Context& ctx) {
  makeRunner(ctx).tick(ctx.now());
  return 0;
}

int runRule(Context& ctx) {
  if (ctx.args.empty()) {
    ctx.out << "usage: run-rule <name|uuid>\n";
    ctx.out.flush();
    return 2;
  }
  const std::string& wanted = ctx.args[0];
  const RuleStore store(ctx.paths);
  std::vector<ScheduleRule> rules;
  std::error_code ec;
  if (!fs::exists(fs::symlink_status(ctx.paths.rulesFile(), ec))) {
    // The shipped rules get fresh ids on every load: written now, the one found here is the one
    // the tick runs.
    try {
      rules = store.update([](std::vector<ScheduleRule>&) {}, ctx.now());
    } catch (const std::exception&) {
      rules = store.load(ctx.now());
    }
  } else {
    rules = store.load(ctx.now());
  }
  // Ids are kept in their upper-case form; a lower-case id is not the same text.
  for (const auto& rule : rules) {
    if (rule.id == wanted || Utf8::equalsIgnoringCase(rule.name, wanted)) {
      makeRunner(ctx).tick(ctx.now(), rule.id);
      return 0;
    }
  }
  ctx.out << "No rule named " << wanted << '\n';
  ctx.out.flush();
  return 1;
}

int runRules(Context& ctx) {
  const Date now = ctx.now();
  const SystemState state = ScheduledRunner::probe(ctx.paths, ctx.services, now);
  const date::time_zone* zone = userZone();
  for (const auto& rule : RuleStore(ctx.paths).load(now)) {
    ctx.out << (rule.enabled ? "\u25CF " : "\u25CB ") << rule.name << " \u2014 " << rule.trigger.summary()
            << " \u2014 last: " << (rule.lastRun ? Dates::description(*rule.lastRun) : "never")
            << " \u2014 now: " << RuleEvaluator::evaluate(rule, state, now, zone).text() << '\n';
  }
  ctx.out.flush();
  return 0;
}

}  // namespace kestrel::agent
