#include "daemon/windows/reset_phrase_parser.h"

#include <gtest/gtest.h>

#include "daemon/engine/case_folding.h"
#include "daemon/windows/resets_phrase.h"
#include "line_builder.h"

namespace ostler {
namespace {

using testing::at;

std::optional<std::string> parsed(const char* phrase, const char* messageAt) {
  auto t = ResetPhraseParser::parse(phrase, at(messageAt));
  if (!t) return std::nullopt;
  return ISO8601::fractional(*t);
}

TEST(ResetsPhraseTest, FromFirstResetsInAnyCaseToTheEndTrimmed) {
  EXPECT_EQ(extractResetsPhrase("5-hour limit reached \xE2\x88\x99 RESETS 3pm (Europe/Paris)\n "),
            "RESETS 3pm (Europe/Paris)");
  EXPECT_EQ(extractResetsPhrase("resets soon, resets later"), "resets soon, resets later");
  EXPECT_FALSE(extractResetsPhrase("limit reached, try again later"));
  // Simple case folding: the long s and the Kelvin sign fold to ASCII letters.
  EXPECT_EQ(extractResetsPhrase("Limit \xC3\xA9t\xC3\xA9 re\xC5\xBF" "ets 9am (UTC)"), "re\xC5\xBF" "ets 9am (UTC)");
  EXPECT_TRUE(CaseFolding::contains("Your WEE\xE2\x84\xAA" "LY limit", "weekly"));
  EXPECT_TRUE(CaseFolding::contains("SESSION LIMIT", "session limit"));
  EXPECT_FALSE(CaseFolding::contains("session  limit", "session limit"));
}

TEST(ResetPhraseParserTest, ClockTimeOnTheMessagesDayOrTheNext) {
  // 15:00 in Berlin said at 15:00 in Berlin is tomorrow's 15:00.
  EXPECT_EQ(parsed("resets 3:00pm (Europe/Berlin)", "2026-03-10T14:00:00.000Z"), "2026-03-11T14:00:00.000Z");
  EXPECT_EQ(parsed("resets 3:00pm (Europe/Berlin)", "2026-03-10T13:59:59.999Z"), "2026-03-10T14:00:00.000Z");
  // 12 am is hour 0, 12 pm is hour 12.
  EXPECT_EQ(parsed("resets 12:30am (UTC)", "2026-03-10T06:00:00Z"), "2026-03-11T00:30:00.000Z");
  EXPECT_EQ(parsed("resets 12:30pm (UTC)", "2026-03-10T06:00:00Z"), "2026-03-10T12:30:00.000Z");
  // Any letter case, blanks optional, first match of a longer text.
  EXPECT_EQ(parsed("limit hit. RESETS 9:05 AM(UTC) or resets 1:00pm (UTC)", "2026-03-10T06:00:00Z"),
            "2026-03-10T09:05:00.000Z");
}

TEST(ResetPhraseParserTest, RefusesWhatItCannotRead) {
  EXPECT_FALSE(parsed("resets 3pm (UTC)", "2026-03-10T06:00:00Z"));  // no minutes
  EXPECT_FALSE(parsed("resets 3:00pm (Mars/Olympus_Mons)", "2026-03-10T06:00:00Z"));
  EXPECT_FALSE(parsed("resets 3:00pm", "2026-03-10T06:00:00Z"));
  // Arabic-Indic digits match the pattern's \d but are no integer here.
  EXPECT_FALSE(parsed("resets \xD9\xA3:00pm (UTC)", "2026-03-10T06:00:00Z"));
}

TEST(ResetPhraseParserTest, DaylightSavingChangesAreTheCalendars) {
  // New York springs forward at 2:00 on 8 March 2026: 2:30 does not exist
  // and moves forward by the gap to 3:30 EDT.
  EXPECT_EQ(parsed("resets 2:30am (America/New_York)", "2026-03-08T05:00:00Z"), "2026-03-08T07:30:00.000Z");
  // It falls back at 2:00 on 1 November 2026: 1:30 happens twice, the first
  // (EDT) counts.
  EXPECT_EQ(parsed("resets 1:30am (America/New_York)", "2026-11-01T04:00:00Z"), "2026-11-01T05:30:00.000Z");
  // The next day is a calendar day: 15:00 EST on the 7th moves to 15:00 EDT
  // on the 8th, 23 hours later.
  EXPECT_EQ(parsed("resets 3:00pm (America/New_York)", "2026-03-07T20:00:00Z"), "2026-03-08T19:00:00.000Z");
}

}  // namespace
}  // namespace ostler
