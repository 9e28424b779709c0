// The request fold and the other per-line rules of the live accumulator,
// driven through real files and polls.
#include <gtest/gtest.h>

#include "daemon/engine/live_engine.h"
#include "line_builder.h"

namespace ostler {
namespace {

using namespace testing;

// Every token costs one cent on "claude-opus…", so a line of N tokens costs
// N / 100 dollars; "claude-fable…" costs the same.
PricingTable centPerToken() {
  PricingTable t;
  t.rates["claude-opus"] = {10'000, 10'000, 10'000, 10'000, 10'000};
  t.rates["claude-fable"] = {10'000, 10'000, 10'000, 10'000, 10'000};
  return t;
}

const InstantMs kNow = at("2026-03-10T12:00:00Z");

class AccountingTest : public ::testing::Test {
 protected:
  void append(const std::vector<std::string>& lines, const std::string& name = "s1.jsonl") {
    tree_.append("proj/" + name, lines);
  }
  void poll() { (void)tree_.poll(kNow); }
  double spent() const { return engine_.todaySpentUSD(); }
  std::vector<std::pair<double, int64_t>> burns() const {
    std::vector<std::pair<double, int64_t>> out;
    for (const auto& b : engine_.recentBurns()) out.emplace_back(roundUSD(b.costUSD), b.tokens);
    return out;
  }

  LiveTree tree_{centPerToken()};
  LiveEngine& engine_ = tree_.engine;
};

std::string line(const char* ts, const std::optional<std::string>& rid, int64_t output,
                 const std::string& model = "claude-opus-4-1") {
  return turnLine(ts, rid, {.output = output}, model);
}

TEST_F(AccountingTest, RequestCountsOnceAtItsLastRunningTotalAndInTheFileReadFirst) {
  append({line("2026-03-10T10:00:00Z", "r1", 100), line("2026-03-10T10:00:01Z", "r1", 300),
          line("2026-03-10T10:00:02Z", "r1", 300)});
  // A copy in a file read later is refused whole: the first line with its
  // whole cost, the next with its rise.
  append({line("2026-03-10T10:00:00Z", "r1", 100), line("2026-03-10T10:00:01Z", "r1", 250)}, "t.jsonl");
  poll();
  EXPECT_DOUBLE_EQ(spent(), 3.0);
  EXPECT_EQ(engine_.todayTurns(), 1);
  EXPECT_EQ(engine_.todayTokensByFamily().at("opus"), 300);
  // The third line adds a burn of nothing.
  EXPECT_EQ(burns(), (std::vector<std::pair<double, int64_t>>{{1.0, 100}, {2.0, 200}, {0.0, 0}}));
  const ExclusionTally& dedup = engine_.exclusion(ExclusionReason::kDedupRefusal);
  EXPECT_EQ(dedup.count, 2);
  EXPECT_DOUBLE_EQ(roundUSD(dedup.dollarsUSD), 2.5);

  // A stub first line (no tokens) leaves the whole of the next line new; a
  // request whose total falls to nothing and rises again is still one turn.
  append({line("2026-03-10T10:01:00Z", "r2", 0), line("2026-03-10T10:01:01Z", "r2", 500),
          line("2026-03-10T10:01:30Z", "r3", 100), line("2026-03-10T10:01:31Z", "r3", 0),
          line("2026-03-10T10:01:32Z", "r3", 200)});
  poll();
  EXPECT_DOUBLE_EQ(spent(), 10.0);
  EXPECT_EQ(engine_.todayTurns(), 3);
  EXPECT_EQ(burns().size(), 6u);
  EXPECT_EQ(burns()[3], (std::pair<double, int64_t>{5.0, 500}));

  // Without a request id, or with an empty one, every line is its own request.
  append({line("2026-03-10T10:02:00Z", std::nullopt, 10), line("2026-03-10T10:02:00Z", std::nullopt, 10),
          line("2026-03-10T10:02:00Z", "", 10), line("2026-03-10T10:02:00Z", "", 10)});
  poll();
  EXPECT_EQ(engine_.todayTurns(), 7);
  EXPECT_DOUBLE_EQ(spent(), 10.4);
}

TEST_F(AccountingTest, LineAfterMidnightFoldsByThePreviousLinesVerdict) {
  append({line("2026-03-09T23:59:59Z", "r1", 100), line("2026-03-10T00:00:01Z", "r1", 300),
          line("2026-03-10T00:00:02Z", "r1", 600), line("2026-03-10T12:00:00Z", "r9", 100)});
  poll();
  // The first line after midnight rises by 2 under yesterday's verdict; the
  // line after it rises by 3 under the first one's, which counts. A line at
  // or after now is not today's either.
  EXPECT_DOUBLE_EQ(spent(), 3.0);
  EXPECT_EQ(engine_.todayTurns(), 0);
  EXPECT_EQ(engine_.todayTokensByFamily().at("opus"), 300);
  const ExclusionTally& gate = engine_.exclusion(ExclusionReason::kTimestampGate);
  EXPECT_EQ(gate.count, 3);
  EXPECT_DOUBLE_EQ(roundUSD(gate.dollarsUSD), 4.0);
  // The burns still hold the whole request, for the windows know no day.
  EXPECT_EQ(burns(), (std::vector<std::pair<double, int64_t>>{{1.0, 100}, {2.0, 200}, {3.0, 300}, {1.0, 100}}));
}

TEST_F(AccountingTest, FamiliesUndatedLinesAndOddTotals) {
  append({
      line("2026-03-10T10:00:00Z", "f1", 100, "claude-fable-5"),
      // Unknown models are priced at the opus row of the table: spend and a
      // turn, but no family.
      line("2026-03-10T10:00:01Z", "u1", 100, "gpt-9"),
      // No usable timestamp: its dollars are tallied and nothing counts.
      line("yesterday", "x1", 100),
      // A negative count marks a corrupt line: it is skipped, and neither
      // spend nor turn nor burn comes of it.
      line("2026-03-10T10:00:02Z", "n1", -5),
  });
  poll();
  EXPECT_EQ(engine_.todayTokensByFamily(), (std::map<std::string, int64_t>{{"fable", 100}}));
  EXPECT_EQ(engine_.todayTurns(), 2);
  EXPECT_DOUBLE_EQ(spent(), 2.0);
  EXPECT_EQ(engine_.exclusion(ExclusionReason::kOther).count, 1);
  EXPECT_DOUBLE_EQ(engine_.exclusion(ExclusionReason::kOther).dollarsUSD, 1.0);
  EXPECT_FALSE(engine_.seenRequestIds().contains("x1"));
  ASSERT_EQ(engine_.recentBurns().size(), 2u);
  EXPECT_TRUE(engine_.recentBurns()[0].isFableFamily);
  EXPECT_FALSE(engine_.recentBurns()[1].isFableFamily);
}

TEST_F(AccountingTest, SessionRecordFollowsTheNewestTurnAndSetupCaptureTheEarliest) {
  append({turnLine("2026-03-10T10:00:00Z", "a", {.input = 10, .cacheRead = 20, .cache1h = 5}),
          turnLine("2026-03-10T10:00:00Z", "b", {.input = 1, .output = 7, .cache5m = 2}, "claude-fable-5"),
          line("2026-03-10T09:30:00Z", "c", 50, "claude-haiku-4")});
  append({line("2026-03-10T09:00:00Z", "sub", 100, "claude-fable-5")}, "s1/subagents/agent-1.jsonl");
  poll();
  const SessionLiveState* s = &engine_.sessionState().at("s1");
  // Equal timestamps: the line read later wins; an older line moves nothing.
  EXPECT_EQ(s->lastModel, "claude-fable-5");
  EXPECT_EQ(s->lastContextTokens, 3);
  EXPECT_EQ(s->lastActivity, at("2026-03-10T10:00:00Z"));
  EXPECT_FALSE(s->lastCacheWriteWasEphemeral1h);
  EXPECT_EQ(s->projectDirPath, tree_.path("proj"));
  // The earliest turn with usage is the setup capture, in a file read later
  // too; the captured request runs on from that file and its instant stays.
  EXPECT_EQ(s->setupTaxAt, at("2026-03-10T09:00:00Z"));
  EXPECT_EQ(s->setupTax->requestId, "sub");
  append({line("2026-03-10T09:00:05Z", "sub", 900)}, "s1/subagents/agent-1.jsonl");
  append({line("2026-03-10T09:30:00Z", "other", 1, "claude-haiku-4")}, "s1/subagents/agent-2.jsonl");
  poll();
  s = &engine_.sessionState().at("s1");
  EXPECT_EQ(s->setupTaxAt, at("2026-03-10T09:00:00Z"));
  EXPECT_EQ(s->setupTax->output, 900);
  // Each subagent file keeps the model of its own last assistant line.
  std::vector<std::string> models;
  for (const auto& [path, model] : engine_.subagentLastModel()) models.push_back(model);
  EXPECT_EQ(models, (std::vector<std::string>{"claude-opus-4-1", "claude-haiku-4"}));
}

TEST_F(AccountingTest, QuotaEventKeepsTheNewestSessionLimitMessage) {
  append({limitLine("2026-03-10T10:00:00.000Z", "Session limit reached \xE2\x88\x99 resets 3:00pm (UTC)"),
          // Older by text, or about another limit: ignored.
          limitLine("2026-03-10T09:00:00.000Z", "session limit reached resets 1:00pm (UTC)"),
          limitLine("2026-03-10T11:00:00.000Z", "weekly limit reached resets 1:00pm (UTC)")});
  poll();
  EXPECT_EQ(engine_.quotaLastEventAt(), "2026-03-10T10:00:00.000Z");
  EXPECT_EQ(engine_.quotaResetsNote(), "resets 3:00pm (UTC)");
  EXPECT_EQ(engine_.resolvedQuotaResetInstant(), at("2026-03-10T15:00:00Z"));
  // Newer without a phrase: clears the note.
  append({limitLine("2026-03-10T11:30:00.000Z", "SESSION LIMIT reached")});
  poll();
  EXPECT_EQ(engine_.quotaLastEventAt(), "2026-03-10T11:30:00.000Z");
  EXPECT_FALSE(engine_.quotaResetsNote());
  EXPECT_FALSE(engine_.resolvedQuotaResetInstant());
}

TEST_F(AccountingTest, ImageRunsSurviveThreeTextLinesAndArePricedAtTheReplysInputRate) {
  append({userImageLine(2, 4000, "2026-03-10T10:00:00Z"), userTextLine("a"), userTextLine("b"), userTextLine("c"),
          userImageLine(1, 400, "2026-03-10T10:05:00Z")});
  poll();
  const FileMediaState* m = &engine_.fileMediaState().begin()->second;
  EXPECT_EQ(m->runImageCount, 3);
  EXPECT_EQ(m->pendingImageTokens, 2100);
  EXPECT_EQ(m->pendingImageCount, 3);
  EXPECT_EQ(m->runLastImageAt, at("2026-03-10T10:05:00Z"));
  append({line("2026-03-10T10:05:01Z", "r1", 10)});
  poll();
  m = &engine_.fileMediaState().begin()->second;
  EXPECT_EQ(m->pendingImageTokens, 0);
  EXPECT_EQ(m->runTokensSoFar, 2100);
  EXPECT_DOUBLE_EQ(m->runUsdSoFar, 21.0);
  // Four lines without images end the run.
  append({userTextLine("a"), userTextLine("b"), userTextLine("c"), userTextLine("d"),
          userImageLine(1, 40, "2026-03-10T10:10:00Z")});
  poll();
  m = &engine_.fileMediaState().begin()->second;
  EXPECT_EQ(m->runImageCount, 1);
  EXPECT_EQ(m->runTokensSoFar, 0);
  EXPECT_EQ(m->pendingImageTokens, 10);
}

}  // namespace
}  // namespace ostler
