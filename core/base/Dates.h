// Date texts as the platform prints and parses them: ISO 8601, the default description, local patterns.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace kestrel {

using Date = std::chrono::system_clock::time_point;

namespace Dates {

// Seconds between 1970-01-01 and 2001-01-01, the platform's reference date.
inline constexpr int64_t kReferenceEpoch = 978307200;

// Whole seconds since 1970 (floored, also before 1970).
int64_t unixSeconds(Date d);
// Times the clock cannot hold (before 1677 or after 2262) are held at its first or last whole
// second, so a damaged or far-off date read from a file never overflows.
Date fromUnixSeconds(int64_t s);
// Seconds since 2001-01-01T00:00:00Z as a double (the plain JSON form of a date).
double referenceSeconds(Date d);
// Held at the clock's range like fromUnixSeconds; NaN is the reference date itself.
Date fromReferenceSeconds(double s);

// `d` moved by `seconds` (or whole 86,400-second days), saturating at the ends of the clock's
// range instead of wrapping: an age limit too large for the clock means "longer ago than
// anything", never a date in the future.
Date minusSeconds(Date d, int64_t seconds);
Date minusDays(Date d, int64_t days);
Date plusSeconds(Date d, int64_t seconds);

// "2026-11-15T18:23:09Z": UTC, fraction truncated.
std::string iso8601(Date d);
// Accepts "yyyy-MM-ddTHH:mm:ss" followed by Z, z, GMT/UTC (optionally with an offset), or an
// offset +hh, +hhmm, +hh:mm, +hh:mm:ss. Fractional seconds and anything else give nothing. A year
// the clock cannot hold is held at its range, as fromUnixSeconds does.
std::optional<Date> parseISO8601(std::string_view text);

// Local wall-clock text "yyyy-MM-ddTHH:mm:ss" (no zone; a trailing fraction is ignored) in the
// named zone (empty: the machine's); a time a clock change makes ambiguous is taken at its
// earlier instant, one it skips at the change. Nothing for any other text.
std::optional<Date> parseLocal(std::string_view text, const std::string& zone = "");
// "2026-11-22 18:23:09 +0000": always UTC, with a literal +0000.
std::string description(Date d);

// Local wall-clock text in the named zone (empty: the machine's zone). Supported patterns:
// "yyyyMMdd-HHmmss", "yyyy-MM-dd", "yyyy-MM-ddTHH:mm:ss", "yyyy-MM-dd HH:mm:ss", "h.mm.ss a"
// (12-hour, AM/PM), "HH:mm"; anything else gives an empty text.
std::string local(Date d, std::string_view pattern, const std::string& zone = "");

}  // namespace Dates
}  // namespace kestrel
