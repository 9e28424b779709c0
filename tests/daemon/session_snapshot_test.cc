// The chats as the feed lists them, the live figures and the active image
// loops, from an engine fed real transcript files.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "daemon/engine/live_engine.h"
#include "daemon/engine/active_dispatches.h"
#include "line_builder.h"
#include "support/test_support.h"

namespace ostler {
namespace {

namespace fs = std::filesystem;
using namespace testing;

const InstantMs kNow = at("2026-03-10T12:00:00Z");

std::string stamp(InstantMs t) { return ISO8601::fractional(t); }

// One priced turn of `context` tokens (as cache reads) at `t`.
std::string turn(InstantMs t, int64_t context, const std::string& rid, const std::string& model = "claude-opus-4-1") {
  return turnLine(stamp(t), rid, {.output = 10, .cacheRead = context}, model);
}

void setModified(const fs::path& path, InstantMs t) {
  using namespace std::chrono;
  fs::last_write_time(path, file_clock::from_sys(sys_time<milliseconds>(milliseconds(t))));
}

class NoIdle final : public HIDIdleSource {
 public:
  [[nodiscard]] double idleSeconds() const override { return 0; }
};

// Stores for the chats it names, with a fixed pace.
class FakeStores final : public CloseoutProgressSource {
 public:
  std::map<std::string, CloseoutDigestProgress> stores;
  std::optional<double> pace;
  [[nodiscard]] std::optional<CloseoutDigestProgress> load(const std::string& sid,
                                                           const std::string&) const override {
    auto it = stores.find(sid);
    if (it == stores.end()) return std::nullopt;
    return it->second;
  }
  [[nodiscard]] std::optional<double> measuredThroughputBytesPerSecond(const std::string&) const override {
    return pace;
  }
};

std::vector<std::string> ids(const std::vector<FeedSession>& rows) {
  std::vector<std::string> out;
  for (const auto& r : rows) out.push_back(r.sessionId);
  return out;
}

// An engine over a tree in a temporary folder, with no stores and a user at
// the machine.
class SessionSnapshotTest : public ::testing::Test {
 protected:
  void poll(InstantMs now = kNow) { (void)engine_.poll(dir_.str(), now); }
  LiveEngine::SessionsSnapshot sessions(InstantMs now, const std::set<std::string>& touched = {}) {
    return engine_.snapshotSessions(now, stores_, "", idle_, touched);
  }

