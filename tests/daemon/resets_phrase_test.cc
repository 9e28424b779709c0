#include "daemon/resets_phrase.h"

#include <gtest/gtest.h>

#include "daemon/case_folding.h"

namespace ostler {
namespace {

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

}  // namespace
}  // namespace ostler
