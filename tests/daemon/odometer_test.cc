// The heavy figures, the today equality check and the published today.
#include "daemon/loop/odometer.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "daemon/engine/live_engine.h"
#include "daemon/windows/local_day.h"
#include "daemon/loop/today_equality_check.h"
#include "line_builder.h"
#include "meter/meter_engine.h"
#include "platform/clock.h"
#include "support/test_support.h"

namespace ostler {
namespace {

using namespace testing;

const InstantMs kNow = at("2026-03-10T12:00:00Z");

// What `check` wrote to its log.
std::string logged(double accumulator, double windowed) {
  std::FILE* log = std::tmpfile();
  (void)TodayEqualityCheck::check(accumulator, 0, windowed, kNow, log);
  std::rewind(log);
  char buf[512] = {};
  size_t n = std::fread(buf, 1, sizeof buf - 1, log);
  std::fclose(log);
  return std::string(buf, n);
}

TEST(OdometerTest, BundleRoundsTheStampOnceAfterTheSum) {
  Receipt lifetime;
  lifetime.totals.spent_usd = 9.5;
  lifetime.waste.total_usd = 0.1000004;
  lifetime.mac_first.total_usd = 0.2000004;
  lifetime.period.from = "2026-01-01T00:00:00.000Z";
  Odometer::Bundle b = Odometer::bundle(lifetime, Receipt{}, WindowScan::Walls{}, std::nullopt);
  // Rounded apart the two would give 0.3; the sum rounds up.
  EXPECT_EQ(b.odometer, (FeedOdometer{9.5, 0.300001, 0.2000004, "2026-01-01T00:00:00.000Z"}));
}

TEST(TodayEqualityCheckTest, BoundsAreInclusiveAndLopsided) {
  struct Case {
    double accumulator, windowed;
    bool matches;
  };
  const Case cases[] = {
      {4.0, 5.0, true},         // trails by exactly a dollar
      {4.0, 5.000001, false},   // a millionth more
      {5.000001, 5.0, true},    // ahead by a millionth
      {5.000002, 5.0, false},   // ahead by two
      {0, 0, true},
      {12.25, 12.25, true},
  };
  for (const Case& c : cases) {
    FeedDiagnosticsEquality d = TodayEqualityCheck::check(c.accumulator, 9, c.windowed, kNow, nullptr);
    EXPECT_EQ(d.matches, c.matches) << c.accumulator << " against " << c.windowed;
    EXPECT_DOUBLE_EQ(d.diff_usd, roundUSD(c.accumulator - c.windowed));
  }
  EXPECT_EQ(logged(5.000002, 5.0),
            "ostlerd: WARNING today equality check diverged: accumulator=5.000002 windowed=5.000000 diff=0.000002\n");
  EXPECT_EQ(logged(1.5, 3.0),
            "ostlerd: WARNING today equality check diverged: accumulator=1.500000 windowed=3.000000 diff=-1.500000\n");
  EXPECT_EQ(logged(3.0, 3.0), "");
}

// The live accumulator against the windowed meter over a generated day, as
// the daemon compares them. The two sums follow one price, one fold, one
// dedupe and one gate, so they agree within the check's bounds. No resumed
// chats: a resume that copies part of a request into another project's chat
// has the two readers price different copies, a parting the check exists to
// show.
TEST(TodayEqualityCheckTest, AGeneratedDayMatches) {
  TempDir dir;
  const std::string root = (dir.path() / "projects").string();
  if (!generateTree(root, {"--today", "--seed", "11", "--sessions", "30", "--resume-rate", "0", "--subagent-rate",
                           "0.4", "--bad-rate", "0.01", "--unknown-rate", "0.02", "--image-rate", "0.1"}))
    GTEST_SKIP() << "transcript generator not available";
  // The generator writes up to the real present, so the day is the real one.
  const InstantMs now = systemClock().nowMs();
  const std::string zone = "America/Los_Angeles";
  LiveEngine engine(systemFileSystem(), PricingTable::defaultTable(), zone);
  (void)engine.poll(root, now);
  MeterOptions options;
  options.root = root;
  options.sinceInstant = ISO8601::fractional(LocalDay::localMidnightInstant(now, zone));
  options.untilInstant = ISO8601::fractional(now);
  const double windowed = MeterEngine::run(systemFileSystem(), options).totals.spent_usd;
  EXPECT_TRUE(TodayEqualityCheck::check(engine.todayAccumulatorSnapshot().spentUSD, 0, windowed, now, nullptr).matches);
}

TEST(SnapshotTodayTest, FamiliesSharesAndTheSpendBasis) {
  TempDir dir;
  writeFile(dir.path() / "p" / "a.jsonl",
            jsonl({turnLine("2026-03-10T10:00:00Z", "r1", {.input = 1'000'000}, "claude-haiku-4-5")}));
  LiveEngine engine(systemFileSystem(), PricingTable::defaultTable(), "UTC");

  // An empty day still names the four families; no spend means no shares,
  // however many avoidable dollars the windowed receipt found.
  const FeedToday empty{.avoidable_usd = 0.75,
                        .tokens_by_family = {{"fable", 0}, {"opus", 0}, {"sonnet", 0}, {"haiku", 0}},
                        .avoidable_share_split = {0, 0},
                        .spent_basis = "accumulator",
                        .windowed_computed_at = std::nullopt};
  EXPECT_EQ(engine.snapshotToday(0.5, 0.25, 0, 0, std::nullopt), empty);

  (void)engine.poll(dir.str(), kNow);
  // $1.00 of haiku input. Waste 0.1 + downshift 0.3 are the tier's share,
  // media reads 0.2 + repeat pipelines 0.4 the Mac's; a share above 1 is
  // not capped.
  FeedToday live = engine.snapshotToday(0.1, 0.2, 0.4, 0.3, std::nullopt);
  EXPECT_EQ(live.spent_usd, 1.0);
  EXPECT_EQ(live.turns, 1);
  EXPECT_EQ(live.tokens_by_family.at("haiku"), 1'000'000);
  EXPECT_DOUBLE_EQ(live.avoidable_usd, 1.0);
  EXPECT_DOUBLE_EQ(live.avoidable_share, 1.0);
  EXPECT_EQ(live.avoidable_share_split, (FeedAvoidableShareSplit{0.6, 0.4}));
  EXPECT_EQ(live.windowed_computed_at, std::nullopt);
  EXPECT_DOUBLE_EQ(engine.snapshotToday(2.0, 0, 0, 0, std::nullopt).avoidable_share, 2.0);

  LiveEngine::WindowedTodayOverride o{0.5, 4, {{"opus", 77}, {"gemini", 5}}, "2026-03-10T11:59:00.000Z"};
  const FeedToday windowed{
      .spent_usd = 0.5,
      .avoidable_usd = 0.1,
      .turns = 4,
      .tokens_by_family = {{"fable", 0}, {"opus", 77}, {"sonnet", 0}, {"haiku", 0}, {"gemini", 5}},
      .avoidable_share = 0.2,
      .avoidable_share_split = {0, 0.2},
      .spent_basis = "windowed",
      .windowed_computed_at = "2026-03-10T11:59:00.000Z"};
  EXPECT_EQ(engine.snapshotToday(0.1, 0, 0, 0, o), windowed);
  // The override never touches the accumulator.
  EXPECT_EQ(engine.todayAccumulatorSnapshot().spentUSD, 1.0);
}

}  // namespace
}  // namespace ostler
