// Fuzz target: the readers of text other programs write (power, idle time, running
// applications, cgroup lines, user-dirs.dirs, .trashinfo, container tool sizes, the simulator
// listing). The first byte picks the reader, the rest is its input; each answer must stay within
// its range.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/scan/scanners/Scanners.h"
#include "core/system/Paths.h"
#include "core/system/process/SystemProbe.h"
#include "core/system/fs/Trash.h"
#include "fuzz/Check.h"

using namespace kestrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 10) {
    case 0: {
      const PowerState p = SystemProbe::parsePmset(text);
      if (p.batteryPercent) FUZZ_CHECK(*p.batteryPercent >= 0 && *p.batteryPercent <= 999);
      break;
    }
    case 1:
      if (const auto idle = SystemProbe::parseIdle(text))
        FUZZ_CHECK(std::isfinite(*idle) && *idle >= 0);
      break;
    case 2:
      // Trimmed pieces between commas, never "missing value".
      for (const auto& app : SystemProbe::parseRunningApps(text))
        FUZZ_CHECK(!app.empty() && app.front() != ' ' && app.back() != ' ' &&
                   app.find(',') == std::string::npos && app != "missing value");
      break;
    case 3:
      if (const auto idle = SystemProbe::parseMutterIdle(text))
        FUZZ_CHECK(std::isfinite(*idle) && *idle >= 0);
      break;
    case 4:
      if (const auto idle = SystemProbe::parseLogindIdle(text, 1795371789000000))
        FUZZ_CHECK(std::isfinite(*idle));
      break;
    case 5:
      if (const auto id = SystemProbe::appIDFromCgroup(text)) FUZZ_CHECK(!id->empty());
      break;
    case 6:
      // A folder named there is absolute and never the home itself (that switches it off).
      if (const auto dir = userDirFromText(text, "XDG_DOWNLOAD_DIR", "/home/me")) {
        FUZZ_CHECK(dir->is_absolute());
        FUZZ_CHECK(*dir != "/home/me");
      }
      break;
    case 7:
      if (const auto bytes = parseToolSize(text)) FUZZ_CHECK(*bytes >= 0);
      break;
    case 8:
      (void)platform::trashInfoDeletionDate(text);  // any text: a date or nothing, never a crash
      break;
    default:
      if (const auto ids = parseUnavailableSimulators(text))
        for (const auto& id : *ids) FUZZ_CHECK(!id.empty());
      break;
  }
  return 0;
}
