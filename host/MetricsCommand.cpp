// "kestrel metrics [--textfile DIR]": this machine in the text exposition format, on standard output
// or into DIR/kestrel.prom for a node exporter's textfile collector.
#include "core/schedule/Metrics.h"
#include "host/Host.h"

namespace kestrel::host {
namespace {

int metrics(HostContext& ctx, const std::string& textfileDir) {
  const std::string text = Metrics::text(ctx.paths, ctx.now());
  if (textfileDir.empty()) {
    ctx.out << text;
    return kOK;
  }
  Metrics::writeTextfile(textfileDir, text);
  return kOK;
}

}  // namespace

void addMetricsCommand(CLI::App& app, HostContext& context, Action& action) {
  auto dir = std::make_shared<std::string>();
  CLI::App* command = app.add_subcommand("metrics", "Free space, forecast, reclaimable space and the agent, for monitoring");
  command->add_option("--textfile", *dir, "Write DIR/kestrel.prom (atomically) instead of printing")
      ->check(CLI::ExistingDirectory);
  command->footer("Examples:\n  kestrel metrics\n  kestrel metrics --textfile /var/lib/prometheus/node-exporter");
  command->callback([&, dir] { action = [&, dir] { return metrics(context, *dir); }; });
}

}  // namespace kestrel::host
