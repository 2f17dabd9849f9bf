// The space insight commands: "forecast" prints the disk-full forecast, "growth" the folder growth.
#include "agent/Commands.h"

#include "core/insights/GrowthTracker.h"
#include "core/insights/SpaceHistory.h"
#include "core/model/AppConfig.h"
#include "core/store/ConfigStore.h"
#include "core/base/ByteFormat.h"
#include "core/system/fs/FS.h"

#include <cmath>
#include <limits>

namespace kestrel::agent {
namespace {

constexpr int64_t kDefaultGrowthDays = 7;
constexpr size_t kGrowthLimit = 25;

// Truncates toward zero, held at the 64-bit limits (a real forecast never gets near them).
int64_t wholeNumber(double value) {
  if (std::isnan(value)) return 0;
  if (value >= 9.2e18) return std::numeric_limits<int64_t>::max();
  if (value <= -9.2e18) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(value);
}

// Every occurrence of `from` replaced, scanning left to right without overlaps.
std::string replaceAll(const std::string& text, const std::string& from, std::string_view to) {
  if (from.empty()) return text;
  std::string out;
  size_t start = 0;
  for (size_t pos = text.find(from); pos != std::string::npos; pos = text.find(from, start)) {
    out.append(text, start, pos - start);
    out.append(to);
    start = pos + from.size();
  }
  out.append(text, start, std::string::npos);
  return out;
}

}  // namespace

std::optional<int64_t> parseDayCount(std::string_view text) {
  size_t i = 0;
  bool negative = false;
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
    negative = text[0] == '-';
    i = 1;
  }
  if (i == text.size()) return std::nullopt;
  int64_t value = 0;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    if (c < '0' || c > '9') return std::nullopt;
    const int digit = c - '0';
    // Accumulate on the negative side so the smallest 64-bit value parses too.
    if (__builtin_mul_overflow(value, 10, &value) || __builtin_sub_overflow(value, digit, &value))
      return std::nullopt;
  }
  if (negative) return value;
  if (value == std::numeric_limits<int64_t>::min()) return std::nullopt;
  return -value;
}

int runForecast(AgentContext& ctx) {
  const auto& home = ctx.paths.home();
  if (auto space = FS::volumeSpace(home)) {
    ctx.out << "Free: " << ByteFormat::string(space->free) << " of "
            << ByteFormat::string(space->total) << '\n';
  }
  const auto forecast = SpaceHistory(ctx.paths).forecast(ctx.now());
  if (!forecast) {
    ctx.out << "Not enough history yet (needs ~2 days of samples).\n";
    ctx.out.flush();
    return 0;
  }
  ctx.out << "Trend: " << ByteFormat::string(wholeNumber(forecast->bytesPerDay)) << "/day over "
          << wholeNumber(forecast->basedOnDays) << " days\n";
  if (forecast->daysUntilFull) {
    ctx.out << "Predicted full in " << wholeNumber(*forecast->daysUntilFull) << " days\n";
  } else {
    ctx.out << "Not filling up\n";
  }
  ctx.out.flush();
  return 0;
}

int runGrowth(AgentContext& ctx) {
  // Positional on purpose: "growth --snapshot" has no day count and uses the default.
  const int64_t days = ctx.args.empty() ? kDefaultGrowthDays
                                        : parseDayCount(ctx.args[0]).value_or(kDefaultGrowthDays);
  GrowthTracker tracker(ctx.paths, ConfigStore(ctx.paths).load().protectedPaths);
  if (ctx.flag("--snapshot") || tracker.snapshots().empty()) {
    tracker.takeSnapshot(ctx.now(), [] { return false; });
  }
  const auto report = tracker.report(days, kGrowthLimit);
  if (!report) {
    ctx.out << "Need two snapshots; run again tomorrow.\n";
    ctx.out.flush();
    return 0;
  }
  const std::string home = ctx.paths.home().string();
  for (const auto& e : report->entries) {
    const int64_t delta = e.delta();
    // The magnitude of the most negative delta does not fit; one byte less prints the same text.
    const int64_t magnitude = delta >= 0 ? delta
                                         : (delta == std::numeric_limits<int64_t>::min()
                                                ? std::numeric_limits<int64_t>::max()
                                                : -delta);
    ctx.out << (delta >= 0 ? "+" : "-") << ByteFormat::string(magnitude) << '\t'
            << replaceAll(e.path, home, "~") << '\n';
  }
  ctx.out.flush();
  return 0;
}

}  // namespace kestrel::agent
