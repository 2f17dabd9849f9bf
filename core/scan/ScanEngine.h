// Scan engine: the scanner interface and its context, the registry, the progress throttle, and the
// parallel scan with de-duplication through the safety policy.
#pragma once

#include "core/safety/SafetyPolicy.h"
#include "core/model/ScanModel.h"
#include "core/model/AppConfig.h"
#include "core/system/Paths.h"
#include "core/system/Services.h"
#include "core/base/UniqueFd.h"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kestrel {

// What every scanner gets. Its callbacks may be called from any worker thread.
struct ScanContext {
  Paths paths;
  AppConfig config;
  Date now;  // the one reference time of the whole scan
  std::function<bool()> isCancelled = [] { return false; };
  std::function<void(CleanCategory, const std::string&)> report = [](CleanCategory, const std::string&) {};
  // Counts an item found but not offered, by why ("in use", …); thread-safe.
  std::function<void(CleanCategory, const std::string&)> holdBack = [](CleanCategory, const std::string&) {};
  // The policy of this scan (built from paths and config when absent).
  std::shared_ptr<const SafetyPolicy> policy = nullptr;
  // The outside world of this scan; an empty tool runner means Shell::run.
  Services services = {};

  const fs::path& home() const { return paths.home(); }
  fs::path lib(std::string_view sub) const { return paths.lib(sub); }
  // `now` minus n exact 24-hour days; a count beyond the clock's range saturates, so a huge
  // setting meant as "never" finds nothing old enough.
  Date daysAgo(int64_t n) const { return Dates::minusDays(now, n); }
  // The common minimum-age test: false for an item modified less than minItemAgeHours before now
  // (an unknown modification date passes).
  bool oldEnough(const std::optional<Date>& modified) const;
  // Opens a folder the scanner starts from, for listing (never updating its access time). Inside
  // the home folder it is reached from the home folder one component at a time; a link on the way
  // is followed only as the policy's followRoot allows. Invalid when missing or refused.
  // `real` (when given) receives the folder's real path.
  UniqueFd openFolder(const fs::path& folder, fs::path* real = nullptr) const;
  // Runs an outside tool through the services' tool runner (Shell::run when none is set).
  Shell::Result runTool(const std::string& tool, const std::vector<std::string>& arguments, double timeout) const;
};

// One scanner per category. A scanner does not fail: a problem yields fewer or no items.
class JunkScanner {
 public:
  virtual ~JunkScanner() = default;
  virtual CleanCategory category() const = 0;
  virtual std::vector<ScanItem> scan(const ScanContext& context) const = 0;
};

namespace ScannerRegistry {
// One scanner per requested category that has one, in category order.
std::vector<std::unique_ptr<JunkScanner>> scanners(const std::set<CleanCategory>& categories);
// The categories that have a scanner.
std::set<CleanCategory> scannable();
}  // namespace ScannerRegistry

// Admits at most one event per `interval`; thread-safe.
class Throttle {
 public:
  using Clock = std::chrono::steady_clock;
  explicit Throttle(double intervalSeconds, std::function<Clock::time_point()> clock = Clock::now);
  bool allow();

 private:
  std::chrono::duration<double> interval_;
  std::function<Clock::time_point()> clock_;
  std::optional<Clock::time_point> last_;  // none: the distant past
  std::mutex mutex_;
};

class ScanEngine {
 public:
  using Progress = std::function<void(CleanCategory, const std::string&)>;
  using Status = std::function<void(CleanCategory)>;
  // The scan's reference time is `services.now()`; the policy asks `services` too.
  ScanEngine(Paths paths, AppConfig config, const Services& services = {});

  // Runs the scanners of `categories` in parallel threads, all joined before returning; then
  // de-duplicates through the safety policy. `progress` gets the scanners' reports, at most one
  // per 0.09 s; `status` is called once per scanner when it finishes (both on worker threads).
  std::vector<CategoryResult> scan(const std::set<CleanCategory>& categories,
                                   const std::function<bool()>& isCancelled = nullptr,
                                   const Progress& progress = nullptr, const Status& status = nullptr) const;

  // The same with scanners of the caller's own (tests use it to feed the engine fixed findings).
  std::vector<CategoryResult> run(std::vector<std::unique_ptr<JunkScanner>> scanners,
                                  const std::function<bool()>& isCancelled = nullptr,
                                  const Progress& progress = nullptr, const Status& status = nullptr) const;

 private:
  Paths paths_;
  AppConfig config_;
  Services services_;
};

// Claim rank of a category: system junk 1, personal files 2, developer 3, clutter and cloud 4, later 5.
int claimRank(CleanCategory c);

// Every path owned by exactly one category (higher rank wins; equal ranks go to the earlier
// category), nothing below another listed path, nothing the policy blocks; items largest first,
// results in category order.
std::vector<CategoryResult> dedupe(std::vector<CategoryResult> results, const SafetyPolicy& policy);

}  // namespace kestrel
