// The agent's dispatcher: command table, usage text, stamp and option.
#include "agent/Dispatcher.h"

#include "agent/Commands.h"

#include <algorithm>

namespace kestrel::agent {

std::optional<std::string> AgentContext::option(std::string_view name) const {
  auto it = std::find(args.begin(), args.end(), name);
  if (it == args.end() || it + 1 == args.end()) return std::nullopt;
  return *(it + 1);
}

bool AgentContext::flag(std::string_view f) const { return std::find(args.begin(), args.end(), f) != args.end(); }

void AgentContext::stamp(std::string_view message) const {
  out << Dates::iso8601(now()) << ' ' << message << '\n';
  out.flush();
}

const std::vector<Command>& commandTable() {
  static const std::vector<Command> table = commandHandlers();
  return table;
}

std::string usageText() {
  return std::string(AppInfo::name) +
         " agent\n"
         "  run-scheduled | run-rule <name> | scan [--json] | clean --category <c> [--max-risk r] [--dry-run]\n"
         "  forecast | growth [days] | quarantine list|restore <id>|purge <id> | rules\n"
         "  shred-watch | shred-now | shred-history\n";
}

int runAgent(std::vector<std::string> args, const Paths& paths, std::ostream& out, const Services& services) {
  const std::string command = args.empty() ? "help" : args.front();
  if (!args.empty()) args.erase(args.begin());
  AgentContext ctx{std::move(args), paths, out, services.withDefaults()};
  for (const auto& c : commandTable()) {
    if (c.word == command) return c.handler(ctx);
  }
  // An unknown command (also "help" and no command) is not an error.
  out << usageText();
  out.flush();
  return 0;
}

}  // namespace kestrel::agent
