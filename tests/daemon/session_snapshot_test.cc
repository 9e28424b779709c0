// The chats as the feed lists them, the live figures and the active image
// loops, from an engine fed real transcript files.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "daemon/engine/active_dispatches.h"
#include "daemon/engine/live_engine.h"
#include "line_builder.h"

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

// Stores for the chats it names, with a fixed pace.
class FakeStores final : public CloseoutProgressSource {
 public:
  std::map<std::string, CloseoutDigestProgress> stores;
  std::optional<double> pace;
  [[nodiscard]] std::optional<CloseoutDigestProgress> load(const std::string& sid, const std::string&) const override {
    auto it = stores.find(sid);
    return it == stores.end() ? std::nullopt : std::optional(it->second);
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
  LiveEngine::SessionsSnapshot sessions(InstantMs now, const std::set<std::string>& touched = {}) {
    return engine_.snapshotSessions(now, stores_, "", idle_, touched);
  }
  void setModified(const std::string& path, InstantMs t) {
    using namespace std::chrono;
    fs::last_write_time(tree_.path(path), file_clock::from_sys(sys_time<milliseconds>(milliseconds(t))));
  }

  LiveTree tree_;
  LiveEngine& engine_ = tree_.engine;
  NoCloseoutStores stores_;
  NoIdle idle_;
};

TEST_F(SessionSnapshotTest, WarmChatsComeFirstAndOldOrEmptyOnesOnlyInTheInventory) {
  // Twelve warm chats, one a second apart; w00 is the newest.
  for (int i = 0; i < 12; ++i) {
    const std::string id = (i < 10 ? "w0" : "w") + std::to_string(i);
    tree_.append("-home-me-proj/" + id + ".jsonl", {turn(kNow - 10'000 - i * 1000, 1000 + i, id)});
  }
  // Three cold ones, within the day, dearest to rewarm: c2.
  tree_.append("-home-me-proj/c1.jsonl", {turn(kNow - 3'600'000, 10'000, "c1")});
  tree_.append("-home-me-proj/c2.jsonl", {turn(kNow - 7'200'000, 90'000, "c2")});
  tree_.append("-home-me-proj/c3.jsonl", {turn(kNow - 5'400'000, 50'000, "c3")});
  // Active today without a priced turn; active 25 hours ago; never active.
  tree_.append("-home-me-proj/zero.jsonl", {turnLine(stamp(kNow - 60'000), "z", {})});
  tree_.append("-home-me-proj/old.jsonl", {turn(kNow - 90'000'000, 5'000, "old")});
  tree_.append("-home-me-proj/mute.jsonl", {userTextLine("hello")});
  (void)tree_.poll(kNow);
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
  const std::vector<std::string> coldOrder = ids(sessions(kNow + 600'000).sessions);
  EXPECT_EQ(coldOrder.size(), 10u);
  EXPECT_EQ(std::vector<std::string>(coldOrder.begin(), coldOrder.begin() + 4),
            (std::vector<std::string>{"c2", "c3", "c1", "w11"}));
}

TEST_F(SessionSnapshotTest, InventoryRowsAreReusedForThirtySecondsUnlessTouched) {
  // Warm at first; the cache expires 20 seconds later.
  tree_.append("p/a.jsonl", {turn(kNow - 280'000, 1000, "a")});
  tree_.append("p/b.jsonl", {turn(kNow - 280'000, 2000, "b")});
  (void)tree_.poll(kNow);
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

  // A chat whose files are gone leaves the memo with its state.
  fs::remove(tree_.path("p/a.jsonl"));
  engine_.gcDeadEntries(SessionDiscovery::discoverFiles(systemFileSystem(), tree_.dir.str()));
  EXPECT_EQ(engine_.sessionsAllMemo().size(), 1u);
  EXPECT_TRUE(engine_.sessionsAllMemo().contains("b"));
}

TEST_F(SessionSnapshotTest, PromptStateComesFromTheStoreAndNudgeFromPresence) {
  std::string big = jsonl({turn(kNow - 250'000, 4000, "a")});
  big += std::string(20'000 - big.size() - 1, ' ') + "\n";  // a blank line pads it to 20,000 bytes
  writeFile(tree_.path("p/a.jsonl"), big);
  tree_.append("p/b.jsonl", {turn(kNow - 250'000, 4000, "b")});
  (void)tree_.poll(kNow);
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

TEST_F(SessionSnapshotTest, RunningAgentsAndTheirModels) {
  tree_.append("p/s.jsonl", {turn(kNow - 600'000, 1000, "top")});
  tree_.append("p/s/subagents/agent-1.jsonl", {turn(kNow - 5'000, 100, "x1", "claude-sonnet-4-5")});
  tree_.append("p/s/subagents/agent-2.jsonl", {turn(kNow - 5'000, 100, "x2", "claude-sonnet-4-6")});
  tree_.append("p/s/subagents/nested/agent-3.jsonl", {turn(kNow - 5'000, 100, "x3", "gpt-5")});
  // Just started: a first line, no assistant line yet.
  tree_.append("p/s/subagents/agent-4.jsonl", {userTextLine("go")});
  tree_.append("p/s/subagents/agent-5.jsonl", {turn(kNow - 5'000, 100, "x5", "claude-haiku-4-5")});
  writeFile(tree_.path("p/s/subagents/notes.txt"), "not a transcript");
  (void)tree_.poll(kNow);

  setModified("p/s/subagents/agent-1.jsonl", kNow - 60'000);  // the last second that counts
  setModified("p/s/subagents/agent-2.jsonl", kNow + 1'000);   // a second of skew is tolerated
  setModified("p/s/subagents/nested/agent-3.jsonl", kNow);
  setModified("p/s/subagents/agent-4.jsonl", kNow - 1'000);
  setModified("p/s/subagents/agent-5.jsonl", kNow - 60'001);  // finished
  setModified("p/s/subagents/notes.txt", kNow);
  auto running = [&] { return ActiveDispatches::files(systemFileSystem(), tree_.path("p"), "s", kNow, 60.0); };
  EXPECT_EQ(running(), (std::vector<std::string>{tree_.path("p/s/subagents/agent-1.jsonl"),
                                                 tree_.path("p/s/subagents/agent-2.jsonl"),
                                                 tree_.path("p/s/subagents/agent-4.jsonl"),
                                                 tree_.path("p/s/subagents/nested/agent-3.jsonl")}));
  setModified("p/s/subagents/agent-2.jsonl", kNow + 1'001);
  EXPECT_EQ(running().size(), 3u);
  EXPECT_TRUE(ActiveDispatches::files(systemFileSystem(), tree_.path("p"), "nobody", kNow, 60.0).empty());

  setModified("p/s/subagents/agent-2.jsonl", kNow);
  FeedNow now = engine_.snapshotNow(kNow);
  EXPECT_EQ(now.active_agents, 4);
  EXPECT_EQ(now.agents_by_model,
            (std::vector<FeedAgentsByModelEntry>{{"sonnet", 2}, {"pending", 1}, {"unrecognized", 1}}));
  EXPECT_EQ(sessions(kNow).sessionsAll.at(0).active_dispatches, 4);
  // With no agent running the key is absent, not empty.
  EXPECT_EQ(engine_.snapshotNow(kNow + 120'000).agents_by_model, std::nullopt);
  EXPECT_EQ(engine_.snapshotNow(kNow + 120'000).active_agents, 0);
}

TEST_F(SessionSnapshotTest, TokenRateCountsTheLastFiveMinutesAndTruncatesTowardZero) {
  // 1,013 tokens a minute and a half ago; one just outside the window.
  tree_.append("p/s.jsonl", {turn(kNow - 300'000, 5'000, "early"), turn(kNow - 90'000, 1'003, "r1")});
  (void)tree_.poll(kNow);
  EXPECT_EQ(engine_.snapshotNow(kNow).rate_tokens_per_min, 202);
  EXPECT_EQ(engine_.snapshotNow(kNow - 90'001).rate_tokens_per_min, 1'002);  // only "early", 5,010 tokens
  // A further line of the same request at a smaller total burns a negative
  // difference: -1,009 tokens in the window, -201.8 a minute, shown as -201.
  tree_.append("p/s.jsonl", {turnLine(stamp(kNow - 10'000), "r1", {.output = 4})});
  (void)tree_.poll(kNow);
  EXPECT_EQ(engine_.snapshotNow(kNow).rate_tokens_per_min, (1'013 - 1'009) / 5);
  EXPECT_EQ(engine_.snapshotNow(kNow + 250'000).rate_tokens_per_min, -201);
}

TEST_F(SessionSnapshotTest, FiveImagesMakeALoopForTenMinutesAfterTheLast) {
  // `count` images a second apart, then the reply a second later.
  for (int count : {4, 5, 6}) {
    std::vector<std::string> lines;
    for (int i = 0; i < count; ++i) lines.push_back(userImageLine(1, 4000, stamp(kNow - 60'000 - (count - i) * 1000)));
    lines.push_back(turn(kNow - 60'000, 2000, fmt::format("r{}", count)));
    tree_.append(fmt::format("p/{}.jsonl", count), lines);
  }
  (void)tree_.poll(kNow);
  const InstantMs lastImage = kNow - 61'000;
  std::vector<FeedMediaLoopActive> loops = engine_.snapshotActiveMediaLoops(lastImage + 599'999, 600.0);
  ASSERT_EQ(loops.size(), 2u);
  EXPECT_EQ(loops[0].sessionId, "6");  // dearest first
  EXPECT_EQ(loops[0].images, 6);
  EXPECT_EQ(loops[0].tokens_so_far, 6'000);
  EXPECT_DOUBLE_EQ(loops[0].usd_so_far, 0.03);  // 6,000 tokens at opus input, $5 a million
  EXPECT_EQ(loops[1].sessionId, "5");
  EXPECT_TRUE(engine_.snapshotActiveMediaLoops(lastImage + 600'000, 600.0).empty());
}

}  // namespace
}  // namespace ostler
