// The host command line's binary end to end: a rule it adds is the agent's, and administrator
// removals queued by one process are run by another behind one prompt.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "core/clean/AdminQueue.h"
#include "core/store/AuditLog.h"
#include "core/system/process/Shell.h"
#include "tests/e2e/RunAgent.h"
#include "tests/support/AllowedRoot.h"
#include "tests/support/FakeTools.h"

namespace kestrel {
namespace {

using test::ScratchHome;

TEST(HostBinary, AddedRuleIsListedByTheAgent) {
  ScratchHome h;
  const auto added = test::runHostBinary(h, {"rules", "add", "Nightly logs", "--daily", "02:30", "--categories", "logs"});
  ASSERT_EQ(added.status, 0) << added.err;
  const auto rules = test::runAgentBinary(h, {"rules"});
  EXPECT_NE(rules.out.find("\u25CF Nightly logs \u2014 Every day at 02:30 \u2014 last: never"), std::string::npos) << rules.out;
  EXPECT_NE(rules.out.find("Weekly deep clean"), std::string::npos);  // the shipped rules stay
}

TEST(HostBinary, AgentsInstalledFromAFolderHoldingADollarRunThatAgent) {
  ScratchHome h;
  test::FakeTools tools(h.root());
  tools.tool("systemctl");
  // kestrel installs the agent beside itself, wherever it was unpacked.
  const fs::path folder = h.outside("price$5/bin");
  fs::copy_file(KESTREL_HOST_BINARY, folder / "kestrel");
  const fs::path agent = h.text("../outside/price$5/bin/KestrelAgent", "#!/bin/sh\n");
  fs::permissions(agent, fs::perms::owner_all);
  const auto r = Shell::run("env", {"HOME=" + h.home().string(), "KESTREL_LAYOUT=linux", (folder / "kestrel").string(),
                                    "agents", "install"},
                            60);
  ASSERT_EQ(r.status, 0) << r.stdout << r.stderr;
  const fs::path units = h.path(".config/systemd/user");
  const std::string service = test::readText(units / "com.orvo.kestrel.agent.shredder.service");
  EXPECT_NE(service.find("\nExecStart=\"" + (folder / "KestrelAgent").string() + "\" shred-watch\n"), std::string::npos)
      << service;
  if (!Shell::which("systemd-analyze")) return;
  const fs::path runtime = h.outside("runtime");
  const auto verify = Shell::run("env", {"XDG_RUNTIME_DIR=" + runtime.string(), "systemd-analyze", "verify", "--user",
                                         (units / "com.orvo.kestrel.agent.shredder.service").string(),
                                         (units / "com.orvo.kestrel.agent.service").string()}, 60);
  EXPECT_TRUE(verify.ok()) << verify.stderr;
  EXPECT_EQ(verify.stderr, "");
}

TEST(HostBinary, QueuedAdministratorRemovalsOutliveTheirProcess) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root for an allowed system location";
  ScratchHome h;
  test::AllowedRoot allowed;
  const fs::path one = allowed.dir() / "one", two = allowed.dir() / "two";
  fs::create_directories(one / "inner");
  std::ofstream(one / "inner/f") << "data";
  std::ofstream(two) << "data";
  // Queued by this process (a clean defers them so: see the Cleaner tests), run by another.
  auto item = [](const fs::path& p, int64_t size) {
    return ScanItem{p.string(), "", ItemTarget::forAdminPath(p.string()), size, CleanCategory::logs, Risk::safe, "", {}};
  };
  AdminQueue(h.paths()).enqueue({item(one, 100), item(two, 50)});
  ASSERT_EQ(AdminQueue(h.paths()).count(), 2u);
  EXPECT_TRUE(fs::exists(one));

  test::FakeTools tools(h.root());
  tools.script("pkexec", "printf 'call\\n' >> \"$(dirname \"$0\")/pkexec.calls\"\nexec \"$@\"");
  const auto run = test::runHostBinary(h, {"admin", "run"});
  EXPECT_EQ(run.status, 0) << run.out << run.err;
  EXPECT_EQ(run.out, "Removed 2 item(s), freed 150 bytes.\n");
  EXPECT_FALSE(fs::exists(one));
  EXPECT_FALSE(fs::exists(two));
  EXPECT_EQ(test::readText(tools.bin() / "pkexec.calls"), "call\n");
  EXPECT_EQ(AdminQueue(h.paths()).count(), 0u);
  int deletes = 0;
  for (const auto& e : AuditLog(h.paths()).recent(10)) deletes += e.action == AuditAction::delete_ && e.success;
  EXPECT_EQ(deletes, 2);
}

}  // namespace
}  // namespace kestrel
