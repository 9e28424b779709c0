#include "daemon/loop/config_files.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "daemon/windows/local_day.h"
#include "daemon/windows/month_anchor.h"
#include "line_builder.h"
#include "support/test_support.h"

namespace ostler {
namespace {

namespace fs = std::filesystem;
using testing::at;

// A folder whose files each test writes and rewrites by name.
struct ConfigDir {
  testing::TempDir dir;
  std::string write(const std::string& name, const std::string& text) const {
    testing::writeFile(dir.path() / name, text);
    return (dir.path() / name).string();
  }
};

TEST(ConfigFilesTest, BillingDayIsAnIntegerFromOneToThirtyOne) {
  ConfigDir dir;
  EXPECT_EQ(OstlerConfig::billingDay(systemFileSystem(), dir.write("a.json", R"({"billing_day": 15, "other": [1]})")), 15);
  EXPECT_EQ(OstlerConfig::billingDay(systemFileSystem(), dir.write("a.json", R"({"billing_day": 1})")), 1);
  EXPECT_EQ(OstlerConfig::billingDay(systemFileSystem(), dir.write("a.json", R"({"billing_day": 31})")), 31);
  for (const char* text : {R"({"billing_day": 0})", R"({"billing_day": 32})", R"({"billing_day": -3})",
                           R"({"billing_day": 5.0})", R"({"billing_day": "5"})", R"({"billing_day": null})",
                           R"({"billing_day": 18446744073709551615})", R"({})", R"([{"billing_day": 5}])",
                           R"({"billing_day": 5,)", ""})
    EXPECT_EQ(OstlerConfig::billingDay(systemFileSystem(), dir.write("a.json", text)), std::nullopt) << text;
  EXPECT_EQ(OstlerConfig::billingDay(systemFileSystem(), (dir.dir.path() / "missing.json").string()), std::nullopt);
  EXPECT_EQ(OstlerConfig::billingDay(systemFileSystem(), ""), std::nullopt);
}

TEST(ConfigFilesTest, ExtraUsageReasonOnlyWhenAString) {
  ConfigDir dir;
  EXPECT_EQ(ClaudeConfig::extraUsageDisabledReason(systemFileSystem(), 
                dir.write("c.json", R"({"projects": {}, "cachedExtraUsageDisabledReason": "org_level_disabled"})")),
            "org_level_disabled");
  for (const char* text : {R"({"cachedExtraUsageDisabledReason": 3})", R"({"cachedExtraUsageDisabledReason": null})",
                           R"({})", R"("org_level_disabled")", "not json"})
    EXPECT_EQ(ClaudeConfig::extraUsageDisabledReason(systemFileSystem(), dir.write("c.json", text)), std::nullopt) << text;
}

TEST(ConfigFilesTest, ReadsAgainWhenTheFileChangesAndForgetsItWhenItGoes) {
  ConfigDir dir;
  ConfigFiles files;
  const std::string path = dir.write("config.json", R"({"billing_day": 5})");
  EXPECT_EQ(files.billingDay(systemFileSystem(), path), 5);
  EXPECT_EQ(files.billingDay(systemFileSystem(), path), 5);
  dir.write("config.json", R"({"billing_day": 12, "note": "longer"})");
  EXPECT_EQ(files.billingDay(systemFileSystem(), path), 12);
  fs::remove(path);
  EXPECT_EQ(files.billingDay(systemFileSystem(), path), std::nullopt);
  dir.write("config.json", R"({"billing_day": 7})");
  EXPECT_EQ(files.billingDay(systemFileSystem(), path), 7);
  // Another path is another file.
  EXPECT_EQ(files.billingDay(systemFileSystem(), dir.write("other.json", R"({"billing_day": 9})")), 9);
}

TEST(LocalDayTest, StartOfTheLocalDayInTheNamedZone) {
  EXPECT_EQ(LocalDay::localMidnightInstant(at("2026-03-10T23:59:59.999Z"), "UTC"), at("2026-03-10T00:00:00Z"));
  EXPECT_EQ(LocalDay::localMidnightInstant(at("2026-03-10T02:00:00Z"), "America/New_York"),
            at("2026-03-09T04:00:00Z"));
  // Days of a daylight-saving change are 23 or 25 hours long.
  EXPECT_EQ(LocalDay::localMidnightInstant(at("2026-03-08T23:00:00Z"), "America/New_York"),
            at("2026-03-08T05:00:00Z"));
  EXPECT_EQ(LocalDay::localMidnightInstant(at("2026-03-09T03:59:59Z"), "America/New_York"),
            at("2026-03-08T05:00:00Z"));
  // Where the clock jumps from 24:00 to 01:00 the day starts at 01:00.
  EXPECT_EQ(LocalDay::localMidnightInstant(at("2026-09-06T12:00:00Z"), "America/Santiago"),
            at("2026-09-06T04:00:00Z"));
  // Where the clock goes back from 01:00 to 00:00 midnight comes twice and
  // the day starts at the first: also inside the repeated hour, so that the
  // day never starts after the instant it holds.
  for (const char* instant : {"2024-11-03T12:00:00Z", "2024-11-03T04:30:00Z", "2024-11-03T05:30:00Z"})
    EXPECT_EQ(LocalDay::localMidnightInstant(at(instant), "America/Havana"), at("2024-11-03T04:00:00Z")) << instant;
  EXPECT_EQ(LocalDay::localMidnightInstant(at("2024-11-03T03:59:59Z"), "America/Havana"),
            at("2024-11-02T04:00:00Z"));
}

TEST(MonthAnchorTest, LatestBillingDayAtOrBeforeAtLocalMidnight) {
  // This month's billing day once reached, at the very instant too.
  EXPECT_EQ(MonthAnchor::anchor(15, at("2026-03-20T10:00:00Z"), "UTC"), at("2026-03-15T00:00:00Z"));
  EXPECT_EQ(MonthAnchor::anchor(15, at("2026-03-15T00:00:00Z"), "UTC"), at("2026-03-15T00:00:00Z"));
  // Else last month's, with January reaching back into December.
  EXPECT_EQ(MonthAnchor::anchor(15, at("2026-03-14T23:59:59.999Z"), "UTC"), at("2026-02-15T00:00:00Z"));
  EXPECT_EQ(MonthAnchor::anchor(20, at("2026-01-05T00:00:00Z"), "UTC"), at("2025-12-20T00:00:00Z"));
  // A day past the month's end is its last day, in a common and a leap year.
  EXPECT_EQ(MonthAnchor::anchor(31, at("2026-04-30T12:00:00Z"), "UTC"), at("2026-04-30T00:00:00Z"));
  EXPECT_EQ(MonthAnchor::anchor(31, at("2026-04-29T12:00:00Z"), "UTC"), at("2026-03-31T00:00:00Z"));
  EXPECT_EQ(MonthAnchor::anchor(30, at("2026-03-01T12:00:00Z"), "UTC"), at("2026-02-28T00:00:00Z"));
  EXPECT_EQ(MonthAnchor::anchor(30, at("2028-03-01T12:00:00Z"), "UTC"), at("2028-02-29T00:00:00Z"));
  // Local midnight, with the month judged in the zone: 23:30 UTC on the 14th
  // is already the 15th in Berlin.
  EXPECT_EQ(MonthAnchor::anchor(15, at("2026-01-14T23:30:00Z"), "Europe/Berlin"), at("2026-01-14T23:00:00Z"));
  // A midnight skipped by daylight saving starts at 01:00.
  EXPECT_EQ(MonthAnchor::anchor(6, at("2026-09-10T12:00:00Z"), "America/Santiago"), at("2026-09-06T04:00:00Z"));
  for (int day : {0, 32, -1}) EXPECT_EQ(MonthAnchor::anchor(day, at("2026-03-20T10:00:00Z"), "UTC"), std::nullopt);
}

}  // namespace
}  // namespace ostler
