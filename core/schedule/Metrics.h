// Metrics: the state of this machine's disk and of the agent in the text exposition format a
// monitoring system scrapes (names prefixed "kestrel_", units in the names).
#pragma once

#include <filesystem>
#include <string>

#include "core/base/Dates.h"
#include "core/system/Paths.h"

namespace kestrel::Metrics {

// Free and total bytes of the home volume, the forecast days to full (absent when not filling),
// reclaimable bytes and items per category from the last scans, quarantine bytes and sessions,
// lifetime freed bytes, the last scheduled run's time and success, queued administrator items and
// the bytes the Shredder reclaimed; each with "# HELP" and "# TYPE". Never fails: what cannot be
// read is left out.
std::string text(const Paths& paths, Date now);

// Writes `text` as "<folder>/kestrel.prom", atomically (a temporary file, then a rename), for a
// node exporter's textfile collector. Throws the file system's error.
void writeTextfile(const std::filesystem::path& folder, const std::string& text);

}  // namespace kestrel::Metrics
