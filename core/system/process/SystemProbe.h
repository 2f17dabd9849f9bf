// System probe: power, battery, idle time, free space and running applications, read from the
// host's own sources, with the parsers of each source's text kept pure for tests.
#pragma once

#include "core/system/fs/FS.h"
#include "core/system/Paths.h"
#include "core/system/process/Shell.h"

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

// What a scheduled run knows about the machine; every field may be unknown because every probe
// may fail. Unknown power counts as mains; unknown battery or idle time never hold a rule back.
struct SystemState {
  std::optional<bool> onACPower;
  std::optional<int64_t> batteryPercent;
  std::optional<double> idleSeconds;
  std::optional<FS::VolumeSpace> space;
  std::set<std::string> runningBundleIDs;  // bundle identifiers (macOS), app ids and program names (Linux)
  std::optional<double> forecastDaysUntilFull;

  bool operator==(const SystemState&) const = default;
};

struct PowerState {
  std::optional<bool> onACPower;
  std::optional<int64_t> batteryPercent;

  bool operator==(const PowerState&) const = default;
};

// One entry of /sys/class/power_supply: the attribute files' first lines (empty when missing).
struct PowerSupply {
  std::string type, online, status, capacity, scope;
};

namespace SystemProbe {

using Runner = std::function<Shell::Result(const std::string& tool, const std::vector<std::string>& args, double timeout)>;

// Power, battery, idle time, space of the home volume and running applications of the host
// (the forecast is left unknown: it belongs to the space history above this layer). Each source
// that fails leaves its field unknown. Tools run through `run` with 5-second time-outs (10 for the
// application list).
SystemState current(const Paths& paths, const Runner& run);

// macOS "pmset -g batt": mains when the text holds "'AC Power'", battery when "'Battery Power'";
// the first "N%" (1 to 3 digits) is the charge.
PowerState parsePmset(std::string_view text);
// macOS "ioreg -c IOHIDSystem -d 4": the first "HIDIdleTime" line's value in nanoseconds, as seconds.
std::optional<double> parseIdle(std::string_view text);
// macOS System Events' comma-separated bundle identifiers, without blanks and "missing value".
std::set<std::string> parseRunningApps(std::string_view text);
// macOS: the bundle identifiers of running applications (osascript, 10-second time-out).
std::set<std::string> runningApps(const Runner& run);

// Linux: mains when a "Mains" supply is online, battery when a system "Battery" is
// "Discharging" (device batteries such as a mouse's are ignored), mains when a system battery is
// present but not discharging; unknown with no supply at all. The charge is the mean capacity of
// the system batteries.
PowerState powerFromSupplies(const std::vector<PowerSupply>& supplies);
// Reads every supply under `root` (normally /sys/class/power_supply); empty when it is missing.
std::vector<PowerSupply> readPowerSupplies(const std::filesystem::path& root);
// GNOME's idle monitor answer "(uint64 1234,)" in milliseconds, as seconds.
std::optional<double> parseMutterIdle(std::string_view text);
// logind's "IdleHint=yes|no" and "IdleSinceHint=<µs since 1970>": idle since then when the hint
// is set; 0 when the session is active and has reported before; unknown when it never reported.
std::optional<double> parseLogindIdle(std::string_view text, int64_t nowUnixMicroseconds);
// logind's state file of a user (/run/systemd/users/<uid>): the display session's id from its
// "DISPLAY=" line (empty when the user has sessions but none with a display); nothing when the
// file cannot be read, which means the user has no session.
std::optional<std::string> logindDisplaySession(const std::filesystem::path& userStateFile);
// The desktop application id of a process from its /proc/<pid>/cgroup text: the systemd scope or
// service "app[-<launcher>]-<AppID>-<random>.scope" / "app[-<launcher>]-<AppID>@<random>.service"
// with "\x2d" unescaped; nothing for processes outside such a unit (a shell in a terminal).
std::optional<std::string> appIDFromCgroup(std::string_view text);
// The running applications of user `uid` under `procRoot` (normally /proc): each process's
// application id and the base name of its executable.
std::set<std::string> linuxRunningApps(const std::filesystem::path& procRoot, uid_t uid);

}  // namespace SystemProbe

namespace platform {
// The host's probe behind SystemProbe::current (core/system/<os>/SystemProbe.cpp).
SystemState probeSystem(const Paths& paths, const SystemProbe::Runner& run);
}  // namespace platform

}  // namespace kestrel
