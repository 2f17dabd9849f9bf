// Simulators: devices whose system is no longer installed (deleted by simctl) and the shared caches.
#include "core/scan/scanners/ChildScan.h"
#include "core/scan/scanners/Scanners.h"

#include "core/base/Json.h"

#include <algorithm>
#include <cctype>

namespace kestrel {

std::optional<std::vector<std::string>> parseUnavailableSimulators(std::string_view json) {
  const auto root = JsonText::parse(json);
  if (!root || !root->is_object()) return std::nullopt;
  const auto devices = root->find("devices");
  if (devices == root->end() || !devices->is_object()) return std::nullopt;
  std::vector<std::string> out;
  for (const auto& [runtime, list] : devices->items()) {
    if (!list.is_array()) continue;
    for (const auto& device : list) {
      if (!device.is_object()) continue;
      const auto available = device.find("isAvailable");
      if (available != device.end() && (!available->is_boolean() || available->get<bool>())) continue;
      const auto udid = device.find("udid");
      if (udid == device.end() || !udid->is_string()) continue;
      const std::string id = udid->get<std::string>();
      // A device id names a folder below the devices folder: only the 8-4-4-4-12 hex form will do.
      bool wellFormed = id.size() == 36;
      for (size_t i = 0; i < id.size() && wellFormed; ++i)
        wellFormed = (i == 8 || i == 13 || i == 18 || i == 23) ? id[i] == '-' : std::isxdigit(static_cast<unsigned char>(id[i])) != 0;
      if (wellFormed && std::find(out.begin(), out.end(), id) == out.end()) out.push_back(id);
    }
  }
  return out;
}

namespace {

// simctl may first start the simulator service, which takes a while on a cold machine.
constexpr double kTimeout = 30;

}  // namespace

std::vector<ScanItem> SimulatorsScanner::scan(const ScanContext& context) const {
  std::vector<ScanItem> items;
  if (context.paths.layout() != Layout::macos || context.isCancelled()) return items;

  // simctl decides availability from the runtimes it can load, which a device's own plist cannot
  // tell; asking it also sizes exactly the devices `delete unavailable` removes.
  context.report(category(), "xcrun simctl");
  const Shell::Result listed =
      context.runTool("xcrun", {"simctl", "list", "devices", "unavailable", "--json"}, kTimeout);
  const auto devices = listed.ok() ? parseUnavailableSimulators(listed.stdout) : std::nullopt;
  if (devices && !devices->empty()) {
    int64_t size = 0;
    for (const auto& id : *devices)
      scanners::forFolder(context, category(), context.paths.simulatorDevicesDir() / id, [&](const scanners::Child& c) {
        if (!c.isDirectory()) return;
        if (__builtin_add_overflow(size, scanners::measure(c, context.isCancelled), &size)) size = INT64_MAX;
      });
    ScanItem item;
    item.id = "simulators:unavailable";
    item.title = "Unavailable simulators (" + std::to_string(devices->size()) + ")";
    item.target = ItemTarget::forCommand({"xcrun", {"simctl", "delete", "unavailable"}});
    item.size = size;
    item.category = category();
    item.risk = Risk::safe;
    item.reason = "Simulators whose system is no longer installed; they cannot start any more";
    items.push_back(std::move(item));
  }

  scanners::forFolder(context, category(), context.paths.simulatorCachesDir(), [&](const scanners::Child& child) {
    if (!child.isDirectory() || !context.oldEnough(child.modified())) return;
    const int64_t size = scanners::measure(child, context.isCancelled);
    if (size < 1) return;
    items.push_back(scanners::makeItem(child, size, category(), Risk::safe,
                                       "Simulator caches; rebuilt when a simulator starts", child.lastUsed()));
  });
  return items;
}

}  // namespace kestrel
