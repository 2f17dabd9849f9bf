// Date texts: ISO 8601 in UTC, the default description and local patterns through the tz database.
#include "core/base/Dates.h"

#include <date/date.h>
#include <date/tz.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>

#include <cstdint>

namespace kestrel::Dates {
namespace {

using std::chrono::duration_cast;
using std::chrono::seconds;

struct Civil {
  int year;
  unsigned month, day, hour, minute, second;
};

Civil civil(int64_t unix) {
  const auto tp = date::sys_seconds{seconds{unix}};
  const auto dayPoint = date::floor<date::days>(tp);
  const date::year_month_day ymd{dayPoint};
  const date::hh_mm_ss<seconds> hms{tp - dayPoint};
  return {static_cast<int>(ymd.year()), static_cast<unsigned>(ymd.month()),
          static_cast<unsigned>(ymd.day()), static_cast<unsigned>(hms.hours().count()),
          static_cast<unsigned>(hms.minutes().count()), static_cast<unsigned>(hms.seconds().count())};
}

bool digits(std::string_view s, size_t pos, size_t n, int& out) {
  if (pos + n > s.size()) return false;
  int v = 0;
  for (size_t i = pos; i < pos + n; ++i) {
    if (!std::isdigit(static_cast<unsigned char>(s[i]))) return false;
    v = v * 10 + (s[i] - '0');
  }
  out = v;
  return true;
}

bool iequals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  return true;
}

// Parses an offset "+hh", "+hhmm", "+hh:mm", "+hh:mm:ss" (also "-"); the whole rest must be used.
std::optional<int> parseOffset(std::string_view s) {
  if (s.empty() || (s[0] != '+' && s[0] != '-')) return std::nullopt;
  const int sign = s[0] == '-' ? -1 : 1;
  std::string_view r = s.substr(1);
  int h = 0, m = 0, sec = 0;
  if (!digits(r, 0, 2, h)) return std::nullopt;
  r.remove_prefix(2);
  if (!r.empty()) {
    if (r[0] == ':') r.remove_prefix(1);
    if (!digits(r, 0, 2, m)) return std::nullopt;
    r.remove_prefix(2);
    if (!r.empty()) {
      if (r[0] == ':') r.remove_prefix(1);
      if (!digits(r, 0, 2, sec) || r.size() != 2) return std::nullopt;
    }
  }
  if (h > 23 || m > 59 || sec > 59) return std::nullopt;
  return sign * (h * 3600 + m * 60 + sec);
}

// The whole seconds the clock can hold (it counts nanoseconds: about the years 1677 to 2262).
const int64_t kMinSeconds = std::chrono::ceil<seconds>(Date::min().time_since_epoch()).count();
const int64_t kMaxSeconds = std::chrono::floor<seconds>(Date::max().time_since_epoch()).count();

}  // namespace

int64_t unixSeconds(Date d) {
  return date::floor<seconds>(d.time_since_epoch()).count();
}

Date fromUnixSeconds(int64_t s) { return Date{seconds{std::clamp(s, kMinSeconds, kMaxSeconds)}}; }

Date plusSeconds(Date d, int64_t s) {
  using Ticks = Date::duration;
  const __int128 ticks = static_cast<__int128>(d.time_since_epoch().count()) +
                         static_cast<__int128>(s) * (Ticks::period::den / Ticks::period::num);
  if (ticks > Ticks::max().count()) return Date::max();
  if (ticks < Ticks::min().count()) return Date::min();
  return Date{Ticks{static_cast<Ticks::rep>(ticks)}};
}

Date minusSeconds(Date d, int64_t s) {
  // -INT64_MIN does not exist; one second more or less at that end changes nothing.
  return plusSeconds(d, s == INT64_MIN ? INT64_MAX : -s);
}

Date minusDays(Date d, int64_t days) {
  int64_t s = 0;
  if (__builtin_mul_overflow(days, int64_t{86400}, &s)) s = days > 0 ? INT64_MAX : INT64_MIN;
  return minusSeconds(d, s);
}

double referenceSeconds(Date d) {
  const double unix = duration_cast<std::chrono::duration<double>>(d.time_since_epoch()).count();
  return unix - static_cast<double>(kReferenceEpoch);
}

Date fromReferenceSeconds(double s) {
  if (std::isnan(s)) return fromUnixSeconds(kReferenceEpoch);
  const double unix =
      std::clamp(s + static_cast<double>(kReferenceEpoch), static_cast<double>(kMinSeconds),
                 static_cast<double>(kMaxSeconds));
  return Date{duration_cast<Date::duration>(std::chrono::duration<double>(unix))};
}

std::string iso8601(Date d) {
  const Civil c = civil(unixSeconds(d));
  char buf[48];
  std::snprintf(buf, sizeof buf, "%04d-%02u-%02uT%02u:%02u:%02uZ", c.year, c.month, c.day, c.hour,
                c.minute, c.second);
  return buf;
}

std::string description(Date d) {
  const Civil c = civil(unixSeconds(d));
  char buf[48];
  std::snprintf(buf, sizeof buf, "%04d-%02u-%02u %02u:%02u:%02u +0000", c.year, c.month, c.day,
                c.hour, c.minute, c.second);
  return buf;
}

