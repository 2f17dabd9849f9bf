// Scheduled runs: one tick of the background agent (lock, space sample, probe, quarantine expiry,
// due rules, background items, disk-full warning, growth snapshot) and the run summary.
#pragma once

#include "core/base/Dates.h"
#include "core/model/CleanReport.h"
#include "core/system/Paths.h"
#include "core/system/Services.h"
#include "core/system/process/SystemProbe.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace date {
class time_zone;
}

namespace kestrel {

class SpaceHistory;

class ScheduledRunner {
 public:
  using Log = std::function<void(const std::string& line)>;
  using Notify = std::function<void(const std::string& title, const std::string& body)>;

  // `zone` is the time zone calendar rules are read in (nullptr: the machine's). `systemRoot` is
  // where the system-wide background items are looked for ("/" in real runs).
  ScheduledRunner(Paths paths, Log log, Notify notify, const Services& services = {},
                  const date::time_zone* zone = nullptr, std::filesystem::path systemRoot = "/");

  // One tick at `now`. Skipped as a whole ("Another run is in progress; skipping.") while another
  // holds the agent lock. `forceRuleID` runs that rule first of all checks (even disabled), the
  // other rules as usual. `stateOverride` replaces the system probe. Never throws; a rules file
  // that exists but does not decode runs no rule and is left as it is, and a settings file that
  // does not decode stops every removal (rules and the quarantine expiry).
  void tick(Date now, const std::optional<std::string>& forceRuleID = std::nullopt,
            const std::optional<SystemState>& stateOverride = std::nullopt);

  // The probe and the space history's forecast at `now`.
  static SystemState probe(const Paths& paths, const Services& services, Date now);

  // CleanReport::summary under the name scheduled runs and notifications use.
  static std::string summarize(const CleanReport& report, bool dryRun) { return report.summary(dryRun); }

 private:
  struct Tick;
  void load(Tick& t);
  void purgeExpiredQuarantine(Tick& t);
  void runDueRules(Tick& t, const std::optional<std::string>& forceRuleID);
  void saveRuleResults(Tick& t);
  void reportBackgroundItems(Tick& t);
  void warnOfFullDisk(Tick& t, const SpaceHistory& history);
  void takeGrowthSnapshot(Tick& t);
  void writeMetrics(Tick& t);

  Paths paths_;
  Log log_;
  Notify notify_;
  Services services_;
  const date::time_zone* zone_;
  std::filesystem::path systemRoot_;
};

}  // namespace kestrel
