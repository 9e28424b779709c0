#include "daemon/persisted_state.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "daemon/live_engine.h"
#include "line_builder.h"
#include "support/test_support.h"

namespace ostler {
namespace {

using namespace testing;

PersistedState sample() {
  PersistedState s;
  s.root = "/home/me/.claude/projects";
  s.fileOffsets = {{"/p/a.jsonl", 1234}};
  FileMediaState m;
  m.sessionId = "a";
  m.runLastImageAt = at("2026-03-10T10:00:00.250Z");
  m.openRequestId = "req";
  m.openFamily = "opus";
  m.openIsStub = false;
  m.openCostUSD = 0.125;
  s.fileMediaState = {{"/p/a.jsonl", m}};
  SessionLiveState st;
  st.project = "app";
  st.projectDirPath = "/p";
  st.lastActivity = at("2026-03-10T10:00:00Z");
  st.setupTaxAt = at("2026-03-10T09:00:00Z");
  st.setupTax = SetupTaxCapture{std::nullopt, 1, 2, 3, 4, 5, "claude-opus-4"};
  st.firstUserMessage = "hello";
  s.sessionState = {{"a", st}};
  s.quotaLastEventAt = "2026-03-10T08:00:00.000Z";
  s.newLinesSeen = 10;
  s.newLinesSkipped = 1;
  s.todayBoundary = at("2026-03-10T00:00:00Z");
  s.todaySpentUSD = 0.1 + 0.2;
  s.todayTurns = 3;
  s.todayTokensByFamily = {{"opus", 99}};
  s.recentBurns = {{at("2026-03-10T10:00:00Z"), 0.5, true, 42}};
  WindowScan::Walls walls;
  walls.session.wall = CutoffObservation{35.0, 3500};
  walls.week.latestResetInstant = at("2026-03-12T15:00:00Z");
  walls.week.latestResetPhrase = "resets 3:00pm (UTC)";
  s.cachedWalls = walls;
  s.subagentLastModel = {{"/p/a/subagents/x.jsonl", "claude-haiku-4"}};
  s.seenRequestIds = {"req", "other"};
  return s;
}

TEST(PersistedStateTest, SavesEveryFieldAndReadsOnlyWholeRecords) {
  TempDir dir;
  const std::string path = (dir.path() / "deep" / "er" / "state.json").string();
  const PersistedState s = sample();
  auto saved = PersistedStateIO::save(s, path);
  ASSERT_TRUE(saved.ok()) << saved.error().message;
  EXPECT_EQ(saved.value(), static_cast<int64_t>(std::filesystem::file_size(path)));
  auto loaded = PersistedStateIO::load(path, s.root);
  ASSERT_TRUE(loaded);
  EXPECT_EQ(*loaded, s);
  // Compact, with instants as seconds since 2001, and no temporary file left.
  std::string text = readFile(path);
  EXPECT_EQ(text.find('\n'), std::string::npos);
  EXPECT_NE(text.find("\"todayBoundary\":794793600.0"), std::string::npos);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path() / "deep" / "er"), {}), 1);
  // Optional keys are left out rather than written as null.
  EXPECT_EQ(text.find("null"), std::string::npos);
  EXPECT_EQ(text.find("quotaResetsNote"), std::string::npos);

  // Every key is required but the open request of a file record.
  const nlohmann::json j = nlohmann::json::parse(text);
  auto loadVariant = [&](const std::function<void(nlohmann::json&)>& change) {
    nlohmann::json v = j;
    change(v);
    writeFile(path, v.dump());
    return PersistedStateIO::load(path, s.root);
  };
  EXPECT_FALSE(loadVariant([](nlohmann::json& v) { v.erase("seenRequestIds"); }));
  EXPECT_FALSE(loadVariant([](nlohmann::json& v) { v["todayTurns"] = 1.5; }));
  EXPECT_FALSE(loadVariant([](nlohmann::json& v) { v["fileMediaState"]["/p/a.jsonl"].erase("nonImageStreak"); }));
  EXPECT_FALSE(loadVariant([](nlohmann::json& v) { v["recentBurns"][0].erase("tokens"); }));
  // The open fields of a file record may be missing: it is then a new stub.
  auto older = loadVariant([](nlohmann::json& v) {
    auto& m = v["fileMediaState"]["/p/a.jsonl"];
    for (const char* k : {"openRequestId", "openCostUSD", "openContextTokens", "openOutputTokens", "openFamily",
                          "openCountsForToday", "openIsStub", "openTurnCounted", "openIsDuplicate"})
      m.erase(k);
  });
  ASSERT_TRUE(older);
  const FileMediaState& m = older->fileMediaState.at("/p/a.jsonl");
  EXPECT_TRUE(m.openIsStub);
  EXPECT_FALSE(m.openRequestId);
  EXPECT_EQ(m.runLastImageAt, at("2026-03-10T10:00:00.250Z"));
}

