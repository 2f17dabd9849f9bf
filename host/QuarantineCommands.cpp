// "kestrel quarantine list|show ID|restore ID [PATH…]|purge ID": the undo store, session by
// session and item by item.
#include "core/base/ByteFormat.h"
#include "core/base/Text.h"
#include "core/clean/Cleaner.h"
#include "core/clean/Quarantine.h"
#include "core/store/ConfigStore.h"
#include "host/Host.h"

namespace kestrel::host {
namespace {

Json sessionJson(const QuarantineSession& s) {
  return {{"id", s.id},
          {"size", s.totalSize()},
          {"count", s.activeCount()},
          {"trigger", s.trigger.label()},
          {"createdAt", Dates::iso8601(s.createdAt)},
          {"expiresAt", Dates::iso8601(s.expiresAt)}};
}

QuarantineSession sessionNamed(const HostContext& ctx, const std::string& id) {
  if (!isQuarantineSessionID(id)) throw UsageError("Not a quarantine session: " + id);
  for (auto& s : Quarantine(ctx.paths, ctx.services).sessions())
    if (s.id == id) return s;
  throw CommandError("No quarantine session " + id + " (`kestrel quarantine list` shows them)");
}

int list(HostContext& ctx) {
  const auto sessions = Quarantine(ctx.paths, ctx.services).sessions();
  if (ctx.json) {
    Json items = Json::array();
    int64_t total = 0;
    for (const auto& s : sessions) {
      items.push_back(sessionJson(s));
      if (__builtin_add_overflow(total, s.totalSize(), &total)) total = INT64_MAX;
    }
    ctx.printJson("quarantine", {{"total", total}, {"items", items}});
    return kOK;
  }
  if (sessions.empty()) ctx.out << "The quarantine is empty.\n";
  for (const auto& s : sessions)
    ctx.out << s.id << "  " << fit(ByteFormat::string(s.totalSize()), 10, true) << "  " << s.activeCount()
            << " items  " << s.trigger.label() << "  expires " << Dates::description(s.expiresAt) << '\n';
  return kOK;
}

int show(HostContext& ctx, const std::string& id) {
  const QuarantineSession s = sessionNamed(ctx, id);
  if (ctx.json) {
    Json body = sessionJson(s);
    body["items"] = Json::array();
    for (const auto& e : s.entries) {
      if (e.restored) continue;
      body["items"].push_back({{"id", e.id()}, {"originalPath", e.originalPath}, {"size", e.size},
                               {"category", std::string(rawValue(e.category))}});
    }
    ctx.printJson("quarantine", body);
    return kOK;
  }
  ctx.out << s.id << ": " << s.trigger.label() << ", expires " << Dates::description(s.expiresAt) << '\n';
  for (const auto& e : s.entries)
    if (!e.restored)
      ctx.out << fit(ByteFormat::string(e.size), 11, true) << "  " << Utf8::displayText(tilde(e.originalPath, ctx.paths.home()))
              << '\n';
  for (const auto& d : s.damagedEntries) ctx.out << "  (damaged entry " << d.id() << ")\n";
  return kOK;
}

int restore(HostContext& ctx, const std::string& id, const std::vector<std::string>& paths) {
  const QuarantineSession s = sessionNamed(ctx, id);
  std::optional<std::set<std::string>> entries;
  if (!paths.empty()) {
    entries.emplace();
    for (const auto& p : paths) {
      const auto e = std::find_if(s.entries.begin(), s.entries.end(), [&](const QuarantineEntry& x) {
        return !x.restored && (x.originalPath == p || tilde(x.originalPath, ctx.paths.home()) == p);
      });
      if (e == s.entries.end()) throw UsageError("Session " + id + " holds nothing from " + p);
      entries->insert(e->id());
    }
  }
  Cleaner cleaner(ctx.paths, ConfigStore(ctx.paths).load(), ctx.services);
  const auto failures = cleaner.restore(id, entries);
  Json failed = Json::array();
  for (const auto& f : failures) failed.push_back({{"id", f.itemID}, {"message", f.message}});
  if (ctx.json)
    ctx.printJson("quarantine", {{"restored", failures.empty()}, {"failures", failed}});
  else if (failures.empty())
    ctx.out << "Restored.\n";
  for (const auto& f : failures)
    if (!ctx.json) ctx.err << f.itemID << ": " << f.message << '\n';
  return failures.empty() ? kOK : kFailed;
}

int purge(HostContext& ctx, const std::string& id) {
  sessionNamed(ctx, id);
  Quarantine(ctx.paths, ctx.services).purge(id, ctx.now());
  if (ctx.json)
    ctx.printJson("quarantine", {{"purged", id}});
  else
    ctx.out << "Purged.\n";
  return kOK;
}

}  // namespace

void addQuarantineCommands(CLI::App& app, HostContext& context, Action& action) {
  CLI::App* quarantine = app.add_subcommand("quarantine", "What clean moved aside: list, show, restore, purge");
  quarantine->require_subcommand(1);
  quarantine->footer("Examples:\n  kestrel quarantine list\n  kestrel quarantine restore 20260301-093000-ABCDEF ~/Downloads/report.pdf");
  quarantine->add_subcommand("list", "The sessions, newest first")->callback([&] {
    action = [&] { return list(context); };
  });
  auto id = std::make_shared<std::string>();
  auto paths = std::make_shared<std::vector<std::string>>();
  CLI::App* showCommand = quarantine->add_subcommand("show", "The items of one session and where they came from");
  showCommand->add_option("id", *id, "The session's id")->required();
  showCommand->callback([&, id] { action = [&, id] { return show(context, *id); }; });
  CLI::App* restoreCommand = quarantine->add_subcommand("restore", "Put a session's items back (never over anything)");
  restoreCommand->add_option("id", *id, "The session's id")->required();
  restoreCommand->add_option("paths", *paths, "Only these items, by their original paths");
  restoreCommand->callback([&, id, paths] { action = [&, id, paths] { return restore(context, *id, *paths); }; });
  CLI::App* purgeCommand = quarantine->add_subcommand("purge", "Remove a session for good");
  purgeCommand->add_option("id", *id, "The session's id")->required();
  purgeCommand->callback([&, id] { action = [&, id] { return purge(context, *id); }; });
}

}  // namespace kestrel::host
