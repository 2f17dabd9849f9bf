// The system probe on Linux: power supplies in sysfs, the session's idle time, /proc.
#include "core/system/SystemProbe.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>

namespace kestrel::platform {
namespace {

std::optional<double> idleSeconds(const SystemProbe::Runner& run) {
  // GNOME's idle monitor is exact; logind's hint is only as good as the desktop keeps it.
  const auto mutter = run("gdbus",
                          {"call", "--session", "--dest", "org.gnome.Mutter.IdleMonitor", "--object-path",
                           "/org/gnome/Mutter/IdleMonitor/Core", "--method",
                           "org.gnome.Mutter.IdleMonitor.GetIdletime"},
                          5);
  if (mutter.ok()) {
    if (auto s = SystemProbe::parseMutterIdle(mutter.stdout)) return s;
  }
  // A timer-started agent is in no session of its own: "auto" is then the user's display session.
  const char* session = std::getenv("XDG_SESSION_ID");
  const auto logind = run("loginctl",
                          {"show-session", session && *session ? session : "auto", "-p", "IdleHint", "-p",
                           "IdleSinceHint"},
                          5);
  if (!logind.ok()) return std::nullopt;
  const auto now = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::system_clock::now().time_since_epoch());
  return SystemProbe::parseLogindIdle(logind.stdout, now.count());
}

}  // namespace

SystemState probeSystem(const Paths& paths, const SystemProbe::Runner& run) {
  SystemState state;
  const auto power = SystemProbe::powerFromSupplies(SystemProbe::readPowerSupplies("/sys/class/power_supply"));
  state.onACPower = power.onACPower;
  state.batteryPercent = power.batteryPercent;
  state.idleSeconds = idleSeconds(run);
  state.space = FS::volumeSpace(paths.home());
  state.runningBundleIDs = SystemProbe::linuxRunningApps("/proc", ::getuid());
  return state;
}

}  // namespace kestrel::platform
