// The agent's command table, its usage text, and the two small helpers every command uses.
#pragma once

#include "core/base/Dates.h"
#include "core/system/Paths.h"
#include "core/system/Services.h"

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel::agent {

// What one command run sees: its arguments after the command word, the shared paths, where its
// output goes, and the clock.
struct AgentContext {
  std::vector<std::string> args;
  Paths paths;
  std::ostream& out;
  Services services = Services{}.withDefaults();

  Date now() const { return services.now(); }

  // The argument right after the first one equal to `name`; nothing when absent or last.
  std::optional<std::string> option(std::string_view name) const;
  // True when `flag` is one of the arguments.
  bool flag(std::string_view flag) const;
  // Prints "<ISO 8601 UTC time> <message>" as one line and flushes at once.
  void stamp(std::string_view message) const;
};

using Handler = int (*)(AgentContext&);

struct Command {
  std::string_view word;
  Handler handler;
};

// Every command word with its handler; any other word prints the usage text.
const std::vector<Command>& commandTable();

// "orvo Kestrel agent" followed by the three usage lines, with a final newline.
std::string usageText();

// Runs one agent invocation. `args` excludes the program path. Returns the exit status.
// `services` (the real ones by default) reach every core object a command builds.
int runAgent(std::vector<std::string> args, const Paths& paths, std::ostream& out, const Services& services = {});

}  // namespace kestrel::agent
