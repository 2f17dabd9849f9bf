// Benchmark: Cleaner::clean deleting a whole synthetic home's removable folders, against rm -rf.
//
//   clean_delete list HOME LIST   writes the items the policy allows (NUL-separated, relative to
//                                 HOME): every entry of HOME it allows, descending only into the
//                                 top-level folders it refuses as such
//   clean_delete clean HOME LIST  deletes those items of HOME with one Cleaner::clean (delete
//                                 disposal) and prints items, failures and seconds
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "core/clean/Cleaner.h"

using namespace kestrel;

namespace {

using Clock = std::chrono::steady_clock;

void collect(const SafetyPolicy& policy, const fs::path& dir, const fs::path& home, std::vector<std::string>& out) {
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    const fs::path p = it->path();
    const Verdict v = policy.check(p.string());
    if (v.kind == Verdict::Kind::allowed) {
      // Purely textual: fs::relative would resolve a link here and name its target instead (the
      // home holds a link to /usr/share on purpose).
      out.push_back(p.lexically_relative(home).string());
    } else if (v.isBlocked() && v.text == "Top-level folder" && it->is_directory(ec) && !it->is_symlink(ec)) {
      collect(policy, p, home, out);
    }
  }
}

// A path below the home folder: relative, with no "." or ".." component.
bool isPlainRelative(const fs::path& rel) {
  if (rel.empty() || rel.is_absolute()) return false;
  for (const auto& c : rel)
    if (c == "." || c == ".." || c.empty()) return false;
  return true;
}

std::vector<std::string> readList(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::vector<std::string> out;
  for (std::string rel; std::getline(in, rel, '\0');) {
    if (rel.empty()) continue;
    if (!isPlainRelative(rel)) {
      std::fprintf(stderr, "refusing list entry %s\n", rel.c_str());
      std::exit(2);
    }
    out.push_back(rel);
  }
  return out;
}

int usage() {
  std::fprintf(stderr, "usage: clean_delete list|clean HOME LIST\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return usage();
  const std::string mode = argv[1];
  const fs::path home = fs::absolute(argv[2]);
  const fs::path list = argv[3];
  const Paths paths(home);

  if (mode == "list") {
    SafetyPolicy policy(paths, {});
    std::vector<std::string> items;
    collect(policy, home, home, items);
    std::ofstream out(list, std::ios::binary | std::ios::trunc);
    for (const auto& rel : items) {
      if (!isPlainRelative(rel)) {
        std::fprintf(stderr, "refusing list entry %s\n", rel.c_str());
        return 2;
      }
      out << rel << '\0';
    }
    std::printf("items=%zu\n", items.size());
    return out ? 0 : 1;
  }
  if (mode != "clean") return usage();

  std::vector<ScanItem> items;
  for (const auto& rel : readList(list)) {
    ScanItem item;
    item.id = rel;
    item.target = ItemTarget::forPath((home / rel).string());
    items.push_back(std::move(item));
  }
  // Nothing here needs administrator rights; a prompt would be a fault, so it always declines.
  Services services;
  services.adminPrompt = [](const std::string&, const std::string&, double) {
    return Shell::Result{1, "", "declined by the benchmark"};
  };
  PrivilegedSession session(paths, services);
  AdminQueue queue(paths);

  const auto start = Clock::now();
  Cleaner cleaner(paths, AppConfig{}, services, &session, &queue);
  const CleanReport report = cleaner.clean(items, TriggerSource::manual(), false, Disposal::delete_);
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::printf("items=%zu processed=%lld failures=%zu skipped=%zu deferred=%lld seconds=%.3f\n", items.size(),
              static_cast<long long>(report.itemsProcessed), report.failures.size(), report.skippedProtected.size(),
              static_cast<long long>(report.deferredAdmin), seconds);
  for (size_t i = 0; i < report.failures.size() && i < 5; ++i)
    std::fprintf(stderr, "failure: %s: %s\n", report.failures[i].itemID.c_str(), report.failures[i].message.c_str());
  for (size_t i = 0; i < report.skippedProtected.size() && i < 5; ++i)
    std::fprintf(stderr, "skipped: %s\n", report.skippedProtected[i].c_str());
  return report.failures.empty() ? 0 : 1;
}
