// Turns the reset phrase of a limit message ("resets 3:00pm
// (America/New_York)") into the instant of the reset. The clock time is read
// in the named IANA zone on the message's local day, and moved to the next
// day when it is not after the message, so a reset always lies strictly
// after the message that announces it. Daylight-saving changes are the
// calendar's: a wall time skipped by a change moves forward by the gap (2:30
// becomes 3:30), a repeated one takes its first occurrence.
#pragma once

#include <optional>
#include <string_view>

#include "transcript/iso8601.h"

namespace ostler::ResetPhraseParser {

// The reset instant, or nothing when the phrase does not match
// "resets H:MM am|pm (Zone)" (any letter case; the minutes are required),
// when the hour or minute is not a plain integer, or when the zone is
// unknown. Thread-safe.
[[nodiscard]] std::optional<InstantMs> parse(std::string_view phrase, InstantMs messageTimestamp);

}  // namespace ostler::ResetPhraseParser
