// The pure derivations behind a chat's row: temperature, prompt state, the
// expiry nudge, and the agents-by-model tally.
#include <gtest/gtest.h>

#include "daemon/engine/nudge_derivation.h"
#include "daemon/engine/prompt_state.h"
#include "daemon/engine/temperature.h"
#include "daemon/feed/agents_by_model_aggregate.h"
#include "line_builder.h"

namespace ostler {
namespace {

using testing::at;

const InstantMs kLast = at("2026-03-10T10:00:00Z");

TEST(TemperatureTest, ColdExactlyAtTheTTLAndRewarmAlwaysAtTheFiveMinuteRate) {
  const PricingTable& table = PricingTable::defaultTable();
  Temperature::Input fiveMinute{120'000, "claude-sonnet-4-5", kLast, false};
  EXPECT_EQ(Temperature::evaluate(fiveMinute, kLast + 299'999, table).temperature, "warm");
  EXPECT_EQ(Temperature::evaluate(fiveMinute, kLast + 300'000, table).temperature, "cold");

  Temperature::Input oneHour = fiveMinute;
  oneHour.lastCacheWriteWasEphemeral1h = true;
  EXPECT_EQ(Temperature::evaluate(oneHour, kLast + 3'599'999, table).temperature, "warm");
  Temperature::Result r = Temperature::evaluate(oneHour, kLast + 3'600'000, table);
  EXPECT_EQ(r.temperature, "cold");
  EXPECT_EQ(r.ttlSeconds, 3600.0);
  // sonnet: write5m 3.75, input 3.0 per million, though the write was one-hour.
  EXPECT_DOUBLE_EQ(r.rewarm_usd, 0.45);
  EXPECT_DOUBLE_EQ(r.fresh_usd, 0.006);
  // A model the table does not know is priced at the opus row.
  EXPECT_DOUBLE_EQ(Temperature::evaluate({1'000'000, "gpt-9", kLast, false}, kLast, table).rewarm_usd, 6.25);
}

TEST(PromptStateDerivationTest, BoundariesOfQuietReadyAndWarming) {
  using PromptStateDerivation::derive;
  constexpr int64_t kFloor = PromptStateDerivation::kProvisionalSizeFloorBytes;
  constexpr int64_t kBudget = PromptStateDerivation::kProvisionalChunkBudgetBytes;
  const auto none = std::nullopt;
  // Below the floor nothing else counts, not even a dirty store.
  EXPECT_EQ(derive(7'999, -1, true, kFloor, kBudget, 100.0), DaemonPromptState::quiet());
  EXPECT_EQ(derive(8'000, -1, false, kFloor, kBudget, none), DaemonPromptState::ready());
  // 15,000 undigested bytes no longer fit one chunk.
  EXPECT_EQ(derive(15'000, -1, false, kFloor, kBudget, none), DaemonPromptState::warming(0, false, none));
  EXPECT_EQ(derive(15'001, 2, false, kFloor, kBudget, none), DaemonPromptState::ready());
  // An offset beyond the file counts the whole file as digested.
  EXPECT_EQ(derive(20'000, 50'000, false, kFloor, kBudget, none), DaemonPromptState::ready());
  // A dirty store warms even with nothing left to read.
  EXPECT_EQ(derive(20'000, 20'000, true, kFloor, kBudget, none), DaemonPromptState::warming(100, true, none));
  // Percent in whole steps, rounded down; estimate to the nearest second.
  EXPECT_EQ(derive(30'000, 9'999, false, kFloor, kBudget, 1'000.0), DaemonPromptState::warming(33, false, 20));
  EXPECT_EQ(derive(30'000, 10'500, false, kFloor, kBudget, 1'000.0).estimateSeconds, 20);  // 19.5 rounds up
  EXPECT_EQ(derive(30'000, 0, false, kFloor, kBudget, 0.0).estimateSeconds, std::nullopt);
  EXPECT_EQ(derive(30'000, 0, false, kFloor, kBudget, -5.0).estimateSeconds, std::nullopt);
  EXPECT_EQ(toJson(DaemonPromptState::quiet().wireValue()).dump(), R"({"state":"quiet"})");
}

TEST(NudgeDerivationTest, WarnsInTheLastMinuteOnlyWhileTheUserIsPresent) {
  using NudgeDerivation::derive;
  constexpr double kPresence = NudgeDerivation::kProvisionalPresenceThresholdSeconds;
  EXPECT_EQ(derive(std::nullopt, false, kLast, 0, kPresence), DaemonNudgeState::none());
  // Five-minute cache: 60 seconds out it starts, counting down to 1.
  EXPECT_EQ(derive(kLast, false, kLast + 239'999, 0, kPresence), DaemonNudgeState::none());
  EXPECT_EQ(derive(kLast, false, kLast + 240'000, 0, kPresence), DaemonNudgeState::warning(60));
  EXPECT_EQ(derive(kLast, false, kLast + 240'500, 0, kPresence), DaemonNudgeState::warning(59));
  EXPECT_EQ(derive(kLast, false, kLast + 299'000, 0, kPresence), DaemonNudgeState::warning(1));
  EXPECT_EQ(derive(kLast, false, kLast + 300'000, 0, kPresence), DaemonNudgeState::none());
  // One-hour cache.
  EXPECT_EQ(derive(kLast, true, kLast + 3'570'000, 0, kPresence), DaemonNudgeState::warning(30));
  EXPECT_EQ(derive(kLast, true, kLast + 270'000, 0, kPresence), DaemonNudgeState::none());
  // Presence: idle below the threshold only.
  EXPECT_EQ(derive(kLast, false, kLast + 270'000, 119.999, kPresence), DaemonNudgeState::warning(30));
  EXPECT_EQ(derive(kLast, false, kLast + 270'000, 120.0, kPresence), DaemonNudgeState::none());
}

TEST(AgentsByModelAggregateTest, BusiestThenDearestThenNameWithPendingAndUnrecognizedLast) {
  auto price = [](const std::string& family) {
    if (family == "fable") return 10.0;
    if (family == "opus") return 5.0;
    if (family == "haiku") return 1.0;
    return 0.0;
  };
  std::vector<std::string> models = {"unrecognized", "haiku", "pending", "opus",   "fable",
                                     "haiku",        "zeta",  "alpha",   "pending"};
  std::vector<FeedAgentsByModelEntry> expected = {{"haiku", 2}, {"fable", 1},   {"opus", 1},        {"alpha", 1},
                                                  {"zeta", 1},  {"pending", 2}, {"unrecognized", 1}};
  EXPECT_EQ(AgentsByModelAggregate::aggregate(models, price), expected);
}

}  // namespace
}  // namespace ostler
