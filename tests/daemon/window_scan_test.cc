// The limit windows: the scan of the tree for burns and limit messages, and
// the pure pieces that turn them into gauges, anchors and walls.
#include "daemon/windows/window_scan.h"

#include <gtest/gtest.h>

#include "daemon/windows/limit_event_clustering.h"
#include "daemon/windows/session_anchor_inference.h"
#include "daemon/windows/wall_learner.h"
#include "daemon/windows/window_burn.h"
#include "line_builder.h"
#include "support/test_support.h"

namespace ostler {
namespace {

using namespace testing;

std::string turn(const char* ts, std::optional<std::string> rid, int64_t output, const char* model = "claude-opus-4") {
  return turnLine(ts, rid, {.output = output}, model);
}

TEST(WindowScanTest, OneEventPerRequestAtItsLastLineFromItsFirstCopy) {
  TempDir dir;
  writeFile(dir.path() / "p" / "a.jsonl",
            jsonl({turn("2026-03-10T10:00:00Z", "x", 100), turn("2026-03-10T10:00:01Z", "x", 200),
                   turn("2026-03-10T10:00:02Z", "x", 300), "garbage", turn("not a time", "y", 5),
                   R"({"type":"user","requestId":"z"})",
                   turn("2026-03-10T10:01:00Z", std::nullopt, 40, "claude-fable-5"),
                   turn("2026-03-10T10:02:00Z", "", 0)}));
  // A resumed chat repeats request x with other figures: priced once, from
  // the file read first.
  writeFile(dir.path() / "p" / "b.jsonl", jsonl({turn("2026-03-10T11:00:00Z", "x", 9000),
                                                 turn("2026-03-10T11:00:01Z", "w", 10)}));
  WindowScan::Result r = WindowScan::scan(systemFileSystem(), dir.str(), PricingTable::defaultTable());
  ASSERT_EQ(r.events.size(), 4u);
  EXPECT_EQ(r.events[0], (BurnEvent{at("2026-03-10T10:00:02Z"), 300 * 25.0 / 1e6, false, 300}));
  EXPECT_EQ(r.events[1], (BurnEvent{at("2026-03-10T10:01:00Z"), 40 * 50.0 / 1e6, true, 40}));
  // Zero-token events are kept.
  EXPECT_EQ(r.events[2].tokens, 0);
  EXPECT_EQ(r.events[3].timestamp, at("2026-03-10T11:00:01Z"));
}

TEST(WindowScanTest, LimitMessagesOfEitherShapeWithTheirPhrase) {
  TempDir dir;
  writeFile(dir.path() / "p" / "a.jsonl",
            jsonl({limitLine("2026-03-10T10:00:00Z", "Session limit reached \xE2\x88\x99 resets 3:00pm (UTC)"),
                   limitLine("2026-03-10T10:05:00Z", "Weekly limit reached"),
                   limitLine("2026-03-10T10:06:00Z", "session limit and weekly limit, RESETS soon"),
                   limitLine("2026-03-10T10:07:00Z", "overloaded")}));
  WindowScan::Result r = WindowScan::scan(systemFileSystem(), dir.str(), PricingTable::defaultTable());
  ASSERT_EQ(r.limitEvents.size(), 3u);
  EXPECT_EQ(r.limitEvents[0], (WindowScan::LimitEvent{at("2026-03-10T10:00:00Z"), true, false, "resets 3:00pm (UTC)"}));
  EXPECT_EQ(r.limitEvents[1], (WindowScan::LimitEvent{at("2026-03-10T10:05:00Z"), false, true, std::nullopt}));
  EXPECT_EQ(r.limitEvents[2], (WindowScan::LimitEvent{at("2026-03-10T10:06:00Z"), true, true, "RESETS soon"}));
  // Limit lines go on to the fold like any other line.
  EXPECT_EQ(r.events.size(), 4u);
}

TEST(WindowScanTest, WallsAreTheLowestOfTwoOrMoreCutoffs) {
  const InstantMs t0 = at("2026-03-10T00:00:00Z");
  const InstantMs hour = 3'600'000;
  WindowScan::Result r;
  // Burns before the first cut-off: $40; then $35 more, five hours on.
  r.events = {{t0, 20.0, true, 200}, {t0 + hour, 20.0, false, 200}, {t0 + 6 * hour, 35.0, false, 350}};
  r.limitEvents = {
      // A burst of three messages at the first cut-off is one observation.
      {t0 + 2 * hour, true, false, "resets 5:00am (UTC)"},
      {t0 + 2 * hour + 60'000, true, false, std::nullopt},
      {t0 + 2 * hour + 120'000, true, false, std::nullopt},
      {t0 + 7 * hour, true, true, "resets 9:00am (Nowhere/Else)"},
  };
  WindowScan::Walls w = WindowScan::walls(r);
  EXPECT_EQ(w.session.wall, (CutoffObservation{35.0, 350}));
  EXPECT_EQ(w.session.latestResetPhrase, "resets 9:00am (Nowhere/Else)");
  EXPECT_FALSE(w.session.latestResetInstant);  // unknown zone: the phrase alone shows
  // One weekly cut-off proves no wall, but its phrase stands for both
  // weekly shapes.
  EXPECT_FALSE(w.week.wall);
  EXPECT_EQ(w.week.latestResetPhrase, "resets 9:00am (Nowhere/Else)");
  EXPECT_EQ(w.weekTopModel, w.week);

  // Two weekly cut-offs: the top-model window counts fable burns alone.
  r.limitEvents.push_back({t0 + 2 * hour, false, true, "resets 1:00am (UTC)"});
  w = WindowScan::walls(r);
  EXPECT_EQ(w.week.wall, (CutoffObservation{40.0, 400}));
  EXPECT_EQ(w.weekTopModel.wall, (CutoffObservation{20.0, 200}));
  EXPECT_FALSE(w.session.latestResetInstant);

  // Ties on the newest message go to the first; its phrase resolves.
  r.limitEvents = {{t0, true, false, "resets 5:00am (UTC)"}, {t0, true, false, "resets 6:00am (UTC)"}};
  w = WindowScan::walls(r);
  EXPECT_EQ(w.session.latestResetInstant, t0 + 5 * hour);
  EXPECT_EQ(WindowScan::walls({}), WindowScan::Walls{});

  // Events come in reading order, not in time order. A five-hour window
  // holds what burned after its start, to the millisecond, up to and at its
  // cut-off: $3 + $5 at the first cut-off, $7 at the second, where $100
  // burned exactly five hours earlier.
  r.events = {{t0 + 10 * hour, 7.0, false, 70},
              {t0 + 3 * hour, 3.0, false, 30},
              {t0 + 5 * hour, 100.0, false, 1000},
              {t0 - 2 * hour + 1, 5.0, false, 50},
              {t0 - 2 * hour, 60.0, false, 600}};
  r.limitEvents = {{t0 + 10 * hour, true, false, std::nullopt}, {t0 + 3 * hour, true, false, std::nullopt}};
  EXPECT_EQ(WindowScan::walls(r).session.wall, (CutoffObservation{7.0, 70}));
  r.events[0].costUSD = 9.0;
  EXPECT_EQ(WindowScan::walls(r).session.wall, (CutoffObservation{8.0, 80}));

  // Dollars add up in reading order, as a plain pass over the events adds
  // them: here the dollar read first is lost to the large sum after it.
  r.events = {{t0 + 3 * hour, 1.0, false, 1},
              {t0 + hour, 1e16, false, 1},
              {t0 + 2 * hour, -1e16, false, 1},
              {t0 + 10 * hour, 5.0, false, 50}};
  r.limitEvents = {{t0 + 3 * hour, true, false, std::nullopt}, {t0 + 10 * hour, true, false, std::nullopt}};
  EXPECT_EQ(WindowScan::walls(r).session.wall, (CutoffObservation{0.0, 3}));
}

TEST(WindowBurnTest, AnchoredBoundIncludesTheAnchorRollingBoundExcludesItsStart) {
  const InstantMs now = at("2026-03-10T12:00:00Z");
  const InstantMs fiveHoursAgo = now - 18'000'000;
  std::vector<BurnEvent> events = {
      {fiveHoursAgo, 1.0, false, 10},   // exactly one window old
      {fiveHoursAgo + 1, 2.0, true, 20},
      {now, 4.0, true, 40},             // at now: counts
      {now + 1, 8.0, false, 80},        // after now: never
  };
  auto rolling = WindowBurn::currentBurn(events, now, 18'000.0, false);
  EXPECT_DOUBLE_EQ(rolling.burn, 6.0);
  EXPECT_EQ(rolling.tokens, 60);
  auto anchored = WindowBurn::burnSince(events, fiveHoursAgo, now, false);
  EXPECT_DOUBLE_EQ(anchored.burn, 7.0);
  auto fable = WindowBurn::burnSince(events, fiveHoursAgo, now, true);
  EXPECT_DOUBLE_EQ(fable.burn, 6.0);
  // An anchor still ahead of now counts nothing yet.
  EXPECT_EQ(WindowBurn::burnSince(events, now + 10, now, false).tokens, 0);
}

TEST(SessionAnchorInferenceTest, FirstBurnAfterTheLastLongSilence) {
  const InstantMs t0 = at("2026-03-10T00:00:00Z");
  EXPECT_FALSE(SessionAnchorInference::infer({}, 18'000.0));
  // Out of order on purpose: the events are sorted first.
  std::vector<BurnEvent> events = {{t0 + 18'000'000 + 5'000, 1, false, 1}, {t0, 1, false, 1},
                                   {t0 + 5'000, 1, false, 1}};
  // A gap of exactly 18,000 s (from t0 + 5 s) moves the anchor.
  EXPECT_EQ(SessionAnchorInference::infer(events, 18'000.0), t0 + 18'000'000 + 5'000);
  events[0].timestamp -= 1;
  EXPECT_EQ(SessionAnchorInference::infer(events, 18'000.0), t0);
}

TEST(LimitEventClusteringTest, DistanceIsToThePreviousDate) {
  const InstantMs t0 = at("2026-03-10T00:00:00Z");
  // Twenty messages over ten minutes, each within 120 s of the one before.
  std::vector<InstantMs> burst;
  for (int i = 0; i < 20; ++i) burst.push_back(t0 + i * 31'000);
  EXPECT_EQ(LimitEventClustering::cluster(burst, 120.0), std::vector<InstantMs>{t0});
  // Exactly 120 s keeps the cluster; 120.001 s opens a new one.
  EXPECT_EQ(LimitEventClustering::cluster({t0 + 120'000, t0}, 120.0), std::vector<InstantMs>{t0});
  EXPECT_EQ(LimitEventClustering::cluster({t0, t0 + 120'001}, 120.0), (std::vector<InstantMs>{t0, t0 + 120'001}));
  EXPECT_TRUE(LimitEventClustering::cluster({}, 120.0).empty());
}

TEST(WallLearnerTest, LowestOfAtLeastTwoCutoffs) {
  EXPECT_FALSE(WallLearner::learn({{40.0, 400}}));
  EXPECT_EQ(WallLearner::learn({{40.0, 400}, {35.0, 350}, {35.0, 999}}), (CutoffObservation{35.0, 350}));
  EXPECT_EQ(WallLearner::learn({{1.23456789, 1}, {2.0, 2}})->valueUSD, 1.234568);
}

}  // namespace
}  // namespace ostler
