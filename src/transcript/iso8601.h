// Instants as transcripts and the receipt write them: the internet
// date-time profile of ISO 8601, "YYYY-MM-DDTHH:MM:SS", an optional fraction,
// then "Z" or "+HH:MM"/"-HH:MM". Instants are kept as milliseconds since the
// Unix epoch; fraction digits past milliseconds are dropped, not rounded.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ostler {

// Milliseconds since 1970-01-01T00:00:00Z.
using InstantMs = int64_t;

namespace ISO8601 {

// The instant `text` names, or nothing when it is not a valid date-time of
// the profile above (upper-case "T" and "Z" only, real calendar dates).
[[nodiscard]] std::optional<InstantMs> parse(std::string_view text);

// "YYYY-MM-DDTHH:MM:SS.mmmZ" in UTC.
[[nodiscard]] std::string fractional(InstantMs t);

// "YYYY-MM-DDTHH:MM:SSZ" in UTC; milliseconds are dropped.
[[nodiscard]] std::string whole(InstantMs t);

// True for a real calendar date written "YYYY-MM-DD".
[[nodiscard]] bool isCalendarDate(std::string_view text);

// Days since the epoch of a proleptic Gregorian date, and back.
[[nodiscard]] int64_t daysFromCivil(int64_t y, unsigned m, unsigned d);
void civilFromDays(int64_t z, int64_t* y, unsigned* m, unsigned* d);

}  // namespace ISO8601

// Instants as the engine's own files keep them (its state, the closeout
// stores, the sidecars): seconds since 2001-01-01 00:00:00 UTC, a number.
namespace ReferenceSeconds {

inline constexpr InstantMs kEpochMs = 978'307'200'000;

[[nodiscard]] inline double of(InstantMs t) { return static_cast<double>(t - kEpochMs) / 1000.0; }
// The instant of `seconds`, to the nearest millisecond.
[[nodiscard]] InstantMs instant(double seconds);

}  // namespace ReferenceSeconds
}  // namespace ostler
