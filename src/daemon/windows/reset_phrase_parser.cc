#include "daemon/windows/reset_phrase_parser.h"

#include <unicode/calendar.h>
#include <unicode/gregocal.h>
#include <unicode/regex.h>
#include <unicode/timezone.h>
#include <unicode/ucal.h>

#include <memory>
#include <string>

namespace ostler::ResetPhraseParser {
namespace {

// Compiled once per process; a RegexPattern may be shared by threads, each
// making its own matcher.
const icu::RegexPattern& pattern() {
  static const icu::RegexPattern* compiled = [] {
    UErrorCode status = U_ZERO_ERROR;
    UParseError pe;
    return icu::RegexPattern::compile(
        icu::UnicodeString::fromUTF8(R"(resets\s+(\d{1,2}):(\d{2})\s*(am|pm)\s*\(([^)]+)\))"),
        UREGEX_CASE_INSENSITIVE, pe, status);
  }();
  return *compiled;
}

// A plain ASCII integer; `\d` also matches other scripts' digits, which do
// not read as a number here.
std::optional<int> asciiInteger(const icu::UnicodeString& s) {
  if (s.length() == 0) return std::nullopt;
  int v = 0;
  for (int32_t i = 0; i < s.length(); ++i) {
    char16_t c = s.charAt(i);
    if (c < u'0' || c > u'9') return std::nullopt;
    v = v * 10 + (c - u'0');
  }
  return v;
}

}  // namespace

std::optional<InstantMs> parse(std::string_view phrase, InstantMs messageTimestamp) {
  UErrorCode status = U_ZERO_ERROR;
  icu::UnicodeString input = icu::UnicodeString::fromUTF8(
      icu::StringPiece(phrase.data(), static_cast<int32_t>(phrase.size())));
  std::unique_ptr<icu::RegexMatcher> m(pattern().matcher(input, status));
  if (U_FAILURE(status) || !m->find()) return std::nullopt;
  auto hour = asciiInteger(m->group(1, status));
  auto minute = asciiInteger(m->group(2, status));
  icu::UnicodeString half = m->group(3, status);
  icu::UnicodeString zoneId = m->group(4, status);
  if (U_FAILURE(status) || !hour || !minute) return std::nullopt;

  std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(zoneId));
  if (!zone || *zone == icu::TimeZone::getUnknown()) return std::nullopt;

  int hour24 = *hour;
  half.toLower();
  if (half == u"pm" && hour24 != 12) hour24 += 12;
  if (half == u"am" && hour24 == 12) hour24 = 0;

  icu::GregorianCalendar cal(zone.release(), status);
  if (U_FAILURE(status)) return std::nullopt;
  cal.setRepeatedWallTimeOption(UCAL_WALLTIME_FIRST);
  cal.setSkippedWallTimeOption(UCAL_WALLTIME_LAST);
  cal.setTime(static_cast<UDate>(messageTimestamp), status);
  int32_t era = cal.get(UCAL_ERA, status);
  int32_t year = cal.get(UCAL_YEAR, status);
  int32_t month = cal.get(UCAL_MONTH, status);
  int32_t day = cal.get(UCAL_DATE, status);
  if (U_FAILURE(status)) return std::nullopt;
  cal.clear();
  cal.set(UCAL_ERA, era);
  cal.set(year, month, day, hour24, *minute, 0);
  UDate reset = cal.getTime(status);
  if (U_FAILURE(status)) return std::nullopt;
  if (reset <= static_cast<UDate>(messageTimestamp)) {
    cal.add(UCAL_DATE, 1, status);
    reset = cal.getTime(status);
    if (U_FAILURE(status)) return std::nullopt;
  }
  return static_cast<InstantMs>(reset);
}

}  // namespace ostler::ResetPhraseParser
