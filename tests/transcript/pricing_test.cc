#include "transcript/pricing.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace ostler {
namespace {

const PricingRate kOpus{5.0, 25.0, 0.5, 6.25, 10.0};
const PricingRate kSonnet{3.0, 15.0, 0.3, 3.75, 6.0};

TEST(PricingTest, MatchTakesTheLongestCaseSensitivePrefix) {
  struct Case {
    std::string model;
    std::optional<std::string> prefix;
  };
  const std::vector<Case> cases = {
      {"claude-opus-4-5-20251101", "claude-opus"},     {"claude-sonnet-5-20260801", "claude-sonnet-5"},
      {"claude-sonnet-50", "claude-sonnet-5"},         {"claude-sonnet-4-5-20250929", "claude-sonnet"},
      {"claude-sonnet-6", "claude-sonnet"},            {"claude-sonnet", "claude-sonnet"},
      {"claude-haiku-4-5-20251001", "claude-haiku"},   {"claude-fable-1-20260901", "claude-fable"},
      {"claude-sonne", std::nullopt},                  {"Claude-opus-4-5", std::nullopt},
      {"gpt-4o-2024-08-06", std::nullopt},             {"", std::nullopt},
  };
  const PricingTable& table = PricingTable::defaultTable();
  for (const auto& c : cases) {
    auto m = table.match(c.model);
    ASSERT_EQ(m.has_value(), c.prefix.has_value()) << c.model;
    if (m) {
      EXPECT_EQ(m->prefix, *c.prefix) << c.model;
      EXPECT_EQ(m->rate, table.rates.at(*c.prefix)) << c.model;
    }
  }
}

TEST(PricingTest, ResolveRatePricesUnknownModelsAtOpusAndFreeOnesAtZero) {
  const PricingTable& table = PricingTable::defaultTable();
  for (const char* free : {"", "<synthetic>"}) {
    const ResolvedRate r = resolveRate(free, table);
    EXPECT_TRUE(r.rate == PricingRate{} && r.isFree && !r.isUnknown) << free;
  }
  for (const char* unknown : {"Claude-opus-4-5", "gpt-4o-2024-08-06", "<Synthetic>"}) {
    const ResolvedRate r = resolveRate(unknown, table);
    EXPECT_TRUE(r.rate == kOpus && r.isUnknown && !r.isFree) << unknown;
  }
  const ResolvedRate haiku = resolveRate("claude-haiku-4-5", table);
  EXPECT_TRUE(haiku.rate == table.rates.at("claude-haiku") && !haiku.isUnknown && !haiku.isFree);

  // A table of its own: its opus row prices the unknown; without one the
  // built-in opus row does, and the sonnet row falls back the same way.
  PricingTable own;
  own.rates["m-"] = {1, 1, 1, 1, 1};
  EXPECT_EQ(resolveRate("gpt", own).rate, kOpus);
  EXPECT_EQ(own.sonnetRate(), kSonnet);
  own.rates["claude-opus"] = {7, 7, 7, 7, 7};
  own.rates["claude-sonnet-5"] = {2, 2, 2, 2, 2};
  EXPECT_EQ(resolveRate("gpt", own).rate, (PricingRate{7, 7, 7, 7, 7}));
  EXPECT_EQ(own.sonnetRate(), kSonnet);  // never the sonnet-5 row
  own.rates["claude-sonnet"] = {9, 9, 9, 9, 9};
  EXPECT_EQ(own.sonnetRate(), (PricingRate{9, 9, 9, 9, 9}));
}

TEST(PricingTest, ShareBeginsPastOneHundredThousandTokens) {
  // The last context with no share, and the first with one.
  EXPECT_EQ(CostMath::share({60'000, 500, 40'000, 0, 0}), 0.0);
  EXPECT_EQ(CostMath::w1({60'000, 500, 40'000, 0, 0}, kOpus), 0.0);
  EXPECT_EQ(CostMath::carriedContextReadUSD({60'000, 0, 40'000, 0, 0}, kOpus), 0.0);
  EXPECT_DOUBLE_EQ(CostMath::share({60'001, 0, 40'000, 0, 0}), 1.0 / 100'001.0);
  EXPECT_GT(CostMath::w1({60'001, 0, 40'000, 0, 0}, kOpus), 0.0);

  // Half of a 200,000-token context lies past the line.
  const TurnUsage u{100'000, 9'999, 50'000, 30'000, 20'000};
  const CostMath::W1Composition c = CostMath::w1Composition(u, kOpus);
  EXPECT_DOUBLE_EQ(c.inputUSD, 0.25);
  EXPECT_DOUBLE_EQ(c.cacheWriteUSD, (6.25 * 30'000 + 10.0 * 20'000) / 1e6 * 0.5);
  EXPECT_DOUBLE_EQ(CostMath::w1(u, kOpus), c.inputUSD + c.cacheWriteUSD);
  EXPECT_DOUBLE_EQ(CostMath::carriedContextReadUSD(u, kOpus), 0.5 * 0.5 * 50'000 / 1e6);
}

TEST(PricingTest, W4NeedsMoreThanFiftyThousandWrittenAndAQualifyingGap) {
  struct Case {
    int64_t cache5m, cache1h;
    bool gap5m, gap1h;
    double w4;
  };
  const double p5 = (6.25 - 0.5) / 1e6, p1 = (10.0 - 0.5) / 1e6;
  const std::vector<Case> cases = {
      {50'000, 0, true, true, 0.0},           {50'001, 0, true, true, p5 * 50'001},
      {25'000, 25'000, true, true, 0.0},      {25'000, 25'001, true, true, p5 * 25'000 + p1 * 25'001},
      {25'000, 25'001, true, false, p5 * 25'000}, {25'000, 25'001, false, true, p1 * 25'001},
      {50'001, 0, false, true, 0.0},          {0, 60'000, true, false, 0.0},
  };
  for (const auto& c : cases) {
    TurnUsage u{10, 10, 1'000'000, c.cache5m, c.cache1h};
    EXPECT_DOUBLE_EQ(CostMath::w4(u, kOpus, c.gap5m, c.gap1h), c.w4) << c.cache5m << " " << c.cache1h;
  }
}

TEST(PricingTest, RoundsToSixDecimalsWithHalvesAwayFromZero) {
  EXPECT_EQ(roundUSD(0.0000025), 0.000003);
  EXPECT_EQ(roundUSD(-0.0000025), -0.000003);
  EXPECT_EQ(roundUSD(0.0000015), 0.000002);
  EXPECT_EQ(roundUSD(1.2345674), 1.234567);
  EXPECT_EQ(roundUSD(-0.0000004), 0.0);
}

TEST(PricingTest, LoadRequiresEveryKey) {
  testing::TempDir dir;
  const auto good = dir.path() / "good.json";
  testing::writeFile(good, R"({"note": "house rates", "rates": {
      "acme-": {"input": 1.5, "output": 2, "cacheRead": 0.1, "write5m": 1.75, "write1h": 3}}})");
  auto table = PricingTable::load(systemFileSystem(), good.string());
  ASSERT_TRUE(table.ok()) << table.error().message;
  EXPECT_EQ(table.value().note, "house rates");
  EXPECT_EQ(table.value().match("acme-9")->rate, (PricingRate{1.5, 2, 0.1, 1.75, 3}));

  const std::vector<std::string> bad = {
      R"({"rates": {}})",
      R"({"note": "n"})",
      R"({"note": "n", "rates": {"a": {"input": 1, "output": 2, "cacheRead": 0.1, "write5m": 1}}})",
      R"({"note": "n", "rates": {"a": {"input": "1", "output": 2, "cacheRead": 0.1, "write5m": 1, "write1h": 1}}})",
      R"({"note": 5, "rates": {}})",
      R"({"note": "n", "rates": [{"input": 1, "output": 2, "cacheRead": 0.1, "write5m": 1, "write1h": 1}]})",
      R"({"note": "n", "rates": {"a": null}})",
      "not json",
  };
  for (size_t i = 0; i < bad.size(); ++i) {
    const auto path = dir.path() / ("bad" + std::to_string(i) + ".json");
    testing::writeFile(path, bad[i]);
    EXPECT_FALSE(PricingTable::load(systemFileSystem(), path.string()).ok()) << bad[i];
  }
  EXPECT_FALSE(PricingTable::load(systemFileSystem(), (dir.path() / "missing.json").string()).ok());
}

}  // namespace
}  // namespace ostler
