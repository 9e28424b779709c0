#include "daemon/windows/session_anchor_inference.h"

#include <algorithm>

namespace ostler::SessionAnchorInference {

std::optional<InstantMs> infer(const std::vector<BurnEvent>& events, double gapThresholdSeconds) {
  if (events.empty()) return std::nullopt;
  std::vector<InstantMs> times;
  times.reserve(events.size());
  for (const auto& e : events) times.push_back(e.timestamp);
  std::sort(times.begin(), times.end());
  const double thresholdMs = gapThresholdSeconds * 1000.0;
  InstantMs anchor = times.front();
  for (size_t i = 1; i < times.size(); ++i)
    if (static_cast<double>(times[i] - times[i - 1]) >= thresholdMs) anchor = times[i];
  return anchor;
}

}  // namespace ostler::SessionAnchorInference
