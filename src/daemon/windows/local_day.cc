#include "daemon/windows/local_day.h"

#include <unicode/gregocal.h>
#include <unicode/timezone.h>

#include <memory>

namespace ostler::LocalDay {

InstantMs localMidnightInstant(InstantMs before, const std::string& timeZoneId) {
  UErrorCode status = U_ZERO_ERROR;
  icu::GregorianCalendar cal(icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(timeZoneId)), status);
  if (U_FAILURE(status)) return before;
  cal.setTime(static_cast<UDate>(before), status);
  // Clearing the time fields leaves the day; a day that begins inside a
  // daylight-saving gap starts at the first valid instant after midnight,
  // and one whose midnight comes twice (clocks going back at 01:00) at the
  // first of them, so that the day holds every instant dated on it.
  cal.set(UCAL_HOUR_OF_DAY, 0);
  cal.set(UCAL_MINUTE, 0);
  cal.set(UCAL_SECOND, 0);
  cal.set(UCAL_MILLISECOND, 0);
  cal.setSkippedWallTimeOption(UCAL_WALLTIME_NEXT_VALID);
  cal.setRepeatedWallTimeOption(UCAL_WALLTIME_FIRST);
  UDate start = cal.getTime(status);
  if (U_FAILURE(status)) return before;
  return static_cast<InstantMs>(start);
}

std::string currentTimeZoneId() {
  std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createDefault());
  icu::UnicodeString id;
  zone->getID(id);
  std::string out;
  id.toUTF8String(out);
  return out;
}

}  // namespace ostler::LocalDay
