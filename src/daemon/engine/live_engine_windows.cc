// The limit-window gauges of the live engine: burns from the rolling list,
// anchors and walls from the last window scan and the last quota message.
#include "daemon/engine/live_engine.h"
#include "daemon/windows/reset_phrase_parser.h"
#include "daemon/windows/session_anchor_inference.h"
#include "daemon/windows/window_burn.h"

namespace ostler {

void LiveEngine::resolveQuotaReset() {
  resolvedQuotaReset_.reset();
  if (!quotaResetsNote_ || !quotaLastEventAt_) return;
  auto messageAt = ISO8601::parse(*quotaLastEventAt_);
  if (!messageAt) return;
  resolvedQuotaReset_ = ResetPhraseParser::parse(*quotaResetsNote_, *messageAt);
}

LiveEngine::SessionAnchor LiveEngine::sessionAnchor(InstantMs now) const {
  std::optional<InstantMs> inferred = SessionAnchorInference::infer(recentBurns_, kSessionGapSeconds);
  // A reset still ahead of now starts no window yet.
  std::optional<InstantMs> phrase = resolvedQuotaResetInstant();
  if (phrase && *phrase > now) phrase.reset();
  // The later start wins; a tie goes to the phrase, which carries a note.
  if (phrase && (!inferred || *phrase >= *inferred)) return {phrase, quotaResetsNote_};
  if (inferred) return {inferred, std::nullopt};
  return {};
}

FeedWindow LiveEngine::gauge(WindowShape shape, std::optional<InstantMs> anchor,
                             const std::optional<std::string>& note, const std::optional<CutoffObservation>& wall,
                             InstantMs now) const {
  const bool fableOnly = windowFableOnly(shape);
  WindowBurn::Burn b = anchor ? WindowBurn::burnSince(recentBurns_, *anchor, now, fableOnly)
                              : WindowBurn::currentBurn(recentBurns_, now, windowDuration(shape), fableOnly);
  FeedWindow w;
  w.burn_value = roundUSD(b.burn);
  w.tokens = b.tokens;
  if (anchor) w.anchor = ISO8601::fractional(*anchor);
  w.resets_note = note;
  if (wall) {
    w.lowest_cutoff_observed = wall->valueUSD;
    w.lowest_cutoff_observed_tokens = wall->tokens;
  }
  return w;
}

FeedWindows LiveEngine::snapshotWindows(InstantMs now) const {
  FeedWindows windows;
  SessionAnchor session = sessionAnchor(now);
  const WindowScan::ShapeFacts none;
  auto facts = [&](WindowShape shape) -> const WindowScan::ShapeFacts& {
    return cachedWalls_ ? cachedWalls_->of(shape) : none;
  };
  windows.session = gauge(WindowShape::kSession, session.anchor, session.note, facts(WindowShape::kSession).wall, now);
  for (WindowShape shape : {WindowShape::kWeek, WindowShape::kWeekTopModel}) {
    const WindowScan::ShapeFacts& f = facts(shape);
    FeedWindow w = gauge(shape, f.latestResetInstant, f.latestResetPhrase, f.wall, now);
    (shape == WindowShape::kWeek ? windows.week : windows.week_top_model) = std::move(w);
  }
  return windows;
}

FeedMonthWindow LiveEngine::snapshotMonthWindow(InstantMs anchor, InstantMs now) const {
  WindowBurn::Burn b = WindowBurn::burnSince(recentBurns_, anchor, now, false);
  FeedMonthWindow m;
  m.burn_value = roundUSD(b.burn);
  m.tokens = b.tokens;
  m.anchor = ISO8601::fractional(anchor);
  return m;
}

void LiveEngine::updateWalls(const WindowScan::Walls& walls) {
  cachedWalls_ = walls;
  isDirty_ = true;
}

}  // namespace ostler
