// The daemon loop's pieces, driven by hand: the recompute gate and its
// backoff, the spend basis, the tick, the initial pass and saving.
#include "daemon/loop/daemon.h"

#include <gtest/gtest.h>

#include <fmt/format.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>

#include "daemon/state/persisted_state.h"
#include "line_builder.h"
#include "support/fake_clock.h"
#include "support/fake_file_system.h"

namespace ostler {
namespace {

namespace fs = std::filesystem;
using namespace testing;

const InstantMs kNow = at("2026-03-10T12:00:00Z");

// $1.00 of haiku input at `t`.
std::string dollarTurn(InstantMs t, const std::string& rid) {
  return turnLine(ISO8601::fractional(t), rid, {.input = 1'000'000}, "claude-haiku-4-5");
}

// Keeps the jobs given to it until the test runs them.
class ManualQueue final : public BackgroundQueue {
 public:
  void async(std::function<void(std::stop_token)> job) override { jobs_.push_back(std::move(job)); }
  void stopAndWait() override { stop_.request_stop(); }
  [[nodiscard]] size_t pending() const { return jobs_.size(); }
  void runAll() {
    auto jobs = std::move(jobs_);
    jobs_.clear();
    for (auto& job : jobs) job(stop_.get_token());
  }

 private:
  std::vector<std::function<void(std::stop_token)>> jobs_;
  std::stop_source stop_;
};

class RecordingScheduler final : public CloseoutScheduling {
 public:
  std::vector<std::string> paths;
  void pollIfDue(const std::string&, const std::string& path, InstantMs, InstantMs) override { paths.push_back(path); }
};

class CountingNames final : public NamesPublishing {
 public:
  int writes = 0;
  void writeIfChanged(const LiveEngine&, InstantMs, const std::string&) override { ++writes; }
};

class StopWhen final : public ShutdownSignalSource {
 public:
  explicit StopWhen(std::function<bool()> asked) : asked_(std::move(asked)) {}
  [[nodiscard]] bool isRequested() const override { return asked_(); }

 private:
  std::function<bool()> asked_;
};

// Answers true from the start, but holds its first caller long enough for
// the initial pass's wait to time out once.
StopWhen slowStop() {
  auto calls = std::make_shared<std::atomic<int>>(0);
  return StopWhen([calls] {
    if ((*calls)++ == 0) std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return true;
  });
}

struct Harness {
  TempDir dir;
  FakeClock clock{kNow};
  NoIdle idle;
  NoCloseoutStores stores;
  RecordingScheduler scheduler;
  CountingNames names;
  NoMacAiSessions macAi;
  ManualQueue queue;
  ConfigFiles configFiles;
  DaemonOptions options =
      DaemonDefaults::options({dir.str(), {}, {}, {}}, (dir.path() / "projects").string(),
                              (dir.path() / "feed.json").string(), 1.0, (dir.path() / "state" / "state.json").string());

  [[nodiscard]] Daemon::Services services() { return services(systemFileSystem(), queue); }
  [[nodiscard]] Daemon::Services services(FileSystem& fs, BackgroundQueue& jobs) {
    return {fs, clock, idle, stores, scheduler, names, macAi, jobs, configFiles, nullptr};
  }
  [[nodiscard]] fs::path transcript() const { return fs::path(options.root) / "p" / "a.jsonl"; }
};

// An engine that has read a day's dollar, and a gate that has not run yet.
struct Polled : Harness {
  LiveEngine engine{systemFileSystem(), options.pricing, "UTC"};
  std::shared_ptr<Daemon::TickState> state = std::make_shared<Daemon::TickState>();

