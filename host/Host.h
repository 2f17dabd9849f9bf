// kestrel, the host command line: what the graphical application does where there is none. Each
// command group adds its subcommands to the one CLI11 application; a subcommand's callback stores
// the action that runs once the whole line has parsed.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "core/base/Dates.h"
#include "core/base/Json.h"
#include "core/system/Paths.h"
#include "core/system/process/ServiceManager.h"
#include "core/system/Services.h"
#include "host/Output.h"

namespace kestrel::host {

// Exit statuses: done, failed, and a command line that does not parse.
inline constexpr int kOK = 0;
inline constexpr int kFailed = 1;
inline constexpr int kUsage = 2;

// What every command sees.
struct HostContext {
  Paths paths;
  std::ostream& out;
  std::ostream& err;
  Services services = Services{}.withDefaults();
  // The KestrelAgent executable the background agents run (absolute).
  std::string agentPath;
  // "--json": the command reports one JSON value instead of text.
  bool json = false;
  // Standard input, for the question before removing (nothing: never asked, as when not on a
  // terminal).
  std::istream* in = nullptr;
  // Which streams are terminals (none by default, as in tests); "--color".
  Terminal terminal{};
  ColorMode color = ColorMode::automatic;

  Date now() const { return services.now(); }
  // Prints `body` in the one JSON shape of `command` (see envelope), with a final newline.
  void printJson(std::string_view command, Json body) const;
  bool colored() const { return colorOn(color, terminal); }
  // Whether a question can be asked and answered.
  bool interactive() const { return in && terminal.in; }
  // The system's service manager for this home (launchd or systemd), through `services`.
  std::unique_ptr<ServiceManager> serviceManager() const {
    return ServiceManager::make(paths, services);
  }
};

// A usage error found after parsing (a value CLI11 cannot check by itself): printed to standard
// error with the "Run with --help" hint, status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A command that cannot do its work (a damaged file it needs, an agent that is not installed):
// its text printed to standard error, status 1.
class CommandError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The action a parsed subcommand runs; it returns the exit status.
using Action = std::function<int()>;

// One command group: adds its subcommands under `app`; their callbacks set `action`.
using CommandGroup = void (*)(CLI::App& app, HostContext& context, Action& action);

void addScanCommand(CLI::App& app, HostContext& context, Action& action);
void addCleanCommand(CLI::App& app, HostContext& context, Action& action);
void addQuarantineCommands(CLI::App& app, HostContext& context, Action& action);
void addTrashCommands(CLI::App& app, HostContext& context, Action& action);
void addInsightCommands(CLI::App& app, HostContext& context, Action& action);
void addStatusCommand(CLI::App& app, HostContext& context, Action& action);
void addMetricsCommand(CLI::App& app, HostContext& context, Action& action);
void addManualCommands(CLI::App& app, HostContext& context, Action& action);
void addAgentsCommands(CLI::App& app, HostContext& context, Action& action);
void addRulesCommands(CLI::App& app, HostContext& context, Action& action);
void addAdminCommands(CLI::App& app, HostContext& context, Action& action);
void addShredderCommands(CLI::App& app, HostContext& context, Action& action);

// One part of "kestrel status": its lines and its JSON.
struct StatusPart {
  std::vector<std::string> lines;
  Json json;
};
// The parts of the background agents, the administrator queue and the Shredder.
StatusPart agentsStatus(HostContext& context);
StatusPart adminStatus(HostContext& context);
StatusPart shredderStatus(HostContext& context);

// Parses `args` (without the program name) and runs the chosen command. Help goes to `out` with
// status 0; parse and usage errors go to `err` with status 2; a failed command returns 1.
int runHost(const std::vector<std::string>& args, HostContext& context);

// The KestrelAgent executable beside the running program.
std::string agentBesideSelf();

}  // namespace kestrel::host
