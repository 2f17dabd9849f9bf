// Background items: the command and crontab readers as tables, and whole scans of scratch homes
// and scratch system folders laid out as on Linux and on macOS.
#include "core/schedule/Persistence.h"

#include "tests/support/FakeTools.h"
#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <tuple>
#include <sys/stat.h>

namespace kestrel {
namespace {

using test::FakeTools;
using test::ScratchHome;
namespace fs = std::filesystem;
using Words = std::vector<std::string>;

TEST(PersistenceTest, CommandWords) {
  const struct Case {
    const char* value;
    Words words;
  } cases[] = {
      {"/usr/bin/app --flag", {"/usr/bin/app", "--flag"}},
      {"-/usr/bin/app", {"/usr/bin/app"}},
      {"@/usr/bin/real argv0 x", {"/usr/bin/real", "argv0", "x"}},
      {"\"/opt/My App/run\" %U --tray", {"/opt/My App/run", "--tray"}},
      {"  env  VAR=1   tool ", {"env", "VAR=1", "tool"}},
      {"\"\" empty", {"", "empty"}},
      {"", {}},
  };
  for (const auto& c : cases) EXPECT_EQ(PersistenceInspector::commandWords(c.value), c.words) << c.value;
}

TEST(PersistenceTest, CrontabLines) {
  const struct Case {
    const char* line;
    std::optional<std::string> label, program;
  } cases[] = {
      {"*/5 * * * * /home/me/bin/sync --all > /dev/null 2>&1", "/home/me/bin/sync --all > /dev/null 2>&1", "/home/me/bin/sync"},
      {"@reboot /tmp/.x/run", "/tmp/.x/run", "/tmp/.x/run"},
      {"0 3 * * 1\tbackup.sh;echo done", "backup.sh;echo done", "backup.sh"},
      {"# m h dom mon dow command", std::nullopt, std::nullopt},
      {"MAILTO=me@example.com", std::nullopt, std::nullopt},
      {"SHELL=/bin/bash", std::nullopt, std::nullopt},
      {"   ", std::nullopt, std::nullopt},
      {"* * * *", std::nullopt, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    const auto item = PersistenceInspector::cronItem(c.line);
    ASSERT_EQ(item.has_value(), c.label.has_value());
    if (!item) continue;
    EXPECT_EQ(item->label, *c.label);
    EXPECT_EQ(item->program, *c.program);
    EXPECT_EQ(item->kind, PersistenceKind::cronJob);
    EXPECT_EQ(item->id, "cronJob:" + std::string(c.line).substr(0, std::string(c.line).find_last_not_of(' ') + 1));
  }
}

// id → (kind label, label, program, findings) of a scan, for whole-table comparison.
std::map<std::string, std::tuple<std::string, std::string, std::string, Words>> summary(
    const std::vector<PersistenceItem>& items, const fs::path& strip) {
  std::map<std::string, std::tuple<std::string, std::string, std::string, Words>> out;
  for (const auto& i : items) {
    std::string id = i.id;
    if (const size_t at = id.find(strip.string()); at != std::string::npos) id.replace(at, strip.string().size(), "~");
    out[id] = {std::string(kindLabel(i.kind)), i.label, i.program, i.findings};
  }
  return out;
}

TEST(PersistenceTest, LinuxScan) {
  ScratchHome h;
  FakeTools tools(h.root());
  const fs::path sys = h.outside("system");
  const fs::path ok = h.file("bin/agent");
  ::chmod(ok.c_str(), 0755);
  const fs::path open = h.file("bin/open-tool");
  ::chmod(open.c_str(), 0777);
  const fs::path hidden = h.file("bin/.hidden");
  const std::string helper = (sys / "tmp/x-helper").string();
  tools.tool("crontab", "SHELL=/bin/sh\n# nightly\n30 2 * * * \"" + ok.string() + "\" --nightly\n@reboot \"" + helper + "\"\n");

  h.text(".config/systemd/user/agent.service", "[Unit]\nDescription=My agent\n[Service]\nExecStart=\"" + ok.string() + "\"\n");
  h.text(".config/systemd/user/open.service", "[Service]\nExecStart=-\"" + open.string() + "\" --serve\n");
  h.link(".config/systemd/user/masked.service", "/dev/null");
  h.folder(".config/systemd/user/default.target.wants");
  // Enabled from elsewhere (a package's unit) and once more beside its own definition: listed once
  // each.
  fs::create_directories(sys / "usr/lib/systemd/user");
  std::ofstream(sys / "usr/lib/systemd/user/sync.service")
      << "[Unit]\nDescription=Sync\n[Service]\nExecStart=\"" << ok.string() << "\"\n";
  h.link(".config/systemd/user/default.target.wants/sync.service",
         sys / "usr/lib/systemd/user/sync.service");
  h.link(".config/systemd/user/default.target.wants/agent.service",
         h.path(".config/systemd/user/agent.service"));
  h.text(".config/autostart/hidden.desktop", "[Desktop Entry]\nName=Hidden helper\nExec=\"" + hidden.string() + "\" %u\n");
  h.text(".config/autostart/off.desktop", "[Desktop Entry]\nName=Switched off\nHidden=true\n");
  fs::create_directories(sys / "etc/xdg/autostart");
  std::ofstream(sys / "etc/xdg/autostart/off.desktop") << "[Desktop Entry]\nName=Vendor tray\nExec=/usr/bin/tray\n";
  fs::create_directories(sys / "etc/systemd/system");
  std::ofstream(sys / "etc/systemd/system/miner.service") << "[Service]\nExecStart=\"" << (sys / "var/tmp/miner").string() << "\"\n";
  fs::create_directories(sys / "etc/systemd/user");
  std::ofstream(sys / "etc/systemd/user/shared.service") << "[Unit]\nDescription=Shared\n[Service]\nExecStart=\"" << ok.string() << "\"\n";
  h.text(".config/google-chrome/Default/Extensions/abcdefgh/1.0_0/manifest.json", "{\"name\": \"__MSG_appName__\"}");
  h.text(".config/google-chrome/Default/Extensions/ijklmnop/2.1_0/manifest.json", "{\"name\": \"Notes\"}");
  h.text(".mozilla/firefox/x1.default/extensions.json",
         "{\"addons\": [{\"id\": \"blocker@example.org\", \"type\": \"extension\", \"location\": \"app-profile\","
         " \"path\": \"/p/blocker.xpi\", \"defaultLocale\": {\"name\": \"Blocker\"}},"
         " {\"id\": \"builtin@mozilla.org\", \"type\": \"extension\", \"location\": \"app-builtin\"}]}");

  const auto items = PersistenceInspector::scan(Paths(h.home(), Layout::linux), false, {}, sys);
  const auto s = summary(items, h.home());
  using T = std::tuple<std::string, std::string, std::string, Words>;
  const std::string ext = (h.home() / ".config/google-chrome/Default/Extensions/").string();
  const Words missingInTmp = {"Program is missing", "Runs from a temporary folder"};
  std::map<std::string, T> expected = {
      {"userUnit:~/.config/systemd/user/agent.service", T{"Systemd Unit (you)", "My agent", ok.string(), {}}},
      {"userUnit:~/.config/systemd/user/default.target.wants/sync.service", T{"Systemd Unit (you)", "Sync", ok.string(), {}}},
      {"userUnit:~/.config/systemd/user/open.service",
       T{"Systemd Unit (you)", "open.service", open.string(), {"Program is writable by others"}}},
      {"autostartEntry:~/.config/autostart/hidden.desktop",
       T{"Autostart Entry", "Hidden helper", hidden.string(), {"Program is hidden (its name starts with a dot)"}}},
      {"sharedUserUnit:" + (sys / "etc/systemd/user/shared.service").string(),
       T{"Systemd Unit (all users)", "Shared", ok.string(), {}}},
      {"systemService:" + (sys / "etc/systemd/system/miner.service").string(),
       T{"Systemd Service (root)", "miner.service", (sys / "var/tmp/miner").string(), missingInTmp}},
      {"browserExtension:~/.config/google-chrome/Default/Extensions/abcdefgh",
       T{"Browser Extension", "abcdefgh", ext + "abcdefgh", {}}},
      {"browserExtension:~/.config/google-chrome/Default/Extensions/ijklmnop",
       T{"Browser Extension", "Notes", ext + "ijklmnop", {}}},
      {"browserExtension:~/.mozilla/firefox/x1.default/extensions/blocker@example.org.xpi",
       T{"Browser Extension", "Blocker", "/p/blocker.xpi", {}}},
      {"cronJob:30 2 * * * \"~/bin/agent\" --nightly", T{"Cron Job", "\"" + ok.string() + "\" --nightly", ok.string(), {}}},
      {"cronJob:@reboot \"" + helper + "\"", T{"Cron Job", "\"" + helper + "\"", helper, missingInTmp}},
  };
  // Scratch paths may hold the home's path inside the system folder's; compare by what matters.
  for (const auto& [id, v] : s) EXPECT_TRUE(expected.count(id)) << id;
  for (const auto& [id, want] : expected) {
    SCOPED_TRACE(id);
    const auto it = s.find(id);
    ASSERT_NE(it, s.end());
    EXPECT_EQ(it->second, want);
  }
  EXPECT_TRUE(std::is_sorted(items.begin(), items.end(), [](const auto& a, const auto& b) { return a.id < b.id; }));
}

TEST(PersistenceTest, MacosLaunchJobsAndSignatures) {
  ScratchHome h;
  FakeTools tools(h.root());
  tools.tool("crontab", "", 1, "crontab: no crontab for me\n");
  const fs::path program = h.file("Applications/Helper");
  // Answers only the exact verification call, so other arguments show as no finding.
  tools.script("codesign", "[ \"$1 $2\" = '--verify --strict' ] || exit 0; echo \"$3: code object is not signed at all\" >&2; exit 1");
  const fs::path sys = h.outside("system");
  h.text("Library/LaunchAgents/com.example.helper.plist",
         "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
         "<key>Label</key><string>com.example.helper</string>"
         "<key>ProgramArguments</key><array><string>" + program.string() + "</string><string>--background</string></array>"
         "</dict></plist>\n");
  h.text("Library/LaunchAgents/broken.plist", "<plist><dict><key>Label");
  fs::create_directories(sys / "Library/LaunchDaemons");
  std::ofstream(sys / "Library/LaunchDaemons/com.example.d.plist")
      << "<plist version=\"1.0\"><dict><key>Label</key><string>com.example.d</string>"
         "<key>Program</key><string>/Library/Example/.d</string>"
         "<key>ProgramArguments</key><array><string>d</string><string>-v</string></array></dict></plist>";

  // Login items come from System Events: one "<name>\t<path>" line each.
  const fs::path app = h.folder("Applications/Notes Sync.app");
  tools.tool("osascript",
             "Notes Sync\t" + app.string() + "\n\tnot a path\nGone\t/Applications/Gone.app\n");

  const auto items = PersistenceInspector::scan(Paths(h.home(), Layout::macos), true, {}, sys);
  const auto script = tools.calls("osascript");
  ASSERT_EQ(script.size(), 1u);
  EXPECT_EQ(script[0][1], "tell application \"System Events\"");
  ASSERT_EQ(items.size(), 4u);  // sorted by id: the daemon, the two login items, the agent
  EXPECT_EQ(items[1].id, "loginItem:/Applications/Gone.app");
  EXPECT_EQ(items[1].findings, Words{"Program is missing"});
  EXPECT_EQ(items[2].label, "Notes Sync");
  EXPECT_EQ(kindLabel(items[2].kind), "Login Item");
  EXPECT_EQ(items[2].program, app.string());
  EXPECT_EQ(items[0].label, "com.example.d");
  EXPECT_EQ(kindLabel(items[0].kind), "Launch Daemon (root)");
  EXPECT_EQ(items[0].program, "/Library/Example/.d");
  EXPECT_EQ(items[0].arguments, Words{"-v"});
  EXPECT_EQ(items[0].findings, (Words{"Program is missing", "Program is hidden (its name starts with a dot)"}));
  EXPECT_EQ(items[3].label, "com.example.helper");
  EXPECT_EQ(kindLabel(items[3].kind), "Launch Agent (you)");
  EXPECT_EQ(items[3].arguments, Words{"--background"});
  EXPECT_EQ(items[3].findings, Words{"Not signed"});

  tools.tool("codesign", "", 1, "a sealed resource is missing or invalid\n");
  const auto again = PersistenceInspector::scan(Paths(h.home(), Layout::macos), true, {}, sys);
  EXPECT_EQ(again[3].findings, Words{"Signature is invalid"});
}

}  // namespace
}  // namespace kestrel
