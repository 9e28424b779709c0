// The heavy pass before the first feed: the meter's two receipts, the live
// engine's catching up with the tree, the window scan and a fresh family
// count, on one reading of the tree.
#include <stop_token>

#include "daemon/loop/daemon.h"
#include "daemon/loop/today_equality_check.h"
#include "daemon/windows/local_day.h"
#include "meter/meter_engine.h"
#include "platform/threads.h"

namespace ostler::Daemon {
namespace {

// An engine that has never polled and holds no saved state reads the tree
// exactly as a throw-away engine would.
bool neverPolled(const LiveEngine& engine) {
  return !engine.todayBoundary() && engine.fileOffsets().empty() && engine.seenRequestIds().empty() &&
         engine.sessionState().empty();
}

// Runs `jobs` at once until all are done. With a shutdown signal, looks at
// it every kShutdownCheckSeconds and, once it is raised, asks the jobs to
// stop through `stop`; they are still waited for, so none is abandoned
// mid-read. Returns whether a stop came.
bool runJobs(std::vector<std::function<void()>> jobs, const ShutdownSignalSource* shutdownSignal,
             std::stop_source& stop) {
  TaskGroup running("ostler.initial", std::move(jobs));
  if (shutdownSignal == nullptr) {
    running.wait();
    return false;
  }
  while (!running.waitFor(kShutdownCheckSeconds)) {
    if (shutdownSignal->isRequested()) {
      stop.request_stop();
      break;
    }
  }
  running.wait();
  return stop.stop_requested() || shutdownSignal->isRequested();
}

}  // namespace

std::optional<InitialPassResult> initialPass(FileSystem& fs, LiveEngine& engine, const DaemonOptions& options,
                                             InstantMs now, const ProgressCallback& onProgress,
                                             const ShutdownSignalSource* shutdownSignal, const Clock& clock,
                                             const std::function<void(LiveEngine&)>& prepareEngine) {
  const InstantMs boundary = LocalDay::localMidnightInstant(now, engine.timeZoneId());
  // On a cold start the live poll is itself a fresh read of the whole tree,
  // so its family tokens stand for the throw-away engine's.
  bool coldStart = false;

  InitialPassResult result;
  std::optional<Odometer::MeterPair> receipts;
  WindowScan::Walls walls;
  std::optional<std::map<std::string, int64_t>> tokens;  // today by family, from a fresh read
  std::stop_source stop;

  // The meter reads the tree once, for both receipts, and the engine's
  // lines are gathered on its reading. The engine (after loading the saved
  // state) folds them file by file as the meter reads them, and the scan
  // once the reading is done; files changed since are read from disk.
  GatheredLines gathered(Odometer::kGatheredBytes);
  const bool stopped = runJobs(
      {
          // Both receipts come from one reading of the tree, so the two
          // timings are the same figure.
          [&] {
            const double start = clock.monotonicSeconds();
            receipts = Odometer::lifetimeAndToday(fs, options.root, options.pricing, boundary, now, onProgress,
                                                  {.alsoFold = {&gathered}, .stop = stop.get_token()});
            result.lifetimeSeconds = clock.monotonicSeconds() - start;
          },
          [&] {
            // The engine catches up while the tree is read: each file it
            // reads waits until the meter has read it, so it follows the
            // reading and takes up the time a core would otherwise idle.
            const double start = clock.monotonicSeconds();
            if (prepareEngine) prepareEngine(engine);
            coldStart = neverPolled(engine);
            (void)engine.poll(options.root, now, shutdownSignal, &gathered);
            result.accumulatorSnapshot = engine.todayAccumulatorSnapshot();
            if (coldStart) tokens = engine.todayTokensByFamily();
            result.liveSeconds = clock.monotonicSeconds() - start;
          },
          [&] {
            gathered.waitUntilRead();
            const double start = clock.monotonicSeconds();
            walls = WindowScan::walls(WindowScan::scan(fs, options.root, options.pricing, &gathered, stop.get_token()));
            result.windowScanSeconds = clock.monotonicSeconds() - start;
          },
      },
      shutdownSignal, stop);
  result.todayWindowedSeconds = result.lifetimeSeconds;
  if (stopped || !receipts) return std::nullopt;
  engine.updateWalls(walls);

  // The fresh family count only ever reaches the feed when today's check
  // diverges (it then stands for the accumulator), so after a warm start it
  // is read only in that case.
  if (!coldStart) {
    const bool matches = TodayEqualityCheck::check(result.accumulatorSnapshot.spentUSD,
                                                   result.accumulatorSnapshot.turns,
                                                   receipts->today.totals.spent_usd, now, nullptr)
                             .matches;
    if (!matches)
      tokens = LiveEngine::freshWindowedTokensByFamily(fs, options.root, options.pricing, now, engine.timeZoneId(),
                                                       &gathered);
  }

  result.odometerBundle =
      Odometer::bundle(std::move(receipts->lifetime), std::move(receipts->today), walls, std::move(tokens));
  return result;
}

}  // namespace ostler::Daemon
