// Scan engine: parallel scanner threads, throttled progress, ownership and de-duplication.
#include "core/scan/ScanEngine.h"

#include "core/system/fs/FileStat.h"

#include <algorithm>
#include <exception>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <unordered_set>

namespace kestrel {

bool ScanContext::oldEnough(const std::optional<Date>& modified) const {
  if (!modified) return true;
  int64_t seconds = 0;
  if (__builtin_mul_overflow(config.minItemAgeHours, int64_t{3600}, &seconds))
    seconds = config.minItemAgeHours > 0 ? INT64_MAX : INT64_MIN;
  return *modified <= Dates::minusSeconds(now, seconds);
}

UniqueFd ScanContext::openFolder(const fs::path& folder, fs::path* realOut) const {
  std::shared_ptr<const SafetyPolicy> own = policy;
  if (!own) own = std::make_shared<const SafetyPolicy>(paths, config.protectedPaths);
  const auto place = own->followRoot(folder.string());
  if (!place.real) return UniqueFd();
  const fs::path real(*place.real);
  if (realOut) *realOut = real;
  const fs::path rel = real.lexically_relative(home());
  if (rel.empty() || *rel.begin() == "..") {
    // Outside the home folder: the real path was just resolved, so no link is on the way.
    return UniqueFd(platform::openDirectory(real.c_str()));
  }
  UniqueFd current(platform::openDirectory(home().c_str()));
  for (const auto& component : rel) {
    if (!current) break;
    if (component == ".") continue;
    current = UniqueFd(platform::openDirectoryAt(current.get(), component.c_str()));
  }
  return current;
}

Shell::Result ScanContext::runTool(const std::string& tool, const std::vector<std::string>& arguments,
                                   double timeout) const {
  return services.run ? services.run(tool, arguments, timeout) : Shell::run(tool, arguments, timeout);
}

Throttle::Throttle(double intervalSeconds, std::function<Clock::time_point()> clock)
    : interval_(intervalSeconds), clock_(std::move(clock)) {}

bool Throttle::allow() {
  std::lock_guard lock(mutex_);
  const auto now = clock_();
  if (last_ && now - *last_ < interval_) return false;
  last_ = now;
  return true;
}

ScanEngine::ScanEngine(Paths paths, AppConfig config, const Services& services)
    : paths_(std::move(paths)), config_(std::move(config)), services_(services.withDefaults()) {}

std::vector<CategoryResult> ScanEngine::scan(const std::set<CleanCategory>& categories,
                                             const std::function<bool()>& isCancelled, const Progress& progress,
                                             const Status& status) const {
  return run(ScannerRegistry::scanners(categories), isCancelled, progress, status);
}

std::vector<CategoryResult> ScanEngine::run(std::vector<std::unique_ptr<JunkScanner>> scanners,
                                            const std::function<bool()>& isCancelled, const Progress& progress,
                                            const Status& status) const {
  auto throttle = std::make_shared<Throttle>(0.09);
  auto policy = std::make_shared<const SafetyPolicy>(paths_, config_.protectedPaths, services_);
  ScanContext context{paths_, config_, services_.now()};
  context.policy = policy;
  context.services = services_;
  std::mutex heldMutex;
  std::map<CleanCategory, std::map<std::string, int64_t>> held;
  context.holdBack = [&](CleanCategory c, const std::string& reason) {
    std::lock_guard lock(heldMutex);
    ++held[c][reason];
  };
  if (isCancelled) context.isCancelled = isCancelled;
  if (progress)
    context.report = [throttle, progress](CleanCategory c, const std::string& text) {
      if (throttle->allow()) progress(c, text);
    };

  std::mutex resultsMutex;
  std::vector<CategoryResult> results;
  results.reserve(scanners.size());
  {
    std::vector<std::thread> threads;
    threads.reserve(scanners.size());
    auto runOne = [&context, &status, &resultsMutex, &results](const JunkScanner* s) {
      const CleanCategory category = s->category();
      std::vector<ScanItem> items;
      try {
        items = s->scan(context);
      } catch (const std::exception&) {
        // A scanner reports problems by finding less; one that throws anyway found nothing.
        items.clear();
      }
      if (status) status(category);
      std::lock_guard lock(resultsMutex);
      results.push_back(CategoryResult{category, std::move(items)});
    };
    for (const auto& scanner : scanners) {
      const JunkScanner* s = scanner.get();
      try {
        threads.emplace_back(runOne, s);
      } catch (const std::system_error&) {
        runOne(s);  // no thread to be had: scan this one on the calling thread
      }
    }
    for (auto& t : threads) t.join();
  }
  for (auto& r : results) r.heldBack = std::move(held[r.category]);
  return dedupe(std::move(results), *policy);
}

int claimRank(CleanCategory c) {
  const int pos = position(c);
  if (pos <= 5) return 1;
  if (pos <= 10) return 2;
  if (pos <= 15) return 3;
  if (pos <= 18) return 4;
  return 5;
}

std::vector<CategoryResult> dedupe(std::vector<CategoryResult> results, const SafetyPolicy& policy) {
  // Results arrive in completion order; walking them in category order makes ties of equal rank
  // go to the earlier category on every run.
  std::stable_sort(results.begin(), results.end(), [](const CategoryResult& a, const CategoryResult& b) {
    return position(a.category) < position(b.category);
  });

  std::unordered_map<std::string, CleanCategory> owner;
  for (const auto& r : results)
    for (const auto& item : r.items) {
      const auto path = item.path();
      if (!path) continue;
      auto [it, inserted] = owner.try_emplace(*path, r.category);
      if (!inserted && claimRank(r.category) > claimRank(it->second)) it->second = r.category;
    }

  const auto hasOwnedAncestor = [&](const std::string& path) {
    std::string_view p = path;
    for (;;) {
      const auto slash = p.rfind('/');
      if (slash == std::string_view::npos) return false;
      p = p.substr(0, slash);
      if (p.size() < 2) return false;
      if (owner.count(std::string(p))) return true;
    }
  };

  // Only items that pass ownership and the ancestor test go to the policy, all in one batch so
  // that the links of a shared parent folder are resolved once.
  std::vector<std::vector<char>> candidate(results.size());
  std::vector<std::string> toCheck;
  for (size_t r = 0; r < results.size(); ++r) {
    candidate[r].assign(results[r].items.size(), 0);
    for (size_t i = 0; i < results[r].items.size(); ++i) {
      const auto path = results[r].items[i].path();
      if (!path) continue;
      if (owner.at(*path) != results[r].category || hasOwnedAncestor(*path)) continue;
      candidate[r][i] = 1;
      toCheck.push_back(*path);
    }
  }
  const std::vector<Verdict> verdicts = policy.checkAll(toCheck);
  size_t next = 0;
  for (size_t r = 0; r < results.size(); ++r) {
    std::vector<ScanItem> kept;
    kept.reserve(results[r].items.size());
    for (size_t i = 0; i < results[r].items.size(); ++i) {
      ScanItem& item = results[r].items[i];
      if (item.path()) {
        if (!candidate[r][i]) continue;
        if (verdicts[next++].isBlocked()) {
          ++results[r].heldBack["protected"];
          continue;
        }
      }
      kept.push_back(std::move(item));
    }
    std::stable_sort(kept.begin(), kept.end(), [](const ScanItem& a, const ScanItem& b) { return a.size > b.size; });
    results[r].items = std::move(kept);
  }
  return results;
}

}  // namespace kestrel
