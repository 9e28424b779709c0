// One cut-off shows in a transcript as a burst of limit messages, one per
// request the user kept sending at the wall. Clustering folds a burst into
// its first moment.
#pragma once

#include <vector>

#include "transcript/iso8601.h"

namespace ostler::LimitEventClustering {

// The first instant of each cluster, ascending. Sorted, each date further
// than `gapSeconds` (strictly) from the date before it opens a new cluster;
// distance is to the previous date, so a long unbroken burst stays one.
[[nodiscard]] std::vector<InstantMs> cluster(std::vector<InstantMs> dates, double gapSeconds);

}  // namespace ostler::LimitEventClustering
