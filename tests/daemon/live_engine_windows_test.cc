// The window gauges of the live engine: anchors from burns and from the
// quota phrase, walls and reset instants from the last scan.
#include <gtest/gtest.h>

#include "daemon/engine/live_engine.h"
#include "line_builder.h"

namespace ostler {
namespace {

using namespace testing;

std::string turn(const char* ts, const char* rid, int64_t output, const char* model = "claude-opus-4") {
  return turnLine(ts, rid, {.output = output}, model);
}

std::string sessionLimit(const char* ts, const char* phrase) {
  return limitLine(ts, std::string("5-hour session limit reached \xE2\x88\x99 ") + phrase);
}

class WindowsTest : public ::testing::Test {
 protected:
  void feed(const std::vector<std::string>& lines, InstantMs now) {
    tree_.append("p/s.jsonl", lines);
    (void)tree_.poll(now);
  }
  LiveTree tree_;
  LiveEngine& engine_ = tree_.engine;
};

TEST_F(WindowsTest, SessionAnchorIsTheLaterOfInferenceAndAPastResetPhrase) {
  const InstantMs now = at("2026-03-10T16:00:00Z");
  EXPECT_FALSE(engine_.sessionAnchor(now).anchor);

  // Burns at 08:00 and, after a silence of more than five hours, at 14:00.
  feed({turn("2026-03-10T08:00:00Z", "a", 40'000), turn("2026-03-10T14:00:00Z", "b", 40'000)}, now);
  LiveEngine::SessionAnchor anchor = engine_.sessionAnchor(now);
  EXPECT_EQ(anchor.anchor, at("2026-03-10T14:00:00Z"));
  EXPECT_FALSE(anchor.note);

  // A reset that still lies ahead is no window start.
  feed({sessionLimit("2026-03-10T15:00:00.000Z", "resets 5:00pm (UTC)")}, now);
  EXPECT_EQ(engine_.sessionAnchor(now).anchor, at("2026-03-10T14:00:00Z"));
  EXPECT_FALSE(engine_.sessionAnchor(now).note);

  // Once passed, the reset is the later start and brings its phrase.
  const InstantMs later = at("2026-03-10T17:30:00Z");
  anchor = engine_.sessionAnchor(later);
  EXPECT_EQ(anchor.anchor, at("2026-03-10T17:00:00Z"));
  EXPECT_EQ(anchor.note, "resets 5:00pm (UTC)");
  FeedWindows w = engine_.snapshotWindows(later);
  EXPECT_EQ(w.session.anchor, "2026-03-10T17:00:00.000Z");
  EXPECT_EQ(w.session.resets_note, "resets 5:00pm (UTC)");
  EXPECT_EQ(w.session.burn_value, 0.0);

  // A burn after another long silence moves the inferred start past the
  // phrase's reset, which then loses; the anchored gauge counts the burn at
  // the very anchor.
  const InstantMs evening = at("2026-03-10T20:00:00Z");
  feed({turn("2026-03-10T19:30:00Z", "c", 40'000)}, evening);
  anchor = engine_.sessionAnchor(evening);
  EXPECT_EQ(anchor.anchor, at("2026-03-10T19:30:00Z"));
  EXPECT_FALSE(anchor.note);
  EXPECT_EQ(engine_.snapshotWindows(evening).session.burn_value, 1.0);
}

TEST_F(WindowsTest, GaugesTakeAnchorsAndWallsFromTheLastScan) {
  const InstantMs now = at("2026-03-10T12:00:00Z");
  feed({turn("2026-03-03T12:00:00Z", "old", 40'000),  // exactly a week old
        turn("2026-03-05T12:00:00Z", "f", 20'000, "claude-fable-5"),
        turn("2026-03-10T06:59:59.999Z", "early", 40'000),  // just over five hours old
        turn("2026-03-10T11:00:00Z", "o", 40'000)},
       now);

  // No scan yet: rolling windows, nothing learned.
  FeedWindows w = engine_.snapshotWindows(now);
  EXPECT_EQ(w.week, (FeedWindow{1.0 + 1.0 + 1.0, 100'000, {}, {}, {}, {}, {}, {}}));
  EXPECT_EQ(w.week_top_model.burn_value, 1.0);
  EXPECT_FALSE(w.month);
  // The session anchor is inferred at the first burn after the last silence.
  EXPECT_EQ(w.session.anchor, "2026-03-10T06:59:59.999Z");

  WindowScan::Walls walls;
  walls.week.latestResetInstant = at("2026-03-05T12:00:00Z");
  walls.week.latestResetPhrase = "resets 12:00pm (UTC)";
  walls.week.wall = CutoffObservation{12.5, 1234};
  walls.weekTopModel.latestResetInstant = at("2026-03-11T00:00:00Z");  // still ahead
  walls.session.wall = CutoffObservation{3.0, 300};
  engine_.markClean();
  engine_.updateWalls(walls);
  EXPECT_TRUE(engine_.isDirty());

  w = engine_.snapshotWindows(now);
  // From the anchor, which counts.
  EXPECT_EQ(w.week,
            (FeedWindow{3.0, 100'000, "2026-03-05T12:00:00.000Z", "resets 12:00pm (UTC)", 12.5, 1234, {}, {}}));
  EXPECT_EQ(w.week_top_model.burn_value, 0.0);
  EXPECT_FALSE(w.week_top_model.resets_note);
  EXPECT_EQ(w.session.lowest_cutoff_observed, 3.0);
  EXPECT_FALSE(w.session.authoritative_pct);
  EXPECT_FALSE(w.session.near_limit);

  EXPECT_EQ(engine_.snapshotMonthWindow(at("2026-03-01T00:00:00Z"), now),
            (FeedMonthWindow{4.0, 140'000, "2026-03-01T00:00:00.000Z", {}, {}}));
}

}  // namespace
}  // namespace ostler
