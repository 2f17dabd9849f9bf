// Scheduled runs: the run summary.
#include "core/schedule/ScheduledRunner.h"

#include "core/base/ByteFormat.h"

#include <vector>

namespace kestrel {

std::string ScheduledRunner::summarize(const CleanReport& r, bool dryRun) {
  std::vector<std::string> parts;
  if (r.freedBytes >= 1) parts.push_back((dryRun ? "Would free " : "Freed ") + ByteFormat::string(r.freedBytes));
  if (r.quarantinedBytes >= 1) parts.push_back(ByteFormat::string(r.quarantinedBytes) + " to quarantine");
  if (r.trashedBytes >= 1) parts.push_back(ByteFormat::string(r.trashedBytes) + " to Trash");
  if (r.evictedBytes >= 1) parts.push_back(ByteFormat::string(r.evictedBytes) + " offloaded to cloud");
  if (!r.failures.empty()) parts.push_back(std::to_string(r.failures.size()) + " failed");
  if (parts.empty()) return "Nothing to clean";
  std::string out;
  for (size_t i = 0; i < parts.size(); ++i) out += (i ? ", " : "") + parts[i];
  return out;
}

}  // namespace kestrel
