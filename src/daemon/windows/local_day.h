// Local days in a named time zone, through the Gregorian calendar.
#pragma once

#include <string>

#include "transcript/iso8601.h"

namespace ostler::LocalDay {

// The first instant of the local day that holds `before`, in the IANA zone
// `timeZoneId` (an unknown zone reads as UTC). Thread-safe.
[[nodiscard]] InstantMs localMidnightInstant(InstantMs before, const std::string& timeZoneId);

// The IANA id of the machine's current time zone.
[[nodiscard]] std::string currentTimeZoneId();

}  // namespace ostler::LocalDay
