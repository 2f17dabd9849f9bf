// "kestrel forecast" and "kestrel growth [DAYS] [--snapshot]": the agent's lines, plus a small chart
// drawn with block characters (free space by day with the trend to the full day; the growers as
// bars).
#include <cmath>
#include <map>

#include "core/base/ByteFormat.h"
#include "core/base/Text.h"
#include "core/insights/GrowthTracker.h"
#include "core/insights/SpaceHistory.h"
#include "core/store/ConfigStore.h"
#include "host/Host.h"

namespace kestrel::host {
namespace {

constexpr int kChartRows = 6;
constexpr size_t kChartDays = 60;  // columns at most: sampled days, then the projection
constexpr std::string_view kEighths[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::string_view kProjected = "░";

int64_t whole(double v) {
  if (!std::isfinite(v)) return 0;
  return static_cast<int64_t>(std::clamp(v, -9.2e18, 9.2e18));
}

// The last sample of each day, oldest first.
std::vector<SpaceSample> daily(const std::vector<SpaceSample>& samples) {
  std::map<int64_t, SpaceSample> byDay;
  for (const auto& s : samples) byDay[Dates::unixSeconds(s.date) / 86400] = s;
  std::vector<SpaceSample> out;
  for (const auto& [day, s] : byDay) out.push_back(s);
  return out;
}

// Free space per day as columns of block characters; projected days (after the last sample, down
// the trend) drawn shaded.
std::vector<std::string> freeSpaceChart(const std::vector<SpaceSample>& days, const std::optional<SpaceForecast>& f) {
  std::vector<double> values;
  for (const auto& s : days) values.push_back(static_cast<double>(s.free));
  const size_t sampled = values.size();
  if (f && f->daysUntilFull && !values.empty())
    for (int64_t d = 1; d <= whole(std::ceil(*f->daysUntilFull)) && values.size() < kChartDays; ++d)
      values.push_back(std::max(0.0, values[sampled - 1] - f->bytesPerDay * static_cast<double>(d)));
  // The newest columns are kept; the first projected one moves left with what was cut.
  const size_t cut = values.size() > kChartDays ? values.size() - kChartDays : 0;
  values.erase(values.begin(), values.begin() + static_cast<long>(cut));
  const size_t firstProjected = sampled > cut ? sampled - cut : 0;
  const double top = days.empty() ? 1.0 : std::max(1.0, static_cast<double>(days.back().total));
  std::vector<std::string> rows(kChartRows);
  for (size_t c = 0; c < values.size(); ++c) {
    const bool projected = c >= firstProjected;
    const int eighths = static_cast<int>(std::lround(values[c] / top * kChartRows * 8));
    for (int r = 0; r < kChartRows; ++r) {
      const int filled = std::clamp(eighths - (kChartRows - 1 - r) * 8, 0, 8);
      rows[static_cast<size_t>(r)] += projected && filled > 0 ? kProjected : kEighths[filled];
    }
  }
  return rows;
}

int forecast(HostContext& ctx) {
  const auto space = FS::volumeSpace(ctx.paths.home());
  const SpaceHistory history(ctx.paths);
  const auto samples = history.samples();
  const auto f = SpaceHistory::forecast(samples, ctx.now());
  if (ctx.json) {
    Json items = Json::array();
    for (const auto& s : samples) items.push_back({{"date", Dates::iso8601(s.date)}, {"free", s.free}, {"total", s.total}});
    Json body{{"free", space ? Json(space->free) : Json(nullptr)}, {"total", space ? Json(space->total) : Json(nullptr)},
              {"bytesPerDay", f ? Json(whole(f->bytesPerDay)) : Json(nullptr)},
              {"daysUntilFull", f && f->daysUntilFull ? Json(whole(*f->daysUntilFull)) : Json(nullptr)},
              {"predictedFullDate", f && f->predictedFullDate ? Json(Dates::iso8601(*f->predictedFullDate)) : Json(nullptr)},
              {"items", items}};
    ctx.printJson("forecast", body);
    return kOK;
  }
  if (space) ctx.out << "Free: " << ByteFormat::string(space->free) << " of " << ByteFormat::string(space->total) << '\n';
  if (!f) {
    ctx.out << "Not enough history yet (needs ~2 days of samples).\n";
    return kOK;
  }
  ctx.out << "Trend: " << ByteFormat::string(whole(f->bytesPerDay)) << "/day over " << whole(f->basedOnDays) << " days\n";
  if (f->daysUntilFull) ctx.out << "Predicted full in " << whole(*f->daysUntilFull) << " days\n";
  else ctx.out << "Not filling up\n";
  const auto days = daily(samples);
  ctx.out << '\n';
  for (const auto& row : freeSpaceChart(days, f)) ctx.out << "  " << paint(row, Color::green, ctx.colored()) << '\n';
  ctx.out << "  free space by day from " << Dates::local(days.front().date, "yyyy-MM-dd")
          << (f->predictedFullDate ? "; shaded: the trend to the full day, " + Dates::local(*f->predictedFullDate, "yyyy-MM-dd")
                                   : std::string())
          << '\n';
  return kOK;
}

// "██████▌" for `value` of `largest` over `width` characters.
std::string bar(int64_t value, int64_t largest, int width) {
  static constexpr std::string_view kLeft[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
  const double share = largest > 0 ? static_cast<double>(value) / static_cast<double>(largest) : 0;
  const int eighths = static_cast<int>(std::lround(share * width * 8));
  std::string out;
  for (int i = 0; i < eighths / 8; ++i) out += "█";
  return out + std::string(kLeft[eighths % 8]);
}

int growth(HostContext& ctx, int64_t days, bool snapshot) {
  GrowthTracker tracker(ctx.paths, ConfigStore(ctx.paths).load().protectedPaths);
  if (snapshot || tracker.snapshots().empty()) tracker.takeSnapshot(ctx.now(), [] { return false; });
  const auto report = tracker.report(days, 25);
  if (ctx.json) {
    Json items = Json::array();
    if (report)
      for (const auto& e : report->entries)
        items.push_back({{"path", e.path}, {"before", e.before}, {"after", e.after}, {"change", e.delta()}});
    ctx.printJson("growth", {{"days", days}, {"items", items}});
    return kOK;
  }
  if (!report) {
    ctx.out << "Need two snapshots; run again tomorrow.\n";
    return kOK;
  }
  if (report->entries.empty()) ctx.out << "No folder changed by 10 MB or more.\n";
  // The magnitude of the most negative change does not fit; one byte less prints the same text.
  const auto magnitudeOf = [](int64_t d) { return d >= 0 ? d : (d == INT64_MIN ? INT64_MAX : -d); };
  int64_t largest = 0;
  for (const auto& e : report->entries) largest = std::max(largest, magnitudeOf(e.delta()));
  for (const auto& e : report->entries) {
    const int64_t delta = e.delta();
    const int64_t magnitude = magnitudeOf(delta);
    ctx.out << fit((delta >= 0 ? "+" : "-") + ByteFormat::string(magnitude), 11, true) << "  "
            << paint(fit(bar(magnitude, largest, 24), 24), delta >= 0 ? Color::yellow : Color::green, ctx.colored())
            << "  " << Utf8::displayText(tilde(e.path, ctx.paths.home())) << '\n';
  }
  return kOK;
}

}  // namespace

void addInsightCommands(CLI::App& app, HostContext& context, Action& action) {
  CLI::App* forecastCommand = app.add_subcommand("forecast", "Free space, its trend and the day the disk fills");
  forecastCommand->footer("Example:\n  kestrel forecast");
  forecastCommand->callback([&] { action = [&] { return forecast(context); }; });
  auto days = std::make_shared<int64_t>(7);
  auto snapshot = std::make_shared<bool>(false);
  CLI::App* growthCommand = app.add_subcommand("growth", "The folders that grew or shrank most over some days");
  growthCommand->add_option("days", *days, "Compare with the snapshot closest to this many days ago")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  growthCommand->add_flag("--snapshot", *snapshot, "Measure the folders now first");
  growthCommand->footer("Examples:\n  kestrel growth\n  kestrel growth 30 --snapshot");
  growthCommand->callback([&, days, snapshot] { action = [&, days, snapshot] { return growth(context, *days, *snapshot); }; });
}

}  // namespace kestrel::host
