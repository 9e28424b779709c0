#include "meter/meter_options.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace ostler {
namespace {

struct Case {
  std::optional<std::string> timestamp;
  bool in;
};

void expectAll(const MeterOptions& options, const std::vector<Case>& cases) {
  for (const auto& c : cases)
    EXPECT_EQ(inRange(c.timestamp, options), c.in) << c.timestamp.value_or("(absent)");
}

TEST(InRangeTest, InstantBoundsAreHalfOpen) {
  MeterOptions o;
  o.sinceInstant = "2026-11-05T00:00:00.000Z";
  o.untilInstant = "2026-11-12T00:00:00Z";
  expectAll(o, {
                   {"2026-11-04T23:59:59.999Z", false},
                   {"2026-11-05T00:00:00Z", true},         // the lower bound itself is in
                   {"2026-11-05T01:00:00+01:00", true},    // the same instant, written elsewhere
                   {"2026-11-04T23:30:00-01:00", true},
                   {"2026-11-11T23:59:59.999Z", true},
                   {"2026-11-12T00:00:00.000Z", false},    // the upper bound itself is out
                   {"2026-11-12T00:00:00.0009Z", false},   // equal at millisecond resolution
                   {"2026-11-12T01:00:00+02:00", true},
                   {"2026-11-12T00:30:00+00:00", false},
                   {"not a time at all", true},            // an unparseable stamp passes both bounds
                   {"", true},
                   {std::nullopt, true},
               });
}

TEST(InRangeTest, InstantBoundsWinOverDatesEvenWhenUnparseable) {
  MeterOptions o;
  o.since = "2026-11-05";
  o.until = "2026-11-06";
  o.sinceInstant = "yesterday";
  o.untilInstant = "2026-11-10T00:00:00Z";
  expectAll(o, {{"2026-11-01T00:00:00Z", true}, {"2026-11-09T12:00:00Z", true}, {"2026-11-10T00:00:00Z", false}});

  o.sinceInstant = "2026-11-02T00:00:00Z";
  o.untilInstant = "tomorrow";
  expectAll(o, {{"2026-11-01T23:59:59Z", false}, {"2026-11-30T00:00:00Z", true}});
}

TEST(InRangeTest, DateBoundsCompareTheWrittenDate) {
  MeterOptions o;
  o.since = "2026-11-05";
  o.until = "2026-11-10";
  expectAll(o, {
                   {"2026-11-04T23:59:59.999Z", false},
                   {"2026-11-05T00:00:00Z", true},
                   {"2026-11-10T23:59:59.999Z", true},  // the whole last day is in
                   {"2026-11-11T00:00:00Z", false},
                   {"2026-11-11T00:30:00+01:00", false},  // 10 November in UTC, written as the 11th
                   {"2026-11-04T23:30:00-01:00", false},  // 5 November in UTC, written as the 4th
                   {"2026-11-0", true},                   // shorter than a date: passes
                   {"9999-99-99 whatever", false},        // compared as text
                   {"0000-00-00", false},
                   {std::nullopt, true},
               });

  MeterOptions onlyUntil;
  onlyUntil.until = "2026-11-10";
  expectAll(onlyUntil, {{"1999-01-01T00:00:00Z", true}, {"2026-11-11T00:00:00Z", false}});
}

}  // namespace
}  // namespace ostler
