#include "daemon/windows/wall_learner.h"

#include "transcript/pricing.h"

namespace ostler::WallLearner {

std::optional<CutoffObservation> learn(const std::vector<CutoffObservation>& observations) {
  if (observations.size() < 2) return std::nullopt;
  const CutoffObservation* lowest = &observations.front();
  for (const auto& o : observations)
    if (o.valueUSD < lowest->valueUSD) lowest = &o;
  return CutoffObservation{roundUSD(lowest->valueUSD), lowest->tokens};
}

}  // namespace ostler::WallLearner
