// Whether a chat's prompt cache is still warm, and what resuming it costs
// against starting afresh. A cache lives five minutes after its last write,
// or an hour when that write was to the one-hour cache; the moment the TTL
// has passed the chat is cold.
#pragma once

#include <cstdint>
#include <string>

#include "transcript/iso8601.h"
#include "transcript/pricing.h"

namespace ostler::Temperature {

// The assumed size of a fresh chat's prompt, in tokens.
inline constexpr int64_t kFreshSessionTokens = 2000;
inline constexpr double kFiveMinuteTTLSeconds = 300.0;
inline constexpr double kOneHourTTLSeconds = 3600.0;

struct Input {
  int64_t contextTokens = 0;     // context of the chat's newest turn with usage
  std::string model;             // model of that turn
  InstantMs lastActivity = 0;    // newest assistant line
  bool lastCacheWriteWasEphemeral1h = false;
};

struct Result {
  std::string temperature;  // "warm" or "cold"
  double rewarm_usd = 0;    // writing the whole context to the cache again, rounded
  double fresh_usd = 0;     // a fresh chat's prompt as plain input, rounded
  double ttlSeconds = 0;

  friend bool operator==(const Result&, const Result&) = default;
};

// The cache's time to live for a chat whose last write was (or was not) to
// the one-hour cache.
[[nodiscard]] inline double ttlSeconds(bool lastCacheWriteWasEphemeral1h) {
  return lastCacheWriteWasEphemeral1h ? kOneHourTTLSeconds : kFiveMinuteTTLSeconds;
}

// Cold at or after the TTL. Rewarming is priced at the five-minute write
// rate whatever the last write was: that is what a resumed chat writes.
[[nodiscard]] Result evaluate(const Input& input, InstantMs now, const PricingTable& pricing);

}  // namespace ostler::Temperature
