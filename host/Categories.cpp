// Categories named on the command line, the settings commands rely on, and the scan with progress.
#include "host/Categories.h"

#include "core/base/Text.h"
#include "core/scan/ScanEngine.h"
#include "core/store/ConfigStore.h"
#include "core/store/LastScan.h"

namespace kestrel::host {

std::set<CleanCategory> namedCategories(const std::vector<std::string>& words) {
  std::set<CleanCategory> out;
  for (const auto& word : words) {
    std::optional<CleanCategory> found;
    for (const CleanCategory c : allCategories())
      if (Utf8::equalsIgnoringCase(word, rawValue(c)) || Utf8::equalsIgnoringCase(word, displayName(c))) found = c;
    if (!found) {
      std::string ids;
      for (const CleanCategory c : allCategories()) ids += (ids.empty() ? "" : ", ") + std::string(rawValue(c));
      throw UsageError("No category named \"" + word + "\"; the categories are " + ids);
    }
    out.insert(*found);
  }
  return out;
}

std::string unavailable(CleanCategory c, Layout layout) {
  if (!existsOn(c, layout)) return layout == Layout::linux ? "not on Linux" : "not on macOS";
  if (!ScannerRegistry::scannable().count(c)) return "no scanner yet";
  return "";
}

AppConfig settingsForRemoval(const HostContext& ctx) {
  const ConfigStore store(ctx.paths);
  const auto loaded = store.loadChecked();
  if (loaded.damaged()) throw CommandError(store.damagedMessage(loaded.reason));
  return loaded.value.value_or(AppConfig{});
}

ScanSettings settingsForScan(const HostContext& ctx) {
  const ConfigStore store(ctx.paths);
  const auto loaded = store.loadChecked();
  if (!loaded.damaged()) return {loaded.value.value_or(AppConfig{}), false};
  ctx.err << "Settings file " << ctx.paths.configFile().string() << " is damaged (" << loaded.reason
          << "); the scan uses the defaults, which lack your protected paths.\n";
  return {AppConfig{}, true};
}

std::vector<CategoryResult> scanWithProgress(const HostContext& ctx, const AppConfig& config,
                                             const std::set<CleanCategory>& categories) {
  std::set<CleanCategory> scannable;
  for (const CleanCategory c : categories)
    if (unavailable(c, ctx.paths.layout()).empty()) scannable.insert(c);
  ProgressLine progress(ctx.err, ctx.terminal.err);
  const ScanEngine engine(ctx.paths, config, ctx.services);
  auto results = engine.scan(scannable, nullptr, [&](CleanCategory c, const std::string& where) {
    progress.show("Scanning " + std::string(displayName(c)) + ": " + tilde(where, ctx.paths.home()));
  });
  progress.done();
  LastScan::record(ctx.paths, results, ctx.now());
  return results;
}

}  // namespace kestrel::host
