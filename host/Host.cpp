// The host command line's runner: one CLI11 application, the command groups, exit statuses.
#include "host/Host.h"

#include "core/system/process/Process.h"

namespace kestrel::host {

void HostContext::printJson(std::string_view command, Json body) const {
  // A list alone becomes the envelope's items.
  if (!body.is_object()) body = Json{{"items", std::move(body)}};
  out << JsonText::pretty(envelope(command, std::move(body))) << '\n';
  out.flush();
}

namespace {

// In the order "--help" lists them: what people do first, then the background agent's controls.
const std::vector<CommandGroup> kGroups = {addScanCommand,      addCleanCommand,    addQuarantineCommands,
                                           addTrashCommands,    addInsightCommands, addStatusCommand,
                                           addMetricsCommand,   addAgentsCommands,  addRulesCommands,
                                           addAdminCommands,    addShredderCommands, addManualCommands};

std::string colorText(ColorMode mode) {
  switch (mode) {
    case ColorMode::automatic: return "auto";
    case ColorMode::always: return "always";
    case ColorMode::never: return "never";
  }
  return "auto";
}

}  // namespace

int runHost(const std::vector<std::string>& args, HostContext& context) {
  CLI::App app{std::string(AppInfo::name) + ": find reclaimable space, clean it up, undo it, and run the background agent",
               "kestrel"};
  app.require_subcommand(1);
  app.fallthrough();  // "--json" and "--color" are accepted after the subcommand words too
  app.set_version_flag("--version", std::string("kestrel ") + KESTREL_VERSION);
  app.add_flag("--json", context.json, "Report one JSON value instead of text");
  std::string color = colorText(context.color);
  app.add_option("--color", color, "Colour: auto (on a terminal, unless NO_COLOR is set), always or never")
      ->check(CLI::IsMember({"auto", "always", "never"}));
  app.footer("Examples:\n  kestrel scan --details\n  kestrel clean userCaches logs\n  kestrel quarantine list\n"
             "Run `kestrel <command> --help` for one command's options.");
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
  } catch (const CLI::CallForVersion& e) {
    context.out << e.what() << '\n';
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
  for (const ColorMode mode : {ColorMode::automatic, ColorMode::always, ColorMode::never})
    if (colorText(mode) == color) context.color = mode;
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
