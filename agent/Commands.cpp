// The command table: each command joins it together with its handler, in dispatch order.
#include "agent/Commands.h"

namespace kestrel::agent {

std::vector<Command> commandHandlers() {
  // Dispatch order: shred-watch, shred-now, shred-history, run-scheduled, run-rule, scan, clean,
  // forecast, growth, quarantine, rules.
  return {
      {"run-scheduled", runScheduled},
      {"run-rule", runRule},
      {"shred-watch", runShredWatch},
      {"shred-now", runShredNow},
      {"shred-history", runShredHistory},
      {"scan", runScan},
      {"clean", runClean},
      {"forecast", runForecast},
      {"growth", runGrowth},
      {"quarantine", runQuarantine},
      {"rules", runRules},
  };
}

}  // namespace kestrel::agent
