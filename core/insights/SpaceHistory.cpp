// Free-space history: the samples file, hourly recording and the least-squares forecast.
#include "core/insights/SpaceHistory.h"

#include "core/store/JSONStore.h"

#include <chrono>

namespace kestrel {
namespace {

constexpr double kSecondsPerDay = 86400;

double epochSeconds(Date d) { return std::chrono::duration<double>(d.time_since_epoch()).count(); }

// In doubles: the clock's own difference overflows for dates centuries apart, which a damaged
// file can hold.
double secondsBetween(Date from, Date to) {
  return epochSeconds(to) - epochSeconds(from);
}

// now + seconds, held at the clock's first or last representable second: a slow loss on a large
// disk can predict a day centuries away, and a damaged file a day centuries back.
Date addSeconds(Date now, double seconds) {
  const double target = epochSeconds(now) + seconds;
  if (!(target < epochSeconds(Date::max()) - 1)) return Date::max();
  if (!(target > epochSeconds(Date::min()) + 1)) return Date::min();
  return now + std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(seconds));
}

}  // namespace

Json toJson(const SpaceSample& s) {
  return Json{{"date", Dates::iso8601(s.date)}, {"free", s.free}, {"total", s.total}};
}

SpaceSample spaceSampleFromJson(const Json& j) {
  JsonDecode::object(j, "SpaceSample");
  SpaceSample s;
  const auto date = Dates::parseISO8601(JsonDecode::string(j, "date"));
  if (!date) throw DecodeError("Expected date string to be ISO8601-formatted.");
  s.date = *date;
  s.free = JsonDecode::int64(j, "free");
  s.total = JsonDecode::int64(j, "total");
  return s;
}

std::vector<SpaceSample> spaceSamplesFromJson(const Json& j) {
  if (!j.is_array()) throw DecodeError("Expected an array of space samples");
  std::vector<SpaceSample> out;
  out.reserve(j.size());
  for (const auto& e : j) out.push_back(spaceSampleFromJson(e));
  return out;
}

SpaceHistory::SpaceHistory(const Paths& paths) : url_(paths.spaceHistoryFile()) {}

SpaceHistory::SpaceHistory(std::filesystem::path url) : url_(std::move(url)) {}

std::vector<SpaceSample> SpaceHistory::samples() const {
  return JSONStore::load<std::vector<SpaceSample>>(url_, spaceSamplesFromJson)
      .value_or(std::vector<SpaceSample>{});
}

void SpaceHistory::record(const FS::VolumeSpace& space, Date now) const noexcept {
  try {
    JSONStore::update<std::vector<SpaceSample>>(
        url_, spaceSamplesFromJson, toJsonArray<SpaceSample>, [] { return std::vector<SpaceSample>{}; },
        [&](std::vector<SpaceSample>& list) {
          if (!list.empty() && secondsBetween(list.back().date, now) < kMinSpacingSeconds) return false;
          list.push_back(SpaceSample{now, space.free, space.total});
          if (list.size() > kMaxSamples) list.erase(list.begin(), list.end() - kMaxSamples);
          return true;
        },
        /*replaceDamaged=*/true);
  } catch (const std::exception&) {
    // Sampling is background work: a full disk, a blocked folder or a busy store costs one
    // sample, no more.
  }
}

std::optional<SpaceForecast> SpaceHistory::forecast(Date now) const {
  return forecast(samples(), now);
}

std::optional<SpaceForecast> SpaceHistory::forecast(const std::vector<SpaceSample>& samples,
                                                    Date now) {
  std::vector<SpaceSample> recent;
  for (const auto& s : samples) {
    if (secondsBetween(s.date, now) <= kWindowSeconds) recent.push_back(s);
  }
  if (recent.size() < 2) return std::nullopt;

  // The trend after a cleanup is what matters; the jump itself would flatten the fit.
  std::vector<SpaceSample> series = recent;
  for (size_t i = recent.size() - 1; i > 0; --i) {
    if (static_cast<double>(recent[i].free) - static_cast<double>(recent[i - 1].free) >
        kCleanupRiseBytes) {
      std::vector<SpaceSample> segment(recent.begin() + static_cast<std::ptrdiff_t>(i),
                                       recent.end());
      if (segment.size() >= kMinFitSamples &&
          secondsBetween(segment.front().date, segment.back().date) >=
              kMinFitDays * kSecondsPerDay) {
        series = std::move(segment);
      }
      break;
    }
  }

  const double span = secondsBetween(series.front().date, series.back().date);
  if (series.size() < kMinFitSamples || span / kSecondsPerDay < kMinFitDays) return std::nullopt;

  const double n = static_cast<double>(series.size());
  double meanX = 0, meanY = 0;
  for (const auto& s : series) {
    meanX += secondsBetween(series.front().date, s.date) / kSecondsPerDay;
    meanY += static_cast<double>(s.free);
  }
  meanX /= n;
  meanY /= n;
  double sxy = 0, sxx = 0;
  for (const auto& s : series) {
    const double dx = secondsBetween(series.front().date, s.date) / kSecondsPerDay - meanX;
    sxy += dx * (static_cast<double>(s.free) - meanY);
    sxx += dx * dx;
  }
  if (!(sxx > 0)) return std::nullopt;

  SpaceForecast f;
  f.bytesPerDay = -(sxy / sxx);
  f.basedOnDays = span / kSecondsPerDay;
  if (f.bytesPerDay > kMinBytesPerDay) {
    const double days = static_cast<double>(series.back().free) / f.bytesPerDay;
    f.daysUntilFull = days;
    f.predictedFullDate = addSeconds(now, days * kSecondsPerDay);
  }
  return f;
}

}  // namespace kestrel
