#include "daemon/engine/nudge_derivation.h"

#include <cmath>

#include "daemon/engine/temperature.h"

namespace ostler {

std::optional<FeedNudgeState> DaemonNudgeState::wireValue() const {
  if (kind == Kind::kNone) return std::nullopt;
  return FeedNudgeState{"warning", secondsRemaining};
}

namespace NudgeDerivation {

DaemonNudgeState derive(std::optional<InstantMs> lastActivity, bool lastCacheWriteWasEphemeral1h, InstantMs now,
                        double idleSeconds, double presenceThresholdSeconds) {
  if (!lastActivity) return DaemonNudgeState::none();
  const double ttl = Temperature::ttlSeconds(lastCacheWriteWasEphemeral1h);
  const double elapsed = static_cast<double>(now - *lastActivity) / 1000.0;
  const double remaining = ttl - elapsed;
  if (elapsed < ttl && remaining <= kWarningWindowSeconds && idleSeconds < presenceThresholdSeconds)
    return DaemonNudgeState::warning(static_cast<int64_t>(std::floor(remaining)));
  return DaemonNudgeState::none();
}

}  // namespace NudgeDerivation
}  // namespace ostler
