// Scheduled ticks in process against a scratch home at a fixed now, with fake tools first on PATH
// and a fixed system state: rules run and are recorded, the lock keeps a second tick out, damaged
// settings run no removal, expired quarantine goes, the disk-full warning keeps its distance and
// new background items are told once.
#include "core/schedule/ScheduledRunner.h"

#include "core/clean/Quarantine.h"
#include "core/insights/SpaceHistory.h"
#include "core/schedule/AgentState.h"
#include "core/store/AuditLog.h"
#include "core/store/JSONStore.h"
#include "core/store/RuleStore.h"
#include "core/system/fs/FileLock.h"
#include "tests/support/FakeTools.h"
#include "tests/support/ScratchHome.h"

#include <date/tz.h>
#include <gtest/gtest.h>

namespace kestrel {
namespace {

using test::FakeTools;
using test::ScratchHome;
namespace fs = std::filesystem;

// One scratch home with the tools a tick may run faked, and what the tick said.
struct Harness {
  ScratchHome h;
  FakeTools tools{h.root()};
  std::vector<std::string> log;
  std::vector<std::pair<std::string, std::string>> notices;
  SystemState state;
  Layout layout = Layout::macos;  // the fixtures' shape

  Harness() {
    tools.tool("crontab", "", 1, "no crontab for you\n");
    state.onACPower = true;
  }
  ScheduledRunner runner() {
    return ScheduledRunner(
        Paths(h.home(), layout), [this](const std::string& line) { log.push_back(line); },
        [this](const std::string& t, const std::string& b) { notices.emplace_back(t, b); }, Services{},
        date::locate_zone("Europe/Berlin"), h.outside("system"));
  }
  void tick(Date now, std::optional<std::string> force = std::nullopt) { runner().tick(now, force, state); }
  bool logged(const std::string& line) const { return std::find(log.begin(), log.end(), line) != log.end(); }
};

const Date now = test::kTestNow;

// Two cache folders the user-caches scanner offers.
void makeCaches(ScratchHome& h) {
  h.aged("Library/Caches/com.example.a/blob", 70000, 2, now);
  h.aged("Library/Caches/com.example.b/x", 90000, 2, now);
}

ScheduleRule hourlyCaches(const std::string& name, Date now) {
  ScheduleRule r = ScheduleRule::make(name, ScheduleTrigger::everyHours(1), {CleanCategory::userCaches},
                                      now - std::chrono::hours(48));
  r.conditions.requireACPower = false;
  return r;
}

TEST(ScheduledRunnerTest, ADueRuleCleansAndIsRecorded) {
  Harness t;
  makeCaches(t.h);
  ScheduleRule due = hourlyCaches("Hourly caches", now);
  ScheduleRule idle = ScheduleRule::make("Later", ScheduleTrigger::everyHours(100), {CleanCategory::logs}, now);
  RuleStore(t.h.paths()).save({due, idle});

  t.tick(now);

  EXPECT_FALSE(fs::exists(t.h.path("Library/Caches/com.example.a")));
  const auto rules = RuleStore(t.h.paths()).load();
  ASSERT_EQ(rules.size(), 2u);
  EXPECT_EQ(rules[0].lastRun, now);
  ASSERT_TRUE(rules[0].lastResult);
  EXPECT_EQ(rules[0].lastResult->rfind("Freed ", 0), 0u) << *rules[0].lastResult;
  EXPECT_FALSE(rules[1].lastRun);
  EXPECT_TRUE(t.logged("[Hourly caches] " + *rules[0].lastResult));
  EXPECT_EQ(t.notices, (std::vector<std::pair<std::string, std::string>>{
                           {"orvo Kestrel: Hourly caches", *rules[0].lastResult}}));
  for (const auto& e : AuditLog(t.h.paths()).recent(10)) EXPECT_EQ(e.trigger, TriggerSource::schedule("Hourly caches"));

  // An hour has not passed: nothing runs, and a run with nothing to clean posts nothing.
  t.log.clear();
  t.tick(now + std::chrono::minutes(30));
  EXPECT_TRUE(t.log.empty());
  t.tick(now + std::chrono::hours(2));
  EXPECT_TRUE(t.logged("[Hourly caches] Nothing to clean"));
  EXPECT_EQ(t.notices.size(), 1u);
}

TEST(ScheduledRunnerTest, ASecondTickSkipsAndWritesNothing) {
  Harness t;
  const auto held = FileLock::acquire(t.h.paths().lockFile());
  ASSERT_TRUE(held);
  t.tick(now);
  EXPECT_EQ(t.log, std::vector<std::string>{"Another run is in progress; skipping."});
  for (const auto& file : {t.h.paths().rulesFile(), t.h.paths().agentStateFile(), t.h.paths().spaceHistoryFile(),
                           t.h.paths().persistenceBaselineFile(), t.h.paths().auditFile()})
    EXPECT_FALSE(fs::exists(file)) << file;
}

TEST(ScheduledRunnerTest, AForcedRuleRunsDisabledAndTheOthersStillRun) {
  Harness t;
  makeCaches(t.h);
  ScheduleRule off = ScheduleRule::make("Off", ScheduleTrigger::weekly(1, 3, 0), {CleanCategory::logs}, now);
  off.enabled = false;
  ScheduleRule waiting = hourlyCaches("Needs mains", now);
  waiting.conditions.requireACPower = true;
  ScheduleRule due = hourlyCaches("Due", now);
  RuleStore(t.h.paths()).save({off, waiting, due});
  t.state.onACPower = false;

  t.tick(now, off.id);

  EXPECT_TRUE(t.logged("[Off] running (Every Sunday at 03:00)"));
  EXPECT_TRUE(t.logged("[Off] Nothing to clean"));
  EXPECT_TRUE(t.logged("[Needs mains] due, Waiting for AC power"));
  EXPECT_TRUE(t.logged("[Due] running (Every 1 hour)"));
  const auto rules = RuleStore(t.h.paths()).load();
  EXPECT_EQ(rules[0].lastRun, now);
  EXPECT_FALSE(rules[1].lastRun);
  EXPECT_EQ(rules[2].lastRun, now);
}

TEST(ScheduledRunnerTest, DamagedSettingsRunNoRemovalAndStayAsTheyAre) {
  Harness t;
  makeCaches(t.h);
  RuleStore(t.h.paths()).save({hourlyCaches("Due", now)});
  const std::string settings = "{\"protectedPaths\": [";
  t.h.text("Library/Application Support/orvo Kestrel/config.json", settings);
  t.tick(now);
  EXPECT_TRUE(fs::exists(t.h.path("Library/Caches/com.example.a")));
  EXPECT_EQ(test::readText(t.h.paths().configFile()), settings);
  ASSERT_FALSE(t.log.empty());
  EXPECT_EQ(t.log[0], "Settings file " + t.h.paths().configFile().string() +
                          " is damaged (not valid JSON); nothing was removed. Fix it or delete it.");
}

TEST(ScheduledRunnerTest, ExpiredQuarantineIsPurgedAndAudited) {
  Harness t;
  RuleStore(t.h.paths()).save({});
  Quarantine q(t.h.paths());
  QuarantineSession s = q.beginSession(TriggerSource::manual(), 7, now - std::chrono::hours(24 * 8));
  q.add(t.h.file("Library/Caches/old/data", 5000), 5000, CleanCategory::userCaches, s);
  q.close(s);

  t.tick(now);

  EXPECT_TRUE(q.sessions().empty());
  EXPECT_TRUE(t.logged("Purged expired quarantine: 5 KB"));
  const auto audit = AuditLog(t.h.paths()).recent(1);
  ASSERT_EQ(audit.size(), 1u);
  EXPECT_EQ(std::tie(audit[0].action, audit[0].target, audit[0].size), std::make_tuple(AuditAction::purge, "expired quarantine", 5000));
}

// Free space falling 5 GB a day, the newest sample half an hour before `now` (so the tick adds none).
void writeDecline(const ScratchHome& h, Date now) {
  std::vector<SpaceSample> samples;
  for (int i = 0; i < 8; ++i) {
    samples.push_back({now - std::chrono::minutes(30) - std::chrono::hours(12 * (7 - i)), 30'000'000'000 - 2'500'000'000LL * i,
                       100'000'000'000});
  }
  JSONStore::save(toJsonArray(samples), h.paths().spaceHistoryFile());
}

TEST(ScheduledRunnerTest, DiskFullWarningWaitsThreeDays) {
  Harness t;
  RuleStore(t.h.paths()).save({});
  const auto warnings = [&] {
    return std::count_if(t.notices.begin(), t.notices.end(),
                         [](const auto& n) { return n.first.rfind("Disk predicted full in ", 0) == 0; });
  };
  writeDecline(t.h, now);
  t.tick(now);
  ASSERT_EQ(warnings(), 1);
  EXPECT_EQ(t.notices.back(), std::make_pair(std::string("Disk predicted full in 2 days"),
                                             std::string("You're using ~5 GB/day. Open orvo Kestrel to see what's growing.")));
  EXPECT_EQ(AgentState::load(t.h.paths()).lastForecastAlert, now);

  const Date later = now + std::chrono::hours(72);
  writeDecline(t.h, later);
  t.tick(later);
  EXPECT_EQ(warnings(), 1);
  writeDecline(t.h, later + std::chrono::seconds(1));
  t.tick(later + std::chrono::seconds(1));
  EXPECT_EQ(warnings(), 2);
}

TEST(ScheduledRunnerTest, GrowthSnapshotOnlyWhenIdleOnMains) {
  Harness t;
  RuleStore(t.h.paths()).save({});
  t.state.idleSeconds = 200;
  t.tick(now);
  EXPECT_FALSE(AgentState::load(t.h.paths()).lastGrowthSnapshot);
  t.state.idleSeconds = 400;
  t.state.onACPower = false;
  t.tick(now);
  EXPECT_FALSE(AgentState::load(t.h.paths()).lastGrowthSnapshot);
  t.state.onACPower.reset();
  t.tick(now);
  EXPECT_EQ(AgentState::load(t.h.paths()).lastGrowthSnapshot, now);
  EXPECT_TRUE(t.logged("Growth snapshot taken"));
  EXPECT_TRUE(fs::exists(t.h.paths().growthSnapshotsFile()));
  t.log.clear();
  t.tick(now + std::chrono::hours(19));
  EXPECT_FALSE(t.logged("Growth snapshot taken"));
}

TEST(ScheduledRunnerTest, NewBackgroundItemsAreToldOnce) {
  Harness t;
  t.layout = Layout::linux;  // user units and autostart entries
  RuleStore(t.h.linuxPaths()).save({});
  t.h.text(".config/systemd/user/known.service", "[Service]\nExecStart=/bin/true\n");
  t.tick(now);  // learns what is there
  EXPECT_TRUE(t.notices.empty());

  const fs::path unit = t.h.text(".config/systemd/user/sync.service",
                                 "[Unit]\nDescription=Sync helper\n[Service]\nExecStart=" +
                                     t.h.path("gone/sync").string() + " --quiet\n");
  const fs::path entry = t.h.text(".config/autostart/tray.desktop", "[Desktop Entry]\nName=Tray\nExec=/bin/true %u\n");
  t.tick(now);
  EXPECT_EQ(t.notices, (std::vector<std::pair<std::string, std::string>>{
                           {"New background item: Tray", "Autostart Entry. Open orvo Kestrel to review."},
                           {"New background item: Sync helper",
                            "Systemd Unit (you) · Program is missing. Open orvo Kestrel to review."}}));
  EXPECT_TRUE(t.logged("New persistence item: " + unit.string()));
  EXPECT_TRUE(t.logged("New persistence item: " + entry.string()));

  t.tick(now);
  EXPECT_EQ(t.notices.size(), 2u);
  t.h.text(".config/systemd/user/known.service", "[Service]\nExecStart=/bin/false\n");
  t.tick(now);
  ASSERT_EQ(t.notices.size(), 3u);
  EXPECT_EQ(t.notices[2].first, "Changed background item: known.service");
}

}  // namespace
}  // namespace kestrel
