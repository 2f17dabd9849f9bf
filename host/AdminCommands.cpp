// "kestrel admin status|run|clear": the removals that wait for administrator rights.
#include "core/base/ByteFormat.h"
#include "core/clean/AdminQueue.h"
#include "core/store/ConfigStore.h"
#include "host/Host.h"

namespace kestrel::host {
namespace {

int status(HostContext& ctx) {
  const AdminQueue queue(ctx.paths);
  if (const auto damage = queue.damage())
    throw CommandError("The administrator queue " + ctx.paths.adminQueueFile().string() + " is damaged (" + *damage +
                       "); `kestrel admin clear` empties it (nothing is removed).");
  const auto items = queue.items();
  if (ctx.json) {
    ctx.printJson("admin", 
        {{"count", items.size()}, {"bytes", queue.pendingBytes()}, {"items", toJson(items)}});
    return kOK;
  }
  if (items.empty()) {
    ctx.out << "Nothing waits for administrator rights.\n";
    return kOK;
  }
  ctx.out << items.size() << " item(s) wait for administrator rights ("
          << ByteFormat::string(queue.pendingBytes())
          << "); `kestrel admin run` removes them with one password prompt:\n";
  for (const auto& item : items)
    ctx.out << "  " << item.path().value_or(item.id) << '\t' << ByteFormat::string(item.size)
            << '\n';
  return kOK;
}

int run(HostContext& ctx) {
  const ConfigStore store(ctx.paths);
  const auto config = store.loadChecked();
  // The defaults lack the user's protected paths: never remove on them.
  if (config.damaged()) throw CommandError(store.damagedMessage(config.reason));
  const AdminQueue queue(ctx.paths);
  if (queue.count() == 0 && !queue.damage()) {
    if (ctx.json)
      ctx.printJson("admin", {{"removed", 0}, {"freed", 0}, {"failed", Json::array()}});
    else
      ctx.out << "Nothing waits for administrator rights.\n";
    return kOK;
  }
  PrivilegedSession session(ctx.paths, ctx.services);
  const auto result = queue.flush(config.value.value_or(AppConfig{}), session, ctx.now());
  session.end();
  if (ctx.json) {
    Json failed = Json::array();
    for (const auto& f : result.failed)
      failed.push_back({{"id", f.itemID}, {"message", f.message}});
    ctx.printJson("admin", {{"removed", result.removed.size()},
                   {"freed", result.freed},
                   {"failed", failed},
                   {"alreadyGone", result.alreadyGone},
                   {"stillQueued", queue.count()}});
  } else {
    ctx.out << "Removed " << result.removed.size() << " item(s), freed "
            << ByteFormat::string(result.freed) << ".\n";
    for (const auto& f : result.failed)
      ctx.out << "  failed: " << f.itemID << ": " << f.message << '\n';
    if (result.alreadyGone) ctx.out << result.alreadyGone << " item(s) were already gone.\n";
    if (const auto left = queue.count())
      ctx.out << left << " item(s) still wait; run `kestrel admin run` again to retry.\n";
  }
  return result.failed.empty() ? kOK : kFailed;
}

int clear(HostContext& ctx) {
  const AdminQueue queue(ctx.paths);
  const size_t count = queue.count();
  queue.clear();
  if (ctx.json)
    ctx.printJson("admin", {{"cleared", count}});
  else
    ctx.out << "Cleared " << count
            << " item(s) from the administrator queue; nothing was removed.\n";
  return kOK;
}

}  // namespace

// The queue's line of "kestrel status" and its JSON.
StatusPart adminStatus(HostContext& ctx) {
  const AdminQueue queue(ctx.paths);
  const size_t count = queue.count();
  const int64_t bytes = queue.pendingBytes();
  return {{count == 0 ? "Administrator queue: empty"
                      : "Administrator queue: " + std::to_string(count) + " item(s), " + ByteFormat::string(bytes) +
                            " (`kestrel admin run`)"},
          {{"count", count}, {"bytes", bytes}}};
}

void addAdminCommands(CLI::App& app, HostContext& context, Action& action) {
  CLI::App* admin = app.add_subcommand("admin", "The removals that need administrator rights");
  admin->require_subcommand(1);
  admin->add_subcommand("status", "List what waits for administrator rights")->callback([&] {
    action = [&] { return status(context); };
  });
  admin->add_subcommand("run", "Remove everything queued behind one password prompt")
      ->callback([&] { action = [&] { return run(context); }; });
  admin->add_subcommand("clear", "Empty the queue without removing anything")->callback([&] {
    action = [&] { return clear(context); };
  });
}

}  // namespace kestrel::host
