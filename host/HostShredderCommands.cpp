// "kestrel shredder status|on|off|review|keep|shred|set": the Shredder's switch, settings and
// review queue.
#include <charconv>

#include "core/base/ByteFormat.h"
#include "core/shredder/ShredHistory.h"
#include "core/shredder/ShredReviewQueue.h"
#include "core/shredder/ShredderEngine.h"
#include "core/shredder/ShredderStore.h"
#include "core/store/ConfigStore.h"
#include "host/Host.h"

namespace kestrel::host {
namespace {

constexpr int64_t kStatsDays = 7;

std::string stateWord(const ShredderSettings& s) {
  if (!s.approved) return "off (not approved yet)";
  return s.enabled ? "on" : "off";
}

std::string folderList(const ShredderSettings& s) {
  std::string text;
  for (const auto& f : s.folders) text += (text.empty() ? "" : ", ") + f;
  return text;
}

int status(HostContext& ctx) {
  const ShredderSettings settings = ShredderStore(ctx.paths).load();
  const ShredStats week = ShredHistory(ctx.paths).stats(kStatsDays, ctx.now());
  const size_t waiting = ShredReviewQueue(ctx.paths).all().size();
  auto manager = ctx.serviceManager();
  const bool installed = manager->isInstalled(BackgroundAgent::shredder);
  const auto running =
      installed ? manager->isActive(BackgroundAgent::shredder) : std::optional<bool>(false);
  if (ctx.json) {
    ctx.printJson("shredder", {{"settings", toJson(settings)},
                   {"serviceInstalled", installed},
                   {"serviceRunning", running ? Json(*running) : Json(nullptr)},
                   {"reviewQueue", waiting},
                   {"lastWeek", {{"count", week.count}, {"bytes", week.bytes}}}});
    return kOK;
  }
  ctx.out << "Shredder: " << stateWord(settings) << '\n';
  ctx.out << "Watching: " << folderList(settings) << '\n';
  for (const auto& line : settings.ruleSummary()) ctx.out << "  " << line << '\n';
  ctx.out << "Disposal: "
          << (settings.quarantineFirst ? "to quarantine (restorable)" : "deleted for good")
          << ", files up to " << settings.maxAutoSizeMB << " MB without asking\n";
  ctx.out << "Service: "
          << (!installed ? "not installed (`kestrel agents install`)"
              : !running ? "installed"
              : *running ? "running"
                         : "stopped")
          << '\n';
  ctx.out << "Review queue: " << waiting << " file(s)\n";
  ctx.out << "Last " << kStatsDays << " days: " << week.count << " file(s), "
          << ByteFormat::string(week.bytes) << '\n';
  return kOK;
}

int switchTo(HostContext& ctx, bool on) {
  const ShredderStore store(ctx.paths);
  ShredderSettings settings = store.load();
  if (on) settings.approved = true;
  settings.enabled = on;
  store.save(settings);
  auto manager = ctx.serviceManager();
  const bool installed = manager->isInstalled(BackgroundAgent::shredder);
  if (installed) {
    if (on)
      manager->start(BackgroundAgent::shredder);
    else
      manager->stop(BackgroundAgent::shredder);
  }
  if (ctx.json) {
    ctx.printJson("shredder", {{"enabled", on}, {"serviceInstalled", installed}});
    return kOK;
  }
  ctx.out << (on ? "Shredder is on; watching " + folderList(settings) + "."
                 : std::string("Shredder is off."));
  if (on && !installed)
    ctx.out << " It runs in the background once `kestrel agents install` has run.";
  ctx.out << '\n';
  return kOK;
}

int review(HostContext& ctx) {
  const auto candidates = ShredReviewQueue(ctx.paths).all();
  if (ctx.json) {
    ctx.printJson("shredder", toJsonArray(candidates));
    return kOK;
  }
  if (candidates.empty()) ctx.out << "Nothing waits for review.\n";
  for (const auto& c : candidates)
    ctx.out << c.path << '\t' << ByteFormat::string(c.size) << '\t' << c.rule << " \u2014 "
            << c.reason << '\n';
  return kOK;
}

std::optional<ShredCandidate> queued(const HostContext& ctx, const std::string& path) {
  for (const auto& c : ShredReviewQueue(ctx.paths).all())
    if (c.path == path) return c;
  return std::nullopt;
}

int keep(HostContext& ctx, const std::string& path) {
  if (!queued(ctx, path)) {
    ctx.err << "Not in the review queue: " << path << '\n';
    return kFailed;
  }
  ShredReviewQueue(ctx.paths).remove(path);
  if (ctx.json)
    ctx.printJson("shredder", {{"kept", path}});
  else
    ctx.out << "Kept " << path << "; it left the review queue.\n";
  return kOK;
}

int shred(HostContext& ctx, const std::string& path) {
  const auto candidate = queued(ctx, path);
  if (!candidate) {
    ctx.err << "Not in the review queue: " << path << '\n';
    return kFailed;
  }
  const ConfigStore config(ctx.paths);
  const auto loaded = config.loadChecked();
  // The defaults lack the user's protected paths: never dispose of anything on them.
  if (loaded.damaged()) throw CommandError(config.damagedMessage(loaded.reason));
  ShredderEngine engine(ctx.paths, loaded.value.value_or(AppConfig{}),
                        ShredderStore(ctx.paths).load(), ctx.services);
  const auto event = engine.shredCandidate(*candidate, ctx.now());
  if (!event) {
    ctx.err << "Could not shred " << path
            << " (the safety policy refused it, or it changed or is gone).\n";
    return kFailed;
  }
  if (ctx.json)
    ctx.printJson("shredder", toJson(*event));
  else
    ctx.out << "shredded " << event->name() << " \u2014 " << event->reason << " ("
            << ByteFormat::string(event->size)
            << (event->restorable ? ", restorable from the quarantine" : "") << ")\n";
  return kOK;
}

// One setting, typed as the settings file types it: true/false, a whole number, or a
// comma-separated list (empty for none).
int set(HostContext& ctx, const std::string& key, const std::string& value) {
  const ShredderStore store(ctx.paths);
  Json json = toJson(store.load());
  if (!json.contains(key)) {
    std::string keys;
    for (const auto& [k, v] : json.items()) keys += (keys.empty() ? "" : ", ") + k;
    throw UsageError("No setting named \"" + key + "\"; the settings are " + keys);
  }
  Json& slot = json[key];
  if (slot.is_boolean()) {
    if (value != "true" && value != "false")
      throw UsageError(key + " takes true or false, not \"" + value + "\"");
    slot = value == "true";
  } else if (slot.is_number_integer()) {
    int64_t number = 0;
    const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (value.empty() || ec != std::errc() || end != value.data() + value.size())
      throw UsageError(key + " takes a whole number, not \"" + value + "\"");
    slot = number;
  } else {
    Json list = Json::array();
    size_t start = 0;
    while (!value.empty() && start <= value.size()) {
      const size_t comma = std::min(value.find(',', start), value.size());
      if (comma > start) list.push_back(value.substr(start, comma - start));
      start = comma + 1;
    }
    slot = list;
  }
  const ShredderSettings changed = shredderSettingsFromJson(json);
  store.save(changed);
  if (ctx.json)
    ctx.printJson("shredder", toJson(changed));
  else
    ctx.out << key << " = " << JsonText::compact(toJson(changed)[key]) << '\n';
  return kOK;
}

}  // namespace

// The Shredder's line of "kestrel status" and its JSON.
StatusPart shredderStatus(HostContext& ctx) {
  const ShredderSettings settings = ShredderStore(ctx.paths).load();
  const size_t waiting = ShredReviewQueue(ctx.paths).all().size();
  return {{"Shredder: " + stateWord(settings) + (settings.enabled ? ", watching " + folderList(settings) : "") +
           (waiting ? "; " + std::to_string(waiting) + " file(s) wait for review" : "")},
          {{"approved", settings.approved}, {"enabled", settings.enabled}, {"reviewQueue", waiting}}};
}

void addShredderCommands(CLI::App& app, HostContext& context, Action& action) {
  CLI::App* shredder =
      app.add_subcommand("shredder", "The Shredder: its switch, settings and review queue");
  shredder->require_subcommand(1);
  shredder->add_subcommand("status", "Whether it is on, what it does and what it did this week")
      ->callback([&] { action = [&] { return status(context); }; });
  shredder->add_subcommand("on", "Approve and switch on the Shredder (and start its service)")
      ->callback([&] { action = [&] { return switchTo(context, true); }; });
  shredder->add_subcommand("off", "Switch off the Shredder (and stop its service)")->callback([&] {
    action = [&] { return switchTo(context, false); };
  });
  shredder->add_subcommand("review", "List the files held back for your decision")->callback([&] {
    action = [&] { return review(context); };
  });

  auto path = std::make_shared<std::string>();
  CLI::App* keepCommand =
      shredder->add_subcommand("keep", "Keep a reviewed file and drop it from the queue");
  keepCommand->add_option("path", *path, "The file's path as `kestrel shredder review` lists it")
      ->required();
  keepCommand->callback([&, path] { action = [&, path] { return keep(context, *path); }; });
  CLI::App* shredCommand =
      shredder->add_subcommand("shred", "Dispose of a reviewed file as the Shredder would");
  shredCommand->add_option("path", *path, "The file's path as `kestrel shredder review` lists it")
      ->required();
  shredCommand->callback([&, path] { action = [&, path] { return shred(context, *path); }; });

  auto key = std::make_shared<std::string>();
  auto value = std::make_shared<std::string>();
  CLI::App* setCommand =
      shredder->add_subcommand("set", "Change one setting (lists: comma-separated)");
  setCommand->add_option("key", *key, "The setting's name, as in the settings file")->required();
  setCommand->add_option("value", *value, "true/false, a whole number, or a comma-separated list")
      ->required();
  setCommand->callback(
      [&, key, value] { action = [&, key, value] { return set(context, *key, *value); }; });
}

}  // namespace kestrel::host
