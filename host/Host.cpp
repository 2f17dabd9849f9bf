// The host command line's runner: one CLI11 application, the command groups, exit statuses.
#include "host/Host.h"

#include "core/system/process/Process.h"

namespace kestrel::host {

void HostContext::printJson(const Json& value) const {
  out << JsonText::pretty(value) << '\n';
  out.flush();
}

namespace {

// In the order "--help" lists them.
const std::vector<CommandGroup> kGroups = {addStatusCommand, addAgentsCommands, addRulesCommands,
                                           addAdminCommands, addShredderCommands};

}  // namespace

int runHost(const std::vector<std::string>& args, HostContext& context) {
  CLI::App app{std::string(AppInfo::name) + ": the background agent, its rules and queued removals",
               "kestrel"};
  app.require_subcommand(1);
  app.fallthrough();  // "--json" is accepted after the subcommand words too
  app.add_flag("--json", context.json, "Report one JSON value instead of text");
  Action action;
  for (CommandGroup add : kGroups) add(app, context, action);

  // CLI11 parses the arguments in reverse (it pops from the back).
  std::vector<std::string> reversed(args.rbegin(), args.rend());
  try {
    app.parse(reversed);
  } catch (const CLI::CallForHelp&) {
    context.out << app.help();
    return kOK;
  } catch (const CLI::CallForAllHelp&) {
    context.out << app.help("", CLI::AppFormatMode::All);
    return kOK;
  } catch (const CLI::ParseError& e) {
    // A subcommand's own --help is thrown from within it: print that subcommand's help.
    context.err << e.what() << "\nRun with --help for more information.\n";
    return kUsage;
  }
  if (!action) {
    context.err << "A command is required\nRun with --help for more information.\n";
    return kUsage;
  }
  try {
    return action();
  } catch (const UsageError& e) {
    context.err << e.what() << "\nRun with --help for more information.\n";
    return kUsage;
  } catch (const std::exception& e) {
    context.err << e.what() << '\n';
    return kFailed;
  }
}

std::string agentBesideSelf() {
  const std::string self = platform::executablePath();
  if (self.empty()) return "KestrelAgent";
  return (std::filesystem::path(self).parent_path() / "KestrelAgent").string();
}

}  // namespace kestrel::host
