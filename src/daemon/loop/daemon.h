// The daemon loop: it warms up the engine, pays for one heavy initial pass,
// and then ticks at the configured interval until it is asked to stop. Each
// tick polls the transcripts, hands grown chats to the closeout scheduler,
// starts a background recompute of the heavy figures when one is due,
// assembles the feed and writes it, and now and then saves the engine's
// state.
//
// The loop never ends the process itself: a shutdown comes back as an
// outcome, after a final save, with every thread the loop started joined
// (a recompute still running is asked to stop first), and the caller ends
// the process.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "daemon/engine/closeout_progress_source.h"
#include "daemon/loop/config_files.h"
#include "daemon/loop/daemon_companions.h"
#include "daemon/loop/daemon_options.h"
#include "daemon/feed/feed.h"
#include "daemon/feed/feed_writer.h"
#include "daemon/engine/live_engine.h"
#include "daemon/loop/odometer.h"
#include "daemon/engine/shutdown_signal_source.h"
#include "daemon/loop/tick_state.h"
#include "meter/meter_engine.h"
#include "platform/clock.h"
#include "platform/hid_idle_source.h"

namespace ostler::Daemon {

// How often the state is saved while it changes.
inline constexpr double kPersistIntervalSeconds = 300.0;
// The feed is written at most this often.
inline constexpr double kFeedMinIntervalSeconds = 1.0;
// A diverged check that stays put is recomputed this rarely.
inline constexpr double kSettledRecomputeIntervalSeconds = 600.0;
// Recomputes in a row within a cent of each other that settle a divergence.
inline constexpr int64_t kSettledSmallMoves = 3;
inline constexpr double kSmallMoveUSD = 0.01;
// How often the initial pass looks at the shutdown signal.
inline constexpr double kShutdownCheckSeconds = 0.2;
// Image loops are shown for ten minutes after their last image.
inline constexpr double kActiveMediaLoopSeconds = 600.0;

// Everything the loop reaches beyond the engine and the files it is given.
// The referenced objects must outlive the loop and any recompute it started.
struct Services {
  FileSystem& fs;
  const Clock& clock;
  const HIDIdleSource& idle;
  const CloseoutProgressSource& closeoutStores;
  CloseoutScheduling& closeoutScheduler;
  NamesPublishing& names;
  MacAiSessionsSource& macAi;
  BackgroundQueue& recomputeQueue;
  ConfigFiles& configFiles;
  std::FILE* log;  // the standard error stream in the daemon
};

// The system's implementations: the machine's file system, clock and idle
// reading, a thread of its own for the recompute, standard error, and the
// stand-ins for the services this build has none of.
class SystemServices {
 public:
  [[nodiscard]] Services services() {
    return {systemFileSystem(), systemClock(), idle_, stores_, scheduler_, names_, macAi_, queue_, configFiles_,
            stderr};
  }

 private:
  SystemHIDIdleSource idle_;
  NoCloseoutStores stores_;
  NoCloseoutScheduling scheduler_;
  NoNamesPublishing names_;
  NoMacAiSessions macAi_;
  ThreadQueue queue_;
  ConfigFiles configFiles_;
};

struct InitialPassResult {
  Odometer::Bundle odometerBundle;
  double liveSeconds = 0;           // wall time of each job
  double lifetimeSeconds = 0;
  double todayWindowedSeconds = 0;
  double windowScanSeconds = 0;
  LiveEngine::TodayAccumulatorSnapshot accumulatorSnapshot;  // today after the live poll
};

struct TickOutcome {
  bool shutdown = false;    // the loop is to end; state was saved
  int exitStatus = 0;       // with `shutdown`
  double sleepSeconds = 0;  // before the next tick: the interval less the tick's own time, at least 0
};

// Runs the loop until `shutdownSignal` asks it to stop, and returns the
// process's exit status (0). Restores the saved state when it belongs to
// `options.root`; writes the first feed only once the initial pass is done.
[[nodiscard]] int runForever(const DaemonOptions& options, const ShutdownSignalSource& shutdownSignal);
[[nodiscard]] int runForever(const DaemonOptions& options, const ShutdownSignalSource& shutdownSignal,
                             const Services& services);

// One tick at `now`. A shutdown is looked at here only, first: it saves the
// state and returns a shutdown outcome.
[[nodiscard]] TickOutcome runForeverTick(LiveEngine& engine, FeedWriter& writer, const DaemonOptions& options,
                                         const std::shared_ptr<TickState>& state,
                                         const std::function<bool()>& isShutdownRequested, InstantMs now,
                                         const Services& services);

// Five jobs at once: the live engine's poll, the lifetime and today meter
// passes, the window scan and today's tokens from a fresh read. Nothing when
// a shutdown was requested during the pass; the jobs are always waited for.
// Hands the walls to the engine. Reads the clock only to time the jobs.
// `prepareEngine`, when given, runs first within the live engine's job (it
// restores the saved state there, so that reading the state file overlaps
// the meter's reading of the tree); the engine is untouched until then.
[[nodiscard]] std::optional<InitialPassResult> initialPass(
    FileSystem& fs, LiveEngine& engine, const DaemonOptions& options, InstantMs now,
    const ProgressCallback& onProgress, const ShutdownSignalSource* shutdownSignal,
    const Clock& clock = systemClock(), const std::function<void(LiveEngine&)>& prepareEngine = {});

// Starts a background recompute when one is due: never while one runs; after
// a touch once `odometerMinInterval` has passed since the last finished;
// without a touch only while the last check diverged, then every
// `odometerMinInterval`, or every 600 seconds once the residual has settled.
// Returns whether it started one.
bool startOdometerRecomputeIfDue(const LiveEngine& engine, const DaemonOptions& options,
                                 const std::shared_ptr<TickState>& state, InstantMs now, bool touchedSinceLast,
                                 const Services& services);

// Saves the engine's state and notes the save on the engine. Returns the
// size of the state file, 0 when it cannot be read. A failed save is said
// on `notice` and tried again at the next save; the engine goes on all the
// same. With `alreadySaved`, the outcome of a save made beside the first
// feed's assembling, only the save is noted. Without a state file (its
// folder was refused) nothing is saved: the state lives in memory only.
int64_t persistAndRecord(FileSystem& fs, LiveEngine& engine, const DaemonOptions& options,
                         FailureNotice* notice = nullptr, const Status* alreadySaved = nullptr);

// The feed at `now` from the engine's snapshots and the bundle's figures.
// Spend is published from the windowed receipt while the last check
// diverged and the bundle carries fresh family tokens.
[[nodiscard]] Feed assembleFeed(LiveEngine& engine, const Odometer::Bundle& odometerBundle, InstantMs now,
                                const DaemonOptions& options,
                                const std::optional<FeedDiagnosticsEquality>& equalityDiagnostics,
                                const std::set<std::string>& touchedSessionIds, const Services& services);

}  // namespace ostler::Daemon
