// ServiceManager: the exact files of both systems (against golden copies), the tool calls of
// install, reinstall, uninstall and legacy removal, and the errors users read.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <map>

#include "core/system/process/ServiceManager.h"
#include "tests/support/FakeTools.h"

namespace kestrel {
namespace {

using test::FakeTools;
using test::ScratchHome;

const std::string kAgent = "/opt/orvo Kestrel/bin/KestrelAgent";

std::string golden(const std::string& name) {
  return test::readText(fs::path(KESTREL_SOURCE_DIR) / "tests/golden" / name);
}

// A home at a fixed path that does not exist, so the files' paths are the same on every machine.
Paths fixedHome(Layout layout) { return Paths("/home/kestrel-golden", layout); }

TEST(ServiceManager, FilesMatchTheGoldenCopies) {
  const struct Case {
    Layout layout;
    BackgroundAgent agent;
    std::vector<std::pair<std::string, std::string>> files;  // file name, golden copy
  } cases[] = {
      {Layout::macos, BackgroundAgent::scheduler, {{"com.orvo.kestrel.agent.plist", "scheduler.plist"}}},
      {Layout::macos, BackgroundAgent::shredder, {{"com.orvo.kestrel.agent.shredder.plist", "shredder.plist"}}},
      {Layout::linux, BackgroundAgent::scheduler,
       {{"com.orvo.kestrel.agent.service", "scheduler.service"}, {"com.orvo.kestrel.agent.timer", "scheduler.timer"}}},
      {Layout::linux, BackgroundAgent::shredder, {{"com.orvo.kestrel.agent.shredder.service", "shredder.service"}}},
  };
  for (const auto& c : cases) {
    const Paths paths = fixedHome(c.layout);
    const auto files = ServiceManager::make(paths, {})->files(c.agent, kAgent);
    ASSERT_EQ(files.size(), c.files.size());
    for (size_t i = 0; i < files.size(); ++i) {
      SCOPED_TRACE(c.files[i].second);
      EXPECT_EQ(files[i].path, paths.launchAgentsDir() / c.files[i].first);
      EXPECT_EQ(files[i].text, golden(c.files[i].second));
    }
  }
}

TEST(ServiceManager, SystemdRunsExactlyTheAgentWhereverItIs) {
  if (!Shell::which("systemd-analyze")) GTEST_SKIP() << "systemd-analyze is not installed";
  ScratchHome h;  // its own name holds a blank and a non-ASCII letter
  auto manager = ServiceManager::make(h.linuxPaths(), {});
  // A runtime folder of its own, so verify works without a logged-in user manager.
  const fs::path runtime = h.root() / "runtime";
  fs::create_directories(runtime);
  for (const std::string folder : {"bin", "a$b", "c%d", "e${HOME}f", "g$$h", "i%nj"}) {
    SCOPED_TRACE(folder);
    const fs::path agent = h.text(folder + "/KestrelAgent", "#!/bin/sh\n");
    fs::permissions(agent, fs::perms::owner_all);
    std::vector<std::string> args = {"XDG_RUNTIME_DIR=" + runtime.string(), "systemd-analyze", "verify", "--user"};
    for (const auto agentKind : {BackgroundAgent::scheduler, BackgroundAgent::shredder}) {
      for (const auto& f : manager->files(agentKind, agent.string())) {
        const fs::path unit = h.root() / "units" / f.path.filename();
        fs::create_directories(unit.parent_path());
        std::ofstream(unit) << f.text;
        args.push_back(unit.string());
      }
    }
    // verify warns about unknown keys, bad values and missing programs on its error output, but
    // still exits 0.
    const Shell::Result r = Shell::run("env", args, 60);
    EXPECT_TRUE(r.ok()) << r.stderr;
    EXPECT_EQ(r.stderr, "");
  }
}

TEST(ServiceManager, SystemdUnitsRefuseAPathSystemdWouldNotRun) {
  const struct Case {
    std::string folder;
    std::string said;
  } cases[] = {
      {"q\"q", "holds \"\"\""},
      {"b\\b", "holds \"\\\""},
      {"s'q", "holds \"'\""},
      {"t\tt", "holds a control character"},
      {"x\xffy", "is UTF-8 text"},
  };
  auto manager = ServiceManager::make(fixedHome(Layout::linux), {});
  for (const auto& c : cases) {
    SCOPED_TRACE(c.folder);
    try {
      manager->files(BackgroundAgent::shredder, "/opt/" + c.folder + "/KestrelAgent");
      ADD_FAILURE() << "no unit can run this path";
    } catch (const ServiceError& e) {
      const std::string text = e.what();
      EXPECT_EQ(text.rfind("Cannot write a systemd unit for /opt/", 0), 0u) << text;
      EXPECT_NE(text.find(c.said), std::string::npos) << text;
    }
  }
}

// launchctl as a recording fake: every call, and a canned answer per subcommand.
struct Launchctl {
  std::vector<std::vector<std::string>> calls;
  std::map<std::string, Shell::Result> answers;
  Services services() {
    Services s;
    s.run = [this](const std::string& tool, const std::vector<std::string>& args, double timeout) {
      EXPECT_EQ(tool, "/bin/launchctl");
      EXPECT_EQ(timeout, 10);
      calls.push_back(args);
      const auto it = answers.find(args.at(0));
      return it == answers.end() ? Shell::Result{} : it->second;
    };
    return s;
  }
};

TEST(ServiceManager, LaunchAgentInstallReinstallAndUninstall) {
  ScratchHome h;
  Launchctl launchctl;
  auto manager = ServiceManager::make(h.paths(), launchctl.services());
  const std::string domain = "gui/" + std::to_string(::getuid());
  const std::string plist = h.path("Library/LaunchAgents/com.orvo.kestrel.agent.plist").string();

  EXPECT_FALSE(manager->isInstalled(BackgroundAgent::scheduler));
  manager->install(BackgroundAgent::scheduler, kAgent);
  EXPECT_TRUE(manager->isInstalled(BackgroundAgent::scheduler));
  EXPECT_FALSE(manager->isInstalled(BackgroundAgent::shredder));
  EXPECT_EQ(test::readText(plist), manager->files(BackgroundAgent::scheduler, kAgent)[0].text);
  // A second install boots the loaded job out first; "already" from bootstrap is no error.
  launchctl.answers["bootstrap"] = {5, "", "Bootstrap failed: 5: Input/output error: service already loaded"};
  manager->install(BackgroundAgent::scheduler, kAgent);
  const std::vector<std::string> bootout = {"bootout", domain, plist}, bootstrap = {"bootstrap", domain, plist};
  EXPECT_EQ(launchctl.calls, (std::vector<std::vector<std::string>>{bootout, bootstrap, bootout, bootstrap}));

  launchctl.answers["bootstrap"] = {37, "", "Operation not permitted"};
  try {
    manager->install(BackgroundAgent::shredder, kAgent);
    ADD_FAILURE() << "a failed bootstrap must be reported";
  } catch (const ServiceError& e) {
    EXPECT_EQ(e.code(), 37);
    EXPECT_STREQ(e.what(), "launchctl: Operation not permitted");
  }

  launchctl.calls.clear();
  manager->uninstall(BackgroundAgent::scheduler);
  EXPECT_FALSE(fs::exists(plist));
  EXPECT_EQ(launchctl.calls, (std::vector<std::vector<std::string>>{{"bootout", domain, plist}}));
}

TEST(ServiceManager, LegacyAgentsGoOnlyWhereTheyExist) {
  ScratchHome h;
  Launchctl launchctl;
  // One plain file, one link that leads nowhere (it counts as there).
  h.text("Library/LaunchAgents/com.halcyra.agent.plist", "<plist/>");
  h.link("Library/LaunchAgents/com.halcyra.agent.shredder.plist", h.root() / "gone.plist");
  ServiceManager::make(h.paths(), launchctl.services())->removeLegacyAgents();
  EXPECT_EQ(launchctl.calls.size(), 2u);
  EXPECT_TRUE(fs::is_empty(h.path("Library/LaunchAgents")));
  launchctl.calls.clear();
  ServiceManager::make(h.paths(), launchctl.services())->removeLegacyAgents();
  EXPECT_TRUE(launchctl.calls.empty());
}

TEST(ServiceManager, SystemdInstallAndUninstallCallSystemctl) {
  ScratchHome h;
  FakeTools tools(h.root());
  tools.tool("systemctl");
  auto manager = ServiceManager::make(h.linuxPaths(), {});
  const fs::path units = h.path(".config/systemd/user");

  manager->install(BackgroundAgent::scheduler, kAgent);
  manager->install(BackgroundAgent::shredder, kAgent);
  EXPECT_TRUE(manager->isInstalled(BackgroundAgent::scheduler) && manager->isInstalled(BackgroundAgent::shredder));
  EXPECT_TRUE(fs::is_directory(h.linuxPaths().logDir()));  // systemd appends to the log, it makes no folder
  manager->uninstall(BackgroundAgent::scheduler);
  manager->uninstall(BackgroundAgent::scheduler);  // nothing left: no call at all
  EXPECT_FALSE(manager->isInstalled(BackgroundAgent::scheduler));
  EXPECT_FALSE(fs::exists(units / "com.orvo.kestrel.agent.service"));
  const std::vector<std::vector<std::string>> expected = {
      {"--user", "daemon-reload"},
      {"--user", "enable", "--now", "com.orvo.kestrel.agent.timer"},
      {"--user", "daemon-reload"},
      {"--user", "enable", "--now", "com.orvo.kestrel.agent.shredder.service"},
      {"--user", "disable", "--now", "com.orvo.kestrel.agent.timer"},
      {"--user", "daemon-reload"},
  };
  EXPECT_EQ(tools.calls("systemctl"), expected);
}

TEST(ServiceManager, SystemdErrorsSayWhatToDo) {
  ScratchHome h;
  FakeTools tools(h.root());
  auto manager = ServiceManager::make(h.linuxPaths(), {});
  // No user manager: nothing stays installed, and the user gets a line to use instead.
  tools.tool("systemctl", "", 1, "Failed to connect to bus: No medium found\n");
  try {
    manager->install(BackgroundAgent::scheduler, kAgent);
    ADD_FAILURE() << "install without a manager must fail";
  } catch (const ServiceError& e) {
    const std::string text = e.what();
    EXPECT_NE(text.find("No systemd user service manager answered"), std::string::npos) << text;
    EXPECT_NE(text.find("*/15 * * * * '" + kAgent + "' run-scheduled >> '"), std::string::npos)
        << text;
  }
  EXPECT_FALSE(manager->isInstalled(BackgroundAgent::scheduler));
  EXPECT_EQ(manager->isActive(BackgroundAgent::scheduler), std::nullopt);
  // A manager that refuses to enable: its own words, after "systemctl: ".
  tools.script("systemctl",
               "[ \"$2\" = enable ] && { echo 'Unit file is masked.' >&2; exit 1; }; exit 0");
  try {
    manager->install(BackgroundAgent::shredder, kAgent);
    ADD_FAILURE() << "a refused enable must fail";
  } catch (const ServiceError& e) {
    EXPECT_STREQ(e.what(), "systemctl: Unit file is masked.");
  }
}

}  // namespace
}  // namespace kestrel
