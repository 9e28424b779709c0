#include "daemon/loop/today_equality_check.h"

#include "transcript/pricing.h"

namespace ostler::TodayEqualityCheck {

FeedDiagnosticsEquality check(double accumulatorSpentUSD, int64_t accumulatorTurns, double windowedSpentUSD,
                              InstantMs checkedAt, std::FILE* log) {
  FeedDiagnosticsEquality d;
  d.diff_usd = roundUSD(accumulatorSpentUSD - windowedSpentUSD);
  d.matches = d.diff_usd >= kLowestMatchingDiffUSD && d.diff_usd <= kHighestMatchingDiffUSD;
  d.checked_at = ISO8601::fractional(checkedAt);
  d.accumulator_spent_usd = accumulatorSpentUSD;
  d.accumulator_turns = accumulatorTurns;
  if (!d.matches && log != nullptr)
    std::fprintf(log, "ostlerd: WARNING today equality check diverged: accumulator=%.6f windowed=%.6f diff=%.6f\n",
                 accumulatorSpentUSD, windowedSpentUSD, accumulatorSpentUSD - windowedSpentUSD);
  return d;
}

}  // namespace ostler::TodayEqualityCheck
