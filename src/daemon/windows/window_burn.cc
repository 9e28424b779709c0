#include "daemon/windows/window_burn.h"

#include <cmath>

#include "transcript/pricing.h"

namespace ostler::WindowBurn {
namespace {

template <typename InWindow>
Burn sum(const std::vector<BurnEvent>& events, bool fableOnly, InWindow inWindow) {
  Burn b;
  for (const auto& e : events) {
    if (fableOnly && !e.isFableFamily) continue;
    if (!inWindow(e.timestamp)) continue;
    b.burn += e.costUSD;
    b.tokens = addTokens(b.tokens, e.tokens);
  }
  return b;
}

}  // namespace

Burn burnSince(const std::vector<BurnEvent>& events, InstantMs anchor, InstantMs now, bool fableOnly) {
  return sum(events, fableOnly, [&](InstantMs t) { return t >= anchor && t <= now; });
}

Burn currentBurn(const std::vector<BurnEvent>& events, InstantMs now, double durationSeconds, bool fableOnly) {
  InstantMs start = now - static_cast<InstantMs>(std::llround(durationSeconds * 1000.0));
  return sum(events, fableOnly, [&](InstantMs t) { return t > start && t <= now; });
}

}  // namespace ostler::WindowBurn
