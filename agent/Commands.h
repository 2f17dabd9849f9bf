// The handlers of the agent's commands, one group per file.
#pragma once

#include "agent/Dispatcher.h"

#include <vector>

namespace kestrel::agent {

// The command table in dispatch order, built from the handlers that exist.
std::vector<Command> commandHandlers();

// "scan [--json]": the default categories as a table, or every item as JSON (ScanCommand.cpp).
int runScan(Context& context);
// "clean --category <c> [--max-risk r] [--dry-run]": scan one category and clean it (CleanCommands.cpp).
int runClean(Context& context);
// "quarantine list|restore <id>|purge <id>" (CleanCommands.cpp).
int runQuarantine(Context& context);

}  // namespace kestrel::agent
