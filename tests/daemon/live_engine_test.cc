// Reading: polls over growing, shrinking and vanishing files, routing,
// shutdown, rollover, the parser alarm and garbage collection.
#include "daemon/engine/live_engine.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "transcript/tail_reader.h"
#include "line_builder.h"
#include "support/test_support.h"

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
  TempDir dir;
  const auto path = dir.path() / "proj" / "s1.jsonl";
  // Fragments cut everywhere: inside JSON, inside the multi-byte
  // characters, exactly at line feeds.
  LiveEngine live(systemFileSystem(), PricingTable::defaultTable(), "UTC");
  writeFile(path, "");
  size_t written = 0;
  for (size_t step = 1; written < all.size(); step = step % 97 + 13) {
    size_t n = std::min(step, all.size() - written);
    appendFile(path, all.substr(written, n));
    written += n;
    auto touched = live.poll(dir.str(), kNow);
    int64_t offset = live.fileOffsets().at(path.string());
    // The offset is always just behind a line feed (or at the start), and
    // behind the last one written so far.
    size_t lastFeed = all.rfind('\n', written - 1);
    size_t expected = lastFeed == std::string::npos ? 0 : lastFeed + 1;
    ASSERT_EQ(offset, static_cast<int64_t>(expected)) << "after " << written << " bytes";
    ASSERT_TRUE(touched.empty() || touched == std::set<std::string>{"s1"});
  }
  // Each request once, at its last usage: 1,000 input, 300 output, 5,000
  // cache reads and 200 five-minute writes on the haiku row; a burn for
  // every line.
  const double perRequest = (1.0 * 1000 + 5.0 * 300 + 0.1 * 5000 + 1.25 * 200) / 1e6;
  EXPECT_EQ(live.todayTurns(), 6);
  EXPECT_DOUBLE_EQ(roundUSD(live.todaySpentUSD()), roundUSD(6 * perRequest));
  EXPECT_EQ(live.todayTokensByFamily(), (std::map<std::string, int64_t>{{"haiku", 6 * 6500}}));
  EXPECT_EQ(live.recentBurns().size(), 18u);
  EXPECT_EQ(live.newLinesSeen(), 25);
  EXPECT_EQ(live.newLinesSkipped(), 1);
  EXPECT_EQ(live.sessionState().at("s1").firstUserMessage, "go on \xE2\x82\xAC");
}

TEST(LiveEngineTest, ShrunkFileIsReadAgainWithoutDoublingTheDay) {
  TempDir dir;
  const auto path = dir.path() / "proj" / "s1.jsonl";
  writeFile(path, jsonl({turn("2026-03-10T10:00:00Z", "r1", 100),
                         turn("2026-03-10T10:01:00Z", "r2", 100)}));
  LiveEngine engine(systemFileSystem(), PricingTable::defaultTable(), "UTC");
  (void)engine.poll(dir.str(), kNow);
  const double spent = engine.todaySpentUSD();
  ASSERT_EQ(engine.todayTurns(), 2);

  // Rewritten shorter, ending in a torn line: the old request is refused,
  // the torn one waits.
  writeFile(path, turn("2026-03-10T10:00:00Z", "r1", 100) + "\n" +
                      turn("2026-03-10T10:02:00Z", "r3", 1).substr(0, 20));
  auto touched = engine.poll(dir.str(), kNow);
  EXPECT_EQ(touched, std::set<std::string>{"s1"});
  EXPECT_EQ(engine.todayTurns(), 2);
  EXPECT_DOUBLE_EQ(engine.todaySpentUSD(), spent);
  EXPECT_EQ(engine.exclusion(ExclusionReason::kDedupRefusal).count, 1);

  // A torn tail alone touches and dirties nothing.
  engine.markClean();
  EXPECT_TRUE(engine.poll(dir.str(), kNow).empty());
  EXPECT_FALSE(engine.isDirty());
}

TEST(LiveEngineTest, BlankLinesAreNeitherSeenNorSkippedButUnparsableOnesTouch) {
  TempDir dir;
  writeFile(dir.path() / "proj" / "blank.jsonl", "\n  \t\n");
  writeFile(dir.path() / "proj" / "bad.jsonl", "oops\n");
  writeFile(dir.path() / "proj" / "torn.jsonl", "{\"type\":");
  LiveEngine engine(systemFileSystem(), PricingTable::defaultTable(), "UTC");
  EXPECT_FALSE(engine.exclusionsSnapshot());
  EXPECT_EQ(engine.poll(dir.str(), kNow), (std::set<std::string>{"bad", "blank"}));
  EXPECT_EQ(engine.newLinesSeen(), 1);
  EXPECT_EQ(engine.newLinesSkipped(), 1);
  // A parse skip makes every tally appear.
  auto snapshot = engine.exclusionsSnapshot();
  ASSERT_TRUE(snapshot);
  EXPECT_EQ(snapshot->parse_skip, (FeedDiagnosticsExclusionTally{1, 0.0}));
  EXPECT_EQ(snapshot->timestamp_gate, (FeedDiagnosticsExclusionTally{0, 0.0}));
  EXPECT_EQ(engine.fileOffsets().at((dir.path() / "proj" / "torn.jsonl").string()), 0);
}

