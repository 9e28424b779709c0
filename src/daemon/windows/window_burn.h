// How much of a window has been burned, summed from burn events. Dollars are
// summed unrounded; the caller rounds once at the end.
#pragma once

#include <cstdint>
#include <vector>

#include "daemon/engine/burn_event.h"

namespace ostler::WindowBurn {

struct Burn {
  double burn = 0;     // dollars, not rounded
  int64_t tokens = 0;
};

// Events at or after `anchor` and at or before `now`: an event at the very
// anchor counts. With `fableOnly` only fable-family events count.
[[nodiscard]] Burn burnSince(const std::vector<BurnEvent>& events, InstantMs anchor, InstantMs now, bool fableOnly);

// Events strictly after `now` less `durationSeconds` and at or before `now`:
// an event exactly `durationSeconds` old no longer counts.
[[nodiscard]] Burn currentBurn(const std::vector<BurnEvent>& events, InstantMs now, double durationSeconds,
                               bool fableOnly);

}  // namespace ostler::WindowBurn
