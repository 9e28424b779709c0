#include "daemon/local_day.h"

#include <gtest/gtest.h>

#include "line_builder.h"

namespace ostler {
namespace {

using testing::at;

TEST(LocalDayTest, StartOfTheLocalDayInTheNamedZone) {
  EXPECT_EQ(LocalDay::localMidnightInstant(at("2026-03-10T23:59:59.999Z"), "UTC"), at("2026-03-10T00:00:00Z"));
  EXPECT_EQ(LocalDay::localMidnightInstant(at("2026-03-10T02:00:00Z"), "America/New_York"),
            at("2026-03-09T04:00:00Z"));
  // Days of a daylight-saving change are 23 or 25 hours long.
  EXPECT_EQ(LocalDay::localMidnightInstant(at("2026-03-08T23:00:00Z"), "America/New_York"),
            at("2026-03-08T05:00:00Z"));
  EXPECT_EQ(LocalDay::localMidnightInstant(at("2026-03-09T03:59:59Z"), "America/New_York"),
            at("2026-03-08T05:00:00Z"));
  // Where the clock jumps from 24:00 to 01:00 the day starts at 01:00.
  EXPECT_EQ(LocalDay::localMidnightInstant(at("2026-09-06T12:00:00Z"), "America/Santiago"),
            at("2026-09-06T04:00:00Z"));
  // Where the clock goes back from 01:00 to 00:00 midnight comes twice and
  // the day starts at the first: also inside the repeated hour, so that the
  // day never starts after the instant it holds.
  for (const char* instant : {"2024-11-03T12:00:00Z", "2024-11-03T04:30:00Z", "2024-11-03T05:30:00Z"})
    EXPECT_EQ(LocalDay::localMidnightInstant(at(instant), "America/Havana"), at("2024-11-03T04:00:00Z")) << instant;
  EXPECT_EQ(LocalDay::localMidnightInstant(at("2024-11-03T03:59:59Z"), "America/Havana"),
            at("2024-11-02T04:00:00Z"));
}

}  // namespace
}  // namespace ostler
