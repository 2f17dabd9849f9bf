// End to end: "run-scheduled", "run-rule" and "rules" through the built binary on a scratch home,
// with the probing and crontab tools faked on PATH.
#include "core/base/Text.h"
#include "core/store/RuleStore.h"
#include "tests/e2e/RunAgent.h"
#include "tests/support/FakeTools.h"

#include <gtest/gtest.h>

namespace kestrel::test {
namespace {

TEST(ScheduleBinary, RunScheduledRunRuleAndRules) {
  ScratchHome h;
  FakeTools tools(h.root());
  tools.tool("crontab", "", 1);
  tools.tool("gdbus", "(uint64 5000,)\n");
  tools.tool("notify-send");

  EXPECT_EQ(runAgentBinary(h, {"run-scheduled"}).status, 0);
  EXPECT_EQ(RuleStore(h.paths()).load().size(), 4u);  // the defaults, written by the first tick
  EXPECT_TRUE(fs::exists(h.paths().agentStateFile()));
  EXPECT_TRUE(fs::exists(h.paths().persistenceBaselineFile()));
  auto r = runAgentBinary(h, {"rules"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind("\u25CF Weekly deep clean \u2014 Every Sunday at 03:00 \u2014 last: never \u2014 now: notDue\n", 0), 0u)
      << r.out;
  r = runAgentBinary(h, {"run-rule", "stay ahead of a full disk"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find(" [Stay ahead of a full disk] running ("), std::string::npos) << r.out;
  EXPECT_TRUE(RuleStore(h.paths()).load()[3].lastRun);
}

TEST(ScheduleBinary, ALogOverFiveMegabytesIsCutAtTheNextRunAndNothingIsLost) {
  ScratchHome h;
  FakeTools tools(h.root());
  tools.tool("crontab", "", 1);
  const fs::path log = h.paths().agentLogFile();
  const std::string old = std::string(6 << 20, 'o') + "\n";
  h.text(fs::relative(log, h.home()).string(), old);
  // As the service manager runs it: the output appended to the log, opened before the agent starts.
  const auto r = runAgentAt(h.home().string(), {"run-rule", "stay ahead of a full disk"}, 120,
                            "exec \"$@\" >> " + Text::shellQuote(log.string()));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(readText(log.string() + ".1"), old);
  const std::string now = readText(log);
  EXPECT_EQ(now.find(std::string(100, 'o')), std::string::npos);  // none of the old text
  EXPECT_NE(now.find(" [Stay ahead of a full disk] running ("), std::string::npos) << now;
}

TEST(ScheduleBinary, ADamagedRulesFileIsSaidByEveryCommandAndRunsNothing) {
  ScratchHome h;
  FakeTools tools(h.root());
  tools.tool("crontab", "", 1);
  const std::string damaged = "[{\"name\": \"half a rule\"}]";
  h.text("Library/Application Support/orvo Kestrel/rules.json", damaged);
  const std::string said = "Rules file " + h.paths().rulesFile().string() +
                           " is damaged (No value associated with key id); no rule runs. Fix it or delete it.\n";
  for (const auto& args : std::vector<std::vector<std::string>>{{"rules"}, {"run-rule", "Weekly deep clean"}}) {
    SCOPED_TRACE(args[0]);
    const auto r = runAgentBinary(h, args);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, said);
  }
  const auto tick = runAgentBinary(h, {"run-scheduled"});
  EXPECT_EQ(tick.status, 0);
  EXPECT_NE(tick.out.find("Z " + said), std::string::npos) << tick.out;
  EXPECT_EQ(readText(h.paths().rulesFile()), damaged);
}

TEST(ScheduleBinary, ALastRunInYearOneIsNoRunAndTheRuleIsDue) {
  ScratchHome h;
  ScheduleRule rule = ScheduleRule::make("Hourly", ScheduleTrigger::everyHours(1), {CleanCategory::logs}, kTestNow);
  rule.conditions.requireACPower = false;
  Json j = toJson(std::vector<ScheduleRule>{rule});
  j[0]["createdAt"] = "0001-01-01T00:00:00Z";
  j[0]["lastRun"] = "0001-01-01T00:00:00Z";
  h.text("Library/Application Support/orvo Kestrel/rules.json", j.dump());
  const auto r = runAgentBinary(h, {"rules"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "\u25CF Hourly \u2014 Every 1 hour \u2014 last: never \u2014 now: run\n");
}

}  // namespace
}  // namespace kestrel::test
