// The cache-expiry nudge: in the last minute of a warm cache, and only while
// the user is at the machine, a chat warns that resuming it is about to cost
// a full rewrite of its context.
#pragma once

#include <cstdint>
#include <optional>

#include "daemon/feed/feed_session.h"
#include "transcript/iso8601.h"

namespace ostler {

struct DaemonNudgeState {
  enum class Kind { kNone, kWarning };

  Kind kind = Kind::kNone;
  int64_t secondsRemaining = 0;  // warning only

  [[nodiscard]] static DaemonNudgeState none() { return {}; }
  [[nodiscard]] static DaemonNudgeState warning(int64_t secondsRemaining) {
    return {Kind::kWarning, secondsRemaining};
  }

  // "warning" with the seconds left; nothing for none.
  [[nodiscard]] std::optional<FeedNudgeState> wireValue() const;

  friend bool operator==(const DaemonNudgeState&, const DaemonNudgeState&) = default;
};

namespace NudgeDerivation {

// How close to expiry the nudge starts.
inline constexpr double kWarningWindowSeconds = 60.0;
// Idle longer than this and the user is taken to be away.
inline constexpr double kProvisionalPresenceThresholdSeconds = 120.0;

// A warning, with the seconds left rounded down, when the cache is still
// warm, expires within the warning window, and `idleSeconds` is below
// `presenceThresholdSeconds`; none otherwise, and none without an activity.
[[nodiscard]] DaemonNudgeState derive(std::optional<InstantMs> lastActivity, bool lastCacheWriteWasEphemeral1h,
                                      InstantMs now, double idleSeconds, double presenceThresholdSeconds);

}  // namespace NudgeDerivation
}  // namespace ostler
