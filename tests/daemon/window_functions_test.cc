// The pure pieces of the limit windows: burns, anchor inference, clustering
// and the wall.
#include <gtest/gtest.h>

#include "daemon/limit_event_clustering.h"
#include "daemon/session_anchor_inference.h"
#include "daemon/wall_learner.h"
#include "daemon/window_burn.h"
#include "line_builder.h"

namespace ostler {
namespace {

using testing::at;

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
