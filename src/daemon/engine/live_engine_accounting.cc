// The fold of assistant and user lines into the live figures.
//
// Claude Code writes one API request as several lines under one requestId,
// each with the request's running usage. Each file keeps the request its last
// assistant line left open; a further line of that request adds only its rise
// over the previous line, so a request counts once, at its last line, without
// any file being read twice. A request id folded anywhere before (another
// file, an earlier pass over a file that shrank) is refused whole.
#include "daemon/engine/case_folding.h"
#include "daemon/engine/live_engine.h"
#include "daemon/windows/resets_phrase.h"
#include "daemon/engine/today_share.h"
#include "transcript/request_runs.h"
#include "transcript/text.h"

namespace ostler {

namespace {

// Image runs: a run goes on across up to three user lines without images.
constexpr int64_t kRunBreakStreak = 4;

int64_t tokenTotal(const TurnUsage& u) { return CostMath::context(u) + u.output; }

}  // namespace

void LiveEngine::processAssistant(const LiveLine& line, SessionLiveState& session, FileMediaState& media,
                                  InstantMs now) {
  const std::string_view model = line.model;
  const TurnUsage usage = line.usage;
  const PricingRate rate = rates_.resolve(model, pricing_).rate;
  if (rates_.changed()) pricedFamily_ = TodayShare::modelFamily(model);
  const double cost = CostMath::totalCost(usage, rate);
  const int64_t context = CostMath::context(usage);
  const int64_t total = tokenTotal(usage);

  const std::optional<InstantMs> ts = line.instant;
  if (!ts) {
    // An undated line cannot be placed in any day: its dollars are tallied
    // and the open request is left as it was.
    recordExclusion(ExclusionReason::kOther, cost);
  } else {
    if (!session.lastActivity || *ts >= *session.lastActivity) session.lastActivity = ts;
    if (total != 0 && (!session.contextTurnAt || *ts >= *session.contextTurnAt)) {
      session.contextTurnAt = ts;
      session.lastModel.assign(model);
      session.lastContextTokens = context;
    }
    if (usage.cache5m + usage.cache1h > 0 && (!session.lastCacheWriteAt || *ts >= *session.lastCacheWriteAt)) {
      session.lastCacheWriteAt = ts;
      session.lastCacheWriteWasEphemeral1h = usage.cache1h > 0;
    }
    const bool countsForToday = todayBoundary_ && *ts >= *todayBoundary_ && *ts < now;
    const std::optional<std::string>& family = pricedFamily_;
    // Kept from line to line, so that its buffer serves again.
    std::optional<std::string>& requestId = requestIdScratch_;
    if (line.requestId.empty())
      requestId.reset();
    else if (requestId)
      requestId->assign(line.requestId);
    else
      requestId.emplace(line.requestId);
    if (total != 0) session.considerForSetupTax(*ts, requestId, model, usage);
    foldRequest(requestId, cost, usage, *ts, countsForToday, family, media);
  }

  // Images sent ahead of this reply are priced at this reply's input rate.
  if (media.pendingImageTokens > 0) {
    media.runUsdSoFar += rate.input * static_cast<double>(media.pendingImageTokens) / 1'000'000.0;
    media.runTokensSoFar = addTokens(media.runTokensSoFar, media.pendingImageTokens);
    media.pendingImageTokens = 0;
    media.pendingImageCount = 0;
  }

  noteQuotaEvent(line);
}

// A token total below zero is treated like one above zero: only an exact
// zero marks a stub line without usage.
void LiveEngine::foldRequest(const std::optional<std::string>& requestId, double cost, const TurnUsage& usage,
                             InstantMs ts, bool countsForToday, const std::optional<std::string>& family,
                             FileMediaState& media) {
  const int64_t total = tokenTotal(usage);
  const bool hasTokens = total != 0;
  bool isDuplicate = false;
  bool turnCounted = media.openTurnCounted;

  auto countToday = [&](double dollars) { todaySpentUSD_ += dollars; };
  auto countFamily = [&](const std::optional<std::string>& f, int64_t tokens) {
    if (f) {
      int64_t& sum = todayTokensByFamily_[*f];
      sum = addTokens(sum, tokens);
    }
  };

  const std::string_view id = requestId ? std::string_view(*requestId) : std::string_view{};
  if (!RequestRuns::continues(media.openRequestId, id)) {
    turnCounted = false;
    if (RequestRuns::start(media.openRequestId, media.openIsDuplicate, id, seenRequestIds_) ==
        RequestRuns::Start::kRepeat) {
      recordExclusion(ExclusionReason::kDedupRefusal, cost);
      isDuplicate = true;
    } else if (countsForToday) {
      countToday(cost);
      if (hasTokens) {
        todayTurns_ += 1;
        countFamily(family, total);
        addBurn(ts, cost, total, family);
        turnCounted = true;
      }
    } else {
      recordExclusion(ExclusionReason::kTimestampGate, cost);
      if (hasTokens) addBurn(ts, cost, total, family);
    }
  } else if (media.openIsDuplicate) {
    recordExclusion(ExclusionReason::kDedupRefusal, cost - media.openCostUSD);
    isDuplicate = true;
  } else if (media.openIsStub) {
    // The earlier lines of the request had no tokens: the whole figure is new.
    if (countsForToday) {
      countToday(cost);
      countFamily(family, total);
      if (hasTokens) {
        if (!media.openTurnCounted) todayTurns_ += 1;
        turnCounted = true;
        addBurn(ts, cost, total, family);
      }
    } else {
      recordExclusion(ExclusionReason::kTimestampGate, cost);
      if (hasTokens) addBurn(ts, cost, total, family);
    }
  } else {
    // A further line at a new running total adds its rise, which may be
    // negative, under the previous line's verdict on the day.
    const double delta = cost - media.openCostUSD;
    const int64_t tokenDelta = total - (media.openContextTokens + media.openOutputTokens);
    if (media.openCountsForToday) {
      countToday(delta);
      countFamily(media.openFamily, tokenDelta);
    } else {
      recordExclusion(ExclusionReason::kTimestampGate, delta);
    }
    if (hasTokens) addBurn(ts, delta, tokenDelta, family);
  }

  media.openCostUSD = cost;
  media.openContextTokens = CostMath::context(usage);
  media.openOutputTokens = usage.output;
  media.openFamily = family;
  media.openCountsForToday = countsForToday;
  media.openIsStub = !hasTokens;
  media.openIsDuplicate = isDuplicate;
  media.openTurnCounted = turnCounted;
}

void LiveEngine::addBurn(InstantMs ts, double cost, int64_t tokens, const std::optional<std::string>& family) {
  recentBurns_.push_back({ts, cost, family == "fable", tokens});
}

void LiveEngine::noteQuotaEvent(const LiveLine& line) {
  if (!line.isApiErrorMessage) return;
  if (!CaseFolding::contains(line.errorText, "session limit") || !line.timestampText) return;
  // Timestamps are compared as text, as written.
  std::string ts(*line.timestampText);
  if (quotaLastEventAt_ && !(*quotaLastEventAt_ < ts)) return;
  quotaLastEventAt_ = std::move(ts);
  quotaResetsNote_ = extractResetsPhrase(line.errorText);
  resolveQuotaReset();
}

void LiveEngine::processUser(const LiveLine& line, FileMediaState& media) {
  const int64_t images = line.imageCount;
  const int64_t estimate = line.imageTokens;
  if (images == 0) {
    media.nonImageStreak += 1;
    return;
  }
  if (media.runImageCount < 1 || media.nonImageStreak >= kRunBreakStreak) {
    media.runUsdSoFar = 0;
    media.runTokensSoFar = 0;
    media.runImageCount = 0;
  }
  media.runImageCount += images;
  media.pendingImageTokens = addTokens(media.pendingImageTokens, estimate);
  media.pendingImageCount += images;
  media.nonImageStreak = 0;
  media.runLastImageAt = line.instant;
}

}  // namespace ostler
