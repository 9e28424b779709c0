// The wall of a window: the lowest burn at which the user has ever been cut
// off, told in the same list-price dollars as the window's burn.
#pragma once

#include <optional>
#include <vector>

#include "daemon/windows/cutoff_observation.h"

namespace ostler::WallLearner {

// The lowest observation (the first on ties, dollars rounded to six places),
// once there are at least two; a single cut-off proves no wall.
[[nodiscard]] std::optional<CutoffObservation> learn(const std::vector<CutoffObservation>& observations);

}  // namespace ostler::WallLearner
