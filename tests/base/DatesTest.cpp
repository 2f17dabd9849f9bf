// ISO 8601 texts, the default date description, reference seconds and local patterns.
#include "core/base/Dates.h"

#include <gtest/gtest.h>

#include <cmath>

namespace kestrel {
namespace {

Date at(int64_t unix, int64_t millis = 0) {
  return Dates::fromUnixSeconds(unix) + std::chrono::milliseconds(millis);
}

constexpr int64_t k20260301T093000 = 1772357400;

TEST(Dates, WholeSecondTextsAndReferenceSeconds) {
  EXPECT_EQ(Dates::iso8601(at(k20260301T093000, 987)), "2026-03-01T09:30:00Z");
  EXPECT_EQ(Dates::description(at(k20260301T093000, 999)), "2026-03-01 09:30:00 +0000");
  EXPECT_EQ(Dates::description(Dates::fromReferenceSeconds(0)), "2001-01-01 00:00:00 +0000");
  EXPECT_EQ(Dates::iso8601(at(-1, 500)), "1969-12-31T23:59:59Z");
  EXPECT_DOUBLE_EQ(Dates::referenceSeconds(at(Dates::kReferenceEpoch)), 0.0);
  EXPECT_DOUBLE_EQ(Dates::referenceSeconds(at(k20260301T093000, 500)),
                   static_cast<double>(k20260301T093000 - Dates::kReferenceEpoch) + 0.5);
  EXPECT_EQ(Dates::fromReferenceSeconds(Dates::referenceSeconds(at(k20260301T093000))),
            at(k20260301T093000));
  // Far-off or damaged values (a property list's date, a hand-edited store) never overflow.
  EXPECT_EQ(Dates::unixSeconds(Dates::fromReferenceSeconds(1e300)), 9223372036);
  EXPECT_EQ(Dates::unixSeconds(Dates::fromReferenceSeconds(-1e300)), -9223372036);
  EXPECT_EQ(Dates::fromReferenceSeconds(std::nan("")), Dates::fromReferenceSeconds(0));
  EXPECT_EQ(Dates::iso8601(Dates::fromUnixSeconds(INT64_MAX)), "2262-04-11T23:47:16Z");
  EXPECT_EQ(Dates::iso8601(Dates::fromUnixSeconds(INT64_MIN)), "1677-09-21T00:12:44Z");
}

TEST(Dates, ParsesIso8601AsTheStoresDo) {
  constexpr int64_t t = k20260301T093000;
  const struct Case {
    const char* text;
    std::optional<int64_t> unix;
  } cases[] = {
      // Zones in every form the stores accept.
      {"2026-03-01T09:30:00Z", t}, {"2026-03-01T09:30:00z", t}, {"2026-03-01T10:30:00+01:00", t},
      {"2026-03-01T10:30:00+0100", t}, {"2026-03-01T10:30:00+01", t},
      {"2026-03-01T04:30:00-05:00", t}, {"2026-03-01T09:30:00GMT", t},
      {"2026-03-01T10:30:00UTC+01:00", t},
      // Fractions, other separators, no zone, impossible dates and trailing text.
      {"2026-03-01T09:30:00.123Z", std::nullopt}, {"2026-03-01 09:30:00Z", std::nullopt},
      {"2026-03-01T09:30:00", std::nullopt}, {"2026-03-01t09:30:00Z", std::nullopt},
      {"2026-02-30T09:30:00Z", std::nullopt}, {"2026-03-01T24:00:00Z", std::nullopt},
      {"2026-03-01T09:30:00Zjunk", std::nullopt}, {"", std::nullopt},
      // Years the clock cannot hold (it counts nanoseconds) are held at its ends.
      {"9999-12-31T23:59:59Z", 9223372036}, {"0326-03-01T09:30:01+05:30", -9223372036},
      {"2262-04-11T23:47:16Z", 9223372036}, {"1677-09-21T00:12:44Z", -9223372036},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    auto d = Dates::parseISO8601(c.text);
    ASSERT_EQ(d.has_value(), c.unix.has_value());
    if (d) {
      EXPECT_EQ(Dates::unixSeconds(*d), *c.unix);
    }
  }
}

TEST(Dates, LocalPatternsFollowTheZone) {
  const struct Case {
    int64_t unix;
    int64_t millis;
    const char* zone;
    const char* stamp;
    const char* day;
  } cases[] = {
      {k20260301T093000, 0, "UTC", "20260301-093000", "2026-03-01"},
      {k20260301T093000, 0, "Europe/Berlin", "20260301-103000", "2026-03-01"},
      {k20260301T093000, 0, "America/New_York", "20260301-043000", "2026-03-01"},
      {k20260301T093000, 999, "UTC", "20260301-093000", "2026-03-01"},
      {k20260301T093000 + 18 * 3600, 0, "America/New_York", "20260301-223000", "2026-03-01"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.zone);
    EXPECT_EQ(Dates::local(at(c.unix, c.millis), "yyyyMMdd-HHmmss", c.zone), c.stamp);
    EXPECT_EQ(Dates::local(at(c.unix, c.millis), "yyyy-MM-dd", c.zone), c.day);
  }
}

}  // namespace
}  // namespace kestrel
