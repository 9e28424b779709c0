#include "daemon/engine/temperature.h"

namespace ostler::Temperature {

Result evaluate(const Input& input, InstantMs now, const PricingTable& pricing) {
  Result r;
  r.ttlSeconds = ttlSeconds(input.lastCacheWriteWasEphemeral1h);
  const double elapsed = static_cast<double>(now - input.lastActivity) / 1000.0;
  r.temperature = elapsed >= r.ttlSeconds ? "cold" : "warm";
  const PricingRate rate = resolveRate(input.model, pricing).rate;
  r.rewarm_usd = roundUSD(rate.write5m * static_cast<double>(input.contextTokens) / 1'000'000);
  r.fresh_usd = roundUSD(rate.input * static_cast<double>(kFreshSessionTokens) / 1'000'000);
  return r;
}

}  // namespace ostler::Temperature