  TempDir dir_;
  const fs::path project_ = dir_.path() / "p";
  LiveEngine engine_{systemFileSystem(), PricingTable::defaultTable(), "UTC"};
  NoCloseoutStores stores_;
  NoIdle idle_;
};

TEST_F(SessionSnapshotTest, WarmChatsComeFirstAndOldOrEmptyOnesOnlyInTheInventory) {
  const fs::path project = dir_.path() / "-home-me-proj";
  // Twelve warm chats, one a second apart; w00 is the newest.
  for (int i = 0; i < 12; ++i) {
    char id[8];
    std::snprintf(id, sizeof id, "w%02d", i);
    writeFile(project / (std::string(id) + ".jsonl"), jsonl({turn(kNow - 10'000 - i * 1000, 1000 + i, id)}));
  }
  // Three cold ones, within the day, dearest to rewarm: c2.
  writeFile(project / "c1.jsonl", jsonl({turn(kNow - 3'600'000, 10'000, "c1")}));
  writeFile(project / "c2.jsonl", jsonl({turn(kNow - 7'200'000, 90'000, "c2")}));
  writeFile(project / "c3.jsonl", jsonl({turn(kNow - 5'400'000, 50'000, "c3")}));
  // Active today without a priced turn; active 25 hours ago; never active.
  writeFile(project / "zero.jsonl", jsonl({turnLine(stamp(kNow - 60'000), "z", {})}));
  writeFile(project / "old.jsonl", jsonl({turn(kNow - 90'000'000, 5'000, "old")}));
  writeFile(project / "mute.jsonl", jsonl({userTextLine("hello")}));

  poll();
  LiveEngine::SessionsSnapshot snap = sessions(kNow);

  // Twelve warm chats leave no room for the cold ones.
  EXPECT_EQ(ids(snap.sessions),
            (std::vector<std::string>{"w00", "w01", "w02", "w03", "w04", "w05", "w06", "w07", "w08", "w09"}));
  EXPECT_EQ(snap.zeroContextSessions, 1);
  EXPECT_EQ(snap.sessionsAll.size(), 18u);
  EXPECT_EQ(snap.sessionsAll.front().sessionId, "w00");
  // The 25-hour-old chat and the one never active close the inventory.
  EXPECT_EQ(snap.sessionsAll[16].sessionId, "old");
  EXPECT_EQ(snap.sessionsAll[17].sessionId, "mute");
  EXPECT_EQ(snap.sessionsAll[17].last_activity, "0001-01-01T00:00:00.000Z");

  EXPECT_EQ(snap.sessions.front().project, "home-me-proj");  // no cwd: the folder's name without its dashes

  // Ten minutes on every chat is cold, and the dearest to rewarm lead.
  LiveEngine::SessionsSnapshot later = sessions(kNow + 600'000);
  std::vector<std::string> coldOrder = ids(later.sessions);
  EXPECT_EQ(std::vector<std::string>(coldOrder.begin(), coldOrder.begin() + 4),
            (std::vector<std::string>{"c2", "c3", "c1", "w11"}));
  EXPECT_EQ(later.sessions.size(), 10u);
}

TEST_F(SessionSnapshotTest, InventoryRowsAreReusedForThirtySecondsUnlessTouched) {
  // Warm at first; the cache expires 20 seconds later.
  writeFile(project_ / "a.jsonl", jsonl({turn(kNow - 280'000, 1000, "a")}));
  writeFile(project_ / "b.jsonl", jsonl({turn(kNow - 280'000, 2000, "b")}));
  poll();
  auto first = sessions(kNow);
  EXPECT_EQ(first.sessionsAllRebuiltCount, 2);
  EXPECT_EQ(first.sessionsAll[0].temperature, "warm");

  // 29.999 seconds on, both caches have expired, but the inventory still
  // shows its rows as built; the recent list is always fresh.
  auto reused = sessions(kNow + 29'999);
  EXPECT_EQ(reused.sessionsAllRebuiltCount, 0);
  EXPECT_EQ(reused.sessionsAll, first.sessionsAll);
  EXPECT_EQ(reused.sessions[0].temperature, "cold");

  // A touched chat is rebuilt at once.
  auto touched = sessions(kNow + 29'999, {"b"});
  EXPECT_EQ(touched.sessionsAllRebuiltCount, 1);
  for (const auto& row : touched.sessionsAll) EXPECT_EQ(row.temperature, row.sessionId == "b" ? "cold" : "warm");

  auto due = sessions(kNow + 30'000);
  EXPECT_EQ(due.sessionsAllRebuiltCount, 1);  // b was rebuilt at 29.999
  EXPECT_EQ(due.sessionsAll[0].temperature, "cold");
  EXPECT_EQ(due.sessionsAll[1].temperature, "cold");

  // A chat whose files are gone leaves the memo with its state.
  fs::remove(project_ / "a.jsonl");
  engine_.gcDeadEntries(SessionDiscovery::discoverFiles(systemFileSystem(), dir_.str()));
  EXPECT_EQ(engine_.sessionsAllMemo().size(), 1u);
  EXPECT_TRUE(engine_.sessionsAllMemo().contains("b"));
}

TEST_F(SessionSnapshotTest, PromptStateComesFromTheStoreAndNudgeFromPresence) {
  std::string big = jsonl({turn(kNow - 250'000, 4000, "a")});
  big += std::string(20'000 - big.size() - 1, ' ') + "\n";  // a blank line pads it to 20,000 bytes
  writeFile(project_ / "a.jsonl", big);
  writeFile(project_ / "b.jsonl", jsonl({turn(kNow - 250'000, 4000, "b")}));
  poll();
  FakeStores stores;
  stores.stores["a"] = {5'000, false};
  stores.pace = 1'000.0;
  auto row = [&](const std::string& id, double idleSeconds) {
    const SessionLiveState& s = engine_.sessionState().at(id);
    return engine_.buildFeedSession(id, s, *s.lastActivity, kNow, stores, "", idleSeconds).session;
  };
  EXPECT_EQ(row("a", 0).prompt_state, (FeedPromptState{"warming", 25, 15}));
  EXPECT_EQ(row("b", 0).prompt_state, std::nullopt);
  // 50 seconds before expiry, while the user is at the machine.
  EXPECT_EQ(row("a", 0).nudge_state, (FeedNudgeState{"warning", 50}));
  EXPECT_EQ(row("a", 120).nudge_state, std::nullopt);
}

TEST_F(SessionSnapshotTest, RunningAgentsTheirModelsAndTheTokenRate) {
  const fs::path subagents = project_ / "s" / "subagents";
  writeFile(project_ / "s.jsonl", jsonl({turn(kNow - 600'000, 1000, "top")}));
  writeFile(subagents / "agent-1.jsonl", jsonl({turn(kNow - 5'000, 100, "x1", "claude-sonnet-4-5")}));
  writeFile(subagents / "agent-2.jsonl", jsonl({turn(kNow - 5'000, 100, "x2", "claude-sonnet-4-6")}));
  writeFile(subagents / "nested" / "agent-3.jsonl", jsonl({turn(kNow - 5'000, 100, "x3", "gpt-5")}));
  // Just started: a first line, no assistant line yet.
  writeFile(subagents / "agent-4.jsonl", jsonl({userTextLine("go")}));
  writeFile(subagents / "agent-5.jsonl", jsonl({turn(kNow - 5'000, 100, "x5", "claude-haiku-4-5")}));
  writeFile(subagents / "notes.txt", "not a transcript");
  poll();

  setModified(subagents / "agent-1.jsonl", kNow - 60'000);   // the last second that counts
  setModified(subagents / "agent-2.jsonl", kNow + 1'000);    // a second of skew is tolerated
  setModified(subagents / "nested" / "agent-3.jsonl", kNow);
  setModified(subagents / "agent-4.jsonl", kNow - 1'000);
  setModified(subagents / "agent-5.jsonl", kNow - 60'001);   // finished
  setModified(subagents / "notes.txt", kNow);
  EXPECT_EQ(ActiveDispatches::files(systemFileSystem(), project_.string(), "s", kNow, 60.0),
            (std::vector<std::string>{(subagents / "agent-1.jsonl").string(), (subagents / "agent-2.jsonl").string(),
                                      (subagents / "agent-4.jsonl").string(),
                                      (subagents / "nested" / "agent-3.jsonl").string()}));
  setModified(subagents / "agent-2.jsonl", kNow + 1'001);
  EXPECT_EQ(ActiveDispatches::files(systemFileSystem(), project_.string(), "s", kNow, 60.0).size(), 3u);
  EXPECT_TRUE(ActiveDispatches::files(systemFileSystem(), project_.string(), "nobody", kNow, 60.0).empty());

  setModified(subagents / "agent-2.jsonl", kNow);
  FeedNow now = engine_.snapshotNow(kNow);
  EXPECT_EQ(now.active_agents, 4);
  ASSERT_TRUE(now.agents_by_model);
  EXPECT_EQ(*now.agents_by_model, (std::vector<FeedAgentsByModelEntry>{{"sonnet", 2}, {"pending", 1},
                                                                       {"unrecognized", 1}}));
  EXPECT_EQ(sessions(kNow).sessionsAll.at(0).active_dispatches, 4);

  // With no agent running the key is absent, not empty.
  EXPECT_EQ(engine_.snapshotNow(kNow + 120'000).agents_by_model, std::nullopt);
  EXPECT_EQ(engine_.snapshotNow(kNow + 120'000).active_agents, 0);
}

TEST_F(SessionSnapshotTest, TokenRateCountsTheLastFiveMinutesAndTruncatesTowardZero) {
  const fs::path file = project_ / "s.jsonl";
  // 1,013 tokens a minute and a half ago; one just outside the window.
  writeFile(file, jsonl({turn(kNow - 300'000, 5'000, "early"), turn(kNow - 90'000, 1'003, "r1")}));
  poll();
  EXPECT_EQ(engine_.snapshotNow(kNow).rate_tokens_per_min, 202);
  EXPECT_EQ(engine_.snapshotNow(kNow - 90'001).rate_tokens_per_min, 1'002);  // only "early", 5,010 tokens

  // A further line of the same request at a smaller total burns a negative
  // difference: -1,009 tokens in the window, -201.8 a minute, shown as -201.
  appendFile(file, jsonl({turnLine(stamp(kNow - 10'000), "r1", {.output = 4})}));
  poll();
  EXPECT_EQ(engine_.snapshotNow(kNow).rate_tokens_per_min, (1'013 - 1'009) / 5);
  EXPECT_EQ(engine_.snapshotNow(kNow + 250'000).rate_tokens_per_min, -201);
}

TEST_F(SessionSnapshotTest, FiveImagesMakeALoopForTenMinutesAfterTheLast) {
  // `count` images a second apart, then the reply at `t`.
  auto answered = [](int count, InstantMs t, const char* rid) {
    std::vector<std::string> lines;
    for (int i = 0; i < count; ++i) lines.push_back(userImageLine(1, 4000, stamp(t - (count - i) * 1000)));
    lines.push_back(turn(t, 2000, rid));
    return jsonl(lines);
  };
  writeFile(project_ / "four.jsonl", answered(4, kNow - 60'000, "r4"));
  writeFile(project_ / "five.jsonl", answered(5, kNow - 60'000, "r5"));
  writeFile(project_ / "six.jsonl", answered(6, kNow - 60'000, "r6"));
  poll();

  const InstantMs lastImage = kNow - 61'000;
  std::vector<FeedMediaLoopActive> loops = engine_.snapshotActiveMediaLoops(lastImage + 599'999, 600.0);
  ASSERT_EQ(loops.size(), 2u);
  EXPECT_EQ(loops[0].sessionId, "six");  // dearest first
  EXPECT_EQ(loops[0].images, 6);
  EXPECT_EQ(loops[0].tokens_so_far, 6'000);
  EXPECT_DOUBLE_EQ(loops[0].usd_so_far, 0.03);  // 6,000 tokens at opus input, $5 a million
  EXPECT_EQ(loops[1].sessionId, "five");
  EXPECT_TRUE(engine_.snapshotActiveMediaLoops(lastImage + 600'000, 600.0).empty());
}

TEST(SessionDiscoveryTest, ProjectsThenTopLevelFilesThenSubagentsSessionBySession) {
  TempDir dir;
  const auto& root = dir.path();
  // s0's subagent folder names its chat though the top-level transcript is gone.
  for (const char* path : {"b-proj/s2.jsonl", "b-proj/s1.jsonl", "b-proj/notes.txt", "b-proj/s2/subagents/agent-b.jsonl",
                           "b-proj/s2/subagents/deep/agent-a.jsonl", "b-proj/s0/subagents/agent-z.jsonl",
                           "b-proj/s1/other/x.jsonl", "a-proj/s9.jsonl", "stray.jsonl"})
    writeFile(root / path, "");

  auto files = SessionDiscovery::discoverFiles(systemFileSystem(), root.string());
  std::vector<std::string> paths;
  for (const auto& f : files) paths.push_back(f.path.substr(root.string().size() + 1));
  EXPECT_EQ(paths, (std::vector<std::string>{
                       "a-proj/s9.jsonl",
                       "b-proj/s1.jsonl",
                       "b-proj/s2.jsonl",
                       "b-proj/s0/subagents/agent-z.jsonl",
                       "b-proj/s2/subagents/agent-b.jsonl",
                       "b-proj/s2/subagents/deep/agent-a.jsonl",
                   }));
  EXPECT_EQ(files[1], (TranscriptFile{(root / "b-proj" / "s1.jsonl").string(), "s1", (root / "b-proj").string(), false}));
  EXPECT_EQ(files[3], (TranscriptFile{(root / "b-proj/s0/subagents/agent-z.jsonl").string(), "s0",
                                  (root / "b-proj").string(), true}));

  EXPECT_TRUE(SessionDiscovery::discoverFiles(systemFileSystem(), (root / "missing").string()).empty());
}

}  // namespace
}  // namespace ostler
