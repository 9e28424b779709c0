// Waste and mac-first attribution through small trees read by the whole
// metering pass.
#include "meter/attribution.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "meter/repeat_pipelines.h"
#include "support/transcript_tree.h"

namespace ostler {
namespace {

using namespace testing;
using testing::json;  // not ostler::json

const std::string kOpus = "claude-opus-4-5";
const std::string kHaiku = "claude-haiku-4-5";
const Tokens kPlain{.output = 10'000};  // a turn of 0.25 on opus, room for any charge below

const ReceiptCategory& category(const std::vector<ReceiptCategory>& cats, const std::string& key) {
  for (const auto& c : cats)
    if (c.key == key) return c;
  ADD_FAILURE() << "no category " << key;
  return cats.front();
}

json result(const std::string& id, size_t bytes) { return user(json::array({toolResult(id, std::string(bytes, 'x'))}), ""); }

TEST(AttributionTest, ARepeatedReadChargesTheTurnAfterIt) {
  Tree tree;
  tree.main("-home-dev-shop", "rrrrrrrr-1",
            {assistant("t1", kOpus, kPlain, at(1)),
             assistant("t2", kOpus, kPlain, at(2), json::array({readFile("q1", "/src/tail.txt")})), result("q1", 4'000),
             assistant("t3", kOpus, kPlain, at(3), json::array({readFile("r1", "/src/file.txt")})), result("r1", 20'000),
             assistant("t4", kOpus, kPlain, at(4)),
             assistant("t5", kOpus, kPlain, at(5), json::array({readFile("n1", "/src/never-answered.txt")})),
             assistant("t6", kOpus, kPlain, at(6), json::array({readFile("n2", "/src/never-answered.txt")})),
             assistant("t7", kOpus, kPlain, at(7), json::array({readFile("r2", "/src/file.txt")})), result("r2", 8'000),
             assistant("t8", kOpus, kPlain, at(8)),
             assistant("t9", kOpus, kPlain, at(9), json::array({readFile("q2", "/src/tail.txt")}))});  // no next turn
  const Receipt r = tree.run();
  // The read at turn 7 brings the path's largest result, 5,000 tokens, into
  // turn 8 at the input rate, then rides along in turn 9 as cache reads.
  const ReceiptCategory& w2 = category(r.waste.categories, "duplicate_reads");
  EXPECT_EQ(w2.detail_lines, (std::vector<ReceiptDetailLine>{{"shop: file.txt read 2x", 0.025, "rrrrrrrr"}}));
  EXPECT_DOUBLE_EQ(w2.usd, 0.025);
  EXPECT_DOUBLE_EQ(r.waste.diagnostics_raw_usd.carried_duplicates_read_usd, 0.0025);
}

TEST(AttributionTest, PathsReadAgainIntoOneTurnShareItsCap) {
  const json both1 = json::array({readFile("o1", "/a/one.txt"), readFile("w1", "/a/two.txt")});
  const json both2 = json::array({readFile("o2", "/a/one.txt"), readFile("w2", "/a/two.txt")});
  Tree tree;
  tree.main("-home-dev-shop", "ssssssss-1",
            {assistant("t1", kOpus, kPlain, at(1), both1), result("o1", 4'000), result("w1", 4'000),
             assistant("t2", kOpus, kPlain, at(2), both2), result("o2", 4'000), result("w2", 4'000),
             assistant("t3", kOpus, {.output = 200}, at(3))});  // costs 0.005; charged 0.01
  const Receipt r = tree.run();
  const ReceiptCategory& w2 = category(r.waste.categories, "duplicate_reads");
  EXPECT_DOUBLE_EQ(w2.usd, 0.005);
  EXPECT_DOUBLE_EQ(r.waste.diagnostics_raw_usd.duplicate_reads, 0.01);
  EXPECT_EQ(w2.detail_lines, (std::vector<ReceiptDetailLine>{{"shop: one.txt read 2x", 0.0025, "ssssssss"},
                                                             {"shop: two.txt read 2x", 0.0025, "ssssssss"}}));
}

TEST(AttributionTest, AToolResultOf40004BytesIsADump) {
  Tree tree;
  tree.main("-home-dev-shop", "oooooooo-1",
            {assistant("t1", kOpus, kPlain, at(1), json::array({bash("b1", "make"), bash("b2", "make test")})),
             user(json::array({toolResult("b1", std::string(40'003, 'x')), toolResult("b2", std::string(40'004, 'x'))}),
                  at(2)),
             assistant("t2", kOpus, kPlain, at(3)),
             assistant("t3", kOpus, {.output = 10}, at(4), json::array({bash("b3", "cat big.log")})),
             result("b3", 80'000)});  // the session ends before a turn takes it in
  const Receipt r = tree.run();
  const ReceiptCategory& w3 = category(r.waste.categories, "oversized_dumps");
  // 10,001 tokens: all past the first 2,000 is charged.
  EXPECT_EQ(w3.detail_lines, (std::vector<ReceiptDetailLine>{{"shop: Bash dump ~10001 tok", 0.040005, "oooooooo"}}));
  EXPECT_DOUBLE_EQ(r.waste.diagnostics_raw_usd.carried_dumps_read_usd, roundUSD(0.5 * 8'001 / 1e6));
}

TEST(AttributionTest, EachTurnIsCappedInTheFixedOrder) {
  // Round rates: a turn of exactly 1.00 with raw W4 0.30, R1 0.50, W1 0.40.
  MeterOptions options;
  options.pricing.rates = {{"m-test", {10.0, 10.0, 0.0, 5.0, 0.0}}};
  options.pricing.note = "test rates";
  const Tokens big{.input = 50'000, .output = 20'000, .cacheRead = 90'000, .cache5m = 60'000};
  {
    Tree tree;
    tree.main("-home-dev-shop", "kkkkkkkk-1",
              {assistant("k1", "m-test", {.cacheRead = 1}, at(0)),
               user(json::array({imageBlock(200'000)}), at(100)),  // 50,000 tokens
               assistant("k2", "m-test", big, at(400))});
    MeterOptions o = options;
    o.root = tree.root().string();
    const Receipt r = tree.run(o);
    EXPECT_DOUBLE_EQ(r.totals.spent_usd, 1.0);
    EXPECT_DOUBLE_EQ(category(r.waste.categories, "cache_expiry").usd, 0.3);
    EXPECT_DOUBLE_EQ(category(r.mac_first.categories, "media_reads").usd, 0.5);
    EXPECT_DOUBLE_EQ(category(r.waste.categories, "overweight").usd, 0.2);
    EXPECT_DOUBLE_EQ(r.waste.diagnostics_raw_usd.overweight, 0.4);
    EXPECT_EQ(r.flags.pricing_note, "test rates");
  }
  {
    // A repeat pipeline takes all that cache expiry leaves.
    Tree tree;
    tree.main("-home-dev-shop", "kkkkkkkk-2",
              {assistant("k1", "m-test", {.cacheRead = 1}, at(0),
                         json::array({bash("b1", "echo 1"), bash("b2", "echo 2")})),
               assistant("k2", "m-test", big, at(400),
                         json::array({textBlock(std::string(300, 'w')), bash("b3", "echo 3")}))});
    MeterOptions o = options;
    o.root = tree.root().string();
    const Receipt r = tree.run(o);
    EXPECT_DOUBLE_EQ(category(r.waste.categories, "cache_expiry").usd, 0.3);
    EXPECT_DOUBLE_EQ(category(r.mac_first.categories, "repeat_pipelines").usd, 0.7);
    EXPECT_EQ(category(r.waste.categories, "overweight").usd, 0.0);
    EXPECT_DOUBLE_EQ(r.waste.diagnostics_raw_usd.repeat_pipelines, 1.0);
    EXPECT_EQ(category(r.mac_first.categories, "repeat_pipelines").detail_lines,
              (std::vector<ReceiptDetailLine>{
                  {"template " + stableHash("echo <NUM>").substr(0, 8) + " (3x)", 0.7, std::nullopt}}));
  }
}

TEST(AttributionTest, MediaLoopsAreRunsOfFiveImagesOrMore) {
  auto image = [](double t, int count = 1) {
    json blocks = json::array();
    for (int i = 0; i < count; ++i) blocks.push_back(imageBlock(4'003));  // 1,000 tokens each
    return user(blocks, at(t));
  };
  auto plain = [](double t) { return user(json::array({toolResult("none", "ok")}), at(t)); };
  std::vector<json> main = {image(0), image(1), image(2), image(3), image(4),  // five in a row: a loop
                            assistant("l1", kOpus, kPlain, at(5))};
  double t = 10;
  auto plains = [&](int n) {
    for (int i = 0; i < n; ++i) main.push_back(plain(t++));
  };
  plains(4);
  for (int i = 0; i < 3; ++i) main.push_back(image(t++));
  plains(4);  // four image-free lines part them: 3 and 2 are no loop
  for (int i = 0; i < 2; ++i) main.push_back(image(t++));
  plains(4);
  main.push_back(image(t++, 4));
  plains(3);  // three do not: 4 + 1 is a loop
  main.push_back(image(t++));
  main.push_back(assistant("l2", kOpus, kPlain, at(t++)));
  Tree tree;
  tree.main("-home-dev-shop", "llllllll-1", main);
  // One timeline over a session's files; images after its last turn are
  // never priced but still count.
  tree.main("-home-dev-shop", "nnnnnnnn-1",
            {image(1000), image(1001), image(1002), assistant("n1", kOpus, {.output = 400}, at(1010))});
  tree.subagent("-home-dev-shop", "nnnnnnnn-1", "agent-1", {image(1003), image(1004)});

  const MeterRun run = tree.runWithLoopDetail();
  const ReceiptMediaLoops& loops = run.receipt.mac_first.media_loops;
  EXPECT_EQ(loops.count, 3);
  EXPECT_EQ(loops.sessions_distinct, 2);
  EXPECT_DOUBLE_EQ(loops.total_usd, 0.06);
  EXPECT_DOUBLE_EQ(loops.raw_uncapped_usd, 0.065);
  EXPECT_EQ(loops.attribution_note, "loops keep 92.3% of raw against the category's 94.4%");
  EXPECT_DOUBLE_EQ(category(run.receipt.mac_first.categories, "media_reads").usd, 0.085);

  ASSERT_EQ(run.loopDetail.size(), 3u);
  const MediaLoopDetailRecord first{"llllllll-1", "shop", 5, 0.025, 0.025, at(0), at(4), 1};
  EXPECT_EQ(run.loopDetail[0], first);
  const MediaLoopDetailRecord acrossFiles{"nnnnnnnn-1", "shop", 5, 0.015, 0.01, at(1000), at(1004), 2};
  EXPECT_EQ(run.loopDetail[2], acrossFiles);

  EXPECT_EQ(category(run.receipt.mac_first.categories, "media_reads").detail_lines,
            (std::vector<ReceiptDetailLine>{{"review loop: shop, 5 images", 0.025, "llllllll"},
                                            {"review loop: shop, 5 images", 0.025, "llllllll"},
                                            {"review loop: shop, 5 images", 0.01, "nnnnnnnn"}}));
}

TEST(AttributionTest, DownshiftDiagnosticsStandBesideThePartition) {
  auto session = [](const std::string& model, int mechanical, int total, const std::string& prefix) {
    std::vector<json> out;
    for (int i = 0; i < total; ++i) {
      json content = i < mechanical ? json::array({toolUse("g", "Grep", json::object())})
                                    : json::array({textBlock(std::string(300, 'w'))});
      out.push_back(assistant(prefix + std::to_string(i), model, {.output = 1'000}, at(i), content));
    }
    return out;
  };
  Tree tree;
  tree.main("-home-dev-shop", "x7", session(kOpus, 7, 10, "x7-"));  // 7 of 10 mechanical: the whole session
  tree.main("-home-dev-shop", "x6", session(kOpus, 6, 10, "x6-"));  // 6 of 10: not
  tree.subagent("-home-dev-shop", "x6", "agent-1", session(kOpus, 2, 2, "x6a-"));  // a dispatch on opus
  tree.main("-home-dev-shop", "xh", session(kHaiku, 10, 10, "xh-"));  // cheaper than sonnet: floored at 0
  tree.subagent("-home-dev-shop", "xh", "agent-1", session(kHaiku, 2, 2, "xha-"));
  const Receipt r = tree.run();
  const auto& d = r.waste.diagnostics_raw_usd;
  EXPECT_DOUBLE_EQ(d.whole_session_downshift_usd, roundUSD(10 * (25.0 - 15.0) * 1'000 / 1e6));
  EXPECT_DOUBLE_EQ(d.dispatch_downshift_usd, roundUSD(2 * (25.0 - 15.0) * 1'000 / 1e6));
  EXPECT_EQ(d.dispatch_downshift_units, 1);
  EXPECT_DOUBLE_EQ(d.dispatch_downshift_spend_usd, 0.05);
  // Mechanical turns on opus also carry R3: 7 + 6 + 2 of them.
  EXPECT_DOUBLE_EQ(category(r.mac_first.categories, "downshift").usd, roundUSD(15 * 10.0 * 1'000 / 1e6));
  EXPECT_EQ(r.flags.subagent_turns, 4);
}

TEST(AttributionTest, ProjectIsTheFirstCwdOrTheFolderName) {
  json noCwd = assistant("p1", kOpus, {.output = 1'000}, at(0));
  noCwd.erase("cwd");
  json early = assistant("q0", kOpus, {.output = 1'000}, "2026-10-31T23:00:00Z");  // out of range, still names it
  early["cwd"] = "/work/first/";
  json later = assistant("q1", kOpus, {.output = 2'000}, at(0));
  later["cwd"] = "/work/second";
  Tree tree;
  tree.main("--home-dev-app", "pppppppp-1", {noCwd});
  tree.main("-home-dev-shop", "qqqqqqqq-1", {early, later});
  MeterOptions o = tree.options();
  o.since = "2026-11-01";
  const Receipt r = tree.run(o);
  ASSERT_EQ(r.by_project.size(), 2u);
  EXPECT_EQ(r.by_project[0].project, "first");
  EXPECT_DOUBLE_EQ(r.by_project[0].spent_usd, 0.05);
  EXPECT_EQ(r.by_project[1].project, "home-dev-app");
  EXPECT_EQ(r.by_project[1].sessions, 1);
}

}  // namespace
}  // namespace ostler
