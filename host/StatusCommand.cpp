// "kestrel status": one look at everything the background agent keeps.
#include <cmath>

#include "core/base/ByteFormat.h"
#include "core/clean/Quarantine.h"
#include "core/insights/SpaceHistory.h"
#include "core/store/AuditLog.h"
#include "core/store/RuleStore.h"
#include "host/Host.h"

namespace kestrel::host {
namespace {

// The rule that ran last, by its lastRun.
std::optional<ScheduleRule> lastRun(const std::vector<ScheduleRule>& rules) {
  std::optional<ScheduleRule> last;
  for (const auto& r : rules)
    if (r.lastRun && (!last || *r.lastRun > *last->lastRun)) last = r;
  return last;
}

int status(HostContext& ctx) {
  std::vector<std::string> lines;
  Json json = Json::object();
  const auto add = [&](const char* key, StatusPart part) {
    lines.insert(lines.end(), part.lines.begin(), part.lines.end());
    json[key] = std::move(part.json);
  };
  add("agents", agentsStatus(ctx));

  const auto rules = RuleStore(ctx.paths).load(ctx.now());
  const auto last = lastRun(rules);
  if (last) {
    lines.push_back("Last scheduled run: " + last->name + " at " +
                    Dates::description(*last->lastRun) + " \u2014 " +
                    last->lastResult.value_or(""));
    json["lastRun"] = {{"rule", last->name},
                       {"date", Dates::iso8601(*last->lastRun)},
                       {"result", last->lastResult.value_or("")}};
  } else {
    lines.push_back("Last scheduled run: never");
    json["lastRun"] = nullptr;
  }

  const int64_t freed = AuditLog(ctx.paths).lifetimeFreed();
  lines.push_back("Lifetime freed: " + ByteFormat::string(freed));
  json["lifetimeFreed"] = freed;

  const auto sessions = Quarantine(ctx.paths, ctx.services).sessions();
  int64_t held = 0;
  for (const auto& s : sessions)
    if (__builtin_add_overflow(held, s.totalSize(), &held)) held = INT64_MAX;
  lines.push_back("Quarantine: " + std::to_string(sessions.size()) + " session(s), " +
                  ByteFormat::string(held));
  json["quarantine"] = {{"sessions", sessions.size()}, {"bytes", held}};

  const auto forecast = SpaceHistory(ctx.paths).forecast(ctx.now());
  if (!forecast) {
    lines.push_back("Forecast: not enough history yet (needs ~2 days of samples)");
    json["daysUntilFull"] = nullptr;
  } else if (forecast->daysUntilFull && std::isfinite(*forecast->daysUntilFull)) {
    const auto days = static_cast<int64_t>(std::clamp(*forecast->daysUntilFull, 0.0, 1e9));
    lines.push_back("Forecast: predicted full in " + std::to_string(days) + " days");
    json["daysUntilFull"] = days;
  } else {
    lines.push_back("Forecast: not filling up");
    json["daysUntilFull"] = nullptr;
  }

  add("adminQueue", adminStatus(ctx));
  add("shredder", shredderStatus(ctx));

  if (ctx.json) {
    ctx.printJson("status", json);
  } else {
    for (const auto& line : lines) ctx.out << line << '\n';
  }
  return kOK;
}

}  // namespace

void addStatusCommand(CLI::App& app, HostContext& context, Action& action) {
  app.add_subcommand(
         "status",
         "The agents, the last scheduled run, lifetime freed, quarantine, forecast, queued "
         "administrator removals and the Shredder")
      ->callback([&] { action = [&] { return status(context); }; });
}

}  // namespace kestrel::host
