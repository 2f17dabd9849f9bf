// Logs: log folders and files in the user's log folder untouched for logAgeDays.
#include "core/platform/FileStat.h"
#include "core/scan/scanners/ChildScan.h"
#include "core/scan/scanners/Scanners.h"

namespace kestrel {
namespace {

constexpr int kNewestLimit = 4000;

struct LogTree {
  Date newest;
  int64_t size = 0;
};

// One pass over a log folder giving both its newest modification (the folder and at most the
// first 4000 entries, in the order FS::newestModification visits them) and its allocated size,
// so that every entry is asked for its status once.
LogTree walkLogFolder(const scanners::Child& child, const FS::CancelTest& cancel) {
  LogTree tree{*child.modified(), 0};
  std::vector<UniqueFd> stack;
  UniqueFd root(platform::openDirectoryAt(child.parentFd, child.name.c_str()));
  if (!root) return tree;
  stack.push_back(std::move(root));
  int visited = 0;
  while (!stack.empty()) {
    if (cancel && cancel()) break;
    UniqueFd dir = std::move(stack.back());
    stack.pop_back();
    std::vector<std::string> subdirs;
    platform::readDirectory(dir.get(), [&](const char* name, platform::EntryType) {
      platform::EntryStat st;
      if (!platform::statAt(dir.get(), name, st, true)) return;
      if (visited < kNewestLimit && st.modified > tree.newest) tree.newest = st.modified;
      ++visited;
      if (st.type == platform::EntryType::regular) tree.size += st.allocated;
      else if (st.type == platform::EntryType::directory) subdirs.emplace_back(name);
    });
    for (const auto& s : subdirs) {
      UniqueFd sub(platform::openDirectoryAt(dir.get(), s.c_str()));
      if (sub) stack.push_back(std::move(sub));
    }
  }
  return tree;
}

}  // namespace

std::vector<ScanItem> LogsScanner::scan(const ScanContext& context) const {
  std::vector<ScanItem> items;
  const Date cutoff = context.daysAgo(context.config.logAgeDays);
  const std::string reason = "Log files untouched for " + std::to_string(context.config.logAgeDays) + "+ days";
  scanners::forEachChild(context, category(), context.lib("Logs"), [&](const scanners::Child& child) {
    // Crash reports are their own category; the system's own log folder is never offered.
    if (child.name == "DiagnosticReports" || child.name == "orvo Kestrel") return;
    if (!child.hasStatus) return;  // gone since the listing
    if (!context.oldEnough(child.modified())) return;
    if (*child.modified() >= cutoff) return;
    int64_t size = 0;
    if (child.isDirectory()) {
      const LogTree tree = walkLogFolder(child, context.isCancelled);
      if (tree.newest >= cutoff) return;  // something inside was written recently
      size = tree.size;
    } else {
      size = scanners::measure(child, context.isCancelled);
    }
    if (size < 1) return;
    items.push_back(scanners::makeItem(child, size, category(), Risk::safe, reason, child.lastUsed()));
  });
  return items;
}

}  // namespace kestrel
