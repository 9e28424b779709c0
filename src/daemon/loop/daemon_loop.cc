// The loop itself: start-up, the initial pass, and the tick.
#include "daemon/loop/daemon.h"
#include "daemon/loop/today_equality_check.h"
#include "daemon/state/persisted_state.h"
#include "daemon/windows/local_day.h"
#include "platform/memory.h"
#include "platform/threads.h"
#include "transcript/session_discovery.h"

namespace ostler::Daemon {
namespace {

double secondsBetween(InstantMs earlier, InstantMs later) { return static_cast<double>(later - earlier) / 1000.0; }

// Hands the walls of a finished recompute to the engine, on the thread that
// owns the engine.
void takeOverPendingWalls(LiveEngine& engine, TickState& state) {
  std::optional<WindowScan::Walls> walls;
  {
    std::lock_guard lock(state.stateLock);
    walls.swap(state.pendingWalls);
  }
  if (walls) engine.updateWalls(*walls);
}

void writeFeed(FeedWriter& writer, TickState& state, const Feed& feed, InstantMs now) {
  // A failed write leaves the previous feed in place; the next tick tries again.
  auto written = writer.writeNow(feed);
  if (written) state.lastFeedAt = now;
  state.feedNotice.update(written ? Status() : Status(written.error()));
}

// Says the transcripts that cannot be read whenever they change, so that a
// user learns why a chat is missing from the feed.
void sayUnreadable(const Unreadable& unreadable, TickState& state, std::FILE* log) {
  if (unreadable.paths == state.unreadableSaid) return;
  if (log != nullptr) {
    if (unreadable.first)
      std::fprintf(log, "ostlerd: %s\n", describe(unreadable).c_str());
    else
      std::fprintf(log, "ostlerd: every transcript can be read again\n");
    std::fflush(log);
  }
  state.unreadableSaid = unreadable.paths;
}

}  // namespace

int runForever(const DaemonOptions& options, const ShutdownSignalSource& shutdownSignal) {
  SystemServices system;
  return runForever(options, shutdownSignal, system.services());
}

int runForever(const DaemonOptions& options, const ShutdownSignalSource& shutdownSignal, const Services& services) {
  FileSystem& fs = services.fs;
  LiveEngine engine(fs, options.pricing, LocalDay::currentTimeZoneId());
  // The machine's own files are watched for changes, so that an idle tick
  // asks about no file; any other file system is asked every time.
  if (&fs == &systemFileSystem()) engine.setFileSizeSource(makeWatchingFileSizes());
  FeedWriter writer(fs, options.feedPath, kFeedMinIntervalSeconds, services.clock);
  auto state = std::make_shared<TickState>();
  state->feedNotice = FailureNotice(services.log, "; trying again", "the feed is written again");
  state->stateNotice =
      FailureNotice(services.log, "; the engine goes on, and saves again at its next change", "the state is saved again");

  // A missing state file, or one of another version or root, is a cold
  // start. The file (megabytes on a large tree) is read within the pass,
  // while the meter reads the tree.
  auto restoreSavedState = [&](LiveEngine& fresh) {
    if (options.scratchPath.empty()) return;
    if (auto saved = PersistedStateIO::load(fs, options.scratchPath, options.root)) fresh.restore(std::move(*saved));
  };
  std::optional<InitialPassResult> pass = initialPass(fs, engine, options, services.clock.nowMs(), nullptr,
                                                      &shutdownSignal, services.clock, restoreSavedState);
  if (!pass) {
    (void)persistAndRecord(fs, engine, options, &state->stateNotice);
    return 0;
  }
  sayUnreadable(engine.unreadable(), *state, services.log);

  const InstantMs finishedAt = services.clock.nowMs();
  FeedDiagnosticsEquality check =
      TodayEqualityCheck::check(pass->accumulatorSnapshot.spentUSD, pass->accumulatorSnapshot.turns,
                                pass->odometerBundle.todayWindowedReceipt.totals.spent_usd, finishedAt, services.log);
  services.names.writeIfChanged(engine, finishedAt, options.namesPath);
  services.macAi.startBackfillIfNeeded(finishedAt);

  auto bundle = std::make_shared<const Odometer::Bundle>(std::move(pass->odometerBundle));
  {
    std::lock_guard lock(state->stateLock);
    state->lastEqualityDiagnostics = check;
    state->lastPersistAt = finishedAt;
    state->odometerBundle = bundle;
    state->lastOdometerAt = finishedAt;
  }
  // The first save runs beside the first feed's assembling, which it would
  // otherwise hold up: both only read the engine (the feed's memo of chat
  // rows aside, which is not saved). The feed reports that save.
  Feed feed;
  Status saved;
  {
    TaskGroup saving("ostler.save", {[&] {
                       if (options.scratchPath.empty()) return;
                       auto written = PersistedStateIO::save(fs, engine.persistenceView(options.root), options.scratchPath);
                       if (!written) saved = written.error();
                     }});
    feed = assembleFeed(engine, *bundle, finishedAt, options, check, {}, services);
    // The chat rows, the bulk of the feed, are encoded while the save goes
    // on; only the save's own figures must wait for it.
    writer.prepare(feed);
  }
  (void)persistAndRecord(fs, engine, options, &state->stateNotice, &saved);
  feed.diagnostics.persist = engine.persistDiagnostics();
  // The first feed exists only once the whole initial pass is done.
  writeFeed(writer, *state, feed, finishedAt);
  // The pass held a large part of the tree in memory; what it freed is of
  // no use to the ticks. Returned after the first feed, which need not wait.
  releaseFreedMemory();

  auto isShutdownRequested = [&shutdownSignal] { return shutdownSignal.isRequested(); };
  for (;;) {
    TickOutcome outcome =
        runForeverTick(engine, writer, options, state, isShutdownRequested, services.clock.nowMs(), services);
    if (outcome.shutdown) {
      // A recompute still reading the tree is of no use any more.
      services.recomputeQueue.stopAndWait();
      return outcome.exitStatus;
    }
    if (outcome.sleepSeconds > 0) (void)shutdownSignal.waitUnlessRequested(outcome.sleepSeconds);
  }
}

TickOutcome runForeverTick(LiveEngine& engine, FeedWriter& writer, const DaemonOptions& options,
                           const std::shared_ptr<TickState>& state, const std::function<bool()>& isShutdownRequested,
                           InstantMs now, const Services& services) {
  // The one point of the loop at which a shutdown is looked at.
  if (isShutdownRequested()) {
    takeOverPendingWalls(engine, *state);
    (void)persistAndRecord(services.fs, engine, options, &state->stateNotice);
    return {true, 0, 0};
  }
  const double tickStart = services.clock.monotonicSeconds();

  const std::set<std::string> touched = engine.poll(options.root, now);
  sayUnreadable(engine.unreadable(), *state, services.log);
  if (!touched.empty()) {
    for (const TranscriptFile& file : SessionDiscovery::discoverFiles(services.fs, options.root)) {
      if (file.isSubagent || !touched.contains(file.sessionId)) continue;
      services.closeoutScheduler.pollIfDue(file.sessionId, file.path,
                                           engine.lastActivity(file.sessionId).value_or(now), now);
    }
    services.names.writeIfChanged(engine, now, options.namesPath);
  }
  (void)startOdometerRecomputeIfDue(engine, options, state, now, !touched.empty(), services);
  services.macAi.pollIfDue(now);

  std::shared_ptr<const Odometer::Bundle> bundle;
  std::optional<FeedDiagnosticsEquality> equality;
  InstantMs lastPersistAt;
  {
    std::lock_guard lock(state->stateLock);
    bundle = state->odometerBundle;
    equality = state->lastEqualityDiagnostics;
    lastPersistAt = state->lastPersistAt;
  }
  takeOverPendingWalls(engine, *state);

  // The rate is capped by the tick instants of the feeds written, so that a
  // tick as long as the cap still publishes every time.
  state->touchedSinceLastFeed.insert(touched.begin(), touched.end());
  const bool feedDue = !state->lastFeedAt || secondsBetween(*state->lastFeedAt, now) >= writer.minInterval();
  if (bundle && feedDue) {
    Feed feed = assembleFeed(engine, *bundle, now, options, equality,
                             state->touchedSinceLastFeed, services);
    state->touchedSinceLastFeed.clear();
    writeFeed(writer, *state, feed, now);
  }

  if (engine.isDirty() && secondsBetween(lastPersistAt, now) >= kPersistIntervalSeconds) {
    (void)persistAndRecord(services.fs, engine, options, &state->stateNotice);
    std::lock_guard lock(state->stateLock);
    state->lastPersistAt = now;
  }

  const double spent = services.clock.monotonicSeconds() - tickStart;
  return {false, 0, std::max(0.0, options.interval - spent)};
}

}  // namespace ostler::Daemon