  Polled() {
    writeFile(transcript(), jsonl({dollarTurn(kNow - 3'600'000, "r1")}));
    (void)engine.poll(options.root, kNow);
  }
  bool gate(double secondsAfterStart, bool touched) {
    return Daemon::startOdometerRecomputeIfDue(engine, options, state, kNow + int64_t(secondsAfterStart * 1000),
                                               touched, services());
  }
  // Runs the recompute the gate started, finishing at `secondsAfterStart`.
  void finishAt(double secondsAfterStart) {
    clock.set(kNow + int64_t(secondsAfterStart * 1000));
    ASSERT_EQ(queue.pending(), 1u);
    queue.runAll();
  }
};

TEST(RecomputeGateTest, TouchesOutOfBandChecksAndTheSettledBackoff) {
  Polled h;
  // No touch and no check yet: nothing can have changed.
  EXPECT_FALSE(h.gate(0, false));
  EXPECT_TRUE(h.gate(0, true));
  EXPECT_FALSE(h.gate(1, true));  // one at a time
  // The meter no longer finds the day's dollar the accumulator holds.
  fs::remove(h.transcript());
  h.finishAt(10);
  {
    std::lock_guard lock(h.state->stateLock);
    EXPECT_FALSE(h.state->odometerInFlight);
    EXPECT_EQ(h.state->lastOdometerAt, kNow + 10'000);
    // Read at the gate, not when the recompute finished.
    EXPECT_EQ(h.state->lastEqualityDiagnostics,
              (FeedDiagnosticsEquality{false, 1.0, ISO8601::fractional(kNow), 1.0, 1}));
    EXPECT_EQ(h.state->odometerBundle->windowedTokensByFamily, std::nullopt);  // the check was not yet unreconciled
    EXPECT_TRUE(h.state->pendingWalls);
    EXPECT_EQ(h.state->outOfBandBackoff, (Daemon::OutOfBandBackoffState{0, 1.0}));
  }

  // A touch waits 45 seconds from the last finish.
  EXPECT_FALSE(h.gate(54.999, true));
  EXPECT_TRUE(h.gate(55, true));
  h.finishAt(60);

  // Untouched, the divergence is looked at again every 45 seconds; the
  // residual stays put, so the small moves add up.
  double at = 60;
  for (int moves = 1; moves <= 3; ++moves) {
    EXPECT_FALSE(h.gate(at + 44.999, false));
    EXPECT_TRUE(h.gate(at + 45, false));
    at += 45;
    h.finishAt(at);
    std::lock_guard lock(h.state->stateLock);
    EXPECT_EQ(h.state->outOfBandBackoff.consecutiveSmallMoves, moves);
    EXPECT_TRUE(h.state->odometerBundle->windowedTokensByFamily);  // asked for while unreconciled
  }
  // Settled: every 600 seconds.
  EXPECT_FALSE(h.gate(at + 45, false));
  EXPECT_FALSE(h.gate(at + 599.999, false));
  EXPECT_TRUE(h.gate(at + 600, false));
  at += 600;
  h.finishAt(at);
  // A touch is due at the usual 45 seconds and resets the count, so the
  // next untouched look is 45 seconds on again.
  EXPECT_TRUE(h.gate(at + 45, true));
  at += 45;
  h.finishAt(at);
  EXPECT_TRUE(h.gate(at + 45, false));

  // Once the two sums agree again, nothing is due however long it stays so.
  writeFile(h.transcript(), jsonl({dollarTurn(kNow - 3'600'000, "r1")}));
  at += 45;
  h.finishAt(at);
  {
    std::lock_guard lock(h.state->stateLock);
    EXPECT_TRUE(h.state->lastEqualityDiagnostics->matches);
    EXPECT_EQ(h.state->outOfBandBackoff.consecutiveSmallMoves, 0);
  }
  EXPECT_FALSE(h.gate(at + 86'400, false));
}

// The spend turns windowed only once a recompute brings fresh tokens; the
// month gauge and the extra usage reason appear with their config files.
TEST(AssembleFeedTest, SpendBasisFollowsTheRecomputesAndConfigFilesAddTheirKeys) {
  Polled h;
  auto recompute = [&](double seconds, bool touched) {
    ASSERT_TRUE(h.gate(seconds, touched));
    h.finishAt(seconds);
  };
  auto feed = [&] {
    std::lock_guard lock(h.state->stateLock);
    return Daemon::assembleFeed(h.engine, *h.state->odometerBundle, h.clock.nowMs(), h.options,
                                h.state->lastEqualityDiagnostics, {}, h.services());
  };

  fs::remove(h.transcript());
  recompute(0, true);
  Feed first = feed();
  EXPECT_EQ(first.today.spent_basis, "accumulator");
  EXPECT_EQ(first.today.spent_usd, 1.0);
  EXPECT_EQ(first.today.windowed_computed_at, std::nullopt);
  EXPECT_EQ(first.windows.month, std::nullopt);
  EXPECT_EQ(first.quota.extra_usage_disabled_reason, std::nullopt);

  recompute(45, false);
  Feed second = feed();
  EXPECT_EQ(second.today.spent_basis, "windowed");
  EXPECT_EQ(second.today.spent_usd, 0.0);
  EXPECT_EQ(second.today.windowed_computed_at, ISO8601::fractional(kNow + 45'000));
  EXPECT_EQ(second.today.tokens_by_family.at("haiku"), 0);

  writeFile(h.transcript(), jsonl({dollarTurn(kNow - 3'600'000, "r1")}));
  recompute(90, false);
  // Billed since the 10th at midnight: the day's dollar, an hour old.
  writeFile(h.options.ostlerConfigPath, R"({"billing_day": 10})");
  writeFile(h.options.claudeConfigPath, R"({"cachedExtraUsageDisabledReason": "out_of_credits"})");
  Feed third = feed();
  EXPECT_EQ(third.today.spent_basis, "accumulator");
  EXPECT_EQ(third.today.spent_usd, 1.0);
  EXPECT_EQ(third.today.tokens_by_family.at("haiku"), 1'000'000);
  ASSERT_TRUE(third.windows.month);
  EXPECT_EQ(third.windows.month->anchor, "2026-03-10T00:00:00.000Z");
  EXPECT_EQ(third.windows.month->burn_value, 1.0);
  EXPECT_EQ(third.quota.extra_usage_disabled_reason, "out_of_credits");
}

// A tick with a bundle in place, as after the initial pass.
struct Ticking : Harness {
  LiveEngine engine{systemFileSystem(), options.pricing, "UTC"};
  std::shared_ptr<Daemon::TickState> state = std::make_shared<Daemon::TickState>();
  FeedWriter writer{systemFileSystem(), options.feedPath, Daemon::kFeedMinIntervalSeconds, clock};

  Ticking() {
    writeFile(transcript(), jsonl({dollarTurn(kNow - 3'600'000, "r1")}));
    writeFile(fs::path(options.root) / "p" / "a" / "subagents" / "x.jsonl",
              jsonl({dollarTurn(kNow - 3'500'000, "r2")}));
    auto pass = Daemon::initialPass(systemFileSystem(), engine, options, kNow, nullptr, nullptr, clock);
    std::lock_guard lock(state->stateLock);
    state->odometerBundle = std::make_shared<const Odometer::Bundle>(std::move(pass->odometerBundle));
    state->lastOdometerAt = kNow;
    state->lastPersistAt = kNow;
    state->lastEqualityDiagnostics = FeedDiagnosticsEquality{true, 0, ISO8601::fractional(kNow), 2.0, 2};
  }
  Daemon::TickOutcome tick(double secondsAfterStart, bool stop = false) {
    return Daemon::runForeverTick(
        engine, writer, options, state, [stop] { return stop; }, kNow + int64_t(secondsAfterStart * 1000), services());
  }
  [[nodiscard]] Feed readFeed() const { return decodeFeedJSON(readFile(options.feedPath)).value(); }
};

TEST(DaemonTickTest, WritesTheFeedOncePerSecondAndSleepsTheRestOfTheInterval) {
  Ticking t;
  {
    // No bundle yet, no feed at all.
    auto saved = std::exchange(t.state->odometerBundle, nullptr);
    EXPECT_FALSE(t.tick(0.5).shutdown);
    EXPECT_FALSE(fs::exists(t.options.feedPath));
    t.state->odometerBundle = saved;
  }
  EXPECT_EQ(t.tick(1).sleepSeconds, 1.0);
  Feed f = t.readFeed();
  EXPECT_EQ(f.generated_at, ISO8601::fractional(kNow + 1000));
  EXPECT_EQ(f.today.spent_usd, 2.0);
  EXPECT_EQ(f.odometer.spent_usd, 2.0);
  EXPECT_EQ(f.diagnostics.equality->accumulator_turns, 2);

  // Half a second later the feed is not due; a second after the last it is.
  (void)t.tick(1.999);
  EXPECT_EQ(t.readFeed().generated_at, ISO8601::fractional(kNow + 1000));
  (void)t.tick(2);
  EXPECT_EQ(t.readFeed().generated_at, ISO8601::fractional(kNow + 2000));

  // A tick that took 0.7 s sleeps 0.3 s; one longer than the interval, none.
  t.clock.setMonotonicStep(0.7);
  EXPECT_NEAR(t.tick(3).sleepSeconds, 0.3, 1e-9);
  t.clock.setMonotonicStep(1.5);
  EXPECT_EQ(t.tick(4).sleepSeconds, 0.0);
  t.clock.setMonotonicStep(0);

  // Nothing was touched: the scheduler and the names file heard nothing,
  // and with a matching check no recompute ran.
  EXPECT_TRUE(t.scheduler.paths.empty());
  EXPECT_EQ(t.names.writes, 0);
  EXPECT_EQ(t.queue.pending(), 0u);

  // A new line: the chat's top-level file goes to the scheduler (not its
  // subagent file), the names are written, and the row moves at once.
  appendFile(t.transcript(), jsonl({dollarTurn(kNow + 4'500, "r3")}));
  (void)t.tick(5);
  EXPECT_EQ(t.scheduler.paths, (std::vector<std::string>{t.transcript().string()}));
  EXPECT_EQ(t.names.writes, 1);
  f = t.readFeed();
  EXPECT_EQ(f.today.spent_usd, 3.0);
  EXPECT_EQ(f.sessions_all.at(0).last_activity, ISO8601::fractional(kNow + 4'500));
  // A touch on a tick that writes no feed still rebuilds the chat's row in
  // the next feed written.
  appendFile(t.transcript(), jsonl({dollarTurn(kNow + 5'100, "r4")}));
  (void)t.tick(5.5);
  (void)t.tick(6);
  f = t.readFeed();
  EXPECT_EQ(f.generated_at, ISO8601::fractional(kNow + 6'000));
  EXPECT_EQ(f.sessions_all.at(0).last_activity, ISO8601::fractional(kNow + 5'100));
  // Touched, but the last recompute finished only seconds ago; then no
  // touch since.
  EXPECT_EQ(t.queue.pending(), 0u);
  (void)t.tick(45);
  EXPECT_EQ(t.queue.pending(), 0u);

  // After midnight without new lines the accumulator rolls over and the old
  // bundle stands.
  (void)t.tick(13 * 3600);
  f = t.readFeed();
  EXPECT_EQ(f.today.spent_usd, 0.0);
  EXPECT_EQ(f.odometer.spent_usd, 2.0);
  EXPECT_EQ(t.queue.pending(), 0u);
}

TEST(DaemonTickTest, SavesEveryFiveMinutesWhileDirtyAndOnShutdownAndCountsEverySave) {
  Ticking t;
  const auto sizeOfState = [&] { return static_cast<int64_t>(fs::file_size(t.options.scratchPath)); };
  // The ticks' own saves are watched from here.
  fs::remove(t.options.scratchPath);
  (void)t.tick(1);
  ASSERT_TRUE(t.engine.isDirty());
  (void)t.tick(299.999);
  EXPECT_FALSE(fs::exists(t.options.scratchPath));
  (void)t.tick(300);
  const int64_t first = sizeOfState();
  EXPECT_FALSE(t.engine.isDirty());
  EXPECT_EQ(t.engine.persistDiagnostics(), (FeedDiagnosticsPersist{1, first, first}));
  (void)t.tick(601);  // clean: nothing to save
  EXPECT_EQ(t.engine.persistDiagnostics()->count_since_start, 1);
  EXPECT_EQ(t.readFeed().diagnostics.persist, t.engine.persistDiagnostics());

  // Walls of a finished recompute reach the engine between polls, and
  // are saved with it, 300 seconds after the last save.
  WindowScan::Walls walls;
  walls.week.latestResetPhrase = "resets mon 9am";
  t.state->pendingWalls = walls;
  (void)t.tick(602);
  EXPECT_EQ(t.engine.cachedWalls(), walls);
  const int64_t second = sizeOfState();
  EXPECT_EQ(t.engine.persistDiagnostics(), (FeedDiagnosticsPersist{2, second, first + second}));
  EXPECT_FALSE(t.state->pendingWalls);
  EXPECT_EQ(t.readFeed().windows.week.resets_note, "resets mon 9am");

  // A save that fails is counted with no bytes and still clears dirty.
  const std::string scratch = std::exchange(t.options.scratchPath, (t.dir.path() / "feed.json" / "x").string());
  walls.session.latestResetPhrase = "resets 4pm";
  t.state->pendingWalls = walls;
  (void)t.tick(903);
  EXPECT_FALSE(t.engine.isDirty());
  EXPECT_EQ(t.engine.persistDiagnostics(), (FeedDiagnosticsPersist{3, 0, first + second}));

  // The stop saves what the tick has, walls handed over last included.
  t.options.scratchPath = scratch;
  walls.session.latestResetPhrase = "resets 5pm";
  t.state->pendingWalls = walls;
  Daemon::TickOutcome stop = t.tick(904, true);
  EXPECT_TRUE(stop.shutdown);
  EXPECT_EQ(stop.exitStatus, 0);
  auto saved = PersistedStateIO::load(systemFileSystem(), t.options.scratchPath, t.options.root);
  ASSERT_TRUE(saved);
  EXPECT_EQ(saved->cachedWalls, walls);
  EXPECT_EQ(t.engine.persistDiagnostics()->count_since_start, 4);
}

// A recompute still reading the tree when the process is asked to stop ends
// within its reading, leaves the last figures standing, and is joined.
TEST(RecomputeTest, AStopEndsARecomputeInFlightWithinItsReading) {
  testing::FakeFileSystem fake;
  constexpr int kFiles = 400;
  for (int f = 0; f < kFiles; ++f)
    fake.put(fmt::format("/r/-p/{}.jsonl", f),
             jsonl({dollarTurn(kNow - 3'600'000, fmt::format("r{}", f)), testing::userTextLine("go on")}));
  // The tenth read holds the reading until the stop is on its way, so that
  // a loaded machine cannot let the reading run through every file first.
  std::atomic<int> reads{0};
  std::atomic<bool> stopping{false};
  std::mutex mutex;
  std::condition_variable tenth;
  fake.onRead([&](const std::string&) {
    if (++reads != 10) return;
    tenth.notify_all();
    while (!stopping) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  });
  Harness h;
  h.options.root = "/r";
  ThreadQueue queue;
  LiveEngine engine(fake, h.options.pricing, "UTC");
  auto state = std::make_shared<Daemon::TickState>();
  const auto before = std::make_shared<const Odometer::Bundle>();
  state->odometerBundle = before;
  ASSERT_TRUE(Daemon::startOdometerRecomputeIfDue(engine, h.options, state, kNow, true, h.services(fake, queue)));
  {
    std::unique_lock lock(mutex);
    tenth.wait(lock, [&] { return reads >= 10; });
  }
  stopping = true;
  queue.stopAndWait();
  EXPECT_LT(reads, kFiles);  // each file is read at least once by a whole recompute
  std::lock_guard lock(state->stateLock);
  EXPECT_FALSE(state->odometerInFlight);
  EXPECT_EQ(state->odometerBundle, before);
}

TEST(InitialPassTest, FiguresOfEveryJobOnColdAndWarmStartsAndNoneWhenStopped) {
  Harness h;
  writeFile(h.transcript(), jsonl({dollarTurn(kNow - 3'600'000, "r1"), dollarTurn(kNow - 90'000'000, "r0")}));
  // A shutdown waits for the jobs, and the live poll stops at its first file.
  StopWhen stop = slowStop();
  LiveEngine stopped(systemFileSystem(), h.options.pricing, "UTC");
  EXPECT_EQ(Daemon::initialPass(systemFileSystem(), stopped, h.options, kNow, nullptr, &stop, h.clock), std::nullopt);
  EXPECT_TRUE(stopped.fileOffsets().empty());

  LiveEngine cold(systemFileSystem(), h.options.pricing, "UTC");
  auto pass = Daemon::initialPass(systemFileSystem(), cold, h.options, kNow, nullptr, nullptr, h.clock);
  ASSERT_TRUE(pass);
  EXPECT_EQ(pass->accumulatorSnapshot.spentUSD, 1.0);
  EXPECT_EQ(pass->odometerBundle.lifetimeReceipt.totals.spent_usd, 2.0);
  EXPECT_EQ(pass->odometerBundle.todayWindowedReceipt.totals.spent_usd, 1.0);
  EXPECT_EQ(pass->odometerBundle.windowedTokensByFamily, (std::map<std::string, int64_t>{{"haiku", 1'000'000}}));
  EXPECT_TRUE(cold.cachedWalls());

  // A restored engine reads nothing new and its check matches, so no fresh
  // family count is read: the feed could not use it. The state is restored
  // within the pass, as the daemon does it.
  LiveEngine warm(systemFileSystem(), h.options.pricing, "UTC");
  const PersistedState saved = cold.snapshotForPersistence(h.options.root);
  auto again = Daemon::initialPass(systemFileSystem(), warm, h.options, kNow, nullptr, nullptr, h.clock,
                                   [&saved](LiveEngine& engine) { engine.restore(saved); });
  ASSERT_TRUE(again);
  EXPECT_EQ(again->accumulatorSnapshot.spentUSD, 1.0);
  EXPECT_EQ(again->odometerBundle.windowedTokensByFamily, std::nullopt);
  EXPECT_EQ(warm.exclusionsSnapshot(), std::nullopt);

  // A restored accumulator holding a turn the tree no longer has diverges:
  // then the fresh count is read, and it knows only what the tree holds.
  writeFile(h.transcript(), jsonl({dollarTurn(kNow - 90'000'000, "r0")}));
  LiveEngine diverged(systemFileSystem(), h.options.pricing, "UTC");
  diverged.restore(saved);
  auto third = Daemon::initialPass(systemFileSystem(), diverged, h.options, kNow, nullptr, nullptr, h.clock);
  ASSERT_TRUE(third);
  EXPECT_EQ(third->accumulatorSnapshot.spentUSD, 1.0);
  EXPECT_EQ(third->odometerBundle.todayWindowedReceipt.totals.spent_usd, 0.0);
  EXPECT_EQ(third->odometerBundle.windowedTokensByFamily, (std::map<std::string, int64_t>{}));
}

TEST(RunForeverTest, AStopBeforeTheFirstFeedLeavesTheOldOneAndTheFirstReportsItsSave) {
  Harness h;
  writeFile(h.transcript(), jsonl({dollarTurn(kNow - 3'600'000, "r1"), dollarTurn(kNow - 90'000'000, "r0")}));
  // Stopped during the initial pass: a final save, and the previous feed is
  // left alone.
  writeFile(h.options.feedPath, "previous");
  StopWhen early = slowStop();
  EXPECT_EQ(Daemon::runForever(h.options, early, h.services()), 0);
  EXPECT_EQ(readFile(h.options.feedPath), "previous");
  EXPECT_TRUE(PersistedStateIO::load(systemFileSystem(), h.options.scratchPath, h.options.root));

  // Once the first feed exists, the loop saves and ends at its next tick.
  fs::remove(h.options.feedPath);
  StopWhen stop([&h] { return fs::exists(h.options.feedPath); });
  EXPECT_EQ(Daemon::runForever(h.options, stop, h.services()), 0);
  const Feed feed = decodeFeedJSON(readFile(h.options.feedPath)).value();
  EXPECT_EQ(feed.today.spent_usd, 1.0);
  EXPECT_EQ(feed.odometer.spent_usd, 2.0);
  // One save before the feed; the final save wrote the same state again.
  const auto bytes = static_cast<int64_t>(fs::file_size(h.options.scratchPath));
  EXPECT_EQ(feed.diagnostics.persist, (FeedDiagnosticsPersist{1, bytes, bytes}));
  auto saved = PersistedStateIO::load(systemFileSystem(), h.options.scratchPath, h.options.root);
  ASSERT_TRUE(saved);
  EXPECT_TRUE(saved->cachedWalls);
  EXPECT_EQ(saved->seenRequestIds.size(), 2u);
}

}  // namespace
}  // namespace ostler
