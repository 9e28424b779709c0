// Reading: polls over growing, shrinking and vanishing files, routing,
// shutdown, rollover, the parser alarm and garbage collection.
#include "daemon/engine/live_engine.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "line_builder.h"

namespace ostler {
namespace {

using namespace testing;

const InstantMs kNow = at("2026-03-10T12:00:00Z");

Usage haikuUsage(int64_t output) { return {.input = 1000, .output = output, .cacheRead = 5000, .cache5m = 200}; }

std::string turn(const std::string& ts, const std::string& rid, int64_t output) {
  return turnLine(ts, rid, haikuUsage(output), "claude-haiku-4-5");
}

// A day of requests, several lines each at rising totals, with multi-byte
// text, a line that does not decode, and a line of blanks (one of them a
// Unicode space), which is neither seen nor skipped.
std::string dayOfLines() {
  std::vector<std::string> lines;
  for (int r = 0; r < 6; ++r) {
    for (int k = 1; k <= 3; ++k) {
      lines.push_back(assistantLine({"2026-03-10T0" + std::to_string(r) + ":00:0" + std::to_string(k) + ".000Z",
                                     "req-" + std::to_string(r), "claude-haiku-4-5", haikuUsage(100 * k),
                                     "r\xC3\xA9sum\xC3\xA9 \xF0\x9F\x98\x80 " + std::to_string(k)}));
    }
    lines.push_back(userTextLine("go on \xE2\x82\xAC"));
  }
  lines.insert(lines.begin() + 4, "{not json");
  lines.insert(lines.begin() + 9, " \t\xE2\x80\x83 ");
  return jsonl(lines);
}

TEST(LiveEngineTest, AppendedFragmentsCountEachRequestOnceWithOffsetsOnWholeLines) {
  const std::string all = dayOfLines();
  LiveTree tree;
  const std::string path = tree.path("proj/s1.jsonl");
  // Fragments cut everywhere: inside JSON, inside the multi-byte
  // characters, exactly at line feeds.
  writeFile(path, "");
  size_t written = 0;
  for (size_t step = 1; written < all.size(); step = step % 97 + 13) {
    size_t n = std::min(step, all.size() - written);
    appendFile(path, all.substr(written, n));
    written += n;
    auto touched = tree.poll(kNow);
    // The offset is always just behind the last line feed written so far.
    size_t lastFeed = all.rfind('\n', written - 1);
    ASSERT_EQ(tree.engine.fileOffsets().at(path), lastFeed == std::string::npos ? 0 : int64_t(lastFeed + 1))
        << "after " << written << " bytes";
    ASSERT_TRUE(touched.empty() || touched == std::set<std::string>{"s1"});
  }
  // Each request once, at its last usage; a burn for every line.
  const LiveEngine& live = tree.engine;
  const double perRequest = (1.0 * 1000 + 5.0 * 300 + 0.1 * 5000 + 1.25 * 200) / 1e6;
  EXPECT_EQ(live.todayTurns(), 6);
  EXPECT_DOUBLE_EQ(roundUSD(live.todaySpentUSD()), roundUSD(6 * perRequest));
  EXPECT_EQ(live.todayTokensByFamily(), (std::map<std::string, int64_t>{{"haiku", 6 * 6500}}));
  EXPECT_EQ(live.recentBurns().size(), 18u);
  EXPECT_EQ(live.newLinesSeen(), 25);
  EXPECT_EQ(live.newLinesSkipped(), 1);
  EXPECT_EQ(live.sessionState().at("s1").firstUserMessage, "go on \xE2\x82\xAC");
}

TEST(LiveEngineTest, ShrunkFileIsReadAgainWithoutDoublingTheDayAndATornTailWaits) {
  LiveTree tree;
  tree.append("proj/s1.jsonl", {turn("2026-03-10T10:00:00Z", "r1", 100), turn("2026-03-10T10:01:00Z", "r2", 100)});
  tree.append("proj/blank.jsonl", {"", "  \t"});
  tree.append("proj/bad.jsonl", {"oops"});
  writeFile(tree.path("proj/torn.jsonl"), "{\"type\":");
  EXPECT_FALSE(tree.engine.exclusionsSnapshot());
  EXPECT_EQ(tree.poll(kNow), (std::set<std::string>{"bad", "blank", "s1"}));
  const double spent = tree.engine.todaySpentUSD();
  EXPECT_EQ(tree.engine.fileOffsets().at(tree.path("proj/torn.jsonl")), 0);
  // A parse skip makes every tally appear.
  EXPECT_EQ(tree.engine.exclusionsSnapshot(),
            (FeedDiagnosticsExclusions{{0, 0.0}, {0, 0.0}, {1, 0.0}, {0, 0.0}}));

  // Rewritten shorter, ending in a torn line: the old request is refused,
  // the torn one waits.
  writeFile(tree.path("proj/s1.jsonl"), turn("2026-03-10T10:00:00Z", "r1", 100) + "\n" +
                                            turn("2026-03-10T10:02:00Z", "r3", 1).substr(0, 20));
  EXPECT_EQ(tree.poll(kNow), std::set<std::string>{"s1"});
  EXPECT_EQ(tree.engine.todayTurns(), 2);
  EXPECT_DOUBLE_EQ(tree.engine.todaySpentUSD(), spent);
  EXPECT_EQ(tree.engine.exclusion(ExclusionReason::kDedupRefusal).count, 1);
  // A torn tail alone touches and dirties nothing.
  tree.engine.markClean();
  EXPECT_TRUE(tree.poll(kNow).empty());
  EXPECT_FALSE(tree.engine.isDirty());
}

TEST(LiveEngineTest, ParserAlarmTripsAboveFivePercent) {
  for (auto [good, bad, trips] : {std::tuple{95, 5, false}, std::tuple{94, 6, true}, std::tuple{0, 0, false}}) {
    LiveTree tree;
    tree.append("p/s.jsonl", std::vector<std::string>(good, "{}"));
    tree.append("p/s.jsonl", std::vector<std::string>(bad, "[]"));
    (void)tree.poll(kNow);
    EXPECT_EQ(tree.engine.parserAlarmTripped(), trips) << good << " " << bad;
  }
}

// Asks for a stop once it has been asked `after` times.
class StopAfter final : public ShutdownSignalSource {
 public:
  explicit StopAfter(int after) : after_(after) {}
  bool isRequested() const override { return ++asked_ > after_; }

