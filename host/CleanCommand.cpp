// "kestrel clean CATEGORY… [--max-risk r] [--dry-run] [--yes]": the preview of every item and what
// will happen to it, the question, then the agent's clean and its summary.
#include <map>

#include "core/base/ByteFormat.h"
#include "core/base/Text.h"
#include "core/clean/Cleaner.h"
#include "host/Categories.h"

namespace kestrel::host {
namespace {

struct CleanOptions {
  std::vector<std::string> categories;
  std::string maxRisk = "safe";
  bool dryRun = false;
  bool yes = false;
};

// The order groups are shown in, with their headings.
constexpr std::pair<std::string_view, std::string_view> kGroups[] = {
    {"quarantine", ""}, {"trash", "To the Trash"}, {"delete", "Deleted for good"},
    {"evict", "Local copies removed, kept in the cloud"}, {"command", "Commands run"}};

std::string amount(int64_t count, int64_t bytes) {
  return std::to_string(count) + (count == 1 ? " item" : " items") + " (" + ByteFormat::string(bytes) + ")";
}

int64_t bytesOf(const std::vector<ScanItem>& items) {
  int64_t total = 0;
  for (const auto& i : items)
    if (__builtin_add_overflow(total, i.countedSize(), &total)) total = INT64_MAX;
  return total;
}

void printPreview(const HostContext& ctx, const AppConfig& config, const std::vector<ScanItem>& items) {
  const bool color = ctx.colored();
  for (const auto& [fate, heading] : kGroups) {
    std::vector<const ScanItem*> group;
    for (const auto& item : items)
      if (fateOf(item, config).name == fate) group.push_back(&item);
    if (group.empty()) continue;
    int64_t bytes = 0;
    for (const auto* i : group) bytes += i->countedSize();
    const std::string title =
        fate == "quarantine" ? "To quarantine, restorable for " + std::to_string(config.quarantineRetentionDays) + " days"
                             : std::string(heading);
    ctx.out << paint(title + ": " + amount(static_cast<int64_t>(group.size()), bytes), Color::bold, color) << '\n';
    for (const auto* i : group) {
      const std::string size = i->sizeKnown() ? ByteFormat::string(i->size) : "unknown";
      const std::string what = fate == "command" ? fateOf(*i, config).text : tilde(i->path().value_or(i->id), ctx.paths.home());
      ctx.out << fit(size, 11, true) << "  " << fit(riskName(i->risk), 8) << Utf8::displayText(what) << '\n';
    }
  }
}

// "5 items (97.8 MB) at review risk were left; add --max-risk review to include them", one line
// per risk above the limit.
std::vector<std::string> leftOutLines(const std::vector<ScanItem>& left) {
  std::vector<std::string> lines;
  for (const Risk risk : {Risk::review, Risk::caution}) {
    std::vector<ScanItem> at;
    for (const auto& i : left)
      if (i.risk == risk) at.push_back(i);
    if (at.empty()) continue;
    lines.push_back(amount(static_cast<int64_t>(at.size()), bytesOf(at)) + " at " + std::string(riskName(risk)) +
                    " risk " + (at.size() == 1 ? "was" : "were") + " left; add --max-risk " +
                    std::string(riskName(risk)) + " to include them");
  }
  return lines;
}

// Runs the clean with progress on a terminal, prints the agent's summary and the failures.
int run(HostContext& ctx, const AppConfig& config, const std::vector<ScanItem>& items, Json& result) {
  ProgressLine progress(ctx.err, ctx.terminal.err);
  Cleaner cleaner(ctx.paths, config, ctx.services);
  const CleanReport report = cleaner.clean(items, TriggerSource::manual(), false, std::nullopt, [&](size_t i, size_t n) {
    progress.show("Removing " + std::to_string(i + 1 > n ? n : i + 1) + " of " + std::to_string(n) + "…");
  });
  progress.done();
  Json failures = Json::array();
  for (const auto& f : report.failures) failures.push_back({{"id", f.itemID}, {"message", f.message}});
  result = {{"summary", report.summary(false)}, {"freed", report.freedBytes},
            {"quarantined", report.quarantinedBytes}, {"trashed", report.trashedBytes},
            {"failures", failures}, {"needsAdministrator", report.deferredAdmin}};
  if (report.quarantineSessionID) result["quarantineSession"] = *report.quarantineSessionID;
  if (!ctx.json) {
    ctx.out << report.summary(false) << '\n';
    for (const auto& f : report.failures) ctx.out << "  failed: " << f.itemID << ": " << f.message << '\n';
    if (report.deferredAdmin > 0)
      ctx.out << report.deferredAdmin << " item(s) need administrator rights; run `kestrel admin run` to remove them "
              << "with one password prompt.\n";
  }
  return report.failures.empty() ? kOK : kFailed;
}

int clean(HostContext& ctx, const CleanOptions& options) {
  const auto maxRisk = riskFromName(options.maxRisk);
  if (!maxRisk) throw UsageError("--max-risk takes safe, review or caution, not \"" + options.maxRisk + "\"");
  const auto categories = namedCategories(options.categories);
  const AppConfig config = settingsForRemoval(ctx);
  std::vector<ScanItem> items, left;
  for (const auto& r : scanWithProgress(ctx, config, categories))
    for (const auto& item : r.items) (item.risk <= *maxRisk ? items : left).push_back(item);
  Json body{{"dryRun", options.dryRun}, {"maxRisk", options.maxRisk}, {"result", nullptr}};
  for (const CleanCategory c : categories)
    if (const std::string why = unavailable(c, ctx.paths.layout()); !why.empty())
      ctx.err << rawValue(c) << ": " << why << '\n';
  const auto leftOut = leftOutLines(left);
  if (!ctx.json) {
    if (items.empty()) ctx.out << "Nothing to clean.\n";
    else printPreview(ctx, config, items);
    for (const auto& line : leftOut) ctx.out << line << '\n';
  }
  body["items"] = Json::array();
  for (const auto& item : items) body["items"].push_back(itemJson(item, fateOf(item, config)));
  body["leftOut"] = leftOut;
  int status = kOK;
  if (items.empty() || options.dryRun) {
    if (!ctx.json && options.dryRun && !items.empty()) ctx.out << "Dry run: nothing was removed.\n";
  } else if (!options.yes && !ctx.interactive()) {
    ctx.err << "Nothing was removed: there is no terminal to ask on; add --yes to remove without asking.\n";
    return kUsage;
  } else if (!options.yes && !confirm(ctx.out, *ctx.in, "Remove " + amount(static_cast<int64_t>(items.size()),
                                                                             bytesOf(items)) + "?")) {
    ctx.out << "Nothing was removed.\n";
    return kOK;
  } else {
    Json result;
    status = run(ctx, config, items, result);
    body["result"] = result;
  }
  if (ctx.json) ctx.printJson("clean", body);
  return status;
}

}  // namespace

void addCleanCommand(CLI::App& app, HostContext& context, Action& action) {
  auto options = std::make_shared<CleanOptions>();
  CLI::App* command = app.add_subcommand("clean", "Remove what a scan found, after showing each item and asking");
  command->add_option("categories", options->categories, "Category ids or names")->required();
  command->add_option("--max-risk", options->maxRisk, "Include items up to this risk: safe, review or caution")
      ->capture_default_str();
  command->add_flag("--dry-run", options->dryRun, "Show what would happen; remove nothing");
  command->add_flag("--yes,-y", options->yes, "Remove without asking");
  command->footer("Examples:\n  kestrel clean userCaches logs\n  kestrel clean projectArtifacts --max-risk review --dry-run");
  command->callback([&, options] { action = [&, options] { return clean(context, *options); }; });
}

}  // namespace kestrel::host
