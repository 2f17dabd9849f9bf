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

ScheduledRunner makeRunner(AgentContext& ctx) {
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

// The rules file exists but does not decode: said as the tick says it; nothing runs.
int reportDamaged(AgentContext& ctx, const RuleStore& store, const std::string& reason) {
  ctx.out << store.damagedMessage(reason) << '\n';
  ctx.out.flush();
  return 1;
}

}  // namespace

int runScheduled(AgentContext& ctx) {
  makeRunner(ctx).tick(ctx.now());
  return 0;
}

int runRule(AgentContext& ctx) {
  if (ctx.args.empty()) {
    ctx.out << "usage: run-rule <name|uuid>\n";
    ctx.out.flush();
    return 2;
  }
  const std::string& wanted = ctx.args[0];
  const RuleStore store(ctx.paths);
  auto loaded = store.loadChecked(ctx.now());
  if (loaded.damaged()) return reportDamaged(ctx, store, loaded.reason);
  std::vector<ScheduleRule> rules = std::move(*loaded.value);
  if (loaded.status == JSONStore::FileRead::Status::missing) {
    // The shipped rules get fresh ids on every load: written now, the one found here is the one
    // the tick runs.
    try {
      rules = store.update([](std::vector<ScheduleRule>&) {}, ctx.now());
    } catch (const std::exception&) {
      // Not written: the tick below writes the rules it runs.
    }
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

int runRules(AgentContext& ctx) {
  const Date now = ctx.now();
  const SystemState state = ScheduledRunner::probe(ctx.paths, ctx.services, now);
  const date::time_zone* zone = userZone();
  const RuleStore store(ctx.paths);
  const auto loaded = store.loadChecked(now);
  if (loaded.damaged()) return reportDamaged(ctx, store, loaded.reason);
  for (const auto& rule : *loaded.value) {
    ctx.out << (rule.enabled ? "\u25CF " : "\u25CB ") << rule.name << " \u2014 " << rule.trigger.summary()
            << " \u2014 last: " << (rule.lastRun ? Dates::description(*rule.lastRun) : "never")
            << " \u2014 now: " << RuleEvaluator::evaluate(rule, state, now, zone).text() << '\n';
  }
  ctx.out.flush();
  return 0;
}

}  // namespace kestrel::agent
