// The "scan" command: scans the default categories and prints a table or the items as JSON.
#include "agent/Commands.h"
#include "core/scan/ScanEngine.h"
#include "core/model/AppConfig.h"
#include "core/store/ConfigStore.h"
#include "core/base/ByteFormat.h"
#include "core/base/Text.h"


namespace kestrel::agent {
namespace {

// Pads with blanks or cuts to exactly `width` characters (not bytes).
std::string fit(const std::string& text, size_t width) {
  std::string out(Utf8::prefix(text, width));
  return out.append(width - Utf8::length(out), ' ');
}

}  // namespace

int runScan(AgentContext& context) {
  const AppConfig config = ConfigStore(context.paths).load();
  std::set<CleanCategory> categories;
  for (CleanCategory c : allCategories())
    if (selectedByDefault(c)) categories.insert(c);
  const ScanEngine engine(context.paths, config, context.services);
  const auto results = engine.scan(categories);

  if (context.flag("--json")) {
    Json items = Json::array();
    // The id and the target keep every byte of a name (\udcXX escapes, so a consumer can act on
    // them); the title and reason are for reading and show U+FFFD instead.
    for (const auto& r : results) {
      for (ScanItem item : r.items) {
        item.title = Utf8::displayText(item.title);
        item.reason = Utf8::displayText(item.reason);
        items.push_back(toJson(item, DateForm::referenceSeconds));
      }
    }
    context.out << JsonText::pretty(items) << '\n';
    return 0;
  }
  int64_t total = 0;
  for (const auto& r : results) {
    if (r.items.empty()) continue;
    const int64_t size = r.totalSize();
    if (__builtin_add_overflow(total, size, &total)) total = INT64_MAX;  // never wrapped into a small total
    context.out << fit(std::string(displayName(r.category)), 36) << fit(ByteFormat::string(size), 12) << "("
                << r.items.size() << " items)\n";
  }
  context.out << "Total reclaimable: " << ByteFormat::string(total) << '\n';
  context.out.flush();
  return 0;
}

}  // namespace kestrel::agent
