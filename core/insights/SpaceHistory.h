// Free-space history: hourly samples of the home volume and the disk-full forecast drawn from them.
#pragma once

#include "core/base/Dates.h"
#include "core/system/fs/FS.h"
#include "core/base/Json.h"
#include "core/system/Paths.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

namespace kestrel {

struct SpaceSample {
  Date date{};
  int64_t free = 0;   // free bytes
  int64_t total = 0;  // capacity in bytes

  bool operator==(const SpaceSample&) const = default;
};

// How fast free space shrinks and when it runs out; never stored.
struct SpaceForecast {
  double bytesPerDay = 0;                 // positive while free space shrinks
  std::optional<double> daysUntilFull;    // absent when the rate is too small to predict
  double basedOnDays = 0;                 // span of the samples used
  std::optional<Date> predictedFullDate;  // present exactly when daysUntilFull is

  bool operator==(const SpaceForecast&) const = default;
};

Json toJson(const SpaceSample& sample);
// Throws DecodeError: every key is required, the date is ISO 8601 text.
SpaceSample spaceSampleFromJson(const Json& j);
// The whole store: an array of samples; DecodeError when any of them does not decode.
std::vector<SpaceSample> spaceSamplesFromJson(const Json& j);

// The "space-history.json" store: one JSON array of samples, oldest first.
class SpaceHistory {
 public:
  static constexpr size_t kMaxSamples = 2900;          // about 120 days, one an hour
  static constexpr int64_t kMinSpacingSeconds = 3600;  // at most one sample an hour
  static constexpr int64_t kWindowSeconds = 3888000;   // 45 days of samples feed the forecast
  static constexpr int64_t kCleanupRiseBytes = 1000000000;
  static constexpr size_t kMinFitSamples = 6;
  static constexpr double kMinFitDays = 2.0;
  static constexpr double kMinBytesPerDay = 50000000;  // slower loss than this predicts no date

  explicit SpaceHistory(const Paths& paths);
  explicit SpaceHistory(std::filesystem::path url);

  const std::filesystem::path& url() const { return url_; }

  // The stored samples; empty when the file is missing or does not decode as a whole.
  std::vector<SpaceSample> samples() const;
  // Appends a sample unless the last one is less than an hour old, keeping the newest 2900.
  // Best effort: a damaged file is replaced, a failed save is dropped.
  void record(const FS::VolumeSpace& space, Date now) const noexcept;
  // The forecast over the stored samples.
  std::optional<SpaceForecast> forecast(Date now) const;

  // Least-squares trend of free space over the last 45 days, measured after the latest cleanup
  // (a rise of more than 10^9 bytes) when enough samples follow it. Nothing with fewer than six
  // samples or less than two days of them.
  static std::optional<SpaceForecast> forecast(const std::vector<SpaceSample>& samples, Date now);

 private:
  std::filesystem::path url_;
};

}  // namespace kestrel
