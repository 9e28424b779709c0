// Where the current five-hour session window started, judged from burns
// alone: at the first burn after the last silence of at least the threshold.
#pragma once

#include <optional>
#include <vector>

#include "daemon/engine/burn_event.h"

namespace ostler::SessionAnchorInference {

// The timestamp of the first event after the last gap between neighbouring
// events (in time order) of at least `gapThresholdSeconds`, or of the
// earliest event when there is no such gap; nothing without events.
[[nodiscard]] std::optional<InstantMs> infer(const std::vector<BurnEvent>& events, double gapThresholdSeconds);

}  // namespace ostler::SessionAnchorInference
