// The system probe on Linux: power supplies in sysfs, the session's idle time, /proc.
#include "core/system/process/SystemProbe.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

namespace kestrel::platform {
namespace {

// Whether a session bus can be reached: its address is set or the standard socket exists.
bool hasSessionBus() {
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (address && *address) return true;
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  return runtime && *runtime && ::access((std::string(runtime) + "/bus").c_str(), F_OK) == 0;
}

std::optional<double> idleSeconds(const SystemProbe::Runner& run) {
  // Each tool costs a process start (~40 ms on a small machine), so neither is asked where it
  // cannot answer: no session bus, no login session of the user's.
  // GNOME's idle monitor is exact; logind's hint is only as good as the desktop keeps it.
  if (hasSessionBus()) {
    const auto mutter = run("gdbus",
                          {"call", "--session", "--dest", "org.gnome.Mutter.IdleMonitor", "--object-path",
                           "/org/gnome/Mutter/IdleMonitor/Core", "--method",
                           "org.gnome.Mutter.IdleMonitor.GetIdletime"},
                            5);
    if (mutter.ok()) {
      if (auto s = SystemProbe::parseMutterIdle(mutter.stdout)) return s;
    }
  }
  // logind keeps one state file per user with a session; without one there is no idle hint to ask for.
  const auto user = SystemProbe::logindDisplaySession("/run/systemd/users/" + std::to_string(::getuid()));
  if (!user) return std::nullopt;
  const char* session = std::getenv("XDG_SESSION_ID");
  const std::string id = session && *session ? session : user->empty() ? "auto" : *user;
  const auto logind = run("loginctl", {"show-session", id, "-p", "IdleHint", "-p", "IdleSinceHint"}, 5);
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