TEST(LiveEngineTest, ParserAlarmTripsAboveFivePercent) {
  auto engineWith = [](int good, int bad) {
    TempDir dir;
    std::string text;
    for (int i = 0; i < good; ++i) text += "{}\n";
    for (int i = 0; i < bad; ++i) text += "[]\n";
    writeFile(dir.path() / "p" / "s.jsonl", text);
    auto engine = std::make_unique<LiveEngine>(systemFileSystem(), PricingTable::defaultTable(), "UTC");
    (void)engine->poll(dir.str(), kNow);
    return engine;
  };
  EXPECT_FALSE(engineWith(95, 5)->parserAlarmTripped());
  EXPECT_TRUE(engineWith(94, 6)->parserAlarmTripped());
  EXPECT_FALSE(engineWith(0, 0)->parserAlarmTripped());
}

class StopAfterFirstFile final : public ShutdownSignalSource {
 public:
  mutable int asked = 0;
  bool isRequested() const override { return ++asked > 1; }
};

TEST(LiveEngineTest, ShutdownStopsAtAFileBoundaryAndStillPrunesBurns) {
  TempDir dir;
  writeFile(dir.path() / "p" / "a.jsonl", jsonl({turn("2026-02-01T10:00:00Z", "old", 10),
                                                  turn("2026-03-10T10:00:00Z", "a1", 10)}));
  writeFile(dir.path() / "p" / "b.jsonl", jsonl({turn("2026-03-10T10:00:00Z", "b1", 10)}));
  LiveEngine engine(systemFileSystem(), PricingTable::defaultTable(), "UTC");
  StopAfterFirstFile stop;
  auto touched = engine.poll(dir.str(), kNow, &stop);
  EXPECT_EQ(touched, std::set<std::string>{"a"});
  EXPECT_FALSE(engine.fileOffsets().contains((dir.path() / "p" / "b.jsonl").string()));
  // The burn of 1 February is more than 32 days old and is gone.
  ASSERT_EQ(engine.recentBurns().size(), 1u);
  EXPECT_EQ(engine.recentBurns()[0].timestamp, at("2026-03-10T10:00:00Z"));

  // The next poll picks up where it stopped.
  EXPECT_EQ(engine.poll(dir.str(), kNow), std::set<std::string>{"b"});
  EXPECT_EQ(engine.todayTurns(), 2);

  // A burn exactly 32 days old goes; one a millisecond younger stays.
  writeFile(dir.path() / "p" / "c.jsonl", jsonl({turn("2026-02-06T12:00:00.000Z", "c1", 10),
                                                  turn("2026-02-06T12:00:00.001Z", "c2", 10)}));
  (void)engine.poll(dir.str(), kNow);
  EXPECT_EQ(engine.recentBurns().size(), 3u);
}