std::optional<Date> parseISO8601(std::string_view s) {
  // Year of 4 digits (the stores never write more), then fixed separators.
  int y, mo, d, h, mi, sec;
  if (s.size() < 20) return std::nullopt;
  if (!digits(s, 0, 4, y) || s[4] != '-' || !digits(s, 5, 2, mo) || s[7] != '-' ||
      !digits(s, 8, 2, d) || s[10] != 'T' || !digits(s, 11, 2, h) || s[13] != ':' ||
      !digits(s, 14, 2, mi) || s[16] != ':' || !digits(s, 17, 2, sec))
    return std::nullopt;
  const date::year_month_day ymd{date::year{y}, date::month{static_cast<unsigned>(mo)},
                                 date::day{static_cast<unsigned>(d)}};
  if (!ymd.ok() || h > 23 || mi > 59 || sec > 59) return std::nullopt;
  std::string_view zone = s.substr(19);
  int offset = 0;
  if (zone == "Z" || zone == "z") {
    offset = 0;
  } else if (zone.size() >= 3 && (iequals(zone.substr(0, 3), "GMT") || iequals(zone.substr(0, 3), "UTC"))) {
    zone.remove_prefix(3);
    if (!zone.empty()) {
      auto o = parseOffset(zone);
      if (!o) return std::nullopt;
      offset = *o;
    }
  } else {
    auto o = parseOffset(zone);
    if (!o) return std::nullopt;
    offset = *o;
  }
  const auto days = date::sys_days{ymd}.time_since_epoch().count();
  const int64_t unix = static_cast<int64_t>(days) * 86400 + h * 3600 + mi * 60 + sec - offset;
  return fromUnixSeconds(unix);
}

std::optional<Date> parseLocal(std::string_view s, const std::string& zone) {
  int y, mo, d, h, mi, sec;
  if (s.size() < 19 || (s.size() > 19 && s[19] != '.')) return std::nullopt;
  if (!digits(s, 0, 4, y) || s[4] != '-' || !digits(s, 5, 2, mo) || s[7] != '-' ||
      !digits(s, 8, 2, d) || s[10] != 'T' || !digits(s, 11, 2, h) || s[13] != ':' ||
      !digits(s, 14, 2, mi) || s[16] != ':' || !digits(s, 17, 2, sec))
    return std::nullopt;
  const date::year_month_day ymd{date::year{y}, date::month{static_cast<unsigned>(mo)},
                                 date::day{static_cast<unsigned>(d)}};
  if (!ymd.ok() || h > 23 || mi > 59 || sec > 59) return std::nullopt;
  const date::local_seconds lt{seconds{static_cast<int64_t>(date::sys_days{ymd}.time_since_epoch().count()) * 86400 +
                                       h * 3600 + mi * 60 + sec}};
  const date::time_zone* tz = nullptr;
  try {
    tz = zone.empty() ? date::current_zone() : date::locate_zone(zone);
  } catch (const std::exception&) {
    tz = nullptr;  // no usable zone database entry: read the text as UTC
  }
  if (!tz) return fromUnixSeconds(lt.time_since_epoch().count());
  const auto info = tz->get_info(lt);
  // Ambiguous or skipped: the offset in force before the change.
  return fromUnixSeconds((lt.time_since_epoch() - info.first.offset).count());
}

std::string local(Date d, std::string_view pattern, const std::string& zone) {
  const date::time_zone* tz = nullptr;
  try {
    tz = zone.empty() ? date::current_zone() : date::locate_zone(zone);
  } catch (const std::exception&) {
    tz = nullptr;  // no usable zone database entry: fall back to UTC below
  }
  const auto secs = date::sys_seconds{seconds{unixSeconds(d)}};
  const date::local_seconds lt = tz ? tz->to_local(secs) : date::local_seconds{secs.time_since_epoch()};
  const auto dayPoint = date::floor<date::days>(lt);
  const date::year_month_day ymd{dayPoint};
  const date::hh_mm_ss<seconds> hms{lt - dayPoint};
  char buf[48];
  const int y = static_cast<int>(ymd.year());
  const unsigned mo = static_cast<unsigned>(ymd.month()), dd = static_cast<unsigned>(ymd.day());
  const auto h = static_cast<unsigned>(hms.hours().count()), mi = static_cast<unsigned>(hms.minutes().count()),
             sc = static_cast<unsigned>(hms.seconds().count());
  if (pattern == "yyyyMMdd-HHmmss") {
    std::snprintf(buf, sizeof buf, "%04d%02u%02u-%02u%02u%02u", y, mo, dd, h, mi, sc);
  } else if (pattern == "yyyy-MM-dd") {
    std::snprintf(buf, sizeof buf, "%04d-%02u-%02u", y, mo, dd);
  } else if (pattern == "yyyy-MM-ddTHH:mm:ss" || pattern == "yyyy-MM-dd HH:mm:ss") {
    std::snprintf(buf, sizeof buf, "%04d-%02u-%02u%c%02u:%02u:%02u", y, mo, dd, pattern[10], h, mi, sc);
  } else if (pattern == "h.mm.ss a") {
    std::snprintf(buf, sizeof buf, "%u.%02u.%02u %s", h % 12 == 0 ? 12 : h % 12, mi, sc, h < 12 ? "AM" : "PM");
  } else if (pattern == "HH:mm") {
    std::snprintf(buf, sizeof buf, "%02u:%02u", h, mi);
  } else {
    return {};
  }
  return buf;
}

}  // namespace kestrel::Dates
