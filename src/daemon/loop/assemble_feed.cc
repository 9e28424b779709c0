// The feed as the tick assembles it, and the save of the engine's state.
#include "daemon/loop/daemon.h"
#include "daemon/windows/month_anchor.h"
#include "daemon/state/persisted_state.h"

namespace ostler::Daemon {
namespace {

double macFirstUSD(const Receipt& r, std::string_view key) {
  for (const auto& c : r.mac_first.categories)
    if (c.key == key) return c.usd;
  return 0;
}

}  // namespace

int64_t persistAndRecord(FileSystem& fs, LiveEngine& engine, const DaemonOptions& options, FailureNotice* notice,
                         const Status* alreadySaved) {
  if (options.scratchPath.empty()) return 0;
  // A failed save is not retried at once: `isDirty` is cleared all the same,
  // so the next save waits for the next change.
  Status saved;
  if (alreadySaved != nullptr) {
    saved = *alreadySaved;
  } else if (auto written = PersistedStateIO::save(fs, engine.persistenceView(options.root), options.scratchPath);
             !written) {
    saved = written.error();
  }
  if (notice != nullptr) notice->update(saved);
  auto info = fs.stat(options.scratchPath);
  const int64_t bytes = info ? static_cast<int64_t>(info.value().size) : 0;
  engine.recordPersist(bytes);
  return bytes;
}

Feed assembleFeed(LiveEngine& engine, const Odometer::Bundle& odometerBundle, InstantMs now,
                  const DaemonOptions& options,
                  const std::optional<FeedDiagnosticsEquality>& equalityDiagnostics,
                  const std::set<std::string>& touchedSessionIds, const Services& services) {
  Feed feed;
  feed.generated_at = ISO8601::fractional(now);
  feed.odometer = odometerBundle.odometer;

  LiveEngine::SessionsSnapshot sessions =
      engine.snapshotSessions(now, services.closeoutStores, options.closeoutStorePath, services.idle, touchedSessionIds);
  feed.sessions = std::move(sessions.sessions);
  feed.zero_context_sessions = sessions.zeroContextSessions;
  feed.sessions_all = std::move(sessions.sessionsAll);

  // While the last check diverged, spend is published from the windowed
  // receipt, once a recompute has brought tokens from a fresh read to go
  // with it; until then the accumulator stands.
  const Receipt& windowed = odometerBundle.todayWindowedReceipt;
  std::optional<LiveEngine::WindowedTodayOverride> override;
  if (equalityDiagnostics && !equalityDiagnostics->matches && odometerBundle.windowedTokensByFamily)
    override = LiveEngine::WindowedTodayOverride{windowed.totals.spent_usd, windowed.totals.turns,
                                                 *odometerBundle.windowedTokensByFamily,
                                                 equalityDiagnostics->checked_at};
  feed.today = engine.snapshotToday(windowed.waste.total_usd, macFirstUSD(windowed, "media_reads"),
                                    macFirstUSD(windowed, "repeat_pipelines"), macFirstUSD(windowed, "downshift"),
                                    override);

  feed.quota = engine.snapshotQuota();
  feed.quota.extra_usage_disabled_reason =
      services.configFiles.extraUsageDisabledReason(services.fs, options.claudeConfigPath);
  feed.windows = engine.snapshotWindows(now);
  if (auto day = services.configFiles.billingDay(services.fs, options.ostlerConfigPath))
    if (auto anchor = MonthAnchor::anchor(*day, now, engine.timeZoneId()))
      feed.windows.month = engine.snapshotMonthWindow(*anchor, now);
  feed.now = engine.snapshotNow(now);
  feed.now.mac_ai_sessions = services.macAi.feedSessions(now);
  feed.media_loops_active = engine.snapshotActiveMediaLoops(now, kActiveMediaLoopSeconds);
  if (engine.parserAlarmTripped()) feed.parser_alarm = true;

  feed.diagnostics.persist = engine.persistDiagnostics();
  feed.diagnostics.exclusions = engine.exclusionsSnapshot();
  feed.diagnostics.equality = equalityDiagnostics;
  if (const int64_t unreadable = engine.unreadable().count(); unreadable > 0)
    feed.diagnostics.unreadable_files = unreadable;
  return feed;
}

}  // namespace ostler::Daemon
