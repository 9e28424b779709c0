#include "meter/build_receipt.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "meter/top_k.h"
#include "support/transcript_tree.h"

namespace ostler {
namespace {

const std::string kGenerated = "2026-11-23T00:00:00Z";

TEST(BuildReceiptTest, PercentileRoundsHalvesAwayFromZero) {
  struct Case {
    std::vector<int64_t> sorted;
    double p;
    int64_t value;
  };
  const std::vector<Case> cases = {
      {{1, 2, 3, 4}, 50, 3},  // index round(1.5) = 2
      {{1, 2, 3, 4}, 95, 4},  // index round(2.85) = 3
      {{1, 2}, 50, 2},        // index round(0.5) = 1, not 0
      {{5}, 50, 5}, {{5}, 95, 5}, {{}, 50, 0}, {{1, 2, 3}, 0, 1}, {{1, 2, 3}, 100, 3},
  };
  for (const auto& c : cases)
    EXPECT_EQ(percentile(c.sorted, c.p), c.value) << ::testing::PrintToString(c.sorted) << " p" << c.p;
}

TEST(BuildReceiptTest, TopDetailsAreSortedBeforeRoundingTiesByText) {
  // Sorted before rounding makes x and w equal.
  EXPECT_EQ(topDetails({{"b", 1.0, std::nullopt},
                        {"a", 1.0, "a1"},
                        {"x", 0.0000014, std::nullopt},
                        {"w", 0.0000011, std::nullopt},
                        {"r", 0.0000025, "r1"}}),
            (std::vector<ReceiptDetailLine>{{"a", 1.0, "a1"}, {"b", 1.0, std::nullopt}, {"r", 0.000003, "r1"},
                                            {"x", 0.000001, std::nullopt}, {"w", 0.000001, std::nullopt}}));
}

TEST(BuildReceiptTest, ListsAreSortedThenCut) {
  GlobalAggregator agg;
  agg.byModel = {{"b", {1, 1.0000004}}, {"a", {2, 0.9999996}}, {"c", {1, 3.0}}};
  agg.byProject = {{"p", {1, 2.0}}, {"q", {2, 3.0}}};
  agg.byDay = {{"2026-11-02", 1.0}, {"2026-11-01", 2.0}};
  for (int i = 0; i < 12; ++i)
    agg.topSessions.push_back({"session-" + std::to_string(100 + i), "p", 1.23456789 + (i == 11 ? -1.0 : 0.0), i, 0});
  for (int i = 0; i < 12; ++i)
    agg.mediaLoopCandidates.push_back({"loop-session-" + std::to_string(20 - i), i == 0 ? "zz" : "aa", 5,
                                       i == 0 ? 0.6 : 0.5, 1.0, "t0", "t1", 1});
  agg.mediaLoopCandidates.push_back({"loop-session-20", "mm", 7, 0.6, 1.0, "t0", "t1", 1});
  agg.r2TemplateAttributed = {{0xabc, 2.0}, {0x1000, 2.0}, {0x123456789abcdefULL, 3.0}};
  for (uint64_t h = 1; h <= 8; ++h) agg.r2TemplateAttributed[h << 40] = 0.5;
  agg.r2TemplateOccCount = {{0xabc, 5}, {0x123456789abcdefULL, 9}};
  const Receipt r = buildReceipt(agg, MeterOptions{}, kGenerated);

  // Equal once rounded: by name.
  EXPECT_EQ(r.by_model, (std::vector<ReceiptByModel>{{"c", 1, 3.0}, {"a", 2, 1.0}, {"b", 1, 1.0}}));
  EXPECT_EQ(r.by_project[0].project, "q");
  EXPECT_EQ(r.by_day[0].date, "2026-11-01");

  ASSERT_EQ(r.top_sessions.size(), 10u);
  EXPECT_EQ(r.top_sessions[0].sessionId, "session-100");
  EXPECT_EQ(r.top_sessions[0].spent_usd, 1.23456789);  // not rounded
  EXPECT_EQ(r.top_sessions[9].sessionId, "session-109");

  const ReceiptMediaLoops& loops = r.mac_first.media_loops;
  EXPECT_EQ(loops.count, 13);
  EXPECT_EQ(loops.sessions_distinct, 12);
  ASSERT_EQ(loops.loops.size(), 10u);
  EXPECT_EQ(loops.loops[0].project, "mm");  // equal dollars and session: by project
  EXPECT_EQ(loops.loops[1].project, "zz");
  EXPECT_EQ(loops.loops[2].sessionId, "loop-session-10");  // then by session id, as text
  EXPECT_EQ(loops.loops[9].sessionId, "loop-session-17");
  EXPECT_DOUBLE_EQ(loops.total_usd, 6.7);
  EXPECT_EQ(loops.attribution_note, "loops keep 51.5% of raw against the category's 0.0%");
  const auto& loopLines = r.mac_first.categories[0].detail_lines;
  ASSERT_EQ(loopLines.size(), 10u);
  EXPECT_EQ(loopLines[0], (ReceiptDetailLine{"review loop: mm, 7 images", 0.6, "loop-ses"}));

  // Ties go by the hash as text.
  const auto& templates = r.mac_first.categories[1].detail_lines;
  ASSERT_EQ(templates.size(), 10u);
  EXPECT_EQ(std::vector(templates.begin(), templates.begin() + 3),
            (std::vector<ReceiptDetailLine>{{"template 12345678 (9x)", 3.0, std::nullopt},
                                            {"template 1000 (0x)", 2.0, std::nullopt},
                                            {"template abc (5x)", 2.0, std::nullopt}}));
}

TEST(BuildReceiptTest, FiguresComeFromUnroundedSums) {
  GlobalAggregator agg;
  agg.totalSpent = 1.0;
  agg.wasteW1 = 0.6000004;
  agg.macFirstR1 = 0.4000004;
  agg.rawR1 = 0.8000008;
  agg.mediaLoopCandidates.push_back({"s", "p", 5, 0.25, 1.0, "t0", "t1", 1});
  agg.minTimestamp = "2026-11-01T10:00:00Z";
  agg.maxTimestamp = "2026-11-09T10:00:00Z";
  agg.unknownModels = {"zeta", "alpha"};
  agg.typedShareFloorUSD = 0.0;
  Receipt r = buildReceipt(agg, MeterOptions{}, kGenerated);
  EXPECT_EQ(r.waste.total_usd, 0.6);
  EXPECT_EQ(r.mac_first.total_usd, 0.4);
  EXPECT_EQ(r.fair_usd, -0.000001);  // not held at zero
  EXPECT_EQ(r.mac_first.media_loops.attribution_note, "loops keep 25.0% of raw against the category's 50.0%");
  EXPECT_EQ(r.period.from, "2026-11-01T10:00:00Z");
  EXPECT_EQ(r.period.to, "2026-11-09T10:00:00Z");
  EXPECT_EQ(r.flags.unknown_models, (std::vector<std::string>{"alpha", "zeta"}));
  EXPECT_EQ(r.generated_at, kGenerated);

  MeterOptions dated;
  dated.since = "2026-10-01";
  dated.until = "2026-10-31";
  dated.sinceInstant = "2026-10-05T00:00:00Z";  // instants are not shown
  r = buildReceipt(agg, dated, kGenerated);
  EXPECT_EQ(r.period.from, "2026-10-01");
  EXPECT_EQ(r.period.to, "2026-10-31");

  GlobalAggregator typed;
  typed.totalSpent = 10.0;
  typed.typedShareFloorUSD = 1.2345;
  EXPECT_EQ(buildReceipt(typed, MeterOptions{}, kGenerated).typed_share->faced_share_percent, 12.35);
  typed.totalSpent = 0.0;
  EXPECT_EQ(buildReceipt(typed, MeterOptions{}, kGenerated).typed_share->faced_share_percent, 0.0);
}

struct ByValueThenName {
  bool operator()(const std::pair<int, std::string>& a, const std::pair<int, std::string>& b) const {
    if (a.first != b.first) return a.first > b.first;
    return a.second < b.second;
  }
};

TEST(TopKTest, KeepsWhatAStableSortWouldPutFirst) {
  std::mt19937 rng(3);
  for (int round = 0; round < 200; ++round) {
    std::vector<std::pair<int, std::string>> all;
    TopK<std::pair<int, std::string>, ByValueThenName, 10> top;
    for (int i = 0, n = static_cast<int>(rng() % 40); i < n; ++i) {
      // Few distinct values and names, so that full ties are common.
      std::pair<int, std::string> v{static_cast<int>(rng() % 5), std::string(1, static_cast<char>('a' + rng() % 3))};
      all.push_back(v);
      top.push_back(v);
    }
    std::stable_sort(all.begin(), all.end(), ByValueThenName{});
    if (all.size() > 10) all.resize(10);
    EXPECT_EQ(top.sorted(), all);
  }
}

}  // namespace
}  // namespace ostler
