// The "clean" and "quarantine" commands.
#include "agent/Commands.h"
#include "core/clean/Cleaner.h"
#include "core/scan/ScanEngine.h"
#include "core/model/AppConfig.h"
#include "core/store/ConfigStore.h"
#include "core/base/ByteFormat.h"

namespace kestrel::agent {
namespace {

// The risk limit; anything but the three exact words is "safe", so a typo never widens it.
Risk riskLimit(const std::optional<std::string>& text) {
  if (text == "review") return Risk::review;
  if (text == "caution") return Risk::caution;
  return Risk::safe;
}

}  // namespace

int runClean(AgentContext& context) {
  const auto categoryText = context.option("--category");
  const auto category = categoryText ? categoryFromRaw(*categoryText) : std::nullopt;
  if (!category) {
    std::string line = "Categories: ";
    for (size_t i = 0; i < allCategories().size(); ++i)
      line += (i ? ", " : "") + std::string(rawValue(allCategories()[i]));
    context.out << line << '\n';
    return 2;
  }
  const Risk limit = riskLimit(context.option("--max-risk"));
  const bool dryRun = context.flag("--dry-run");
  const ConfigStore store(context.paths);
  const auto loaded = store.loadChecked();
  if (loaded.damaged()) {
    // The defaults lack the user's protections and disposal choices: never remove on them.
    context.out << store.damagedMessage(loaded.reason) << '\n';
    context.out.flush();
    if (!dryRun) return 1;
  }
  const AppConfig config = loaded.value.value_or(AppConfig{});
  const SafetyPolicy policy(context.paths, config.protectedPaths);
  for (const auto& entry : policy.relativeProtected()) {
    context.out << "Protected path " << entry
                << " is not an absolute path or ~ path; it may not protect what you meant.\n";
  }
  const ScanEngine engine(context.paths, config, context.services);
  std::vector<ScanItem> items;
  for (const auto& result : engine.scan({*category}))
    for (const auto& item : result.items)
      if (item.risk <= limit) items.push_back(item);

  Cleaner cleaner(context.paths, config, context.services);
  const CleanReport report = cleaner.clean(items, TriggerSource::manual(), dryRun, std::nullopt);
  context.out << report.summary(dryRun) << '\n';
  for (const auto& f : report.failures) context.out << "  failed: " << f.itemID << ": " << f.message << '\n';
  // Queued items wait in a file nobody looks at; without this line the user never learns.
  if (report.deferredAdmin > 0)
    context.out << report.deferredAdmin
                << " item(s) need administrator rights; run `kestrel admin run` to remove them "
                   "with one password "
                   "prompt.\n";
  context.out.flush();
  return 0;
}

int runQuarantine(AgentContext& context) {
  const std::string sub = context.args.empty() ? "list" : context.args[0];
  if ((sub == "restore" || sub == "purge") && context.args.size() >= 2 &&
      !isQuarantineSessionID(context.args[1])) {
    // Dot files such as the store's lock sit beside the sessions but are none.
    context.out << "Not a quarantine session: " << context.args[1] << '\n';
    return 2;
  }
  try {
    if (sub == "restore") {
      if (context.args.size() < 2) {
        context.out << "usage: quarantine restore <id>\n";
        return 2;
      }
      Cleaner cleaner(context.paths, ConfigStore(context.paths).load(), context.services);
      const auto failures = cleaner.restore(context.args[1]);
      if (failures.empty()) {
        context.out << "Restored.\n";
      } else {
        std::string text;
        for (size_t i = 0; i < failures.size(); ++i)
          text += (i ? "\n" : "") + failures[i].itemID + ": " + failures[i].message;
        context.out << text << '\n';
      }
      return 0;
    }
    if (sub == "purge") {
      if (context.args.size() < 2) {
        context.out << "usage: quarantine purge <id>\n";
        return 2;
      }
      Quarantine(context.paths).purge(context.args[1], context.now());
      context.out << "Purged.\n";
      return 0;
    }
  } catch (const std::exception& e) {
    // The store's error, in its own words; the status says the command did not do its work.
    context.out << e.what() << '\n';
    return 1;
  }
  for (const auto& s : Quarantine(context.paths).sessions()) {
    context.out << s.id << '\t' << ByteFormat::string(s.totalSize()) << '\t' << s.activeCount() << " items\t"
                << s.trigger.label() << "\texpires " << Dates::description(s.expiresAt) << '\n';
  }
  context.out.flush();
  return 0;
}

}  // namespace kestrel::agent
