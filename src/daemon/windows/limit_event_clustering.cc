#include "daemon/windows/limit_event_clustering.h"

#include <algorithm>

namespace ostler::LimitEventClustering {

std::vector<InstantMs> cluster(std::vector<InstantMs> dates, double gapSeconds) {
  std::vector<InstantMs> starts;
  std::sort(dates.begin(), dates.end());
  const double gapMs = gapSeconds * 1000.0;
  for (size_t i = 0; i < dates.size(); ++i)
    if (i == 0 || static_cast<double>(dates[i] - dates[i - 1]) > gapMs) starts.push_back(dates[i]);
  return starts;
}

}  // namespace ostler::LimitEventClustering
