// The media loop detail as it leaves the engine: a JSON list.
#pragma once

#include <string>
#include <vector>

#include "meter/meter_state.h"

namespace ostler {

// Pretty-printed JSON list with sorted keys and a final line feed.
[[nodiscard]] std::string encodeLoopDetailJSON(const std::vector<MediaLoopDetailRecord>& records);

}  // namespace ostler
