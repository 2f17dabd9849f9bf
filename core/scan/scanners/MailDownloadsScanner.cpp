// Mail attachments cache: copies of opened attachments not used for 7 days.
#include "core/scan/scanners/ChildScan.h"
#include "core/scan/scanners/Scanners.h"

namespace kestrel {

std::vector<ScanItem> MailDownloadsScanner::scan(const ScanContext& context) const {
  if (context.paths.layout() != Layout::macos) return {};  // a macOS home's folder only
  const Date cutoff = context.now - std::chrono::seconds(604800);
  std::vector<ScanItem> items;
  scanners::forEachChild(context, category(), context.lib("Containers/com.apple.mail/Data/Library/Mail Downloads"),
                         [&](const scanners::Child& child) {
                           const auto lastUsed = child.lastUsed();
                           if (lastUsed && *lastUsed >= cutoff) return;
                           if (!context.oldEnough(child.modified())) return;
                           const int64_t size = scanners::measure(child, context.isCancelled);
                           if (size <= 0) return;
                           items.push_back(scanners::makeItem(
                               child, size, category(), Risk::safe,
                               "Copy of an attachment you opened; the original stays in Mail", lastUsed));
                         });
  return items;
}

}  // namespace kestrel
