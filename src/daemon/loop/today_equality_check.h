// Today's live accumulator against the windowed receipt of the same day.
// The accumulator is read before the meter runs, so it may trail the meter
// by up to a dollar of lines written in between; it must never stand above
// it by more than a millionth of a dollar.
#pragma once

#include <cstdint>
#include <cstdio>

#include "daemon/feed/feed.h"

namespace ostler::TodayEqualityCheck {

inline constexpr double kLowestMatchingDiffUSD = -1.0;
inline constexpr double kHighestMatchingDiffUSD = 0.000001;

// The accumulator (rounded to six places, as read) less the windowed spend,
// rounded to six places, and whether it lies within the bounds above, both
// inclusive. With a divergence, writes one warning line to `log` giving the
// unrounded figures. Turns are carried, not compared: the two sums count
// turns of requests without tokens differently by design.
[[nodiscard]] FeedDiagnosticsEquality check(double accumulatorSpentUSD, int64_t accumulatorTurns,
                                            double windowedSpentUSD, InstantMs checkedAt,
                                            std::FILE* log = stderr);

}  // namespace ostler::TodayEqualityCheck
