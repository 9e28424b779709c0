// Where the user's billing month began: the latest billing day at or before
// an instant, at local midnight.
#pragma once

#include <optional>
#include <string>

#include "transcript/iso8601.h"

namespace ostler::MonthAnchor {

// The billing day of the month of `before` (capped at that month's length:
// the 31st is the 30th of April and the 28th of a common February), or of
// the month before when that lies after `before`; nothing for a day outside
// 1 to 31. `timeZoneId` is an IANA zone.
[[nodiscard]] std::optional<InstantMs> anchor(int billingDay, InstantMs before, const std::string& timeZoneId);

}  // namespace ostler::MonthAnchor