TEST(LiveEngineTest, DayRollsOverBeforeTheNewDaysLines) {
  TempDir dir;
  const auto path = dir.path() / "p" / "s.jsonl";
  writeFile(path, jsonl({turn("2026-03-10T22:00:00Z", "r1", 10)}));
  // Berlin is an hour ahead of UTC in March: its day starts at 23:00 UTC.
  LiveEngine engine(systemFileSystem(), PricingTable::defaultTable(), "Europe/Berlin");
  (void)engine.poll(dir.str(), at("2026-03-10T22:30:00Z"));
  EXPECT_EQ(engine.todayBoundary(), at("2026-03-09T23:00:00Z"));
  EXPECT_EQ(engine.todayTurns(), 1);

  appendFile(path, jsonl({turn("2026-03-10T23:00:00Z", "r2", 10)}));
  (void)engine.poll(dir.str(), at("2026-03-10T23:10:00Z"));
  EXPECT_EQ(engine.todayBoundary(), at("2026-03-10T23:00:00Z"));
  EXPECT_EQ(engine.todayTurns(), 1);
  EXPECT_EQ(engine.todayTokensByFamily().at("haiku"), 6210);

  // A restored engine whose day is over resets at its first poll, even with
  // nothing new to read.
  PersistedState saved = engine.snapshotForPersistence(dir.str());
  LiveEngine restored(systemFileSystem(), PricingTable::defaultTable(), "Europe/Berlin");
  restored.restore(saved);
  EXPECT_EQ(restored.todayTurns(), 1);
  (void)restored.poll(dir.str(), at("2026-03-12T08:00:00Z"));
  EXPECT_EQ(restored.todayTurns(), 0);
  EXPECT_TRUE(restored.todayTokensByFamily().empty());
  EXPECT_TRUE(restored.isDirty());

  // The day the clocks go back lasts 25 hours, to its last millisecond.
  LiveEngine autumn(systemFileSystem(), PricingTable::defaultTable(), "Europe/Berlin");
  (void)autumn.poll(dir.str(), at("2026-10-25T22:59:59.999Z"));
  EXPECT_EQ(autumn.todayBoundary(), at("2026-10-24T22:00:00Z"));
  (void)autumn.poll(dir.str(), at("2026-10-25T23:00:00Z"));
  EXPECT_EQ(autumn.todayBoundary(), at("2026-10-25T23:00:00Z"));
  // An earlier day restored into an engine that knew a later one still
  // rolls over at the next poll.
  autumn.restore(saved);
  (void)autumn.poll(dir.str(), at("2026-10-25T23:30:00Z"));
  EXPECT_EQ(autumn.todayBoundary(), at("2026-10-25T23:00:00Z"));
  EXPECT_EQ(autumn.todayTurns(), 0);
}

TEST(LiveEngineTest, RoutingNamesChatsAndGarbageCollectionFollowsTheTree) {
  TempDir dir;
  const auto proj = dir.path() / "-home-dev-app";
  std::string words;
  for (int i = 0; i < 100; ++i) words += (i % 7 == 6 ? "word\n\n" : "word \t");
  nlohmann::json withCwd = nlohmann::json::parse(turn("2026-03-10T10:00:00Z", "r1", 10));
  withCwd["cwd"] = "/home/dev/app/";
  writeFile(proj / "s1.jsonl",
            jsonl({R"({"type":"user","cwd":"","message":{"content":[{"type":"text","text":"blocks"}]}})",
                   userTextLine(words), withCwd.dump(),
                   R"({"type":"ai-title","aiTitle":"first title"})", R"({"type":"ai-title","aiTitle":""})",
                   R"({"type":"custom-title","customTitle":"mine","cwd":"/elsewhere"})"}));
  // A chat whose top-level file is gone lives on in its subagent files.
  writeFile(proj / "s2" / "subagents" / "agent-1.jsonl", jsonl({turn("2026-03-10T10:00:00Z", "r2", 1)}));
  writeFile(proj / "s3.jsonl", jsonl({"{}"}));

  LiveEngine engine(systemFileSystem(), PricingTable::defaultTable(), "UTC");
  EXPECT_EQ(engine.poll(dir.str(), kNow), (std::set<std::string>{"s1", "s2", "s3"}));
  const SessionLiveState& s1 = engine.sessionState().at("s1");
  EXPECT_EQ(s1.project, "app");
  EXPECT_EQ(s1.aiTitle, "first title");
  EXPECT_EQ(s1.customTitle, "mine");
  // One line, single-spaced, cut at 80 characters (here just after a space).
  std::string expected;
  for (int i = 0; i < 16; ++i) expected += "word ";
  EXPECT_EQ(s1.firstUserMessage, expected);
  EXPECT_EQ(fallbackProject(s1.projectDirPath), "home-dev-app");
  EXPECT_EQ(engine.sessionState().at("s2").lastModel, "claude-haiku-4-5");
  EXPECT_TRUE(engine.sessionState().contains("s3"));  // a line of no known type still makes its chat

  // Files gone from the tree are dropped by the first poll after a restore.
  PersistedState saved = engine.snapshotForPersistence(dir.str());
  std::filesystem::remove(proj / "s3.jsonl");
  std::filesystem::remove(proj / "s1.jsonl");
  LiveEngine restored(systemFileSystem(), PricingTable::defaultTable(), "UTC");
  restored.restore(saved);
  restored.markClean();
  (void)restored.poll(dir.str(), kNow);
  EXPECT_TRUE(restored.isDirty());
  EXPECT_EQ(restored.sessionState().size(), 1u);
  EXPECT_TRUE(restored.sessionState().contains("s2"));
  EXPECT_EQ(restored.fileOffsets().size(), 1u);
  EXPECT_EQ(restored.subagentLastModel().size(), 1u);
  // Request ids and today's figures stay.
  EXPECT_TRUE(restored.seenRequestIds().contains("r1"));
  EXPECT_EQ(restored.todayTurns(), 2);
}

}  // namespace
}  // namespace ostler
