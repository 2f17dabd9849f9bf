// The handlers of the agent's commands, one group per file.
#pragma once

#include "agent/Dispatcher.h"

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace kestrel::agent {

// The command table: a new command is its handler plus one row there.
std::vector<Command> commandHandlers();

// "run-scheduled": one scheduled tick; always 0 (ScheduleCommands.cpp).
int runScheduled(AgentContext& context);
// "run-rule <name|uuid>": one tick with that rule forced; 2 without an argument, 1 when no rule
// has that id or (ignoring case) name (ScheduleCommands.cpp).
int runRule(AgentContext& context);
// "rules": every rule with its trigger, last run and decision now (ScheduleCommands.cpp).
int runRules(AgentContext& context);
// "scan [--json]": the default categories as a table, or every item as JSON (ScanCommand.cpp).
int runScan(AgentContext& context);
// "clean --category <c> [--max-risk r] [--dry-run]": scan one category and clean it (CleanCommands.cpp).
int runClean(AgentContext& context);
// "quarantine list|restore <id>|purge <id>" (CleanCommands.cpp).
int runQuarantine(AgentContext& context);
// "forecast": free space, the trend of the space history and the day the disk is full
// (InsightCommands.cpp).
int runForecast(AgentContext& context);
// "growth [days] [--snapshot]": the folders that grew or shrank most over about `days` days
// (InsightCommands.cpp).
int runGrowth(AgentContext& context);
// "shred-watch": watches the shredder's folders until its settings switch it off
// (AgentShredderCommands.cpp); its quiet time and timer come from the services.
int runShredWatch(AgentContext& context);
// "shred-now": one sweep, one line per event or "Nothing to shred." (AgentShredderCommands.cpp).
int runShredNow(AgentContext& context);
// "shred-history": the 40 most recent events (AgentShredderCommands.cpp).
int runShredHistory(AgentContext& context);

// The positional day count of "growth": a decimal integer with an optional sign, or nothing.
std::optional<int64_t> parseDayCount(std::string_view text);

}  // namespace kestrel::agent
