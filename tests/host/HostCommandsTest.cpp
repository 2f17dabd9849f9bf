// The host command line in-process: rule editing with every usage error leaving the file as it
// was, the administrator queue, the Shredder's switch and settings, and the agents' install.
#include <gtest/gtest.h>

#include <sstream>

#include "core/clean/AdminQueue.h"
#include "core/shredder/ShredderStore.h"
#include "core/store/RuleStore.h"
#include "host/Host.h"
#include "tests/support/ScratchHome.h"

namespace kestrel {
namespace {

using test::ScratchHome;

const Date kNow = Dates::fromUnixSeconds(1795371789);

struct HostRun {
  int status;
  std::string out, err;
};

struct Host {
  ScratchHome h;
  std::vector<std::vector<std::string>> tools;  // every tool call: the tool, then its arguments
  Services services() {
    Services s;
    s.now = [] { return kNow; };
    s.run = [this](const std::string& tool, const std::vector<std::string>& args, double) {
      tools.push_back({tool});
      tools.back().insert(tools.back().end(), args.begin(), args.end());
      return Shell::Result{};
    };
    s.adminPrompt = [](const std::string&, const std::string&, double) {
      return Shell::Result{126, "", "Request dismissed"};
    };
    return s;
  }
  HostRun run(std::vector<std::string> args, Layout layout = Layout::macos) {
    std::ostringstream out, err;
    host::HostContext context{Paths(h.home(), layout), out, err, services(), "/bin/true", false};
    const int status = host::runHost(args, context);
    return {status, out.str(), err.str()};
  }
};

TEST(HostRules, AddStoresEachTriggerAndKeepsTheDefaults) {
  const struct Case {
    std::vector<std::string> flags;
    ScheduleTrigger trigger;
  } cases[] = {
      {{"--daily", "03:00"}, ScheduleTrigger::daily(3, 0)},
      {{"--weekly", "SUN@03:30"}, ScheduleTrigger::weekly(1, 3, 30)},
      {{"--monthly", "31@0:05"}, ScheduleTrigger::monthly(31, 0, 5)},
      {{"--every-hours", "6"}, ScheduleTrigger::everyHours(6)},
      {{"--free-below-percent", "12.5"}, ScheduleTrigger::diskFreeBelowPercent(12.5)},
      {{"--forecast-within-days", "14"}, ScheduleTrigger::forecastFullWithinDays(14)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.flags[0] + " " + c.flags[1]);
    Host t;
    std::vector<std::string> args = {"rules", "add", "Mine", "--categories",
                                     "logs,userCaches,logs"};
    args.insert(args.end(), c.flags.begin(), c.flags.end());
    const HostRun r = t.run(args);
    ASSERT_EQ(r.status, 0) << r.err;
    const auto rules = RuleStore(t.h.paths()).load(kNow);
    ASSERT_EQ(rules.size(), 5u);  // the four shipped rules, then the new one
    EXPECT_EQ(rules[4].trigger, c.trigger);
    EXPECT_EQ(rules[4].categories, (std::vector<CleanCategory>{CleanCategory::logs, CleanCategory::userCaches}));
    EXPECT_EQ(r.out, "Added rule \"Mine\" (" + rules[4].id + "): " + c.trigger.summary() + "\n");
  }
  Host t;
  ASSERT_EQ(t.run({"rules", "add", "Careful", "--daily", "01:00", "--categories", "trash",
                   "--max-risk", "review", "--dry-run", "--ac-power", "--idle-minutes", "15",
                   "--skip-app", "code", "--skip-app", "org.gimp.GIMP"})
                .status,
            0);
  const ScheduleRule rule = RuleStore(t.h.paths()).load(kNow).back();
  EXPECT_EQ(rule.maxRisk, Risk::review);
  EXPECT_TRUE(rule.dryRun);
  EXPECT_TRUE(rule.conditions.requireACPower);
  EXPECT_EQ(rule.conditions.minIdleMinutes, 15);
  EXPECT_EQ(rule.conditions.skipIfAppsRunning, (std::vector<std::string>{"code", "org.gimp.GIMP"}));
  EXPECT_EQ(rule.createdAt, kNow);
  EXPECT_EQ(t.run({"rules", "add", "careful", "--daily", "02:00", "--categories", "logs"}).status,
            1);  // name taken
}

TEST(HostRules, EveryBadFlagIsAUsageErrorThatWritesNothing) {
  const std::vector<std::vector<std::string>> bad = {
      {"--daily", "24:00", "--categories", "logs"},
      {"--weekly", "sun03:00", "--categories", "logs"},
      {"--monthly", "32@03:00", "--categories", "logs"},
      {"--every-hours", "0", "--categories", "logs"},
      {"--free-below-percent", "100", "--categories", "logs"},
      {"--forecast-within-days", "nan", "--categories", "logs"},
      {"--categories", "logs"},                                            // no trigger
      {"--daily", "03:00", "--every-hours", "2", "--categories", "logs"},  // two triggers
      {"--daily", "03:00"},                                                // no categories
      {"--daily", "03:00", "--categories", "logs,cache"},
      {"--daily", "03:00", "--categories", "logs", "--max-risk", "high"},
      {"--daily", "03:00", "--categories", "logs", "--idle-minutes", "-5"},
      {"--daily", "03:00", "--categories", "logs", "--bogus"},
  };
  for (const bool existing : {false, true}) {
    Host t;
    const fs::path file = t.h.paths().rulesFile();
    if (existing) RuleStore(t.h.paths()).save({});
    const std::string before = existing ? test::readText(file) : "";
    for (const auto& flags : bad) {
      std::vector<std::string> args = {"rules", "add", "Mine"};
      args.insert(args.end(), flags.begin(), flags.end());
      SCOPED_TRACE(flags[0] + " " + (flags.size() > 1 ? flags[1] : ""));
      const HostRun r = t.run(args);
      EXPECT_EQ(r.status, 2);
      EXPECT_EQ(r.out, "");
      EXPECT_NE(r.err.find("Run with --help for more information."), std::string::npos) << r.err;
      EXPECT_EQ(test::readText(file), before);  // unmade, or unchanged
    }
  }
  EXPECT_NE(Host().run({"rules", "add", "Mine", "--daily", "03:00", "--categories", "logs,cache"})
                .err.find("\"cache\" is not a category; use a comma-separated list of userCaches, logs,"),
            std::string::npos);
}

TEST(HostRules, EditByNameOrIdAndReportMisses) {
  Host t;
  const auto defaults = RuleStore(t.h.paths()).load(kNow);
  ASSERT_EQ(t.run({"rules", "disable", "weekly DEEP clean"}).status, 0);
  auto rules = RuleStore(t.h.paths()).load(kNow);
  EXPECT_FALSE(rules[0].enabled);
  ASSERT_EQ(t.run({"rules", "enable", rules[3].id}).status, 0);
  EXPECT_TRUE(RuleStore(t.h.paths()).load(kNow)[3].enabled);
  const HostRun removed = t.run({"rules", "remove", "Developer junk"});
  EXPECT_EQ(removed.out, "Removed rule \"Developer junk\".\n");
  rules = RuleStore(t.h.paths()).load(kNow);
  ASSERT_EQ(rules.size(), 3u);
  EXPECT_EQ(rules[1].name, "Low disk emergency");
  const HostRun missing = t.run({"rules", "remove", "nothing like it"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "No rule named nothing like it\n");
  EXPECT_EQ(t.run({"rules", "remove"}).status, 2);
  // A damaged file is the user's typo: it stays, and the command fails.
  std::ofstream(t.h.paths().rulesFile()) << "[{";
  EXPECT_EQ(t.run({"rules", "enable", "Low disk emergency"}).status, 1);
  EXPECT_EQ(test::readText(t.h.paths().rulesFile()), "[{");
}

ScanItem queuedItem(const fs::path& path, int64_t size) {
  ScanItem i;
  i.id = path.string();
  i.title = path.filename().string();
  i.target = ItemTarget::forAdminPath(path.string());
  i.size = size;
  i.category = CleanCategory::logs;
  return i;
}

TEST(HostAdmin, StatusRunAndClear) {
  Host t;
  EXPECT_EQ(t.run({"admin", "status"}).out, "Nothing waits for administrator rights.\n");
  const fs::path stays = t.h.text("Library/Logs/locked.log", "x");
  AdminQueue(t.h.paths()).enqueue({queuedItem(stays, 2048)});
  EXPECT_EQ(t.run({"admin", "status"}).out, "1 item(s) wait for administrator rights (2 KB); `kestrel admin run` "
                                            "removes them with one password prompt:\n  " + stays.string() + "\t2 KB\n");
  // The prompt is dismissed: nothing is removed, nothing leaves the queue.
  const HostRun declined = t.run({"admin", "run"});
  EXPECT_EQ(declined.status, 1);
  EXPECT_NE(declined.out.find("Removed 0 item(s)"), std::string::npos) << declined.out;
  EXPECT_NE(declined.out.find("1 item(s) still wait"), std::string::npos) << declined.out;
  EXPECT_EQ(AdminQueue(t.h.paths()).count(), 1u);
  EXPECT_TRUE(fs::exists(stays));
  EXPECT_EQ(t.run({"admin", "clear"}).out,
            "Cleared 1 item(s) from the administrator queue; nothing was removed.\n");
  EXPECT_EQ(AdminQueue(t.h.paths()).count(), 0u);
  EXPECT_TRUE(fs::exists(stays));
  // Damaged settings never remove on the defaults.
  AdminQueue(t.h.paths()).enqueue({queuedItem(stays, 2048)});
  std::ofstream(t.h.paths().configFile()) << "{";
  const HostRun damaged = t.run({"admin", "run"});
  EXPECT_EQ(damaged.status, 1);
  EXPECT_NE(damaged.err.find("is damaged"), std::string::npos) << damaged.err;
  EXPECT_EQ(AdminQueue(t.h.paths()).count(), 1u);
}

TEST(HostShredder, SwitchSettingsAndReview) {
  Host t;
  ASSERT_EQ(t.run({"shredder", "on"}).status, 0);
  ShredderSettings s = ShredderStore(t.h.paths()).load();
  EXPECT_TRUE(s.approved && s.enabled);
  ASSERT_EQ(t.run({"shredder", "off"}).status, 0);
  s = ShredderStore(t.h.paths()).load();
  EXPECT_TRUE(s.approved && !s.enabled);
  EXPECT_TRUE(t.tools.empty());  // no service installed: nothing to start or stop

  const std::tuple<std::string, std::string, int> cases[] = {
      {"quarantineFirst", "false", 0}, {"maxAutoSizeMB", "512", 0}, {"folders", "~/Downloads,~/Inbox", 0},
      {"skipExtensions", "", 0},       {"quarantineFirst", "no", 2}, {"maxAutoSizeMB", "5GB", 2},
      {"nosuchkey", "1", 2},
  };
  for (const auto& [key, value, status] : cases) EXPECT_EQ(t.run({"shredder", "set", key, value}).status, status) << key;
  s = ShredderStore(t.h.paths()).load();
  EXPECT_FALSE(s.quarantineFirst);
  EXPECT_EQ(s.maxAutoSizeMB, 512);
  EXPECT_EQ(s.folders, (std::vector<std::string>{"~/Downloads", "~/Inbox"}));
  EXPECT_TRUE(s.skipExtensions.empty());

  EXPECT_EQ(t.run({"shredder", "review"}).out, "Nothing waits for review.\n");
  EXPECT_EQ(t.run({"shredder", "keep", "/nowhere"}).status, 1);
  EXPECT_EQ(t.run({"shredder", "shred", "/nowhere"}).status, 1);
}

TEST(HostAgents, InstallStartsBothAndStatusReports) {
  Host t;
  const HostRun r = t.run({"agents", "install"}, Layout::linux);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("The Shredder is off; `kestrel shredder on` switches it on."),
            std::string::npos);
  // The unit files and the systemctl calls of an install are the service manager's own tests.
  EXPECT_EQ(t.tools.back(), (std::vector<std::string>{"systemctl", "--user", "enable", "--now",
                                                      "com.orvo.kestrel.agent.shredder.service"}));
  // Switching the Shredder on starts its installed service at once.
  ASSERT_EQ(t.run({"shredder", "on"}, Layout::linux).status, 0);
  EXPECT_EQ(t.tools.back(), (std::vector<std::string>{"systemctl", "--user", "restart",
                                                      "com.orvo.kestrel.agent.shredder.service"}));
  const HostRun status = t.run({"--json", "agents", "status"}, Layout::linux);
  const auto json = JsonText::parse(status.out);
  ASSERT_TRUE(json) << status.out;
  EXPECT_EQ((*json)["scheduler"]["installed"], true);
  ASSERT_EQ(t.run({"agents", "uninstall"}, Layout::linux).status, 0);
  EXPECT_EQ(t.run({"agents", "status"}, Layout::linux).out,
            "Scheduler service: not installed\nShredder service: not installed\n");
}

TEST(HostCommandLine, HelpUsageAndStatus) {
  Host t;
  const HostRun sub = t.run({"rules", "add", "--help"});
  EXPECT_EQ(sub.status, 0);
  EXPECT_NE(sub.out.find("--forecast-within-days"), std::string::npos) << sub.out;
  for (const char* command : {"scan", "clean", "quarantine", "trash", "forecast", "growth"})
    EXPECT_NE(t.run({command, "--help"}).out.find("Example"), std::string::npos) << command;
  EXPECT_EQ(t.run({"--version"}).out, std::string("kestrel ") + KESTREL_VERSION_TEXT + "\n");
  for (const auto& args :
       std::vector<std::vector<std::string>>{{}, {"bogus"}, {"rules"}, {"agents", "start"}}) {
    const HostRun r = t.run(args);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_FALSE(r.err.empty());
  }
  const HostRun status = t.run({"status", "--json"});
  ASSERT_EQ(status.status, 0);
  const auto json = JsonText::parse(status.out);
  ASSERT_TRUE(json) << status.out;
  EXPECT_EQ((*json)["lifetimeFreed"], 0);
  EXPECT_EQ((*json)["adminQueue"]["count"], 0);
  EXPECT_EQ((*json)["shredder"]["enabled"], false);
}

}  // namespace
}  // namespace kestrel
