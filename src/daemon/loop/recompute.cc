// The background recompute of the heavy figures, and the gate that keeps it
// rare: a whole-tree read runs only when something can have changed.
#include <cmath>

#include "daemon/loop/daemon.h"
#include "daemon/windows/local_day.h"
#include "daemon/loop/today_equality_check.h"
#include "platform/memory.h"

namespace ostler::Daemon {
namespace {

double secondsBetween(InstantMs earlier, InstantMs later) { return static_cast<double>(later - earlier) / 1000.0; }

// A residual that stays within a cent across recomputes is taken as settled.
void updateBackoff(OutOfBandBackoffState& b, bool touchedSinceLast, const FeedDiagnosticsEquality& check) {
  if (touchedSinceLast || check.matches)
    b.consecutiveSmallMoves = 0;
  else if (b.lastResidualUSD && std::fabs(check.diff_usd - *b.lastResidualUSD) < kSmallMoveUSD)
    b.consecutiveSmallMoves += 1;
  else
    b.consecutiveSmallMoves = 0;
  b.lastResidualUSD = check.diff_usd;
}

}  // namespace

bool startOdometerRecomputeIfDue(const LiveEngine& engine, const DaemonOptions& options,
                                 const std::shared_ptr<TickState>& state, InstantMs now, bool touchedSinceLast,
                                 const Services& services) {
  bool unreconciled = false;
  {
    std::lock_guard lock(state->stateLock);
    if (state->odometerInFlight) return false;
    const double age = secondsBetween(state->lastOdometerAt, now);
    unreconciled = state->lastEqualityDiagnostics && !state->lastEqualityDiagnostics->matches;
    double required = options.odometerMinInterval;
    if (!touchedSinceLast && state->outOfBandBackoff.consecutiveSmallMoves >= kSettledSmallMoves)
      required = kSettledRecomputeIntervalSeconds;
    // With no touch and a matching check nothing can have changed.
    if ((!touchedSinceLast && !unreconciled) || age < required) return false;
    state->odometerInFlight = true;
  }

  // The accumulator the check compares is read here, on the tick thread,
  // before the meter starts reading.
  const LiveEngine::TodayAccumulatorSnapshot accumulator = engine.todayAccumulatorSnapshot();
  const InstantMs boundary = LocalDay::localMidnightInstant(now, engine.timeZoneId());
  services.recomputeQueue.async([state, root = options.root, pricing = options.pricing,
                                 timeZoneId = engine.timeZoneId(), boundary, now, unreconciled, touchedSinceLast,
                                 accumulator, &fs = services.fs, &clock = services.clock,
                                 log = services.log](std::stop_token stop) {
    // The fresh family count folds the whole tree once more; it is only
    // worth it while the check stands unreconciled.
    std::optional<Odometer::Bundle> computed =
        Odometer::compute(fs, root, pricing, boundary, now, unreconciled, timeZoneId, stop);
    if (!computed) {
      // Stopped for a shutdown: the last bundle stands.
      std::lock_guard lock(state->stateLock);
      state->odometerInFlight = false;
      return;
    }
    auto bundle = std::make_shared<const Odometer::Bundle>(std::move(*computed));
    FeedDiagnosticsEquality check = TodayEqualityCheck::check(
        accumulator.spentUSD, accumulator.turns, bundle->todayWindowedReceipt.totals.spent_usd, now, log);
    {
      std::lock_guard lock(state->stateLock);
      state->pendingWalls = bundle->windowWalls;
      state->odometerBundle = std::move(bundle);
      // Set at the end: the gate measures from the last finished recompute.
      state->lastOdometerAt = clock.nowMs();
      state->odometerInFlight = false;
      updateBackoff(state->outOfBandBackoff, touchedSinceLast, check);
      state->lastEqualityDiagnostics = std::move(check);
    }
    // The passes read the whole tree; what they freed is of no use to the ticks.
    releaseFreedMemory();
  });
  return true;
}

}  // namespace ostler::Daemon
