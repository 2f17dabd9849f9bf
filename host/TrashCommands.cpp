// "kestrel trash list|restore PATH|empty [--older-than DAYS]": the Trash of every volume, each entry
// with where it came from, when it was trashed and its size.
#include "core/base/ByteFormat.h"
#include "core/base/Text.h"
#include "core/clean/TrashBin.h"
#include "core/store/AuditLog.h"
#include "host/Host.h"

namespace kestrel::host {
namespace {

Json entryJson(const TrashEntry& e) {
  return {{"path", e.file.string()},
          {"originalPath", e.originalPath.empty() ? Json(nullptr) : Json(e.originalPath)},
          {"deleted", e.deleted ? Json(Dates::iso8601(*e.deleted)) : Json(nullptr)},
          {"size", e.size},
          {"present", e.present}};
}

int64_t totalOf(const std::vector<TrashEntry>& entries) {
  int64_t total = 0;
  for (const auto& e : entries)
    if (__builtin_add_overflow(total, e.size, &total)) total = INT64_MAX;
  return total;
}

int list(HostContext& ctx) {
  const auto entries = TrashBin(ctx.paths, ctx.services).list();
  if (ctx.json) {
    Json items = Json::array();
    for (const auto& e : entries) items.push_back(entryJson(e));
    ctx.printJson("trash", {{"total", totalOf(entries)}, {"items", items}});
    return kOK;
  }
  if (entries.empty()) ctx.out << "The Trash is empty.\n";
  for (const auto& e : entries) {
    const std::string when = e.deleted ? Dates::local(*e.deleted, "yyyy-MM-dd HH:mm:ss") : std::string(19, ' ');
    const std::string from = e.originalPath.empty() ? e.file.filename().string() : e.originalPath;
    ctx.out << when << "  " << fit(e.present ? ByteFormat::string(e.size) : "gone", 10, true) << "  "
            << Utf8::displayText(tilde(from, ctx.paths.home())) << '\n';
  }
  return kOK;
}

int restore(HostContext& ctx, const std::string& path) {
  const TrashBin bin(ctx.paths, ctx.services);
  const auto entries = bin.list();
  const std::string wanted = path.rfind("~/", 0) == 0 ? (ctx.paths.home() / path.substr(2)).string() : path;
  // The newest entry trashed from that place, or the entry itself named by its place in the Trash.
  auto it = std::find_if(entries.rbegin(), entries.rend(), [&](const TrashEntry& e) {
    return e.originalPath == wanted || e.file.string() == wanted;
  });
  if (it == entries.rend()) throw CommandError("Nothing in the Trash came from " + path);
  bin.restore(*it);
  if (ctx.json)
    ctx.printJson("trash", {{"restored", it->originalPath}});
  else
    ctx.out << "Restored " << Utf8::displayText(tilde(it->originalPath, ctx.paths.home())) << ".\n";
  return kOK;
}

int empty(HostContext& ctx, std::optional<int64_t> olderThanDays, bool yes) {
  const TrashBin bin(ctx.paths, ctx.services);
  std::vector<TrashEntry> due;
  for (const auto& e : bin.list())
    if (!olderThanDays || (e.deleted && *e.deleted < Dates::minusDays(ctx.now(), *olderThanDays))) due.push_back(e);
  const std::string what = std::to_string(due.size()) + (due.size() == 1 ? " item" : " items") + " (" +
                           ByteFormat::string(totalOf(due)) + ")";
  if (due.empty()) {
    if (ctx.json) ctx.printJson("trash", {{"removed", 0}, {"freed", 0}});
    else ctx.out << "Nothing in the Trash is that old.\n";
    return kOK;
  }
  if (!yes && !ctx.interactive()) {
    ctx.err << "Nothing was removed: there is no terminal to ask on; add --yes to empty without asking.\n";
    return kUsage;
  }
  if (!yes && !confirm(ctx.out, *ctx.in, "Delete " + what + " from the Trash for good?")) {
    ctx.out << "Nothing was removed.\n";
    return kOK;
  }
  std::vector<AuditEntry> audit;
  int64_t freed = 0, removed = 0;
  Json failed = Json::array();
  for (const auto& e : due) {
    const RemoveResult r = bin.remove(e);
    auto record = AuditEntry::of(AuditAction::delete_, e.file.string(), ctx.now()).bytes(e.size).in(CleanCategory::trash);
    if (!r.ok()) {
      failed.push_back({{"path", e.file.string()}, {"message", r.message()}});
      audit.push_back(record.failed(r.message()));
      continue;
    }
    freed += e.size;
    ++removed;
    audit.push_back(record);
  }
  AuditLog(ctx.paths).append(audit);
  if (ctx.json) ctx.printJson("trash", {{"removed", removed}, {"freed", freed}, {"failures", failed}});
  else ctx.out << "Freed " << ByteFormat::string(freed) << " (" << removed << " of " << due.size() << " items).\n";
  return failed.empty() ? kOK : kFailed;
}

}  // namespace

void addTrashCommands(CLI::App& app, HostContext& context, Action& action) {
  CLI::App* trash = app.add_subcommand("trash", "The Trash of every volume: list, restore, empty");
  trash->require_subcommand(1);
  trash->footer("Examples:\n  kestrel trash list\n  kestrel trash restore ~/Documents/report.odt\n  kestrel trash empty --older-than 30");
  trash->add_subcommand("list", "Every item with where it came from, when and its size")->callback([&] {
    action = [&] { return list(context); };
  });
  auto path = std::make_shared<std::string>();
  CLI::App* restoreCommand = trash->add_subcommand("restore", "Put an item back where it came from (never over anything)");
  restoreCommand->add_option("path", *path, "Where the item came from (or where it is in the Trash)")->required();
  restoreCommand->callback([&, path] { action = [&, path] { return restore(context, *path); }; });
  auto days = std::make_shared<int64_t>(-1);  // -1: every item
  auto yes = std::make_shared<bool>(false);
  CLI::App* emptyCommand = trash->add_subcommand("empty", "Delete the Trash's items for good, after asking");
  emptyCommand->add_option("--older-than", *days, "Only items trashed more than this many days ago")
      ->check(CLI::NonNegativeNumber);
  emptyCommand->add_flag("--yes,-y", *yes, "Empty without asking");
  emptyCommand->callback([&, days, yes] {
    action = [&, days, yes] {
      return empty(context, *days < 0 ? std::nullopt : std::optional<int64_t>(*days), *yes);
    };
  });
}

}  // namespace kestrel::host
