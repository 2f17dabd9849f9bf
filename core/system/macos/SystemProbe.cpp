// The system probe on macOS: pmset, ioreg and System Events through the tool runner.
#include "core/system/process/SystemProbe.h"

namespace kestrel::platform {

SystemState probeSystem(const Paths& paths, const SystemProbe::Runner& run) {
  SystemState state;
  // A failed tool prints nothing the parsers recognise, which leaves its fields unknown.
  const auto power = SystemProbe::parsePmset(run("pmset", {"-g", "batt"}, 5).stdout);
  state.onACPower = power.onACPower;
  state.batteryPercent = power.batteryPercent;
  state.idleSeconds = SystemProbe::parseIdle(run("ioreg", {"-c", "IOHIDSystem", "-d", "4"}, 5).stdout);
  state.space = FS::volumeSpace(paths.home());
  state.runningBundleIDs = SystemProbe::runningApps(run);
  return state;
}

}  // namespace kestrel::platform
