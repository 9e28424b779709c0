#include "daemon/windows/month_anchor.h"

#include <unicode/gregocal.h>
#include <unicode/timezone.h>

#include <algorithm>

namespace ostler::MonthAnchor {
namespace {

// Local midnight of the billing day in the month that `cal` stands in.
std::optional<InstantMs> billingMidnight(icu::GregorianCalendar& cal, int billingDay) {
  UErrorCode status = U_ZERO_ERROR;
  const int32_t length = cal.getActualMaximum(UCAL_DAY_OF_MONTH, status);
  if (U_FAILURE(status)) return std::nullopt;
  cal.set(UCAL_DATE, std::min(billingDay, static_cast<int>(length)));
  // As for any local day: a midnight in a gap moves to the first valid
  // instant, a midnight that comes twice is the first.
  cal.set(UCAL_HOUR_OF_DAY, 0);
  cal.set(UCAL_MINUTE, 0);
  cal.set(UCAL_SECOND, 0);
  cal.set(UCAL_MILLISECOND, 0);
  const UDate at = cal.getTime(status);
  if (U_FAILURE(status)) return std::nullopt;
  return static_cast<InstantMs>(at);
}

}  // namespace

std::optional<InstantMs> anchor(int billingDay, InstantMs before, const std::string& timeZoneId) {
  if (billingDay < 1 || billingDay > 31) return std::nullopt;
  UErrorCode status = U_ZERO_ERROR;
  icu::GregorianCalendar cal(icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(timeZoneId)), status);
  if (U_FAILURE(status)) return std::nullopt;
  cal.setSkippedWallTimeOption(UCAL_WALLTIME_NEXT_VALID);
  cal.setRepeatedWallTimeOption(UCAL_WALLTIME_FIRST);
  cal.setTime(static_cast<UDate>(before), status);
  if (U_FAILURE(status)) return std::nullopt;
  // The first day of the month of `before`; from there, this month's
  // billing day, or last month's when this month's is still to come.
  cal.set(UCAL_DATE, 1);
  const int32_t year = cal.get(UCAL_YEAR, status), month = cal.get(UCAL_MONTH, status);
  if (U_FAILURE(status)) return std::nullopt;
  auto thisMonth = billingMidnight(cal, billingDay);
  if (!thisMonth) return std::nullopt;
  if (*thisMonth <= before) return thisMonth;
  cal.clear();
  cal.set(year, month, 1);
  cal.add(UCAL_MONTH, -1, status);
  if (U_FAILURE(status)) return std::nullopt;
  return billingMidnight(cal, billingDay);
}

}  // namespace ostler::MonthAnchor
