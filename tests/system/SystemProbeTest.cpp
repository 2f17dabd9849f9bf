// System probe: each source's parser on captured output, and the sysfs and /proc readers on
// scratch folders laid out like the kernel's.
#include "core/system/process/SystemProbe.h"

#include "tests/support/ScratchHome.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace kestrel {
namespace {

using test::ScratchHome;

TEST(SystemProbeTest, MacosParsers) {
  const std::string onBattery =
      "Now drawing from 'Battery Power'\n -InternalBattery-0 (id=4653155)\t76%; discharging; 5:12 remaining present: true\n";
  const std::string onMains = "Now drawing from 'AC Power'\n -InternalBattery-0 (id=4653155)\t100%; charged; 0:00 remaining\n";
  EXPECT_EQ(SystemProbe::parsePmset(onBattery), (PowerState{false, 76}));
  EXPECT_EQ(SystemProbe::parsePmset(onMains), (PowerState{true, 100}));
  EXPECT_EQ(SystemProbe::parsePmset("Now drawing from 'AC Power'\n"), (PowerState{true, std::nullopt}));
  EXPECT_EQ(SystemProbe::parsePmset(""), PowerState{});

  EXPECT_EQ(SystemProbe::parseIdle("    | |   \"HIDIdleTime\" = 1234567890\n    | |   \"HIDIdleTime\" = 5\n"), 1.23456789);
  EXPECT_FALSE(SystemProbe::parseIdle("    \"HIDIdleTime\" = soon\n"));
  EXPECT_FALSE(SystemProbe::parseIdle("nothing here"));

  EXPECT_EQ(SystemProbe::parseRunningApps("com.apple.finder, missing value, com.apple.dt.Xcode,\n , org.mozilla.firefox\n"),
            (std::set<std::string>{"com.apple.finder", "com.apple.dt.Xcode", "org.mozilla.firefox"}));
}

TEST(SystemProbeTest, LinuxPowerSupplies) {
  const struct Case {
    const char* what;
    std::vector<PowerSupply> supplies;
    PowerState expected;
  } cases[] = {
      {"laptop on battery", {{"Mains", "0", "", "", ""}, {"Battery", "", "Discharging", "63", "System"}}, {false, 63}},
      {"laptop on mains", {{"Mains", "1", "", "", ""}, {"Battery", "", "Charging", "80", ""}}, {true, 80}},
      {"desktop with no supply", {}, {}},
      {"two batteries", {{"Battery", "", "Discharging", "40", ""}, {"Battery", "", "Unknown", "91", ""}}, {false, 66}},
      {"battery full, no mains entry", {{"Battery", "", "Full", "100", ""}}, {true, 100}},
      {"a mouse's battery is no laptop", {{"Battery", "", "Discharging", "12", "Device"}}, {}},
      {"unreadable capacity", {{"Mains", "1", "", "", ""}, {"Battery", "", "Charging", "", ""}}, {true, std::nullopt}},
  };
  for (const auto& c : cases) EXPECT_EQ(SystemProbe::powerFromSupplies(c.supplies), c.expected) << c.what;
}

TEST(SystemProbeTest, ReadsSupplyAttributes) {
  ScratchHome h;
  h.text("sys/AC/type", "Mains\n");
  h.text("sys/AC/online", "0\n");
  h.text("sys/BAT0/type", "Battery\n");
  h.text("sys/BAT0/status", "Discharging\n");
  h.text("sys/BAT0/capacity", "57\n");
  EXPECT_EQ(SystemProbe::powerFromSupplies(SystemProbe::readPowerSupplies(h.path("sys"))), (PowerState{false, 57}));
  EXPECT_TRUE(SystemProbe::readPowerSupplies(h.path("missing")).empty());
}

TEST(SystemProbeTest, LinuxIdleAnswers) {
  EXPECT_EQ(SystemProbe::parseMutterIdle("(uint64 754321,)\n"), 754.321);
  EXPECT_FALSE(SystemProbe::parseMutterIdle("Error: GDBus.Error:org.freedesktop.DBus.Error.ServiceUnknown"));
  const int64_t now = 1'800'000'000'000'000;
  EXPECT_EQ(SystemProbe::parseLogindIdle("IdleHint=yes\nIdleSinceHint=1799999400000000\n", now), 600.0);
  EXPECT_EQ(SystemProbe::parseLogindIdle("IdleHint=no\nIdleSinceHint=1799999400000000\n", now), 0.0);
  EXPECT_FALSE(SystemProbe::parseLogindIdle("IdleHint=no\nIdleSinceHint=0\n", now));  // never reported
  EXPECT_FALSE(SystemProbe::parseLogindIdle("", now));
}

TEST(SystemProbeTest, LogindUserState) {
  ScratchHome h;
  const auto file = h.text("run/1000", "# This is private data. Do not parse.\nNAME=me\nSTATE=active\nDISPLAY=2\nSESSIONS=2 5\n");
  EXPECT_EQ(SystemProbe::logindDisplaySession(file), "2");
  EXPECT_EQ(SystemProbe::logindDisplaySession(h.text("run/1001", "NAME=ssh-only\nSESSIONS=7\n")), "");
  EXPECT_FALSE(SystemProbe::logindDisplaySession(h.path("run/1002")));
}

TEST(SystemProbeTest, AppIDsFromCgroups) {
  const struct Case {
    const char* what;
    const char* cgroup;
    std::optional<std::string> id;
  } cases[] = {
      {"native app", "0::/user.slice/user-1000.slice/user@1000.service/app.slice/app-gnome-org.gnome.Nautilus-4242.scope\n",
       "org.gnome.Nautilus"},
      {"Flatpak app", "0::/user.slice/user-1000.slice/user@1000.service/app.slice/app-flatpak-org.mozilla.firefox-1234567.scope\n",
       "org.mozilla.firefox"},
      {"escaped dash", "0::/user.slice/user-1000.slice/user@1000.service/app.slice/app-gnome-google\\x2dchrome-9876.scope\n",
       "google-chrome"},
      {"no launcher", "0::/user.slice/user-1000.slice/user@1000.service/app.slice/app-org.kde.dolphin-8f3a.scope\n",
       "org.kde.dolphin"},
      {"service with a random part", "0::/user.slice/user-1000.slice/user@1000.service/app.slice/app-gnome-org.gnome.Evolution\\x2dalarm\\x2dnotify@autostart.service\n",
       "org.gnome.Evolution-alarm-notify"},
      {"terminal process", "0::/user.slice/user-1000.slice/user@1000.service/app.slice/app-org.gnome.Terminal.slice/vte-spawn-1f0e7c2a-2b9c-4d4e-9a7b-3c1d2e3f4a5b.scope\n",
       std::nullopt},
      {"cgroup v1 lines", "12:pids:/user.slice\n1:name=systemd:/user.slice/user-1000.slice/user@1000.service/app.slice/app-gnome-firefox-77.scope\n",
       "firefox"},
      {"session scope", "0::/user.slice/user-1000.slice/session-2.scope\n", std::nullopt},
      {"empty", "", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(SystemProbe::appIDFromCgroup(c.cgroup), c.id) << c.what;
}

TEST(SystemProbeTest, RunningAppsOfTheUsersProcesses) {
  ScratchHome h;
  h.text("proc/100/cgroup", "0::/user.slice/user-1000.slice/user@1000.service/app.slice/app-flatpak-org.gimp.GIMP-5.scope\n");
  h.file("bin/gimp-2.10-with-a-long-name");
  h.link("proc/100/exe", h.path("bin/gimp-2.10-with-a-long-name"));
  h.text("proc/200/cgroup", "0::/user.slice/user-1000.slice/session-2.scope\n");
  h.link("proc/200/exe", "/usr/bin/bash (deleted)");
  h.text("proc/self-not-a-pid/cgroup", "0::/app-gnome-org.example.Nope-1.scope\n");
  EXPECT_EQ(SystemProbe::linuxRunningApps(h.path("proc"), ::getuid()),
            (std::set<std::string>{"org.gimp.GIMP", "gimp-2.10-with-a-long-name", "bash"}));
  EXPECT_TRUE(SystemProbe::linuxRunningApps(h.path("proc"), ::getuid() + 1).empty());
}

}  // namespace
}  // namespace kestrel
