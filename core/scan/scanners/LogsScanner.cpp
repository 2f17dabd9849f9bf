// Logs: log folders and files in the user's log folders untouched for logAgeDays.
#include "core/system/fs/FileStat.h"
#include "core/scan/scanners/Locations.h"
#include "core/scan/scanners/Scanners.h"

#include <cerrno>

namespace kestrel {
namespace {

// Deeper log trees are not offered: looking further would hold too many folders open.
constexpr size_t kMaxDepth = 64;

struct LogTree {
  Date newest;
  int64_t size = 0;
  bool sure = true;  // false when part of the tree could not be looked at
};

// One pass over a log folder giving both its newest modification (the folder and every entry
// below it) and its allocated size, so that every entry is asked for its status once. The walk
// is depth-first with one open folder per level, never leaves the folder's mount, and answers
// "not sure" for anything it cannot open or read: the caller then offers nothing, since a log
// folder it cannot see into may hold a log being written right now.
LogTree walkLogFolder(const scanners::Child& child, const FS::CancelTest& cancel) {
  LogTree tree{*child.modified(), 0, true};
  struct Frame {
    UniqueFd fd;
    std::vector<std::string> subdirs;
    size_t next = 0;
  };
  UniqueFd root(platform::openDirectoryAt(child.parentFd, child.name.c_str()));
  if (!root) {
    tree.sure = errno == ENOENT;  // gone since the listing: nothing left to protect
    return tree;
  }
  const auto mount = platform::mountID(root.get());
  std::vector<Frame> stack;
  const auto list = [&](Frame& f) {
    const bool read = platform::readDirectory(f.fd.get(), [&](const char* name, platform::EntryType) {
      platform::EntryStat st;
      if (!platform::statAt(f.fd.get(), name, st, true)) {
        if (errno != ENOENT) tree.sure = false;
        return;
      }
      if (st.modified > tree.newest) tree.newest = st.modified;
      if (st.type == platform::EntryType::regular) tree.size += st.allocated;
      else if (st.type == platform::EntryType::directory) f.subdirs.emplace_back(name);
    });
    if (!read) tree.sure = false;
  };
  stack.push_back(Frame{std::move(root), {}, 0});
  list(stack.back());
  while (!stack.empty() && tree.sure) {
    if (cancel && cancel()) {
      tree.sure = false;
      break;
    }
    Frame& top = stack.back();
    if (top.next >= top.subdirs.size()) {
      stack.pop_back();
      continue;
    }
    const std::string& name = top.subdirs[top.next++];
    UniqueFd sub(platform::openDirectoryAt(top.fd.get(), name.c_str()));
    if (!sub) {
      if (errno != ENOENT) tree.sure = false;  // EMFILE, EACCES, ELOOP…: cannot tell, so not old
      continue;
    }
    if (stack.size() >= kMaxDepth || (mount && platform::mountID(sub.get()) != mount)) {
      tree.sure = false;
      break;
    }
    stack.push_back(Frame{std::move(sub), {}, 0});
    list(stack.back());
  }
  return tree;
}

bool isMacLogEntry(const scanners::Child& child) {
  // Crash reports are their own category; the system's own log folder is never offered.
  return child.name != "DiagnosticReports" && child.name != AppInfo::name;
}

bool endsWith(std::string_view s, std::string_view tail) {
  return s.size() >= tail.size() && s.substr(s.size() - tail.size()) == tail;
}

// A log in an app's state folder: a "log"/"logs" folder, or a "*.log", "*.log.N" or "*.log.old"
// file; never anything else there (editor history and the like are the user's state).
bool isStateLog(const scanners::Child& child) {
  if (child.isDirectory()) return child.name == "log" || child.name == "logs";
  const std::string_view n = child.name;
  if (endsWith(n, ".log") || endsWith(n, ".log.old")) return n.size() > 4;
  const auto dot = n.rfind('.');
  if (dot == std::string_view::npos || dot + 1 == n.size()) return false;
  const auto digits = n.substr(dot + 1);
  return digits.find_first_not_of("0123456789") == std::string_view::npos && endsWith(n.substr(0, dot), ".log");
}

bool isOldLog(const scanners::Child& child) { return endsWith(child.name, ".log.old"); }

using scanners::Base, scanners::On, scanners::Shape;

constexpr scanners::Location kLocations[] = {
    {On::macos, Base::library, "Logs", Shape::children, {}, isMacLogEntry},
    {On::linux, Base::state, "*", Shape::children, {}, isStateLog},
    {On::linux, Base::home, ".xsession-errors.old", Shape::self},
    {On::linux, Base::data, "xorg", Shape::children, {}, isOldLog},
};

}  // namespace

std::vector<ScanItem> LogsScanner::scan(const ScanContext& context) const {
  std::vector<ScanItem> items;
  const Date cutoff = context.daysAgo(context.config.logAgeDays);
  const std::string reason = "Log files untouched for " + std::to_string(context.config.logAgeDays) + "+ days";
  scanners::forEachLocation(context, category(), kLocations, [&](const scanners::Found& found) {
    const auto& child = found.child;
    if (found.match == Paths::kLinuxFolderName) return;  // the system's own logs
    if (!child.hasStatus) return;  // gone since the listing
    if (!context.oldEnough(child.modified())) return;
    if (*child.modified() >= cutoff) return;
    int64_t size = 0;
    if (child.isDirectory()) {
      const LogTree tree = walkLogFolder(child, context.isCancelled);
      if (!tree.sure || tree.newest >= cutoff) return;  // something inside may be in use
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
