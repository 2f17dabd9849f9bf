// "kestrel agents install|uninstall|status": the scheduler and the Shredder as background
// services of the system's own service manager.
#include <unistd.h>

#include "core/shredder/ShredderStore.h"
#include "core/system/fs/FS.h"
#include "host/Host.h"

namespace kestrel::host {
namespace {

constexpr BackgroundAgent kAgents[] = {BackgroundAgent::scheduler, BackgroundAgent::shredder};

std::string_view agentName(BackgroundAgent agent) {
  return agent == BackgroundAgent::scheduler ? "scheduler" : "shredder";
}

std::string stateText(bool installed, std::optional<bool> active) {
  if (!installed) return "not installed";
  if (!active) return "installed";
  return *active ? "installed, running" : "installed, stopped";
}

int install(HostContext& ctx) {
  if (::access(ctx.agentPath.c_str(), X_OK) != 0)
    throw CommandError("KestrelAgent was not found at " + ctx.agentPath +
                       "; install it beside kestrel (cmake --install) first.");
  auto manager = ctx.serviceManager();
  manager->removeLegacyAgents();
  for (const auto agent : kAgents) manager->install(agent, ctx.agentPath);
  if (ctx.json) {
    ctx.printJson("agents", {{"installed", true}, {"agentPath", ctx.agentPath}});
    return kOK;
  }
  ctx.out << "Installed the scheduler (every 15 minutes) and the Shredder service, running "
          << ctx.agentPath << ".\n";
  const ShredderSettings shredder = ShredderStore(ctx.paths).load();
  if (!shredder.approved || !shredder.enabled)
    ctx.out << "The Shredder is off; `kestrel shredder on` switches it on.\n";
  if (ctx.paths.layout() == Layout::linux)
    ctx.out << "They run while you are logged in; to keep them running after you log out: loginctl "
               "enable-linger\n";
  return kOK;
}

int uninstall(HostContext& ctx) {
  auto manager = ctx.serviceManager();
  for (const auto agent : kAgents) manager->uninstall(agent);
  if (ctx.json)
    ctx.printJson("agents", {{"installed", false}});
  else
    ctx.out << "Removed the background agents; rules and settings are kept.\n";
  return kOK;
}

}  // namespace

// The agents' lines of "kestrel status" and its JSON.
StatusPart agentsStatus(HostContext& ctx) {
  auto manager = ctx.serviceManager();
  StatusPart part{{}, Json::object()};
  for (const auto agent : kAgents) {
    const bool installed = manager->isInstalled(agent);
    const std::optional<bool> active =
        installed ? manager->isActive(agent) : std::optional<bool>(false);
    part.json[std::string(agentName(agent))] = {{"installed", installed},
                                                {"running", active ? Json(*active) : Json(nullptr)}};
    part.lines.push_back(std::string(agent == BackgroundAgent::scheduler ? "Scheduler service: "
                                                                         : "Shredder service: ") +
                         stateText(installed, active));
  }
  return part;
}

namespace {

int status(HostContext& ctx) {
  const StatusPart part = agentsStatus(ctx);
  if (ctx.json) {
    ctx.printJson("agents", part.json);
  } else {
    for (const auto& line : part.lines) ctx.out << line << '\n';
  }
  return kOK;
}

}  // namespace

void addAgentsCommands(CLI::App& app, HostContext& context, Action& action) {
  CLI::App* agents = app.add_subcommand("agents", "Install, remove or show the background agents");
  agents->require_subcommand(1);
  agents->add_subcommand("install", "Install and start the scheduler and the Shredder service")
      ->callback([&] { action = [&] { return install(context); }; });
  agents->add_subcommand("uninstall", "Stop and remove both background agents")->callback([&] {
    action = [&] { return uninstall(context); };
  });
  agents->add_subcommand("status", "Whether each agent is installed and running")->callback([&] {
    action = [&] { return status(context); };
  });
}

}  // namespace kestrel::host
