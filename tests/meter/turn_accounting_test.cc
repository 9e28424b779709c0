// Turns out of assistant lines, and what user and system lines leave for
// them, through small trees read by the whole metering pass.
#include "meter/turn_accounting.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/transcript_tree.h"

namespace ostler {
namespace {

using namespace testing;
using testing::json;  // not ostler::json

const std::string kOpus = "claude-opus-4-5";
const std::string kSonnet = "claude-sonnet-4-5";
const std::string kHaiku = "claude-haiku-4-5";

const ReceiptByModel* modelRow(const Receipt& r, const std::string& model) {
  for (const auto& m : r.by_model)
    if (m.model == model) return &m;
  return nullptr;
}

TEST(TurnAccountingTest, EachBilledRequestIsOneTurn) {
  Tree tree;
  tree.main("-home-dev-shop", "aaaaaaaa-1",
            {assistant("A", kOpus, {.output = 10}, at(0)), user("go on", at(1)),
             assistant("A", kOpus, {.output = 20}, at(2)),  // one turn across a user line,
             assistant("A", kOpus, {.output = 30}, at(3)),  // priced on its last line
             assistant("B", kOpus, {.output = 100}, at(4)),
             assistant("A", kOpus, {.output = 1000}, at(5)),  // A again after B: a repeat
             assistant("A", kOpus, {.output = 1000}, at(6)),  // ...which counts once
             assistant(std::nullopt, kOpus, {.output = 7}, at(7)), assistant("", kOpus, {.output = 7}, at(8))});
  tree.subagent("-home-dev-shop", "aaaaaaaa-1", "agent-1",
                {assistant("B", kOpus, {.output = 5000}, at(9)),  // read first in the main file
                 assistant("C", kOpus, {.output = 5}, at(10))});
  const Receipt r = tree.run();
  EXPECT_EQ(r.totals.turns, 5);
  EXPECT_EQ(r.totals.tokens.output, 30 + 100 + 7 + 7 + 5);
  EXPECT_EQ(r.flags.duplicate_request_id_lines_skipped, 2);
  EXPECT_EQ(r.flags.lines_without_request_id, 2);
  EXPECT_EQ(r.flags.distinct_request_ids, 3);
  EXPECT_EQ(r.flags.subagent_files, 1);
  EXPECT_EQ(r.flags.subagent_turns, 1);
  EXPECT_EQ(r.flags.turns_per_session_max, 5);
}

TEST(TurnAccountingTest, AContinuingLineReplacesTheTurnsUsage) {
  json noUsage = assistant("X", kOpus, {}, at(1));
  noUsage["message"].erase("usage");
  json noModel = assistant("Y", kOpus, {.output = 2000}, at(3));
  noModel["message"].erase("model");
  Tree tree;
  tree.main("-home-dev-shop", "aaaaaaaa-1",
            {assistant("X", kOpus, {.input = 1000, .output = 100}, at(0)), noUsage,  // zeroes the turn
             assistant("Y", kOpus, {.output = 1000}, at(2)), noModel,               // keeps the turn's model
             assistant("Z", kOpus, {.output = 1000}, at(4)),
             assistant("Z", "", {.output = 2000}, at(5))});                          // an empty model is free
  const Receipt r = tree.run();
  EXPECT_EQ(r.totals.turns, 3);
  EXPECT_EQ(r.totals.tokens.input, 0);
  EXPECT_EQ(r.totals.tokens.output, 4000);
  // The difference of a line on another model goes to that model, which
  // thus gets a row with no turns.
  EXPECT_EQ(r.by_model, (std::vector<ReceiptByModel>{{kOpus, 3, 0.075}, {"", 0, -0.025}}));
}

TEST(TurnAccountingTest, SwitchTaxFollowsTheModelTheSessionIsReallyOn) {
  Tree tree;
  // Main file: opus, a synthetic turn (which leaves opus as the real model),
  // then sonnet, which has to rebuild 90% of its context.
  tree.main("-home-dev-shop", "cccccccc-1",
            {assistant("c1", kOpus, {.cacheRead = 90'000, .cache5m = 10'000}, at(0)),
             assistant("c2", "<synthetic>", {}, at(10)),
             assistant("c3", kSonnet, {.input = 50'000, .cache5m = 50'000}, at(20))});
  // A switch inside a subagent costs no tax but moves the real model, which
  // prices the compaction that follows.
  tree.subagent("-home-dev-shop", "cccccccc-1", "agent-1",
                {assistant("s1", kOpus, {.cacheRead = 90'000, .cache5m = 10'000}, at(30)),
                 assistant("s2", kSonnet, {.input = 50'000, .cache5m = 50'000}, at(40)),
                 compactBoundary("u-sub", 100'000, 2'000, at(50))});
  // A repeated request on haiku makes haiku the model switched from.
  tree.main("-home-dev-shop", "dddddddd-1",
            {assistant("c1", kHaiku, {.input = 20'000, .cacheRead = 80'000}, at(100)),
             assistant("d2", kSonnet, {.input = 100'000}, at(110))});
  // A previous turn of all zeros gives no floor; the premium still counts.
  tree.main("-home-dev-shop", "eeeeeeee-1",
            {assistant("e1", kOpus, {}, at(200)), assistant("e2", kSonnet, {.cache5m = 60'000}, at(210))});
  const Receipt r = tree.run();

  const ReceiptSwitchTax& s = *r.switch_tax;
  EXPECT_EQ(s.switch_count, 2);
  EXPECT_EQ(s.session_count, 2);
  EXPECT_EQ(s.sessions_distinct, 2);
  EXPECT_DOUBLE_EQ(s.floor_usd, roundUSD(2.7 * 90'000 / 1e6 + 2.7 * 80'000 / 1e6));
  EXPECT_DOUBLE_EQ(s.counterfactual_usd, roundUSD((3.75 - 0.5) * 50'000 / 1e6 + (3.75 - 0.5) * 60'000 / 1e6));
  EXPECT_EQ(s.top_switches, (std::vector<ReceiptDetailLine>{
                                {"shop: switched claude-opus-4-5 to claude-sonnet-4-5", 0.243, "cccccccc"},
                                {"shop: switched claude-haiku-4-5 to claude-sonnet-4-5", 0.216, "dddddddd"}}));

  // Warm, on sonnet: output 2,000 and 100,000 cache reads.
  EXPECT_DOUBLE_EQ(r.auto_compactions->primary_usd, roundUSD((15.0 * 2'000 + 0.3 * 100'000) / 1e6));
  const ReceiptByModel* synthetic = modelRow(r, "<synthetic>");
  ASSERT_NE(synthetic, nullptr);
  EXPECT_EQ(synthetic->turns, 1);
  EXPECT_EQ(synthetic->spent_usd, 0.0);
  EXPECT_TRUE(r.flags.unknown_models.empty());
}

TEST(TurnAccountingTest, AMechanicalTurnHasToolCallsAndUnder200Characters) {
  const Tokens u{.input = 1'000, .output = 2'000, .cacheRead = 5'000};
  auto tools = [](json text) {
    return json::array({toolUse("g1", "Grep", {{"pattern", "x"}}), toolUse("g2", "Grep", {{"pattern", "y"}}),
                        toolUse("g3", "Glob", {{"pattern", "*"}}), std::move(text)});
  };
  std::string accented;
  for (int i = 0; i < 199; ++i) accented += "e\xCC\x81";  // 199 characters, 597 bytes
  Tree tree;
  tree.main("-home-dev-shop", "mmmmmmmm-1",
            {assistant("t1", kOpus, u, at(0), tools(textBlock(std::string(199, 'a')))),
             assistant("t2", kOpus, u, at(1), tools(textBlock(std::string(200, 'a')))),
             assistant("t3", kOpus, u, at(2), tools(textBlock(std::string(100, 'a')))),
             assistant("t3", kOpus, u, at(3), json::array({textBlock(std::string(100, 'b'))})),
             assistant("t4", kOpus, u, at(4), tools(textBlock(accented))),
             assistant("t5", kHaiku, u, at(5), tools(textBlock("")))});  // mechanical, but cheaper than sonnet
  const Receipt r = tree.run();
  const ReceiptCategory& downshift = r.mac_first.categories[2];
  ASSERT_EQ(downshift.key, "downshift");
  // Only the uncached input and the output can move to the sonnet row.
  const double r3 = (5.0 - 3.0) * 1'000 / 1e6 + (25.0 - 15.0) * 2'000 / 1e6;
  EXPECT_EQ(downshift.detail_lines,
            (std::vector<ReceiptDetailLine>{{"shop turn 1: downshift candidate", r3, "mmmmmmmm"},
                                            {"shop turn 4: downshift candidate", r3, "mmmmmmmm"}}));
  EXPECT_DOUBLE_EQ(downshift.usd, roundUSD(2 * r3));
}

TEST(TurnAccountingTest, CacheExpiryNeedsAGapPastTheCachesLife) {
  const double t3 = 600.5, t4 = t3 + 3600, t5 = t4 + 3600.5;
  Tree tree;
  tree.main("-home-dev-shop", "wwwwwwww-1",
            {assistant("w1", kOpus, {.input = 10, .cacheRead = 1'000}, at(0)),
             assistant("w2", kOpus, {.cacheRead = 1'000, .cache5m = 60'000}, at(300)),  // exactly 300 s
             assistant("w3", kOpus, {.cacheRead = 1'000, .cache5m = 60'000}, at(t3)),   // 300.5 s
             assistant("w4", kOpus, {.cacheRead = 1'000, .cache1h = 60'000}, at(t4)),   // exactly an hour
             assistant("w5", kOpus, {.cacheRead = 1'000, .cache1h = 60'000}, at(t5))});
  // A new file starts with no cache read: its first write is no expiry.
  tree.subagent("-home-dev-shop", "wwwwwwww-1", "agent-1",
                {assistant("w6", kOpus, {.cache5m = 60'000}, at(t5 + 9'000))});
  const Receipt r = tree.run();
  const ReceiptCategory& expiry = r.waste.categories[3];
  ASSERT_EQ(expiry.key, "cache_expiry");
  EXPECT_EQ(expiry.detail_lines, (std::vector<ReceiptDetailLine>{{"shop turn 5: cache rebuilt", 0.57, "wwwwwwww"},
                                                                 {"shop turn 3: cache rebuilt", 0.345, "wwwwwwww"}}));
}

TEST(TurnAccountingTest, TypedWordsArePricedOnceAtTheTurnTheyEnter) {
  std::string twoThousandBytes, twoThousandOneBytes;
  for (int i = 0; i < 1000; ++i) twoThousandBytes += "\xC3\xA9";  // 1,000 characters, 2,000 bytes
  twoThousandOneBytes = twoThousandBytes + "x";
  // A side chat's words are not the person's, but its image still enters
  // the next turn.
  json sidechain = user(json::array({textBlock("typed in a side chat"), imageBlock(4'003)}), at(4));
  sidechain["isSidechain"] = true;
  json meta = user("machine words", at(5));
  meta["isMeta"] = true;
  Tree tree;
  tree.main("-home-dev-shop", "tttttttt-1",
            {user(twoThousandBytes, at(0)), user(twoThousandOneBytes, at(1)),  // the last non-paste, the first paste
             user("<system-reminder>ctx</system-reminder>\n  hello", at(2)),
             user("<command-name>/clear</command-name>", at(3)), sidechain, meta,
             user(json::array({toolResult("zz", "output")}), at(6)),
             assistant("t1", kOpus, {.output = 1'000}, at(10)),
             user(std::string(400, 'z'), at(11)), assistant("t2", "<synthetic>", {}, at(12)),
             user("never priced", at(13))});
  const Receipt r = tree.run();
  const ReceiptTypedShare& t = *r.typed_share;
  const double in = 5.0 / 1e6;
  EXPECT_DOUBLE_EQ(t.floor_usd, roundUSD(500 * in + 1 * in));
  EXPECT_EQ(t.floor_turns, 3);  // 2,000 bytes, "hello" and the one priced at zero
  EXPECT_DOUBLE_EQ(t.ceiling_usd, roundUSD(500 * in + 500 * in + 1 * in));
  EXPECT_EQ(t.ceiling_turns, 4);
  EXPECT_EQ(t.paste_count, 1);
  EXPECT_EQ(t.synthetic_zeroed_count, 1);
  EXPECT_EQ(t.base_turns, 2);
  EXPECT_DOUBLE_EQ(t.faced_share_percent, 10.02);
  const ReceiptCategory& media = r.mac_first.categories[0];
  ASSERT_EQ(media.key, "media_reads");
  EXPECT_DOUBLE_EQ(media.usd, 1'000 * in);
}

TEST(TurnAccountingTest, CompactionsArePricedFromTheLastRealTurnOncePerUuid) {
  json noMetadata = compactBoundary("c9", 1, 1, at(703));
  noMetadata.erase("compactMetadata");
  json otherSubtype = compactBoundary("c8", 1, 1, at(704));
  otherSubtype["subtype"] = "microcompact_boundary";
  Tree tree;
  tree.main("-home-dev-shop", "aaaaaaaa-1",
            {compactBoundary("c0", 5'000, 100, at(0)),  // before any turn (and before the project is known)
             assistant("a1", kOpus, {.output = 1'000}, at(10)),
             compactBoundary("c1", 100'000, 2'000, at(310)),             // 300 s after: warm
             assistant("a2", kOpus, {.output = 1'000}, at(400)),
             compactBoundary("c2", 100'000, 2'000, at(701), "manual"),  // 301 s after: cold
             noMetadata, otherSubtype});
  // The real model is the file's own: a subagent file that opens with a
  // compaction has nothing to price it from, whatever the main file ran on.
  tree.subagent("-home-dev-shop", "aaaaaaaa-1", "agent-1", {compactBoundary("c3", 50'000, 500, at(720))});
  tree.main("-home-dev-shop", "bbbbbbbb-1",
            {assistant("b1", kOpus, {.output = 1'000}, at(800)),
             compactBoundary("c1", 100'000, 2'000, at(810))});  // a resumed copy
  const Receipt r = tree.run();
  const ReceiptAutoCompactions& c = *r.auto_compactions;
  const double warm = (25.0 * 2'000 + 0.5 * 100'000) / 1e6, cold = (25.0 * 2'000 + 5.0 * 100'000) / 1e6;
  EXPECT_EQ(c.event_count, 4);
  EXPECT_EQ(c.involuntary_count, 3);
  EXPECT_EQ(c.voluntary_count, 1);
  EXPECT_DOUBLE_EQ(c.primary_usd, roundUSD(warm + cold));
  EXPECT_DOUBLE_EQ(c.bound_usd, roundUSD(cold + warm));
  EXPECT_DOUBLE_EQ(c.output_leg_usd, 0.1);
  EXPECT_DOUBLE_EQ(c.primary_pre_leg_usd, 0.55);
  EXPECT_DOUBLE_EQ(c.bound_pre_leg_usd, 0.55);
  EXPECT_DOUBLE_EQ(c.example_primary_usd, roundUSD(cold));
  EXPECT_EQ(c.example_pre_tokens, 100'000);
  EXPECT_EQ(c.example_post_tokens, 2'000);
  EXPECT_EQ(c.top_events, (std::vector<ReceiptDetailLine>{
                              {"shop session aaaaaaaa: pre 100000 post 2000", 0.55, "aaaaaaaa"},
                              {"shop session aaaaaaaa: pre 100000 post 2000", 0.1, "aaaaaaaa"},
                              {"session session aaaaaaaa: pre 5000 post 100 (unpriced)", 0.0, "aaaaaaaa"},
                              {"shop session aaaaaaaa: pre 50000 post 500 (unpriced)", 0.0, "aaaaaaaa"}}));
  EXPECT_DOUBLE_EQ(r.totals.spent_usd, 0.075);  // estimates stand apart from spend
}

}  // namespace
}  // namespace ostler
