// The command table: each command word with its handler.
#include "agent/Commands.h"

namespace kestrel::agent {

std::vector<Command> commandHandlers() {
  // Words are matched exactly, so the order is only how they are listed here.
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
