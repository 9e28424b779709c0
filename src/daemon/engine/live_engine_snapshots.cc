// What the live engine publishes each tick beside the window gauges: today,
// the quota, the chats, the live figures and the active image loops.
#include <algorithm>

#include "daemon/engine/active_dispatches.h"
#include "daemon/engine/live_engine.h"
#include "daemon/feed/agents_by_model_aggregate.h"
#include "daemon/engine/nudge_derivation.h"
#include "daemon/engine/prompt_state.h"
#include "daemon/engine/temperature.h"
#include "daemon/engine/today_share.h"

namespace ostler {
namespace {

// Five images or more in one run make a loop.
constexpr int64_t kLoopImageCount = 5;

std::string projectName(const SessionLiveState& s) {
  return s.project.empty() ? fallbackProject(s.projectDirPath) : s.project;
}

std::string transcriptPath(const std::string& projectDirPath, const std::string& sessionId) {
  std::string path = projectDirPath;
  if (path.empty() || path.back() != '/') path += '/';
  return path + sessionId + ".jsonl";
}

}  // namespace

const std::vector<std::string>& LiveEngine::activeDispatchFiles(const std::string& sessionId,
                                                                const SessionLiveState& s, InstantMs now) const {
  static const std::vector<std::string> kNone;
  if (!sessionsWithSubagentFiles_.contains(sessionId)) return kNone;
  if (dispatchMemoAt_ != now) {
    dispatchMemo_.clear();
    dispatchMemoAt_ = now;
  }
  if (auto known = dispatchMemo_.find(sessionId); known != dispatchMemo_.end()) return known->second;
  std::vector<std::string> files =
      ActiveDispatches::files(fs_, s.projectDirPath, sessionId, now, kActiveDispatchWithinSeconds);
  return dispatchMemo_.emplace(sessionId, std::move(files)).first->second;
}

FeedToday LiveEngine::snapshotToday(double windowedWasteUSD, double windowedMediaReadsUSD,
                                    double windowedRepeatPipelinesUSD, double windowedDownshiftUSD,
                                    const std::optional<WindowedTodayOverride>& publishedSpendOverride) const {
  const auto& o = publishedSpendOverride;
  FeedToday t;
  t.spent_usd = roundUSD(o ? o->spentUSD : todaySpentUSD_);
  t.turns = o ? o->turns : todayTurns_;
  // A reader can sum the four families without guarding keys.
  t.tokens_by_family = {{"fable", 0}, {"opus", 0}, {"sonnet", 0}, {"haiku", 0}};
  for (const auto& [family, tokens] : o ? o->tokensByFamily : todayTokensByFamily_) t.tokens_by_family[family] = tokens;
  t.avoidable_usd =
      roundUSD(windowedWasteUSD + windowedMediaReadsUSD + windowedRepeatPipelinesUSD + windowedDownshiftUSD);
  t.avoidable_share = TodayShare::avoidableShare(t.avoidable_usd, t.spent_usd);
  t.avoidable_share_split = TodayShare::avoidableShareSplit(windowedMediaReadsUSD + windowedRepeatPipelinesUSD,
                                                            windowedWasteUSD + windowedDownshiftUSD, t.spent_usd);
  t.spent_basis = o ? "windowed" : "accumulator";
  if (o) t.windowed_computed_at = o->computedAt;
  return t;
}

FeedQuota LiveEngine::snapshotQuota() const {
  FeedQuota q;
  q.last_limit_event_at = quotaLastEventAt_;
  q.resets_note = quotaResetsNote_;
  if (auto until = resolvedQuotaResetInstant()) q.limited_until = ISO8601::fractional(*until);
  return q;
}

LiveEngine::BuiltFeedSession LiveEngine::buildFeedSession(const std::string& sessionId, const SessionLiveState& s,
                                                          InstantMs last, InstantMs now,
                                                          const CloseoutProgressSource& stores,
                                                          const std::string& closeoutStoreBase,
                                                          double idleSeconds) const {
  FeedSession row;
  row.sessionId = sessionId;
  row.project = projectName(s);
  row.active_dispatches = static_cast<int64_t>(activeDispatchFiles(sessionId, s, now).size());
  Temperature::Result t = Temperature::evaluate(
      {s.lastContextTokens, s.lastModel, last, s.lastCacheWriteWasEphemeral1h}, now, pricing_);
  // Only the top-level transcript is digested; subagent files play no part.
  std::optional<DaemonPromptState> prompt =
      PromptStateSnapshot::compute(fs_, sessionId, transcriptPath(s.projectDirPath, sessionId), closeoutStoreBase, stores,
                                   stores.measuredThroughputBytesPerSecond(closeoutStoreBase));
  if (prompt) row.prompt_state = prompt->wireValue();
  row.nudge_state = NudgeDerivation::derive(last, s.lastCacheWriteWasEphemeral1h, now, idleSeconds,
                                            NudgeDerivation::kProvisionalPresenceThresholdSeconds)
                        .wireValue();
  row.context_tokens = s.lastContextTokens;
  row.temperature = t.temperature;
  row.rewarm_usd = t.rewarm_usd;
  row.fresh_usd = t.fresh_usd;
  row.last_activity = ISO8601::fractional(last);
  return {std::move(row), t.temperature, t.rewarm_usd};
}

LiveEngine::SessionsSnapshot LiveEngine::snapshotSessions(InstantMs now, const CloseoutProgressSource& stores,
                                                          const std::string& closeoutStoreBase,
                                                          const HIDIdleSource& idle,
                                                          const std::set<std::string>& touchedSessionIds) {
  SessionsSnapshot snap;
  const double idleSeconds = idle.idleSeconds();
  const InstantMs cutoff = now - kRecentSessionsMs;

  std::vector<std::pair<InstantMs, FeedSession>> warm;
  std::vector<std::pair<double, FeedSession>> cold;
  for (const auto& [sid, s] : sessionState_) {
    if (!s.lastActivity || *s.lastActivity < cutoff) continue;
    // A chat with no priced turn has nothing to rewarm.
    if (!s.contextTurnAt || s.lastContextTokens < 1) {
      ++snap.zeroContextSessions;
      continue;
    }
    BuiltFeedSession built = buildFeedSession(sid, s, *s.lastActivity, now, stores, closeoutStoreBase, idleSeconds);
    if (built.temperature == "warm")
      warm.emplace_back(*s.lastActivity, std::move(built.session));
    else
      cold.emplace_back(built.rewarmUsd, std::move(built.session));
  }
  std::stable_sort(warm.begin(), warm.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  std::stable_sort(cold.begin(), cold.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  for (auto& [at, row] : warm) snap.sessions.push_back(std::move(row));
  for (auto& [usd, row] : cold) snap.sessions.push_back(std::move(row));
  if (snap.sessions.size() > kRecentSessionsLimit) snap.sessions.resize(kRecentSessionsLimit);

  const auto cadenceMs = static_cast<InstantMs>(kSessionsAllInventoryCadenceSeconds * 1000);
  std::vector<std::pair<InstantMs, const FeedSession*>> all;
  all.reserve(sessionState_.size());
  // The memo holds rows of known chats only and both maps are ordered by
  // id, so one walk through the memo finds every row.
  auto memo = sessionsAllMemo_.begin();
  for (const auto& [sid, s] : sessionState_) {
    const InstantMs last = s.lastActivity.value_or(kEarliestInstant);
    while (memo != sessionsAllMemo_.end() && memo->first < sid) ++memo;
    if (memo == sessionsAllMemo_.end() || memo->first != sid || touchedSessionIds.contains(sid) ||
        now - memo->second.builtAt >= cadenceMs) {
      BuiltFeedSession built = buildFeedSession(sid, s, last, now, stores, closeoutStoreBase, idleSeconds);
      memo = sessionsAllMemo_.insert_or_assign(sid, SessionsAllMemoEntry{std::move(built.session), now}).first;
      ++snap.sessionsAllRebuiltCount;
    }
    all.emplace_back(last, &memo->second.session);
  }
  std::stable_sort(all.begin(), all.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  snap.sessionsAll.reserve(all.size());
  for (const auto& [last, row] : all) snap.sessionsAll.push_back(*row);
  return snap;
}

FeedNow LiveEngine::snapshotNow(InstantMs now) const {
  FeedNow n;
  std::vector<std::string> models;
  for (const auto& [sid, s] : sessionState_) {
    for (const auto& path : activeDispatchFiles(sid, s, now)) {
      ++n.active_agents;
      auto model = subagentLastModel_.find(path);
      // A file with no assistant line yet has no model to name.
      if (model == subagentLastModel_.end())
        models.emplace_back(AgentsByModelAggregate::kPending);
      else
        models.push_back(TodayShare::modelFamily(model->second).value_or(AgentsByModelAggregate::kUnrecognized));
    }
  }
  int64_t tokens = 0;
  for (const BurnEvent& b : recentBurns_)
    if (b.timestamp > now - kTokenRateWindowMs && b.timestamp <= now) tokens += b.tokens;
  // Integer division truncates toward zero, also for a negative sum of
  // shrinking request totals.
  n.rate_tokens_per_min = tokens / (kTokenRateWindowMs / 60'000);
  if (!models.empty()) {
    n.agents_by_model = AgentsByModelAggregate::aggregate(models, [&](const std::string& family) {
      auto rate = pricing_.rates.find("claude-" + family);
      return rate == pricing_.rates.end() ? 0.0 : rate->second.input;
    });
  }
  return n;
}

std::vector<FeedMediaLoopActive> LiveEngine::snapshotActiveMediaLoops(InstantMs now, double activeWithinSeconds) const {
  std::vector<FeedMediaLoopActive> loops;
  for (const auto& [path, media] : fileMediaState_) {
    if (media.runImageCount < kLoopImageCount || !media.runLastImageAt) continue;
    if (static_cast<double>(now - *media.runLastImageAt) / 1000.0 >= activeWithinSeconds) continue;
    auto session = sessionState_.find(media.sessionId);
    if (session == sessionState_.end()) continue;
    loops.push_back({media.sessionId, projectName(session->second), media.runImageCount,
                     roundUSD(media.runUsdSoFar), media.runTokensSoFar});
  }
  std::stable_sort(loops.begin(), loops.end(),
                   [](const FeedMediaLoopActive& a, const FeedMediaLoopActive& b) { return a.usd_so_far > b.usd_so_far; });
  return loops;
}

void LiveEngine::recordPersist(int64_t bytes) {
  isDirty_ = false;
  ++persistCountSinceStart_;
  persistBytesLast_ = bytes;
  persistBytesSinceStart_ += bytes;
}

std::optional<FeedDiagnosticsPersist> LiveEngine::persistDiagnostics() const {
  if (persistCountSinceStart_ < 1) return std::nullopt;
  return FeedDiagnosticsPersist{persistCountSinceStart_, persistBytesLast_, persistBytesSinceStart_};
}

}  // namespace ostler
