// The bounds of a metering pass: which lines count.
#include "meter/meter_options.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace ostler {
namespace {

void expectInRange(const MeterOptions& options, const std::vector<std::pair<std::optional<std::string>, bool>>& cases) {
  for (const auto& [timestamp, in] : cases) EXPECT_EQ(inRange(timestamp, options), in) << timestamp.value_or("-");
}

TEST(InRangeTest, InstantBoundsAreHalfOpenAndWinOverDatesEvenWhenUnparseable) {
  MeterOptions o;
  o.since = "2026-11-05";
  o.until = "2026-11-06";
  o.sinceInstant = "2026-11-05T00:00:00.000Z";
  o.untilInstant = "2026-11-12T00:00:00Z";
  expectInRange(o, {
                       {"2026-11-04T23:59:59.999Z", false},
                       {"2026-11-05T00:00:00Z", true},  // the lower bound itself is in, however written
                       {"2026-11-05T01:00:00+01:00", true}, {"2026-11-04T23:30:00-01:00", true},
                       {"2026-11-11T23:59:59.999Z", true},
                       {"2026-11-12T00:00:00.000Z", false},   // the upper bound itself is out,
                       {"2026-11-12T00:00:00.0009Z", false},  // also below a millisecond past it
                       {"2026-11-12T01:00:00+02:00", true}, {"2026-11-12T00:30:00+00:00", false},
                       // An unparseable or absent stamp passes both bounds.
                       {"not a time at all", true}, {"", true}, {std::nullopt, true},
                   });
  o.sinceInstant = "yesterday";
  expectInRange(o, {{"2026-11-01T00:00:00Z", true}, {"2026-11-10T00:00:00Z", true}, {"2026-11-12T00:00:00Z", false}});
  o.sinceInstant = "2026-11-02T00:00:00Z";
  o.untilInstant = "tomorrow";
  expectInRange(o, {{"2026-11-01T23:59:59Z", false}, {"2026-11-30T00:00:00Z", true}});
}

TEST(InRangeTest, DateBoundsCompareTheWrittenDate) {
  MeterOptions o;
  o.since = "2026-11-05";
  o.until = "2026-11-10";
  expectInRange(o, {
                       {"2026-11-04T23:59:59.999Z", false}, {"2026-11-05T00:00:00Z", true},
                       {"2026-11-10T23:59:59.999Z", true}, {"2026-11-11T00:00:00Z", false},  // the whole last day
                       {"2026-11-11T00:30:00+01:00", false},  // 10 November in UTC, written as the 11th
                       {"2026-11-04T23:30:00-01:00", false},  // 5 November in UTC, written as the 4th
                       {"2026-11-0", true},                   // shorter than a date: passes
                       {"9999-99-99 whatever", false}, {"0000-00-00", false},  // compared as text
                       {std::nullopt, true},
                   });
  MeterOptions onlyUntil;
  onlyUntil.until = "2026-11-10";
  expectInRange(onlyUntil, {{"1999-01-01T00:00:00Z", true}, {"2026-11-11T00:00:00Z", false}});
}

}  // namespace
}  // namespace ostler