TEST(PersistedStateTest, DefaultPathIsOneFilePerRootString) {
  EXPECT_NE(PersistedStateIO::defaultPath("/Users/me/.claude/projects"),
            PersistedStateIO::defaultPath("/Users/me/.claude/projects/"));
  EXPECT_EQ(PersistedStateIO::defaultPath("abc"),
            "/tmp/ladder-daemon-scratch/state-ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad.json");
}

// A day's transcript, written in three stages; the second stage leaves a
// request with only its first line written.
std::vector<std::string> stages() {
  auto turn = [](const char* ts, const char* rid, int64_t out) {
    return turnLine(ts, rid, {.input = 50, .output = out, .cacheRead = 20'000, .cache5m = 1'000}, "claude-sonnet-4-5");
  };
  return {jsonl({turn("2026-03-10T08:00:00Z", "r1", 10), turn("2026-03-10T08:00:01Z", "r1", 400)}),
          jsonl({turn("2026-03-10T09:00:00Z", "r2", 10), turn("2026-03-10T09:00:01Z", "r2", 90)}) +
              turn("2026-03-10T09:00:02Z", "r2", 95).substr(0, 50),
          turn("2026-03-10T09:00:02Z", "r2", 95).substr(50) + "\n" +
              jsonl({turn("2026-03-10T09:00:03Z", "r2", 700), turn("2026-03-10T10:00:00Z", "r3", 5)})};
}

struct Figures {
  double spent;
  int64_t turns;
  std::map<std::string, int64_t> tokens;
  size_t burns;
  bool operator==(const Figures&) const = default;
};

Figures figures(const LiveEngine& e) {
  return {roundUSD(e.todaySpentUSD()), e.todayTurns(), e.todayTokensByFamily(), e.recentBurns().size()};
}

TEST(PersistedStateTest, RestartMidDayEndsWithTheFiguresOfAnEngineThatNeverStopped) {
  TempDir dir;
  const std::string root = (dir.path() / "root").string();
  const auto file = dir.path() / "root" / "p" / "s.jsonl";
  const std::string statePath = (dir.path() / "scratch" / "state.json").string();
  const InstantMs now = at("2026-03-10T12:00:00Z");
  const auto parts = stages();

  LiveEngine steady(PricingTable::defaultTable(), "UTC");
  LiveEngine first(PricingTable::defaultTable(), "UTC");
  for (size_t i = 0; i < 2; ++i) {
    appendFile(file, parts[i]);
    (void)steady.poll(root, now);
    (void)first.poll(root, now);
  }
  ASSERT_TRUE(PersistedStateIO::save(first.snapshotForPersistence(root), statePath).ok());
  // The first engine goes on a little before it dies, unsaved.
  appendFile(file, parts[2]);
  (void)first.poll(root, now);
  (void)steady.poll(root, now);
  EXPECT_EQ(figures(first), figures(steady));

  // The restarted engine reads again what lies behind the saved offset; the
  // saved open request and seen ids keep it from counting anything twice.
  auto loaded = PersistedStateIO::load(statePath, root);
  ASSERT_TRUE(loaded);
  LiveEngine second(PricingTable::defaultTable(), "UTC");
  second.restore(*loaded);
  (void)second.poll(root, now);
  EXPECT_EQ(figures(second), figures(steady));
  EXPECT_EQ(steady.todayTurns(), 3);

  // Restored into the engine that had already read on, the saved state is
  // read on from its own offsets all the same.
  first.restore(*loaded);
  (void)first.poll(root, now);
  EXPECT_EQ(figures(first), figures(steady));
  EXPECT_EQ(first.fileOffsets(), second.fileOffsets());

  // A state file of another version, for another root, cut short or gone
  // gives a cold start that reaches the same figures.
  for (const std::string damage : {"version", "root", "cut", "gone"}) {
    PersistedState s = first.snapshotForPersistence(root);
    if (damage == "version") s.stateVersion = 2;
    if (damage == "root") s.root = root + "/";
    ASSERT_TRUE(PersistedStateIO::save(s, statePath).ok());
    if (damage == "cut") writeFile(statePath, readFile(statePath).substr(0, 100));
    if (damage == "gone") std::filesystem::remove(statePath);
    LiveEngine cold(PricingTable::defaultTable(), "UTC");
    auto state = PersistedStateIO::load(statePath, root);
    EXPECT_FALSE(state) << damage;
    if (state) cold.restore(*state);
    (void)cold.poll(root, now);
    EXPECT_EQ(figures(cold), figures(steady)) << damage;
  }
}

}  // namespace
}  // namespace ostler