 private:
  int after_;
  mutable int asked_ = 0;
};

TEST(LiveEngineTest, AStopIsHeardBetweenLinesAndTheNextPollGoesOnFromThere) {
  LiveTree tree;
  const std::string old = turn("2026-02-01T10:00:00Z", "old", 10);
  tree.append("p/a.jsonl", {old, turn("2026-03-10T10:00:00Z", "a1", 10)});
  tree.append("p/b.jsonl", {turn("2026-03-10T10:00:00Z", "b1", 10)});
  StopAfter stop(3);  // the poll's look before the file, the file's own, then one line
  EXPECT_EQ(tree.engine.poll(tree.dir.str(), kNow, &stop), std::set<std::string>{"a"});
  EXPECT_EQ(tree.engine.fileOffsets().at(tree.path("p/a.jsonl")), static_cast<int64_t>(old.size() + 1));
  EXPECT_FALSE(tree.engine.fileOffsets().contains(tree.path("p/b.jsonl")));
  EXPECT_EQ(tree.engine.todayTurns(), 0);
  // The burn of 1 February was folded, and is gone: more than 32 days old.
  EXPECT_TRUE(tree.engine.recentBurns().empty());
  // The next poll picks up where it stopped, and counts nothing twice.
  EXPECT_EQ(tree.poll(kNow), (std::set<std::string>{"a", "b"}));
  EXPECT_EQ(tree.engine.todayTurns(), 2);
  // A burn exactly 32 days old goes; one a millisecond younger stays.
  tree.append("p/c.jsonl", {turn("2026-02-06T12:00:00.000Z", "c1", 10), turn("2026-02-06T12:00:00.001Z", "c2", 10)});
  (void)tree.poll(kNow);
  EXPECT_EQ(tree.engine.recentBurns().size(), 3u);
}

TEST(LiveEngineTest, DayRollsOverBeforeTheNewDaysLines) {
  // Berlin is an hour ahead of UTC in March: its day starts at 23:00 UTC.
  LiveTree tree(PricingTable::defaultTable(), "Europe/Berlin");
  LiveEngine& engine = tree.engine;
  tree.append("p/s.jsonl", {turn("2026-03-10T22:00:00Z", "r1", 10)});
  (void)tree.poll(at("2026-03-10T22:30:00Z"));
  EXPECT_EQ(engine.todayBoundary(), at("2026-03-09T23:00:00Z"));
  EXPECT_EQ(engine.todayTurns(), 1);
  tree.append("p/s.jsonl", {turn("2026-03-10T23:00:00Z", "r2", 10)});
  (void)tree.poll(at("2026-03-10T23:10:00Z"));
  EXPECT_EQ(engine.todayBoundary(), at("2026-03-10T23:00:00Z"));
  EXPECT_EQ(engine.todayTurns(), 1);
  EXPECT_EQ(engine.todayTokensByFamily().at("haiku"), 6210);

  // A restored engine whose day is over resets at its first poll, even with
  // nothing new to read.
  PersistedState saved = engine.snapshotForPersistence(tree.dir.str());
  LiveEngine restored(systemFileSystem(), PricingTable::defaultTable(), "Europe/Berlin");
  restored.restore(saved);
  (void)restored.poll(tree.dir.str(), at("2026-03-12T08:00:00Z"));
  EXPECT_EQ(restored.todayTurns(), 0);
  EXPECT_TRUE(restored.todayTokensByFamily().empty());
  EXPECT_TRUE(restored.isDirty());

  // The day the clocks go back lasts 25 hours, to its last millisecond.
  LiveEngine autumn(systemFileSystem(), PricingTable::defaultTable(), "Europe/Berlin");
  (void)autumn.poll(tree.dir.str(), at("2026-10-25T22:59:59.999Z"));
  EXPECT_EQ(autumn.todayBoundary(), at("2026-10-24T22:00:00Z"));
  (void)autumn.poll(tree.dir.str(), at("2026-10-25T23:00:00Z"));
  EXPECT_EQ(autumn.todayBoundary(), at("2026-10-25T23:00:00Z"));
  // An earlier day restored into an engine that knew a later one still
  // rolls over at the next poll.
  autumn.restore(saved);
  (void)autumn.poll(tree.dir.str(), at("2026-10-25T23:30:00Z"));
  EXPECT_EQ(autumn.todayBoundary(), at("2026-10-25T23:00:00Z"));
  EXPECT_EQ(autumn.todayTurns(), 0);
}

TEST(LiveEngineTest, RoutingNamesChatsAndGarbageCollectionFollowsTheTree) {
  LiveTree tree;
  std::string words;
  for (int i = 0; i < 100; ++i) words += (i % 7 == 6 ? "word\n\n" : "word \t");
  nlohmann::json withCwd = nlohmann::json::parse(turn("2026-03-10T10:00:00Z", "r1", 10));
  withCwd["cwd"] = "/home/dev/app/";
  tree.append("-home-dev-app/s1.jsonl",
              {R"({"type":"user","cwd":"","message":{"content":[{"type":"text","text":"blocks"}]}})",
               userTextLine(words), withCwd.dump(), R"({"type":"ai-title","aiTitle":"first title"})",
               R"({"type":"ai-title","aiTitle":""})", R"({"type":"custom-title","customTitle":"mine","cwd":"/x"})"});
  // A chat whose top-level file is gone lives on in its subagent files.
  tree.append("-home-dev-app/s2/subagents/agent-1.jsonl", {turn("2026-03-10T10:00:00Z", "r2", 1)});
  tree.append("-home-dev-app/s3.jsonl", {"{}"});

  EXPECT_EQ(tree.poll(kNow), (std::set<std::string>{"s1", "s2", "s3"}));
  const SessionLiveState& s1 = tree.engine.sessionState().at("s1");
  EXPECT_EQ(s1.project, "app");
  EXPECT_EQ(s1.aiTitle, "first title");
  EXPECT_EQ(s1.customTitle, "mine");
  // One line, single-spaced, cut at 80 characters (here just after a space).
  std::string expected;
  for (int i = 0; i < 16; ++i) expected += "word ";
  EXPECT_EQ(s1.firstUserMessage, expected);
  EXPECT_EQ(fallbackProject(s1.projectDirPath), "home-dev-app");
  EXPECT_EQ(tree.engine.sessionState().at("s2").lastModel, "claude-haiku-4-5");
  EXPECT_TRUE(tree.engine.sessionState().contains("s3"));  // a line of no known type still makes its chat

  // Files gone from the tree are dropped by the first poll after a restore;
  // request ids and today's figures stay.
  PersistedState saved = tree.engine.snapshotForPersistence(tree.dir.str());
  std::filesystem::remove(tree.path("-home-dev-app/s3.jsonl"));
  std::filesystem::remove(tree.path("-home-dev-app/s1.jsonl"));
  LiveEngine restored(systemFileSystem(), PricingTable::defaultTable(), "UTC");
  restored.restore(saved);
  restored.markClean();
  (void)restored.poll(tree.dir.str(), kNow);
  EXPECT_TRUE(restored.isDirty());
  EXPECT_EQ(restored.sessionState().size(), 1u);
  EXPECT_TRUE(restored.sessionState().contains("s2"));
  EXPECT_EQ(restored.fileOffsets().size(), 1u);
  EXPECT_EQ(restored.subagentLastModel().size(), 1u);
  EXPECT_TRUE(restored.seenRequestIds().contains("r1"));
  EXPECT_EQ(restored.todayTurns(), 2);
}

}  // namespace
}  // namespace ostler
