// The schedule commands in process, with a fixed clock and a fixed system state: "rules" prints
// its exact lines, "run-rule" finds rules by id or by name ignoring case.
#include "tests/agent/RunInProcess.h"
#include "core/store/RuleStore.h"
#include "tests/support/FakeTools.h"

#include <gtest/gtest.h>

#include <sstream>

namespace kestrel {
namespace {

using test::FakeTools;
using test::ScratchHome;

const Date kNow = *Dates::parseISO8601("2026-03-10T12:00:00Z");

test::Run runWith(const ScratchHome& h, std::vector<std::string> args, SystemState state) {
  Services services;
  services.now = [] { return kNow; };
  services.probe = [state](const Paths&) { return state; };
  services.notify = [](const std::string&, const std::string&) {};
  return test::run(h, std::move(args), services);
}

// Log lines without their time stamps.
std::vector<std::string> messages(const std::string& out) {
  std::vector<std::string> lines;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) lines.push_back(line.substr(line.find(' ') + 1));
  return lines;
}

TEST(ScheduleCommands, RulesPrintsEachRuleWithItsDecision) {
  ScratchHome h;
  const Date longAgo = *Dates::parseISO8601("2025-01-01T00:00:00Z");
  ScheduleRule daily = ScheduleRule::make("Nightly", ScheduleTrigger::daily(3, 0), {CleanCategory::logs}, longAgo);
  daily.conditions.requireACPower = false;
  ScheduleRule off = ScheduleRule::make("Six-hourly", ScheduleTrigger::everyHours(6), {CleanCategory::logs}, longAgo);
  off.enabled = false;
  off.lastRun = *Dates::parseISO8601("2026-03-01T09:30:00Z");
  ScheduleRule low = ScheduleRule::make("Low", ScheduleTrigger::diskFreeBelowPercent(10), {CleanCategory::trash}, longAgo);
  low.conditions.skipIfAppsRunning = {"com.example.Editor"};
  ScheduleRule mains = ScheduleRule::make("Büro", ScheduleTrigger::everyHours(1), {CleanCategory::logs}, longAgo);
  RuleStore(h.paths()).save({daily, off, low, mains});
  SystemState state;
  state.onACPower = false;
  state.space = FS::VolumeSpace{100'000'000'000, 2'000'000'000};
  state.runningBundleIDs = {"com.example.Editor"};

  const auto r = runWith(h, {"rules"}, state);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "● Nightly — Every day at 03:00 — last: never — now: run\n"
            "○ Six-hourly — Every 6 hours — last: 2026-03-01 09:30:00 +0000 — now: notDue\n"
            "● Low — When free space drops below 10.0% — last: never — now: waiting(\"Waiting for com.example.Editor to quit\")\n"
            "● Büro — Every 1 hour — last: never — now: waiting(\"Waiting for AC power\")\n");
}

TEST(ScheduleCommands, RunRuleMatchesIdsExactlyAndNamesIgnoringCase) {
  ScratchHome h;
  FakeTools tools(h.root());
  tools.tool("crontab", "", 1);
  const Date longAgo = *Dates::parseISO8601("2025-01-01T00:00:00Z");
  ScheduleRule off = ScheduleRule::make("Büro Weekly", ScheduleTrigger::weekly(1, 3, 0), {CleanCategory::logs}, kNow);
  off.enabled = false;
  ScheduleRule other = ScheduleRule::make("Hourly", ScheduleTrigger::everyHours(1), {CleanCategory::logs}, longAgo);
  RuleStore(h.paths()).save({off, other});
  SystemState state;

  auto r = runWith(h, {"run-rule", "BÜRO weekly"}, state);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(messages(r.out), (std::vector<std::string>{"[Büro Weekly] running (Every Sunday at 03:00)",
                                                       "[Büro Weekly] Nothing to clean",
                                                       "[Hourly] running (Every 1 hour)", "[Hourly] Nothing to clean"}));
  EXPECT_EQ(RuleStore(h.paths()).load()[0].lastRun, kNow);

  std::string lower = off.id;
  for (auto& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  r = runWith(h, {"run-rule", lower}, state);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "No rule named " + lower + "\n");
  r = runWith(h, {"run-rule", off.id}, state);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(messages(r.out).front(), "[Büro Weekly] running (Every Sunday at 03:00)");

  // Without a rules file the shipped rules get new ids on every load; the one named still runs.
  ScratchHome fresh;
  r = runWith(fresh, {"run-rule", "weekly deep clean"}, state);
  EXPECT_EQ(r.status, 0);
  ASSERT_FALSE(messages(r.out).empty());
  EXPECT_EQ(messages(r.out).front(), "[Weekly deep clean] running (Every Sunday at 03:00)");

  r = runWith(h, {"run-rule"}, state);
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "usage: run-rule <name|uuid>\n");
}

}  // namespace
}  // namespace kestrel
