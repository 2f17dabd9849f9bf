// "kestrel scan [CATEGORY…] [--all] [--details]": what is reclaimable, by category and risk, with
// what would happen to each item and what was held back.
#include <map>

#include "core/base/ByteFormat.h"
#include "core/base/Text.h"
#include "host/Categories.h"

namespace kestrel::host {
namespace {

struct ScanOptions {
  std::vector<std::string> categories;
  bool all = false;
  bool details = false;
};

// The categories a scan covers: the named ones, else every one (--all) or the default selection
// that can exist on this system.
std::set<CleanCategory> chosen(const ScanOptions& o, Layout layout) {
  if (!o.categories.empty()) return namedCategories(o.categories);
  std::set<CleanCategory> out;
  for (const CleanCategory c : allCategories())
    if (o.all || (selectedByDefault(c) && existsOn(c, layout))) out.insert(c);
  return out;
}

int64_t countAt(const CategoryResult& r, Risk risk) {
  return std::count_if(r.items.begin(), r.items.end(), [&](const ScanItem& i) { return i.risk == risk; });
}

// "12 items held back: in use (9), protected (3)"; empty when nothing was.
std::string heldBackLine(const std::map<std::string, int64_t>& held) {
  int64_t total = 0;
  std::string parts;
  for (const auto& [why, n] : held) {
    total += n;
    parts += (parts.empty() ? "" : ", ") + why + " (" + std::to_string(n) + ")";
  }
  if (total == 0) return "";
  return std::to_string(total) + (total == 1 ? " item" : " items") + " held back: " + parts;
}

void printTable(const HostContext& ctx, const std::set<CleanCategory>& categories,
                const std::vector<CategoryResult>& results, const std::map<std::string, int64_t>& held) {
  const bool color = ctx.colored();
  ctx.out << paint(fit("Category", 32) + fit("Id", 20) + fit("Size", 11, true) + fit("Items", 7, true) +
                       fit("Safe", 7, true) + fit("Review", 8, true) + fit("Caution", 9, true),
                   Color::bold, color)
          << '\n';
  int64_t total = 0, items = 0;
  for (const CleanCategory c : categories) {
    const std::string name = fit(displayName(c), 32) + fit(rawValue(c), 20);
    const std::string why = unavailable(c, ctx.paths.layout());
    const auto r = std::find_if(results.begin(), results.end(), [&](const auto& x) { return x.category == c; });
    if (!why.empty() || r == results.end()) {
      ctx.out << name << paint(why.empty() ? "not scanned" : why, Color::dim, color) << '\n';
      continue;
    }
    if (__builtin_add_overflow(total, r->totalSize(), &total)) total = INT64_MAX;
    items += static_cast<int64_t>(r->items.size());
    ctx.out << name << fit(ByteFormat::string(r->totalSize()), 11, true) << fit(std::to_string(r->items.size()), 7, true)
            << fit(std::to_string(countAt(*r, Risk::safe)), 7, true) << fit(std::to_string(countAt(*r, Risk::review)), 8, true)
            << fit(std::to_string(countAt(*r, Risk::caution)), 9, true) << '\n';
  }
  ctx.out << paint(fit("Total", 52) + fit(ByteFormat::string(total), 11, true) + fit(std::to_string(items), 7, true),
                   Color::bold, color)
          << '\n';
  if (const std::string line = heldBackLine(held); !line.empty()) ctx.out << line << '\n';
}

void printDetails(const HostContext& ctx, const AppConfig& config, const std::vector<CategoryResult>& results) {
  const bool color = ctx.colored();
  for (const auto& r : results) {
    if (r.items.empty()) continue;
    ctx.out << '\n' << paint(std::string(displayName(r.category)) + " (" + std::string(rawValue(r.category)) + ")",
                             Color::bold, color)
            << '\n';
    for (const auto& item : r.items) {
      const std::string size = item.sizeKnown() ? ByteFormat::string(item.size) : "unknown";
      const std::string used = item.lastUsed ? ago(*item.lastUsed, ctx.now()) : "";
      ctx.out << fit(size, 11, true) << "  " << fit(riskName(item.risk), 8) << fit(fateOf(item, config).text, 40) << ' '
              << fit(used, 15) << ' ' << Utf8::displayText(tilde(item.path().value_or(item.title), ctx.paths.home()))
              << '\n'
              << std::string(13, ' ') << paint(Utf8::displayText(item.reason), Color::dim, color) << '\n';
    }
  }
}

Json scanJson(const HostContext& ctx, const AppConfig& config, const std::set<CleanCategory>& categories,
              const std::vector<CategoryResult>& results, const std::map<std::string, int64_t>& held) {
  Json rows = Json::array(), items = Json::array();
  int64_t total = 0;
  for (const CleanCategory c : categories) {
    Json row{{"id", std::string(rawValue(c))}, {"name", std::string(displayName(c))}};
    const std::string why = unavailable(c, ctx.paths.layout());
    row["unavailable"] = why.empty() ? Json(nullptr) : Json(why);
    const auto r = std::find_if(results.begin(), results.end(), [&](const auto& x) { return x.category == c; });
    const int64_t size = r == results.end() ? 0 : r->totalSize();
    if (__builtin_add_overflow(total, size, &total)) total = INT64_MAX;
    row["size"] = size;
    row["count"] = r == results.end() ? 0 : r->items.size();
    for (const Risk risk : {Risk::safe, Risk::review, Risk::caution})
      row["risks"][std::string(riskName(risk))] = r == results.end() ? 0 : countAt(*r, risk);
    rows.push_back(std::move(row));
    if (r == results.end()) continue;
    for (const auto& item : r->items) items.push_back(itemJson(item, fateOf(item, config)));
  }
  Json heldJson = Json::object();
  for (const auto& [why, n] : held) heldJson[why] = n;
  return {{"categories", rows}, {"total", total}, {"heldBack", heldJson}, {"items", items}};
}

int scan(HostContext& ctx, const ScanOptions& options) {
  const auto categories = chosen(options, ctx.paths.layout());
  const ScanSettings settings = settingsForScan(ctx);
  const auto results = scanWithProgress(ctx, settings.config, categories);
  std::map<std::string, int64_t> held;
  for (const auto& r : results)
    for (const auto& [why, n] : r.heldBack) held[why] += n;
  const int status = settings.damaged ? kFailed : kOK;
  if (ctx.json) {
    ctx.printJson("scan", scanJson(ctx, settings.config, categories, results, held));
    return status;
  }
  const bool empty = std::all_of(results.begin(), results.end(), [](const auto& r) { return r.items.empty(); });
  if (empty && options.categories.empty() && !options.all) {
    ctx.out << "Nothing to clean: the scanned categories are empty.\n";
    if (const std::string line = heldBackLine(held); !line.empty()) ctx.out << line << '\n';
    return status;
  }
  printTable(ctx, categories, results, held);
  if (options.details) printDetails(ctx, settings.config, results);
  return status;
}

}  // namespace

void addScanCommand(CLI::App& app, HostContext& context, Action& action) {
  auto options = std::make_shared<ScanOptions>();
  CLI::App* command = app.add_subcommand("scan", "What can be reclaimed, by category, risk and what would happen");
  command->add_option("categories", options->categories, "Category ids or names (default: the usual ones)");
  command->add_flag("--all", options->all, "Also the categories not scanned by default");
  command->add_flag("--details", options->details, "List every item: size, risk, what happens, last used, reason, path");
  command->footer("Examples:\n  kestrel scan\n  kestrel scan --details logs userCaches\n  kestrel scan --all --json | jq '.total'");
  command->callback([&, options] { action = [&, options] { return scan(context, *options); }; });
}

}  // namespace kestrel::host
