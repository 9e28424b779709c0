#include "transcript/iso8601.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace ostler {
namespace {

TEST(ISO8601Test, ParsesInternetDateTimesToTheMillisecondAndNothingElse) {
  const std::vector<std::pair<std::string, std::optional<InstantMs>>> cases = {
      {"1970-01-01T00:00:00Z", 0}, {"1970-01-01T00:00:00.001Z", 1}, {"1970-01-01T00:00:00.1Z", 100},
      {"1970-01-01T00:00:00.12Z", 120},
      {"1970-01-01T00:00:00.123456789Z", 123},  // digits past milliseconds are dropped,
      {"1970-01-01T00:00:00.9999Z", 999},       // not rounded
      {"1970-01-01T01:00:00+01:00", 0}, {"1969-12-31T22:30:00-01:30", 0}, {"1969-12-31T23:59:59.999Z", -1},
      {"2000-02-29T00:00:00Z", 951'782'400'000},
      {"", {}}, {"2026-11-01", {}}, {"2026-11-01T10:00:00" /* no zone */, {}}, {"2026-11-01T10:00Z", {}},
      {"2026-11-01t10:00:00Z", {}}, {"2026-11-01T10:00:00z", {}}, {"2026-11-01 10:00:00Z", {}},
      {"2026-11-01T10:00:00.Z" /* a point without digits */, {}}, {"2026-11-01T10:00:00+0100", {}},
      {"2026-11-01T10:00:00+01", {}}, {"2026-11-01T10:00:00Z ", {}}, {" 2026-11-01T10:00:00Z", {}},
      {"2026-02-29T00:00:00Z" /* not a leap year */, {}}, {"2026-04-31T00:00:00Z", {}}, {"2026-13-01T00:00:00Z", {}},
      {"2026-00-10T00:00:00Z", {}}, {"2026-11-01T24:00:00Z", {}}, {"2026-11-01T10:60:00Z", {}},
      {"2026-11-01T10:00:00+24:00", {}}, {"20261101T100000Z", {}}, {"2026-11-01T10:00:00.000ZZ", {}},
  };
  for (const auto& [text, ms] : cases) EXPECT_EQ(ISO8601::parse(text), ms) << text;
}

TEST(ISO8601Test, FormatsUtcWithAndWithoutMilliseconds) {
  EXPECT_EQ(ISO8601::fractional(0), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(ISO8601::fractional(-1), "1969-12-31T23:59:59.999Z");
  EXPECT_EQ(ISO8601::whole(1'999), "1970-01-01T00:00:01Z");
  EXPECT_EQ(ISO8601::whole(1'793'527'200'000), "2026-11-01T10:00:00Z");
  for (InstantMs t : {InstantMs{951'782'400'000}, InstantMs{951'868'799'999}, InstantMs{4'107'542'400'123}})
    EXPECT_EQ(ISO8601::parse(ISO8601::fractional(t)), t);
}

TEST(ISO8601Test, CalendarDatesMustExist) {
  EXPECT_TRUE(ISO8601::isCalendarDate("2024-02-29"));
  EXPECT_TRUE(ISO8601::isCalendarDate("2026-12-31"));
  for (const char* bad : {"2026-02-29", "2026-1-01", "2026-01-01x", "2026/01/01", "2026-00-01", "1900-02-29"})
    EXPECT_FALSE(ISO8601::isCalendarDate(bad)) << bad;
}

}  // namespace
}  // namespace ostler
