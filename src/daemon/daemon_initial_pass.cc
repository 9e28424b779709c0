// The heavy pass before the first feed: the meter's two receipts, the live
// engine's catching up with the tree, the window scan and a fresh family
// count, on one reading of the tree.
#include "daemon/daemon.h"
#include "daemon/local_day.h"
#include "daemon/parallel_jobs.h"
#include "daemon/pre_read_tree.h"
#include "daemon/today_equality_check.h"
#include "meter/meter_engine.h"

namespace ostler::Daemon {
namespace {

// An engine that has never polled and holds no saved state reads the tree
// exactly as a throw-away engine would.
bool neverPolled(const LiveEngine& engine) {
  return !engine.todayBoundary() && engine.fileOffsets().empty() && engine.seenRequestIds().empty() &&
         engine.sessionState().empty();
}

// Runs `jobs` at once until all are done. With a shutdown signal, looks at
// it every kShutdownCheckSeconds; a stop still waits for every job, so none
// is abandoned mid-read. Returns whether a stop came.
bool runJobs(std::vector<std::function<void()>> jobs, const ShutdownSignalSource* shutdownSignal) {
  ParallelJobs running(std::move(jobs));
  if (shutdownSignal == nullptr) {
    running.wait();
    return false;
  }
  bool stopped = false;
  while (!running.waitFor(kShutdownCheckSeconds)) {
    if (shutdownSignal->isRequested()) {
      stopped = true;
      break;
    }
  }
  running.wait();
  return stopped;
}

}  // namespace

std::optional<InitialPassResult> initialPass(LiveEngine& engine, const DaemonOptions& options, InstantMs now,
                                             const ProgressCallback& onProgress,
                                             const ShutdownSignalSource* shutdownSignal, const Clock& clock,
                                             const std::function<void(LiveEngine&)>& prepareEngine) {
  const InstantMs boundary = LocalDay::localMidnightInstant(now, engine.timeZoneId());
  // On a cold start the live poll is itself a fresh read of the whole tree,
  // so its family tokens stand for the throw-away engine's.
  bool coldStart = false;

  InitialPassResult result;
  Receipt lifetime, today;
  WindowScan::Walls walls;
  std::optional<std::map<std::string, int64_t>> tokens;  // today by family, from a fresh read
  auto timed = [&clock](double* seconds, auto job) {
    return [&clock, seconds, job] {
      const double start = clock.monotonicSeconds();
      job();
      *seconds = clock.monotonicSeconds() - start;
    };
  };

  // The meter reads the tree once, for both receipts, and gathers on the
  // way the lines the engine and the scan read. The engine (after loading
  // the saved state) folds those lines file by file as the meter reads
  // them, and the scan once the reading is done; files changed since are
  // read from disk.
  PreReadTree preRead(Odometer::kPreReadBytes);
  const bool stopped = runJobs(
      {
          // Both receipts come from one reading of the tree, so the two
          // timings are the same figure.
          timed(&result.lifetimeSeconds,
                [&] {
                  auto receipts = Odometer::lifetimeAndToday(options.root, options.pricing, boundary, now, onProgress,
                                                             Odometer::readOnce(preRead));
                  preRead.readingDone();
                  lifetime = std::move(receipts.lifetime);
                  today = std::move(receipts.today);
                }),
          [&] {
            // The engine catches up while the tree is read: each file it
            // reads waits until the meter has read it, so it follows the
            // reading and takes up the time a core would otherwise idle.
            const double start = clock.monotonicSeconds();
            if (prepareEngine) prepareEngine(engine);
            coldStart = neverPolled(engine);
            (void)engine.poll(options.root, now, shutdownSignal, &preRead);
            result.accumulatorSnapshot = engine.todayAccumulatorSnapshot();
            if (coldStart) tokens = engine.todayTokensByFamily();
            result.liveSeconds = clock.monotonicSeconds() - start;
          },
          [&] {
            preRead.waitUntilRead();
            const double start = clock.monotonicSeconds();
            walls = WindowScan::walls(WindowScan::scan(options.root, options.pricing, &preRead));
            result.windowScanSeconds = clock.monotonicSeconds() - start;
          },
      },
      shutdownSignal);
  result.todayWindowedSeconds = result.lifetimeSeconds;
  if (stopped) return std::nullopt;
  engine.updateWalls(walls);

  // The fresh family count only ever reaches the feed when today's check
  // diverges (it then stands for the accumulator), so after a warm start it
  // is read only in that case.
  if (!coldStart) {
    const bool matches = TodayEqualityCheck::check(result.accumulatorSnapshot.spentUSD,
                                                   result.accumulatorSnapshot.turns,
                                                   today.totals.spent_usd, now, nullptr)
                             .matches;
    if (!matches)
      tokens = LiveEngine::freshWindowedTokensByFamily(options.root, options.pricing, now, engine.timeZoneId(),
                                                       &preRead);
  }

  result.odometerBundle = Odometer::bundle(std::move(lifetime), std::move(today), walls, std::move(tokens));
  return result;
}

}  // namespace ostler::Daemon
